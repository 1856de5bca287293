// The firmware files the update tests and korvtool --virtual write: the
// fields of a flash image (*.hex) and of a program image (*.bin) at the
// addresses the library reads them from. A field moved here would go
// unnoticed by the session tests, whose files come from the same builders.
#include <gtest/gtest.h>

#include <cstring>

#include "virtual/device/usb_image.h"
#include "virtual/mcu/mcu_image.h"

using namespace VideoConsoleCore::virtualdev;
namespace layout = VideoConsoleCore::virtualdev::flash_layout;

TEST(UsbImage, FieldsSitAtTheirFlashAddresses) {
    UsbImageOptions o;
    o.versionText = "02.03.00.1a";
    o.vid = 0x1234;
    o.pid = 0xABCD;
    o.headerLength = 0x200;
    o.bootSize = 0x30000;
    o.modelCode = 7;
    o.flashType = 0x21;
    o.slot3Text = "SERIAL-12345";
    const auto img = BuildUsbImage(o);
    ASSERT_EQ(img.size(), 0x800000u);
    auto le = [&img](uint32_t at) { return img[at] | img[at + 1] << 8; };
    EXPECT_EQ(le(layout::kConfigBlock), 1);
    EXPECT_EQ(std::vector<uint8_t>(img.begin() + layout::kHeaderLengthAt,
                                   img.begin() + layout::kHeaderLengthAt + 8),
              (std::vector<uint8_t>{0, 0, 0x02, 0x00, 0, 0x03, 0x00, 0x00}));
    EXPECT_EQ(std::memcmp(&img[layout::kPrivateStart], "02.03.00.1a\0\0\0\0\0", 16), 0);
    EXPECT_EQ(le(0x520008), 0x1234);
    EXPECT_EQ(le(0x52000A), 0xABCD);
    // Slot 3: a 34-byte string descriptor, UTF-16LE.
    EXPECT_EQ(img[0x520180], 34);
    EXPECT_EQ(img[0x520181], 3);
    EXPECT_EQ(le(0x520182), 'S');
    EXPECT_EQ(le(0x520182 + 2 * 11), '5');
    EXPECT_EQ(le(0x520182 + 2 * 12), 0);
    // Identification block from the Private area.
    const uint32_t block = 0x4F0000 + 0x20000 + 384;
    EXPECT_EQ(img[block], 7);
    EXPECT_EQ(img[block + 1], 0x21);
    EXPECT_EQ(le(block + 2), '0');
    EXPECT_EQ(le(block + 2 + 2 * 10), 'a');
    // The firmware body runs to header + boot size, erased after it.
    EXPECT_NE(img[0x180000 + 0x30200 - 1], 0xFF);
    EXPECT_EQ(img[0x180000 + 0x30200], 0xFF);
    EXPECT_EQ(img[layout::kConfigBlock + 4], 0xFF);
}

TEST(McuImage, CarriesItsIdentityAtTheFixedOffsets) {
    McuImageOptions o;
    o.size = 0x3000;
    o.deviceType = 0x05;
    o.version = 0x17;
    o.codec = 0x0A;
    o.config = {0xC1, 0xC2, 0xC3};
    const auto img = BuildMcuImage(o);
    ASSERT_EQ(img.size(), 0x3000u);
    EXPECT_EQ(img[0x801], 0x05);
    EXPECT_EQ(img[0x800], 0x17);
    EXPECT_EQ(img[0x808], 0x0A);
    EXPECT_EQ(img[0x809], 0xC1);
    EXPECT_EQ(img[0x80A], 0xC2);
    EXPECT_EQ(img[0x80B], 0xC3);
    EXPECT_TRUE(McuImageStartable(img.data(), img.size()));
    // No two pages alike: a page at the wrong address shows in a verify.
    EXPECT_NE(std::memcmp(&img[0x100], &img[0x180], 128), 0);
}
