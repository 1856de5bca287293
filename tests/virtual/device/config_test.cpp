// Reading the Virtual* keys: defaults, each kind of key, and values that
// must not reach the device.
#include <gtest/gtest.h>

#include <cstdio>

#include "virtual/device/virtual_device_config.h"

using namespace VideoConsoleCore::virtualdev;
using VideoConsoleCore::SettingsTable;

TEST(VirtualDeviceConfig, DefaultsWithoutKeys) {
    const auto configs = ReadVirtualDeviceConfigs({});
    ASSERT_EQ(configs.size(), 1u);
    const VirtualDeviceConfig& c = configs[0];
    EXPECT_EQ(c.serial, "VC00000001");
    EXPECT_EQ(c.flashIndex, 26);
    EXPECT_EQ(c.OutputChunk(), 4096u);
    EXPECT_EQ(c.InputChunk(), 4096u);
    EXPECT_EQ(c.input[kCommandReport].Length(), 65u);
    EXPECT_EQ(c.latencyMs, 0u);
    EXPECT_EQ(c.faults.valueReports, 3);
}

TEST(VirtualDeviceConfig, ReadsEveryDeviceByItsNumber) {
    const SettingsTable s = {
        {"VirtualDeviceCount", "2"},     {"Virtual1_VID", "1a2b"},
        {"Virtual1_PID", "0x00C3"},      {"Virtual1_Serial", "SER-2"},
        {"Virtual1_PortLevel", "2"},     {"Virtual1_ModelCode", "7"},
        {"Virtual1_FlashIndex", "60"},   {"Virtual1_UsbFwVersion", "2.0a.0.1"},
        {"Virtual1_InCmdCount", "100"},  {"Virtual1_OutDataId", "0x21"},
        {"Virtual1_HdmiInfo", "01 02 ff"}, {"Virtual1_UsbWidth", "3840"},
        {"Virtual1_LatencyMs", "3"},     {"Virtual1_FailCall", "GetInputReport:4"},
        {"Virtual1_UnplugAfter", "9"},   {"Virtual1_ValueReports", "2"},
        {"Virtual1_IicNeverFinishes", "1"},
    };
    const auto configs = ReadVirtualDeviceConfigs(s);
    ASSERT_EQ(configs.size(), 2u);
    EXPECT_EQ(configs[0].vid, VirtualDeviceConfig{}.vid);  // device 0 untouched
    const VirtualDeviceConfig& c = configs[1];
    EXPECT_EQ(c.vid, 0x1A2B);
    EXPECT_EQ(c.pid, 0x00C3);
    EXPECT_EQ(c.serial, "SER-2");
    EXPECT_EQ(c.portLevel, 2);
    EXPECT_EQ(c.modelCode, 7);
    EXPECT_EQ(c.flashIndex, 60);  // beyond the table: reported as told
    EXPECT_EQ(c.usbFwVersion, (std::array<uint8_t, 4>{2, 0x0A, 0, 1}));
    EXPECT_EQ(c.input[kCommandReport].count, 100);
    EXPECT_EQ(c.output[kDataReport].id, 0x21);
    EXPECT_EQ(c.hdmiInfo[0], 1);
    EXPECT_EQ(c.hdmiInfo[2], 0xFF);
    EXPECT_EQ(c.hdmiInfo[3], 0);
    EXPECT_EQ(c.usbWidth, 3840);
    EXPECT_EQ(c.latencyMs, 3u);
    EXPECT_EQ(c.faults.failCall, HidCall::kGetInputReport);
    EXPECT_EQ(c.faults.failAt, 4u);
    EXPECT_EQ(c.faults.unplugAfterTransfers, 9u);
    EXPECT_EQ(c.faults.valueReports, 2);
    EXPECT_TRUE(c.faults.iicNeverFinishes);
}

TEST(VirtualDeviceConfig, GarbageKeepsTheDefaults) {
    const SettingsTable s = {
        {"VirtualDeviceCount", "many"},   {"Virtual0_VID", "zz"},
        {"Virtual0_PortLevel", "4"},      {"Virtual0_ModelCode", "18"},
        {"Virtual0_UsbFwVersion", "1.2.3"}, {"Virtual0_InCmdCount", "255"},
        {"Virtual0_OutIicCount", "8"},    {"Virtual0_OutDataCount", "7"},
        {"Virtual0_HdmiInfo", "0g"},      {"Virtual0_FailCall", "Reboot:1"},
        {"Virtual0_ValueReports", "0"},   {"Virtual0_Serial", "a\\b"},
        {"Virtual0_OutCmdId", "0"},
    };
    const auto configs = ReadVirtualDeviceConfigs(s);
    ASSERT_EQ(configs.size(), 1u);
    const VirtualDeviceConfig d;
    const VirtualDeviceConfig& c = configs[0];
    EXPECT_EQ(c.vid, d.vid);
    EXPECT_EQ(c.portLevel, d.portLevel);
    EXPECT_EQ(c.modelCode, d.modelCode);
    EXPECT_EQ(c.usbFwVersion, d.usbFwVersion);
    EXPECT_EQ(c.input[kCommandReport].count, d.input[kCommandReport].count);
    EXPECT_EQ(c.output[kIicReport].count, d.output[kIicReport].count);
    EXPECT_EQ(c.output[kDataReport].count, d.output[kDataReport].count);
    EXPECT_EQ(c.hdmiInfo, d.hdmiInfo);
    EXPECT_EQ(c.faults.failCall, HidCall::kNone);
    EXPECT_EQ(c.faults.valueReports, 3);
    EXPECT_EQ(c.serial, "VC00000001");
    EXPECT_EQ(c.output[kCommandReport].id, d.output[kCommandReport].id);
}

TEST(VirtualDeviceConfig, CollidingReportIdsFallBackPerDirection) {
    const auto c = ReadVirtualDeviceConfig(
        {{"Virtual0_OutCmdId", "9"}, {"Virtual0_OutIicId", "9"}, {"Virtual0_InDataId", "7"}}, 0);
    EXPECT_EQ(c.output[0].id, 1);
    EXPECT_EQ(c.output[1].id, 2);
    EXPECT_EQ(c.output[2].id, 3);
    EXPECT_EQ(c.input[0].id, 7);  // distinct: kept
}

TEST(VirtualDeviceConfig, ZeroDevicesIsAllowed) {
    EXPECT_TRUE(ReadVirtualDeviceConfigs({{"VirtualDeviceCount", "0"}}).empty());
    EXPECT_EQ(ReadVirtualDeviceConfigs({{"VirtualDeviceCount", "17"}}).size(), 1u);
}

TEST(VirtualDeviceConfig, VersionTextForms) {
    std::array<uint8_t, 4> v{};
    EXPECT_TRUE(ParseVersionText("01.00.02.10", v));
    EXPECT_EQ(v, (std::array<uint8_t, 4>{1, 0, 2, 0x10}));
    EXPECT_EQ(VersionText(v), "01.00.02.10");
    for (const char* bad : {"", "1.2.3.4.5", "1..2.3", "100.0.0.0", "1.2.3.", "a.b.c.g"}) {
        EXPECT_FALSE(ParseVersionText(bad, v)) << bad;
    }
}

TEST(VirtualDeviceConfig, ShippedSampleDescribesTwoAcceptedDevices) {
    SettingsTable s;
    ASSERT_TRUE(VideoConsoleCore::ReadSettingsFile(KORVSDK_SOURCE_DIR "/samples/virtual-setting.cfg", s));
    EXPECT_EQ(s["DeviceBackend"], "virtual");
    const auto configs = ReadVirtualDeviceConfigs(s);
    ASSERT_EQ(configs.size(), 2u);
    // Each device is accepted by one of the scan's ID filters.
    for (size_t i = 0; i < configs.size(); ++i) {
        char ids[32];
        std::snprintf(ids, sizeof ids, "VID_%04X&PID_%04X", configs[i].vid, configs[i].pid);
        EXPECT_NE(s["DevDrvID" + std::to_string(i)].find(ids), std::string::npos) << ids;
    }
    EXPECT_EQ(configs[1].portLevel, 2);
    EXPECT_EQ(configs[1].flashIndex, 32);
    // Two different boards, each microcontroller the one its model expects,
    // each able to take a bootloader page frame in one IIC report.
    EXPECT_NE(configs[0].mcu.boardVariant, configs[1].mcu.boardVariant);
    EXPECT_NE(configs[0].mcu.firmwareVersion, configs[1].mcu.firmwareVersion);
    for (const VirtualDeviceConfig& c : configs) {
        EXPECT_EQ(c.mcu.deviceType, c.modelCode);
        EXPECT_GE(c.output[kIicReport].count, 141);
    }
}
