// The port level of a USB connection (from the hub's protocol answer, else
// its speed) and its look-up by driver key. The hub walk itself runs in the
// Wine sessions and the stand-in tests, against the stand-in hub driver.
#include "hid/backend/windows/usb_port_map.h"

#include <gtest/gtest.h>

#include <winioctl.h>
#include <usbioctl.h>

namespace {

using namespace VideoConsoleCore::hid::win;

constexpr ULONG kUsb1 = 1, kUsb2 = 2, kUsb3 = 4;

TEST(PortLevel, FromProtocolsThenSpeed) {
    EXPECT_EQ(PortLevelFromConnection(UsbHighSpeed, true, kUsb1 | kUsb2 | kUsb3), 3);
    EXPECT_EQ(PortLevelFromConnection(UsbLowSpeed, true, kUsb3), 3);
    EXPECT_EQ(PortLevelFromConnection(UsbSuperSpeed, true, kUsb1 | kUsb2), 2);
    EXPECT_EQ(PortLevelFromConnection(UsbFullSpeed, true, kUsb1), UsbFullSpeed);
    EXPECT_EQ(PortLevelFromConnection(UsbSuperSpeed, false, kUsb2), UsbSuperSpeed);
    EXPECT_EQ(PortLevelFromConnection(UsbLowSpeed, false, kUsb3), UsbLowSpeed);
    // What UsbPortLevel answers: a found device below level 3 counts as 2.
    EXPECT_EQ(PortLevelAnswer(3), 3);
    EXPECT_EQ(PortLevelAnswer(UsbFullSpeed), 2);
    EXPECT_EQ(PortLevelAnswer(-1), -1);
}

TEST(PortLevel, LookUpByDriverKeyIgnoresCaseAndTakesTheFirst) {
    UsbPortMap map;
    map.devices.push_back({L"{36FC9E60-C465-11CF-8056-444553540000}\\0007", 2, 0, 1, "1-1"});
    map.devices.push_back({L"{36fc9e60-c465-11cf-8056-444553540000}\\0007", 3, 0, 2, "1-2"});
    map.devices.push_back({L"{36fc9e60-c465-11cf-8056-444553540000}\\0012", 3, 0, 3, "1-3"});
    EXPECT_EQ(LookUpPortLevel(map, L"{36fc9e60-c465-11cf-8056-444553540000}\\0007"), 2);
    EXPECT_EQ(LookUpPortLevel(map, L"{36FC9E60-C465-11CF-8056-444553540000}\\0012"), 3);
    EXPECT_EQ(LookUpPortLevel(map, L"{36fc9e60-c465-11cf-8056-444553540000}\\001"), -1);
    EXPECT_EQ(LookUpPortLevel(map, L""), -1);
    EXPECT_EQ(LookUpPortLevel(UsbPortMap{}, L"{x}\\0001"), -1);
    EXPECT_EQ(LookUpLocation(map, L"{36fc9e60-c465-11cf-8056-444553540000}\\0012"), "1-3");
    EXPECT_EQ(LookUpLocation(map, L"{36FC9E60-C465-11CF-8056-444553540000}\\0007"), "1-1");
    EXPECT_EQ(LookUpLocation(map, L""), "");
}

}  // namespace
