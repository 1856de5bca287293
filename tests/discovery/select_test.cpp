// Device selection and the USB type, on virtual capture devices through the
// core's own scan and HID search.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "support/virtual_session.h"

using korvsdk_test::MessageLog;
using korvsdk_test::StateRecords;
using korvsdk_test::VirtualSession;
using namespace VideoConsoleCore;

namespace {

using Clock = std::chrono::steady_clock;

long long MillisecondsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class Select : public VirtualSession {};

}  // namespace

TEST_F(Select, OpensTheDeviceAndReadsItsBasics) {
    Init();
    ASSERT_TRUE(core_.SelectDevice(&list_[0]));
    EXPECT_TRUE(Said("HidDevices Got it!! and index: 0\n"));
    EXPECT_NE(MessageLog::All().find("Select Device #0: VID: 0xFFF0  PID: 0x0C01  UsagePage: 0x"),
              std::string::npos);
    EXPECT_TRUE(core_.m_selected);
    EXPECT_EQ(core_.m_deviceState, kDeviceStateSelected);
    // Flash identified, model from the identification block, versions read.
    EXPECT_EQ(core_.m_flashDeviceId, Device().Config(0).flashIndex);
    EXPECT_EQ(core_.m_deviceModel, 13);
    EXPECT_EQ(core_.m_runningFwVersion, "01.00.01.09");
    EXPECT_EQ(core_.m_mcuFwVersion, "0d.17.00.010000");
    EXPECT_TRUE(Said("USB FW current version: " + core_.m_usbFwVersion + "\n"));
    // An HDMI source is present: the hint for a device at work.
    EXPECT_TRUE(Said("Please close your preview software, such as OBS.\n"));
    EXPECT_EQ(MessageLog::All().find("restart select device"), std::string::npos);
}

TEST_F(Select, ChoosesTheEntryAmongSeveralDevices) {
    Init("VirtualDeviceCount=2\nVirtual1_Serial=VC00000077\nVirtual1_ModelCode=6\n");
    ASSERT_EQ(count_, 2);
    ASSERT_TRUE(core_.SelectDevice(&list_[1]));
    EXPECT_EQ(core_.m_selectedInstance, "VC00000077");
    EXPECT_EQ(core_.m_deviceModel, 6);
    EXPECT_TRUE(core_.m_mcuAccessDescriptorsInUse);
    EXPECT_TRUE(Said("HidDevices Got it!! and index: 1\n"));

    // Selecting the first one afterwards switches the open interface.
    ASSERT_TRUE(core_.SelectDevice(&list_[0]));
    EXPECT_EQ(core_.m_deviceModel, 13);
    EXPECT_FALSE(core_.m_mcuAccessDescriptorsInUse);
}

TEST_F(Select, StandbyHintWithoutHdmiSource) {
    Init();
    Device().Mcu(0).SetHdmiSourcePresent(false);
    Device().Mcu(0).SetVideoLocked(false);
    ASSERT_TRUE(core_.SelectDevice(&list_[0]));
    EXPECT_TRUE(Said("Don't run any preview software during updating firmware.\n"));
}

TEST_F(Select, RefusesBadEntriesWithoutTouchingTheState) {
    Init();
    DeviceEntry entry = list_[0];
    entry.pid = nullptr;
    MessageLog::Clear();
    EXPECT_FALSE(core_.SelectDevice(&entry));
    EXPECT_EQ(MessageLog::All(), "The device information entered is incorrect!\n");
    EXPECT_FALSE(core_.SelectDevice(nullptr));
    EXPECT_EQ(core_.m_deviceState, kDeviceStateNone);
    EXPECT_FALSE(core_.m_selected);

    // Refused while an update runs.
    core_.m_deviceState = kDeviceStateUpdating;
    MessageLog::Clear();
    EXPECT_FALSE(core_.SelectDevice(&list_[0]));
    EXPECT_EQ(MessageLog::All(), "Cannot switch device when you update the firmware!\n");
}

TEST_F(Select, NoMatchingInterfaceFailsAtOnce) {
    Init();
    // Serial of no device, a VID that is not hexadecimal, and a device that
    // went away after the scan: each ends in the first attempt.
    char otherSerial[] = "VC99999999";
    char badVid[] = "ZZZZ";
    DeviceEntry wrongSerial = list_[0];
    wrongSerial.instance = otherSerial;
    DeviceEntry wrongVid = list_[0];
    wrongVid.vid = badVid;
    for (DeviceEntry* entry : {&wrongSerial, &wrongVid, &list_[0]}) {
        if (entry == &list_[0]) Device().Unplug(0);
        MessageLog::Clear();
        const auto start = Clock::now();
        EXPECT_FALSE(core_.SelectDevice(entry));
        EXPECT_LT(MillisecondsSince(start), 100);
        EXPECT_TRUE(Said("HidDevices Got it!! and index: 65535\n"));
        EXPECT_TRUE(Said("[Select Device] No valid device found.\n"));
        EXPECT_EQ(MessageLog::All().find("restart select device"), std::string::npos);
        EXPECT_FALSE(core_.m_selected);
        EXPECT_EQ(core_.m_deviceState, kDeviceStateSelected);
    }
}

// Slow: ten attempts with their pauses.
TEST_F(Select, FlashThatCannotBeIdentifiedGivesTenAttempts) {
    // Only the data report in the descriptor: no command report to ask the
    // flash ID with, and too few output reports for the buffers.
    Init("Virtual0_ValueReports=1\n");
    MessageLog::Clear();
    const auto start = Clock::now();
    EXPECT_FALSE(core_.SelectDevice(&list_[0]));
    EXPECT_GE(MillisecondsSince(start), 1100);
    for (int attempt = 1; attempt <= 10; ++attempt)
        EXPECT_EQ(MessageLog::Count("restart select device... error time: " +
                                    std::to_string(attempt) + "\n"),
                  1);
    EXPECT_EQ(MessageLog::Count("Error initializing flash and RW buffer!\n"), 10);
    EXPECT_FALSE(core_.m_selected);
    EXPECT_FALSE(core_.m_deviceOpen);
}

TEST_F(Select, FlashIdentifiedOnASecondAttempt) {
    Init();
    // The flash-ID request is the first input report of the selection.
    Device().Faults(0).failCall = virtualdev::HidCall::kGetInputReport;
    Device().Faults(0).failAt = 1;
    MessageLog::Clear();
    ASSERT_TRUE(core_.SelectDevice(&list_[0]));
    EXPECT_EQ(MessageLog::Count("restart select device... error time: 1\n"), 1);
    EXPECT_EQ(MessageLog::All().find("error time: 2"), std::string::npos);
}

TEST_F(Select, UsbTypeFollowsThePortAndIsCached) {
    Start("Virtual0_PortLevel=3\n");
    EXPECT_EQ(core_.GetDeviceUsbType(), 3);
    EXPECT_TRUE(Said("USB type: 3\n"));
    ASSERT_EQ(StateRecords().size(), 1u);
    EXPECT_EQ(StateRecords()[0].value, 3u);
    EXPECT_EQ(core_.GetDeviceUsbType(), 3);
    EXPECT_EQ(StateRecords().size(), 2u);
}

TEST_F(Select, UsbTwoPortGivesTypeTwo) {
    Start("Virtual0_PortLevel=2\n");
    EXPECT_EQ(core_.GetDeviceUsbType(), 2);
}

TEST_F(Select, UsbTypeNeedsASelection) {
    Init();
    MessageLog::Clear();
    EXPECT_EQ(core_.GetDeviceUsbType(), 0);
    EXPECT_EQ(MessageLog::All(), std::string(kMsgSelectFirst));
}
