// The class face's controller: a desktop tool drives the library through
// runCommand with a command number and its record, and gets the results
// through the callbacks it registered. Each command uses the same core
// operations as the flat C API.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "VideoConsoleCore.h"

namespace VideoConsoleCore {

class VideoConsoleCoreImp;
namespace platform {
struct Thread;
}

class ToolCoreControllerImp final : public ToolCoreInterface {
public:
    ToolCoreControllerImp() = default;
    ~ToolCoreControllerImp() override;
    ToolCoreControllerImp(const ToolCoreControllerImp&) = delete;
    ToolCoreControllerImp& operator=(const ToolCoreControllerImp&) = delete;

    int init() override;
    int start() override;
    int exit() override;
    bool runCommand(int command, void* argument, void* reserved) override;
    std::string readFirmwareUpdate() override;
    int updateFirmwareUpdate() override;
    int dumpDiagnosticLog() override;
    int CB_RegisterDeviceInfo(ToolCoreCallback callback) override;
    int CB_RegisterDiagnosticInfo(ToolCoreCallback callback) override;
    int CB_RegisterAudioInfo(ToolCoreCallback callback) override;
    int CB_RegisterLightInfo(ToolCoreCallback callback) override;
    int CB_RegisterFirmwareUpdateInfo(ToolCoreCallback callback) override;

    // Forgets the last applied audio record; false.
    bool clearOldDeviceBuffer();
    int State() const { return state_; }

private:
    bool parseAudioControl(void* argument);
    bool parseLightControl(void* argument);
    bool parseFirmwareUpdate(void* argument);
    bool parseDiagnostic(void* argument);
    bool parseSelectDevice(void* argument);
    bool cb_GetAudioInfo();
    void cb_GetFirmwareInfo();

    void runStopPreviewThread();
    void destroyStopPreviewThread();
    static uint32_t stopPreview(void* core);

    std::atomic<int> state_{0};  // 0 after init, 1 running, 2 after exit
    VideoConsoleCoreImp* core_ = nullptr;
    std::unique_ptr<AudioControl> lastAudio_;  // the last applied audio record
    platform::Thread* startThread_ = nullptr;
};

}  // namespace VideoConsoleCore
