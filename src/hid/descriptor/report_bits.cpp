#include "hid/descriptor/report_bits.h"

namespace VideoConsoleCore::hid::detail {

uint32_t ReadBits(std::span<const uint8_t> bytes, uint32_t bitPosition, uint32_t bitCount) {
    uint32_t value = 0;
    uint32_t done = 0;
    while (done < bitCount) {
        const uint32_t bit = bitPosition + done;
        const uint32_t shift = bit % 8;
        const uint32_t take = (8 - shift) < (bitCount - done) ? (8 - shift) : (bitCount - done);
        const uint32_t chunk = (static_cast<uint32_t>(bytes[bit / 8]) >> shift) & ((1u << take) - 1);
        value |= chunk << done;
        done += take;
    }
    return value;
}

void WriteBits(std::span<uint8_t> bytes, uint32_t bitPosition, uint32_t bitCount, uint32_t value) {
    uint32_t done = 0;
    while (done < bitCount) {
        const uint32_t bit = bitPosition + done;
        const uint32_t shift = bit % 8;
        const uint32_t take = (8 - shift) < (bitCount - done) ? (8 - shift) : (bitCount - done);
        const uint32_t mask = ((1u << take) - 1) << shift;
        const uint32_t chunk = ((value >> done) << shift) & mask;
        uint8_t& byte = bytes[bit / 8];
        byte = static_cast<uint8_t>((byte & ~mask) | chunk);
        done += take;
    }
}

}  // namespace VideoConsoleCore::hid::detail
