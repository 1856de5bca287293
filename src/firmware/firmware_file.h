// The firmware file last read, kept whole in memory for the checks and the
// updaters: one process-wide buffer of at least the file's size + 1 bytes,
// zero wherever the file did not fill it, and the number of bytes read
// into it.
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

// Closes any open file, then opens `path` and reads all of it (the low 32
// bits of its size) into g_FileString, which is reused when large enough.
// False when the file cannot be opened or its buffer cannot be had; a read
// that fails part-way leaves g_dwRead at 0 (a full disk is logged).
bool ReadFirmwareFile(VideoConsoleCoreImp& core, const std::string& path);

// Closes the open file and frees g_FileString.
void CloseFirmwareFile(VideoConsoleCoreImp& core);

// Closes the open file; g_FileString stays for the next read (a file that
// was set is read again when its update starts).
void CloseFirmwareFileKeepingBuffer(VideoConsoleCoreImp& core);

}  // namespace firmware
}  // namespace VideoConsoleCore
