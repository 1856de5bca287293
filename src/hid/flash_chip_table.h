// The SPI NOR flash parts that the bridge chip's firmware can identify.
// The bridge reports the part as an index into this table, which both sides
// share; the library looks the geometry up here. The JEDEC identification
// and the legacy signature byte are kept with each row for reference only.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

namespace VideoConsoleCore {

struct FlashGeometry {
    uint16_t pageSize;         // bytes
    uint16_t secondSize;       // bytes; the programming unit of the update
    uint32_t sectorSize;       // bytes; the erase unit
    uint16_t sectorsPerBlock;
    uint16_t totalBlocks;
    bool fourByteAddressing;   // parts above 16 MiB
};

struct FlashChipInfo {
    uint32_t jedecId;        // manufacturer ID in bits 0-15, device ID bytes above
    uint32_t signature;      // legacy electronic signature, 0xFF when none
    const char* name;
    int32_t index;           // the row's position
    int32_t reserved;
    // Rows without geometry leave the flash-device record as it was.
    std::optional<FlashGeometry> geometry;
};

inline constexpr int kFlashChipCount = 44;
// The part assumed when the bridge reports an index beyond the table.
inline constexpr int kDefaultFlashChip = 25;

extern const std::array<FlashChipInfo, kFlashChipCount> kFlashChips;

}  // namespace VideoConsoleCore
