// The firmware file last read, kept whole in memory for the checks and the
// updaters: one process-wide buffer of the file's size + 1 bytes, zeroed
// before reading, and the number of bytes read into it.
//
// Only one of the firmware operations uses it at a time: the setters are
// refused while an update runs, and an update is the only user while it
// runs.
#pragma once

#include <cstdint>
#include <string>

namespace VideoConsoleCore {

class VideoConsoleCoreImp;

extern uint8_t* g_FileString;
extern uint32_t g_dwRead;

namespace firmware {

// Closes any open file and frees g_FileString, then opens `path` and reads
// all of it (the low 32 bits of its size) into a fresh g_FileString.
// False when the file cannot be opened or its buffer cannot be had; a read
// that fails part-way leaves g_dwRead at 0 (a full disk is logged).
bool ReadFirmwareFile(VideoConsoleCoreImp& core, const std::string& path);

// Closes the open file and frees g_FileString.
void CloseFirmwareFile(VideoConsoleCoreImp& core);

}  // namespace firmware
}  // namespace VideoConsoleCore
