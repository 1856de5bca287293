#include "hid/backend/descriptor_backend.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <span>

#include "hid/descriptor/hidp.h"
#include "hid/descriptor/report_descriptor.h"

namespace VideoConsoleCore::hid {

namespace {

// What GetPreparsedData hands out: one parsed top-level collection behind a
// tag that tells it apart from anything else a caller might pass.
struct PreparsedBlob {
    static constexpr uint32_t kTag = 0x50524550;  // "PREP"
    uint32_t tag = kTag;
    TopLevelCollection collection;
};

const TopLevelCollection* CollectionOf(PreparsedData data) {
    const auto* blob = static_cast<const PreparsedBlob*>(data);
    if (blob == nullptr || blob->tag != PreparsedBlob::kTag) return nullptr;
    return &blob->collection;
}

bool ToReportType(int32_t type, ReportType& out) {
    if (type < kInputReport || type > kFeatureReport) return false;
    out = static_cast<ReportType>(type);
    return true;
}

// The checks every report routine starts with: a collection of ours and a
// known report type.
NtStatus Resolve(PreparsedData data, int32_t type, const TopLevelCollection*& collection,
                 ReportType& kind) {
    collection = CollectionOf(data);
    if (collection == nullptr) return kHidpStatusInvalidPreparsedData;
    if (!ToReportType(type, kind)) return kHidpStatusInvalidReportType;
    return kHidpStatusSuccess;
}

// The usage part of a capability, as Windows lays it out.
template <typename Record>
void FillUsage(const ControlCaps& from, Record& to) {
    if (from.IsRange) {
        to.Range = HidpCapsRange{from.UsageMin,      from.UsageMax,      from.StringMin,
                                 from.StringMax,     from.DesignatorMin, from.DesignatorMax,
                                 from.DataIndexMin,  from.DataIndexMax};
    } else {
        to.NotRange = HidpCapsNotRange{from.UsageMin,      0, from.StringMin,    0,
                                       from.DesignatorMin, 0, from.DataIndexMin, 0};
    }
}

template <typename Record>
void FillCommon(const ControlCaps& from, Record& to) {
    to.UsagePage = from.UsagePage;
    to.ReportID = from.ReportID;
    to.IsAlias = from.IsAlias;
    to.BitField = from.BitField;
    to.LinkCollection = from.LinkCollection;
    to.LinkUsage = from.LinkUsage;
    to.LinkUsagePage = from.LinkUsagePage;
    to.IsRange = from.IsRange;
    to.IsStringRange = from.IsStringRange;
    to.IsDesignatorRange = from.IsDesignatorRange;
    to.IsAbsolute = from.IsAbsolute;
    FillUsage(from, to);
}

HidpValueCaps ToValueCaps(const ControlCaps& from) {
    HidpValueCaps to{};
    FillCommon(from, to);
    to.HasNull = from.HasNull;
    to.BitSize = from.BitSize;
    to.ReportCount = from.ReportCount;
    to.UnitsExp = from.UnitsExp;
    to.Units = from.Units;
    to.LogicalMin = from.LogicalMin;
    to.LogicalMax = from.LogicalMax;
    to.PhysicalMin = from.PhysicalMin;
    to.PhysicalMax = from.PhysicalMax;
    return to;
}

HidpButtonCaps ToButtonCaps(const ControlCaps& from) {
    HidpButtonCaps to{};
    FillCommon(from, to);
    return to;
}

// Runs one of the capability queries into a scratch list and copies what
// fits into the caller's records.
template <typename Record, typename Convert, typename Query>
NtStatus CopyCaps(Record* out, uint16_t& length, Convert convert, Query query) {
    std::vector<ControlCaps> scratch(length);
    size_t count = 0;
    const NtStatus status = query(std::span<ControlCaps>(scratch), count);
    count = std::min<size_t>(count, length);
    if (out == nullptr) count = 0;
    for (size_t i = 0; i < count; ++i) out[i] = convert(scratch[i]);
    length = static_cast<uint16_t>(count);
    return status;
}

}  // namespace

void DescriptorHidBackend::GetHidGuid(Guid& guid) {
    // The HID interface class: {4D1E55B2-F16F-11CF-88CB-001111000030}.
    guid = Guid{0x4D1E55B2, 0xF16F, 0x11CF, {0x88, 0xCB, 0x00, 0x11, 0x11, 0x00, 0x00, 0x30}};
}

bool DescriptorHidBackend::GetPreparsedData(HidHandle handle, PreparsedData& data) {
    std::vector<uint8_t> descriptor;
    int collectionIndex = 0;
    if (!ReadReportDescriptor(handle, descriptor, collectionIndex)) return false;
    ParsedDescriptor parsed = ParseReportDescriptor(descriptor);
    if (!parsed.Ok() || collectionIndex < 0 ||
        static_cast<size_t>(collectionIndex) >= parsed.collections.size()) {
        return false;
    }
    auto* blob = new (std::nothrow) PreparsedBlob;
    if (blob == nullptr) return false;
    blob->collection = std::move(parsed.collections[static_cast<size_t>(collectionIndex)]);
    data = blob;
    return true;
}

bool DescriptorHidBackend::FreePreparsedData(PreparsedData data) {
    if (CollectionOf(data) == nullptr) return false;
    auto* blob = static_cast<PreparsedBlob*>(data);
    blob->tag = 0;  // a second free finds no tag
    delete blob;
    return true;
}

NtStatus DescriptorHidBackend::GetCaps(PreparsedData data, HidpCaps& caps) {
    const TopLevelCollection* collection = CollectionOf(data);
    if (collection == nullptr) return kHidpStatusInvalidPreparsedData;
    Caps parsed;
    const NtStatus status = hid::GetCaps(*collection, parsed);
    caps = HidpCaps{};
    caps.Usage_ = parsed.Usage;
    caps.UsagePage = parsed.UsagePage;
    caps.InputReportByteLength = parsed.InputReportByteLength;
    caps.OutputReportByteLength = parsed.OutputReportByteLength;
    caps.FeatureReportByteLength = parsed.FeatureReportByteLength;
    caps.NumberLinkCollectionNodes = parsed.NumberLinkCollectionNodes;
    caps.NumberInputButtonCaps = parsed.NumberInputButtonCaps;
    caps.NumberInputValueCaps = parsed.NumberInputValueCaps;
    caps.NumberInputDataIndices = parsed.NumberInputDataIndices;
    caps.NumberOutputButtonCaps = parsed.NumberOutputButtonCaps;
    caps.NumberOutputValueCaps = parsed.NumberOutputValueCaps;
    caps.NumberOutputDataIndices = parsed.NumberOutputDataIndices;
    caps.NumberFeatureButtonCaps = parsed.NumberFeatureButtonCaps;
    caps.NumberFeatureValueCaps = parsed.NumberFeatureValueCaps;
    caps.NumberFeatureDataIndices = parsed.NumberFeatureDataIndices;
    return status;
}

NtStatus DescriptorHidBackend::GetButtonCaps(int32_t type, HidpButtonCaps* caps,
                                             uint16_t& length, PreparsedData data) {
    return GetSpecificButtonCaps(type, 0, 0, 0, caps, length, data);
}

NtStatus DescriptorHidBackend::GetSpecificButtonCaps(int32_t type, Usage page, uint16_t link,
                                                     Usage usage, HidpButtonCaps* caps,
                                                     uint16_t& length, PreparsedData data) {
    const TopLevelCollection* collection = nullptr;
    ReportType kind{};
    if (const NtStatus bad = Resolve(data, type, collection, kind); bad != kHidpStatusSuccess)
        return bad;
    return CopyCaps(caps, length, ToButtonCaps, [&](std::span<ControlCaps> buffer, size_t& count) {
        return hid::GetSpecificButtonCaps(kind, page, link, usage, buffer, count, *collection);
    });
}

NtStatus DescriptorHidBackend::GetValueCaps(int32_t type, HidpValueCaps* caps, uint16_t& length,
                                            PreparsedData data) {
    return GetSpecificValueCaps(type, 0, 0, 0, caps, length, data);
}

NtStatus DescriptorHidBackend::GetSpecificValueCaps(int32_t type, Usage page, uint16_t link,
                                                    Usage usage, HidpValueCaps* caps,
                                                    uint16_t& length, PreparsedData data) {
    const TopLevelCollection* collection = nullptr;
    ReportType kind{};
    if (const NtStatus bad = Resolve(data, type, collection, kind); bad != kHidpStatusSuccess)
        return bad;
    return CopyCaps(caps, length, ToValueCaps, [&](std::span<ControlCaps> buffer, size_t& count) {
        return hid::GetSpecificValueCaps(kind, page, link, usage, buffer, count, *collection);
    });
}

NtStatus DescriptorHidBackend::GetLinkCollectionNodes(HidpLinkCollectionNode* nodes,
                                                      uint32_t& length, PreparsedData data) {
    const TopLevelCollection* collection = CollectionOf(data);
    if (collection == nullptr) return kHidpStatusInvalidPreparsedData;
    std::vector<LinkCollectionNode> scratch(nodes != nullptr ? length : 0);
    size_t count = 0;
    const NtStatus status = hid::GetLinkCollectionNodes(scratch, count, *collection);
    const size_t copied = std::min(count, scratch.size());
    for (size_t i = 0; i < copied; ++i) {
        HidpLinkCollectionNode& to = nodes[i];
        to = HidpLinkCollectionNode{};
        to.LinkUsage = scratch[i].LinkUsage;
        to.LinkUsagePage = scratch[i].LinkUsagePage;
        to.Parent = scratch[i].Parent;
        to.NumberOfChildren = scratch[i].NumberOfChildren;
        to.NextSibling = scratch[i].NextSibling;
        to.FirstChild = scratch[i].FirstChild;
        to.CollectionType = scratch[i].CollectionType;
        to.IsAlias = scratch[i].IsAlias ? 1 : 0;
    }
    length = static_cast<uint32_t>(count);
    return status;
}

NtStatus DescriptorHidBackend::GetExtendedAttributes(int32_t type, uint16_t dataIndex,
                                                     PreparsedData data,
                                                     HidpExtendedAttributes* attributes,
                                                     uint32_t& length) {
    // The parser keeps no global items it does not know, so a control's
    // extended attributes are always the empty list.
    const TopLevelCollection* collection = nullptr;
    ReportType kind{};
    if (const NtStatus bad = Resolve(data, type, collection, kind); bad != kHidpStatusSuccess)
        return bad;
    const auto& caps = collection->Layout(kind).caps;
    const bool known = std::any_of(caps.begin(), caps.end(), [&](const ControlCaps& c) {
        return dataIndex >= c.DataIndexMin && dataIndex <= c.DataIndexMax;
    });
    if (!known) return kHidpStatusDataIndexNotFound;
    if (attributes == nullptr || length < sizeof(HidpExtendedAttributes))
        return kHidpStatusBufferTooSmall;
    std::memset(attributes, 0, sizeof(HidpExtendedAttributes));
    length = sizeof(HidpExtendedAttributes);
    return kHidpStatusSuccess;
}

NtStatus DescriptorHidBackend::InitializeReportForID(int32_t type, uint8_t reportId,
                                                     PreparsedData data, void* report,
                                                     uint32_t length) {
    const TopLevelCollection* collection = nullptr;
    ReportType kind{};
    if (const NtStatus bad = Resolve(data, type, collection, kind); bad != kHidpStatusSuccess)
        return bad;
    if (report == nullptr && length > 0) return kHidpStatusInvalidReportLength;
    return hid::InitializeReportForID(
        kind, reportId, *collection, std::span<uint8_t>(static_cast<uint8_t*>(report), length));
}

uint32_t DescriptorHidBackend::MaxDataListLength(int32_t type, PreparsedData data) {
    const TopLevelCollection* collection = CollectionOf(data);
    ReportType kind;
    if (collection == nullptr || !ToReportType(type, kind)) return 0;
    return collection->Layout(kind).dataIndexCount;
}

uint32_t DescriptorHidBackend::MaxUsageListLength(int32_t type, Usage page, PreparsedData data) {
    // How many buttons of the page can be down at once: every field of an
    // array, every usage of a variable (bit) button.
    const TopLevelCollection* collection = CollectionOf(data);
    ReportType kind;
    if (collection == nullptr || !ToReportType(type, kind)) return 0;
    uint32_t most = 0;
    for (const ControlCaps& caps : collection->Layout(kind).caps) {
        if (!caps.IsButton || (page != 0 && caps.UsagePage != page)) continue;
        if (caps.IsMultipleItemsForArray) continue;  // shares the fields counted already
        const bool isArray = (caps.BitField & 0x02) == 0;
        most += isArray ? caps.ReportCount : static_cast<uint32_t>(caps.UsageMax - caps.UsageMin + 1);
    }
    return most;
}

// The device this library drives has no buttons; reading and writing button
// states (usages, data lists) is not modelled for descriptor-backed devices.
NtStatus DescriptorHidBackend::GetData(int32_t, HidpData*, uint32_t& length, PreparsedData,
                                       void*, uint32_t) {
    length = 0;
    return kHidpStatusNotImplemented;
}
NtStatus DescriptorHidBackend::SetData(int32_t, HidpData*, uint32_t&, PreparsedData, void*,
                                       uint32_t) {
    return kHidpStatusNotImplemented;
}
NtStatus DescriptorHidBackend::GetUsages(int32_t, Usage, uint16_t, Usage*, uint32_t& length,
                                         PreparsedData, void*, uint32_t) {
    length = 0;
    return kHidpStatusNotImplemented;
}
NtStatus DescriptorHidBackend::GetUsagesEx(int32_t, uint16_t, UsageAndPage*, uint32_t& length,
                                           PreparsedData, void*, uint32_t) {
    length = 0;
    return kHidpStatusNotImplemented;
}
NtStatus DescriptorHidBackend::SetUsages(int32_t, Usage, uint16_t, Usage*, uint32_t&,
                                         PreparsedData, void*, uint32_t) {
    return kHidpStatusNotImplemented;
}
NtStatus DescriptorHidBackend::UnsetUsages(int32_t, Usage, uint16_t, Usage*, uint32_t&,
                                           PreparsedData, void*, uint32_t) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::UsageListDifference(const Usage* previous, const Usage* current,
                                                   Usage* breaks, Usage* makes,
                                                   uint32_t length) {
    // Usages in `previous` but not in `current` broke, the others were
    // made; a zero usage ends a list early. Results are zero-padded.
    if (length > 0 && (previous == nullptr || current == nullptr || breaks == nullptr ||
                       makes == nullptr)) {
        return kHidpStatusNull;
    }
    auto contains = [length](const Usage* list, Usage usage) {
        for (uint32_t i = 0; i < length && list[i] != 0; ++i)
            if (list[i] == usage) return true;
        return false;
    };
    uint32_t broke = 0, made = 0;
    for (uint32_t i = 0; i < length && previous[i] != 0; ++i)
        if (!contains(current, previous[i])) breaks[broke++] = previous[i];
    for (uint32_t i = 0; i < length && current[i] != 0; ++i)
        if (!contains(previous, current[i])) makes[made++] = current[i];
    for (uint32_t i = broke; i < length; ++i) breaks[i] = 0;
    for (uint32_t i = made; i < length; ++i) makes[i] = 0;
    return kHidpStatusSuccess;
}

NtStatus DescriptorHidBackend::GetUsageValue(int32_t type, Usage page, uint16_t link,
                                             Usage usage, uint32_t& value, PreparsedData data,
                                             void* report, uint32_t reportLength) {
    const TopLevelCollection* collection = nullptr;
    ReportType kind{};
    if (const NtStatus bad = Resolve(data, type, collection, kind); bad != kHidpStatusSuccess)
        return bad;
    if (report == nullptr) return kHidpStatusInvalidReportLength;
    return hid::GetUsageValue(
        kind, page, link, usage, value, *collection,
        std::span<const uint8_t>(static_cast<const uint8_t*>(report), reportLength));
}

NtStatus DescriptorHidBackend::GetScaledUsageValue(int32_t type, Usage page, uint16_t link,
                                                   Usage usage, int32_t& value,
                                                   PreparsedData data, void* report,
                                                   uint32_t reportLength) {
    uint32_t raw = 0;
    NtStatus status = GetUsageValue(type, page, link, usage, raw, data, report, reportLength);
    if (status != kHidpStatusSuccess) return status;
    HidpValueCaps caps{};
    uint16_t count = 1;
    status = GetSpecificValueCaps(type, page, link, usage, &caps, count, data);
    if (status != kHidpStatusSuccess || count == 0) return kHidpStatusUsageNotFound;

    // Sign-extend when the logical range goes below zero.
    int64_t logical = raw;
    if (caps.LogicalMin < 0 && caps.BitSize > 0 && caps.BitSize < 32 &&
        (raw >> (caps.BitSize - 1)) & 1u) {
        logical = static_cast<int64_t>(raw) - (int64_t{1} << caps.BitSize);
    } else if (caps.LogicalMin < 0 && caps.BitSize == 32) {
        logical = static_cast<int32_t>(raw);
    }
    if (caps.LogicalMin >= caps.LogicalMax) return kHidpStatusBadLogPhyValues;
    if (logical < caps.LogicalMin || logical > caps.LogicalMax) return kHidpStatusValueOutOfRange;
    // Without a physical range the logical value stands.
    if (caps.PhysicalMin == 0 && caps.PhysicalMax == 0) {
        value = static_cast<int32_t>(logical);
        return kHidpStatusSuccess;
    }
    if (caps.PhysicalMin >= caps.PhysicalMax) return kHidpStatusBadLogPhyValues;
    const int64_t scaled =
        caps.PhysicalMin + (logical - caps.LogicalMin) *
                               (int64_t{caps.PhysicalMax} - caps.PhysicalMin) /
                               (int64_t{caps.LogicalMax} - caps.LogicalMin);
    value = static_cast<int32_t>(scaled);
    return kHidpStatusSuccess;
}

NtStatus DescriptorHidBackend::SetUsageValue(int32_t type, Usage page, uint16_t link,
                                             Usage usage, uint32_t value, PreparsedData data,
                                             void* report, uint32_t reportLength) {
    const TopLevelCollection* collection = nullptr;
    ReportType kind{};
    if (const NtStatus bad = Resolve(data, type, collection, kind); bad != kHidpStatusSuccess)
        return bad;
    if (report == nullptr) return kHidpStatusInvalidReportLength;
    return hid::SetUsageValue(kind, page, link, usage, value, *collection,
                              std::span<uint8_t>(static_cast<uint8_t*>(report), reportLength));
}

NtStatus DescriptorHidBackend::GetUsageValueArray(int32_t type, Usage page, uint16_t link,
                                                  Usage usage, void* values,
                                                  uint16_t valuesLength, PreparsedData data,
                                                  void* report, uint32_t reportLength) {
    const TopLevelCollection* collection = nullptr;
    ReportType kind{};
    if (const NtStatus bad = Resolve(data, type, collection, kind); bad != kHidpStatusSuccess)
        return bad;
    if (report == nullptr) return kHidpStatusInvalidReportLength;
    if (values == nullptr) valuesLength = 0;
    return hid::GetUsageValueArray(
        kind, page, link, usage, std::span<uint8_t>(static_cast<uint8_t*>(values), valuesLength),
        *collection,
        std::span<const uint8_t>(static_cast<const uint8_t*>(report), reportLength));
}

NtStatus DescriptorHidBackend::SetUsageValueArray(int32_t type, Usage page, uint16_t link,
                                                  Usage usage, void* values,
                                                  uint16_t valuesLength, PreparsedData data,
                                                  void* report, uint32_t reportLength) {
    const TopLevelCollection* collection = nullptr;
    ReportType kind{};
    if (const NtStatus bad = Resolve(data, type, collection, kind); bad != kHidpStatusSuccess)
        return bad;
    if (report == nullptr) return kHidpStatusInvalidReportLength;
    if (values == nullptr) valuesLength = 0;
    return hid::SetUsageValueArray(
        kind, page, link, usage,
        std::span<const uint8_t>(static_cast<const uint8_t*>(values), valuesLength), *collection,
        std::span<uint8_t>(static_cast<uint8_t*>(report), reportLength));
}

}  // namespace VideoConsoleCore::hid
