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
#include <sys/stat.h>
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
        // Another user's object of that name in this session, or one that
        // is no mutex, is no lock of ours.
        problem_ = name_ + ": CreateMutex failed with error " + std::to_string(GetLastError());
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

namespace {

// The folder of the user's locks: in $XDG_RUNTIME_DIR when that is a folder
// of this user's (sudo and su may hand on another user's), else in the
// temporary folder, which everybody shares.
std::string LockFolder(uid_t uid) {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    struct stat info {};
    std::filesystem::path base;
    if (runtime != nullptr && *runtime == '/' && stat(runtime, &info) == 0 &&
        S_ISDIR(info.st_mode) && info.st_uid == uid) {
        base = runtime;
    } else {
        std::error_code error;
        base = std::filesystem::temp_directory_path(error);
        if (error) base = "/tmp";
    }
    return (base / ("korvtool-lock-" + std::to_string(uid))).string();
}

std::string OwnerProblem(const struct stat& info, uid_t uid) {
    return "it belongs to user " + std::to_string(info.st_uid) + ", not to this user (" +
           std::to_string(uid) + ")";
}

}  // namespace

DeviceLock::DeviceLock(const std::string& key) {
    const uid_t uid = geteuid();
    const std::string folder = LockFolder(uid);
    name_ = folder + "/" + SafeName(key) + ".lock";
    // The folder: made private, or checked when it is there. The checks
    // that count are made on what was opened, not on the name.
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        problem_ = folder + ": the folder cannot be made: " + std::strerror(errno);
        return;
    }
    struct stat info {};
    if (lstat(folder.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
        problem_ = folder + ": the folder is a symbolic link";
        return;
    }
    const int dir = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (dir < 0) {
        problem_ = folder + ": " + (errno == ENOTDIR || errno == ELOOP
                                        ? std::string("not a folder")
                                        : std::string(std::strerror(errno)));
        return;
    }
    if (fstat(dir, &info) != 0) {
        problem_ = folder + ": " + std::strerror(errno);
    } else if (info.st_uid != uid) {
        problem_ = folder + ": " + OwnerProblem(info, uid);
    } else if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        problem_ = folder + ": other users may write in the folder";
    } else {
        fd_ = openat(dir, (SafeName(key) + ".lock").c_str(),
                     O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd_ < 0) {
            problem_ = name_ + ": " + (errno == ELOOP ? std::string("the file is a symbolic link")
                                                      : std::string(std::strerror(errno)));
        } else if (fstat(fd_, &info) != 0) {
            problem_ = name_ + ": " + std::strerror(errno);
        } else if (!S_ISREG(info.st_mode)) {
            problem_ = name_ + ": not a regular file";
        } else if (info.st_uid != uid) {
            problem_ = name_ + ": " + OwnerProblem(info, uid);
        }
    }
    close(dir);
    if (!problem_.empty()) {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
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
