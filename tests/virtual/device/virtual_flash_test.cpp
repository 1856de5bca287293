// The virtual flash shares its pages with every device made alike until it
// is written: a write, whether it lands in a page of the factory image, in
// an erased page or across the end of a page, reaches only the flash it was
// made to, and the next device still starts from the image as built.
#include <gtest/gtest.h>

#include <vector>

#include "virtual/device/virtual_flash.h"

using namespace VideoConsoleCore::virtualdev;

TEST(VirtualFlash, AWriteStaysInTheFlashItWasMadeTo) {
    const VirtualDeviceConfig config;
    const auto& geometry = FlashGeometryFor(config.flashIndex);
    VirtualFlash written(geometry);
    written.WriteFactoryImage(config);
    const uint8_t bytes[2] = {0x5A, 0xA5};
    const uint32_t addresses[] = {flash_layout::kPrivateStart, 0x7FFFFE, 0x0FFF};
    for (const uint32_t at : addresses) written.Write(at, bytes, 2);

    const std::vector<uint8_t> image = BuildUsbImage(FactoryImageOptions(config, written.Size()));
    VirtualFlash fresh(geometry);
    fresh.WriteFactoryImage(config);
    for (const uint32_t at : addresses) {
        uint8_t got[2], kept[2];
        written.Read(at, got, 2);
        fresh.Read(at, kept, 2);
        EXPECT_TRUE(got[0] == bytes[0] && got[1] == bytes[1]) << std::hex << at;
        EXPECT_TRUE(kept[0] == image[at] && kept[1] == image[at + 1]) << std::hex << at;
    }
}

// A flash's own pages are the memory its writes took: one per page a write
// first lands in, none for a page it already holds, none once erased.
TEST(VirtualFlash, CountsThePagesItsWritesTook) {
    const VirtualDeviceConfig config;
    VirtualFlash flash(FlashGeometryFor(config.flashIndex));
    flash.WriteFactoryImage(config);
    const uint8_t bytes[2] = {0x5A, 0xA5};
    struct Step {
        uint32_t at;
        size_t pagesAfter;
    } const steps[] = {
        {0x0000, 1},                  // a page of the factory image
        {0x0010, 1},                  // the same page again
        {0x7FFFFF, 3},                // across a page's end: two more
        {flash_layout::kPrivateStart, 4},
    };
    EXPECT_EQ(flash.OwnPages(), 0u);
    for (const Step& s : steps) {
        flash.Write(s.at, bytes, 2);
        EXPECT_EQ(flash.OwnPages(), s.pagesAfter) << std::hex << s.at;
    }
    flash.EraseAll();
    EXPECT_EQ(flash.OwnPages(), 0u);
}
