#include "hid/call_hid_function.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "hid/backend/hid_backend.h"

namespace VideoConsoleCore::hid {

namespace {

// HidD_ calls answer true or false.
void RecordHidD(HidCallStatus& status, bool ok) { status.failed = ok ? 0 : 1; }

// HidP_ calls answer a status code; only HIDP_STATUS_SUCCESS is success.
void RecordHidP(HidCallStatus& status, NtStatus code) {
    status.hidpStatus = code;
    status.failed = code == kHidpStatusSuccess ? 0 : 1;
}

// A zeroed malloc'd array of `count` records (at least one, so that a count
// of zero still yields a buffer the caller can free).
template <typename T>
T* AllocateRecords(uint32_t count) {
    return static_cast<T*>(std::calloc(std::max<uint32_t>(count, 1), sizeof(T)));
}

// HidP_ calls take 16-bit list lengths for capabilities.
uint16_t CapsLength(uint32_t length) { return static_cast<uint16_t>(std::min<uint32_t>(length, 0xFFFF)); }

// The value capability of the usage named in `p`, which sizes a value
// array. False, with the failure recorded, when there is none.
bool FindArrayCaps(HidBackend& backend, const HidCallParameters& p, HidCallStatus& status,
                   HidpValueCaps& caps) {
    uint16_t capsLength = 1;
    const NtStatus found = backend.GetSpecificValueCaps(p.reportType, p.usagePage,
                                                        p.linkCollection, p.usage, &caps,
                                                        capsLength, p.preparsedData);
    if (found == kHidpStatusSuccess && capsLength > 0) return true;
    RecordHidP(status, found != kHidpStatusSuccess ? found : kHidpStatusUsageNotFound);
    return false;
}

// Operation 34: read a value array whose size the usage's value capability
// gives.
int GetValueArray(HidBackend& backend, HidCallParameters& p, HidCallStatus& status) {
    HidpValueCaps caps{};
    if (!FindArrayCaps(backend, p, status, caps)) return 1;
    const uint32_t bytes = (static_cast<uint32_t>(caps.BitSize) * caps.ReportCount + 7) / 8;
    auto* values = static_cast<uint8_t*>(std::calloc(std::max<uint32_t>(bytes, 1), 1));
    if (values == nullptr) return 0;
    p.resultBuffer = values;
    p.listLength = bytes;
    RecordHidP(status, backend.GetUsageValueArray(p.reportType, p.usagePage, p.linkCollection,
                                                  p.usage, values, CapsLength(bytes),
                                                  p.preparsedData, p.dataBuffer, p.dataLength));
    return 1;
}

// Operation 44: pack the caller's values to the usage's bit size and write
// them as one value array.
int SetValueArray(HidBackend& backend, HidCallParameters& p, HidCallStatus& status) {
    HidpValueCaps caps{};
    if (!FindArrayCaps(backend, p, status, caps)) return 1;
    uint32_t packedSize = 0;
    uint8_t* packed =
        PackUsageValues(p.values, p.valueCount, caps.BitSize, caps.ReportCount, &packedSize);
    if (packed == nullptr) return 0;
    p.resultBuffer = packed;
    p.listLength = packedSize;
    RecordHidP(status, backend.SetUsageValueArray(p.reportType, p.usagePage, p.linkCollection,
                                                  p.usage, packed, CapsLength(packedSize),
                                                  p.preparsedData, p.dataBuffer, p.dataLength));
    return 1;
}

}  // namespace

uint8_t* PackUsageValues(const uint32_t* values, uint32_t count, uint16_t bitSize,
                         uint16_t reportCount, uint32_t* packedSize) {
    const size_t totalBits = static_cast<size_t>(bitSize) * reportCount;
    const size_t bytes = (totalBits + 7) / 8;
    auto* buffer = static_cast<uint8_t*>(std::calloc(std::max<size_t>(bytes, 1), 1));
    if (buffer == nullptr) return nullptr;
    if (packedSize != nullptr) *packedSize = static_cast<uint32_t>(bytes);
    if (values == nullptr) count = 0;
    count = std::min<uint32_t>(count, reportCount);

    // Only the low 32 bits of a wider field can carry a value.
    const unsigned valueBits = std::min<unsigned>(bitSize, 32);
    const uint32_t mask = valueBits >= 32 ? 0xFFFFFFFFu : ((1u << valueBits) - 1u);
    size_t bit = 0;
    for (uint32_t i = 0; i < count; ++i, bit += bitSize) {
        const uint32_t value = values[i] & mask;
        for (unsigned b = 0; b < valueBits; ++b) {
            if ((value >> b) & 1u) {
                const size_t at = bit + b;
                buffer[at / 8] = static_cast<uint8_t>(buffer[at / 8] | (1u << (at % 8)));
            }
        }
    }
    return buffer;
}

int CallHidFunction(HidBackend& backend, uint32_t operation, HidCallParameters* parameters,
                    HidCallStatus* status) {
    if (status == nullptr) return 0;
    status->failed = 0;
    // Unsigned wrap: operation 0 becomes huge and is refused with the rest.
    if (operation - 1u > 50u || parameters == nullptr) return 0;
    HidCallParameters& p = *parameters;
    HidCallStatus& s = *status;

    switch (operation) {
        case 1: {
            auto* guid = AllocateRecords<Guid>(1);
            if (guid == nullptr) return 0;
            p.resultBuffer = guid;
            backend.GetHidGuid(*guid);
            return 1;
        }
        case 5:
            RecordHidD(s, backend.FlushQueue(p.deviceHandle));
            return 1;
        case 6: {
            auto* attributes = AllocateRecords<HiddAttributes>(1);
            if (attributes == nullptr) return 0;
            attributes->Size = sizeof(HiddAttributes);
            p.resultBuffer = attributes;
            RecordHidD(s, backend.GetAttributes(p.deviceHandle, *attributes));
            return 1;
        }
        case 7:
            RecordHidD(s, backend.SetFeature(p.deviceHandle, p.dataBuffer, p.dataLength));
            return 1;
        case 8:
            RecordHidD(s, backend.GetFeature(p.deviceHandle, p.dataBuffer, p.dataLength));
            return 1;
        case 9:
            RecordHidD(s, backend.GetInputReport(p.deviceHandle, p.dataBuffer, p.dataLength));
            return 1;
        case 10:
            RecordHidD(s, backend.SetOutputReport(p.deviceHandle, p.dataBuffer, p.dataLength));
            return 1;
        case 11:
            RecordHidD(s, backend.GetNumInputBuffers(p.deviceHandle, p.listLength));
            return 1;
        case 12:
            RecordHidD(s, backend.SetNumInputBuffers(p.deviceHandle, p.listLength));
            return 1;
        case 13:
        case 14:
        case 15:
        case 16:
        case 17:
        case 18: {
            void* text = std::calloc(kHidStringBufferBytes, 1);
            if (text == nullptr) return 0;
            p.resultBuffer = text;
            p.listLength = kHidStringBufferBytes;
            bool ok = false;
            switch (operation) {
                case 13: ok = backend.GetPhysicalDescriptor(p.deviceHandle, text, kHidStringBufferBytes); break;
                case 14: ok = backend.GetManufacturerString(p.deviceHandle, text, kHidStringBufferBytes); break;
                case 15: ok = backend.GetProductString(p.deviceHandle, text, kHidStringBufferBytes); break;
                case 16: ok = backend.GetIndexedString(p.deviceHandle, p.stringIndex, text, kHidStringBufferBytes); break;
                case 17: ok = backend.GetSerialNumberString(p.deviceHandle, text, kHidStringBufferBytes); break;
                default: ok = backend.GetMsGenreDescriptor(p.deviceHandle, text, kHidStringBufferBytes); break;
            }
            RecordHidD(s, ok);
            return 1;
        }
        case 19:
        case 20: {
            uint32_t done = 0;
            const bool ok = operation == 19
                                ? backend.Read(p.deviceHandle, p.dataBuffer, p.dataLength, done)
                                : backend.Write(p.deviceHandle, p.dataBuffer, p.dataLength, done);
            p.listLength = done;
            RecordHidD(s, ok);
            return 1;
        }
        case 21:
        case 29: {
            auto* caps = AllocateRecords<HidpButtonCaps>(p.listLength);
            if (caps == nullptr) return 0;
            p.resultBuffer = caps;
            uint16_t length = CapsLength(p.listLength);
            RecordHidP(s, operation == 21
                              ? backend.GetButtonCaps(p.reportType, caps, length, p.preparsedData)
                              : backend.GetSpecificButtonCaps(p.reportType, p.usagePage,
                                                              p.linkCollection, p.usage, caps,
                                                              length, p.preparsedData));
            p.listLength = length;
            return 1;
        }
        case 22:
        case 31: {
            const uint32_t most =
                backend.MaxUsageListLength(p.reportType, p.usagePage, p.preparsedData);
            auto* usages = AllocateRecords<Usage>(most);
            if (usages == nullptr) return 0;
            p.resultBuffer = usages;
            p.listLength = most;
            RecordHidP(s, backend.GetUsages(p.reportType, p.usagePage, p.linkCollection, usages,
                                            p.listLength, p.preparsedData, p.dataBuffer,
                                            p.dataLength));
            return 1;
        }
        case 23:
        case 32: {
            // Usage page 0 asks for the usages of every page.
            const uint32_t most = backend.MaxUsageListLength(p.reportType, 0, p.preparsedData);
            auto* usages = AllocateRecords<UsageAndPage>(most);
            if (usages == nullptr) return 0;
            p.resultBuffer = usages;
            p.listLength = most;
            RecordHidP(s, backend.GetUsagesEx(p.reportType, p.linkCollection, usages,
                                              p.listLength, p.preparsedData, p.dataBuffer,
                                              p.dataLength));
            return 1;
        }
        case 24: {
            auto* caps = AllocateRecords<HidpCaps>(1);
            if (caps == nullptr) return 0;
            p.resultBuffer = caps;
            RecordHidP(s, backend.GetCaps(p.preparsedData, *caps));
            return 1;
        }
        case 25: {
            const uint32_t most = backend.MaxDataListLength(p.reportType, p.preparsedData);
            auto* list = AllocateRecords<HidpData>(most);
            if (list == nullptr) return 0;
            p.resultBuffer = list;
            p.listLength = most;
            RecordHidP(s, backend.GetData(p.reportType, list, p.listLength, p.preparsedData,
                                          p.dataBuffer, p.dataLength));
            return 1;
        }
        case 26: {
            const uint32_t bytes =
                std::max<uint32_t>(p.listLength, sizeof(HidpExtendedAttributes));
            auto* attributes = static_cast<HidpExtendedAttributes*>(std::calloc(bytes, 1));
            if (attributes == nullptr) return 0;
            p.resultBuffer = attributes;
            p.listLength = bytes;
            RecordHidP(s, backend.GetExtendedAttributes(p.reportType, p.usage, p.preparsedData,
                                                        attributes, p.listLength));
            return 1;
        }
        case 27: {
            auto* nodes = AllocateRecords<HidpLinkCollectionNode>(p.listLength);
            if (nodes == nullptr) return 0;
            p.resultBuffer = nodes;
            RecordHidP(s, backend.GetLinkCollectionNodes(nodes, p.listLength, p.preparsedData));
            return 1;
        }
        case 28: {
            int32_t scaled = 0;
            RecordHidP(s, backend.GetScaledUsageValue(p.reportType, p.usagePage,
                                                      p.linkCollection, p.usage, scaled,
                                                      p.preparsedData, p.dataBuffer,
                                                      p.dataLength));
            p.value = static_cast<uint32_t>(scaled);
            return 1;
        }
        case 30:
        case 35: {
            auto* caps = AllocateRecords<HidpValueCaps>(p.listLength);
            if (caps == nullptr) return 0;
            p.resultBuffer = caps;
            uint16_t length = CapsLength(p.listLength);
            RecordHidP(s, operation == 35
                              ? backend.GetValueCaps(p.reportType, caps, length, p.preparsedData)
                              : backend.GetSpecificValueCaps(p.reportType, p.usagePage,
                                                             p.linkCollection, p.usage, caps,
                                                             length, p.preparsedData));
            p.listLength = length;
            return 1;
        }
        case 33:
            RecordHidP(s, backend.GetUsageValue(p.reportType, p.usagePage, p.linkCollection,
                                                p.usage, p.value, p.preparsedData, p.dataBuffer,
                                                p.dataLength));
            return 1;
        case 34:
            return GetValueArray(backend, p, s);
        case 36:
            RecordHidP(s, backend.InitializeReportForID(p.reportType, p.reportId, p.preparsedData,
                                                        p.dataBuffer, p.dataLength));
            return 1;
        case 37:
            p.listLength = backend.MaxDataListLength(p.reportType, p.preparsedData);
            return 1;
        case 38:
            p.listLength = backend.MaxUsageListLength(p.reportType, p.usagePage, p.preparsedData);
            return 1;
        case 39:
        case 42:
            RecordHidP(s, backend.SetUsages(p.reportType, p.usagePage, p.linkCollection,
                                            p.usages, p.listLength, p.preparsedData,
                                            p.dataBuffer, p.dataLength));
            return 1;
        case 40:
            RecordHidP(s, backend.SetData(p.reportType, p.dataList, p.listLength,
                                          p.preparsedData, p.dataBuffer, p.dataLength));
            return 1;
        case 41:
        case 43:
            RecordHidP(s, backend.SetUsageValue(p.reportType, p.usagePage, p.linkCollection,
                                                p.usage, p.value, p.preparsedData, p.dataBuffer,
                                                p.dataLength));
            return 1;
        case 44:
            return SetValueArray(backend, p, s);
        case 46:
        case 47:
            RecordHidP(s, backend.UnsetUsages(p.reportType, p.usagePage, p.linkCollection,
                                              p.usages, p.listLength, p.preparsedData,
                                              p.dataBuffer, p.dataLength));
            return 1;
        case 48: {
            auto* breaks = AllocateRecords<Usage>(p.listLength);
            auto* makes = AllocateRecords<Usage>(p.listLength);
            p.resultBuffer = breaks;
            p.resultBuffer2 = makes;
            if (breaks == nullptr || makes == nullptr) return 0;
            RecordHidP(s, backend.UsageListDifference(p.usages, p.usages2, breaks, makes,
                                                      p.listLength));
            return 1;
        }
        case 50:
            RecordHidD(s, backend.GetPreparsedData(p.deviceHandle, p.preparsedData));
            return 1;
        case 51:
            RecordHidD(s, backend.FreePreparsedData(p.preparsedData));
            return 1;
        default:
            return 0;  // 2, 3, 4, 45, 49: unassigned
    }
}

}  // namespace VideoConsoleCore::hid
