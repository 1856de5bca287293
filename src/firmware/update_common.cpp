#include "firmware/update_common.h"

#include <cstdio>
#include <cstring>

#include "core/VideoConsoleCoreImp.h"
#include "firmware/firmware_file.h"

namespace VideoConsoleCore::firmware {

bool ClaimUpdate(VideoConsoleCoreImp& core) {
    uint32_t state = core.m_deviceState;
    return state != kDeviceStateUpdating &&
           core.m_deviceState.compare_exchange_strong(state, kDeviceStateUpdating);
}

bool PassStartGuards(VideoConsoleCoreImp& core, const std::atomic<uint8_t>& fileValid) {
    if (!core.RequireInitialized() || !core.RequireSelected()) return false;
    if (fileValid == 0) {
        core.DebugOut("Please select the burn file !\n");
        return false;
    }
    if (!ClaimUpdate(core)) {
        core.DebugOut("You are already updating!\n");
        return false;
    }
    return true;
}

bool FailStart(VideoConsoleCoreImp& core, bool toolCore, const char* text, FailOrder order) {
    if (order == FailOrder::kTextFirst) core.DebugOut(text);
    core.m_deviceState = kDeviceStateSelected;
    if (!toolCore) core.NotifyFwUpdateState(nullptr, nullptr, "UpdateFailed", nullptr);
    if (order == FailOrder::kStateFirst) core.DebugOut(text);
    CloseFirmwareFile(core);
    return false;
}

uint64_t FileFingerprint() {
    // Four independent lanes over 64-bit words (multiply and rotate), the
    // tail byte by byte: about a millisecond for an 8 MiB image. It tells a
    // changed file from the accepted one; it is no cryptographic hash.
    constexpr uint64_t kPrime = 0x9E3779B97F4A7C15ull;
    uint64_t lanes[4] = {1, 2, 3, 4};
    const uint8_t* bytes = g_FileString;
    const size_t length = g_dwRead;
    size_t at = 0;
    for (; bytes != nullptr && at + 32 <= length; at += 32) {
        for (int lane = 0; lane < 4; ++lane) {
            uint64_t word;
            std::memcpy(&word, bytes + at + 8 * lane, sizeof word);
            const uint64_t mixed = (lanes[lane] ^ word) * kPrime;
            lanes[lane] = (mixed << 31) | (mixed >> 33);
        }
    }
    uint64_t hash = 14695981039346656037ull;
    for (; bytes != nullptr && at < length; ++at) hash = (hash ^ bytes[at]) * 1099511628211ull;
    for (const uint64_t lane : lanes) hash = (hash ^ lane) * kPrime;
    return hash ^ (uint64_t{length} << 32);
}

bool SameFileAsAccepted(const VideoConsoleCoreImp& core, FirmwareKind kind) {
    if (g_FileString == nullptr) return false;
    const uint64_t accepted =
        kind == kFirmwareUsbHex ? core.m_usbFileFingerprint : core.m_mcuFileFingerprint;
    return FileFingerprint() == accepted;
}

bool StartUpdateThread(VideoConsoleCoreImp& core, platform::ThreadEntry entry,
                       std::unique_ptr<UpdateJob> job) {
    JoinUpdateThread(core);
    if (!platform::StartThread(core.m_updateThread, entry, job.get())) return false;
    job.release();  // the worker's now
    return true;
}

void JoinUpdateThread(VideoConsoleCoreImp& core) {
    platform::JoinThread(core.m_updateThread);
    core.m_updateThread = nullptr;
}

uint32_t EndUpdateThread(VideoConsoleCoreImp& core, const char* exit0, const char* exit1,
                         const char* noExitCode) {
    // From here on the caller may start the next update; it waits for this
    // thread to end before it starts another one.
    core.m_deviceState = kDeviceStateSelected;
    if (exit0 != nullptr) core.DebugOut(exit0);
    uint32_t code = 0;
    if (!platform::CurrentThreadExitCode(code)) {
        core.DebugOut(noExitCode);
        return 1;
    }
    core.DebugOut(exit1);
    return code;
}

void UpdateWait(VideoConsoleCoreImp& core, uint32_t milliseconds) {
    const uint32_t divisor = core.m_updateWaitDivisor;
    platform::SleepMilliseconds(divisor > 1 ? milliseconds / divisor : milliseconds);
}

void ProgressReporter::Report(uint32_t done, uint32_t total, const char* format) {
    if (total == 0) return;
    const float percent = static_cast<float>(done) / static_cast<float>(total) * 100.0f;
    if (format != nullptr) {
        char line[64];
        std::snprintf(line, sizeof line, format, static_cast<double>(percent));
        core_.LogInfo(line);
    }
    if (last_ > 1000.0f) {
        last_ = percent;
        return;
    }
    if (percent - last_ <= 1.0f) return;
    last_ = percent;
    core_.NotifyFwUpdateState(nullptr, nullptr, "Updating", message_, percent);
}

}  // namespace VideoConsoleCore::firmware
