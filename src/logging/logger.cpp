// The per-run log file: one spdlog file logger, "VideoCapture", appending to
// "Device_Log_<time stamp>.txt" in the folder that setting.cfg chooses.
#include <spdlog/cfg/env.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include "core/VideoConsoleCoreImp.h"
#include "settings/log_location.h"

namespace VideoConsoleCore {

void VideoConsoleCoreImp::StartLogger() {
    const LogLocation location = LogLocation::Build();
    location.RemoveOldLogs();
    m_logFilePath = location.LogFilePath();

    spdlog::cfg::load_env_levels();  // honours SPDLOG_LEVEL
    try {
        // A logger of this name from an earlier start in this process (only a
        // second core object can do that) gives way to the new one.
        spdlog::drop(location.loggerName);
        m_logger = spdlog::basic_logger_mt(location.loggerName, m_logFilePath, false);
    } catch (const std::exception&) {
        m_logger.reset();
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
