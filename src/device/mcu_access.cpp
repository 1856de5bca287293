#include "device/mcu_access.h"

#include <array>
#include <string>

#include "core/VideoConsoleCoreImp.h"
#include "hid/report_protocol.h"
#include "platform/platform.h"

namespace VideoConsoleCore {

namespace {

// The bridge status and the save status are polled this often, this far
// apart; the microcontroller needs the time, so the pauses are exact.
constexpr int kBridgePolls = 10;
constexpr uint32_t kBridgePollPauseMs = 100;
constexpr uint32_t kSaveFirstPauseMs = 100;
constexpr int kSavePolls = 30;
constexpr uint32_t kSavePollPauseMs = 100;
// Bootloader entry: up to 300 looks at the work mode, 10 ms apart, then up
// to ten reads of the bootloader version, 1 ms apart.
constexpr int kWorkModePasses = 300;
constexpr uint32_t kWorkModePauseMs = 10;
constexpr uint32_t kJumpPauseMs = 1;
constexpr int kVersionReads = 10;
constexpr uint32_t kVersionPauseMs = 1;

constexpr uint8_t kWorkModeBootloader = 0;
constexpr uint8_t kWorkModeApplication = 1;

// A register read at 0x1A for the probes: transfer ran, acknowledged, and a
// value below 0xFF (an absent register reads 0xFF).
bool Probe(VideoConsoleCoreImp& core, uint8_t reg) {
    uint8_t data[2] = {reg, 0};
    if (!AccessIicData(core, kIicRead, kMcuAddress, 1, data, 1)) return false;
    return data[0] == 0 && data[1] < 0xFF;
}

// Builds the bridge command (0xCD ...) into `frame`; returns its length.
size_t BridgeCommand(std::array<uint8_t, 256>& frame, uint8_t busByte, uint8_t device,
                     uint32_t address, uint8_t addressLength, uint8_t count) {
    frame.fill(0);
    size_t n = 0;
    frame[n++] = mcu_reg::kBridgeCommand;
    frame[n++] = busByte;
    frame[n++] = device;
    frame[n++] = addressLength;
    const int bytes = (addressLength >= 2 && addressLength <= 4) ? addressLength : 1;
    for (int i = bytes - 1; i >= 0; --i) frame[n++] = static_cast<uint8_t>(address >> (8 * i));
    frame[n++] = count;
    return n;
}

// Polls the bridge status until the transaction has finished (status 0).
bool WaitForBridge(VideoConsoleCoreImp& core) {
    for (int poll = 1; poll <= kBridgePolls; ++poll) {
        uint8_t status = 0xFF;
        if (!ReadMcuRegister(core, mcu_reg::kBridgeStatus, &status)) return false;
        if (status == 0) return true;
        if (poll == kBridgePolls) break;
        platform::SleepMilliseconds(kBridgePollPauseMs);
    }
    return false;
}

}  // namespace

uint32_t WriteMcuRegister(VideoConsoleCoreImp& core, uint8_t reg, uint8_t value) {
    uint8_t data[2] = {reg, value};
    return AccessIicData(core, kIicWrite, core.m_mcuI2cAddress, 2, data, 0) && data[0] == 0;
}

uint32_t ReadMcuRegister(VideoConsoleCoreImp& core, uint8_t reg, uint8_t* value) {
    uint8_t data[2] = {reg, 0};
    if (!AccessIicData(core, kIicRead, core.m_mcuI2cAddress, 1, data, 1) || data[0] != 0)
        return 0;
    if (value != nullptr) *value = data[1];
    return 1;
}

bool BridgeI2cRead(VideoConsoleCoreImp& core, uint8_t bus, uint8_t device, uint32_t address,
                   uint8_t addressLength, uint8_t* out, uint8_t count) {
    std::array<uint8_t, 256> frame{};
    const size_t length = BridgeCommand(frame, static_cast<uint8_t>((bus & 3) | 0x80), device,
                                        address, addressLength, count);
    if (!AccessIicData(core, kIicWrite, kMcuAddress, static_cast<uint8_t>(length), frame.data(),
                       0) ||
        frame[0] != 0)
        return false;
    if (!WaitForBridge(core)) return false;

    std::array<uint8_t, 257> reply{};
    reply[0] = mcu_reg::kBridgeData;
    if (!AccessIicData(core, kIicRead, kMcuAddress, 1, reply.data(), count) || reply[0] != 0)
        return false;
    for (uint8_t i = 0; i < count; ++i) out[i] = reply[1u + i];
    return true;
}

bool BridgeI2cWrite(VideoConsoleCoreImp& core, uint8_t bus, uint8_t device, uint32_t address,
                    uint8_t addressLength, const uint8_t* data, uint8_t count) {
    std::array<uint8_t, 256> frame{};
    size_t length = BridgeCommand(frame, static_cast<uint8_t>(bus & 3), device, address,
                                  addressLength, count);
    if (length + count > frame.size()) return false;
    for (uint8_t i = 0; i < count; ++i) frame[length++] = data[i];
    if (!AccessIicData(core, kIicWrite, kMcuAddress, static_cast<uint8_t>(length), frame.data(),
                       0) ||
        frame[0] != 0)
        return false;
    return WaitForBridge(core);
}

bool CheckMcu(VideoConsoleCoreImp& core) {
    const char* outcome = "[Check_MCU] 0xA0:false, 0xA1:false, 0xFD:false";
    bool present = true;
    if (Probe(core, mcu_reg::kDeviceType)) {
        outcome = "[Check_MCU] 0xA0:true";
    } else {
        platform::SleepMilliseconds(10);
        if (Probe(core, mcu_reg::kFirmwareVersion)) {
            outcome = "[Check_MCU] 0xA0:false, 0xA1:true";
        } else {
            platform::SleepMilliseconds(50);
            if (Probe(core, mcu_reg::kBootloaderVersion)) {
                outcome = "[Check_MCU] 0xA0:false, 0xA1:false, 0xFD:true";
            } else {
                present = false;
            }
        }
    }
    if (core.m_probeInProgress) core.NotifyDeviceState(outcome);
    return present;
}

uint8_t EnterMcuBootloader(VideoConsoleCoreImp& core) {
    auto fail = [&core](const char* text) -> uint8_t {
        core.Report(std::string(text) + "\n");
        return 0;
    };
    uint8_t high = 1;
    if (!AccessGpio(core, kGpioSetOp, 1, &high)) return fail("set AP_GPIO_SET fail!");
    high = 1;
    if (!AccessGpio(core, kGpioWriteOp, 1, &high)) return fail("set AP_GPIO_WRITE fail!");

    bool inBootloader = false;
    for (int pass = 0; pass < kWorkModePasses; ++pass) {
        platform::SleepMilliseconds(kWorkModePauseMs);
        // While the microcontroller restarts into its bootloader it
        // acknowledges nothing for a moment: a NACK here means "not there
        // yet", and only a failed exchange with the bridge ends the entry.
        uint8_t data[2] = {mcu_reg::kWorkMode, 0xFF};
        if (!AccessIicData(core, kIicRead, core.m_mcuI2cAddress, 1, data, 1))
            return fail("read CMD_REG_R_BL_WorkMode fail!");
        if (data[0] != 0) continue;
        const uint8_t mode = data[1];
        if (mode == kWorkModeBootloader) {
            inBootloader = true;
            break;
        }
        if (mode == kWorkModeApplication) {
            // The application missed the boot line; ask it in words.
            platform::SleepMilliseconds(kJumpPauseMs);
            if (!WriteMcuRegister(core, mcu_reg::kJumpBootloader, 0x01))
                return fail("set CMD_REG_JumpBootLoader fail!");
        }
        // Any other value: the microcontroller is between the two; look again.
    }
    if (!inBootloader) return fail("set boot mode time out!");

    uint8_t version = 0;
    for (int read = 0; read < kVersionReads; ++read) {
        platform::SleepMilliseconds(kVersionPauseMs);
        if (!ReadMcuRegister(core, mcu_reg::kBootloaderVersion, &version))
            return fail("read CMD_REG_BootLoader_Version fail!");
        if (version >= 1 && version <= 254) break;
    }
    // The application is gone; its board variant is read again after it
    // has been restarted.
    core.m_boardVariant = 0xFF;
    return version;
}

uint8_t ReadBootModeState(VideoConsoleCoreImp& core) {
    uint8_t mode = 0;
    if (!ReadMcuRegister(core, mcu_reg::kWorkMode, &mode)) return 0;
    if (core.IntegerSetting("Check_boot_mode", 10).value_or(1) != 1) return 1;
    if (mode == kWorkModeBootloader) return 1;
    if (mode == kWorkModeApplication) return 0;
    return mode;
}

// ---- Exported operations ----------------------------------------------

bool VideoConsoleCoreImp::CheckMcuOnBoard() {
    if (!RequireDevice()) return false;
    m_probeInProgress = true;
    const bool found = CheckMcu(*this);
    m_probeInProgress = false;
    return found;
}

bool VideoConsoleCoreImp::EnterBootMode() {
    if (!RequireDevice()) return false;
    if (!CheckMcu(*this)) {
        LogInfo("----------------------------------------");
        LogInfo("[Enter boot mode]");
        LogInfo("ERROR: No MCU detected");
        NotifyDeviceState("[MCU_Info] ERROR: No MCU detected");
        return false;
    }
    if (EnterMcuBootloader(*this) != 0) {
        DebugOut("M0_Enter_Boot_Mode\n");
        LogInfo("This device has Enter_Boot_Mode");
        return true;
    }
    Report("MCU Error:Enter Boot Mode Fail!\n");
    NotifyDeviceState("Error: Enter Boot Mode Fail!");
    return false;
}

uint8_t VideoConsoleCoreImp::CheckBootMode() {
    if (!RequireDevice()) return 0;
    return ReadBootModeState(*this);
}

bool VideoConsoleCoreImp::SaveParameters() {
    if (!RequireIdleDevice(kRefuseSaveParameters)) return false;
    uint8_t command[2] = {mcu_reg::kSave, 0x01};
    if (!AccessIicData(*this, kIicWrite, kMcuAddress, 2, command, 0) || command[0] != 0) {
        DebugOut("Iic Access Fail!");
        return false;
    }
    platform::SleepMilliseconds(kSaveFirstPauseMs);
    for (int poll = 0; poll < kSavePolls; ++poll) {
        uint8_t status[2] = {mcu_reg::kSave, 0};
        if (!AccessIicData(*this, kIicRead, kMcuAddress, 1, status, 1) || status[0] != 0) {
            DebugOut("Iic Access Fail!");
            return false;
        }
        const uint8_t value = status[1];
        if (value & 0x01) {
            platform::SleepMilliseconds(kSavePollPauseMs);
            continue;
        }
        switch (value) {
            case 0x00: DebugOut("Save Parameters Complete!"); return true;
            case 0x10: DebugOut("Save Parameters Erase Error!"); return false;
            case 0x20: DebugOut("Save Parameters Write Error!"); return false;
            case 0x40: DebugOut("Save Parameters Error!"); return false;
            default: DebugOut("Save Parameters Unknown Error!"); return false;
        }
    }
    return false;  // still busy after 30 looks
}

}  // namespace VideoConsoleCore
