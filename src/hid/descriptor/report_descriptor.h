// A HID report descriptor turned into what Windows' HID class driver builds
// from it: one "preparsed data" per top-level collection.
//
// Windows gives every top-level collection of a device its own HID interface
// (the "&colNN" in the device path) and answers the HidP_ routines from data
// it prepares per collection. Backends that have no hid.dll (hidraw, virtual
// devices) read the raw descriptor instead; ParseReportDescriptor computes
// the same capabilities, in the same order, so that the report functions in
// hidp.h answer as HidP_ would.
//
// How Windows lays a collection out, in short:
//  - every report of a type (Input/Output/Feature) starts with one byte for
//    the report ID, also when the device uses no report IDs (the byte is then
//    0); a collection's report byte length is that of its longest report of
//    the type, 0 when it has none;
//  - each Input/Output/Feature main item gives one capability per usage (or
//    usage range) it declares, and the capabilities of one main item are
//    listed last-declared first; main items follow in descriptor order, all
//    report IDs of the type mixed;
//  - a variable main item hands one field to each declared usage (a range
//    takes as many fields as it has usages) and all fields left over to the
//    last one, so that one capability can cover several fields
//    (ReportCount > 1);
//  - array main items and 1-bit variable fields are buttons, everything
//    else is a value;
//  - constant fields without a usage, or with usage 0, are padding and no
//    capability; a constant field with a real usage is one;
//  - link collections are numbered in the order their Collection items
//    appear, 0 being the top-level collection itself.
//
// Field names of the records below follow Windows' HIDP_CAPS,
// HIDP_VALUE_CAPS, HIDP_BUTTON_CAPS and HIDP_LINK_COLLECTION_NODE, so that a
// Windows backend can fill them one to one.
//
// Descriptor handling decisions (a descriptor that breaks one of these rules
// is refused with an error text naming the offset):
//  - at most 65535 bytes (the length field of the HID descriptor is 16 bits);
//  - long items (prefix 0xFE) carry no meaning for any defined item and are
//    skipped after checking that their data lies inside the descriptor;
//  - reserved item types and tags, a truncated item, End Collection without
//    Collection, a missing End Collection, an unbalanced Push/Pop (at most
//    kMaxPushDepth pushes), collections nested deeper than
//    kMaxCollectionDepth, a main item outside any collection, report ID 0 or
//    above 255, a usage without a usage page, a usage minimum without
//    maximum (or the other way round), a range whose minimum exceeds its
//    maximum or whose ends lie on different pages, an unbalanced delimiter,
//    a data field wider than 32 bits and a report longer than 65535 bytes
//    are errors;
//  - a 1- or 2-byte usage takes the usage page in effect when the usage item
//    is read; a 4-byte usage carries its own page;
//  - in a delimited set of usages only the first is used (Windows would add
//    alias capabilities for the others; they are not modelled);
//  - Report Count 0 or Report Size 0 gives a main item no field and no
//    capability.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace VideoConsoleCore::hid {

// Same numbering as Windows' HIDP_REPORT_TYPE.
enum class ReportType : uint8_t { Input = 0, Output = 1, Feature = 2 };

inline constexpr size_t kMaxDescriptorBytes = 65535;
inline constexpr size_t kMaxPushDepth = 32;
inline constexpr size_t kMaxCollectionDepth = 64;
// Longest report, report ID byte included (Windows keeps the length in 16
// bits).
inline constexpr uint32_t kMaxReportBytes = 65535;
inline constexpr uint32_t kMaxValueBits = 32;

// One capability: a run of fields of one main item that share a usage or a
// usage range. Used for buttons (ButtonCaps) and values (ValueCaps).
struct ControlCaps {
    uint16_t UsagePage = 0;
    uint8_t ReportID = 0;
    bool IsAlias = false;
    uint16_t BitField = 0;  // the main item's data bits (Constant, Variable, ...)
    uint16_t LinkCollection = 0;
    uint16_t LinkUsage = 0;
    uint16_t LinkUsagePage = 0;
    bool IsRange = false;
    bool IsStringRange = false;
    bool IsDesignatorRange = false;
    bool IsAbsolute = true;
    bool HasNull = false;  // values only
    uint16_t BitSize = 0;
    uint16_t ReportCount = 0;
    uint32_t UnitsExp = 0;
    uint32_t Units = 0;
    int32_t LogicalMin = 0;
    int32_t LogicalMax = 0;
    int32_t PhysicalMin = 0;
    int32_t PhysicalMax = 0;
    // Without IsRange the Min and Max members hold the same single value
    // (HIDP_..._CAPS' NotRange.Usage is UsageMin).
    uint16_t UsageMin = 0;
    uint16_t UsageMax = 0;
    uint16_t StringMin = 0;
    uint16_t StringMax = 0;
    uint16_t DesignatorMin = 0;
    uint16_t DesignatorMax = 0;
    uint16_t DataIndexMin = 0;
    uint16_t DataIndexMax = 0;

    // Not part of Windows' records:
    bool IsButton = false;
    // An array item with several usages gives one capability per usage, all
    // over the same fields; all but the first declared are marked.
    bool IsMultipleItemsForArray = false;
    // Bit position of the first field in the report, counted from the start
    // of the report buffer, whose byte 0 is the report ID.
    uint32_t BitPosition = 0;

    uint16_t Usage() const { return UsageMin; }
};

using ValueCaps = ControlCaps;
using ButtonCaps = ControlCaps;

struct LinkCollectionNode {
    uint16_t LinkUsage = 0;
    uint16_t LinkUsagePage = 0;
    uint16_t Parent = 0;
    uint16_t NumberOfChildren = 0;
    uint16_t NextSibling = 0;  // 0: none; the list runs from the last child to the first
    uint16_t FirstChild = 0;   // 0: none; the child whose Collection item came last
    uint8_t CollectionType = 0;
    bool IsAlias = false;
};

// Everything about one report type of a collection.
struct ReportTypeLayout {
    // Longest report of the type, report ID byte included; 0: none.
    uint16_t byteLength = 0;
    // Buttons and values in Windows' order.
    std::vector<ControlCaps> caps;
    // The report IDs that have fields of this type (0 when the collection
    // uses no report IDs), ascending.
    std::vector<uint8_t> reportIds;
    uint16_t dataIndexCount = 0;
};

// The "preparsed data" of one top-level collection.
struct TopLevelCollection {
    uint16_t usagePage = 0;
    uint16_t usage = 0;
    std::array<ReportTypeLayout, 3> reports;
    std::vector<LinkCollectionNode> linkCollections;
    // Set by the parser; a default-constructed collection is refused by
    // the report functions with HIDP_STATUS_INVALID_PREPARSED_DATA.
    bool valid = false;

    const ReportTypeLayout& Layout(ReportType type) const {
        return reports[static_cast<size_t>(type)];
    }
};

struct ParsedDescriptor {
    // In descriptor order; empty when parsing failed.
    std::vector<TopLevelCollection> collections;
    // Empty on success, else one line such as "truncated item at offset 12".
    std::string error;

    bool Ok() const { return error.empty(); }
};

ParsedDescriptor ParseReportDescriptor(std::span<const uint8_t> descriptor);

// The first top-level collection with this usage page and usage, or nullptr.
const TopLevelCollection* FindTopLevelCollection(const ParsedDescriptor& parsed,
                                                 uint16_t usagePage, uint16_t usage);

}  // namespace VideoConsoleCore::hid
