// Descriptors that must be refused, with the fault and its offset named,
// and never read or allocate beyond bounds.
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include "hid/descriptor/report_descriptor.h"

using namespace VideoConsoleCore::hid;

namespace {

using Bytes = std::vector<uint8_t>;

struct BadCase {
    const char* name;
    Bytes descriptor;
    const char* error;  // the exact error text
};

// Application collection header used by most cases: 6 bytes.
const Bytes kHead = {0x05, 0x01, 0x09, 0x04, 0xA1, 0x01};

Bytes Head(const Bytes& rest, bool close = true) {
    Bytes d(kHead.size() + rest.size() + (close ? 1 : 0), 0xC0);
    std::copy(kHead.begin(), kHead.end(), d.begin());
    std::copy(rest.begin(), rest.end(), d.begin() + static_cast<std::ptrdiff_t>(kHead.size()));
    return d;
}

Bytes Repeat(const Bytes& unit, size_t times) {
    Bytes d;
    for (size_t i = 0; i < times; ++i) {
        for (uint8_t b : unit) d.push_back(b);
    }
    return d;
}

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const BadCase& c, std::ostream* os) { *os << c.name; }

class Malformed : public ::testing::TestWithParam<BadCase> {};

TEST_P(Malformed, IsRefusedWithItsReason) {
    const BadCase& c = GetParam();
    const ParsedDescriptor parsed = ParseReportDescriptor(c.descriptor);
    EXPECT_EQ(parsed.error, c.error);
    EXPECT_TRUE(parsed.collections.empty());
}

const BadCase kCases[] = {
    {"Empty", {}, "no top-level collection at offset 0"},
    {"OnlyGlobals", {0x05, 0x01, 0x75, 0x08}, "no top-level collection at offset 4"},
    {"TruncatedShortItem", {0x05, 0x01, 0x26, 0xFF}, "truncated item at offset 2"},
    {"TruncatedFourByteItem", Head({0x27, 0x01, 0x02, 0x03}, false), "truncated item at offset 6"},
    {"TruncatedLongItem", Head({0xFE, 0x05, 0x00, 0x01}, false),
     "truncated long item at offset 6"},
    {"LongItemHeaderCut", {0xFE, 0x00}, "truncated long item at offset 0"},
    {"ReservedItemType", Head({0x0C}), "item of reserved type at offset 6"},
    {"ReservedMainTag", Head({0xD1, 0x00}), "reserved main item tag 13 at offset 6"},
    {"ReservedGlobalTag", Head({0xC4}), "reserved global item tag 12 at offset 6"},
    {"ReservedLocalTag", Head({0x69, 0x01}), "reserved local item tag 6 at offset 6"},
    {"EndWithoutCollection", {0xC0}, "End Collection without Collection at offset 0"},
    {"MissingEndCollection", Head({0xA1, 0x00, 0xC0}, false), "missing End Collection at offset 9"},
    {"PopWithoutPush", Head({0xA4, 0xB4, 0xB4}), "Pop without Push at offset 8"},
    {"PushOverflow", Head(Repeat({0xA4}, kMaxPushDepth + 1)),
     "more than 32 nested Push items at offset 38"},
    {"NestedTooDeep", Head(Repeat({0xA1, 0x00}, kMaxCollectionDepth)),
     "collections nested deeper than 64 at offset 132"},
    {"MainItemOutsideCollection", {0x75, 0x08, 0x95, 0x01, 0x81, 0x03},
     "main item outside any collection at offset 4"},
    {"ReportIdZero", Head({0x85, 0x00}), "report ID 0 outside 1..255 at offset 6"},
    {"ReportIdTooLarge", Head({0x86, 0x00, 0x01}), "report ID 256 outside 1..255 at offset 6"},
    {"UsageWithoutPage", {0x09, 0x01, 0xA1, 0x01, 0xC0}, "usage without usage page at offset 0"},
    {"UsagePageTooLarge", {0x07, 0x00, 0x00, 0x01, 0x00}, "usage page above 0xFFFF at offset 0"},
    {"RangeWithoutMaximum", Head({0x19, 0x01, 0x75, 0x01, 0x95, 0x01, 0x81, 0x02}),
     "usage minimum without usage maximum at offset 12"},
    {"RangeWithoutMinimum", Head({0x29, 0x01, 0xA1, 0x00, 0xC0}),
     "usage maximum without usage minimum at offset 8"},
    {"TwoMinimums", Head({0x19, 0x01, 0x19, 0x02}), "usage minimum without usage maximum at offset 8"},
    {"RangeBackwards", Head({0x19, 0x05, 0x29, 0x01}),
     "usage minimum above usage maximum at offset 8"},
    {"RangeAcrossPages", Head({0x1B, 0x01, 0x00, 0x09, 0x00, 0x29, 0x05}),
     "usage range across usage pages at offset 11"},
    {"DelimiterNested", Head({0xA9, 0x01, 0xA9, 0x01}), "nested delimiter set at offset 8"},
    {"DelimiterNotClosed", Head({0xA9, 0x01, 0x09, 0x30, 0xA1, 0x00, 0xC0}),
     "delimiter set not closed at offset 10"},
    {"DelimiterCloseWithoutOpen", Head({0xA9, 0x00}), "delimiter close without open at offset 6"},
    {"ValueWiderThan32Bits", Head({0x09, 0x30, 0x75, 0x21, 0x95, 0x01, 0x81, 0x02}),
     "report size 33 above 32 bits at offset 12"},
    {"ReportCountAbove65535", Head({0x09, 0x30, 0x75, 0x01, 0x97, 0x70, 0x11, 0x01, 0x00, 0x81, 0x02}),
     "report count 70000 above 65535 at offset 15"},
    {"ReportLongerThan64KiB",
     Head({0x75, 0x20, 0x96, 0x00, 0x20, 0x81, 0x03, 0x81, 0x03}),
     "report 0 longer than 65535 bytes at offset 13"},
};

INSTANTIATE_TEST_SUITE_P(Descriptors, Malformed, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<BadCase>& test) {
                             return std::string(test.param.name);
                         });

TEST(MalformedLimits, WidePaddingIsAcceptedButTheDescriptorLengthIsCapped) {
    // 64-bit padding carries no value, so its width does not matter.
    EXPECT_TRUE(ParseReportDescriptor(Head({0x75, 0x40, 0x95, 0x01, 0x81, 0x03})).Ok());

    Bytes huge = Head(Repeat({0x75, 0x08}, kMaxDescriptorBytes / 2));
    const ParsedDescriptor parsed = ParseReportDescriptor(huge);
    EXPECT_EQ(parsed.error, "descriptor of " + std::to_string(huge.size()) +
                                " bytes is longer than 65535");
}

}  // namespace
