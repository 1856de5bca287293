// The packing of usage values into a value array: fields of any width
// laid out bit after bit, as the device's reports carry them. (The numbered
// HID function layer around it runs in every session test.)
#include <gtest/gtest.h>

#include <cstdlib>

#include "hid/call_hid_function.h"

using namespace VideoConsoleCore::hid;

TEST(PackUsageValues, FiveNibblesIntoFourSlots) {
    const uint32_t values[] = {0xA, 0xB, 0xC, 0xD, 0xE};
    uint32_t size = 0;
    uint8_t* packed = PackUsageValues(values, 5, 4, 4, &size);
    ASSERT_NE(packed, nullptr);
    ASSERT_EQ(size, 2u);
    EXPECT_EQ(packed[0], 0xBA);
    EXPECT_EQ(packed[1], 0xDC);
    std::free(packed);
}

TEST(PackUsageValues, FieldsCrossByteBoundariesAndAreMasked) {
    // Three 12-bit fields: 0xFFF masks 0x1ABC to 0xABC.
    const uint32_t values[] = {0x1ABC, 0x123, 0x456};
    uint32_t size = 0;
    uint8_t* packed = PackUsageValues(values, 3, 12, 3, &size);
    ASSERT_NE(packed, nullptr);
    ASSERT_EQ(size, 5u);  // 36 bits
    const uint8_t expected[] = {0xBC, 0x3A, 0x12, 0x56, 0x04};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(packed[i], expected[i]) << i;
    std::free(packed);
}

TEST(PackUsageValues, WideAndOddSizes) {
    uint32_t size = 0;
    const uint32_t full[] = {0xFFFFFFFF, 0x80000001};
    uint8_t* packed = PackUsageValues(full, 2, 32, 2, &size);
    ASSERT_EQ(size, 8u);
    EXPECT_EQ(packed[3], 0xFF);
    EXPECT_EQ(packed[4], 0x01);
    EXPECT_EQ(packed[7], 0x80);
    std::free(packed);

    // Fewer values than slots leave the rest zero; 1-bit fields.
    const uint32_t bits[] = {1, 0, 1};
    packed = PackUsageValues(bits, 3, 1, 10, &size);
    ASSERT_EQ(size, 2u);
    EXPECT_EQ(packed[0], 0x05);
    EXPECT_EQ(packed[1], 0x00);
    std::free(packed);

    // No values at all.
    packed = PackUsageValues(nullptr, 4, 8, 2, &size);
    ASSERT_NE(packed, nullptr);
    EXPECT_EQ(size, 2u);
    EXPECT_EQ(packed[0] | packed[1], 0);
    std::free(packed);
}
