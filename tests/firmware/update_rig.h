// A virtual device selected by a core object of its own, for tests of the
// updaters that look at the device's flash and microcontroller directly.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/VideoConsoleCoreImp.h"
#include "discovery/device_list.h"
#include "firmware/update_common.h"
#include "support/test_support.h"
#include "virtual/device/usb_image.h"
#include "virtual/device/virtual_hid_backend.h"
#include "virtual/mcu/mcu_image.h"

namespace korvsdk_test {

inline std::vector<std::string> g_states;
inline std::vector<std::string> g_messages;
inline void OnFwState(DevFwUpdateStateInfo* info) {
    g_states.emplace_back(info->state ? info->state : "");
    g_messages.emplace_back(info->message ? info->message : "");
}

// One device, selected by a core of its own, with its own settings.
class Rig {
public:
    explicit Rig(const std::string& settings) : cwd_(folder_.path()) {
        MessageLog::Clear();
        g_states.clear();
        g_messages.clear();
        core_.SetDebugOutputHandler(MessageLog::Collect);
        korvsdk_test::WriteFile(folder_.path() / "setting.cfg",
                                "EnableLocalLogging=0\nDeviceBackend=virtual\nDevIDNum=1\n"
                                "DevDrvID0=USB\\VID_FFF0&PID_0C01\nFW_Overwrite=99\n" +
                                    settings);
        ok_ = core_.Initialize("setting.cfg") && core_.ScanDeviceList(&list_, &count_) &&
              count_ == 1 && core_.SelectDevice(&list_[0]);
        core_.OpenFwUpdateStateCallback(OnFwState);
    }
    ~Rig() { VideoConsoleCore::FreeDeviceEntries(list_, count_); }
    bool ok() const { return ok_; }

    // Scans again and selects the device (after a re-plug).
    bool Reselect() {
        VideoConsoleCore::FreeDeviceEntries(list_, count_);
        return core_.ScanDeviceList(&list_, &count_) && count_ == 1 &&
               core_.SelectDevice(&list_[0]);
    }

    VideoConsoleCore::virtualdev::VirtualHidBackend& Device() {
        return *static_cast<VideoConsoleCore::virtualdev::VirtualHidBackend*>(core_.Hid());
    }
    std::vector<uint8_t> Flash(uint32_t address, uint32_t length) {
        std::vector<uint8_t> bytes(length);
        Device().Flash(0).Read(address, bytes.data(), length);
        return bytes;
    }
    std::string Write(const std::vector<uint8_t>& image, const char* name = "u.hex") {
        const std::string path = (folder_.path() / name).string();
        EXPECT_TRUE(VideoConsoleCore::virtualdev::WriteUsbImageFile(path, image));
        return path;
    }
    // Sets the file and runs an update to its end; the start's result.
    bool Update(const std::string& path,
                VideoConsoleCore::FirmwareKind kind = VideoConsoleCore::kFirmwareUsbHex) {
        if (!core_.SetFirmwareFile(path.c_str(), kind)) return false;
        const bool usb = kind == VideoConsoleCore::kFirmwareUsbHex;
        const bool started = usb ? core_.StartUsbFwUpdate() : core_.StartMcuFwUpdate();
        VideoConsoleCore::firmware::JoinUpdateThread(core_);
        return started;
    }
    std::string WriteMcu(const VideoConsoleCore::virtualdev::McuImageOptions& options,
                         const char* name = "m.bin") {
        const std::string path = (folder_.path() / name).string();
        EXPECT_TRUE(VideoConsoleCore::virtualdev::WriteMcuImageFile(
            path, VideoConsoleCore::virtualdev::BuildMcuImage(options)));
        return path;
    }

    korvsdk_test::TempFolder folder_;
    korvsdk_test::WorkingFolder cwd_;
    VideoConsoleCore::VideoConsoleCoreImp core_;
    DeviceEntry* list_ = nullptr;
    uint16_t count_ = 0;
    bool ok_ = false;
};

}  // namespace korvsdk_test
