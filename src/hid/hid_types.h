// The records of the HID class interface, laid out exactly as Windows'
// hidsdi.h / hidpi.h lay them out, so that the Windows backend hands them
// straight to hid.dll and every other backend fills the same shapes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace VideoConsoleCore::hid {

using NtStatus = uint32_t;
using Usage = uint16_t;

// An open HID interface. Opaque: each backend decides what it points at
// (a Windows HANDLE, a hidraw descriptor record, a virtual device session).
using HidHandle = void*;
inline HidHandle const kInvalidHidHandle = reinterpret_cast<HidHandle>(static_cast<intptr_t>(-1));

// A device's parsed report descriptor, as HidD_GetPreparsedData gives it.
// Opaque: only the backend that made it can read it.
using PreparsedData = void*;

// Report types, numbered as HIDP_REPORT_TYPE.
enum HidpReportType : int32_t { kInputReport = 0, kOutputReport = 1, kFeatureReport = 2 };

// HIDP_STATUS_* codes.
inline constexpr NtStatus kHidpStatusSuccess = 0x00110000;
inline constexpr NtStatus kHidpStatusNull = 0x80110001;
inline constexpr NtStatus kHidpStatusInvalidPreparsedData = 0xC0110001;
inline constexpr NtStatus kHidpStatusInvalidReportType = 0xC0110002;
inline constexpr NtStatus kHidpStatusInvalidReportLength = 0xC0110003;
inline constexpr NtStatus kHidpStatusUsageNotFound = 0xC0110004;
inline constexpr NtStatus kHidpStatusValueOutOfRange = 0xC0110005;
inline constexpr NtStatus kHidpStatusBadLogPhyValues = 0xC0110006;
inline constexpr NtStatus kHidpStatusBufferTooSmall = 0xC0110007;
inline constexpr NtStatus kHidpStatusInternalError = 0xC0110008;
inline constexpr NtStatus kHidpStatusI8042TransUnknown = 0xC0110009;
inline constexpr NtStatus kHidpStatusIncompatibleReportId = 0xC011000A;
inline constexpr NtStatus kHidpStatusNotValueArray = 0xC011000B;
inline constexpr NtStatus kHidpStatusIsValueArray = 0xC011000C;
inline constexpr NtStatus kHidpStatusDataIndexNotFound = 0xC011000D;
inline constexpr NtStatus kHidpStatusDataIndexOutOfRange = 0xC011000E;
inline constexpr NtStatus kHidpStatusButtonNotPressed = 0xC011000F;
inline constexpr NtStatus kHidpStatusReportDoesNotExist = 0xC0110010;
inline constexpr NtStatus kHidpStatusNotImplemented = 0xC0110020;

// hid.dll's records are packed to 4 bytes.
#pragma pack(push, 4)

struct Guid {
    uint32_t data1;
    uint16_t data2;
    uint16_t data3;
    uint8_t data4[8];
};

struct HiddAttributes {  // HIDD_ATTRIBUTES
    uint32_t Size;
    uint16_t VendorID;
    uint16_t ProductID;
    uint16_t VersionNumber;
};

struct HidpCaps {  // HIDP_CAPS
    Usage Usage_;
    Usage UsagePage;
    uint16_t InputReportByteLength;
    uint16_t OutputReportByteLength;
    uint16_t FeatureReportByteLength;
    uint16_t Reserved[17];
    uint16_t NumberLinkCollectionNodes;
    uint16_t NumberInputButtonCaps;
    uint16_t NumberInputValueCaps;
    uint16_t NumberInputDataIndices;
    uint16_t NumberOutputButtonCaps;
    uint16_t NumberOutputValueCaps;
    uint16_t NumberOutputDataIndices;
    uint16_t NumberFeatureButtonCaps;
    uint16_t NumberFeatureValueCaps;
    uint16_t NumberFeatureDataIndices;
};

// The usage part shared by button and value capabilities.
struct HidpCapsRange {
    Usage UsageMin, UsageMax;
    uint16_t StringMin, StringMax;
    uint16_t DesignatorMin, DesignatorMax;
    uint16_t DataIndexMin, DataIndexMax;
};
struct HidpCapsNotRange {
    Usage Usage_, Reserved1;
    uint16_t StringIndex, Reserved2;
    uint16_t DesignatorIndex, Reserved3;
    uint16_t DataIndex, Reserved4;
};

struct HidpButtonCaps {  // HIDP_BUTTON_CAPS
    Usage UsagePage;
    uint8_t ReportID;
    uint8_t IsAlias;
    uint16_t BitField;
    uint16_t LinkCollection;
    Usage LinkUsage;
    Usage LinkUsagePage;
    uint8_t IsRange;
    uint8_t IsStringRange;
    uint8_t IsDesignatorRange;
    uint8_t IsAbsolute;
    uint32_t Reserved[10];
    union {
        HidpCapsRange Range;
        HidpCapsNotRange NotRange;
    };
};

struct HidpValueCaps {  // HIDP_VALUE_CAPS
    Usage UsagePage;
    uint8_t ReportID;
    uint8_t IsAlias;
    uint16_t BitField;
    uint16_t LinkCollection;
    Usage LinkUsage;
    Usage LinkUsagePage;
    uint8_t IsRange;
    uint8_t IsStringRange;
    uint8_t IsDesignatorRange;
    uint8_t IsAbsolute;
    uint8_t HasNull;
    uint8_t Reserved;
    uint16_t BitSize;
    uint16_t ReportCount;
    uint16_t Reserved2[5];
    uint32_t UnitsExp;
    uint32_t Units;
    int32_t LogicalMin, LogicalMax;
    int32_t PhysicalMin, PhysicalMax;
    union {
        HidpCapsRange Range;
        HidpCapsNotRange NotRange;
    };
};

struct HidpLinkCollectionNode {  // HIDP_LINK_COLLECTION_NODE
    Usage LinkUsage;
    Usage LinkUsagePage;
    uint16_t Parent;
    uint16_t NumberOfChildren;
    uint16_t NextSibling;
    uint16_t FirstChild;
    uint32_t CollectionType : 8;
    uint32_t IsAlias : 1;
    uint32_t Reserved : 23;
    void* UserContext;
};

struct HidpData {  // HIDP_DATA
    uint16_t DataIndex;
    uint16_t Reserved;
    union {
        uint32_t RawValue;
        uint8_t On;
    };
};

struct UsageAndPage {  // USAGE_AND_PAGE
    Usage Usage_;
    Usage UsagePage;
};

struct HidpExtendedAttributes {  // HIDP_EXTENDED_ATTRIBUTES (header part)
    uint8_t NumGlobalUnknowns;
    uint8_t Reserved[3];
    void* GlobalUnknowns;
    uint32_t Data[1];
};

#pragma pack(pop)

static_assert(sizeof(HiddAttributes) == 12);
static_assert(sizeof(HidpCaps) == 64);
static_assert(sizeof(HidpButtonCaps) == 72);
static_assert(sizeof(HidpValueCaps) == 72);
static_assert(sizeof(HidpLinkCollectionNode) == 24);
static_assert(sizeof(HidpData) == 8);
static_assert(sizeof(HidpExtendedAttributes) == 16);

}  // namespace VideoConsoleCore::hid
