// Identification of the bridge chip's SPI flash: the bridge reports the
// part as an index into the shared chip table (hid/flash_chip_table.h).
#pragma once

namespace VideoConsoleCore {

class VideoConsoleCoreImp;

// Asks the bridge for its flash part, fills the core's flash-device record
// from the chip table, keeps the sector size and logs the geometry. False
// when no device is open or the reply could not be had.
bool ReadFlashIdentification(VideoConsoleCoreImp& core);

}  // namespace VideoConsoleCore
