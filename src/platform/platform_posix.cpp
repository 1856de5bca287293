// Platform glue for Linux and other POSIX systems.
#include "platform/platform.h"
#include "platform/system_log.h"
#include "platform/wake_margin.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif
#include <sys/stat.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <new>
#include <sstream>
#include <thread>
#include <vector>

namespace VideoConsoleCore::platform {

void WriteDebuggerOutput(std::string_view utf8Text) {
    // KORVSDK_DEBUG_STDERR=1 is for a developer watching the process in a
    // terminal. Read at every message, so that it can be set at any time.
    // One fwrite keeps a message whole even when worker threads write at the
    // same time.
    const char* toStderr = std::getenv("KORVSDK_DEBUG_STDERR");
    if (toStderr != nullptr && std::strcmp(toStderr, "1") == 0) {
        std::fwrite(utf8Text.data(), 1, utf8Text.size(), stderr);
        std::fflush(stderr);
        return;
    }
    // Otherwise the system log, the quiet channel that Windows' debugger
    // output is. Never destroyed: the library still says goodbye from the
    // destructors that run when it is unloaded, after the static objects
    // made later than the core object are gone.
    static SystemLog& log = *new SystemLog(kSystemLogSocket);
    log.Write(utf8Text);
}

namespace {

int64_t MonotonicNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

}  // namespace

void SleepMilliseconds(uint32_t milliseconds) {
    // The kernel wakes a sleeper late: the thread's timer slack (50 us by
    // default; the library's own threads ask for none, see StartThread) plus
    // the scheduler's wake-up, a few tens of microseconds on bare metal and
    // often several hundred in a virtual machine. Over the thousands of 1 ms
    // and 10 ms waits of a firmware update that adds up to seconds, so the
    // wait sleeps to an absolute deadline short of the end by what this
    // thread's sleeps have lately woken late (wake_margin.h) and spins what
    // is left, if anything.
    thread_local WakeMargin margin;
    const int64_t deadline = MonotonicNanoseconds() + int64_t{milliseconds} * 1000000;
    if (milliseconds > 0) {
        const int64_t wakeAt = deadline - margin.Ns();
        const timespec wake{static_cast<time_t>(wakeAt / 1000000000),
                            static_cast<long>(wakeAt % 1000000000)};
        // A signal may cut the sleep short; the deadline stays where it is.
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &wake, nullptr) == EINTR) {
        }
        margin.Learn(MonotonicNanoseconds() - wakeAt);
    }
    while (MonotonicNanoseconds() < deadline) {
    }
}

LocalTime CurrentLocalTime() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    return LocalTime{parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                     parts.tm_hour,        parts.tm_min,     parts.tm_sec};
}

char PathSeparator() { return '/'; }

std::string DesktopFolder() {
    // The password database rather than $HOME: the library reads no
    // environment variables besides APPDATA, SPDLOG_LEVEL and
    // KORVSDK_DEBUG_STDERR.
    const passwd* entry = getpwuid(getuid());
    if (entry == nullptr || entry->pw_dir == nullptr || entry->pw_dir[0] == '\0') return "";
    return std::string(entry->pw_dir) + "/Desktop";
}

std::string EnvironmentVariable(const char* name) {
    const char* value = name == nullptr ? nullptr : std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

bool IsExistingFile(const std::string& path) {
    struct stat info {};
    return !path.empty() && stat(path.c_str(), &info) == 0 && !S_ISDIR(info.st_mode);
}

FileHandle OpenFileForReading(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    return fd < 0 ? kNoFile : fd;
}

std::FILE* CreatePartFile(const std::string& target, std::string& partPath) {
    partPath.clear();
    if (target.empty()) return nullptr;
    // mkostemp opens with O_CREAT | O_EXCL, mode 0600, and tries fresh random
    // names while one exists: a link at a name is never followed.
    std::string name = target + ".part-XXXXXX";
    const int fd = mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0) return nullptr;
    std::FILE* file = fdopen(fd, "wb");
    if (file == nullptr) {
        close(fd);
        unlink(name.c_str());
        return nullptr;
    }
    partPath = name;
    return file;
}

std::FILE* OpenOwnFileForAppending(const std::string& path, std::string& refusal) {
    refusal.clear();
    if (path.empty()) return nullptr;
    // O_NOFOLLOW: a link at the name fails the open. O_NONBLOCK: a FIFO
    // planted there would otherwise hold the open until someone reads it.
    const int fd = open(path.c_str(),
                        O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                        0600);
    if (fd < 0) {
        struct stat link {};
        if (errno == ELOOP && lstat(path.c_str(), &link) == 0 && S_ISLNK(link.st_mode))
            refusal = "it is a symbolic link";
        return nullptr;
    }
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        refusal = "it is not a plain file";
    } else if (info.st_uid != geteuid()) {
        refusal = "it belongs to another user";
    } else if (info.st_nlink != 1) {
        // Another name of a file elsewhere, which appending would change.
        refusal = "it is a hard link to another file";
    } else if (fcntl(fd, F_SETFL, O_APPEND) == 0) {  // blocking writes again
        if (std::FILE* file = fdopen(fd, "ab")) return file;
    }
    close(fd);
    return nullptr;
}

bool IsOwnFolderOrNoLink(const std::string& folder) {
    std::string name = folder;
    // "logs/" would name the folder the link leads to, not the link.
    while (name.size() > 1 && name.back() == '/') name.pop_back();
    struct stat link {};
    if (lstat(name.c_str(), &link) != 0 || !S_ISLNK(link.st_mode)) return true;
    struct stat target {};
    return link.st_uid == geteuid() && stat(name.c_str(), &target) == 0 &&
           S_ISDIR(target.st_mode) && target.st_uid == geteuid();
}

bool MoveIntoPlace(const std::string& from, const std::string& to) {
    return std::rename(from.c_str(), to.c_str()) == 0;
}

void RemoveFile(const std::string& path) { std::remove(path.c_str()); }

bool FileSize(FileHandle file, uint64_t& size) {
    struct stat info {};
    if (fstat(static_cast<int>(file), &info) != 0) return false;
    size = static_cast<uint64_t>(info.st_size);
    return true;
}

uint32_t ReadFromFile(FileHandle file, uint8_t* buffer, uint32_t length, uint32_t& error) {
    error = 0;
    uint32_t done = 0;
    while (done < length) {
        const ssize_t got = read(static_cast<int>(file), buffer + done, length - done);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            error = errno == ENOSPC ? kDiskFullError : static_cast<uint32_t>(errno);
            break;
        }
        if (got == 0) break;  // the file ended early (it shrank while we read)
        done += static_cast<uint32_t>(got);
    }
    return done;
}

void CloseFile(FileHandle file) {
    if (file != kNoFile) close(static_cast<int>(file));
}

std::string FirstFileWithExtension(const std::string& extension) {
    DIR* folder = opendir(".");
    if (folder == nullptr) return "";
    std::string found;
    while (const dirent* entry = readdir(folder)) {
        const std::string name = entry->d_name;
        if (name.size() <= extension.size() ||
            name.compare(name.size() - extension.size(), extension.size(), extension) != 0)
            continue;
        if (!IsExistingFile(name)) continue;
        char* here = getcwd(nullptr, 0);
        found = here != nullptr ? std::string(here) + "/" + name : name;
        std::free(here);
        break;
    }
    closedir(folder);
    return found;
}

std::string WideToUtf8(const wchar_t* text) {
    std::string out;
    if (text == nullptr) return out;
    // wchar_t holds UTF-32 here.
    for (; *text != L'\0'; ++text) {
        uint32_t c = static_cast<uint32_t>(*text);
        if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = 0xFFFD;
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

namespace {

namespace fs = std::filesystem;

// The first line of a sysfs attribute; "" when it cannot be read.
std::string Attribute(const fs::path& file) {
    std::ifstream in(file);
    std::string line;
    std::getline(in, line);
    return line;
}

// The USB devices with their ids, speed, product and the drivers bound to
// their interfaces.
void WriteUsbDevices(std::ostream& out) {
    out << "USB Devices\n-----------\n";
    std::error_code error;
    std::vector<fs::path> devices;
    for (const auto& entry : fs::directory_iterator("/sys/bus/usb/devices", error))
        if (fs::exists(entry.path() / "idVendor", error)) devices.push_back(entry.path());
    std::sort(devices.begin(), devices.end());
    for (const fs::path& device : devices) {
        const std::string name = device.filename().string();
        out << name << "  " << Attribute(device / "idVendor") << ':'
            << Attribute(device / "idProduct") << "  " << Attribute(device / "speed") << " Mb/s  "
            << Attribute(device / "manufacturer") << ' ' << Attribute(device / "product") << '\n';
        for (const auto& sub : fs::directory_iterator(device, error)) {
            const std::string interface = sub.path().filename().string();
            if (interface.rfind(name + ":", 0) != 0) continue;
            const fs::path driver = fs::read_symlink(sub.path() / "driver", error);
            out << "    " << interface << "  driver: "
                << (error ? std::string("(none)") : driver.filename().string()) << '\n';
        }
    }
    out << '\n';
}

// The hidraw nodes with their permissions and owners.
void WriteHidrawNodes(std::ostream& out) {
    out << "HID Raw Nodes\n-------------\n";
    std::error_code error;
    std::vector<std::string> nodes;
    for (const auto& entry : fs::directory_iterator("/sys/class/hidraw", error))
        nodes.push_back(entry.path().filename().string());
    std::sort(nodes.begin(), nodes.end());
    for (const std::string& node : nodes) {
        const std::string path = "/dev/" + node;
        struct stat info {};
        if (stat(path.c_str(), &info) != 0) {
            out << path << "  (missing)\n";
            continue;
        }
        char mode[16];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
        const fs::path device = fs::canonical("/sys/class/hidraw/" + node + "/device", error);
        out << path << "  mode " << mode << "  uid " << info.st_uid << "  gid " << info.st_gid
            << "  " << (error ? std::string() : device.filename().string()) << '\n';
    }
    out << '\n';
}

}  // namespace

bool StartSystemReport(const std::string& path) {
    if (path.empty()) return false;
    std::ostringstream out;
    utsname system {};
    out << "System Information\n------------------\n";
    if (uname(&system) == 0) {
        out << "Operating System: " << system.sysname << ' ' << system.release << '\n'
            << "Kernel Version: " << system.version << '\n'
            << "Machine: " << system.machine << '\n';
    }
    out << '\n';
    WriteUsbDevices(out);
    WriteHidrawNodes(out);
    out << "Sound Devices\n-------------\n";
    std::ifstream cards("/proc/asound/cards");
    if (cards) out << cards.rdbuf();
    // Written beside the target and renamed into place, so that whoever
    // waits for the report never reads half of it.
    const std::string text = out.str();
    std::string partial;
    std::FILE* file = CreatePartFile(path, partial);
    if (file == nullptr) return false;
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    if (std::fclose(file) == 0 && written && MoveIntoPlace(partial, path)) return true;
    RemoveFile(partial);
    return false;
}

struct Thread {
    std::thread thread;
    std::atomic<bool> released{false};  // the record is complete and stored
};

bool StartThread(Thread*& slot, ThreadEntry entry, void* argument) {
    slot = nullptr;
    auto* record = new (std::nothrow) Thread;
    if (record == nullptr) return false;
    try {
        record->thread = std::thread([record, entry, argument] {
            // The starter fills in the record and stores it first; it takes
            // a moment.
            while (!record->released.load(std::memory_order_acquire)) std::this_thread::yield();
#ifdef __linux__
            // No timer slack: the waits of this thread are the device's.
            prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
#endif
            // The record may be gone when the entry returns (released by a
            // teardown on this thread); it is not read again.
            entry(argument);
        });
    } catch (...) {
        delete record;
        return false;
    }
    slot = record;
    record->released.store(true, std::memory_order_release);
    return true;
}

void JoinThread(Thread* thread) {
    if (thread == nullptr) return;
    if (thread->thread.joinable()) {
        if (thread->thread.get_id() == std::this_thread::get_id()) {
            thread->thread.detach();  // it ends on its own, exit() or not
        } else {
            thread->thread.join();
        }
    }
    delete thread;
}

bool CurrentThreadExitCode(uint32_t& code) {
    // A POSIX thread has no exit code to ask for while it runs; it is, as
    // Windows would put it, still active.
    code = kThreadStillActive;
    return true;
}

}  // namespace VideoConsoleCore::platform
