// Every real device descriptor of the golden folder, parsed and compared
// with the preparsed data Windows built for it.
//
// Each case VID_PID_USAGE_USAGEPAGE has CASE.bin (the raw descriptor) and
// CASE.pp_data (Windows' preparsed data of the top-level collection with
// that usage page and usage). The folder is read when the tests run; its
// path comes from KORVSDK_HID_GOLDEN_DIR.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "hid/descriptor/hidp.h"
#include "hid/descriptor/report_descriptor.h"
#include "pp_data.h"

using namespace VideoConsoleCore::hid;

namespace {

constexpr ReportType kTypes[] = {ReportType::Input, ReportType::Output, ReportType::Feature};

// A Unix path: under Wine, Windows programs open "/work/..." as such.
std::filesystem::path GoldenDir() { return std::filesystem::path(KORVSDK_HID_GOLDEN_DIR); }

std::vector<std::string> GoldenCases() {
    std::vector<std::string> cases;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(GoldenDir(), ec)) {
        if (entry.path().extension() == ".pp_data") cases.push_back(entry.path().stem().string());
    }
    std::sort(cases.begin(), cases.end());
    return cases;
}

std::vector<uint8_t> ReadBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

struct CaseName {
    uint16_t usage = 0;
    uint16_t usagePage = 0;
};

// "046D_C534_0002_0001": usage 0x0002 on usage page 0x0001.
CaseName ParseCaseName(const std::string& name) {
    CaseName n;
    n.usage = static_cast<uint16_t>(std::stoul(name.substr(10, 4), nullptr, 16));
    n.usagePage = static_cast<uint16_t>(std::stoul(name.substr(15, 4), nullptr, 16));
    return n;
}

class GoldenCase : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        const std::filesystem::path base = GoldenDir() / GetParam();
        std::string error;
        ASSERT_TRUE(hidtest::ReadPpData(base.string() + ".pp_data", m_pp, error)) << error;
        const std::vector<uint8_t> bytes = ReadBytes(base.string() + ".bin");
        ASSERT_FALSE(bytes.empty()) << "cannot read " << base.string() << ".bin";
        m_parsed = ParseReportDescriptor(bytes);
        ASSERT_TRUE(m_parsed.Ok()) << m_parsed.error;
        const CaseName name = ParseCaseName(GetParam());
        m_tlc = FindTopLevelCollection(m_parsed, name.usagePage, name.usage);
        ASSERT_NE(m_tlc, nullptr) << "no collection with the case's usage";
    }

    // Windows' capabilities of a report type: cap[FirstCap .. LastCap-1].
    std::vector<const hidtest::PpRecord*> WindowsCaps(int type, bool valuesOnly) const {
        const hidtest::PpRecord& info = m_pp.CapsInfo(type);
        std::vector<const hidtest::PpRecord*> caps;
        for (int64_t i = info.Get("FirstCap"); i < info.Get("LastCap"); ++i) {
            const hidtest::PpRecord& cap = m_pp.Cap(static_cast<int>(i));
            if (!valuesOnly || cap.Get("IsButtonCap") == 0) caps.push_back(&cap);
        }
        return caps;
    }

    hidtest::PpData m_pp;
    ParsedDescriptor m_parsed;
    const TopLevelCollection* m_tlc = nullptr;
};

// Windows numbers the top-level collections of an interface in its device
// paths ("...&col03#..."). Some cases' .bin holds only their own collection,
// cut out of a longer interface descriptor; global items (logical and
// physical range, unit) set in the collections before it then reach Windows
// but not the .bin. True when the .bin holds every collection before this
// one, so that such inherited values can be compared.
bool HoldsEarlierCollections(const std::string& devicePath, const ParsedDescriptor& parsed,
                             const TopLevelCollection* tlc) {
    std::string path = devicePath;
    for (char& ch : path) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    const size_t col = path.find("&col");
    if (col == std::string::npos) return true;
    const size_t number = std::stoul(path.substr(col + 4, 2));
    return number >= 1 && number <= parsed.collections.size() &&
           &parsed.collections[number - 1] == tlc;
}

// The usage of a Windows cap record: its minimum for a range.
int64_t WindowsUsage(const hidtest::PpRecord& cap) {
    return cap.Get("IsRange") ? cap.Get("Range.UsageMin") : cap.Get("NotRange.Usage");
}

TEST(GoldenData, FolderHasCases) {
    EXPECT_FALSE(GoldenCases().empty()) << "no .pp_data files in " << GoldenDir().string();
}

TEST_P(GoldenCase, CollectionUsageMatches) {
    EXPECT_EQ(m_tlc->usagePage, m_pp.Record("").Get("UsagePage"));
    EXPECT_EQ(m_tlc->usage, m_pp.Record("").Get("Usage"));
}

TEST_P(GoldenCase, ReportByteLengths) {
    Caps caps;
    ASSERT_EQ(GetCaps(*m_tlc, caps), kHidpStatusSuccess);
    EXPECT_EQ(caps.InputReportByteLength, m_pp.CapsInfo(0).Get("ReportByteLength"));
    EXPECT_EQ(caps.OutputReportByteLength, m_pp.CapsInfo(1).Get("ReportByteLength"));
    EXPECT_EQ(caps.FeatureReportByteLength, m_pp.CapsInfo(2).Get("ReportByteLength"));
}

// What the task's consumers rely on: HidP_GetCaps' value cap counts and
// HidP_GetValueCaps' list, field by field, in Windows' order.
TEST_P(GoldenCase, ValueCapsInWindowsOrder) {
    Caps caps;
    ASSERT_EQ(GetCaps(*m_tlc, caps), kHidpStatusSuccess);
    const uint16_t counts[] = {caps.NumberInputValueCaps, caps.NumberOutputValueCaps,
                               caps.NumberFeatureValueCaps};
    for (int t = 0; t < 3; ++t) {
        SCOPED_TRACE("report type " + std::to_string(t));
        const auto expected = WindowsCaps(t, true);
        ASSERT_EQ(counts[t], expected.size());
        std::vector<ValueCaps> got(expected.size() + 1);
        size_t n = 0;
        const NtStatus status = GetValueCaps(kTypes[t], got, n, *m_tlc);
        EXPECT_EQ(status, expected.empty() ? kHidpStatusUsageNotFound : kHidpStatusSuccess);
        ASSERT_EQ(n, expected.size());
        for (size_t i = 0; i < n; ++i) {
            SCOPED_TRACE("value cap " + std::to_string(i));
            const hidtest::PpRecord& w = *expected[i];
            EXPECT_EQ(got[i].ReportID, w.Get("ReportID"));
            EXPECT_EQ(got[i].UsagePage, w.Get("UsagePage"));
            EXPECT_EQ(got[i].UsageMin, WindowsUsage(w));
            EXPECT_EQ(got[i].LinkCollection, w.Get("LinkCollection"));
            EXPECT_EQ(got[i].BitSize, w.Get("BitSize"));
            EXPECT_EQ(got[i].ReportCount, w.Get("ReportCount"));
        }
    }
}

// Every capability, buttons included, with all the dump shows of it.
TEST_P(GoldenCase, AllCapsFieldByField) {
    const bool globalsKnown = HoldsEarlierCollections(m_pp.devicePath, m_parsed, m_tlc);
    for (int t = 0; t < 3; ++t) {
        SCOPED_TRACE("report type " + std::to_string(t));
        const auto expected = WindowsCaps(t, false);
        const std::vector<ControlCaps>& got = m_tlc->reports[t].caps;
        ASSERT_EQ(got.size(), expected.size());
        for (size_t i = 0; i < got.size(); ++i) {
            SCOPED_TRACE("cap " + std::to_string(i));
            const hidtest::PpRecord& w = *expected[i];
            const ControlCaps& c = got[i];
            EXPECT_EQ(c.IsButton, w.Get("IsButtonCap") != 0);
            EXPECT_EQ(c.ReportID, w.Get("ReportID"));
            EXPECT_EQ(c.UsagePage, w.Get("UsagePage"));
            EXPECT_EQ(c.IsRange, w.Get("IsRange") != 0);
            if (c.IsRange) {
                EXPECT_EQ(c.UsageMin, w.Get("Range.UsageMin"));
                EXPECT_EQ(c.UsageMax, w.Get("Range.UsageMax"));
                EXPECT_EQ(c.DataIndexMin, w.Get("Range.DataIndexMin"));
                EXPECT_EQ(c.DataIndexMax, w.Get("Range.DataIndexMax"));
            } else {
                EXPECT_EQ(c.UsageMin, w.Get("NotRange.Usage"));
                EXPECT_EQ(c.DataIndexMin, w.Get("NotRange.DataIndex"));
            }
            EXPECT_EQ(c.LinkCollection, w.Get("LinkCollection"));
            EXPECT_EQ(c.LinkUsage, w.Get("LinkUsage"));
            EXPECT_EQ(c.LinkUsagePage, w.Get("LinkUsagePage"));
            EXPECT_EQ(c.BitSize, w.Get("BitSize"));
            EXPECT_EQ(c.ReportCount, w.Get("ReportCount"));
            EXPECT_EQ(c.BitPosition, w.Get("BytePosition") * 8 + w.Get("BitPosition"));
            EXPECT_EQ(c.BitField, w.Get("BitField"));
            EXPECT_EQ(c.IsAbsolute, w.Get("IsAbsolute") != 0);
            EXPECT_EQ(c.IsMultipleItemsForArray, w.Get("IsMultipleItemsForArray") != 0);
            if (!c.IsButton) {
                EXPECT_EQ(c.HasNull, w.Get("NotButton.HasNull") != 0);
            }
            if (!globalsKnown) continue;
            EXPECT_EQ(c.Units, w.Get("Units"));
            EXPECT_EQ(c.UnitsExp, w.Get("UnitsExp"));
            if (c.IsButton) {
                EXPECT_EQ(c.LogicalMin, w.Get("Button.LogicalMin"));
                EXPECT_EQ(c.LogicalMax, w.Get("Button.LogicalMax"));
            } else {
                EXPECT_EQ(c.LogicalMin, w.Get("NotButton.LogicalMin"));
                EXPECT_EQ(c.LogicalMax, w.Get("NotButton.LogicalMax"));
                EXPECT_EQ(c.PhysicalMin, w.Get("NotButton.PhysicalMin"));
                EXPECT_EQ(c.PhysicalMax, w.Get("NotButton.PhysicalMax"));
            }
        }
    }
}

TEST_P(GoldenCase, LinkCollectionNodes) {
    const int64_t count = m_pp.Record("").Get("NumberLinkCollectionNodes");
    Caps caps;
    ASSERT_EQ(GetCaps(*m_tlc, caps), kHidpStatusSuccess);
    EXPECT_EQ(caps.NumberLinkCollectionNodes, count);

    std::vector<LinkCollectionNode> nodes(static_cast<size_t>(count));
    size_t n = 0;
    ASSERT_EQ(GetLinkCollectionNodes(nodes, n, *m_tlc), kHidpStatusSuccess);
    ASSERT_EQ(n, nodes.size());
    for (size_t i = 0; i < n; ++i) {
        SCOPED_TRACE("link collection " + std::to_string(i));
        const hidtest::PpRecord& w = m_pp.Link(static_cast<int>(i));
        EXPECT_EQ(nodes[i].LinkUsage, w.Get("LinkUsage"));
        EXPECT_EQ(nodes[i].LinkUsagePage, w.Get("LinkUsagePage"));
        EXPECT_EQ(nodes[i].Parent, w.Get("Parent"));
        EXPECT_EQ(nodes[i].NumberOfChildren, w.Get("NumberOfChildren"));
        EXPECT_EQ(nodes[i].NextSibling, w.Get("NextSibling"));
        EXPECT_EQ(nodes[i].FirstChild, w.Get("FirstChild"));
        EXPECT_EQ(nodes[i].CollectionType, w.Get("CollectionType"));
        EXPECT_EQ(nodes[i].IsAlias, w.Get("IsAlias") != 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Devices, GoldenCase, ::testing::ValuesIn(GoldenCases()),
                         [](const ::testing::TestParamInfo<std::string>& test) {
                             return "D" + test.param;
                         });

}  // namespace
