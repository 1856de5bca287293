#include "firmware/lights.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "core/VideoConsoleCoreImp.h"
#include "device/mcu_access.h"
#include "hid/report_protocol.h"
#include "platform/platform.h"

namespace VideoConsoleCore::firmware {

namespace {

constexpr uint32_t kRgbFirstWaitMs = 500;
constexpr uint32_t kRgbStepWaitMs = 10;
constexpr uint32_t kLedSaveFirstWaitMs = 100;
constexpr uint32_t kLedSavePollWaitMs = 100;
constexpr int kLedSavePolls = 10;

bool IicWrite(VideoConsoleCoreImp& core, const uint8_t* bytes, size_t count) {
    uint8_t frame[96];
    std::memcpy(frame, bytes, count);
    return AccessIicData(core, kIicWrite, kMcuAddress, static_cast<uint8_t>(count), frame, 0) &&
           frame[0] == 0;
}

// One light thread's orders; it owns the copy it is given.
struct LightJob {
    VideoConsoleCoreImp* core;
    VideoConsoleCoreImp::LightThread* slot;
    uint32_t generation;
    int phase;
    const std::atomic<bool>* runWhile;
    const char* exitText0;
    const char* exitText1;
};

bool JobGoesOn(const LightJob& job) {
    return *job.runWhile && !job.core->m_stopping && job.slot->generation == job.generation;
}

// Sleeps `ms`, or less when the thread is told to end: in slices, each
// followed by a look at the orders. No condition variable: a thread ended
// by the system at process exit, inside a wait, would leave it unusable
// (a broadcast to it never returns with MinGW's threads), and the core's
// destructor then runs after every other thread is gone. Light timing does
// not need the device waits' precision, so a plain sleep serves.
void SleepUnlessEnded(const LightJob& job, uint32_t ms) {
    constexpr auto kSlice = std::chrono::milliseconds(10);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (JobGoesOn(job)) {
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left <= std::chrono::steady_clock::duration::zero()) return;
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(left, kSlice));
    }
}

uint32_t RunLights(void* raw) {
    const std::unique_ptr<LightJob> job(static_cast<LightJob*>(raw));
    VideoConsoleCoreImp& core = *job->core;
    core.m_toggleCounter = 0;
    core.m_patternWrittenOnce = 0;
    while (JobGoesOn(*job)) {
        const uint16_t period = core.m_ledPeriod[job->phase];
        const uint8_t pattern = core.m_ledPattern[job->phase];
        if (period > 0) {
            const uint32_t count = core.m_toggleCounter++;
            if (!WriteLedPattern(core, (count & 1) != 0 ? kLedDark : pattern)) break;
            SleepUnlessEnded(*job, period);
        } else {
            // A steady pattern is written once, and then there is nothing
            // left to do. A thread that stayed only to be told to end would
            // keep the DLL loaded after the host's FreeLibrary (it holds a
            // reference to it) for as long as the device stays.
            if (WriteLedPattern(core, pattern)) core.m_patternWrittenOnce = 1;
            break;
        }
    }
    core.DebugOut(job->exitText0);
    uint32_t code = 0;
    if (!platform::CurrentThreadExitCode(code)) return 1;
    core.DebugOut(job->exitText1);
    return code;
}

// Ends the slot's thread (a new generation) and waits for it.
void EndThread(VideoConsoleCoreImp& core, VideoConsoleCoreImp::LightThread& slot) {
    ++slot.generation;
    if (slot.thread == nullptr) return;
    platform::JoinThread(slot.thread);  // within one slice
    slot.thread = nullptr;
}

void StartLights(VideoConsoleCoreImp& core, VideoConsoleCoreImp::LightThread& slot, int phase,
                 const std::atomic<bool>& runWhile, const char* exit0, const char* exit1) {
    EndThread(core, slot);
    auto* job = new LightJob{&core, &slot, slot.generation.load(), phase, &runWhile, exit0, exit1};
    if (!platform::StartThread(slot.thread, RunLights, job)) delete job;
}

}  // namespace

bool HasGpioLed(uint8_t model) {
    return model == 7 || model == 10 || model == 11 || model == 13 || model == 14;
}
bool HasRgbLight(uint8_t model) { return model == 6 || model == 8; }

bool WriteLedPattern(VideoConsoleCoreImp& core, uint8_t pattern) {
    const uint8_t bytes[2] = {kLedRegister, pattern};
    return IicWrite(core, bytes, sizeof bytes);
}

bool ReadLedPattern(VideoConsoleCoreImp& core, uint8_t& pattern) {
    uint8_t data[3] = {kLedRegister, 0, 0};
    if (!AccessIicData(core, kIicRead, kMcuAddress, 1, data, 2) || data[0] != 0) return false;
    pattern = data[2];
    return true;
}

void BlinkStep(VideoConsoleCoreImp& core) {
    const auto now = std::chrono::steady_clock::now();
    const uint16_t period = core.m_ledPeriod[kPhaseUpdating];
    if (period == 0) {
        if (core.m_patternWrittenOnce == 0) {
            WriteLedPattern(core, core.m_ledPattern[kPhaseUpdating]);
            core.m_patternWrittenOnce = 1;
        }
        return;
    }
    if (now - core.m_lastToggle > std::chrono::milliseconds(period)) {
        const uint32_t count = core.m_toggleCounter++;
        WriteLedPattern(core, (count & 1) != 0 ? kLedDark : core.m_ledPattern[kPhaseUpdating].load());
        core.m_lastToggle = now;
    }
}

namespace {

// The RGB chip sits on the microcontroller's bus 2 at 0xCE; the
// microcontroller's I2C master (0xCD) writes to it. Register 0x60 takes the
// colours of its five LEDs, 0x21 the effect (mode), and 0x2F = 1 latches
// what was written.
struct RgbWrite {
    const uint8_t* bytes;
    size_t count;
};
constexpr uint8_t kSelectColours[] = {0xCD, 0x02, 0xCE, 0x01, 0x00, 0x02, 0x81, 0x60};
constexpr uint8_t kSelectEffect[] = {0xCD, 0x02, 0xCE, 0x01, 0x00, 0x02, 0x80, 0x21};
constexpr uint8_t kSelectLatch[] = {0xCD, 0x02, 0xCE, 0x01, 0x00, 0x02, 0x80, 0x2F};
constexpr uint8_t kLatch[] = {0xCD, 0x02, 0xCE, 0x01, 0x03, 0x02, 0x01, 0x01};

struct RgbColours {
    uint8_t bytes[7 + 15] = {0xCD, 0x02, 0xCE, 0x01, 0x03, 0x10, 0x0F};
    explicit RgbColours(const uint8_t colour[3]) {
        for (int i = 0; i < 5; ++i) std::memcpy(bytes + 7 + 3 * i, colour, 3);
    }
};

// The writes in order, 10 ms apart, each only after the one before went
// through.
template <size_t N>
bool RunRgbWrites(VideoConsoleCoreImp& core, const RgbWrite (&writes)[N]) {
    for (size_t i = 0; i < N; ++i) {
        if (i > 0) platform::SleepMilliseconds(kRgbStepWaitMs);
        if (!IicWrite(core, writes[i].bytes, writes[i].count)) return false;
    }
    return true;
}

}  // namespace

bool SetRgbPhase(VideoConsoleCoreImp& core, int phase) {
    if (phase < 0 || phase > 2) return false;
    const RgbColours colours(core.m_rgbColour[phase]);
    const uint8_t effect[] = {0xCD, 0x02, 0xCE, 0x01, 0x03, 0x02, 0x01, core.m_rgbMode[phase]};
    const RgbWrite writes[] = {{kSelectColours, sizeof kSelectColours},
                               {colours.bytes, sizeof colours.bytes},
                               {kSelectEffect, sizeof kSelectEffect},
                               {effect, sizeof effect},
                               {kSelectLatch, sizeof kSelectLatch},
                               {kLatch, sizeof kLatch}};
    platform::SleepMilliseconds(kRgbFirstWaitMs);
    return RunRgbWrites(core, writes);
}

bool SetRgbColour(VideoConsoleCoreImp& core, uint8_t first, uint8_t second, uint8_t third) {
    const uint8_t colour[3] = {first, second, third};
    const RgbColours colours(colour);
    const RgbWrite writes[] = {{kSelectColours, sizeof kSelectColours},
                               {colours.bytes, sizeof colours.bytes},
                               {kSelectLatch, sizeof kSelectLatch},
                               {kLatch, sizeof kLatch}};
    return RunRgbWrites(core, writes);
}

bool SetRgbEffect(VideoConsoleCoreImp& core, uint8_t code) {
    const uint8_t effect[] = {0xCD, 0x02, 0xCE, 0x01, 0x03, 0x02, 0x01, code};
    const RgbWrite writes[] = {{kSelectEffect, sizeof kSelectEffect},
                               {effect, sizeof effect},
                               {kSelectLatch, sizeof kSelectLatch},
                               {kLatch, sizeof kLatch}};
    return RunRgbWrites(core, writes);
}

bool SaveLedParameters(VideoConsoleCoreImp& core, const uint8_t* block) {
    uint8_t frame[86] = {mcu_reg::kSave, 0x02, 0x00, 0x00, 0x00, 0x00};
    std::memcpy(frame + 6, block, 80);
    if (!IicWrite(core, frame, sizeof frame)) {
        core.DebugOut("Iic Access Fail!");
        return false;
    }
    platform::SleepMilliseconds(kLedSaveFirstWaitMs);
    for (int poll = 0; poll < kLedSavePolls; ++poll) {
        uint8_t status[2] = {mcu_reg::kSave, 0};
        if (!AccessIicData(core, kIicRead, kMcuAddress, 1, status, 1) || status[0] != 0) {
            core.DebugOut("Iic Access Fail!");
            return false;
        }
        if ((status[1] & 0x02) != 0) {
            platform::SleepMilliseconds(kLedSavePollWaitMs);
            continue;
        }
        switch (status[1]) {
            case 0x00: core.DebugOut("Save Led Parameters Complete!"); return true;
            case 0x10: core.DebugOut("Save Led Parameters Erase Error!"); return false;
            case 0x20: core.DebugOut("Save Led Parameters Write Error!"); return false;
            case 0x40: core.DebugOut("Save Led Parameters Error!"); return false;
            default: core.DebugOut("Save Led Parameters Unknown Error!"); return false;
        }
    }
    return false;  // still busy after ten looks: nothing to say
}

void StartFinishLights(VideoConsoleCoreImp& core, bool success) {
    StartLights(core, core.m_finishLights, success ? kPhaseSucceeded : kPhaseFailed,
                core.m_updateFinished, "Call Exit_UpdateFinish_Lights_Thread_0.\n",
                "Call Exit_UpdateFinish_Lights_Thread_1.\n");
}

void StartUpdatingLights(VideoConsoleCoreImp& core) {
    StartLights(core, core.m_updatingLights, kPhaseUpdating, core.m_updateRunning,
                "Call Exit_Updating_Lights_Thread_0.\n", "Call Exit_Updating_Lights_Thread_1.\n");
}

void EndFinishLights(VideoConsoleCoreImp& core) {
    core.m_updateFinished = false;  // the thread ends within one slice
}

void StopLightThreads(VideoConsoleCoreImp& core, bool fromDestructor) {
    if (!fromDestructor) {
        EndThread(core, core.m_finishLights);
        EndThread(core, core.m_updatingLights);
        return;
    }
    // The process may be exiting: on Windows its other threads are already
    // gone, and the joins return at once. Otherwise a thread sees the stop
    // within one slice of its sleep.
    core.m_stopping = true;
    for (VideoConsoleCoreImp::LightThread* slot : {&core.m_finishLights, &core.m_updatingLights}) {
        platform::JoinThread(slot->thread);
        slot->thread = nullptr;
    }
}

}  // namespace VideoConsoleCore::firmware
