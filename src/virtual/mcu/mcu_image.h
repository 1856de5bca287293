// Program images of the board microcontroller (*.bin): what the bootloader
// writes from address 0x1000 and what the application reports as its
// identity.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace VideoConsoleCore::virtualdev {

// Offsets in the image of the identity bytes the application reports in its
// registers 0xA0..0xA5 (0xA0 device type, 0xA1 firmware version, 0xA2 the
// codec / board variant, 0xA3..0xA5 configuration bytes).
inline constexpr size_t kImageVersionOffset = 0x800;     // firmware version number
inline constexpr size_t kImageDeviceTypeOffset = 0x801;  // device-type code
inline constexpr size_t kImageCodecOffset = 0x808;       // codec byte = board variant
inline constexpr size_t kImageConfigOffset = 0x809;      // three configuration bytes
inline constexpr size_t kImageMaxSize = 0x1C000;         // program memory 0x1000..0x1CFFF

// Where program memory starts in the microcontroller's address space, and
// the size of one flash page.
inline constexpr uint32_t kProgramBase = 0x1000;
inline constexpr uint32_t kProgramPageSize = 128;

// Initial stack pointer and reset vector the builder puts at the start of an
// image (the Cortex-M0 vector table); the bootloader starts an application
// only when these look sane.
inline constexpr uint32_t kImageStackTop = 0x20001000;

struct McuImageOptions {
    size_t size = 0x2000;          // bytes; any size, fields past the end are left out
    uint8_t deviceType = 0x0D;     // 0x801
    uint8_t version = 0x17;        // 0x800
    uint8_t codec = 0x00;          // 0x808
    std::array<uint8_t, 3> config{0x01, 0x00, 0x00};  // 0x809..0x80B
    bool validVectors = true;      // false: a vector table the bootloader refuses
};

// Builds the image: vector table (stack top, reset handler in program
// memory), identity bytes, the rest a deterministic byte pattern.
std::vector<uint8_t> BuildMcuImage(const McuImageOptions& options);

// Writes `bytes` to `path`; false when the file cannot be written.
bool WriteMcuImageFile(const std::string& path, const std::vector<uint8_t>& bytes);

// True when the first eight bytes of program memory (`image`, placed at
// 0x1000) hold a stack pointer in RAM and a Thumb reset address inside
// program memory: the check the bootloader makes before starting it.
bool McuImageStartable(const uint8_t* image, size_t size);

}  // namespace VideoConsoleCore::virtualdev
