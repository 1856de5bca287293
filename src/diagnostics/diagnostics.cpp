#include "diagnostics/diagnostics.h"

#include <spdlog/spdlog.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <system_error>

#include "core/VideoConsoleCoreImp.h"
#include "platform/platform.h"
#include "settings/log_location.h"

namespace VideoConsoleCore {

namespace fs = std::filesystem;

namespace {

constexpr const char* kDumpLoggingOff = "[Dump_Log] ERROR: You have not Enable Local Logging...";
constexpr const char* kWaitingLine = "Wait system write Dxdiag...";
constexpr const char* kTimeOutLine = "Wait WriteDxdiag time out!";
constexpr const char* kQuotedFolderLine =
    "The system report's folder name contains a quotation mark (\"); no report was started.\n";
constexpr uint16_t kReportPolls = 200;
constexpr uint32_t kReportPollMs = 100;
// Room for the model prefix and the time stamp within a file name's 255 bytes.
constexpr size_t kMaxTagBytes = 128;

// Paths are UTF-8 texts; Windows opens them as wide paths.
fs::path PathOf(const std::string& utf8) {
    return fs::u8path(utf8);
}

std::string Join(const std::string& folder, const std::string& name) {
    return folder + platform::PathSeparator() + name;
}

// A context line: to the log file only, never to the debugger.
void LogToFile(const VideoConsoleCoreImp& core, const std::string& text) {
    if (core.m_localLogging && core.m_logger) core.m_logger->info(text);
}

// Writes `target` through a new file of its own beside it (platform.h:
// never through a link planted at a name, readable by its owner only),
// renamed into place once `fill` has written it: a link or a file at the
// target's name is replaced, never written through. False when the file
// could not be made or written; nothing is then left behind.
bool WriteNewFile(const std::string& target, const std::function<bool(std::FILE*)>& fill) {
    std::string partial;
    std::FILE* file = platform::CreatePartFile(target, partial);
    if (file == nullptr) return false;
    const bool written = fill(file);
    if (std::fclose(file) == 0 && written && platform::MoveIntoPlace(partial, target)) return true;
    platform::RemoveFile(partial);
    return false;
}

bool WriteText(const std::string& path, const std::string& text) {
    return WriteNewFile(path, [&](std::FILE* file) {
        return std::fwrite(text.data(), 1, text.size(), file) == text.size();
    });
}

// Copies the core's log file into `target` (made anew), line by line, each
// line ended by "\n". A log that cannot be opened leaves the target empty;
// a target that cannot be made is left out.
void CopyLogInto(VideoConsoleCoreImp& core, const std::string& target, const std::string& head) {
    if (core.m_logger) core.m_logger->flush();  // what was logged so far
    std::ifstream log(PathOf(core.LogFilePath()), std::ios::binary);
    WriteNewFile(target, [&](std::FILE* out) {
        if (std::fwrite(head.data(), 1, head.size(), out) != head.size()) return false;
        std::string line;
        while (log && std::getline(log, line)) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            line += '\n';
            if (std::fwrite(line.data(), 1, line.size(), out) != line.size()) return false;
        }
        return true;
    });
}

// The tag (the user's e-mail address) becomes part of a file name in the
// copy folder: what no file name may hold (separators included, so the copy
// never lands elsewhere) becomes '_', and a long tag is cut on a character
// boundary so that the name can still be made.
std::string FileNameTag(const std::string& tag) {
    std::string name;
    for (const char c : tag) {
        const bool bad = static_cast<unsigned char>(c) < 0x20 || std::strchr("<>:\"/\\|?*", c);
        name += bad ? '_' : c;
    }
    if (name.size() > kMaxTagBytes) {
        size_t cut = kMaxTagBytes;
        while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) --cut;
        name.resize(cut);
    }
    return name;
}

// The worker of the system report: waits for the system's full report and
// copies its summary.
struct ReportJob {
    VideoConsoleCoreImp* core;
    std::string fullPath;
    std::string summaryPath;
};

uint32_t RunReportJob(void* argument) {
    ReportJob* job = static_cast<ReportJob*>(argument);
    VideoConsoleCoreImp& core = *job->core;
    bool copied = false;
    while (!core.m_stopping) {
        if (--core.m_systemReportCountdown == 0) break;
        std::ifstream full(PathOf(job->fullPath), std::ios::binary);
        if (full) {
            std::ostringstream text;
            text << full.rdbuf();
            WriteText(job->summaryPath, diagnostics::SummaryOf(text.str()));
            copied = true;
            break;
        }
        const uint32_t divisor = core.m_systemReportWaitDivisor;
        platform::SleepMilliseconds(divisor > 1 ? kReportPollMs / divisor : kReportPollMs);
    }
    if (!copied) {
        core.DebugOut(std::string(kTimeOutLine) + "\n");
        WriteText(job->summaryPath, std::string(kTimeOutLine) + "\n");
    }
    delete job;
    core.m_systemReportBusy = false;
    return 0;
}

}  // namespace

namespace diagnostics {

const char* ModelPrefix(bool selected, uint8_t model) {
    if (!selected) return "NoDevice,";
    switch (model) {
        case 6: return "TARNA,";
        case 16: return "VELIS,";
        case 14: return "OSKA,";
        case 13: return "PIRU,";
        default: return "NoDevice,";
    }
}

std::string SummaryOf(const std::string& report) {
    std::istringstream in(report);
    std::string summary, line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line == "Sound Devices") break;
        summary += line + "\n";
    }
    return summary;
}

bool DumpLog(VideoConsoleCoreImp& core) {
    if (!core.m_localLogging) {
        core.NotifyDeviceState(kDumpLoggingOff);  // only when a callback is there
        return false;
    }
    if (!core.m_selected) LogToFile(core, "no device found");
    const LogLocation location = LogLocation::Build();
    std::error_code ignored;
    fs::create_directories(PathOf(location.currentFolderName), ignored);
    const std::string name = "Dump_Log_" + LocalTimeStamp() + ".txt";
    const std::string folder = core.DumpFolder().empty() ? location.currentFolderName
                                                         : core.DumpFolder();
    // Logging may have been switched off since the check above.
    const std::string head =
        core.m_localLogging ? std::string()
                            : "You have not Enable Local Logging...\n\nIf you want to turn on this "
                              "feature\n\nPlease open setting.cfg, and set EnableLocalLogging=1\n";
    CopyLogInto(core, Join(folder, name), head);
    // The library's logger is registered under its own name and keeps
    // logging after a dump.
    spdlog::drop("uvc_logger");
    return true;
}

void CopyLogTagged(VideoConsoleCoreImp& core, const std::string& tag) {
    const std::string name =
        std::string(ModelPrefix(core.m_selected, core.m_deviceModel)) + LocalTimeStamp() + ".txt";
    const std::string folder = Join("Diagnostic", "tmp");
    if (!fs::is_directory(PathOf(folder))) return;  // not made here
    CopyLogInto(core, Join(folder, tag.empty() ? name : FileNameTag(tag) + "," + name),
                std::string());
    spdlog::drop("uvc_logger");
}

void HandleRequest(VideoConsoleCoreImp& core, const DiagnosticRequest& request) {
    if (request.collectInfo) {
        if (!request.email.empty()) LogToFile(core, "Email: " + request.email);
        if (!request.describeContent.empty()) {
            LogToFile(core, "Describe Content: ");
            LogToFile(core, platform::WideToUtf8(request.describeContent.c_str()));
        }
        if (request.isAllowPrivacyToSendLog) LogToFile(core, "isAllowPrivacyToSendLog: TRUE");
        if (!request.softwareVersion.empty())
            LogToFile(core, "Software version: " + request.softwareVersion);
        CopyLogTagged(core, request.email);
        return;
    }
    if (!request.dumpFolder.empty())
        core.SetDumpFolder(platform::WideToUtf8(request.dumpFolder.c_str()));
    if (request.dumpLog) DumpLog(core);
}

}  // namespace diagnostics

int VideoConsoleCoreImp::SaveSystemReport() {
    bool claimed = false;
    try {
        const LogLocation location = LogLocation::Build();
        const std::string fullPath =
            location.genToCurrentFolder
                ? Join(location.currentFolderName, location.dxdiagFullFileName)
                : Join(Join(Join(location.UserBaseFolder(), location.companyFolderName),
                            location.productFolderName),
                       location.dxdiagFullFileName);
        // On Windows the path is one quoted argument of the tool's command
        // line: a quotation mark in it would end that argument and pass the
        // rest to the tool as arguments of its own. No Windows folder name
        // holds one, and the same settings are refused on every system.
        if (fullPath.find('"') != std::string::npos) {
            Report(kQuotedFolderLine);
            return 1;
        }
        // One report at a time: a request while one is waited for changes
        // nothing. Claimed in one step, so two callers cannot both start.
        bool idle = false;
        if (!m_systemReportBusy.compare_exchange_strong(idle, true)) return 1;
        claimed = true;
        if (fullPath.empty()) {
            m_systemReportBusy = false;
            return 1;
        }
        // A report of an earlier request must not pass for the new one.
        std::error_code ignored;
        fs::remove(PathOf(fullPath), ignored);
        // A tool that could not be started (a report folder that cannot be
        // written, the tool missing) is waited for all the same: the summary
        // then ends with the time-out text, which tells the user that no
        // report came.
        platform::StartSystemReport(fullPath);

        std::string folder = DumpFolder();
        if (folder.empty()) {
            folder = location.currentFolderName;
            fs::create_directories(PathOf(folder), ignored);
        }
        const std::string summaryPath = Join(folder, "dxdiagData.txt");
        m_systemReportCountdown = kReportPolls;
        WriteText(summaryPath, std::string(kWaitingLine) + "\n");
        auto job = std::make_unique<ReportJob>(ReportJob{this, fullPath, summaryPath});
        platform::JoinThread(m_systemReportThread);
        if (!platform::StartThread(m_systemReportThread, RunReportJob, job.get())) {
            m_systemReportBusy = false;  // no worker: nothing is waited for
            return 1;
        }
        job.release();  // the worker's, which clears the flag when it ends
    } catch (const std::exception& e) {
        if (claimed) m_systemReportBusy = false;  // no worker was started
        LogToFile(*this, e.what());
    }
    return 1;
}

}  // namespace VideoConsoleCore
