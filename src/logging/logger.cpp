// The per-run log file: one spdlog file logger, "VideoCapture", appending to
// "Device_Log_<time stamp>.txt" in the folder that setting.cfg chooses.
#include <cstdio>
#include <memory>
#include <mutex>
#include <stdexcept>

#include <spdlog/cfg/env.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include "core/VideoConsoleCoreImp.h"
#include "platform/platform.h"
#include "settings/log_location.h"

namespace VideoConsoleCore {

namespace {

// Why the log is not written, for the user: a link or another user's file at
// its name, a log folder that is another user's link.
struct LogRefusal : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// spdlog's own file sink opens a narrow path with the C runtime, which on
// Windows reads it in the ANSI code page: a log folder below a working folder
// named in other characters would never open. This sink appends to a file
// the platform layer opened from the UTF-8 path, without following a link at
// its name and only when it is a file of the user's own: the log folder may
// be one that other users can write.
class AppendingFileSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    explicit AppendingFileSink(const std::string& path) {
        std::string refusal;
        file_ = platform::OpenOwnFileForAppending(path, refusal);
        if (file_ == nullptr && !refusal.empty()) throw LogRefusal(refusal);
        if (file_ == nullptr) throw std::runtime_error("cannot open " + path);
    }
    ~AppendingFileSink() override { std::fclose(file_); }
    AppendingFileSink(const AppendingFileSink&) = delete;
    AppendingFileSink& operator=(const AppendingFileSink&) = delete;

protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        std::fwrite(line.data(), 1, line.size(), file_);
    }
    void flush_() override { std::fflush(file_); }

private:
    std::FILE* file_ = nullptr;
};

}  // namespace

void VideoConsoleCoreImp::StartLogger() {
    spdlog::cfg::load_env_levels();  // honours SPDLOG_LEVEL
    try {
        // A path that does not convert (not UTF-8) throws like a file that
        // does not open.
        const LogLocation location = LogLocation::Build();
        location.RemoveOldLogs();
        m_logFilePath = location.LogFilePath();
        // A log folder that is a link is followed only when the link and the
        // folder are the user's own (both levels of Company\Product).
        const std::string folder = location.LogFolder();
        const std::string company =
            location.genToCurrentFolder
                ? folder
                : location.UserBaseFolder() + platform::PathSeparator() + location.companyFolderName;
        if (!platform::IsOwnFolderOrNoLink(company) || !platform::IsOwnFolderOrNoLink(folder))
            throw LogRefusal("its folder is a link that is not the user's own");
        // A logger of this name from an earlier start in this process (only a
        // second core object can do that) gives way to the new one.
        spdlog::drop(location.loggerName);
        m_logger = std::make_shared<spdlog::logger>(
            location.loggerName, std::make_shared<AppendingFileSink>(m_logFilePath));
        spdlog::initialize_logger(m_logger);
    } catch (const std::exception& e) {
        m_logger.reset();
        // A refusal says why first.
        if (dynamic_cast<const LogRefusal*>(&e) != nullptr)
            DebugOutAlways("Not logging to " + m_logFilePath + ": " + e.what() + ".\n");
        DebugOutAlways("create log file failed!!!\n");
        m_localLogging = false;
    }
    if (m_localLogging && m_logger) {
        spdlog::set_default_logger(m_logger);
        m_logger->info("starting logger...");
    }
    // Every message reaches the file at once; the greeting above was written
    // before the flush level was set, so push it out too.
    spdlog::flush_on(spdlog::level::info);
    if (m_logger) m_logger->flush();
}

}  // namespace VideoConsoleCore
