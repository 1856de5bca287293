// What the two updaters share: the claim on the device state, the check
// that the file is still the one accepted, the writer thread, progress
// records, and the waits the device needs.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "firmware/firmware_file.h"
#include "platform/platform.h"

namespace VideoConsoleCore {

class VideoConsoleCoreImp;
enum FirmwareKind : int;

namespace firmware {

// Sets the device state to 3 unless an update runs already (false then).
// One compare-and-set, so two starts from two threads cannot both win.
bool ClaimUpdate(VideoConsoleCoreImp& core);

// The guards of an exported start, in their order: initialised, selected,
// an accepted file of the kind, no update running; the last claims the
// device state. False, with the guard's message, when the start is refused.
bool PassStartGuards(VideoConsoleCoreImp& core, const std::atomic<uint8_t>& fileValid);

// A start that fails before its worker runs: state 2 again, the file
// closed, "UpdateFailed" to the callback (not for the tool core), the text
// to the debugger output, in the order given (the USB start gives the
// device back first, the microcontroller's says why first). Returns false.
enum class FailOrder { kStateFirst, kTextFirst };
bool FailStart(VideoConsoleCoreImp& core, bool toolCore, const char* text,
               FailOrder order = FailOrder::kStateFirst);

// A fingerprint of the file in g_FileString (its length and an FNV-1a hash
// of its bytes), taken when a file is accepted and compared at the start.
uint64_t FileFingerprint();
// Whether the file just read again is the one that was accepted.
bool SameFileAsAccepted(const VideoConsoleCoreImp& core, FirmwareKind kind);

// What an update's worker is given: the core, and the image it writes,
// which is the worker's alone from the start to the end of the update.
struct UpdateJob {
    VideoConsoleCoreImp& core;
    FirmwareImage image;
};

// Starts the update's worker with the job as its argument (the worker
// deletes it); a worker that ran before is waited for first. False when no
// thread could be started; the job is deleted then.
bool StartUpdateThread(VideoConsoleCoreImp& core, platform::ThreadEntry entry,
                       std::unique_ptr<UpdateJob> job);
// Waits until the update's worker has ended (nothing when none runs).
void JoinUpdateThread(VideoConsoleCoreImp& core);
// The worker's last steps: device state 2, then the exit texts (`exit0`
// may be null) and the exit code.
uint32_t EndUpdateThread(VideoConsoleCoreImp& core, const char* exit0, const char* exit1,
                         const char* noExitCode);

// A wait the device needs during an update, in milliseconds. Tests of many
// interrupted updates may shorten every such wait (m_updateWaitDivisor);
// the library itself never does.
void UpdateWait(VideoConsoleCoreImp& core, uint32_t milliseconds);

// Progress records of one phase: "Updating" with the phase's message and
// the percentage, whenever it has grown by more than 1.0 since the last
// record of the phase. `firstSetsReference`: the phase's first value only
// sets the reference (the microcontroller update's rule).
class ProgressReporter {
public:
    ProgressReporter(VideoConsoleCoreImp& core, const char* message,
                     bool firstSetsReference = false)
        : core_(core), message_(message), last_(firstSetsReference ? kUnset : 0.0f) {}
    // `format`: also logs the percentage with it ("%.1f") when not null.
    void Report(uint32_t done, uint32_t total, const char* format);

private:
    VideoConsoleCoreImp& core_;
    static constexpr float kUnset = 1001.0f;  // above any percentage
    const char* message_;
    float last_;
};

}  // namespace firmware
}  // namespace VideoConsoleCore
