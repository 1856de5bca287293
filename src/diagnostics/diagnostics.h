// Diagnostic dumps for a problem report: the current log file copied with
// a few lines of the user's context, and the operating system's hardware
// report (the system report, a core operation).
#pragma once

#include <string>

#include "VideoConsoleCore.h"

namespace VideoConsoleCore {

class VideoConsoleCoreImp;

namespace diagnostics {

// Carries out a diagnostic request of the class face (its command 3): with
// collectInfo the context lines go to the log and the device-tagged copy is
// made; otherwise the dump folder is taken and, with dumpLog, the log dump
// made.
void HandleRequest(VideoConsoleCoreImp& core, const DiagnosticRequest& request);

// Copies the current log file to "Dump_Log_<time stamp>.txt" in the dump
// folder (or the log folder). False when local logging is off.
bool DumpLog(VideoConsoleCoreImp& core);

// Copies the current log file to Diagnostic/tmp/[<tag>,]<model>,<time
// stamp>.txt under the working folder, when that folder exists.
void CopyLogTagged(VideoConsoleCoreImp& core, const std::string& tag);

// The file-name prefix of the device-tagged copy for a board model.
const char* ModelPrefix(bool selected, uint8_t model);

// The summary of a system report: its lines up to the first one that is
// exactly "Sound Devices", each ended by "\n".
std::string SummaryOf(const std::string& report);

}  // namespace diagnostics
}  // namespace VideoConsoleCore
