// Reading and writing bit fields of a HID report.
//
// HID packs fields little-endian at bit granularity: bit n of a report is
// bit (n % 8) of byte (n / 8), and a field's least significant bit comes
// first. A field may start anywhere and span several bytes.
#pragma once

#include <cstdint>
#include <span>

namespace VideoConsoleCore::hid::detail {

// The `bitCount` (1..32) bits at `bitPosition`. The caller makes sure the
// field lies inside `bytes`.
uint32_t ReadBits(std::span<const uint8_t> bytes, uint32_t bitPosition, uint32_t bitCount);

// Stores the low `bitCount` (1..32) bits of `value` at `bitPosition`,
// leaving all other bits as they were.
void WriteBits(std::span<uint8_t> bytes, uint32_t bitPosition, uint32_t bitCount, uint32_t value);

}  // namespace VideoConsoleCore::hid::detail
