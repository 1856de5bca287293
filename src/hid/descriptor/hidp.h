// The HidP_ report routines of Windows, answered from a parsed report
// descriptor (report_descriptor.h).
//
// Each function mirrors the HidP_ routine of the same name: same argument
// order (the collection stands for the preparsed data), same NTSTATUS
// results (the status codes of hid/hid_types.h). Buffers are spans: their size is the length
// argument of the Windows routine.
//
// Common rules:
//  - a default-constructed (unparsed) collection gives
//    kHidpStatusInvalidPreparsedData, a report type other than
//    Input/Output/Feature kHidpStatusInvalidReportType;
//  - report buffers must be exactly the collection's report byte length for
//    the type (kHidpStatusInvalidReportLength otherwise); byte 0 is the
//    report ID, 0 for collections without report IDs;
//  - LinkCollection 0 means any link collection; usage page and usage must
//    match (a usage matches a range capability when it lies in the range);
//  - when the usage exists only in other reports than the one whose ID is in
//    byte 0, the result is kHidpStatusIncompatibleReportId, when it does
//    not exist at all kHidpStatusUsageNotFound;
//  - a value capability with ReportCount > 1 that is not a usage range is a
//    "usage value array": only the ...Array functions reach it
//    (kHidpStatusIsValueArray from the others), and they refuse
//    everything else (HIDP_STATUS_NOT_VALUE_ARRAY).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "hid/hid_types.h"
#include "hid/descriptor/report_descriptor.h"

namespace VideoConsoleCore::hid {

// Mirrors HIDP_CAPS.
struct Caps {
    uint16_t Usage = 0;
    uint16_t UsagePage = 0;
    uint16_t InputReportByteLength = 0;
    uint16_t OutputReportByteLength = 0;
    uint16_t FeatureReportByteLength = 0;
    uint16_t NumberLinkCollectionNodes = 0;
    uint16_t NumberInputButtonCaps = 0;
    uint16_t NumberInputValueCaps = 0;
    uint16_t NumberInputDataIndices = 0;
    uint16_t NumberOutputButtonCaps = 0;
    uint16_t NumberOutputValueCaps = 0;
    uint16_t NumberOutputDataIndices = 0;
    uint16_t NumberFeatureButtonCaps = 0;
    uint16_t NumberFeatureValueCaps = 0;
    uint16_t NumberFeatureDataIndices = 0;
};

NtStatus GetCaps(const TopLevelCollection& collection, Caps& caps);

// Copies the value (or button) capabilities of a report type that match the
// filters (0: any usage page / link collection / usage) into `buffer`, in
// Windows' order, and sets `count` to the number copied. No match gives
// kHidpStatusUsageNotFound; more matches than the buffer holds fill it and
// give kHidpStatusBufferTooSmall.
NtStatus GetSpecificValueCaps(ReportType type, uint16_t usagePage, uint16_t linkCollection,
                              uint16_t usage, std::span<ValueCaps> buffer, size_t& count,
                              const TopLevelCollection& collection);
NtStatus GetValueCaps(ReportType type, std::span<ValueCaps> buffer, size_t& count,
                      const TopLevelCollection& collection);
NtStatus GetSpecificButtonCaps(ReportType type, uint16_t usagePage, uint16_t linkCollection,
                               uint16_t usage, std::span<ButtonCaps> buffer, size_t& count,
                               const TopLevelCollection& collection);
NtStatus GetButtonCaps(ReportType type, std::span<ButtonCaps> buffer, size_t& count,
                       const TopLevelCollection& collection);

// Copies the link collection nodes; `count` becomes the number of nodes the
// collection has (kHidpStatusBufferTooSmall when the buffer holds fewer).
NtStatus GetLinkCollectionNodes(std::span<LinkCollectionNode> buffer, size_t& count,
                                const TopLevelCollection& collection);

// Convenience: all value (button) capabilities of a report type, in
// Windows' order.
std::vector<ValueCaps> ValueCapsOf(const TopLevelCollection& collection, ReportType type);
std::vector<ButtonCaps> ButtonCapsOf(const TopLevelCollection& collection, ReportType type);

// Zeroes `report`, puts `reportId` in byte 0 and sets every value field of
// that report that has a null state to its null value: 0 when 0 lies
// outside the logical range, else the all-ones field for a range that does
// not go below 0, else the most negative field value; a field whose range
// leaves none of these free stays 0. kHidpStatusReportDoesNotExist when
// the collection has no report of that type and ID.
NtStatus InitializeReportForID(ReportType type, uint8_t reportId,
                               const TopLevelCollection& collection, std::span<uint8_t> report);

// The value field's raw bits, not sign-extended nor scaled; setting keeps
// the low BitSize bits of `value`.
NtStatus SetUsageValue(ReportType type, uint16_t usagePage, uint16_t linkCollection,
                       uint16_t usage, uint32_t value, const TopLevelCollection& collection,
                       std::span<uint8_t> report);
NtStatus GetUsageValue(ReportType type, uint16_t usagePage, uint16_t linkCollection,
                       uint16_t usage, uint32_t& value, const TopLevelCollection& collection,
                       std::span<const uint8_t> report);

// A usage value array travels packed as in the report: element i occupies
// bits i*BitSize .. i*BitSize+BitSize-1 of `values`. The buffer must hold
// ceil(BitSize*ReportCount/8) bytes (kHidpStatusBufferTooSmall otherwise);
// bytes beyond that are neither read nor written.
NtStatus SetUsageValueArray(ReportType type, uint16_t usagePage, uint16_t linkCollection,
                            uint16_t usage, std::span<const uint8_t> values,
                            const TopLevelCollection& collection, std::span<uint8_t> report);
NtStatus GetUsageValueArray(ReportType type, uint16_t usagePage, uint16_t linkCollection,
                            uint16_t usage, std::span<uint8_t> values,
                            const TopLevelCollection& collection,
                            std::span<const uint8_t> report);

}  // namespace VideoConsoleCore::hid
