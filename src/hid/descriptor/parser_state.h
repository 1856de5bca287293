// The item state a report descriptor builds up while it is read.
//
// Global items (usage page, logical range, report size/count/ID, ...) stay
// in effect until changed and can be saved and restored with Push/Pop.
// Local items (usages, string and designator indices) describe only the
// next main item and are cleared after every main item.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace VideoConsoleCore::hid::detail {

struct GlobalState {
    uint16_t usagePage = 0;
    bool usagePageSet = false;
    int32_t logicalMin = 0;
    int32_t logicalMax = 0;
    int32_t physicalMin = 0;
    int32_t physicalMax = 0;
    uint32_t unitExponent = 0;
    uint32_t unit = 0;
    uint32_t reportSize = 0;
    uint32_t reportCount = 0;
    uint8_t reportId = 0;
};

// One usage or usage range of a main item, in declaration order.
struct UsageEntry {
    uint16_t page = 0;
    uint16_t min = 0;
    uint16_t max = 0;
    bool isRange = false;

    uint32_t Count() const { return static_cast<uint32_t>(max) - min + 1; }
};

// An index item (string or designator): a single index or a min/max range.
struct IndexRange {
    uint16_t min = 0;
    uint16_t max = 0;
    bool isRange = false;
};

struct LocalState {
    std::vector<UsageEntry> usages;
    // Usage Minimum / Maximum seen without their partner yet, as
    // page << 16 | usage.
    std::optional<uint32_t> pendingUsageMin;
    std::optional<uint32_t> pendingUsageMax;
    IndexRange string;
    IndexRange designator;
    bool delimiterOpen = false;
    bool delimiterSetHasUsage = false;
};

}  // namespace VideoConsoleCore::hid::detail
