// The USB firmware update: writes the accepted flash image into the bridge
// chip's SPI flash, whole or area by area, compares the firmware part, keeps
// the device's own string in descriptor slot 3, and reports the outcome.
//
// The start runs on the caller's thread and hands the writing to one writer
// thread. The device keeps running what its flash held until it is
// re-plugged; what it runs then depends on the boot configuration word at
// 0x70000, which the firmware-area write clears before it touches the
// firmware and sets again only after the compare has passed.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "core/VideoConsoleCoreImp.h"
#include "firmware/firmware_file.h"
#include "firmware/lights.h"
#include "firmware/update_common.h"
#include "firmware/version_rules.h"
#include "hid/flash_identification.h"
#include "hid/report_protocol.h"
#include "platform/platform.h"

namespace VideoConsoleCore {

namespace {

using firmware::UpdateWait;

// The flash areas of the image, in the order they are reported.
struct Area {
    uint32_t start;
    uint32_t length;
    const char* label;
};
constexpr Area kAreas[3] = {{0x180000, 0x370000, "- Firmware Area\n"},
                            {0x4F0000, 0x10000, "- Private Area\n"},
                            {0x500000, 0x300000, "- Customized Area\n"}};
constexpr int kFirmwareArea = 0;

constexpr uint32_t kConfigBlock = 0x70000;  // first word: boot the updated firmware (1) or not
constexpr uint32_t kConfigBlockSize = 4096;
constexpr uint32_t kHeaderLengthAt = 0x18000C;  // big-endian
constexpr uint32_t kBootSizeAt = 0x180010;      // big-endian
constexpr uint32_t kStringBlock = 0x520000;     // USB string descriptors, 128 bytes a slot
constexpr uint32_t kStringBlockLength = 0x10000;
constexpr uint32_t kSlot3 = 3 * 128;

constexpr uint8_t kCaseFirmware = 0;
constexpr uint8_t kCaseWhole = 1;
constexpr uint8_t kCaseConfig = 2;
constexpr uint8_t kCaseOther = 3;

constexpr uint32_t kEndSettleMs = 86;
constexpr uint32_t kBeforeStateMs = 46;
constexpr uint32_t kRgbSettleMs = 100;
constexpr uint32_t kStartRgbMs = 100;

constexpr const char* kPassText = "The USB firmware has been updated, please re-plug the device.";
constexpr const char* kFailText = "The diagnostic of USB is failed.";

std::string Printf(const char* format, uint32_t value) {
    char text[160];
    std::snprintf(text, sizeof text, format, static_cast<unsigned>(value));
    return text;
}

uint32_t Be32(const uint8_t* at) {
    return (uint32_t{at[0]} << 24) | (uint32_t{at[1]} << 16) | (uint32_t{at[2]} << 8) | at[3];
}

// The writer's state for one update.
class UsbWriter {
public:
    UsbWriter(VideoConsoleCoreImp& core, const firmware::FirmwareImage& image)
        : core_(core), image_(image.Bytes()), imageSize_(image.Size()) {}

    bool Run() {
        core_.m_flashBusy = true;
        if (!ReadSlot3String()) return false;
        if (core_.m_chkFirmware != 1 && core_.m_chkPrivate != 1 && core_.m_chkCustomized != 0) {
            core_.DebugOut("No any item is selected in other area");
            return false;
        }
        core_.m_updateRunning = true;
        if (core_.m_doAreaEntire || (core_.m_doAreaOther && core_.m_chkFirmware)) {
            if (!WriteMainImage()) return false;
        }
        PatchSlot3();
        if (core_.m_doAreaOther && !WriteOtherAreas()) return false;

        core_.m_flashBusy = false;
        std::string result;
        for (int area = 0; area < 3; ++area)
            if (mask_ & (1u << area)) result += kAreas[area].label;
        result = mask_ != 0 ? result + "\n has updated, please replug-in device!"
                            : "The entire flash has updated, please replug-in device!";
        core_.DebugOut(result);
        core_.LogInfo("The entire flash has updated, please replug-in device!");
        return true;
    }

private:
    bool FlashSetUp(uint8_t burstCase, uint32_t address, uint32_t length) {
        if (AccessFlashData(core_, kFlashOpSetUp, burstCase, address, length, nullptr)) return true;
        core_.DebugOut(Printf("Unknown error: Couldn't execute AP_FLASH_BURST_LATER--case %d\n",
                              burstCase));
        return false;
    }

    // Keeps the device's own string of descriptor slot 3: its length and
    // type bytes and the low bytes of its 16 UTF-16 units.
    bool ReadSlot3String() {
        std::vector<uint8_t>& block = core_.m_flashBuffer;
        if (!FlashSetUp(kCaseOther, kStringBlock, kStringBlockLength) ||
            !BurstFlashAccess(core_, kFlashOpToMemory, kStringBlockLength, block.data(),
                              block.size(), 0))
            return false;
        slot3Length_ = block[kSlot3];
        slot3Type_ = block[kSlot3 + 1];
        for (int i = 0; i < 16; ++i) slot3Text_[i] = block[kSlot3 + 2 + 2 * i];
        return true;
    }

    // The boot configuration word: read the 4 KiB block, set its first
    // word, write it back.
    bool SetConfigWord(uint32_t value) {
        uint8_t* block = configBlock_;
        if (!AccessFlashData(core_, kFlashOpRead, kCaseConfig, kConfigBlock, kConfigBlockSize,
                             block)) {
            core_.DebugOut(Printf("Unknown error: Couldn't execute AP_FLASH_READ--case %d\n",
                                  kCaseConfig));
            core_.LogInfo("Unknown error: Couldn't execute AP_FLASH_READ--case ");
            return false;
        }
        for (int i = 0; i < 4; ++i) block[i] = static_cast<uint8_t>(value >> (8 * i));
        if (!AccessFlashData(core_, kFlashOpWrite, kCaseConfig, kConfigBlock, kConfigBlockSize,
                             block)) {
            core_.DebugOut(Printf("Unknown error: Couldn't execute AP_FLASH_WRITE--case %d\n",
                                  kCaseConfig));
            return false;
        }
        return true;
    }

    bool FitsFile(uint32_t start, uint64_t length) const {
        return uint64_t{start} + length <= imageSize_;
    }

    bool WriteMainImage() {
        const bool firmwareArea = !core_.m_doAreaEntire;
        uint8_t burstCase = kCaseWhole;
        uint32_t start = 0;
        uint32_t length = imageSize_;
        if (firmwareArea) {
            burstCase = kCaseFirmware;
            start = kAreas[kFirmwareArea].start;
            if (!FitsFile(kBootSizeAt, 4)) {
                core_.Report("FlashWrite -- The file holds no firmware header.\n");
                return false;
            }
            const uint32_t header = Be32(image_ + kHeaderLengthAt);
            const uint32_t boot = Be32(image_ + kBootSizeAt);
            const uint64_t sum = uint64_t{header} + boot;
            core_.DebugOut(Printf("FlashWrite -- Header_len - 0x%x\n", header));
            core_.DebugOut(Printf("FlashWrite -- Boot_Size - 0x%x\n", boot));
            core_.DebugOut(Printf("FlashWrite -- compressed Diagnostic  length_0 - 0x%x\n",
                                  static_cast<uint32_t>(sum)));
            const uint32_t unit = core_.m_bytesPerBlock;
            if (unit == 0) {
                core_.Report(
                    "FlashWrite -- The flash part's erase unit is unknown; the firmware area "
                    "cannot be written.\n");
                return false;
            }
            const uint64_t rounded = (sum + unit - 1) / unit * unit;
            core_.DebugOut(Printf("FlashWrite -- compressed Diagnostic  length_1 - 0x%x\n",
                                  static_cast<uint32_t>(rounded)));
            if (sum == 0 || rounded > kAreas[kFirmwareArea].length || !FitsFile(start, rounded)) {
                core_.Report(Printf(
                    "FlashWrite -- Header_len + Boot_Size (0x%x) do not fit the file or the "
                    "firmware area; nothing was written.\n",
                    static_cast<uint32_t>(sum)));
                return false;
            }
            length = static_cast<uint32_t>(rounded);
            if (!SetConfigWord(0)) return false;
        }

        // Optionally the whole image is written with its boot configuration
        // word held back (0), and the word is set only after the compare.
        const bool holdValid = !firmwareArea && core_.Setting("USB_Entire_Valid_Last") == "1" &&
                               FitsFile(kConfigBlock, 4);
        uint8_t imageWord[4] = {};
        if (holdValid) {
            std::memcpy(imageWord, image_ + kConfigBlock, 4);
            std::memset(image_ + kConfigBlock, 0, 4);
        }

        const uint32_t address = burstCase == kCaseWhole ? 0 : kAreas[kFirmwareArea].start;
        if (!FlashSetUp(burstCase, address, length)) return false;
        if (!Burst(kFlashOpWrite, start, length)) {
            core_.Report("FlashWrite -- Transfer to the flash failed.\n");
            return false;
        }
        core_.DebugOut(Printf("FlashWrite -- Transfer %d bytes to Firmware\n", length));
        if (!FlashSetUp(burstCase, address, length)) return false;
        if (!Burst(kFlashOpRead, start, length)) {
            core_.Report("FlashWrite -- Compare failed");
            return false;
        }
        if (firmwareArea && !SetConfigWord(1)) return false;
        if (holdValid) {
            std::memcpy(image_ + kConfigBlock, imageWord, 4);
            uint32_t word = 0;
            for (int i = 3; i >= 0; --i) word = (word << 8) | imageWord[i];
            if (!SetConfigWord(word)) return false;
            core_.DebugOut(Printf(
                "FlashWrite -- Boot configuration word 0x%x written after the compare.\n", word));
        }
        core_.Report("FlashWrite -- Compare data OK.\n");
        mask_ = firmwareArea ? 1u : 0u;
        return true;
    }

    // The device's own string goes into slot 3 of the image in memory. In
    // whole-image mode the flash already holds the image's own slot 3;
    // the patch reaches the flash with the Customized area in the other
    // mode.
    void PatchSlot3() {
        const uint32_t at = kStringBlock + kSlot3;
        if (!FitsFile(at, 128)) return;
        uint8_t slot[128] = {34, 3};
        for (int i = 0; i < 16; ++i) slot[2 + 2 * i] = slot3Text_[i];
        std::memcpy(image_ + at, slot, sizeof slot);
    }

    bool WriteOtherAreas() {
        for (int area = 1; area < 3; ++area) {
            if (!(area == 1 ? core_.m_chkPrivate : core_.m_chkCustomized)) continue;
            const Area& a = kAreas[area];
            if (!FitsFile(a.start, a.length)) {
                core_.Report(Printf("FlashWrite -- The file ends before the end of the area at "
                                    "0x%x; nothing more was written.\n",
                                    a.start));
                return false;
            }
            if (!FlashSetUp(kCaseOther, a.start, a.length)) return false;
            if (Burst(kFlashOpWrite, a.start, a.length)) {
                core_.DebugOut(Printf(
                    "FlashWrite for Customized-- Transfer %d bytes to Firmware\n", a.length));
                mask_ |= 1u << area;
            }
        }
        return true;
    }

    // A burst over the file's bytes [start, start + length), with the
    // progress records and the activity light.
    bool Burst(int operation, uint32_t start, uint32_t length) {
        firmware::ProgressReporter progress(
            core_, operation == kFlashOpWrite ? "USB firmware is updating.."
                                              : "USB firmware is verifying..");
        const BurstProgress step = [&](int, uint32_t done, uint32_t total) {
            firmware::BlinkStep(core_);
            if (!core_.m_progressSilenced) progress.Report(done, total, nullptr);
        };
        return BurstFlashAccess(core_, operation, length, image_, imageSize_, start, step) != 0;
    }

    VideoConsoleCoreImp& core_;
    // The update's own copy of the file: the slot-3 patch and the held-back
    // boot word change it, nothing outside the writer sees it.
    uint8_t* const image_;
    const uint32_t imageSize_;
    uint8_t configBlock_[kConfigBlockSize] = {};
    uint8_t slot3Length_ = 0;
    uint8_t slot3Type_ = 0;
    uint8_t slot3Text_[16] = {};
    uint32_t mask_ = 0;
};

uint32_t RunUsbWriter(void* argument) {
    const std::unique_ptr<firmware::UpdateJob> job(static_cast<firmware::UpdateJob*>(argument));
    VideoConsoleCoreImp& core = job->core;
    const bool ok = UsbWriter(core, job->image).Run();

    job->image.Release();
    core.m_progressSilenced = true;
    core.m_progressSilenced = false;
    UpdateWait(core, kEndSettleMs);
    core.m_writeFlag = false;
    core.m_updateRunning = false;
    core.m_updateFinished = true;

    if (firmware::HasGpioLed(core.m_deviceModel)) {
        firmware::StartFinishLights(core, ok);
    } else if (firmware::HasRgbLight(core.m_deviceModel)) {
        UpdateWait(core, kRgbSettleMs);
        firmware::SetRgbPhase(core, ok ? firmware::kPhaseSucceeded : firmware::kPhaseFailed);
    }

    if (ok) {
        const std::string pass = core.Setting("msg_update_pass");
        core.LogInfo(pass.empty() ? kPassText : pass);
        core.NotifyFwUpdateState(nullptr, nullptr, "UpdateCompleted", kPassText, 100.0f);
    } else {
        const std::string configured = core.Setting("msg_usb_update_fail");
        const std::string message = configured.empty() ? kFailText : configured;
        core.LogInfo(message);
        core.NotifyFwUpdateState(nullptr, nullptr, "UpdateFailed", message.c_str(), 0.0f);
    }

    UpdateWait(core, kBeforeStateMs);
    return firmware::EndUpdateThread(core, "Call Exit_Write_Thread_0.\n",
                                     "Call Exit_Write_Thread_1.\n",
                                     "USB firmware update is Finish.\n");
}

}  // namespace

// The preparation both starts share, after their own guards; the device
// state is 3 already. `toolCore`: no log line, no callbacks, the RGB phase
// for every model.
bool VideoConsoleCoreImp::BeginUsbUpdate(bool toolCore) {
    const auto fail = [&](const char* text) { return firmware::FailStart(*this, toolCore, text); };
    platform::IsExistingFile(m_usbFilePath.empty() ? std::string("*.hex") : m_usbFilePath);
    firmware::EndFinishLights(*this);
    m_updateRunning = false;
    if (!toolCore) {
        LogInfo("--------Start Update USB--------");
        NotifyFwUpdateState(nullptr, nullptr, "Updating initialization", nullptr);
    }

    const bool read = firmware::ReadFirmwareFile(*this, m_usbFilePath);
    if (toolCore || firmware::HasRgbLight(m_deviceModel)) {
        firmware::SetRgbPhase(*this, firmware::kPhaseUpdating);
        firmware::UpdateWait(*this, kStartRgbMs);
    }

    m_flashDeviceId = 0xFFFF;  // only this identification counts
    ReadFlashIdentification(*this);
    ApplyBurnAreaSetting();

    if (!read || m_openFile == platform::kNoFile) return fail("Please select the burn file !");
    if (!firmware::SameFileAsAccepted(*this, kFirmwareUsbHex))
        return fail(
            "The selected file has changed since it was set; please set it again.\n");
    if (m_flashDeviceId == 0xFFFF) return fail("Please execute Get ID function !");

    DebugOut("Start write data to flash.\n");
    // From here on the image is the writer's: nothing else can free, replace
    // or read into it until the update has ended.
    auto job = std::make_unique<firmware::UpdateJob>(
        firmware::UpdateJob{*this, firmware::TakeFirmwareFile(*this)});
    if (!firmware::StartUpdateThread(*this, RunUsbWriter, std::move(job)))
        return fail("USB Firmware read failed");
    m_usbFileValid = 0;
    return true;
}

bool VideoConsoleCoreImp::StartUsbFwUpdate() {
    return firmware::PassStartGuards(*this, m_usbFileValid) && BeginUsbUpdate(false);
}

bool VideoConsoleCoreImp::StartUsbFwUpdateForToolCore() {
    if (!firmware::ClaimUpdate(*this)) return false;
    return BeginUsbUpdate(true);
}

}  // namespace VideoConsoleCore
