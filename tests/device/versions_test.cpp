// The two firmware version queries on a selected virtual device.
#include <gtest/gtest.h>

#include <string>

#include "support/virtual_session.h"
#include "virtual/device/virtual_flash.h"

using korvsdk_test::MessageLog;
using korvsdk_test::StateRecords;
using korvsdk_test::VirtualSession;
using namespace VideoConsoleCore;

namespace {

class Versions : public VirtualSession {};

}  // namespace

TEST_F(Versions, UsbVersionTellsStoredRunningAndBootChoice) {
    Start("Virtual0_UsbFwVersion=01.02.10.03\n");
    std::string text;
    ASSERT_TRUE(core_.GetUsbFwVersion(text));
    EXPECT_EQ(text.substr(0, 11), "01.02.10.03");
    EXPECT_EQ(text, core_.m_usbFwVersion);
    EXPECT_EQ(core_.m_runningFwVersion, "01.02.10.03");
    EXPECT_TRUE(Said("USB FW current version: " + text + "\n"));
    EXPECT_TRUE(Said("FW version from memory: 01.02.10.03\n"));
    EXPECT_TRUE(Said("Bootloader config Byte[0]: 0x01 (Load Latest Firmware)"));
    ASSERT_EQ(StateRecords().size(), 1u);
    EXPECT_EQ(StateRecords()[0].message, "USB FW current version: " + text);
    EXPECT_EQ(StateRecords()[0].text0, text);
    EXPECT_EQ(StateRecords()[0].text1, "01.02.10.03");
    EXPECT_EQ(StateRecords()[0].value, 1u);
}

TEST_F(Versions, BootConfigurationByteMeanings) {
    Start();
    std::string text;
    Device().Flash(0).WriteLe32(virtualdev::flash_layout::kConfigBlock, 0);
    ASSERT_TRUE(core_.GetUsbFwVersion(text));
    EXPECT_TRUE(Said("Bootloader config Byte[0]: 0x00 (Load Original Firmware)"));
    EXPECT_EQ(core_.m_bootConfigByte, 0);

    Device().Flash(0).WriteLe32(virtualdev::flash_layout::kConfigBlock, 2);
    MessageLog::Clear();
    ASSERT_TRUE(core_.GetUsbFwVersion(text));
    EXPECT_EQ(core_.m_bootConfigByte, 2);
    EXPECT_EQ(MessageLog::All().find("Bootloader config"), std::string::npos);
}

TEST_F(Versions, FailedMcuReadKeepsTheBoardVariant) {
    Start();
    core_.m_boardVariant = 0x42;
    Device().Mcu(0).Faults().nackRegister = 0xA1;
    std::string text = "stale";
    EXPECT_FALSE(core_.GetMcuFwVersion(text));
    EXPECT_EQ(text, "");
    EXPECT_EQ(MessageLog::All(), "ReadEx ERROR\n");
    EXPECT_EQ(core_.m_boardVariant, 0x42);
}
