// Device lists as the scan hands them out: one malloc'd array of entries,
// each entry four malloc'd texts, and a 16-bit count.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "KORVSDKDeviceTool.h"

namespace VideoConsoleCore {

// One device found by a scan, before it becomes a DeviceEntry.
struct FoundDevice {
    std::string description;  // bus-reported description, may be empty
    std::string instance;     // the USB serial number
    std::string pid;          // as written in the instance ID
    std::string vid;
    std::string location;     // USB port path ("1-2.4"); "" when unknown
};

// The parts of a Windows-form instance ID "USB\VID_vvvv&PID_pppp\serial".
// A malformed ID (no "&" or backslash) yields shorter or empty parts.
FoundDevice SplitInstanceId(const std::string& instanceId);

// Reads the "VID_xxxx" and "PID_xxxx" of a DevDrvID<n> setting as numbers.
// False when either is missing.
bool ParseDeviceFilter(const std::string& value, uint32_t& vid, uint32_t& pid);

// A hexadecimal ID text read as "0x" + text, like the C library's strtoul
// with base 0; 0 when it holds no number.
uint32_t HexIdValue(const std::string& text);

// A fresh list of independent copies; null for an empty vector.
DeviceEntry* AllocateDeviceList(const std::vector<FoundDevice>& devices);

// Frees `count` entries and the array. Texts equal to the library's static
// empty text are not freed.
void FreeDeviceEntries(DeviceEntry* entries, uint16_t count);

}  // namespace VideoConsoleCore
