// The HidP_-style report functions on a joystick descriptor that exercises
// each case: fields across byte boundaries, report IDs, a link collection,
// null values, a value range and a usage value array.
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "hid/descriptor/hidp.h"
#include "hid/descriptor/report_bits.h"

using namespace VideoConsoleCore::hid;

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint16_t kDesktop = 0x01;
constexpr uint16_t kX = 0x30, kY = 0x31, kHat = 0x39, kVector = 0x40;

const Bytes kJoystick = {
    0x05, 0x01, 0x09, 0x04, 0xA1, 0x01,
    // Report 1: X, Y 12 bits each (bits 8..31), 4 buttons, hat 1..8 with null.
    0x85, 0x01, 0x09, 0x30, 0x09, 0x31, 0x15, 0x00, 0x26, 0xFF, 0x0F, 0x75, 0x0C, 0x95, 0x02,
    0x81, 0x02, 0x05, 0x09, 0x19, 0x01, 0x29, 0x04, 0x25, 0x01, 0x75, 0x01, 0x95, 0x04, 0x81,
    0x02, 0x05, 0x01, 0x09, 0x39, 0x15, 0x01, 0x25, 0x08, 0x75, 0x04, 0x95, 0x01, 0x81, 0x42,
    // Report 2: 4 bits padding, usage 0x40 as four 4-bit values (bits 12..27),
    // then in a physical collection X again, -127..127 with null (bits 28..35).
    0x85, 0x02, 0x75, 0x04, 0x95, 0x01, 0x81, 0x03, 0x09, 0x40, 0x15, 0x00, 0x25, 0x0F, 0x95,
    0x04, 0x81, 0x02, 0x09, 0x01, 0xA1, 0x00, 0x09, 0x30, 0x15, 0x81, 0x25, 0x7F, 0x75, 0x08,
    0x95, 0x01, 0x81, 0x42, 0xC0,
    // Output report 3: range 0x50..0x52 of bytes, 0x53 0..7 with null, padding.
    0x85, 0x03, 0x19, 0x50, 0x29, 0x52, 0x15, 0x00, 0x26, 0xFF, 0x00, 0x75, 0x08, 0x95, 0x03,
    0x91, 0x02, 0x09, 0x53, 0x25, 0x07, 0x75, 0x04, 0x95, 0x01, 0x91, 0x42, 0x91, 0x03,
    0xC0};

class Hidp : public ::testing::Test {
protected:
    void SetUp() override {
        ParsedDescriptor parsed = ParseReportDescriptor(kJoystick);
        ASSERT_TRUE(parsed.Ok()) << parsed.error;
        m_tlc = parsed.collections.at(0);
    }

    Bytes Report(ReportType type, uint8_t id) const {
        Bytes report(m_tlc.Layout(type).byteLength, 0xEE);
        EXPECT_EQ(InitializeReportForID(type, id, m_tlc, report), kHidpStatusSuccess);
        return report;
    }

    TopLevelCollection m_tlc;
};

TEST_F(Hidp, GetCapsCountsCapsAndDataIndices) {
    Caps caps;
    ASSERT_EQ(GetCaps(m_tlc, caps), kHidpStatusSuccess);
    EXPECT_EQ(caps.UsagePage, kDesktop);
    EXPECT_EQ(caps.Usage, 0x04);
    EXPECT_EQ(caps.InputReportByteLength, 5);
    EXPECT_EQ(caps.OutputReportByteLength, 5);
    EXPECT_EQ(caps.FeatureReportByteLength, 0);
    EXPECT_EQ(caps.NumberLinkCollectionNodes, 2);
    EXPECT_EQ(caps.NumberInputValueCaps, 5);
    EXPECT_EQ(caps.NumberInputButtonCaps, 1);
    EXPECT_EQ(caps.NumberInputDataIndices, 9);  // Y, X, 4 buttons, hat, vector, X
    EXPECT_EQ(caps.NumberOutputValueCaps, 2);
    EXPECT_EQ(caps.NumberOutputDataIndices, 4);
}

TEST_F(Hidp, FieldsAcrossByteBoundariesKeepTheirNeighbours) {
    Bytes report = Report(ReportType::Input, 1);
    ASSERT_EQ(SetUsageValue(ReportType::Input, kDesktop, 0, kX, 0xABC, m_tlc, report),
              kHidpStatusSuccess);
    ASSERT_EQ(SetUsageValue(ReportType::Input, kDesktop, 0, kY, 0x123, m_tlc, report),
              kHidpStatusSuccess);
    EXPECT_EQ(report, (Bytes{0x01, 0xBC, 0x3A, 0x12, 0x00}));
    // Only the low 12 bits are stored.
    ASSERT_EQ(SetUsageValue(ReportType::Input, kDesktop, 0, kX, 0xFFFFF, m_tlc, report),
              kHidpStatusSuccess);
    uint32_t x = 0, y = 0;
    EXPECT_EQ(GetUsageValue(ReportType::Input, kDesktop, 0, kX, x, m_tlc, report),
              kHidpStatusSuccess);
    EXPECT_EQ(GetUsageValue(ReportType::Input, kDesktop, 0, kY, y, m_tlc, report),
              kHidpStatusSuccess);
    EXPECT_EQ(x, 0xFFFu);
    EXPECT_EQ(y, 0x123u);
}

TEST_F(Hidp, UsageInARangeNamesItsOwnField) {
    Bytes report = Report(ReportType::Output, 3);
    ASSERT_EQ(SetUsageValue(ReportType::Output, kDesktop, 0, 0x51, 7, m_tlc, report),
              kHidpStatusSuccess);
    EXPECT_EQ(report[2], 7);
    EXPECT_EQ(report[1], 0);
    EXPECT_EQ(report[3], 0);
}

TEST_F(Hidp, InitializeReportSetsIdAndNullValues) {
    // Hat 1..8: its null value 0 is the cleared field.
    EXPECT_EQ(Report(ReportType::Input, 1), (Bytes{0x01, 0, 0, 0, 0}));
    // X -127..127 in 8 bits: null is -128 (0x80) at bits 28..35.
    EXPECT_EQ(Report(ReportType::Input, 2), (Bytes{0x02, 0, 0, 0, 0x08}));
    // 0..7 in 4 bits: null is all ones.
    EXPECT_EQ(Report(ReportType::Output, 3), (Bytes{0x03, 0, 0, 0, 0x0F}));

    Bytes report(5);
    EXPECT_EQ(InitializeReportForID(ReportType::Input, 3, m_tlc, report),
              kHidpStatusReportDoesNotExist);
    EXPECT_EQ(InitializeReportForID(ReportType::Feature, 1, m_tlc, {}),
              kHidpStatusReportDoesNotExist);
    report.resize(4);
    EXPECT_EQ(InitializeReportForID(ReportType::Input, 1, m_tlc, report),
              kHidpStatusInvalidReportLength);
}

TEST(HidpNoReportIds, ReportsStillStartWithAZeroIdByte) {
    // Mouse buttons + X without report IDs.
    const Bytes mouse = {0x05, 0x01, 0x09, 0x02, 0xA1, 0x01, 0x05, 0x09, 0x19, 0x01, 0x29,
                         0x03, 0x25, 0x01, 0x75, 0x01, 0x95, 0x08, 0x81, 0x02, 0x05, 0x01,
                         0x09, 0x30, 0x15, 0x81, 0x25, 0x7F, 0x75, 0x08, 0x95, 0x01, 0x81,
                         0x06, 0xC0};
    const ParsedDescriptor parsed = ParseReportDescriptor(mouse);
    ASSERT_TRUE(parsed.Ok()) << parsed.error;
    const TopLevelCollection& tlc = parsed.collections[0];
    Bytes report(3, 0xEE);
    ASSERT_EQ(InitializeReportForID(ReportType::Input, 0, tlc, report), kHidpStatusSuccess);
    EXPECT_EQ(report, (Bytes{0, 0, 0}));
    EXPECT_EQ(SetUsageValue(ReportType::Input, kDesktop, 0, kX, 0x85, tlc, report),
              kHidpStatusSuccess);
    EXPECT_EQ(report, (Bytes{0, 0, 0x85}));
}

TEST_F(Hidp, StatusCodes) {
    Bytes report = Report(ReportType::Input, 1);
    uint32_t value = 0;
    const auto get = [&](ReportType type, uint16_t page, uint16_t link, uint16_t usage,
                         const Bytes& r) {
        return GetUsageValue(type, page, link, usage, value, m_tlc, r);
    };
    EXPECT_EQ(get(static_cast<ReportType>(3), kDesktop, 0, kX, report),
              kHidpStatusInvalidReportType);
    EXPECT_EQ(get(ReportType::Input, kDesktop, 0, kX, Bytes(4)), kHidpStatusInvalidReportLength);
    EXPECT_EQ(get(ReportType::Input, kDesktop, 0, kX, Bytes(6)), kHidpStatusInvalidReportLength);
    EXPECT_EQ(get(ReportType::Input, kDesktop, 0, 0x99, report), kHidpStatusUsageNotFound);
    EXPECT_EQ(get(ReportType::Input, 0x09, 0, 0x01, report), kHidpStatusUsageNotFound);  // button
    EXPECT_EQ(get(ReportType::Input, 0x02, 0, kX, report), kHidpStatusUsageNotFound);
    EXPECT_EQ(get(ReportType::Feature, kDesktop, 0, kX, {}), kHidpStatusUsageNotFound);
    // Y and the hat live in report 1 only.
    const Bytes report2 = Report(ReportType::Input, 2);
    EXPECT_EQ(get(ReportType::Input, kDesktop, 0, kY, report2), kHidpStatusIncompatibleReportId);
    EXPECT_EQ(get(ReportType::Input, kDesktop, 0, kHat, report2),
              kHidpStatusIncompatibleReportId);
    Bytes writable = report2;
    EXPECT_EQ(SetUsageValue(ReportType::Input, kDesktop, 0, kY, 1, m_tlc, writable),
              kHidpStatusIncompatibleReportId);
    EXPECT_EQ(writable, report2);

    TopLevelCollection unparsed;
    Caps caps;
    EXPECT_EQ(GetCaps(unparsed, caps), kHidpStatusInvalidPreparsedData);
    EXPECT_EQ(GetUsageValue(ReportType::Input, kDesktop, 0, kX, value, unparsed, report),
              kHidpStatusInvalidPreparsedData);
}

TEST_F(Hidp, LinkCollectionSelectsBetweenEqualUsages) {
    Bytes report1 = Report(ReportType::Input, 1);
    const Bytes report2 = Report(ReportType::Input, 2);
    uint32_t value = 0;
    // Link 0 finds the X of whichever report the buffer holds.
    EXPECT_EQ(GetUsageValue(ReportType::Input, kDesktop, 0, kX, value, m_tlc, report2),
              kHidpStatusSuccess);
    EXPECT_EQ(value, 0x80u);
    EXPECT_EQ(GetUsageValue(ReportType::Input, kDesktop, 1, kX, value, m_tlc, report1),
              kHidpStatusIncompatibleReportId);
    EXPECT_EQ(GetUsageValue(ReportType::Input, kDesktop, 2, kX, value, m_tlc, report2),
              kHidpStatusUsageNotFound);
}

TEST_F(Hidp, ValueArraysOnlyThroughTheArrayFunctions) {
    Bytes report = Report(ReportType::Input, 2);
    uint32_t value = 0;
    EXPECT_EQ(GetUsageValue(ReportType::Input, kDesktop, 0, kVector, value, m_tlc, report),
              kHidpStatusIsValueArray);
    EXPECT_EQ(SetUsageValue(ReportType::Input, kDesktop, 0, kVector, 1, m_tlc, report),
              kHidpStatusIsValueArray);
    const std::array<uint8_t, 2> two = {0x21, 0x43};
    EXPECT_EQ(SetUsageValueArray(ReportType::Input, kDesktop, 0, kX, two, m_tlc, report),
              kHidpStatusNotValueArray);
    Bytes out3 = Report(ReportType::Output, 3);
    EXPECT_EQ(SetUsageValueArray(ReportType::Output, kDesktop, 0, 0x50, two, m_tlc, out3),
              kHidpStatusNotValueArray);  // a range is no array
}

TEST_F(Hidp, ValueArrayPackingAndBufferLength) {
    Bytes report = Report(ReportType::Input, 2);
    // Four 4-bit values need two bytes.
    const std::array<uint8_t, 1> one = {0x21};
    EXPECT_EQ(SetUsageValueArray(ReportType::Input, kDesktop, 0, kVector, one, m_tlc, report),
              kHidpStatusBufferTooSmall);
    // Five values 1..5 offered: only the four fields are written, X (null
    // 0x80 at bits 28..35) keeps its value.
    const std::array<uint8_t, 3> five = {0x21, 0x43, 0x05};
    ASSERT_EQ(SetUsageValueArray(ReportType::Input, kDesktop, 0, kVector, five, m_tlc, report),
              kHidpStatusSuccess);
    EXPECT_EQ(report, (Bytes{0x02, 0x10, 0x32, 0x04, 0x08}));

    std::array<uint8_t, 3> back = {0xEE, 0xEE, 0xEE};
    ASSERT_EQ(GetUsageValueArray(ReportType::Input, kDesktop, 0, kVector, back, m_tlc, report),
              kHidpStatusSuccess);
    EXPECT_EQ(back, (std::array<uint8_t, 3>{0x21, 0x43, 0xEE}));
    std::array<uint8_t, 1> small = {};
    EXPECT_EQ(GetUsageValueArray(ReportType::Input, kDesktop, 0, kVector, small, m_tlc, report),
              kHidpStatusBufferTooSmall);
    EXPECT_EQ(GetUsageValueArray(ReportType::Input, kDesktop, 0, kVector, back, m_tlc,
                                 Report(ReportType::Input, 1)),
              kHidpStatusIncompatibleReportId);
}

TEST_F(Hidp, CapsQueriesFilterAndReportShortBuffers) {
    std::vector<ValueCaps> caps(8);
    size_t n = 0;
    EXPECT_EQ(GetSpecificValueCaps(ReportType::Input, kDesktop, 0, kX, caps, n, m_tlc),
              kHidpStatusSuccess);
    ASSERT_EQ(n, 2u);
    EXPECT_EQ(caps[0].ReportID, 1);
    EXPECT_EQ(caps[1].ReportID, 2);
    EXPECT_EQ(GetSpecificValueCaps(ReportType::Input, 0, 1, 0, caps, n, m_tlc),
              kHidpStatusSuccess);
    ASSERT_EQ(n, 1u);
    EXPECT_EQ(caps[0].LinkUsage, 0x01);
    EXPECT_EQ(GetSpecificValueCaps(ReportType::Output, 0, 0, 0x51, caps, n, m_tlc),
              kHidpStatusSuccess);
    EXPECT_EQ(n, 1u);  // inside the range 0x50..0x52
    EXPECT_EQ(GetSpecificValueCaps(ReportType::Input, 0, 0, 0x99, caps, n, m_tlc),
              kHidpStatusUsageNotFound);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(GetValueCaps(ReportType::Feature, caps, n, m_tlc), kHidpStatusUsageNotFound);
    EXPECT_EQ(GetValueCaps(static_cast<ReportType>(7), caps, n, m_tlc),
              kHidpStatusInvalidReportType);

    std::vector<ValueCaps> one(1);
    EXPECT_EQ(GetSpecificValueCaps(ReportType::Input, kDesktop, 0, kX, one, n, m_tlc),
              kHidpStatusBufferTooSmall);
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(one[0].ReportID, 1);

    std::vector<ButtonCaps> buttons(2);
    EXPECT_EQ(GetButtonCaps(ReportType::Input, buttons, n, m_tlc), kHidpStatusSuccess);
    ASSERT_EQ(n, 1u);
    EXPECT_EQ(buttons[0].UsagePage, 0x09);
    EXPECT_EQ(buttons[0].UsageMax, 4);

    std::vector<LinkCollectionNode> nodes(1);
    EXPECT_EQ(GetLinkCollectionNodes(nodes, n, m_tlc), kHidpStatusBufferTooSmall);
    EXPECT_EQ(n, 2u);
}

TEST(ReportBits, ThirtyTwoBitFieldOverFiveBytes) {
    using VideoConsoleCore::hid::detail::ReadBits;
    using VideoConsoleCore::hid::detail::WriteBits;
    std::array<uint8_t, 6> bytes;
    bytes.fill(0xFF);
    WriteBits(bytes, 13, 32, 0x12345678u);
    EXPECT_EQ(ReadBits(bytes, 13, 32), 0x12345678u);
    EXPECT_EQ(ReadBits(bytes, 0, 13), 0x1FFFu);  // below untouched
    EXPECT_EQ(ReadBits(bytes, 45, 3), 0x7u);     // above untouched
    // Least significant bit first: bits 13..15 hold value bits 0..2 (0),
    // byte 2 value bits 3..10.
    EXPECT_EQ(bytes[1], 0x1F);
    EXPECT_EQ(bytes[2], (0x12345678u >> 3) & 0xFF);
}

}  // namespace
