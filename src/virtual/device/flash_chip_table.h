// The flash part a virtual device carries, from the chip table that the
// bridge firmware and the library share (hid/flash_chip_table.h).
#pragma once

#include <cstdint>

#include "hid/flash_chip_table.h"

namespace VideoConsoleCore::virtualdev {

// The part a virtual device carries unless told otherwise: a 16 MiB chip,
// room for every flash area with space to spare.
inline constexpr int kDefaultFlashIndex = 26;

// Geometry used when the reported index has no row, or a row without
// geometry: that of the default part. The device still reports the index it
// was configured with; only its own storage needs a size.
inline const FlashGeometry& FlashGeometryFor(int index) {
    if (index >= 0 && index < kFlashChipCount && kFlashChips[static_cast<size_t>(index)].geometry)
        return *kFlashChips[static_cast<size_t>(index)].geometry;
    return *kFlashChips[kDefaultFlashIndex].geometry;
}

inline uint64_t TotalBytes(const FlashGeometry& geometry) {
    return uint64_t{geometry.sectorSize} * geometry.sectorsPerBlock * geometry.totalBlocks;
}

}  // namespace VideoConsoleCore::virtualdev
