// Instance-ID splitting and the DevDrvID filters.
#include <gtest/gtest.h>

#include "discovery/device_list.h"

using VideoConsoleCore::FoundDevice;
using VideoConsoleCore::HexIdValue;
using VideoConsoleCore::ParseDeviceFilter;
using VideoConsoleCore::SplitInstanceId;

TEST(InstanceId, SplitsVidPidAndSerial) {
    // A device without a serial gets a generated instance such as 5&1a2b&0&1,
    // of which the serial keeps what comes before the first ampersand;
    // malformed IDs give short or empty parts.
    const struct {
        const char* id;
        const char* vid;
        const char* pid;
        const char* instance;
    } rows[] = {{"USB\\VID_FFF0&PID_0A1B\\SN20240001", "FFF0", "0A1B", "SN20240001"},
                {"USB\\VID_FFF0&PID_0001\\5&1a2b&0&1", "FFF0", "0001", "5"},
                {"USB\\VID_FFF0&PID_0001", "FFF0", "0001", ""},
                {"USB\\VID_FFF0", "FFF0", "", ""},
                {"", "", "", ""}};
    for (const auto& row : rows) {
        const FoundDevice device = SplitInstanceId(row.id);
        EXPECT_EQ(device.vid, row.vid) << row.id;
        EXPECT_EQ(device.pid, row.pid) << row.id;
        EXPECT_EQ(device.instance, row.instance) << row.id;
    }
}

TEST(DeviceFilter, ReadsFourHexDigitsAfterEachMarker) {
    uint32_t vid = 0, pid = 0;
    ASSERT_TRUE(ParseDeviceFilter("USB\\VID_fff0&PID_0A1B&REV_0100", vid, pid));
    EXPECT_EQ(vid, 0xFFF0u);
    EXPECT_EQ(pid, 0x0A1Bu);
    ASSERT_TRUE(ParseDeviceFilter("PID_12345 VID_00017", vid, pid));  // only four digits count
    EXPECT_EQ(vid, 0x0001u);
    EXPECT_EQ(pid, 0x1234u);
    EXPECT_FALSE(ParseDeviceFilter("VID_FFF0 only", vid, pid));
    EXPECT_FALSE(ParseDeviceFilter("", vid, pid));
}

TEST(DeviceFilter, GarbageDigitsReadAsWhatStrtoulTakes) {
    EXPECT_EQ(HexIdValue("12zz"), 0x12u);
    EXPECT_EQ(HexIdValue("zz"), 0u);
    EXPECT_EQ(HexIdValue(""), 0u);
}
