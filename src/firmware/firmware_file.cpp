#include "firmware/firmware_file.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "core/VideoConsoleCoreImp.h"
#include "platform/platform.h"

namespace VideoConsoleCore {

uint8_t* g_FileString = nullptr;
uint32_t g_dwRead = 0;

namespace firmware {

namespace {
size_t g_capacity = 0;  // bytes allocated behind g_FileString

void FreeBuffer() {
    std::free(g_FileString);
    g_FileString = nullptr;
    g_capacity = 0;
}

constexpr const char* kDiskFullWarning =
    "There is not enough space on the disk: free some space on the drive that holds the "
    "firmware file and the logs, then try again.";
}

void CloseFirmwareFileKeepingBuffer(VideoConsoleCoreImp& core) {
    platform::CloseFile(core.m_openFile);
    core.m_openFile = platform::kNoFile;
}

void CloseFirmwareFile(VideoConsoleCoreImp& core) {
    CloseFirmwareFileKeepingBuffer(core);
    FreeBuffer();
}

FirmwareImage& FirmwareImage::operator=(FirmwareImage&& other) noexcept {
    if (this != &other) {
        Release();
        bytes_ = std::exchange(other.bytes_, nullptr);
        size_ = std::exchange(other.size_, 0);
        file_ = std::exchange(other.file_, platform::kNoFile);
    }
    return *this;
}

void FirmwareImage::Release() {
    platform::CloseFile(file_);
    file_ = platform::kNoFile;
    std::free(bytes_);
    bytes_ = nullptr;
    size_ = 0;
}

FirmwareImage TakeFirmwareFile(VideoConsoleCoreImp& core) {
    FirmwareImage image;
    image.bytes_ = std::exchange(g_FileString, nullptr);
    image.size_ = std::exchange(g_dwRead, 0);
    image.file_ = std::exchange(core.m_openFile, platform::kNoFile);
    g_capacity = 0;
    return image;
}

bool ReadFirmwareFile(VideoConsoleCoreImp& core, const std::string& path) {
    CloseFirmwareFileKeepingBuffer(core);
    g_dwRead = 0;
    core.m_openFile = platform::OpenFileForReading(path);
    if (core.m_openFile == platform::kNoFile) return false;

    uint64_t size = 0;
    platform::FileSize(core.m_openFile, size);
    char line[96];
    std::snprintf(line, sizeof line, "FileSize %s = [%d] [%d]\n", "READ",
                  static_cast<int>(size >> 32), static_cast<int>(static_cast<uint32_t>(size)));
    core.DebugOut(line);

    // Only the low 32 bits of the size count: a file of 4 GiB and more is
    // read as far as they say.
    const uint32_t length = static_cast<uint32_t>(size);
    const size_t needed = static_cast<size_t>(length) + 1;
    // The buffer of the last read is taken again when it is large enough:
    // the start of an update re-reads the file the setter checked, and
    // reading into pages already in memory is several times faster than
    // into fresh ones (8 MiB: about 1 ms against 5).
    if (g_FileString == nullptr || g_capacity < needed) {
        FreeBuffer();
        g_FileString = static_cast<uint8_t*>(std::malloc(needed));
        if (g_FileString == nullptr) {
            core.Report("Error allocating memory!\n");
            return false;
        }
        g_capacity = needed;
    }
    uint32_t error = 0;
    const uint32_t read = platform::ReadFromFile(core.m_openFile, g_FileString, length, error);
    // Whatever the file did not fill reads as zeros.
    const size_t filled = error != 0 ? 0 : std::min<size_t>(read, length);
    std::memset(g_FileString + filled, 0, g_capacity - filled);
    if (error != 0) {
        if (error == platform::kDiskFullError) core.LogInfo(kDiskFullWarning);
        return true;  // opened, nothing counted as read
    }
    g_dwRead = read;
    return true;
}

}  // namespace firmware
}  // namespace VideoConsoleCore
