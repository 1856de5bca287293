// The library's two message channels: the debugger output (console logging)
// and the log file (local logging). The two switches are independent.
#include <thread>

#include <spdlog/logger.h>

#include "core/VideoConsoleCoreImp.h"
#include "platform/platform.h"

namespace VideoConsoleCore {

namespace {
// Set while this thread runs the application's handler: a handler that
// replaces itself must not wait for its own call to end.
thread_local bool t_inHandler = false;
}  // namespace

void VideoConsoleCoreImp::DebugOutAlways(std::string_view text) const {
    const std::string copy(text);  // the handler wants a terminated text
    // Counted before the handler is loaded, so that a replacement either
    // sees this call in progress or this call sees the replacement.
    ++m_debugHandlerCalls;
    if (const KORVSDK_DebugOutputHandler handler = m_debugHandler.load()) {
        const bool outer = !t_inHandler;
        t_inHandler = true;
        handler(copy.c_str());
        t_inHandler = !outer;
    } else {
        platform::WriteDebuggerOutput(copy);
    }
    --m_debugHandlerCalls;
}

void VideoConsoleCoreImp::SetDebugOutputHandler(KORVSDK_DebugOutputHandler handler) {
    m_debugHandler = handler;
    // Calls are a few microseconds; the count drops to this thread's own.
    const int own = t_inHandler ? 1 : 0;
    while (m_debugHandlerCalls.load() > own) std::this_thread::yield();
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
