// The firmware file last read, kept whole in memory for the checks and the
// updaters: one process-wide buffer of at least the file's size + 1 bytes,
// zero wherever the file did not fill it, and the number of bytes read
// into it.
//
// An update does not share it: when the update starts, the file it has just
// read again moves out of g_FileString into the update's own image
// (TakeFirmwareFile), and g_FileString is empty again. Whatever reads files
// while the update runs (the class face's start-up scan, say) reads into a
// fresh buffer and can neither free nor overwrite the bytes being written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

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

// A firmware file that belongs to one job alone: its bytes (zero beyond
// `size` up to the allocation's end, as in g_FileString) and the file, open
// for reading, which the job holds until it ends. Freed and closed when the
// image goes or is released.
class FirmwareImage {
public:
    FirmwareImage() = default;
    ~FirmwareImage() { Release(); }
    FirmwareImage(FirmwareImage&& other) noexcept { *this = std::move(other); }
    FirmwareImage& operator=(FirmwareImage&& other) noexcept;
    FirmwareImage(const FirmwareImage&) = delete;
    FirmwareImage& operator=(const FirmwareImage&) = delete;

    uint8_t* Bytes() const { return bytes_; }
    uint32_t Size() const { return size_; }
    // Closes the file and frees the bytes.
    void Release();

private:
    friend FirmwareImage TakeFirmwareFile(VideoConsoleCoreImp& core);
    uint8_t* bytes_ = nullptr;
    uint32_t size_ = 0;
    intptr_t file_ = -1;
};

// Moves the file last read (g_FileString, g_dwRead and the open file) into
// an image of its own; g_FileString is empty and no file is open afterwards.
FirmwareImage TakeFirmwareFile(VideoConsoleCoreImp& core);

}  // namespace firmware
}  // namespace VideoConsoleCore
