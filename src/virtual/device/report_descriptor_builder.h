// The HID report descriptor of a virtual capture device: one vendor-defined
// top-level collection holding the output reports and then the input
// reports, each kind in the order data, command, IIC. The library binds the
// value capabilities of each report type to the report kinds by their
// position, so this order is what makes kind 0/1/2 = data/command/IIC.
#pragma once

#include <cstdint>
#include <vector>

#include "virtual/device/virtual_device_config.h"

namespace VideoConsoleCore::virtualdev {

inline constexpr uint16_t kVendorUsagePage = 0xFF00;
inline constexpr uint8_t kCollectionUsage = 0x01;
// Usages of the value fields: output kind k has 0x10 + k, input 0x20 + k.
inline constexpr uint8_t kOutputUsageBase = 0x10;
inline constexpr uint8_t kInputUsageBase = 0x20;

// The descriptor for `config`; config.faults.valueReports (1..3) reports of
// each direction, the first ones of the kind order.
std::vector<uint8_t> BuildReportDescriptor(const VirtualDeviceConfig& config);

}  // namespace VideoConsoleCore::virtualdev
