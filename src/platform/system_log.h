// The system log (syslog) as the debugger channel on Linux: what
// OutputDebugStringW is on Windows, a place that costs nothing when nobody
// looks and that a developer can read (journalctl -t KORVSDKDeviceTool).
//
// The messages go to the log socket directly, formatted as syslog() would
// format them (facility user, level debug, the tag "KORVSDKDeviceTool" and
// the process ID). The library does not call openlog(): that would change
// the identity and facility of everything the application itself logs, and
// an openlog() of the application would rename the library's messages.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace VideoConsoleCore::platform {

inline constexpr const char* kSystemLogSocket = "/dev/log";
inline constexpr const char* kSystemLogTag = "KORVSDKDeviceTool";

class SystemLog {
public:
    explicit SystemLog(std::string socketPath) : socketPath_(std::move(socketPath)) {}
    ~SystemLog();
    SystemLog(const SystemLog&) = delete;
    SystemLog& operator=(const SystemLog&) = delete;

    // Sends one message, its trailing line feeds removed and otherwise
    // whole (line feeds inside it included), as one datagram. Never blocks:
    // without a log daemon, or when its queue is full, the message is
    // dropped. Safe to call from several threads.
    void Write(std::string_view text);

private:
    bool Connect();

    std::string socketPath_;
    std::mutex mutex_;
    int fd_ = -1;
};

}  // namespace VideoConsoleCore::platform
