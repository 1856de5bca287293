// The program-image builder and the EDID helpers.
#include <gtest/gtest.h>

#include <cstring>

#include "support/test_support.h"
#include "virtual/mcu/edid.h"
#include "virtual/mcu/mcu_image.h"

namespace VideoConsoleCore::virtualdev {
namespace {

TEST(DefaultEdid, IsAValidBlockWithoutExtensions) {
    const auto edid = BuildDefaultEdid();
    ASSERT_EQ(edid.size(), 128u);
    EXPECT_TRUE(EdidBlockValid(edid.data()));
    EXPECT_EQ(edid[126], 0);  // no extension block follows
    EXPECT_EQ(edid[18], 1);
    EXPECT_EQ(edid[19], 3);
}

TEST(DefaultEdid, DecodesToItsMakerAndPreferredTiming) {
    const auto e = BuildDefaultEdid();
    const unsigned maker = (unsigned(e[8]) << 8) | e[9];
    const char letters[4] = {char('A' - 1 + ((maker >> 10) & 31)), char('A' - 1 + ((maker >> 5) & 31)),
                             char('A' - 1 + (maker & 31)), 0};
    EXPECT_STREQ(letters, "KRV");
    EXPECT_EQ(maker & 0x8000, 0u);  // the reserved top bit stays clear
    const uint8_t* d = &e[54];
    EXPECT_EQ(d[0] | (d[1] << 8), 14850);  // 148.5 MHz
    EXPECT_EQ(d[2] | ((d[4] >> 4) << 8), 1920);
    EXPECT_EQ(d[3] | ((d[4] & 0xF) << 8), 280);
    EXPECT_EQ(d[5] | ((d[7] >> 4) << 8), 1080);
    EXPECT_EQ(d[6] | ((d[7] & 0xF) << 8), 45);
    // The name descriptor.
    EXPECT_EQ(e[93], 0xFC);
    EXPECT_EQ(std::memcmp(&e[95], "VIRTUAL CAP\n", 12), 0);
}

TEST(EdidChecksum, RepairsAChangedBlock) {
    auto e = BuildDefaultEdid();
    e[40] ^= 0x21;
    EXPECT_FALSE(EdidBlockValid(e.data()));
    e[127] = EdidChecksum(e.data());
    EXPECT_TRUE(EdidBlockValid(e.data()));
    e[0] = 0x01;  // the header is checked too, not only the sum
    e[127] = EdidChecksum(e.data());
    EXPECT_FALSE(EdidBlockValid(e.data()));
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

TEST(McuImage, ShortImagesLeaveOutWhatDoesNotFit) {
    McuImageOptions o;
    o.size = 0x801;
    o.version = 0x42;
    const auto img = BuildMcuImage(o);
    ASSERT_EQ(img.size(), 0x801u);
    EXPECT_EQ(img[0x800], 0x42);
    McuImageOptions none;
    none.size = 0;
    EXPECT_TRUE(BuildMcuImage(none).empty());
    EXPECT_FALSE(McuImageStartable(img.data(), 4));
}

TEST(McuImage, TheBootloaderChecksTheVectorTable) {
    McuImageOptions o;
    o.validVectors = false;
    EXPECT_FALSE(McuImageStartable(BuildMcuImage(o).data(), 0x2000));
    auto img = BuildMcuImage({});
    auto put = [&img](size_t at, uint32_t v) {
        for (int i = 0; i < 4; ++i) img[at + i] = uint8_t(v >> (8 * i));
    };
    put(4, kProgramBase + 0xC0);  // reset handler without the Thumb bit
    EXPECT_FALSE(McuImageStartable(img.data(), img.size()));
    put(4, 0x800 + 1);  // inside the bootloader
    EXPECT_FALSE(McuImageStartable(img.data(), img.size()));
    put(4, kProgramBase + 0x101);
    EXPECT_TRUE(McuImageStartable(img.data(), img.size()));
    put(0, 0x20000FFE);  // stack not word aligned
    EXPECT_FALSE(McuImageStartable(img.data(), img.size()));
    put(0, 0x10001000);  // stack outside RAM
    EXPECT_FALSE(McuImageStartable(img.data(), img.size()));
}

TEST(McuImage, WrittenToAFileByteForByte) {
    korvsdk_test::TempFolder folder;
    McuImageOptions o;
    o.size = 4096 + 3;
    const auto img = BuildMcuImage(o);
    const auto path = (folder.path() / "mcu.bin").string();
    ASSERT_TRUE(WriteMcuImageFile(path, img));
    const std::string back = korvsdk_test::ReadFile(folder.path() / "mcu.bin");
    ASSERT_EQ(back.size(), img.size());
    EXPECT_EQ(std::memcmp(back.data(), img.data(), img.size()), 0);
    EXPECT_FALSE(WriteMcuImageFile((folder.path() / "missing" / "mcu.bin").string(), img));
}

}  // namespace
}  // namespace VideoConsoleCore::virtualdev
