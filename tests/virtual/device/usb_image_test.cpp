// Flash images (*.hex): their layout, the file, and whether the device
// boots one that the host has written through the data reports.
#include <gtest/gtest.h>

#include <cstring>

#include "support/test_support.h"
#include "virtual/device/usb_image.h"
#include "host.h"

using namespace vdev_test;
namespace layout = VideoConsoleCore::virtualdev::flash_layout;

namespace {

// Writes the whole image from flash address 0, as a whole-flash update
// does, and plugs the device in again.
void WriteImageAndReplug(VirtualHidBackend& backend, const std::vector<uint8_t>& image) {
    {
        Host host(backend);
        ASSERT_TRUE(host.FlashSetup(1, 0, static_cast<uint32_t>(image.size())));
        ASSERT_GT(host.BurstWrite(image), 0);
    }
    backend.Replug(0);
}

std::array<uint32_t, 4> RunningVersion(VirtualHidBackend& backend) {
    Host host(backend);
    std::array<uint32_t, 4> words{};
    for (size_t i = 0; i < 4; ++i) EXPECT_TRUE(host.ReadRegister(kVersionRegisters[i], words[i]));
    return words;
}

}  // namespace

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

TEST(UsbImage, TheIdentificationBlockWinsOverSlot3WhenTheyMeet) {
    UsbImageOptions o;
    o.infoBase = 0x500000;  // puts the block on slot 3
    o.slot3Text = "ABC";
    o.modelCode = 11;
    o.size = 0x520100;  // a short image keeps what fits
    const auto img = BuildUsbImage(o);
    ASSERT_EQ(img.size(), 0x520100u);
    o.size = 0x800000;
    EXPECT_EQ(BuildUsbImage(o)[0x520180], 11);  // the model code must stay readable
    EXPECT_EQ(img[0x520008], 0xF0);
}

TEST(UsbImage, WrittenToAFileByteForByte) {
    korvsdk_test::TempFolder folder;
    UsbImageOptions o;
    o.versionText = "03.00.00.01";
    const auto img = BuildUsbImage(o);
    const auto path = folder.path() / "bridge.hex";
    ASSERT_TRUE(WriteUsbImageFile(path.string(), img));
    const std::string back = korvsdk_test::ReadFile(path);
    ASSERT_EQ(back.size(), img.size());
    EXPECT_EQ(std::memcmp(back.data(), img.data(), img.size()), 0);
    EXPECT_FALSE(WriteUsbImageFile((folder.path() / "missing" / "bridge.hex").string(), img));
}

TEST(UsbImageUpdate, TheDeviceRunsAnImageWrittenThroughTheDataReports) {
    auto backend = MakeBackend();
    UsbImageOptions o;
    o.versionText = "02.07.00.1c";
    o.vid = 0x2345;
    o.pid = 0x0C99;
    WriteImageAndReplug(*backend, BuildUsbImage(o));
    EXPECT_TRUE(backend->Bridge(0).RunningUpdatedFirmware());
    EXPECT_EQ(RunningVersion(*backend), (std::array<uint32_t, 4>{2, 7, 0, 0x1C}));
    // The image's identity is what the flash now reports.
    Host host(*backend);
    std::vector<uint8_t> ids;
    ASSERT_TRUE(host.FlashSetup(3, layout::kVidAt, 4));
    ASSERT_TRUE(host.BurstRead(4, ids));
    EXPECT_EQ(ids, (std::vector<uint8_t>{0x45, 0x23, 0x99, 0x0C}));
}

TEST(UsbImageUpdate, AnImageWithABrokenHeaderBootsTheOriginalFirmware) {
    auto backend = MakeBackend({{"Virtual0_OriginalFwVersion", "01.00.00.05"}});
    UsbImageOptions o;
    o.versionText = "02.00.00.00";
    o.headerLength = 0;
    WriteImageAndReplug(*backend, BuildUsbImage(o));
    EXPECT_FALSE(backend->Bridge(0).RunningUpdatedFirmware());
    EXPECT_EQ(RunningVersion(*backend), (std::array<uint32_t, 4>{1, 0, 0, 5}));
}
