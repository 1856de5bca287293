// Flash images of the bridge chip (*.hex): a raw byte image of the SPI
// flash, file offset = flash address. The device leaves the factory with
// exactly such an image in its flash (VirtualFlash::WriteFactoryImage), and
// an updater writes one back at the same addresses.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace VideoConsoleCore::virtualdev {

// Where things sit in the flash image.
namespace flash_layout {
inline constexpr uint32_t kConfigBlock = 0x70000;      // boot configuration, first word
inline constexpr uint32_t kConfigBlockSize = 0x1000;
inline constexpr uint32_t kFirmwareStart = 0x180000;
inline constexpr uint32_t kFirmwareLength = 0x370000;
inline constexpr uint32_t kHeaderLengthAt = 0x18000C;  // big-endian u32
inline constexpr uint32_t kBootSizeAt = 0x180010;      // big-endian u32
inline constexpr uint32_t kPrivateStart = 0x4F0000;    // image version text, 16 bytes
inline constexpr uint32_t kPrivateLength = 0x10000;
inline constexpr uint32_t kCustomizedStart = 0x500000;
inline constexpr uint32_t kCustomizedLength = 0x300000;
inline constexpr uint32_t kVidAt = kCustomizedStart + 0x20000 + 8;   // u16 little-endian
inline constexpr uint32_t kPidAt = kCustomizedStart + 0x20000 + 10;  // u16 little-endian
inline constexpr uint32_t kSlot3At = kCustomizedStart + 0x20000 + 3 * 128;  // string descriptor
inline constexpr uint32_t kInfoBlockOffset = 0x20000 + 384;  // from the info base
// Configuration word values.
inline constexpr uint32_t kLoadOriginal = 0;
inline constexpr uint32_t kLoadUpdated = 1;
}  // namespace flash_layout

struct UsbImageOptions {
    // Image length in bytes; what lies past it is left out. The default
    // ends with the Customized area, the last area an updater writes.
    uint32_t size = 0x800000;
    // Boot configuration word at 0x70000.
    uint32_t configWord = flash_layout::kLoadUpdated;
    // Firmware header (big-endian at 0x18000C / 0x180010). The boot code
    // refuses 0, 0xFFFFFFFF and a sum beyond the firmware area.
    uint32_t headerLength = 0x100;
    uint32_t bootSize = 0x10000;
    // Up to 16 ASCII characters, normally "xx.xx.xx.xx.bbbb" (version and
    // build; the boot code runs the version of the first eleven): the
    // Private area's version text, the text at the info base and, in
    // UTF-16LE, the one in the identification block.
    std::string versionText = "01.00.01.09.0000";
    uint16_t vid = 0xFFF0;
    uint16_t pid = 0x0C01;
    // Identification block at infoBase + 0x20000 + 384: model code (chip
    // type) and flash-type byte before the version text. The info base is
    // the library's firmware-area base, the Private area.
    uint32_t infoBase = flash_layout::kPrivateStart;
    uint8_t modelCode = 13;
    uint8_t flashType = 0;
    // USB string descriptor slot 3 (0x520180): up to 16 characters as a
    // 34-byte string descriptor; empty leaves the slot erased. Should the
    // identification block fall on the same bytes (an info base of
    // 0x500000), the block is written last and wins.
    std::string slot3Text;

    bool operator==(const UsbImageOptions&) const = default;
};

// The image: erased (0xFF) but for the fields above and a firmware body
// (header length + boot size bytes from 0x180000, a pattern that depends on
// the version text, so two images' firmware differs).
std::vector<uint8_t> BuildUsbImage(const UsbImageOptions& options);

// Writes `bytes` to `path`; false when the file cannot be written.
bool WriteUsbImageFile(const std::string& path, const std::vector<uint8_t>& bytes);

}  // namespace VideoConsoleCore::virtualdev
