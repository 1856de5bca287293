// The debugger channel on Linux: messages reach a syslog socket as syslog()
// would write them, one datagram each, and never hold the caller up.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>

#include "platform/system_log.h"
#include "support/test_support.h"

namespace {

using VideoConsoleCore::platform::SystemLog;

// A log daemon's socket at `path`: a bound datagram socket.
class LogReceiver {
public:
    explicit LogReceiver(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_DGRAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        ::unlink(path.c_str());
        EXPECT_EQ(::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        timeval wait{1, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    }
    ~LogReceiver() { ::close(fd_); }
    LogReceiver(const LogReceiver&) = delete;
    LogReceiver& operator=(const LogReceiver&) = delete;

    // The next datagram; "" when none came within a second.
    std::string Next() {
        char buffer[4096];
        const ssize_t got = ::recv(fd_, buffer, sizeof buffer, 0);
        return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : "";
    }
    // Whether a datagram is waiting, without waiting for one.
    bool HasMore() {
        char byte;
        return ::recv(fd_, &byte, 1, MSG_DONTWAIT | MSG_PEEK) >= 0;
    }

private:
    int fd_;
};

class SystemLogTest : public ::testing::Test {
protected:
    korvsdk_test::TempFolder folder_;
    std::string socket_ = (folder_.path() / "log").string();
};

TEST_F(SystemLogTest, EachMessageIsOneSyslogLineWithoutItsTrailingLineFeed) {
    LogReceiver daemon(socket_);
    SystemLog log(socket_);
    const std::string tag = "KORVSDKDeviceTool[" + std::to_string(getpid()) + "]: ";
    const struct {
        const char* text;
        const char* body;
    } cases[] = {
        {"Initialization successful!\n", "Initialization successful!"},
        {"Scan Device is completed, 1 device is found.\n------\n",
         "Scan Device is completed, 1 device is found.\n------"},
        {"Select Device #0: VID: 0xFFF0  ", "Select Device #0: VID: 0xFFF0  "},
        {"UTF-8 \xC3\xA4\r\n", "UTF-8 \xC3\xA4"},
    };
    for (const auto& c : cases) {
        log.Write(c.text);
        const std::string line = daemon.Next();
        // "<15>" is facility user, level debug; then "Mmm dd hh:mm:ss ".
        EXPECT_EQ(line.substr(0, 4), "<15>") << line;
        EXPECT_EQ(line.find(tag), 20u) << line;
        EXPECT_EQ(line.substr(line.find(tag) + tag.size()), c.body) << line;
    }
    log.Write("\n");  // nothing left to say: nothing sent
    EXPECT_FALSE(daemon.HasMore());
}

TEST_F(SystemLogTest, NeverWaitsAndFindsARestartedDaemon) {
    SystemLog log(socket_);
    log.Write("no daemon yet\n");  // dropped
    {
        // A daemon that reads nothing: its queue fills up, and the messages
        // that do not fit are dropped instead of blocking the caller.
        LogReceiver stalled(socket_);
        const std::string text(1000, 'x');
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < 2000; ++i) log.Write(text);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    }
    LogReceiver restarted(socket_);
    log.Write("after the restart\n");
    const std::string line = restarted.Next();
    EXPECT_NE(line.find("]: after the restart"), std::string::npos) << line;
}

}  // namespace
