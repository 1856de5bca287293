// korvtool make-image usb|mcu FILE: images that the virtual device (or a
// test bench) takes, so that updates can be tried without hardware. The
// builders are the virtual device's own, which follow the published layouts
// of the flash image (*.hex) and the program image (*.bin).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "commands.h"

namespace korvtool {

struct UsbImageRequest {
    std::string file;
    std::string version = "01.00.02.00.0000";  // newer than the virtual device's
    uint16_t vid = 0xFFF0;
    uint16_t pid = 0x0C01;
    uint8_t modelCode = 13;
};

struct McuImageRequest {
    std::string file;
    unsigned version = 0x18;     // newer than the virtual microcontroller's 0x17
    unsigned deviceType = 0x0D;  // the virtual device's model 13
    unsigned codec = 0x00;       // board variant 0
    unsigned size = 0x2000;
};

// Writes `bytes` to FILE through a temporary name beside it, so that FILE is
// either whole or what it was before; a Failure says why it could not be.
void WriteInPlace(const std::string& file, const std::vector<uint8_t>& bytes);

// Write the image to a temporary name beside FILE and rename it into place;
// a Failure says why when that is not possible.
CommandResult MakeUsbImage(const UsbImageRequest& request);
CommandResult MakeMcuImage(const McuImageRequest& request);

}  // namespace korvtool
