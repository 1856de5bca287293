// The microcontroller firmware update: the accepted program image goes into
// the board's Cortex-M0 through its bootloader, which answers at the same
// I2C address as the application once the application has jumped to it.
// The sequence is fixed: boot mode, erase, blank check, program every
// 128-byte page, verify every page; each bootloader command is followed by
// a poll of its busy byte.
//
// An interrupted programming leaves the microcontroller in its bootloader,
// where a new update can always start again: the bootloader itself is never
// written.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "core/VideoConsoleCoreImp.h"
#include "device/mcu_access.h"
#include "firmware/firmware_file.h"
#include "firmware/lights.h"
#include "firmware/update_common.h"
#include "hid/report_protocol.h"
#include "platform/platform.h"

namespace VideoConsoleCore {

namespace {

using firmware::UpdateWait;

constexpr uint32_t kMaxImageSize = 114688;  // 0x1C000: program memory 0x1000..0x1CFFF
constexpr uint32_t kPageSize = 128;
constexpr uint32_t kProgramBase = 0x1000;
constexpr uint8_t kBusyRegister = 0xE1;
constexpr uint8_t kCommandRegister = 0xE2;
constexpr uint8_t kErase = 'e';
constexpr uint8_t kBlankCheck = 'b';
constexpr uint8_t kProgram = 'w';
constexpr uint8_t kVerify = 'v';
constexpr int kBusyPolls = 300;
constexpr uint32_t kBusyPollMs = 10;
constexpr uint32_t kStepMs = 500;
constexpr uint32_t kPageMs = 1;
constexpr uint32_t kEndMs = 200;
constexpr uint32_t kStartReadMs = 100;
constexpr uint32_t kToolCoreStartReadMs = 1000;

constexpr const char* kPassText = "The MCU firmware has been updated, please re-plug the device.";
constexpr const char* kFailText = "The firmware update of MCU is failed.";

// One bootloader command frame: E2, the command letter, 0, the address and
// the page count big-endian, then for program and verify one page of data.
struct Frame {
    uint8_t bytes[9 + kPageSize];
    uint8_t length;
};

Frame Command(uint8_t command, uint32_t address, uint16_t pages, const uint8_t* page) {
    Frame f{};
    f.bytes[0] = kCommandRegister;
    f.bytes[1] = command;
    f.bytes[2] = 0x00;
    for (int i = 0; i < 4; ++i) f.bytes[3 + i] = static_cast<uint8_t>(address >> (24 - 8 * i));
    f.bytes[7] = static_cast<uint8_t>(pages >> 8);
    f.bytes[8] = static_cast<uint8_t>(pages);
    f.length = 9;
    if (page != nullptr) {
        std::memcpy(f.bytes + 9, page, kPageSize);
        f.length = 9 + kPageSize;
    }
    return f;
}

bool Send(VideoConsoleCoreImp& core, Frame frame) {
    return AccessIicData(core, kIicWrite, kMcuAddress, frame.length, frame.bytes, 0) &&
           frame.bytes[0] == 0;
}

// A stage of the update shown on the GPIO LED: with a period the LED
// toggles between the updating pattern and dark; without one it shows the
// pattern. `ignorePeriod` toggles whatever the period says.
void StageToggle(VideoConsoleCoreImp& core, bool ignorePeriod) {
    if (!firmware::HasGpioLed(core.m_deviceModel)) return;
    const uint8_t pattern = core.m_ledPattern[firmware::kPhaseUpdating];
    if (!ignorePeriod && core.m_ledPeriod[firmware::kPhaseUpdating] == 0) {
        firmware::WriteLedPattern(core, pattern);
        return;
    }
    const uint32_t count = core.m_toggleCounter++;
    firmware::WriteLedPattern(core, (count & 1) != 0 ? firmware::kLedDark : pattern);
}

class McuProgrammer {
public:
    McuProgrammer(VideoConsoleCoreImp& core, const firmware::FirmwareImage& image)
        : core_(core), image_(image.Bytes()), imageSize_(image.Size()) {}

    bool Run() {
        if (imageSize_ == 0 || imageSize_ > kMaxImageSize || image_ == nullptr) {
            core_.DebugOut("File is null or too big!\n");
            return false;
        }
        pages_ = (imageSize_ + kPageSize - 1) / kPageSize;

        core_.DebugOut("Start boot mode!\n");
        UpdateWait(core_, kStepMs);
        if (EnterMcuBootloader(core_) == 0) {
            return Fail("MCU Error:Enter Boot Mode Fail!", "MCU Error:Enter Boot Mode Fail!\n",
                        "MCU Error:Enter Boot Mode Fail!");
        }

        StageToggle(core_, false);
        core_.Report("Start erase mode!\n");
        UpdateWait(core_, kStepMs);
        if (!Step(Command(kErase, kProgramBase, static_cast<uint16_t>(pages_), nullptr), true))
            return Fail("MCU Error:Erase Fail!", "Erase Fail!\n", "Erase Fail!");

        core_.m_updateRunning = true;
        core_.LogInfo("Start Blank Check!");
        UpdateWait(core_, kStepMs);
        if (!Step(Command(kBlankCheck, kProgramBase, static_cast<uint16_t>(pages_), nullptr)))
            return Fail("MCU Error:Blank Check Fail!", "Blank Check Fail!\n", "Blank Check Fail!");
        StageToggle(core_, false);
        if (core_.m_deviceModel == 13 || core_.m_deviceModel == 14) UpdateWait(core_, kStepMs);

        core_.LogInfo("Start Program Data!");
        core_.Report("MCU firmware is updating..\n");
        if (!Pages(kProgram, "MCU firmware is updating.."))
            return Fail("MCU Error:Program Fail!", "Program Fail!\n", "Program Fail!");

        UpdateWait(core_, kStepMs);
        if (firmware::HasGpioLed(core_.m_deviceModel)) {
            for (int i = 0; i < 2; ++i) {
                StageToggle(core_, true);
                UpdateWait(core_, kStepMs);
            }
        }
        core_.m_lastToggle = std::chrono::steady_clock::now();

        core_.DebugOut("MCU firmware is verify..\n");
        core_.LogInfo("MCU firmware is verifying..");
        if (!Pages(kVerify, "MCU firmware is verifying.."))
            return Fail("MCU Error:Verify Fail!", "Verify Fail!\n", "Verify Fail!");
        return true;
    }

private:
    // The step's record (its "MCU Error:" text) and its messages.
    bool Fail(const char* record, const char* debugger, const char* log) {
        core_.NotifyFwUpdateState(nullptr, nullptr, nullptr, record, 0.0f);
        core_.DebugOut(debugger);
        core_.LogInfo(log);
        return false;
    }

    // A command and the wait for the bootloader to finish it; the erase, the
    // step that fails first on a bootloader that stays busy, says so in the
    // log.
    bool Step(const Frame& frame, bool logBusyFailure = false) {
        if (!Send(core_, frame)) return false;
        if (WaitBusy()) return true;
        if (logBusyFailure) core_.LogInfo("M0_WaitBusy failed.");
        return false;
    }

    // M0_WaitBusy: the busy byte, every 10 ms, at most 300 times.
    bool WaitBusy() {
        for (int round = 0; round < kBusyPolls; ++round) {
            UpdateWait(core_, kBusyPollMs);
            uint8_t data[2] = {kBusyRegister, 0};
            if (!AccessIicData(core_, kIicRead, kMcuAddress, 1, data, 1) || data[0] != 0)
                return false;
            if (data[1] == 0) return true;
        }
        core_.LogInfo("[M0_WaitBusy] AccessIicData read time out.");
        return false;
    }

    // Every page with `command`, the last one filled up with 0xFF; the
    // updating light blinks on in both loops.
    bool Pages(uint8_t command, const char* message) {
        firmware::ProgressReporter progress(core_, message, true);
        uint32_t address = kProgramBase;
        for (uint32_t page = 0; page < pages_; ++page) {
            uint8_t data[kPageSize];
            const uint32_t at = page * kPageSize;
            const uint32_t n = std::min(kPageSize, imageSize_ - at);
            std::memset(data, 0xFF, sizeof data);
            std::memcpy(data, image_ + at, n);
            if (!Step(Command(command, address, 1, data))) return false;
            firmware::BlinkStep(core_);
            address += kPageSize;
            UpdateWait(core_, kPageMs);
            progress.Report(page + 1, pages_, "%.1f");
        }
        return true;
    }

    VideoConsoleCoreImp& core_;
    const uint8_t* const image_;  // the update's own copy of the file
    const uint32_t imageSize_;
    uint32_t pages_ = 0;
};

uint32_t RunMcuProgrammer(void* argument) {
    const std::unique_ptr<firmware::UpdateJob> job(static_cast<firmware::UpdateJob*>(argument));
    VideoConsoleCoreImp& core = job->core;
    core.m_writeFlag = true;
    const bool ok = McuProgrammer(core, job->image).Run();

    job->image.Release();
    core.m_updateRunning = false;
    core.m_updateFinished = true;
    const std::string configured = core.Setting(ok ? "msg_update_pass" : "msg_mcu_update_fail");
    core.LogInfo(configured.empty() ? (ok ? kPassText : kFailText) : configured);
    core.NotifyFwUpdateState(nullptr, nullptr, ok ? "UpdateCompleted" : "UpdateFailed",
                             ok ? kPassText : kFailText, ok ? 100.0f : 0.0f);
    if (firmware::HasGpioLed(core.m_deviceModel)) {
        firmware::StartFinishLights(core, ok);
    } else if (firmware::HasRgbLight(core.m_deviceModel)) {
        UpdateWait(core, kStepMs);
        firmware::SetRgbPhase(core, ok ? firmware::kPhaseSucceeded : firmware::kPhaseFailed);
    }

    UpdateWait(core, kEndMs);
    core.DebugOut("Call ExitThread_0.\n");
    core.m_writeFlag = false;
    return firmware::EndUpdateThread(core, nullptr, "Call ExitThread_1.\n",
                                     "MCU firmware update is Finish.\n");
}

}  // namespace

bool VideoConsoleCoreImp::BeginMcuUpdate(bool toolCore) {
    // The microcontroller's start says why it failed before it gives the
    // device back.
    const auto fail = [&](const char* text) {
        return firmware::FailStart(*this, toolCore, text, firmware::FailOrder::kTextFirst);
    };
    firmware::EndFinishLights(*this);
    m_updateRunning = false;
    if (!toolCore) {
        LogInfo("--------Start Update MCU--------");
        NotifyFwUpdateState(nullptr, nullptr, "Updating initialization", nullptr);
    }
    const bool read = firmware::ReadFirmwareFile(*this, m_mcuFilePath);
    firmware::UpdateWait(*this, toolCore ? kToolCoreStartReadMs : kStartReadMs);
    if (!read) return fail("MCU Firmware read failed");
    if (!firmware::SameFileAsAccepted(*this, kFirmwareMcuBin))
        return fail("The selected file has changed since it was set; please set it again.\n");
    // The blink keeps its counter, written-once mark and last toggle from
    // before: the light goes on from where it was.
    m_mcuUpdateStarted = true;

    DebugOut("Start write data to flash.\n");
    auto job = std::make_unique<firmware::UpdateJob>(
        firmware::UpdateJob{*this, firmware::TakeFirmwareFile(*this)});
    if (!firmware::StartUpdateThread(*this, RunMcuProgrammer, std::move(job)))
        return fail("MCU Firmware read failed");
    m_mcuFileValid = 0;
    return true;
}

bool VideoConsoleCoreImp::StartMcuFwUpdate() {
    return firmware::PassStartGuards(*this, m_mcuFileValid) && BeginMcuUpdate(false);
}

bool VideoConsoleCoreImp::StartMcuFwUpdateForToolCore() {
    if (!firmware::ClaimUpdate(*this)) return false;
    return BeginMcuUpdate(true);
}

}  // namespace VideoConsoleCore
