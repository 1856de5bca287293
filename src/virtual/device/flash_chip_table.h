// The SPI NOR parts that the bridge firmware can identify, indexed by the
// number it reports to the host (0..43). The virtual flash takes its size
// from here, and the library's flash identification can share the same rows.
//
// The JEDEC and signature bytes travel with the rows for completeness; the
// bridge reports the index itself, so nothing compares them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace VideoConsoleCore::virtualdev {

struct FlashChipRow {
    uint16_t manufacturerId;
    uint16_t deviceId;  // first device byte high, second low
    uint8_t signature;  // legacy electronic signature, 0xFF when the part has none
    const char* name;
    uint16_t pageSize;
    uint16_t secondSize;
    uint32_t sectorSize;
    uint16_t sectorsPerBlock;
    uint16_t totalBlocks;
    bool fourByteAddressing;
    bool hasGeometry;  // row 1 is known by its IDs only

    uint64_t TotalBytes() const {
        return uint64_t{sectorSize} * sectorsPerBlock * totalBlocks;
    }
};

inline constexpr std::array<FlashChipRow, 44> kFlashChipTable{{
    {0x0037, 0x3016, 0x15, "AMIC__A25L032", 256, 256, 65536, 1, 64, false, true},
    {0x0037, 0x4016, 0x15, "AMIC__A25Q032", 0, 0, 0, 0, 0, false, false},
    {0x001F, 0x4600, 0xFF, "ATMEL_AT26DF161", 256, 256, 65536, 1, 32, false, true},
    {0x001F, 0x4700, 0xFF, "ATMEL__AT26D321", 256, 256, 65536, 1, 64, false, true},
    {0x0068, 0x4017, 0x16, "BY_25Q64AS", 256, 256, 65536, 1, 128, false, true},
    {0x0068, 0x4018, 0x17, "BY_25Q128AS", 256, 256, 65536, 1, 256, false, true},
    {0x001C, 0x2016, 0x15, "EON__EN25P32", 256, 256, 65536, 1, 64, false, true},
    {0x001C, 0x2015, 0x34, "EON__EN25B16", 256, 256, 65536, 1, 32, false, true},
    {0x001C, 0x2016, 0x35, "EON__EN25B32", 256, 256, 65536, 1, 64, false, true},
    {0x001C, 0x2017, 0x36, "EON__EN25B64", 256, 256, 65536, 1, 128, false, true},
    {0x001C, 0x3115, 0x14, "EON__EN25F16", 256, 256, 65536, 1, 32, false, true},
    {0x001C, 0x3116, 0x15, "EON__EN25F32", 256, 256, 65536, 1, 64, false, true},
    {0x001C, 0x3015, 0x14, "EON_EN25Q16", 256, 256, 65536, 1, 32, false, true},
    {0x001C, 0x3016, 0x15, "EON_EN25Q32A", 256, 256, 65536, 1, 64, false, true},
    {0x001C, 0x3114, 0x13, "EON_EN25F80", 256, 256, 65536, 1, 16, false, true},
    {0x001C, 0x3014, 0x13, "EON_EN25Q80A", 256, 256, 65536, 1, 16, false, true},
    {0x001C, 0x3017, 0x16, "EON_EN25Q64", 256, 256, 65536, 1, 128, false, true},
    {0x001C, 0x7016, 0x15, "EON_EN25QH32", 256, 256, 65536, 1, 64, false, true},
    {0x004A, 0x3215, 0x14, "ES__ES25M16A", 256, 256, 65536, 1, 32, false, true},
    {0x008C, 0x2015, 0x14, "ESMT_F25L16PA", 256, 256, 65536, 1, 32, false, true},
    {0x008C, 0x4116, 0x15, "ESMT_F25L32Q", 256, 256, 65536, 1, 64, false, true},
    {0x00C2, 0x2015, 0x14, "MX__25L1605A", 256, 256, 65536, 1, 32, false, true},
    {0x00C2, 0x2016, 0x15, "MX__25L3205D", 256, 256, 65536, 1, 64, false, true},
    {0x00C2, 0x5E16, 0x5E, "MX__25L3235D", 256, 256, 65536, 1, 64, false, true},
    {0x00C2, 0x2415, 0x24, "MX__25L1635D", 256, 256, 65536, 1, 32, false, true},
    {0x00C2, 0x2017, 0x16, "MX_25L6445E", 256, 256, 65536, 1, 128, false, true},
    {0x00C2, 0x2018, 0x17, "MX_25L12835F", 256, 256, 65536, 1, 256, false, true},
    {0x00C2, 0x2019, 0x18, "MX_25L25735F", 256, 256, 65536, 1, 512, true, true},
    {0x00C2, 0x201A, 0x19, "MX_25L51245G", 256, 256, 65536, 1, 1024, true, true},
    {0x00C8, 0x4017, 0x16, "GD_GD25Q64B", 256, 256, 65536, 1, 128, false, true},
    {0x00C8, 0x4016, 0x15, "GD_GD25Q32", 256, 256, 65536, 1, 64, false, true},
    {0x00C8, 0x4015, 0x14, "GD_GD25Q16", 256, 256, 65536, 1, 32, false, true},
    {0x00C8, 0x4018, 0x17, "GD_GD25Q128C", 256, 16, 4096, 16, 256, false, true},
    {0x00C8, 0x4020, 0x19, "GD_GD25Q512MC", 256, 16, 4096, 16, 1024, true, true},
    {0x0020, 0x2012, 0xFF, "NUMON_M25P20", 256, 256, 65536, 1, 4, false, true},
    {0x0020, 0x2016, 0xFF, "NUMON_M25P32", 256, 256, 65536, 1, 64, false, true},
    {0x0001, 0x0214, 0xFF, "SPAN_S25FL016A", 256, 256, 65536, 1, 32, false, true},
    {0x0001, 0x0215, 0xFF, "SPAN_S25FL032A", 256, 256, 65536, 1, 64, false, true},
    {0x00BF, 0x2541, 0x41, "SST_25VF016B", 512, 128, 65536, 1, 32, false, true},
    {0x00EF, 0x3015, 0x14, "WIN__W25X16A", 256, 256, 65536, 1, 32, false, true},
    {0x00EF, 0x3016, 0x15, "WIN_W25X32V", 256, 256, 65536, 1, 64, false, true},
    {0x00EF, 0x4016, 0x15, "WIN_W25Q32BV", 256, 256, 65536, 1, 64, false, true},
    {0x00EF, 0x4017, 0x16, "WIN__W25Q64BV", 256, 256, 65536, 1, 128, false, true},
    {0x005E, 0x4018, 0x17, "ZB_25VQ128", 256, 256, 65536, 1, 256, false, true},
}};

inline constexpr int kFlashChipCount = static_cast<int>(kFlashChipTable.size());

// The part a virtual device carries unless told otherwise: a 16 MiB chip,
// room for every flash area with space to spare.
inline constexpr int kDefaultFlashIndex = 26;

// Geometry used when the reported index has no row, or a row without
// geometry: that of the default part. The device still reports the index it
// was configured with; only its own storage needs a size.
inline const FlashChipRow& FlashGeometryFor(int index) {
    if (index >= 0 && index < kFlashChipCount &&
        kFlashChipTable[static_cast<std::size_t>(index)].hasGeometry) {
        return kFlashChipTable[static_cast<std::size_t>(index)];
    }
    return kFlashChipTable[kDefaultFlashIndex];
}

}  // namespace VideoConsoleCore::virtualdev
