// Finding the HID interface of the device a scan listed.
//
// The scan sees USB devices; the reports travel on one of their HID
// interfaces. The search goes through the present HID interfaces in the
// platform's order and takes the first whose vendor ID, product ID and
// serial number are the selected device's, on the selected device's port
// when the scan knew it and the backend can tell an interface's port.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/VideoConsoleCoreImp.h"

namespace VideoConsoleCore {

inline constexpr uint32_t kNoHidInterface = 65535;

struct HidSearchResult {
    uint32_t index = kNoHidInterface;  // position in the enumeration
    VideoConsoleCoreImp::HidDeviceRecord record;
    hid::PreparsedData preparsedData = nullptr;
    std::vector<hid::HidpValueCaps> outputValueCaps;
    std::vector<hid::HidpValueCaps> inputValueCaps;
    // Without a match: the backend's advice on the first interface of the
    // selected IDs that could not be opened (see OpenFailureAdvice), or "".
    std::string openFailureAdvice;
};

// Runs the search for the core's selected IDs and instance text. False when
// the interfaces could not be enumerated. On a match the result owns the
// open handle and the preparsed data; the interfaces that did not match are
// closed again. Without a match the index stays kNoHidInterface.
bool SearchHidInterface(VideoConsoleCoreImp& core, HidSearchResult& result);

// The narrow form of a zero-terminated UTF-16 text: the low byte of each
// unit, as the serial number is compared with the scan's instance text.
std::string NarrowLowBytes(const uint16_t* text, size_t maxUnits);

}  // namespace VideoConsoleCore
