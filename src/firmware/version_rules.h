// The rules that decide whether a firmware file fits the selected device:
// its identity (USB vendor/product, or the microcontroller's device type and
// audio codec) and its version against the one the device runs, under the
// FW_Overwrite mode of setting.cfg. Pure functions of texts and numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace VideoConsoleCore::firmware {

// Where a flash image (*.hex, the bridge's SPI flash byte for byte) keeps
// what the checks read, and how long a file must be to hold it all.
inline constexpr uint32_t kImageVersionOffset = 0x4F0000;  // 16 ASCII characters
inline constexpr size_t kImageVersionLength = 16;
inline constexpr uint32_t kImageVidOffset = 0x520008;  // u16 little-endian
inline constexpr uint32_t kImagePidOffset = 0x52000A;  // u16 little-endian
inline constexpr size_t kUsbImageMinimumSize = 0x520010;

// A microcontroller program image (*.bin): three identity bytes.
inline constexpr uint32_t kMcuVersionOffset = 0x800;     // firmware version number
inline constexpr uint32_t kMcuDeviceTypeOffset = 0x801;  // device-type code
inline constexpr uint32_t kMcuCodecOffset = 0x808;       // audio-codec identity
inline constexpr size_t kMcuImageMinimumSize = 0x809;

// The version text of a flash image of `size` bytes: its 16 characters up
// to the first zero. Bytes past the end of a short file read as zero.
std::string UsbImageVersionText(const uint8_t* image, size_t size);
// The version text of a program image of `size` bytes, "tt.vv.cc" in
// lowercase hex: device type, version number, codec (zero past the end).
std::string McuImageVersionText(const uint8_t* image, size_t size);

// A version character's weight: 'A'..'F' (either case) 10..15, '0' up to
// and including ':' 0..10, anything else its own character code.
uint32_t VersionDigitValue(char c);

// The USB version rule. FW_Overwrite "1" or "2" passes, "0" compares, any
// other value (none included) fails. Comparing weighs the 16 characters of
// both texts position by position, skipping positions where either text has
// a '.'; a text shorter than 16 characters fails; an older file fails,
// an equal or newer one passes.
bool UsbVersionAccepted(const std::string& overwrite, const std::string& device,
                        const std::string& file);

enum class McuIdentity { Wrong = 0, Match = 1, CodecDiffers = 2 };

// The microcontroller identity rule: the file's device type (characters
// 0-1, hexadecimal) must be the board's model code (5..17) or that code
// + 128; then the file's codec characters 6-7 must equal the device text's,
// upper-cased, with "FF" counting as "00".
McuIdentity CheckMcuIdentity(const std::string& device, const std::string& file,
                             uint8_t modelCode);

// The microcontroller version rule: FW_Overwrite "1" passes, "0" or "2"
// compares the two-digit version numbers at characters 3-4, anything else
// fails. An older file fails.
bool McuVersionAccepted(const std::string& overwrite, const std::string& device,
                        const std::string& file);

}  // namespace VideoConsoleCore::firmware
