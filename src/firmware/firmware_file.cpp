#include "firmware/firmware_file.h"

#include <cstdio>
#include <cstdlib>

#include "core/VideoConsoleCoreImp.h"
#include "platform/platform.h"

namespace VideoConsoleCore {

uint8_t* g_FileString = nullptr;
uint32_t g_dwRead = 0;

namespace firmware {

namespace {
constexpr const char* kDiskFullWarning =
    "There is not enough space on the disk: free some space on the drive that holds the "
    "firmware file and the logs, then try again.";
}

void CloseFirmwareFile(VideoConsoleCoreImp& core) {
    platform::CloseFile(core.m_openFile);
    core.m_openFile = platform::kNoFile;
    std::free(g_FileString);
    g_FileString = nullptr;
}

bool ReadFirmwareFile(VideoConsoleCoreImp& core, const std::string& path) {
    CloseFirmwareFile(core);
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
    g_FileString = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(length) + 1, 1));
    if (g_FileString == nullptr) {
        core.Report("Error allocating memory!\n");
        return false;
    }
    uint32_t error = 0;
    const uint32_t read = platform::ReadFromFile(core.m_openFile, g_FileString, length, error);
    if (error != 0) {
        if (error == platform::kDiskFullError) core.LogInfo(kDiskFullWarning);
        return true;  // opened, nothing counted as read
    }
    g_dwRead = read;
    return true;
}

}  // namespace firmware
}  // namespace VideoConsoleCore
