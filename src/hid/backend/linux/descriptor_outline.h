// The two facts the hidraw backend needs from a report descriptor before the
// descriptor is parsed for real (which DescriptorHidBackend does): how many
// top-level collections it has, and whether its reports carry report IDs.
// A walk over the items, nothing more.
#pragma once

#include <cstddef>
#include <cstdint>

namespace VideoConsoleCore::hid {

struct DescriptorOutline {
    int topLevelCollections = 0;
    bool numberedReports = false;  // a Report ID item is present
};

inline DescriptorOutline OutlineReportDescriptor(const uint8_t* data, size_t size) {
    DescriptorOutline outline;
    int depth = 0;
    size_t at = 0;
    while (at < size) {
        const uint8_t prefix = data[at];
        if (prefix == 0xFE) {  // long item: size byte, tag byte, data
            if (at + 1 >= size) break;
            at += 3 + data[at + 1];
            continue;
        }
        const size_t dataSize = (prefix & 0x03) == 3 ? 4 : (prefix & 0x03);
        switch (prefix & 0xFC) {
            case 0xA0:  // Collection
                if (depth++ == 0) ++outline.topLevelCollections;
                break;
            case 0xC0:  // End Collection
                if (depth > 0) --depth;
                break;
            case 0x84:  // Report ID
                outline.numberedReports = true;
                break;
            default:
                break;
        }
        at += 1 + dataSize;
    }
    return outline;
}

}  // namespace VideoConsoleCore::hid
