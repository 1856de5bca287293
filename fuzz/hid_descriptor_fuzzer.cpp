// Fuzz target: any byte string as a report descriptor.
//
// Besides crashes and sanitizer reports, it stops on broken invariants of a
// successful parse: every field lies inside its report, every capability
// names an existing link collection and report, and a value written with
// SetUsageValue reads back with GetUsageValue.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <vector>

#include "hid/descriptor/hidp.h"
#include "hid/descriptor/report_descriptor.h"

using namespace VideoConsoleCore::hid;

namespace {

void Check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

void CheckLayout(const TopLevelCollection& tlc, ReportType type) {
    const ReportTypeLayout& layout = tlc.Layout(type);
    Check(layout.reportIds.empty() == (layout.byteLength == 0), "length without reports");
    for (const ControlCaps& c : layout.caps) {
        const uint64_t end = c.BitPosition + uint64_t{c.BitSize} * c.ReportCount;
        Check(c.BitPosition >= 8, "field over the report ID byte");
        Check(end <= uint64_t{layout.byteLength} * 8, "field beyond the report length");
        Check(c.LinkCollection < tlc.linkCollections.size(), "unknown link collection");
        Check(c.UsageMin <= c.UsageMax, "usage range backwards");
        Check(c.DataIndexMin <= c.DataIndexMax && c.DataIndexMax < layout.dataIndexCount,
              "data index outside the count");
        bool listed = false;
        for (uint8_t id : layout.reportIds) listed = listed || id == c.ReportID;
        Check(listed, "capability of an unlisted report");
    }
}

// The capability SetUsageValue and GetUsageValue must pick for a usage in
// the report `id`, asked with the link collection of `wanted`: the first
// value capability that covers it.
const ControlCaps* FirstCovering(const ReportTypeLayout& layout, const ControlCaps& wanted,
                                 uint16_t usage, uint8_t id) {
    for (const ControlCaps& c : layout.caps) {
        if (c.IsButton || c.ReportID != id || c.UsagePage != wanted.UsagePage) continue;
        // Link collection 0 asks for any.
        if (wanted.LinkCollection != 0 && c.LinkCollection != wanted.LinkCollection) continue;
        if (usage < c.UsageMin || usage > c.UsageMax) continue;
        if (c.IsRange && static_cast<uint32_t>(usage - c.UsageMin) >= c.ReportCount) continue;
        return &c;
    }
    return nullptr;
}

// Writes and reads back every value of every report of the type.
void ExerciseReports(const TopLevelCollection& tlc, ReportType type, uint32_t seed) {
    const ReportTypeLayout& layout = tlc.Layout(type);
    std::vector<uint8_t> report(layout.byteLength);
    std::vector<uint8_t> values(seed % 64);
    for (uint8_t id : layout.reportIds) {
        Check(InitializeReportForID(type, id, tlc, report) == kHidpStatusSuccess,
              "existing report not initialised");
        Check(report[0] == id, "report ID byte");
        for (const ControlCaps& c : layout.caps) {
            if (c.IsButton || c.ReportID != id) continue;
            const uint16_t usage = c.UsageMax;
            const uint32_t value = seed * 2654435761u + c.BitPosition;
            const NtStatus set =
                SetUsageValue(type, c.UsagePage, c.LinkCollection, usage, value, tlc, report);
            uint32_t back = 0;
            const NtStatus get =
                GetUsageValue(type, c.UsagePage, c.LinkCollection, usage, back, tlc, report);
            Check(set == get, "set and get disagree");
            const ControlCaps* target = FirstCovering(layout, c, usage, id);
            if (target == nullptr) {
                Check(set != kHidpStatusSuccess, "value set without a capability");
            } else if (!target->IsRange && target->ReportCount > 1) {
                Check(set == kHidpStatusIsValueArray, "value array not refused");
            } else {
                Check(set == kHidpStatusSuccess, "value not set");
                const uint32_t mask =
                    target->BitSize >= 32 ? 0xFFFFFFFFu : (1u << target->BitSize) - 1;
                Check(back == (value & mask), "value does not read back");
            }
            const NtStatus setArray = SetUsageValueArray(type, c.UsagePage, c.LinkCollection,
                                                         c.UsageMin, values, tlc, report);
            const NtStatus getArray = GetUsageValueArray(type, c.UsagePage, c.LinkCollection,
                                                         c.UsageMin, values, tlc, report);
            Check(setArray == getArray, "array set and get disagree");
        }
        size_t count = 0;
        std::vector<ValueCaps> buffer(2);
        GetSpecificValueCaps(type, 0, 0, 0, buffer, count, tlc);
        Check(count <= buffer.size(), "caps count beyond the buffer");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const ParsedDescriptor parsed = ParseReportDescriptor(std::span<const uint8_t>(data, size));
    Check(parsed.Ok() != parsed.collections.empty(), "result and error disagree");
    uint32_t seed = 0;
    for (size_t i = 0; i < size && i < 4; ++i) seed = seed << 8 | data[i];
    for (const TopLevelCollection& tlc : parsed.collections) {
        Caps caps;
        Check(GetCaps(tlc, caps) == kHidpStatusSuccess, "GetCaps");
        Check(caps.NumberLinkCollectionNodes == tlc.linkCollections.size(), "node count");
        for (ReportType type : {ReportType::Input, ReportType::Output, ReportType::Feature}) {
            CheckLayout(tlc, type);
            ExerciseReports(tlc, type, seed);
        }
    }
    return 0;
}
