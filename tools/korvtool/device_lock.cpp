#include "device_lock.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>
#endif

namespace korvtool {

namespace {

// The key reduced to characters every file system and object namespace takes.
std::string SafeName(const std::string& key) {
    std::string name = "korvtool-";
    for (const char c : key) {
        const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                           (c >= '0' && c <= '9') || c == '-' || c == '.';
        name += plain ? c : '_';
    }
    return name;
}

}  // namespace

#ifdef _WIN32

DeviceLock::DeviceLock(const std::string& key) {
    name_ = "Local\\" + SafeName(key);
    mutex_ = CreateMutexA(nullptr, TRUE, name_.c_str());
    if (mutex_ == nullptr) {
        problem_ = "CreateMutex failed with error " + std::to_string(GetLastError());
        return;
    }
    // An existing mutex: some other process (or object) made it first.
    held_ = GetLastError() != ERROR_ALREADY_EXISTS;
    if (!held_) {
        CloseHandle(mutex_);
        mutex_ = nullptr;
    }
}

DeviceLock::~DeviceLock() {
    if (mutex_ == nullptr) return;
    ReleaseMutex(mutex_);
    CloseHandle(mutex_);
}

#else

DeviceLock::DeviceLock(const std::string& key) {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    std::error_code error;
    const std::filesystem::path folder = runtime != nullptr && *runtime != '\0'
                                             ? std::filesystem::path(runtime)
                                             : std::filesystem::temp_directory_path(error);
    name_ = (folder / (SafeName(key) + ".lock")).string();
    fd_ = open(name_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd_ < 0) {
        problem_ = name_ + ": " + std::strerror(errno);
        return;
    }
    if (flock(fd_, LOCK_EX | LOCK_NB) == 0) {
        held_ = true;
        return;
    }
    if (errno != EWOULDBLOCK) problem_ = name_ + ": " + std::strerror(errno);
    close(fd_);
    fd_ = -1;
}

DeviceLock::~DeviceLock() {
    // The file stays: removing it would race with a process that opened it
    // and is about to lock it.
    if (fd_ >= 0) close(fd_);
}

#endif

}  // namespace korvtool
