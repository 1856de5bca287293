// Status codes of the report functions in hidp.h.
//
// They carry the NTSTATUS values Windows' HidP_ routines return, so that a
// backend that computes its answers from a raw report descriptor reports
// exactly what the Windows backend reads from hid.dll. Facility 0x11 is HID;
// success codes have severity 0, errors severity 3 (0xC...).
#pragma once

#include <cstdint>

namespace VideoConsoleCore::hid {

using NtStatus = uint32_t;

inline constexpr NtStatus HIDP_STATUS_SUCCESS = 0x00110000u;
inline constexpr NtStatus HIDP_STATUS_INVALID_PREPARSED_DATA = 0xC0110001u;
inline constexpr NtStatus HIDP_STATUS_INVALID_REPORT_TYPE = 0xC0110002u;
inline constexpr NtStatus HIDP_STATUS_INVALID_REPORT_LENGTH = 0xC0110003u;
inline constexpr NtStatus HIDP_STATUS_USAGE_NOT_FOUND = 0xC0110004u;
inline constexpr NtStatus HIDP_STATUS_BUFFER_TOO_SMALL = 0xC0110007u;
inline constexpr NtStatus HIDP_STATUS_INCOMPATIBLE_REPORT_ID = 0xC011000Au;
inline constexpr NtStatus HIDP_STATUS_NOT_VALUE_ARRAY = 0xC011000Bu;
inline constexpr NtStatus HIDP_STATUS_IS_VALUE_ARRAY = 0xC011000Cu;
inline constexpr NtStatus HIDP_STATUS_REPORT_DOES_NOT_EXIST = 0xC0110010u;

}  // namespace VideoConsoleCore::hid
