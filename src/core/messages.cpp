// The library's two message channels: the debugger output (console logging)
// and the log file (local logging). The two switches are independent.
#include <spdlog/logger.h>

#include "core/VideoConsoleCoreImp.h"
#include "platform/platform.h"

namespace VideoConsoleCore {

void VideoConsoleCoreImp::DebugOutAlways(std::string_view text) const {
    const std::string copy(text);  // the handler wants a terminated text
    // Counted before the handler is loaded, and off the count again even
    // when the handler throws (see HostCall).
    const HostCall call(*this, kSlotDebugOutput);
    if (const KORVSDK_DebugOutputHandler handler = m_debugHandler.load()) {
        handler(copy.c_str());
    } else {
        platform::WriteDebuggerOutput(copy);
    }
}

void VideoConsoleCoreImp::SetDebugOutputHandler(KORVSDK_DebugOutputHandler handler) {
    m_debugHandler = handler;
    // A handler that replaces itself does not wait for its own call.
    WaitForHostCalls(kSlotDebugOutput);
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
