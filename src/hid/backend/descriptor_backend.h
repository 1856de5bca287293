// A HidBackend whose HidP_ answers come from the device's raw report
// descriptor, parsed by the library itself: the base of every backend that
// has no hid.dll (Linux hidraw, the virtual device).
//
// Windows gives each top-level collection of an interface a device path of
// its own; backends built on this class do the same, and tell which
// collection a handle stands for.
#pragma once

#include <cstdint>
#include <vector>

#include "hid/backend/hid_backend.h"

namespace VideoConsoleCore::hid {

class DescriptorHidBackend : public HidBackend {
public:
    // ---- What a subclass provides -------------------------------------
    // The raw report descriptor of the interface behind `handle`, and the
    // index (0-based, in descriptor order) of the top-level collection that
    // the handle's path stands for. False when it cannot be read.
    virtual bool ReadReportDescriptor(HidHandle handle, std::vector<uint8_t>& descriptor,
                                      int& collectionIndex) = 0;

    // ---- Provided here -------------------------------------------------
    bool GetPreparsedData(HidHandle handle, PreparsedData& data) override;
    bool FreePreparsedData(PreparsedData data) override;
    bool ResolveRuntimeHidFunctions() override { return true; }
    void GetHidGuid(Guid& guid) override;

    NtStatus GetCaps(PreparsedData data, HidpCaps& caps) override;
    NtStatus GetButtonCaps(int32_t type, HidpButtonCaps* caps, uint16_t& length,
                           PreparsedData data) override;
    NtStatus GetSpecificButtonCaps(int32_t type, Usage page, uint16_t link, Usage usage,
                                   HidpButtonCaps* caps, uint16_t& length,
                                   PreparsedData data) override;
    NtStatus GetValueCaps(int32_t type, HidpValueCaps* caps, uint16_t& length,
                          PreparsedData data) override;
    NtStatus GetSpecificValueCaps(int32_t type, Usage page, uint16_t link, Usage usage,
                                  HidpValueCaps* caps, uint16_t& length,
                                  PreparsedData data) override;
    NtStatus GetLinkCollectionNodes(HidpLinkCollectionNode* nodes, uint32_t& length,
                                    PreparsedData data) override;
    NtStatus GetExtendedAttributes(int32_t type, uint16_t dataIndex, PreparsedData data,
                                   HidpExtendedAttributes* attributes,
                                   uint32_t& length) override;
    NtStatus InitializeReportForID(int32_t type, uint8_t reportId, PreparsedData data,
                                   void* report, uint32_t length) override;
    uint32_t MaxDataListLength(int32_t type, PreparsedData data) override;
    uint32_t MaxUsageListLength(int32_t type, Usage page, PreparsedData data) override;
    NtStatus GetData(int32_t type, HidpData* list, uint32_t& length, PreparsedData data,
                     void* report, uint32_t reportLength) override;
    NtStatus SetData(int32_t type, HidpData* list, uint32_t& length, PreparsedData data,
                     void* report, uint32_t reportLength) override;
    NtStatus GetUsages(int32_t type, Usage page, uint16_t link, Usage* list, uint32_t& length,
                       PreparsedData data, void* report, uint32_t reportLength) override;
    NtStatus GetUsagesEx(int32_t type, uint16_t link, UsageAndPage* list, uint32_t& length,
                         PreparsedData data, void* report, uint32_t reportLength) override;
    NtStatus SetUsages(int32_t type, Usage page, uint16_t link, Usage* list, uint32_t& length,
                       PreparsedData data, void* report, uint32_t reportLength) override;
    NtStatus UnsetUsages(int32_t type, Usage page, uint16_t link, Usage* list, uint32_t& length,
                         PreparsedData data, void* report, uint32_t reportLength) override;
    NtStatus UsageListDifference(const Usage* previous, const Usage* current, Usage* breaks,
                                 Usage* makes, uint32_t length) override;
    NtStatus GetUsageValue(int32_t type, Usage page, uint16_t link, Usage usage,
                           uint32_t& value, PreparsedData data, void* report,
                           uint32_t reportLength) override;
    NtStatus GetScaledUsageValue(int32_t type, Usage page, uint16_t link, Usage usage,
                                 int32_t& value, PreparsedData data, void* report,
                                 uint32_t reportLength) override;
    NtStatus SetUsageValue(int32_t type, Usage page, uint16_t link, Usage usage, uint32_t value,
                           PreparsedData data, void* report, uint32_t reportLength) override;
    NtStatus GetUsageValueArray(int32_t type, Usage page, uint16_t link, Usage usage,
                                void* values, uint16_t valuesLength, PreparsedData data,
                                void* report, uint32_t reportLength) override;
    NtStatus SetUsageValueArray(int32_t type, Usage page, uint16_t link, Usage usage,
                                void* values, uint16_t valuesLength, PreparsedData data,
                                void* report, uint32_t reportLength) override;
};

}  // namespace VideoConsoleCore::hid
