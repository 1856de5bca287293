// The library's two message channels: the debugger output (console logging)
// and the log file (local logging). The two switches are independent.
#include <thread>

#include <spdlog/logger.h>

#include "core/VideoConsoleCoreImp.h"
#include "platform/platform.h"

namespace VideoConsoleCore {

namespace {
// How many debugger-output calls this thread is inside: a handler that
// replaces itself must not wait for its own call to end.
thread_local int t_depth = 0;
}  // namespace

void VideoConsoleCoreImp::DebugOutAlways(std::string_view text) const {
    const std::string copy(text);  // the handler wants a terminated text
    // Counted before the handler is loaded, so that a replacement either
    // sees this call in progress or this call sees the replacement. The
    // count and the mark come off again even when the handler throws.
    struct InProgress {
        std::atomic<int>& calls;
        explicit InProgress(std::atomic<int>& c) : calls(c) {
            ++calls;
            ++t_depth;
        }
        ~InProgress() {
            --t_depth;
            --calls;
        }
        InProgress(const InProgress&) = delete;
        InProgress& operator=(const InProgress&) = delete;
    } inProgress(m_debugHandlerCalls);
    if (const KORVSDK_DebugOutputHandler handler = m_debugHandler.load()) {
        handler(copy.c_str());
    } else {
        platform::WriteDebuggerOutput(copy);
    }
}

void VideoConsoleCoreImp::SetDebugOutputHandler(KORVSDK_DebugOutputHandler handler) {
    m_debugHandler = handler;
    // Calls are a few microseconds; the count drops to this thread's own.
    while (m_debugHandlerCalls.load() > t_depth) std::this_thread::yield();
}

void VideoConsoleCoreImp::DebugOut(std::string_view text) const {
    if (m_consoleLogging) DebugOutAlways(text);
}

void VideoConsoleCoreImp::LogInfo(std::string_view text) const {
    if (!m_localLogging || !m_logger) return;
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    m_logger->info("{}", text);
}

void VideoConsoleCoreImp::Report(std::string_view text) const {
    DebugOut(text);
    LogInfo(text);
}

}  // namespace VideoConsoleCore
