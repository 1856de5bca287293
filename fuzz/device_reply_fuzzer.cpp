// Fuzz target: the library's handling of what the device answers.
//
// A virtual device (the library's own model of the board) is selected by a
// fresh core object and driven through every query and the start of both
// firmware updates. The device computes each input report as usual; the
// fuzz input then decides, reply by reply, what the library gets instead.
//
// Input layout (missing bytes read as zero):
//   byte 0   bits 0-1: the board model (13, 6, 7 or 10: GPIO LED, RGB light
//            and register-descriptor boards); bit 2: the USB update
//            writes the firmware area (USB_Burn_Area=1) instead of the
//            whole image; bits 4-7: how many report
//            transfers (either way) each update gets before the device
//            stops answering (8..68)
//   then, one instruction per input report:
//            bits 2-7: this many replies pass untouched first;
//            bits 0-1: 0 pass, 1 flip one byte (offset byte, mask byte),
//            2 overwrite from the start (length byte, bytes), 3 the
//            transfer fails.
//   Past the end of the input every reply passes.
//
// Besides crashes, sanitizer reports, leaks and hangs, it stops when an
// update is still marked running after its thread has ended.
#include <cstring>
#include <mutex>

#include "discovery/device_list.h"
#include "firmware/lights.h"
#include "firmware/update_common.h"
#include "fuzz_core.h"
#include "virtual/device/usb_image.h"
#include "virtual/device/virtual_hid_backend.h"
#include "virtual/mcu/mcu_image.h"

using namespace VideoConsoleCore;
namespace vd = VideoConsoleCore::virtualdev;

namespace {

class ReplyFuzzBackend : public vd::VirtualHidBackend {
public:
    ReplyFuzzBackend(std::vector<vd::VirtualDeviceConfig> configs, fuzz::InputReader& input)
        : VirtualHidBackend(std::move(configs)), input_(input) {}

    // Transfers (reports either way) left before the device stops
    // answering; negative: no limit.
    void Limit(int transfers) {
        std::lock_guard lock(mutex_);
        left_ = transfers;
    }

    bool SetOutputReport(hid::HidHandle handle, void* buffer, uint32_t length) override {
        return Transfer() && VirtualHidBackend::SetOutputReport(handle, buffer, length);
    }

    bool GetInputReport(hid::HidHandle handle, void* buffer, uint32_t length) override {
        if (!Transfer()) return false;
        const bool ok = VirtualHidBackend::GetInputReport(handle, buffer, length);
        std::lock_guard lock(mutex_);
        if (!ok || length == 0) return ok;
        if (passing_ > 0) {
            --passing_;
            return true;
        }
        if (input_.Left() == 0) return true;
        const uint8_t op = input_.Byte();
        passing_ = op >> 2;
        auto* bytes = static_cast<uint8_t*>(buffer);
        switch (op & 3) {
            case 1: {
                const uint8_t at = input_.Byte();
                bytes[at % length] ^= input_.Byte();
                return true;
            }
            case 2: {
                const std::string with = input_.Text();
                std::memcpy(bytes, with.data(), std::min<size_t>(with.size(), length));
                return true;
            }
            case 3: return false;
            default: return true;
        }
    }

private:
    bool Transfer() {
        std::lock_guard lock(mutex_);
        if (left_ == 0) return false;
        if (left_ > 0) --left_;
        return true;
    }

    fuzz::InputReader& input_;
    std::mutex mutex_;
    int left_ = -1;
    uint32_t passing_ = 0;
};

// The update files, the same for every run: images of the virtual board.
// The flash image is its first 4 KiB, which only force mode takes: a whole
// image (5 MiB and more) would be read and hashed twice per run, which made
// the runs a hundred times slower, and within a budget of 68 transfers an
// update writes no further than that anyway. What the short file changes:
// a firmware-area update stops at its missing firmware header, and a
// whole-image one reaches its compare after 4 KiB.
struct UpdateFiles {
    fuzz::MemoryFile usb{"u.hex"};
    fuzz::MemoryFile mcu{"m.bin"};
    UpdateFiles() {
        vd::UsbImageOptions options;
        options.size = 0x1000;
        const std::vector<uint8_t> image = vd::BuildUsbImage(options);
        usb.Resize(image.size());
        usb.Write(0, image.data(), image.size());
        const std::vector<uint8_t> program = vd::BuildMcuImage({});
        mcu.Resize(program.size());
        mcu.Write(0, program.data(), program.size());
    }
};

void RunUpdate(VideoConsoleCoreImp& core, ReplyFuzzBackend& device, const std::string& path,
               FirmwareKind kind, int transfers) {
    device.Limit(-1);
    if (!core.SetFirmwareFile(path.c_str(), kind)) return;
    device.Limit(transfers);
    if (kind == kFirmwareUsbHex) {
        core.StartUsbFwUpdate();
    } else {
        core.StartMcuFwUpdate();
    }
    firmware::JoinUpdateThread(core);
    firmware::StopLightThreads(core);
    fuzz::Check(!core.IsUpdating(), "update still marked running after its thread ended");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const UpdateFiles files;
    fuzz::InputReader input(data, size);
    const uint8_t setup = input.Byte();
    constexpr uint8_t kModels[4] = {13, 6, 7, 10};
    vd::VirtualDeviceConfig config;
    config.modelCode = kModels[setup & 3];
    config.mcu.deviceType = config.modelCode;
    config.serial = "VC00000001";
    const int updateTransfers = 8 + 4 * (setup >> 4);

    VideoConsoleCoreImp core;
    fuzz::QuietCore(core, {{"DevIDNum", "1"},
                           {"DevDrvID0", "USB\\VID_FFF0&PID_0C01"},
                           {"FW_Overwrite", "99"},
                           {"USB_Burn_Area", (setup & 4) != 0 ? "1" : "0"}});
    auto owned = std::make_unique<ReplyFuzzBackend>(std::vector{config}, input);
    ReplyFuzzBackend& device = *owned;
    core.UseHidBackend(std::move(owned));

    DeviceEntry* list = nullptr;
    uint16_t count = 0;
    const bool selected = core.ScanDeviceList(&list, &count) && count == 1 &&
                          core.SelectDevice(&list[0]);
    FreeDeviceEntries(list, count);
    if (!selected) return 0;

    std::string text;
    core.GetUsbFwVersion(text);
    core.GetMcuFwVersion(text);
    core.GetHdmiInfo();
    core.GetMcuInfo();
    core.GetUsbAppInfo();
    core.GetDeviceUsbType();
    core.CheckMcuOnBoard();
    core.CheckAudioIcOnBoard();
    core.CheckBootMode();
    uint8_t value = 0;
    for (auto query : {&VideoConsoleCoreImp::AudioAuxInMute, &VideoConsoleCoreImp::AudioHpOutMute,
                       &VideoConsoleCoreImp::AudioMicInMute, &VideoConsoleCoreImp::AudioAuxInVolume,
                       &VideoConsoleCoreImp::AudioHpOutVolume,
                       &VideoConsoleCoreImp::AudioMicInVolume}) {
        (core.*query)(&value, 1);
    }
    core.GetHdmiVideoLocked(&value);
    core.GetHpMicPlugIn(&value);
    core.GetLineInPlugIn(&value);

    RunUpdate(core, device, files.usb.Path(), kFirmwareUsbHex, updateTransfers);
    RunUpdate(core, device, files.mcu.Path(), kFirmwareMcuBin, updateTransfers);
    return 0;
}
