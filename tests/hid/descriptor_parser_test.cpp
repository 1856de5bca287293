// How main items become capabilities and collections, on small
// descriptors that isolate one rule each.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "hid/descriptor/report_descriptor.h"

using namespace VideoConsoleCore::hid;

namespace {

using Bytes = std::vector<uint8_t>;

// Application collection of Generic Desktop / Joystick around `body`.
Bytes InApplication(const Bytes& body) {
    const Bytes head = {0x05, 0x01, 0x09, 0x04, 0xA1, 0x01};
    Bytes d(head.size() + body.size() + 1, 0xC0);
    std::copy(head.begin(), head.end(), d.begin());
    std::copy(body.begin(), body.end(), d.begin() + static_cast<std::ptrdiff_t>(head.size()));
    return d;
}

TopLevelCollection ParseOne(const Bytes& descriptor) {
    ParsedDescriptor parsed = ParseReportDescriptor(descriptor);
    EXPECT_TRUE(parsed.Ok()) << parsed.error;
    if (parsed.collections.size() != 1) {
        ADD_FAILURE() << parsed.collections.size() << " collections";
        return {};
    }
    return parsed.collections.front();
}

const std::vector<ControlCaps>& InputCaps(const TopLevelCollection& tlc) {
    return tlc.Layout(ReportType::Input).caps;
}

TEST(VariableItem, UsagesGetOneFieldEachAndTheLastTheRest) {
    // X, Y on four 8-bit fields: X gets field 0, Y fields 1..3; listed Y first.
    const auto tlc = ParseOne(InApplication(
        {0x09, 0x30, 0x09, 0x31, 0x75, 0x08, 0x95, 0x04, 0x81, 0x02}));
    const auto& caps = InputCaps(tlc);
    ASSERT_EQ(caps.size(), 2u);
    EXPECT_EQ(caps[0].UsageMin, 0x31);
    EXPECT_EQ(caps[0].ReportCount, 3);
    EXPECT_EQ(caps[0].BitPosition, 16u);
    EXPECT_EQ(caps[0].DataIndexMin, 0);
    EXPECT_EQ(caps[1].UsageMin, 0x30);
    EXPECT_EQ(caps[1].ReportCount, 1);
    EXPECT_EQ(caps[1].BitPosition, 8u);
    EXPECT_EQ(caps[1].DataIndexMin, 1);
    EXPECT_EQ(tlc.Layout(ReportType::Input).byteLength, 5);
}

TEST(VariableItem, RangeTakesOneFieldPerUsageAndSurplusUsagesGetNone) {
    // Range 1..3, then 0x10 and 0x11, over 5 fields: the range takes three,
    // 0x10 one and 0x11, the last, the one left.
    auto tlc = ParseOne(InApplication({0x19, 0x01, 0x29, 0x03, 0x09, 0x10, 0x09, 0x11, 0x75,
                                       0x08, 0x95, 0x05, 0x81, 0x02}));
    auto caps = InputCaps(tlc);
    ASSERT_EQ(caps.size(), 3u);
    EXPECT_EQ(caps[2].IsRange, true);
    EXPECT_EQ(caps[2].ReportCount, 3);
    EXPECT_EQ(caps[2].DataIndexMax - caps[2].DataIndexMin, 2);
    EXPECT_EQ(caps[1].UsageMin, 0x10);
    EXPECT_EQ(caps[1].BitPosition, 8u + 24u);
    EXPECT_EQ(caps[0].UsageMin, 0x11);
    EXPECT_EQ(caps[0].BitPosition, 8u + 32u);

    // Two fields for three usages: the third gets no capability.
    tlc = ParseOne(InApplication(
        {0x09, 0x30, 0x09, 0x31, 0x09, 0x32, 0x75, 0x08, 0x95, 0x02, 0x81, 0x02}));
    caps = InputCaps(tlc);
    ASSERT_EQ(caps.size(), 2u);
    EXPECT_EQ(caps[0].UsageMin, 0x31);
    EXPECT_EQ(caps[1].UsageMin, 0x30);
}

TEST(VariableItem, OneBitFieldsAreButtonsWiderOnesValues) {
    const auto tlc = ParseOne(InApplication({0x15, 0x00, 0x25, 0x01, 0x09, 0x30, 0x75, 0x01,
                                             0x95, 0x01, 0x81, 0x02, 0x09, 0x31, 0x75, 0x02,
                                             0x81, 0x02, 0x75, 0x05, 0x81, 0x03}));
    const auto& caps = InputCaps(tlc);
    ASSERT_EQ(caps.size(), 2u);
    EXPECT_TRUE(caps[0].IsButton);
    EXPECT_FALSE(caps[1].IsButton);
    EXPECT_EQ(caps[1].LogicalMax, 1);
}

TEST(ArrayItem, OneButtonCapPerUsageOverTheSameFields) {
    // Array of two 8-bit fields with usages A, B and range 1..5.
    const auto tlc = ParseOne(InApplication({0x09, 0xA0, 0x09, 0xB0, 0x19, 0x01, 0x29, 0x05,
                                             0x15, 0x01, 0x25, 0x07, 0x75, 0x08, 0x95, 0x02,
                                             0x81, 0x00}));
    const auto& caps = InputCaps(tlc);
    ASSERT_EQ(caps.size(), 3u);
    for (const ControlCaps& c : caps) {
        EXPECT_TRUE(c.IsButton);
        EXPECT_EQ(c.ReportCount, 2);
        EXPECT_EQ(c.BitPosition, 8u);
        EXPECT_EQ(c.LogicalMin, 1);
        EXPECT_EQ(c.LogicalMax, 7);
    }
    EXPECT_TRUE(caps[0].IsRange);
    EXPECT_TRUE(caps[0].IsMultipleItemsForArray);
    EXPECT_TRUE(caps[1].IsMultipleItemsForArray);
    EXPECT_FALSE(caps[2].IsMultipleItemsForArray);
    EXPECT_EQ(caps[2].UsageMin, 0xA0);
    // Data indices run in declaration order: A=0, B=1, range 2..6.
    EXPECT_EQ(caps[2].DataIndexMin, 0);
    EXPECT_EQ(caps[1].DataIndexMin, 1);
    EXPECT_EQ(caps[0].DataIndexMin, 2);
    EXPECT_EQ(caps[0].DataIndexMax, 6);
    EXPECT_EQ(tlc.Layout(ReportType::Input).dataIndexCount, 7);
}

TEST(ConstantItem, PaddingCountsInTheLengthButIsNoCapability) {
    const auto tlc = ParseOne(InApplication({0x75, 0x08, 0x95, 0x03, 0x81, 0x03,     // no usage
                                             0x09, 0x00, 0x95, 0x01, 0x91, 0x01,     // usage 0
                                             0x09, 0x30, 0xB1, 0x03}));              // real usage
    EXPECT_TRUE(InputCaps(tlc).empty());
    EXPECT_EQ(tlc.Layout(ReportType::Input).byteLength, 4);
    EXPECT_TRUE(tlc.Layout(ReportType::Output).caps.empty());
    EXPECT_EQ(tlc.Layout(ReportType::Output).byteLength, 2);
    ASSERT_EQ(tlc.Layout(ReportType::Feature).caps.size(), 1u);
    EXPECT_EQ(tlc.Layout(ReportType::Feature).caps[0].BitField, 0x03);
}

TEST(Reports, ByteLengthIsTheLongestReportPlusItsIdByte) {
    const auto tlc = ParseOne(InApplication({0x85, 0x01, 0x09, 0x30, 0x75, 0x08, 0x95, 0x02,
                                             0x81, 0x02, 0x85, 0x02, 0x09, 0x31, 0x75, 0x01,
                                             0x95, 0x11, 0x81, 0x02}));
    const ReportTypeLayout& input = tlc.Layout(ReportType::Input);
    EXPECT_EQ(input.byteLength, 4);  // report 2: 17 bits -> 3 bytes + ID
    EXPECT_EQ(input.reportIds, (std::vector<uint8_t>{1, 2}));
    EXPECT_EQ(tlc.Layout(ReportType::Output).byteLength, 0);
    // Fields of each report start right after its ID byte.
    EXPECT_EQ(input.caps[1].BitPosition, 8u);
    EXPECT_EQ(input.caps[1].ReportID, 2);
}

TEST(Collections, TopLevelCollectionsAreSplitAndGlobalsCarryOver) {
    const Bytes d = {0x05, 0x01, 0x09, 0x02, 0xA1, 0x01, 0x85, 0x01, 0x09, 0x30, 0x75, 0x08,
                     0x95, 0x01, 0x81, 0x02, 0xC0,
                     // Consumer control: report size/count still 8/1, new ID 2.
                     0x05, 0x0C, 0x09, 0x01, 0xA1, 0x01, 0x85, 0x02, 0x09, 0xE9, 0x81, 0x02,
                     0xC0,
                     // A second consumer control.
                     0x09, 0x01, 0xA1, 0x01, 0x85, 0x03, 0x09, 0xEA, 0x81, 0x02, 0xC0};
    const ParsedDescriptor parsed = ParseReportDescriptor(d);
    ASSERT_TRUE(parsed.Ok()) << parsed.error;
    ASSERT_EQ(parsed.collections.size(), 3u);
    const TopLevelCollection* consumer = FindTopLevelCollection(parsed, 0x0C, 0x01);
    ASSERT_EQ(consumer, &parsed.collections[1]);
    ASSERT_EQ(consumer->Layout(ReportType::Input).caps.size(), 1u);
    EXPECT_EQ(consumer->Layout(ReportType::Input).caps[0].UsageMin, 0xE9);
    EXPECT_EQ(consumer->Layout(ReportType::Input).caps[0].BitSize, 8);
    EXPECT_EQ(consumer->Layout(ReportType::Input).reportIds, (std::vector<uint8_t>{2}));
    EXPECT_EQ(FindTopLevelCollection(parsed, 0x01, 0x06), nullptr);
}

TEST(Collections, LinkCollectionsNumberedInOrderWithNewestChildFirst) {
    // Application { Physical(0x01) { Logical(0x02) { X } }  Physical(0x03) { Y } }
    const auto tlc = ParseOne(InApplication(
        {0x09, 0x01, 0xA1, 0x00, 0x09, 0x02, 0xA1, 0x02, 0x09, 0x30, 0x75, 0x08, 0x95, 0x01,
         0x81, 0x02, 0xC0, 0xC0, 0x09, 0x03, 0xA1, 0x00, 0x09, 0x31, 0x81, 0x02, 0xC0}));
    const auto& nodes = tlc.linkCollections;
    ASSERT_EQ(nodes.size(), 4u);
    EXPECT_EQ(nodes[0].NumberOfChildren, 2);
    EXPECT_EQ(nodes[0].FirstChild, 3);
    EXPECT_EQ(nodes[3].NextSibling, 1);
    EXPECT_EQ(nodes[1].NextSibling, 0);
    EXPECT_EQ(nodes[1].FirstChild, 2);
    EXPECT_EQ(nodes[2].Parent, 1);
    EXPECT_EQ(nodes[2].CollectionType, 2);
    EXPECT_EQ(nodes[3].LinkUsage, 0x03);
    const auto& caps = InputCaps(tlc);
    ASSERT_EQ(caps.size(), 2u);
    EXPECT_EQ(caps[0].LinkCollection, 2);
    EXPECT_EQ(caps[0].LinkUsage, 0x02);
    EXPECT_EQ(caps[1].LinkCollection, 3);
}

TEST(GlobalItems, PushPopSignExtensionAndExtendedUsages) {
    const auto tlc = ParseOne(InApplication({
        0x16, 0x01, 0xF8, 0x26, 0xFF, 0x07,  // logical -2047..2047
        0x75, 0x0C, 0x95, 0x01, 0xA4,        // push
        0x15, 0x00, 0x27, 0xFF, 0xFF, 0x00, 0x00, 0x75, 0x10,  // 0..65535, 16 bits
        0x0B, 0x38, 0x02, 0x0C, 0x00,        // 4-byte usage: Consumer AC Pan
        0x81, 0x02,
        0xB4,                                // pop
        0x09, 0x30, 0x81, 0x06}));
    const auto& caps = InputCaps(tlc);
    ASSERT_EQ(caps.size(), 2u);
    EXPECT_EQ(caps[0].UsagePage, 0x0C);
    EXPECT_EQ(caps[0].UsageMin, 0x238);
    EXPECT_EQ(caps[0].LogicalMax, 65535);
    EXPECT_EQ(caps[1].UsagePage, 0x01);
    EXPECT_EQ(caps[1].BitSize, 12);
    EXPECT_EQ(caps[1].LogicalMin, -2047);
    EXPECT_EQ(caps[1].LogicalMax, 2047);
    EXPECT_FALSE(caps[1].IsAbsolute);
    EXPECT_EQ(caps[1].BitPosition, 8u + 16u);
}

TEST(LocalItems, DelimitedSetUsesItsFirstUsageAndRangesMayEndFirst) {
    const auto tlc = ParseOne(InApplication({0xA9, 0x01, 0x09, 0x30, 0x09, 0x31, 0xA9, 0x00,
                                             0x29, 0x05, 0x19, 0x02,  // maximum before minimum
                                             0x75, 0x08, 0x95, 0x05, 0x81, 0x02}));
    const auto& caps = InputCaps(tlc);
    ASSERT_EQ(caps.size(), 2u);
    EXPECT_EQ(caps[1].UsageMin, 0x30);
    EXPECT_TRUE(caps[0].IsRange);
    EXPECT_EQ(caps[0].UsageMin, 2);
    EXPECT_EQ(caps[0].UsageMax, 5);
}

TEST(Items, LongItemsAreSkippedAndEmptyFieldsIgnored) {
    const auto tlc = ParseOne(InApplication({0xFE, 0x02, 0x10, 0xAA, 0xBB,  // long item
                                             0x09, 0x30, 0x75, 0x08, 0x95, 0x00, 0x81, 0x02}));
    EXPECT_TRUE(InputCaps(tlc).empty());
    EXPECT_EQ(tlc.Layout(ReportType::Input).byteLength, 1);
}

}  // namespace
