// Instance-ID splitting and the DevDrvID filters.
#include <gtest/gtest.h>

#include "discovery/device_list.h"

using VideoConsoleCore::FoundDevice;
using VideoConsoleCore::HexIdValue;
using VideoConsoleCore::ParseDeviceFilter;
using VideoConsoleCore::SplitInstanceId;

TEST(InstanceId, SplitsVidPidAndSerial) {
    const FoundDevice device = SplitInstanceId("USB\\VID_FFF0&PID_0A1B\\SN20240001");
    EXPECT_EQ(device.vid, "FFF0");
    EXPECT_EQ(device.pid, "0A1B");
    EXPECT_EQ(device.instance, "SN20240001");
}

TEST(InstanceId, SerialEndsAtAmpersand) {
    // A device without a serial gets a generated instance such as 5&1a2b&0&1.
    EXPECT_EQ(SplitInstanceId("USB\\VID_FFF0&PID_0001\\5&1a2b&0&1").instance, "5");
}

TEST(InstanceId, MalformedIdsGiveShortOrEmptyParts) {
    const FoundDevice noAmpersand = SplitInstanceId("USB\\VID_FFF0");
    EXPECT_EQ(noAmpersand.vid, "FFF0");
    EXPECT_EQ(noAmpersand.pid, "");
    EXPECT_EQ(noAmpersand.instance, "");
    const FoundDevice noSerial = SplitInstanceId("USB\\VID_FFF0&PID_0001");
    EXPECT_EQ(noSerial.pid, "0001");
    EXPECT_EQ(noSerial.instance, "");
    EXPECT_EQ(SplitInstanceId("").vid, "");
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
