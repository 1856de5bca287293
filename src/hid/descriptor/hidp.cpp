#include "hid/descriptor/hidp.h"

#include <algorithm>

#include "hid/descriptor/report_bits.h"

namespace VideoConsoleCore::hid {

namespace {

using detail::ReadBits;
using detail::WriteBits;

bool ValidType(ReportType type) {
    return static_cast<uint8_t>(type) <= static_cast<uint8_t>(ReportType::Feature);
}

// Checks shared by every routine that takes a report type.
NtStatus CheckCollectionAndType(const TopLevelCollection& collection, ReportType type) {
    if (!collection.valid) return kHidpStatusInvalidPreparsedData;
    if (!ValidType(type)) return kHidpStatusInvalidReportType;
    return kHidpStatusSuccess;
}

NtStatus CheckReport(const TopLevelCollection& collection, ReportType type, size_t reportLength) {
    const NtStatus status = CheckCollectionAndType(collection, type);
    if (status != kHidpStatusSuccess) return status;
    if (reportLength != collection.Layout(type).byteLength) return kHidpStatusInvalidReportLength;
    return kHidpStatusSuccess;
}

bool UsageMatches(const ControlCaps& caps, uint16_t usagePage, uint16_t linkCollection,
                  uint16_t usage) {
    if (usagePage != 0 && caps.UsagePage != usagePage) return false;
    if (linkCollection != 0 && caps.LinkCollection != linkCollection) return false;
    if (usage != 0 && (usage < caps.UsageMin || usage > caps.UsageMax)) return false;
    return true;
}

NtStatus GetSpecificCaps(bool buttons, ReportType type, uint16_t usagePage,
                         uint16_t linkCollection, uint16_t usage, std::span<ControlCaps> buffer,
                         size_t& count, const TopLevelCollection& collection) {
    count = 0;
    const NtStatus status = CheckCollectionAndType(collection, type);
    if (status != kHidpStatusSuccess) return status;
    size_t matches = 0;
    for (const ControlCaps& caps : collection.Layout(type).caps) {
        if (caps.IsButton != buttons || !UsageMatches(caps, usagePage, linkCollection, usage)) {
            continue;
        }
        if (matches < buffer.size()) buffer[count++] = caps;
        ++matches;
    }
    if (matches == 0) return kHidpStatusUsageNotFound;
    return matches > buffer.size() ? kHidpStatusBufferTooSmall : kHidpStatusSuccess;
}

std::vector<ControlCaps> CapsOf(const TopLevelCollection& collection, ReportType type,
                                bool buttons) {
    std::vector<ControlCaps> out;
    if (!ValidType(type)) return out;
    for (const ControlCaps& caps : collection.Layout(type).caps) {
        if (caps.IsButton == buttons) out.push_back(caps);
    }
    return out;
}

// The value field a usage names in the report whose ID is `reportId`.
struct ValueField {
    const ValueCaps* caps = nullptr;
    uint32_t bitPosition = 0;  // of the usage's field (of the first for an array)
};

// Finds the value capability for a usage (see hidp.h for the rules).
// `reportId` is read from the report only once a capability matches: a
// report type without reports may come with an empty buffer.
NtStatus FindValue(ReportType type, uint16_t usagePage, uint16_t linkCollection, uint16_t usage,
                   const TopLevelCollection& collection, std::span<const uint8_t> report,
                   ValueField& field) {
    bool otherReport = false;
    for (const ControlCaps& caps : collection.Layout(type).caps) {
        if (caps.IsButton || caps.UsagePage != usagePage) continue;
        if (linkCollection != 0 && caps.LinkCollection != linkCollection) continue;
        if (usage < caps.UsageMin || usage > caps.UsageMax) continue;
        // A range hands its usages one field each, in order.
        const uint32_t index = caps.IsRange ? static_cast<uint32_t>(usage - caps.UsageMin) : 0;
        if (index >= caps.ReportCount) continue;
        if (report.empty() || report[0] != caps.ReportID) {
            otherReport = true;
            continue;
        }
        field.caps = &caps;
        field.bitPosition = caps.BitPosition + index * caps.BitSize;
        return kHidpStatusSuccess;
    }
    return otherReport ? kHidpStatusIncompatibleReportId : kHidpStatusUsageNotFound;
}

bool IsValueArray(const ValueCaps& caps) { return !caps.IsRange && caps.ReportCount > 1; }

// The field's last bit must lie inside the report. Always true for a report
// of the collection's length; checked anyway so that no caps record can
// send a write outside the buffer.
bool FitsInReport(uint32_t bitPosition, uint64_t bits, size_t reportLength) {
    return bitPosition + bits <= static_cast<uint64_t>(reportLength) * 8;
}

// The null value of a field (see InitializeReportForID in hidp.h).
uint32_t NullValue(const ValueCaps& caps) {
    const int64_t lo = caps.LogicalMin;
    const int64_t hi = caps.LogicalMax;
    if (lo > 0 || hi < 0) return 0;
    const uint32_t bits = caps.BitSize;
    const uint64_t allOnes = (uint64_t{1} << bits) - 1;
    if (lo >= 0) return static_cast<int64_t>(allOnes) > hi ? static_cast<uint32_t>(allOnes) : 0;
    const int64_t mostNegative = -(int64_t{1} << (bits - 1));
    return mostNegative < lo ? static_cast<uint32_t>(uint64_t{1} << (bits - 1)) : 0;
}

}  // namespace

NtStatus GetCaps(const TopLevelCollection& collection, Caps& caps) {
    caps = Caps{};
    if (!collection.valid) return kHidpStatusInvalidPreparsedData;
    caps.Usage = collection.usage;
    caps.UsagePage = collection.usagePage;
    caps.InputReportByteLength = collection.Layout(ReportType::Input).byteLength;
    caps.OutputReportByteLength = collection.Layout(ReportType::Output).byteLength;
    caps.FeatureReportByteLength = collection.Layout(ReportType::Feature).byteLength;
    caps.NumberLinkCollectionNodes = static_cast<uint16_t>(collection.linkCollections.size());

    struct Counts {
        uint16_t Caps::*buttons;
        uint16_t Caps::*values;
        uint16_t Caps::*indices;
    };
    const Counts counts[3] = {
        {&Caps::NumberInputButtonCaps, &Caps::NumberInputValueCaps, &Caps::NumberInputDataIndices},
        {&Caps::NumberOutputButtonCaps, &Caps::NumberOutputValueCaps,
         &Caps::NumberOutputDataIndices},
        {&Caps::NumberFeatureButtonCaps, &Caps::NumberFeatureValueCaps,
         &Caps::NumberFeatureDataIndices},
    };
    for (size_t t = 0; t < 3; ++t) {
        const ReportTypeLayout& layout = collection.reports[t];
        for (const ControlCaps& c : layout.caps) ++(caps.*(c.IsButton ? counts[t].buttons : counts[t].values));
        caps.*counts[t].indices = layout.dataIndexCount;
    }
    return kHidpStatusSuccess;
}

NtStatus GetSpecificValueCaps(ReportType type, uint16_t usagePage, uint16_t linkCollection,
                              uint16_t usage, std::span<ValueCaps> buffer, size_t& count,
                              const TopLevelCollection& collection) {
    return GetSpecificCaps(false, type, usagePage, linkCollection, usage, buffer, count, collection);
}

NtStatus GetValueCaps(ReportType type, std::span<ValueCaps> buffer, size_t& count,
                      const TopLevelCollection& collection) {
    return GetSpecificCaps(false, type, 0, 0, 0, buffer, count, collection);
}

NtStatus GetSpecificButtonCaps(ReportType type, uint16_t usagePage, uint16_t linkCollection,
                               uint16_t usage, std::span<ButtonCaps> buffer, size_t& count,
                               const TopLevelCollection& collection) {
    return GetSpecificCaps(true, type, usagePage, linkCollection, usage, buffer, count, collection);
}

NtStatus GetButtonCaps(ReportType type, std::span<ButtonCaps> buffer, size_t& count,
                       const TopLevelCollection& collection) {
    return GetSpecificCaps(true, type, 0, 0, 0, buffer, count, collection);
}

NtStatus GetLinkCollectionNodes(std::span<LinkCollectionNode> buffer, size_t& count,
                                const TopLevelCollection& collection) {
    count = 0;
    if (!collection.valid) return kHidpStatusInvalidPreparsedData;
    const auto& nodes = collection.linkCollections;
    count = nodes.size();
    if (buffer.size() < nodes.size()) return kHidpStatusBufferTooSmall;
    std::copy(nodes.begin(), nodes.end(), buffer.begin());
    return kHidpStatusSuccess;
}

std::vector<ValueCaps> ValueCapsOf(const TopLevelCollection& collection, ReportType type) {
    return CapsOf(collection, type, false);
}

std::vector<ButtonCaps> ButtonCapsOf(const TopLevelCollection& collection, ReportType type) {
    return CapsOf(collection, type, true);
}

NtStatus InitializeReportForID(ReportType type, uint8_t reportId,
                               const TopLevelCollection& collection, std::span<uint8_t> report) {
    const NtStatus status = CheckReport(collection, type, report.size());
    if (status != kHidpStatusSuccess) return status;
    const ReportTypeLayout& layout = collection.Layout(type);
    if (!std::binary_search(layout.reportIds.begin(), layout.reportIds.end(), reportId)) {
        return kHidpStatusReportDoesNotExist;
    }
    std::fill(report.begin(), report.end(), uint8_t{0});
    report[0] = reportId;
    for (const ControlCaps& caps : layout.caps) {
        if (caps.IsButton || !caps.HasNull || caps.ReportID != reportId) continue;
        const uint32_t null = NullValue(caps);
        if (null == 0) continue;
        if (!FitsInReport(caps.BitPosition, uint64_t{caps.BitSize} * caps.ReportCount, report.size())) {
            continue;
        }
        for (uint32_t i = 0; i < caps.ReportCount; ++i) {
            WriteBits(report, caps.BitPosition + i * caps.BitSize, caps.BitSize, null);
        }
    }
    return kHidpStatusSuccess;
}

NtStatus SetUsageValue(ReportType type, uint16_t usagePage, uint16_t linkCollection,
                       uint16_t usage, uint32_t value, const TopLevelCollection& collection,
                       std::span<uint8_t> report) {
    NtStatus status = CheckReport(collection, type, report.size());
    if (status != kHidpStatusSuccess) return status;
    ValueField field;
    status = FindValue(type, usagePage, linkCollection, usage, collection, report, field);
    if (status != kHidpStatusSuccess) return status;
    if (IsValueArray(*field.caps)) return kHidpStatusIsValueArray;
    if (!FitsInReport(field.bitPosition, field.caps->BitSize, report.size())) {
        return kHidpStatusInvalidReportLength;
    }
    WriteBits(report, field.bitPosition, field.caps->BitSize, value);
    return kHidpStatusSuccess;
}

NtStatus GetUsageValue(ReportType type, uint16_t usagePage, uint16_t linkCollection,
                       uint16_t usage, uint32_t& value, const TopLevelCollection& collection,
                       std::span<const uint8_t> report) {
    value = 0;
    NtStatus status = CheckReport(collection, type, report.size());
    if (status != kHidpStatusSuccess) return status;
    ValueField field;
    status = FindValue(type, usagePage, linkCollection, usage, collection, report, field);
    if (status != kHidpStatusSuccess) return status;
    if (IsValueArray(*field.caps)) return kHidpStatusIsValueArray;
    if (!FitsInReport(field.bitPosition, field.caps->BitSize, report.size())) {
        return kHidpStatusInvalidReportLength;
    }
    value = ReadBits(report, field.bitPosition, field.caps->BitSize);
    return kHidpStatusSuccess;
}

namespace {

// Shared checks of the two array routines; on success `caps` is the array.
NtStatus FindValueArray(ReportType type, uint16_t usagePage, uint16_t linkCollection,
                        uint16_t usage, size_t valuesLength, const TopLevelCollection& collection,
                        std::span<const uint8_t> report, const ValueCaps*& caps) {
    NtStatus status = CheckReport(collection, type, report.size());
    if (status != kHidpStatusSuccess) return status;
    ValueField field;
    status = FindValue(type, usagePage, linkCollection, usage, collection, report, field);
    if (status != kHidpStatusSuccess) return status;
    if (!IsValueArray(*field.caps)) return kHidpStatusNotValueArray;
    const uint64_t bits = uint64_t{field.caps->BitSize} * field.caps->ReportCount;
    if (valuesLength < (bits + 7) / 8) return kHidpStatusBufferTooSmall;
    if (!FitsInReport(field.caps->BitPosition, bits, report.size())) {
        return kHidpStatusInvalidReportLength;
    }
    caps = field.caps;
    return kHidpStatusSuccess;
}

}  // namespace

NtStatus SetUsageValueArray(ReportType type, uint16_t usagePage, uint16_t linkCollection,
                            uint16_t usage, std::span<const uint8_t> values,
                            const TopLevelCollection& collection, std::span<uint8_t> report) {
    const ValueCaps* caps = nullptr;
    const NtStatus status = FindValueArray(type, usagePage, linkCollection, usage, values.size(),
                                           collection, report, caps);
    if (status != kHidpStatusSuccess) return status;
    for (uint32_t i = 0; i < caps->ReportCount; ++i) {
        const uint32_t offset = i * caps->BitSize;
        WriteBits(report, caps->BitPosition + offset, caps->BitSize,
                  ReadBits(values, offset, caps->BitSize));
    }
    return kHidpStatusSuccess;
}

NtStatus GetUsageValueArray(ReportType type, uint16_t usagePage, uint16_t linkCollection,
                            uint16_t usage, std::span<uint8_t> values,
                            const TopLevelCollection& collection,
                            std::span<const uint8_t> report) {
    const ValueCaps* caps = nullptr;
    const NtStatus status = FindValueArray(type, usagePage, linkCollection, usage, values.size(),
                                           collection, report, caps);
    if (status != kHidpStatusSuccess) return status;
    for (uint32_t i = 0; i < caps->ReportCount; ++i) {
        const uint32_t offset = i * caps->BitSize;
        WriteBits(values, offset, caps->BitSize,
                  ReadBits(report, caps->BitPosition + offset, caps->BitSize));
    }
    return kHidpStatusSuccess;
}

}  // namespace VideoConsoleCore::hid
