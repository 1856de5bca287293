#include "platform/system_log.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace VideoConsoleCore::platform {

namespace {

// Facility user (1 << 3), level debug (7), as LOG_USER | LOG_DEBUG.
constexpr int kPriority = 15;

// "<15>Mmm dd hh:mm:ss TAG[pid]: ": the header syslog() writes. The month
// names are English whatever the locale, as log readers expect them.
std::string Header() {
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const time_t now = time(nullptr);
    tm parts{};
    localtime_r(&now, &parts);
    char header[96];
    std::snprintf(header, sizeof header, "<%d>%s %2d %02d:%02d:%02d %s[%ld]: ", kPriority,
                  kMonths[parts.tm_mon % 12], parts.tm_mday, parts.tm_hour, parts.tm_min,
                  parts.tm_sec, kSystemLogTag, static_cast<long>(getpid()));
    return header;
}

}  // namespace

SystemLog::~SystemLog() {
    if (fd_ >= 0) ::close(fd_);
}

bool SystemLog::Connect() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath_.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, socketPath_.c_str(), socketPath_.size() + 1);
    fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return false;
    if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd_);
        fd_ = -1;
        return false;
    }
    return true;
}

void SystemLog::Write(std::string_view text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
    if (text.empty()) return;
    std::string message = Header();
    message.append(text);

    std::lock_guard lock(mutex_);
    // A second try for a daemon that was restarted since the last message:
    // the old connection then refuses, a new one reaches the new daemon.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (fd_ < 0 && !Connect()) return;  // no log daemon: the message is dropped
        if (::send(fd_, message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) return;
        if (errno != ECONNREFUSED && errno != ENOTCONN && errno != EPIPE) return;  // full: dropped
        ::close(fd_);
        fd_ = -1;
    }
}

}  // namespace VideoConsoleCore::platform
