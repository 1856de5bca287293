// Device selection where the session tests do not reach: refused entries,
// an interface that cannot be found, a flash that cannot be identified, the
// stand-by hint; on virtual capture devices through the core's own scan and
// HID search.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "support/virtual_session.h"

using korvsdk_test::MessageLog;
using korvsdk_test::VirtualSession;
using namespace VideoConsoleCore;

namespace {

using Clock = std::chrono::steady_clock;

long long MillisecondsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class Select : public VirtualSession {};

}  // namespace

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
        EXPECT_LT(MillisecondsSince(start), 1000);  // no second attempt (those pause)
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

TEST_F(Select, UsbTypeNeedsASelection) {
    Init();
    MessageLog::Clear();
    EXPECT_EQ(core_.GetDeviceUsbType(), 0);
    EXPECT_EQ(MessageLog::All(), std::string(kMsgSelectFirst));
}

// Units on a bench: default ports 1-<n+1> (also for locations with a
// separator or a blank), a port given by setting, a port given twice (the
// later unit moves to a free one), and two units with one serial number,
// each opened on its own port.
TEST_F(Select, UnitsWithOneSerialAreToldApartByPort) {
    Init("VirtualDeviceCount=4\nVirtual1_Serial=SAME\nVirtual2_Serial=SAME\n"
         "Virtual2_Location=3-1.4.2\nVirtual3_Location=3-1.4.2\n"
         "Virtual0_Location=1-9/x\nVirtual1_Location=1-9 x\n");  // refused: default ports
    ASSERT_EQ(count_, 4);
    const char* const expected[] = {"1-1", "1-2", "3-1.4.2", "1-3"};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(core_.EntryLocation(&list_[i]), expected[i]) << i;

    for (int i : {2, 1}) {
        ASSERT_TRUE(core_.SelectDevice(&list_[i])) << i;
        EXPECT_EQ(core_.m_hidDevice.path, Device().HidPath(static_cast<size_t>(i)));
    }

    // Only entries of the list the last scan handed out have a location.
    DeviceEntry copy = list_[2];
    const auto* inside = reinterpret_cast<const DeviceEntry*>(
        reinterpret_cast<const char*>(&list_[1]) + sizeof(char*));
    const DeviceEntry* const others[] = {&copy, inside, list_ + count_, nullptr};
    for (const DeviceEntry* entry : others)
        EXPECT_EQ(core_.EntryLocation(entry), "");
    core_.ForgetDeviceList(list_);
    EXPECT_EQ(core_.EntryLocation(&list_[2]), "");
}
