#include "toolcore/tool_core_controller.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "core/VideoConsoleCoreImp.h"
#include "diagnostics/diagnostics.h"
#include "discovery/device_list.h"
#include "firmware/lights.h"
#include "platform/platform.h"
#include "toolcore/information.h"

namespace VideoConsoleCore {

namespace {

constexpr uint8_t kLedEntries = 16;  // five bytes each in m_ledParameters
constexpr int kStopPreviewPolls = 90;
constexpr uint32_t kStopPreviewPollMs = 50;
// The effect codes the light takes on their own, without a colour first.
constexpr uint8_t kEffectsWithoutColour[] = {4, 5, 6, 8, 10, 11, 12, 13};
// The preview's end: the light off, then back to its steady colour.
constexpr uint8_t kPreviewOffEffect = 0x00;
constexpr uint8_t kPreviewEndEffect = 0x01;

bool SameHexText(const std::string& a, const char* b) {
    if (b == nullptr || a.size() != std::strlen(b)) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
        if (lower(a[i]) != lower(b[i])) return false;
    }
    return true;
}

uint32_t MarkRunning(void* controllerState) {
    static_cast<std::atomic<int>*>(controllerState)->store(1);
    return 0;
}

}  // namespace

ToolCoreControllerImp::~ToolCoreControllerImp() {
    platform::JoinThread(startThread_);
    // A controller that goes ends its preview rather than wait it out.
    if (core_ != nullptr) core_->StopLightPreview();
    destroyStopPreviewThread();
}

int ToolCoreControllerImp::init() {
    core_ = g_VC_CorePointer.load();
    if (!lastAudio_) lastAudio_ = std::make_unique<AudioControl>();
    if (core_ != nullptr) core_->Initialize(nullptr);
    state_ = 0;
    return 0;
}

int ToolCoreControllerImp::start() {
    // The controller runs once the worker has it; the caller goes on at
    // once. The worker is joined when the controller goes.
    platform::JoinThread(startThread_);
    platform::StartThread(startThread_, MarkRunning, &state_);
    return -1;
}

int ToolCoreControllerImp::exit() {
    state_ = 2;
    return 1;
}

bool ToolCoreControllerImp::runCommand(int command, void* argument, void* /*reserved*/) {
    if (core_ == nullptr) return false;
    const bool selected = core_->m_selected;
    if (state_ == 1 && !selected) {
        if (command != kCommandDiagnostic) return false;
        parseDiagnostic(argument);
    }
    if (!selected) return false;
    if (state_ != 1) return true;
    switch (command) {
        case kCommandAudio: parseAudioControl(argument); return true;
        case kCommandLight: parseLightControl(argument); return true;
        case kCommandFirmwareUpdate: parseFirmwareUpdate(argument); return true;
        case kCommandDiagnostic: parseDiagnostic(argument); return true;
        case kCommandSelectDevice: parseSelectDevice(argument); return true;
        default: return false;
    }
}

// ---- Audio ------------------------------------------------------------------

bool ToolCoreControllerImp::parseAudioControl(void* argument) {
    if (argument == nullptr) return false;
    const AudioControl wanted = *static_cast<const AudioControl*>(argument);
    if (wanted.query != 0) {
        *lastAudio_ = wanted;
        cb_GetAudioInfo();
        return false;
    }
    const AudioControl last = lastAudio_ ? *lastAudio_ : AudioControl{};
    VideoConsoleCoreImp& core = *core_;
    AudioControl& cache = core.AudioCache();
    using Setter = bool (VideoConsoleCoreImp::*)(uint8_t*, int);
    struct Control {
        uint8_t AudioControl::*byte;
        Setter set;
        bool cached;
    };
    // In the record's byte order: 2, 3, 4, then the volumes 6, 7, 8.
    static constexpr Control kControls[] = {
        {&AudioControl::auxInMute, &VideoConsoleCoreImp::AudioAuxInMute, false},
        {&AudioControl::hpOutMute, &VideoConsoleCoreImp::AudioHpOutMute, false},
        {&AudioControl::micInMute, &VideoConsoleCoreImp::AudioMicInMute, false},
        {&AudioControl::auxInVolume, &VideoConsoleCoreImp::AudioAuxInVolume, true},
        {&AudioControl::hpOutVolume, &VideoConsoleCoreImp::AudioHpOutVolume, true},
        {&AudioControl::micInVolume, &VideoConsoleCoreImp::AudioMicInVolume, true},
    };
    for (const Control& c : kControls) {
        if (wanted.*c.byte == last.*c.byte) continue;
        uint8_t value = wanted.*c.byte;
        (core.*c.set)(&value, 0);
        if (c.cached) cache.*c.byte = wanted.*c.byte;
    }
    // The microcontroller keeps the new settings over a power cycle.
    core.SaveParameters();
    if (wanted.reportBack != 0) cb_GetAudioInfo();
    *lastAudio_ = wanted;
    return true;
}

bool ToolCoreControllerImp::cb_GetAudioInfo() {
    platform::SleepMilliseconds(50);
    VideoConsoleCoreImp& core = *core_;
    AudioControl state;
    state.auxInVolume = 6;
    state.hpOutVolume = 9;
    state.micInVolume = 6;
    core.AudioAuxInMute(&state.auxInMute, 1);
    core.AudioHpOutMute(&state.hpOutMute, 1);
    core.AudioMicInMute(&state.micInMute, 1);
    core.AudioAuxInVolume(&state.auxInVolume, 1);
    core.AudioHpOutVolume(&state.hpOutVolume, 1);
    core.AudioMicInVolume(&state.micInVolume, 1);
    core.GetHpMicPlugIn(&state.hpMicPlugged);
    core.GetLineInPlugIn(&state.lineInPlugged);
    AudioControl& cache = core.AudioCache();
    cache = state;
    *lastAudio_ = state;
    if (ToolCoreCallback callback = core.m_audioInfoCallback) callback(&cache);
    return true;
}

bool ToolCoreControllerImp::clearOldDeviceBuffer() {
    if (lastAudio_) *lastAudio_ = AudioControl{};
    return false;
}

// ---- Lights -----------------------------------------------------------------

bool ToolCoreControllerImp::parseLightControl(void* argument) {
    if (argument == nullptr) return false;
    const LightControlCommand& c = *static_cast<const LightControlCommand*>(argument);
    if (c.selector > 2) return false;
    VideoConsoleCoreImp& core = *core_;
    const uint8_t key = c.key < kLedEntries ? c.key : 0;
    if (c.query != 0) {
        // What was set under the key goes to the light callback.
        DeviceLightControl reply;
        reply.key = key;
        std::memcpy(reply.light, core.m_ledParameters + 5 * key, 5);
        if (ToolCoreCallback callback = core.m_lightInfoCallback) callback(&reply);
        return true;
    }
    if (c.selector == 0) return core.SetGpioLed(c.effect);  // a GPIO LED pattern
    if (c.selector == 1) {
        // Saved: the effect being previewed is the one the tool wants; the
        // preview's worker leaves it on.
        core.StopLightPreview();
        return firmware::SaveLedParameters(core, core.m_ledParameters);
    }

    core.m_lightMode = c.selector;
    bool colourFirst = true;
    for (const uint8_t effect : kEffectsWithoutColour) colourFirst &= c.effect != effect;
    if (colourFirst) firmware::SetRgbColour(core, c.first, c.third, c.second);
    firmware::SetRgbEffect(core, c.effect);
    uint8_t* entry = core.m_ledParameters + 5 * key;
    entry[0] = c.effect;
    entry[1] = c.first;
    entry[2] = c.second;
    entry[3] = c.third;
    entry[4] = c.parameter;
    // A new effect is a new preview: the old preview's worker is waited
    // for (it ends the old preview unless it was stopped), then a new one
    // ends this one unless it is stopped in time.
    destroyStopPreviewThread();
    platform::SleepMilliseconds(100);
    runStopPreviewThread();
    return false;
}

namespace {
// What a preview's worker is given: the core, and the number of stops
// asked for when it was started.
struct PreviewJob {
    VideoConsoleCoreImp* core;
    uint32_t stopsAtStart;
};
}  // namespace

// The worker's handle is the core's, so that the core, when it goes, ends
// the worker even if the controller was never deleted.
void ToolCoreControllerImp::runStopPreviewThread() {
    auto* job = new PreviewJob{core_, core_->m_previewStops.load()};
    if (!platform::StartThread(core_->m_previewThread, stopPreview, job)) delete job;
}

void ToolCoreControllerImp::destroyStopPreviewThread() {
    if (core_ == nullptr || core_->m_previewThread == nullptr) return;
    platform::JoinThread(core_->m_previewThread);
    core_->m_previewThread = nullptr;
}

// The worker clears the preview-stopped flag as it starts. A stop asked
// for between the worker's start and that clear would be lost with the
// flag alone; every stop also counts in m_previewStops, and a count that
// moved since the start is a stop as well.
uint32_t ToolCoreControllerImp::stopPreview(void* argument) {
    const std::unique_ptr<PreviewJob> job(static_cast<PreviewJob*>(argument));
    VideoConsoleCoreImp& core = *job->core;
    core.m_previewStopped = false;
    for (int poll = 0; poll < kStopPreviewPolls; ++poll) {
        platform::SleepMilliseconds(kStopPreviewPollMs);
        if (core.m_previewStopped || core.m_previewStops != job->stopsAtStart || core.m_stopping)
            return 0;
    }
    const bool off = firmware::SetRgbEffect(core, kPreviewOffEffect);
    platform::SleepMilliseconds(500);
    if (off) firmware::SetRgbEffect(core, kPreviewEndEffect);
    return 0;
}

// ---- Firmware ---------------------------------------------------------------

bool ToolCoreControllerImp::parseFirmwareUpdate(void* argument) {
    if (argument == nullptr) return false;
    const FwUpdateCommand& c = *static_cast<const FwUpdateCommand*>(argument);
    VideoConsoleCoreImp& core = *core_;
    if (c.query != 0) {
        const std::string usb = platform::WideToUtf8(c.UsbFilePath());
        const std::string mcu = platform::WideToUtf8(c.McuFilePath());
        if (usb.empty() && mcu.empty()) core.ScanWorkingFolderForFirmware();
        if (!usb.empty()) core.SetFirmwareFile(usb.c_str(), kFirmwareUsbHex);
        if (!mcu.empty()) core.SetFirmwareFile(mcu.c_str(), kFirmwareMcuBin);
        cb_GetFirmwareInfo();
        return true;
    }
    // Without the query flag the chosen target's update starts, unless one
    // runs or no file of that kind is armed.
    if (core.IsUpdating()) return false;
    if (c.target == 0) return core.m_usbFileValid != 0 && core.StartUsbFwUpdateForToolCore();
    return core.m_mcuFileValid != 0 && core.StartMcuFwUpdateForToolCore();
}

void ToolCoreControllerImp::cb_GetFirmwareInfo() {
    VideoConsoleCoreImp& core = *core_;
    DeviceFirmwareupdateInfo info;
    using Info = DeviceFirmwareupdateInfo;
    if (core.m_usbFileValid != 0) {
        info.SetText(Info::kUsbFileVersion, core.m_usbFileVersion);
        info.SetText(Info::kUsbFilePath, core.m_usbFilePath);
    }
    if (core.m_mcuFileValid != 0) {
        info.SetText(Info::kMcuFileVersion, core.m_mcuFileVersion);
        info.SetText(Info::kMcuFilePath, core.m_mcuFilePath);
    }
    std::string text;
    if (core.GetUsbFwVersion(text)) info.SetText(Info::kUsbFirmwareVersion, text);
    platform::SleepMilliseconds(20);
    if (core.GetMcuFwVersion(text)) info.SetText(Info::kMcuFirmwareVersion, text);
    info.SetUsbType(core.GetDeviceUsbType());
    info.SetFlashQuery(core.GetUsbAppInfo());
    info.SetModel(core.m_deviceModel);
    info.SetText(Info::kIdentification, core.m_deviceSerialText);
    if (ToolCoreCallback callback = core.m_firmwareUpdateInfoCallback) callback(&info);
}

std::string ToolCoreControllerImp::readFirmwareUpdate() {
    if (core_ == nullptr) return std::string();
    core_->ScanWorkingFolderForFirmware();
    // The version texts the core holds, armed or not.
    if (!core_->m_usbFileVersion.empty()) return core_->m_usbFileVersion;
    return core_->m_mcuFileVersion;
}

int ToolCoreControllerImp::updateFirmwareUpdate() {
    if (core_ == nullptr) return 1;  // nothing to start
    try {
        // The tool core's start has no guards of its own; a second update
        // beside a running one is refused here.
        if (core_->IsUpdating()) {
            core_->Report("An update is running; updateFirmwareUpdate starts no second one.\n");
            return 1;
        }
        core_->ScanWorkingFolderForFirmware();
        // The microcontroller's image first: a folder with both kinds
        // updates the microcontroller, and the bridge with the next call.
        if (core_->m_mcuFileValid != 0) {
            core_->StartMcuFwUpdateForToolCore();
        } else if (core_->m_usbFileValid != 0) {
            core_->StartUsbFwUpdateForToolCore();
        }
        return 1;
    } catch (const std::exception&) {
        return -1;
    }
}

// ---- Diagnostics and selection ---------------------------------------------

int ToolCoreControllerImp::dumpDiagnosticLog() { return 1; }

bool ToolCoreControllerImp::parseDiagnostic(void* argument) {
    if (argument == nullptr || core_ == nullptr) return false;
    diagnostics::HandleRequest(*core_, *static_cast<const DiagnosticRequest*>(argument));
    return false;
}

bool ToolCoreControllerImp::parseSelectDevice(void* argument) {
    if (argument == nullptr) return false;
    const DeviceIdentity& wanted = *static_cast<const DeviceIdentity*>(argument);
    // The devices of the last scan; no new scan is made.
    for (const FoundDevice& device : core_->LastScan()) {
        if (SameHexText(wanted.vid, device.vid.c_str()) &&
            SameHexText(wanted.pid, device.pid.c_str()) && wanted.instance == device.instance) {
            DeviceEntry* entry = AllocateDeviceList({device});
            const bool selected = entry != nullptr && core_->SelectDevice(entry);
            FreeDeviceEntries(entry, entry != nullptr ? 1 : 0);
            return selected;
        }
    }
    std::fputs("error !! not find device\n", stdout);
    std::fflush(stdout);
    return false;
}

// ---- Callbacks --------------------------------------------------------------

int ToolCoreControllerImp::CB_RegisterDeviceInfo(ToolCoreCallback /*callback*/) {
    std::fputs("[unmanaged] got callback address, calling it...\n", stdout);
    std::fflush(stdout);
    if (core_ == nullptr || core_->DeviceStateCallback() != nullptr) return -1;
    return 1;  // acknowledged, not kept: nothing calls it
}

namespace {
int Register(VideoConsoleCoreImp* core, std::atomic<ToolCoreCallback> VideoConsoleCoreImp::*slot,
             ToolCoreCallback callback) {
    if (core == nullptr) return -1;
    ToolCoreCallback empty = nullptr;
    return (core->*slot).compare_exchange_strong(empty, callback) ? 1 : -1;
}
}  // namespace

int ToolCoreControllerImp::CB_RegisterDiagnosticInfo(ToolCoreCallback callback) {
    return Register(core_, &VideoConsoleCoreImp::m_diagnosticInfoCallback, callback);
}
int ToolCoreControllerImp::CB_RegisterAudioInfo(ToolCoreCallback callback) {
    return Register(core_, &VideoConsoleCoreImp::m_audioInfoCallback, callback);
}
int ToolCoreControllerImp::CB_RegisterLightInfo(ToolCoreCallback callback) {
    return Register(core_, &VideoConsoleCoreImp::m_lightInfoCallback, callback);
}
int ToolCoreControllerImp::CB_RegisterFirmwareUpdateInfo(ToolCoreCallback callback) {
    return Register(core_, &VideoConsoleCoreImp::m_firmwareUpdateInfoCallback, callback);
}

// ---- Factories ----------------------------------------------------------------

ToolCoreInterface* createToolCore() { return new ToolCoreControllerImp(); }

PropertyManagerWin_Export* GetPropertyManagerWin_Export() { return nullptr; }

int SaveSystemReport() {
    VideoConsoleCoreImp* core = g_VC_CorePointer.load();
    return core != nullptr ? core->SaveSystemReport() : 0;
}

namespace toolcore {

void NotifyFirmwareUpdateInfo(VideoConsoleCoreImp& core, const char* usbFileText,
                              const char* mcuFileText, const char* state, const char* message,
                              float percent) {
    const ToolCoreCallback callback = core.m_firmwareUpdateInfoCallback;
    if (callback == nullptr) return;
    DeviceFirmwareupdateInfo info;
    info.SetText(DeviceFirmwareupdateInfo::kUsbFileVersion, usbFileText);
    info.SetText(DeviceFirmwareupdateInfo::kMcuFileVersion, mcuFileText);
    info.SetText(DeviceFirmwareupdateInfo::kState, state);
    info.SetText(DeviceFirmwareupdateInfo::kMessage, message);
    info.SetPercent(percent);
    info.SetModel(core.m_deviceModel);
    callback(&info);
}

}  // namespace toolcore
}  // namespace VideoConsoleCore
