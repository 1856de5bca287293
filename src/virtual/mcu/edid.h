// EDID blocks for the transmit port of the virtual HDMI splitter.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace VideoConsoleCore::virtualdev {

// Checksum byte that makes the 128 bytes of `block` sum to 0 modulo 256
// (the last byte of the block is not counted).
uint8_t EdidChecksum(const uint8_t* block);

// True when the 128 bytes start with the fixed header 00 FF FF FF FF FF FF 00
// and sum to 0 modulo 256.
bool EdidBlockValid(const uint8_t* block);

// The base block of the monitor the virtual board reports behind its
// transmit port: EDID 1.3, maker "KRV", product 0x6663, a 1920x1080 60 Hz
// preferred timing, range limits, the name "VIRTUAL CAP", no extension.
std::vector<uint8_t> BuildDefaultEdid();

}  // namespace VideoConsoleCore::virtualdev
