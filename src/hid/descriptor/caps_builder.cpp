#include "hid/descriptor/caps_builder.h"

#include <algorithm>

namespace VideoConsoleCore::hid::detail {

namespace {

// What all capabilities of one main item share.
ControlCaps CommonCaps(const MainItemFields& item) {
    const GlobalState& g = *item.globals;
    const LocalState& l = *item.locals;
    ControlCaps caps;
    caps.ReportID = g.reportId;
    caps.BitField = static_cast<uint16_t>(item.flags & 0xFFFFu);
    caps.LinkCollection = item.linkCollection;
    caps.LinkUsage = item.link->LinkUsage;
    caps.LinkUsagePage = item.link->LinkUsagePage;
    caps.IsAbsolute = (item.flags & kMainRelative) == 0;
    caps.BitSize = static_cast<uint16_t>(g.reportSize);
    caps.StringMin = l.string.min;
    caps.StringMax = l.string.isRange ? l.string.max : l.string.min;
    caps.IsStringRange = l.string.isRange;
    caps.DesignatorMin = l.designator.min;
    caps.DesignatorMax = l.designator.isRange ? l.designator.max : l.designator.min;
    caps.IsDesignatorRange = l.designator.isRange;

    const bool isArray = (item.flags & kMainVariable) == 0;
    caps.IsButton = isArray || g.reportSize == 1;
    if (caps.IsButton) {
        // Windows keeps a logical range only for arrays, where it maps
        // field values to usages; on/off buttons carry none.
        if (isArray) {
            caps.LogicalMin = g.logicalMin;
            caps.LogicalMax = g.logicalMax;
        }
    } else {
        caps.HasNull = (item.flags & kMainNullState) != 0;
        caps.LogicalMin = g.logicalMin;
        caps.LogicalMax = g.logicalMax;
        caps.PhysicalMin = g.physicalMin;
        caps.PhysicalMax = g.physicalMax;
        caps.Units = g.unit;
        caps.UnitsExp = g.unitExponent;
    }
    return caps;
}

void SetUsage(ControlCaps& caps, const UsageEntry& usage) {
    caps.UsagePage = usage.page;
    caps.UsageMin = usage.min;
    caps.UsageMax = usage.max;
    caps.IsRange = usage.isRange;
}

uint32_t DataIndices(const ControlCaps& caps) {
    return caps.IsRange ? static_cast<uint32_t>(caps.UsageMax) - caps.UsageMin + 1 : 1;
}

void AssignDataIndex(ControlCaps& caps, uint32_t& next) {
    caps.DataIndexMin = static_cast<uint16_t>(next);
    next += DataIndices(caps);
    caps.DataIndexMax = static_cast<uint16_t>(next - 1);
}

}  // namespace

bool IsPadding(uint32_t flags, const LocalState& locals) {
    if ((flags & kMainConstant) == 0) return false;
    return std::all_of(locals.usages.begin(), locals.usages.end(),
                       [](const UsageEntry& u) { return !u.isRange && u.min == 0; });
}

bool AppendMainItemCaps(const MainItemFields& item, std::vector<ControlCaps>& caps,
                        uint16_t& dataIndexCount) {
    const GlobalState& g = *item.globals;
    const ControlCaps common = CommonCaps(item);
    const uint32_t reportCount = g.reportCount;

    std::vector<UsageEntry> usages = item.locals->usages;
    if (usages.empty()) {
        // A data field without any usage still is a control, of usage 0.
        usages.push_back(UsageEntry{g.usagePage, 0, 0, false});
    }

    // Capabilities in declaration order first.
    std::vector<ControlCaps> declared;
    const bool isArray = (item.flags & kMainVariable) == 0;
    if (isArray) {
        // Every usage of an array can appear in any of its fields: each
        // capability spans all of them.
        for (size_t i = 0; i < usages.size(); ++i) {
            ControlCaps c = common;
            SetUsage(c, usages[i]);
            c.ReportCount = static_cast<uint16_t>(reportCount);
            c.BitPosition = item.bitPosition;
            c.IsMultipleItemsForArray = i != 0;
            declared.push_back(c);
        }
    } else {
        // Fields go to the usages in order; a range takes one per usage, the
        // last usage all that are left. Usages beyond the fields get none.
        uint32_t field = 0;
        for (size_t i = 0; i < usages.size() && field < reportCount; ++i) {
            const uint32_t left = reportCount - field;
            const bool last = i + 1 == usages.size();
            const uint32_t n =
                last ? left : std::min(usages[i].isRange ? usages[i].Count() : 1u, left);
            ControlCaps c = common;
            SetUsage(c, usages[i]);
            c.ReportCount = static_cast<uint16_t>(n);
            c.BitPosition = item.bitPosition + field * g.reportSize;
            declared.push_back(c);
            field += n;
        }
    }

    // Data indices: an array numbers its usages in declaration order, a
    // variable item in the order Windows lists the capabilities.
    uint32_t next = dataIndexCount;
    if (isArray) {
        for (ControlCaps& c : declared) AssignDataIndex(c, next);
    } else {
        for (auto it = declared.rbegin(); it != declared.rend(); ++it) AssignDataIndex(*it, next);
    }
    if (next > 0xFFFFu) return false;
    dataIndexCount = static_cast<uint16_t>(next);

    caps.insert(caps.end(), declared.rbegin(), declared.rend());
    return true;
}

}  // namespace VideoConsoleCore::hid::detail
