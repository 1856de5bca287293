// Platform glue for Linux and other POSIX systems.
#include "platform/platform.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

namespace VideoConsoleCore::platform {

void WriteDebuggerOutput(std::string_view utf8Text) {
    // There is no debugger channel here: standard error is where a developer
    // watching the process looks. One fwrite keeps a message whole even when
    // worker threads write at the same time.
    std::fwrite(utf8Text.data(), 1, utf8Text.size(), stderr);
    std::fflush(stderr);
}

void SleepMilliseconds(uint32_t milliseconds) {
    timespec remaining{static_cast<time_t>(milliseconds / 1000),
                       static_cast<long>(milliseconds % 1000) * 1000000L};
    // A signal may cut the sleep short; carry on with what is left.
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
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
    // environment variables besides APPDATA and SPDLOG_LEVEL.
    const passwd* entry = getpwuid(getuid());
    if (entry == nullptr || entry->pw_dir == nullptr || entry->pw_dir[0] == '\0') return "";
    return std::string(entry->pw_dir) + "/Desktop";
}

}  // namespace VideoConsoleCore::platform
