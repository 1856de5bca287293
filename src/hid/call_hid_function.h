// The numbered HID function layer. Every exchange with the device goes
// through CallHidFunction: one operation number, one parameter record, one
// status record, and exactly one call on the HID backend.
//
//   No.     call                                    uses / fills
//   1       HidD_GetHidGuid                         result: 16-byte GUID
//   5       HidD_FlushQueue                         handle
//   6       HidD_GetAttributes                      result: HiddAttributes
//   7, 8    HidD_SetFeature / HidD_GetFeature        data, dataLength
//   9, 10   HidD_GetInputReport / SetOutputReport   data, dataLength
//   11, 12  HidD_Get/SetNumInputBuffers             listLength
//   13-18   HidD_ descriptor and string getters     result: kHidStringBufferBytes
//                                                   bytes (16: stringIndex)
//   19, 20  ReadFile / WriteFile                    data, dataLength; listLength = bytes done
//   21, 29  HidP_Get(Specific)ButtonCaps            result: listLength records
//   22/31   HidP_MaxUsageListLength + GetUsages     result: Usage list, listLength
//   23/32   HidP_MaxUsageListLength + GetUsagesEx   result: UsageAndPage list, listLength
//   24      HidP_GetCaps                            result: HidpCaps
//   25      HidP_MaxDataListLength + GetData        result: HidpData list, listLength
//   26      HidP_GetExtendedAttributes              usage = data index; result: listLength bytes
//   27      HidP_GetLinkCollectionNodes             result: listLength nodes
//   28      HidP_GetScaledUsageValue                value (as int32)
//   30, 35  HidP_Get(Specific)ValueCaps             result: listLength records
//   33      HidP_GetUsageValue                      value
//   34      GetSpecificValueCaps + GetUsageValueArray   result: the packed bytes, listLength
//   36      HidP_InitializeReportForID              reportId, data, dataLength
//   37, 38  HidP_MaxDataListLength / MaxUsageListLength   listLength
//   39/42   HidP_SetUsages                          usages, listLength
//   40      HidP_SetData                            dataList, listLength
//   41/43   HidP_SetUsageValue                      value
//   44      GetSpecificValueCaps + pack + SetUsageValueArray   values, valueCount;
//                                                   result: the packed bytes
//   46/47   HidP_UnsetUsages                        usages, listLength
//   48      HidP_UsageListDifference                usages, usages2, listLength;
//                                                   result (breaks), result2 (makes)
//   50, 51  HidD_Get/FreePreparsedData              preparsedData
//
// The pairs 22/31, 23/32, 39/42, 41/43 and 46/47 run the same call. Numbers
// 2, 3, 4, 45 and 49 are unassigned.
#pragma once

#include <cstdint>

#include "hid/hid_types.h"

namespace VideoConsoleCore::hid {

class HidBackend;

// Size of the buffer that the descriptor and string getters allocate: the
// longest string a USB device can hold (126 UTF-16 units) fits many times.
inline constexpr uint32_t kHidStringBufferBytes = 512;

struct HidCallParameters {
    HidHandle deviceHandle = kInvalidHidHandle;
    int32_t reportType = kInputReport;
    PreparsedData preparsedData = nullptr;
    Usage usagePage = 0;
    uint16_t linkCollection = 0;
    Usage usage = 0;
    uint8_t reportId = 0;
    void* dataBuffer = nullptr;
    uint32_t dataLength = 0;
    void* resultBuffer = nullptr;  // malloc'd by the layer, freed by the caller
    uint32_t listLength = 0;       // in/out element count

    // Beyond the common fields:
    uint32_t value = 0;                  // operations 28, 33, 41/43
    uint32_t stringIndex = 0;            // operation 16
    const uint32_t* values = nullptr;    // operation 44: values to pack
    uint32_t valueCount = 0;             // operation 44
    Usage* usages = nullptr;             // operations 39/42, 46/47, 48 (previous)
    const Usage* usages2 = nullptr;      // operation 48 (current)
    HidpData* dataList = nullptr;        // operation 40
    void* resultBuffer2 = nullptr;       // operation 48 (makes)
};

struct HidCallStatus {
    uint32_t failed = 0;       // 0 = success, 1 = failure
    NtStatus hidpStatus = 0;   // the HidP_ status, HIDP_STATUS_SUCCESS on success
};

// Runs one operation on `backend`. Returns non-zero when the operation ran
// (for allocating operations: when the allocation succeeded); 0 for an
// operation number outside 1..51, an unassigned one, a null record, or a
// failed allocation. The status's first word is cleared before anything
// else.
int CallHidFunction(HidBackend& backend, uint32_t operation, HidCallParameters* parameters,
                    HidCallStatus* status);

// Packs `count` values of `bitSize` bits each (at most `reportCount` of
// them), least significant bits first, into consecutive bit positions of a
// zeroed malloc'd buffer of ceil(bitSize * reportCount / 8) bytes. Returns
// the buffer (caller frees) and its size, or null when it cannot be had.
uint8_t* PackUsageValues(const uint32_t* values, uint32_t count, uint16_t bitSize,
                         uint16_t reportCount, uint32_t* packedSize);

}  // namespace VideoConsoleCore::hid
