#include "virtual/device/report_descriptor_builder.h"

#include <algorithm>

namespace VideoConsoleCore::virtualdev {

namespace {

// One 8-bit value field array: report ID, usage, 0..255, count bytes.
void AddValueReport(std::vector<uint8_t>& d, const ReportShape& shape, uint8_t usage,
                    uint8_t mainItem) {
    const uint8_t item[] = {
        0x85, shape.id,                  // Report ID
        0x09, usage,                     // Usage
        0x15, 0x00,                      // Logical Minimum 0
        0x26, 0xFF, 0x00,                // Logical Maximum 255
        0x75, 0x08,                      // Report Size 8
        0x96, static_cast<uint8_t>(shape.count & 0xFF),
        static_cast<uint8_t>(shape.count >> 8),  // Report Count (16-bit)
        mainItem, 0x02,                  // Output / Input (Data, Variable, Absolute)
    };
    d.insert(d.end(), std::begin(item), std::end(item));
}

}  // namespace

std::vector<uint8_t> BuildReportDescriptor(const VirtualDeviceConfig& config) {
    std::vector<uint8_t> d = {
        0x06, static_cast<uint8_t>(kVendorUsagePage & 0xFF),
        static_cast<uint8_t>(kVendorUsagePage >> 8),  // Usage Page (vendor)
        0x09, kCollectionUsage,                       // Usage
        0xA1, 0x01,                                   // Collection (Application)
    };
    const int reports = std::clamp(config.faults.valueReports, 1, 3);
    for (int kind = 0; kind < reports; ++kind) {
        AddValueReport(d, config.output[static_cast<size_t>(kind)],
                       static_cast<uint8_t>(kOutputUsageBase + kind), 0x91);
    }
    for (int kind = 0; kind < reports; ++kind) {
        AddValueReport(d, config.input[static_cast<size_t>(kind)],
                       static_cast<uint8_t>(kInputUsageBase + kind), 0x81);
    }
    d.push_back(0xC0);  // End Collection
    return d;
}

}  // namespace VideoConsoleCore::virtualdev
