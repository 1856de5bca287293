// Reads a report descriptor item by item and builds one TopLevelCollection
// per top-level Collection item.
#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "hid/descriptor/caps_builder.h"
#include "hid/descriptor/item_reader.h"
#include "hid/descriptor/parser_state.h"
#include "hid/descriptor/report_descriptor.h"

namespace VideoConsoleCore::hid {

namespace {

using detail::GlobalState;
using detail::Item;
using detail::ItemReader;
using detail::ItemType;
using detail::LocalState;
using detail::UsageEntry;

enum MainTag : uint8_t {
    kInput = 0x8,
    kOutput = 0x9,
    kCollection = 0xA,
    kFeature = 0xB,
    kEndCollection = 0xC,
};

enum GlobalTag : uint8_t {
    kUsagePage = 0x0,
    kLogicalMinimum = 0x1,
    kLogicalMaximum = 0x2,
    kPhysicalMinimum = 0x3,
    kPhysicalMaximum = 0x4,
    kUnitExponent = 0x5,
    kUnit = 0x6,
    kReportSize = 0x7,
    kReportId = 0x8,
    kReportCount = 0x9,
    kPush = 0xA,
    kPop = 0xB,
};

enum LocalTag : uint8_t {
    kUsage = 0x0,
    kUsageMinimum = 0x1,
    kUsageMaximum = 0x2,
    kDesignatorIndex = 0x3,
    kDesignatorMinimum = 0x4,
    kDesignatorMaximum = 0x5,
    kStringIndex = 0x7,
    kStringMinimum = 0x8,
    kStringMaximum = 0x9,
    kDelimiter = 0xA,
};

constexpr uint32_t kMaxReportDataBits = (kMaxReportBytes - 1) * 8;

// A top-level collection while its items are read.
struct CollectionBuilder {
    TopLevelCollection tlc;
    // Bits used so far in each report (after its report ID byte), per type.
    std::array<std::map<uint8_t, uint32_t>, 3> reportBits;
    // Path of link collections from the top-level one to the current one.
    std::vector<uint16_t> open;
};

class DescriptorParser {
public:
    explicit DescriptorParser(std::span<const uint8_t> descriptor) : m_reader(descriptor), m_size(descriptor.size()) {}

    ParsedDescriptor Run() {
        ParsedDescriptor result;
        if (m_size > kMaxDescriptorBytes) {
            result.error = "descriptor of " + std::to_string(m_size) + " bytes is longer than " +
                           std::to_string(kMaxDescriptorBytes);
            return result;
        }
        Item item;
        for (;;) {
            const ItemReader::Result r = m_reader.Next(item, m_error);
            if (r == ItemReader::Result::Error) break;
            if (r == ItemReader::Result::End) {
                Finish();
                break;
            }
            if (!Handle(item)) break;
        }
        if (!m_error.empty()) {
            result.error = m_error;
            return result;
        }
        result.collections = std::move(m_done);
        return result;
    }

private:
    bool Fail(const std::string& what, size_t offset) {
        m_error = detail::AtOffset(what, offset);
        return false;
    }

    bool Handle(const Item& item) {
        switch (item.type) {
        case ItemType::Main:
            return HandleMain(item);
        case ItemType::Global:
            return HandleGlobal(item);
        case ItemType::Local:
            return HandleLocal(item);
        case ItemType::Reserved:
            break;
        }
        return Fail("item of reserved type", item.offset);
    }

    void Finish() {
        if (m_current) {
            Fail("missing End Collection", m_size);
        } else if (m_done.empty()) {
            Fail("no top-level collection", m_size);
        }
    }

    // ---- main items --------------------------------------------------

    bool HandleMain(const Item& item) {
        bool ok = false;
        switch (item.tag) {
        case kInput:
            ok = AddFields(ReportType::Input, item);
            break;
        case kOutput:
            ok = AddFields(ReportType::Output, item);
            break;
        case kFeature:
            ok = AddFields(ReportType::Feature, item);
            break;
        case kCollection:
            ok = OpenCollection(item);
            break;
        case kEndCollection:
            ok = CloseCollection(item);
            break;
        default:
            return Fail("reserved main item tag " + std::to_string(item.tag), item.offset);
        }
        m_locals = LocalState{};
        return ok;
    }

    bool CheckLocalsComplete(const Item& item) {
        if (m_locals.pendingUsageMin) return Fail("usage minimum without usage maximum", item.offset);
        if (m_locals.pendingUsageMax) return Fail("usage maximum without usage minimum", item.offset);
        if (m_locals.delimiterOpen) return Fail("delimiter set not closed", item.offset);
        return true;
    }

    bool OpenCollection(const Item& item) {
        if (!CheckLocalsComplete(item)) return false;
        LinkCollectionNode node;
        if (m_locals.usages.empty()) {
            node.LinkUsagePage = m_globals.usagePage;
        } else {
            node.LinkUsagePage = m_locals.usages.front().page;
            node.LinkUsage = m_locals.usages.front().min;
        }
        node.CollectionType = static_cast<uint8_t>(item.data & 0xFFu);

        if (!m_current) {
            m_current = std::make_unique<CollectionBuilder>();
            m_current->tlc.usagePage = node.LinkUsagePage;
            m_current->tlc.usage = node.LinkUsage;
            m_current->tlc.linkCollections.push_back(node);
            m_current->open.push_back(0);
            return true;
        }
        if (m_current->open.size() >= kMaxCollectionDepth) {
            return Fail("collections nested deeper than " + std::to_string(kMaxCollectionDepth),
                        item.offset);
        }
        auto& nodes = m_current->tlc.linkCollections;
        if (nodes.size() >= 0xFFFF) return Fail("too many collections", item.offset);
        const auto index = static_cast<uint16_t>(nodes.size());
        const uint16_t parent = m_current->open.back();
        node.Parent = parent;
        // Windows links a new child in front of its older siblings.
        node.NextSibling = nodes[parent].FirstChild;
        nodes[parent].FirstChild = index;
        ++nodes[parent].NumberOfChildren;
        nodes.push_back(node);
        m_current->open.push_back(index);
        return true;
    }

    bool CloseCollection(const Item& item) {
        if (!m_current) return Fail("End Collection without Collection", item.offset);
        m_current->open.pop_back();
        if (m_current->open.empty()) {
            FinishCollection(*m_current);
            m_done.push_back(std::move(m_current->tlc));
            m_current.reset();
        }
        return true;
    }

    static void FinishCollection(CollectionBuilder& b) {
        for (size_t t = 0; t < 3; ++t) {
            ReportTypeLayout& layout = b.tlc.reports[t];
            uint32_t longest = 0;
            for (const auto& [id, bits] : b.reportBits[t]) {
                layout.reportIds.push_back(id);
                longest = std::max(longest, 1 + (bits + 7) / 8);
            }
            layout.byteLength = static_cast<uint16_t>(longest);
        }
        b.tlc.valid = true;
    }

    bool AddFields(ReportType type, const Item& item) {
        if (!m_current) return Fail("main item outside any collection", item.offset);
        if (!CheckLocalsComplete(item)) return false;
        const uint64_t bits = static_cast<uint64_t>(m_globals.reportSize) * m_globals.reportCount;
        const size_t t = static_cast<size_t>(type);
        uint32_t& used = m_current->reportBits[t][m_globals.reportId];
        if (bits > kMaxReportDataBits - used) {
            return Fail("report " + std::to_string(m_globals.reportId) + " longer than " +
                            std::to_string(kMaxReportBytes) + " bytes",
                        item.offset);
        }
        const uint32_t position = 8 + used;
        used += static_cast<uint32_t>(bits);
        if (bits == 0 || detail::IsPadding(item.data, m_locals)) return true;

        if (m_globals.reportSize > kMaxValueBits) {
            return Fail("report size " + std::to_string(m_globals.reportSize) + " above " +
                            std::to_string(kMaxValueBits) + " bits",
                        item.offset);
        }
        if (m_globals.reportCount > 0xFFFF) {
            return Fail("report count " + std::to_string(m_globals.reportCount) + " above 65535",
                        item.offset);
        }
        detail::MainItemFields fields;
        fields.flags = item.data;
        fields.globals = &m_globals;
        fields.locals = &m_locals;
        fields.bitPosition = position;
        fields.linkCollection = m_current->open.back();
        fields.link = &m_current->tlc.linkCollections[fields.linkCollection];
        ReportTypeLayout& layout = m_current->tlc.reports[t];
        if (!detail::AppendMainItemCaps(fields, layout.caps, layout.dataIndexCount)) {
            return Fail("too many data indices", item.offset);
        }
        return true;
    }

    // ---- global items ------------------------------------------------

    bool HandleGlobal(const Item& item) {
        GlobalState& g = m_globals;
        switch (item.tag) {
        case kUsagePage:
            if (item.data > 0xFFFF) return Fail("usage page above 0xFFFF", item.offset);
            g.usagePage = static_cast<uint16_t>(item.data);
            g.usagePageSet = true;
            return true;
        case kLogicalMinimum:
            g.logicalMin = item.SignedData();
            return true;
        case kLogicalMaximum:
            g.logicalMax = item.SignedData();
            return true;
        case kPhysicalMinimum:
            g.physicalMin = item.SignedData();
            return true;
        case kPhysicalMaximum:
            g.physicalMax = item.SignedData();
            return true;
        case kUnitExponent:
            g.unitExponent = item.data;
            return true;
        case kUnit:
            g.unit = item.data;
            return true;
        case kReportSize:
            g.reportSize = item.data;
            return true;
        case kReportId:
            if (item.data == 0 || item.data > 0xFF) {
                return Fail("report ID " + std::to_string(item.data) + " outside 1..255", item.offset);
            }
            g.reportId = static_cast<uint8_t>(item.data);
            return true;
        case kReportCount:
            g.reportCount = item.data;
            return true;
        case kPush:
            if (m_stack.size() >= kMaxPushDepth) {
                return Fail("more than " + std::to_string(kMaxPushDepth) + " nested Push items",
                            item.offset);
            }
            m_stack.push_back(g);
            return true;
        case kPop:
            if (m_stack.empty()) return Fail("Pop without Push", item.offset);
            g = m_stack.back();
            m_stack.pop_back();
            return true;
        default:
            return Fail("reserved global item tag " + std::to_string(item.tag), item.offset);
        }
    }

    // ---- local items -------------------------------------------------

    // A usage item as page << 16 | usage: 4-byte usages carry their page,
    // shorter ones take the current usage page.
    bool ExtendedUsage(const Item& item, uint32_t& usage) {
        if (item.size == 4) {
            usage = item.data;
            return true;
        }
        if (!m_globals.usagePageSet) return Fail("usage without usage page", item.offset);
        usage = (static_cast<uint32_t>(m_globals.usagePage) << 16) | (item.data & 0xFFFFu);
        return true;
    }

    // In a delimited set only the first usage counts.
    bool SkippedByDelimiter() const {
        return m_locals.delimiterOpen && m_locals.delimiterSetHasUsage;
    }

    bool AddRange(uint32_t min, uint32_t max, const Item& item) {
        if ((min >> 16) != (max >> 16)) return Fail("usage range across usage pages", item.offset);
        if ((min & 0xFFFFu) > (max & 0xFFFFu)) {
            return Fail("usage minimum above usage maximum", item.offset);
        }
        m_locals.usages.push_back(UsageEntry{static_cast<uint16_t>(min >> 16),
                                             static_cast<uint16_t>(min & 0xFFFFu),
                                             static_cast<uint16_t>(max & 0xFFFFu), true});
        m_locals.pendingUsageMin.reset();
        m_locals.pendingUsageMax.reset();
        if (m_locals.delimiterOpen) m_locals.delimiterSetHasUsage = true;
        return true;
    }

    bool HandleLocal(const Item& item) {
        LocalState& l = m_locals;
        uint32_t usage = 0;
        switch (item.tag) {
        case kUsage:
            if (!ExtendedUsage(item, usage)) return false;
            if (SkippedByDelimiter()) return true;
            l.usages.push_back(UsageEntry{static_cast<uint16_t>(usage >> 16),
                                          static_cast<uint16_t>(usage & 0xFFFFu),
                                          static_cast<uint16_t>(usage & 0xFFFFu), false});
            if (l.delimiterOpen) l.delimiterSetHasUsage = true;
            return true;
        case kUsageMinimum:
            if (!ExtendedUsage(item, usage)) return false;
            if (SkippedByDelimiter()) return true;
            if (l.pendingUsageMin) return Fail("usage minimum without usage maximum", item.offset);
            if (l.pendingUsageMax) return AddRange(usage, *l.pendingUsageMax, item);
            l.pendingUsageMin = usage;
            return true;
        case kUsageMaximum:
            if (!ExtendedUsage(item, usage)) return false;
            if (SkippedByDelimiter()) return true;
            if (l.pendingUsageMax) return Fail("usage maximum without usage minimum", item.offset);
            if (l.pendingUsageMin) return AddRange(*l.pendingUsageMin, usage, item);
            l.pendingUsageMax = usage;
            return true;
        case kDesignatorIndex:
            l.designator = {static_cast<uint16_t>(item.data), static_cast<uint16_t>(item.data), false};
            return true;
        case kDesignatorMinimum:
            l.designator.min = static_cast<uint16_t>(item.data);
            l.designator.isRange = true;
            return true;
        case kDesignatorMaximum:
            l.designator.max = static_cast<uint16_t>(item.data);
            l.designator.isRange = true;
            return true;
        case kStringIndex:
            l.string = {static_cast<uint16_t>(item.data), static_cast<uint16_t>(item.data), false};
            return true;
        case kStringMinimum:
            l.string.min = static_cast<uint16_t>(item.data);
            l.string.isRange = true;
            return true;
        case kStringMaximum:
            l.string.max = static_cast<uint16_t>(item.data);
            l.string.isRange = true;
            return true;
        case kDelimiter:
            if (item.data == 1) {
                if (l.delimiterOpen) return Fail("nested delimiter set", item.offset);
                l.delimiterOpen = true;
                l.delimiterSetHasUsage = false;
                return true;
            }
            if (item.data == 0) {
                if (!l.delimiterOpen) return Fail("delimiter close without open", item.offset);
                l.delimiterOpen = false;
                return true;
            }
            return Fail("delimiter value " + std::to_string(item.data), item.offset);
        default:
            return Fail("reserved local item tag " + std::to_string(item.tag), item.offset);
        }
    }

    ItemReader m_reader;
    size_t m_size;
    std::string m_error;
    GlobalState m_globals;
    LocalState m_locals;
    std::vector<GlobalState> m_stack;
    std::unique_ptr<CollectionBuilder> m_current;
    std::vector<TopLevelCollection> m_done;
};

}  // namespace

ParsedDescriptor ParseReportDescriptor(std::span<const uint8_t> descriptor) {
    return DescriptorParser(descriptor).Run();
}

const TopLevelCollection* FindTopLevelCollection(const ParsedDescriptor& parsed,
                                                 uint16_t usagePage, uint16_t usage) {
    for (const TopLevelCollection& tlc : parsed.collections) {
        if (tlc.usagePage == usagePage && tlc.usage == usage) return &tlc;
    }
    return nullptr;
}

}  // namespace VideoConsoleCore::hid
