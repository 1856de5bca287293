// TEMPORARY stand-in for descriptor_backend.cpp, which is being written on
// main and is not on this branch yet. It only lets the Linux backend link:
// every HidP_ answer is "not implemented" and no preparsed data is made.
// Delete this file (and its line in CMakeLists.txt) once the real
// implementation is merged.
#include "hid/backend/descriptor_backend.h"

#include <cstring>

namespace VideoConsoleCore::hid {

bool DescriptorHidBackend::GetPreparsedData(HidHandle, PreparsedData&) {
    return false;
}

bool DescriptorHidBackend::FreePreparsedData(PreparsedData) {
    return false;
}

void DescriptorHidBackend::GetHidGuid(Guid& guid) {
    std::memset(&guid, 0, sizeof guid);
}

NtStatus DescriptorHidBackend::GetCaps(PreparsedData, HidpCaps&) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::GetButtonCaps(int32_t, HidpButtonCaps*, uint16_t&, PreparsedData) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::GetSpecificButtonCaps(int32_t, Usage, uint16_t, Usage, HidpButtonCaps*, uint16_t&, PreparsedData) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::GetValueCaps(int32_t, HidpValueCaps*, uint16_t&, PreparsedData) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::GetSpecificValueCaps(int32_t, Usage, uint16_t, Usage, HidpValueCaps*, uint16_t&, PreparsedData) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::GetLinkCollectionNodes(HidpLinkCollectionNode*, uint32_t&, PreparsedData) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::GetExtendedAttributes(int32_t, uint16_t, PreparsedData, HidpExtendedAttributes*, uint32_t&) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::InitializeReportForID(int32_t, uint8_t, PreparsedData, void*, uint32_t) {
    return kHidpStatusNotImplemented;
}

uint32_t DescriptorHidBackend::MaxDataListLength(int32_t, PreparsedData) {
    return 0;
}

uint32_t DescriptorHidBackend::MaxUsageListLength(int32_t, Usage, PreparsedData) {
    return 0;
}

NtStatus DescriptorHidBackend::GetData(int32_t, HidpData*, uint32_t&, PreparsedData, void*, uint32_t) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::SetData(int32_t, HidpData*, uint32_t&, PreparsedData, void*, uint32_t) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::GetUsages(int32_t, Usage, uint16_t, Usage*, uint32_t&, PreparsedData, void*, uint32_t) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::GetUsagesEx(int32_t, uint16_t, UsageAndPage*, uint32_t&, PreparsedData, void*, uint32_t) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::SetUsages(int32_t, Usage, uint16_t, Usage*, uint32_t&, PreparsedData, void*, uint32_t) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::UnsetUsages(int32_t, Usage, uint16_t, Usage*, uint32_t&, PreparsedData, void*, uint32_t) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::UsageListDifference(const Usage*, const Usage*, Usage*, Usage*, uint32_t) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::GetUsageValue(int32_t, Usage, uint16_t, Usage, uint32_t&, PreparsedData, void*, uint32_t) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::GetScaledUsageValue(int32_t, Usage, uint16_t, Usage, int32_t&, PreparsedData, void*, uint32_t) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::SetUsageValue(int32_t, Usage, uint16_t, Usage, uint32_t, PreparsedData, void*, uint32_t) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::GetUsageValueArray(int32_t, Usage, uint16_t, Usage, void*, uint16_t, PreparsedData, void*, uint32_t) {
    return kHidpStatusNotImplemented;
}

NtStatus DescriptorHidBackend::SetUsageValueArray(int32_t, Usage, uint16_t, Usage, void*, uint16_t, PreparsedData, void*, uint32_t) {
    return kHidpStatusNotImplemented;
}

}  // namespace VideoConsoleCore::hid
