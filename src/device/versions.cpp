// Firmware versions of the two processors of the board.
//
// USB bridge: the running firmware tells its version in four words of the
// chip's memory (0x54, 0x58, 0x5C, 0x60); the flash keeps the version text
// of the stored firmware at the start of the firmware information area; and
// the first word of the boot configuration block at 0x70000 tells the
// bridge's boot code whether to load the updated firmware (1) or its
// original one (0).
//
// Microcontroller: registers 0xA0 (device type), 0xA1 (firmware version)
// and 0xA2..0xA5 (board variant and configuration bytes) of the running
// application.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/VideoConsoleCoreImp.h"
#include "device/mcu_access.h"
#include "hid/report_protocol.h"

namespace VideoConsoleCore {

namespace {

constexpr uint32_t kRunningVersionRegisters[4] = {0x54, 0x58, 0x5C, 0x60};
constexpr uint32_t kInfoAreaLength = 0x10000;
constexpr uint32_t kBootConfigAddress = 0x70000;
constexpr uint32_t kBootConfigLength = 4096;
constexpr size_t kStoredVersionLength = 16;

const char* BootConfigMeaning(int value) {
    if (value == 0) return "0x00 (Load Original Firmware)";
    if (value == 1) return "0x01 (Load Latest Firmware)";
    return nullptr;
}

}  // namespace

bool VideoConsoleCoreImp::ReadUsbFwVersion(bool quiet) {
    uint32_t words[4] = {};
    for (int i = 0; i < 4; ++i) {
        if (!AccessChipRegister(*this, kChipRegisterReadOp, kRunningVersionRegisters[i],
                                &words[i]))
            return false;
    }
    char running[64];
    std::snprintf(running, sizeof running, "%02x.%02x.%02x.%02x", words[0], words[1], words[2],
                  words[3]);
    m_runningFwVersion = running;

    if (!AccessFlashData(*this, kFlashOpSetUp, 3, m_flashBaseAddress, kInfoAreaLength, nullptr)) {
        DebugOut("Unknown error: Couldn't execute AP_FLASH_BURST_LATER--case 3\n");
        return false;
    }
    std::memset(m_flashBuffer.data(), 0, m_flashBuffer.size());
    if (!BurstFlashAccess(*this, kFlashOpToMemory, kInfoAreaLength, m_flashBuffer.data(),
                          m_flashBuffer.size(), 0))
        return false;
    const char* stored = reinterpret_cast<const char*>(m_flashBuffer.data());
    m_usbFwVersion.assign(stored, strnlen(stored, kStoredVersionLength));

    std::vector<uint8_t> block(kBootConfigLength, 0);
    if (AccessFlashData(*this, kFlashOpRead, 2, kBootConfigAddress, kBootConfigLength,
                        block.data())) {
        m_bootConfigByte = block[0];
    } else {
        DebugOut("Unknown error: Couldn't execute AP_FLASH_READ--case 2\n");
        LogInfo("Unknown error: Couldn't execute AP_FLASH_READ--case ");
        m_bootConfigByte = -1;
    }

    if (quiet) return true;
    const std::string currentLine = "USB FW current version: " + m_usbFwVersion;
    LogInfo(currentLine);
    DebugOut(currentLine + "\n");
    LogInfo("FW version from memory: " + m_runningFwVersion);
    DebugOut("FW version from memory: " + m_runningFwVersion + "\n");
    const char* meaning = BootConfigMeaning(m_bootConfigByte);
    LogInfo(std::string("USB Boot loader config: ") + (meaning ? meaning : ""));
    if (meaning) DebugOut(std::string("Bootloader config Byte[0]: ") + meaning);
    // The record: message and first text the stored version, second text the
    // running one, value the configuration byte (0xFF when unknown).
    NotifyDeviceState(currentLine.c_str(), static_cast<uint8_t>(m_bootConfigByte),
                      m_usbFwVersion.c_str(), m_runningFwVersion.c_str());
    return true;
}

bool VideoConsoleCoreImp::ReadMcuFwVersion(bool quiet) {
    auto read = [this](uint8_t reg, uint8_t* out, uint8_t count) {
        uint8_t data[5] = {reg, 0, 0, 0, 0};
        if (!AccessIicData(*this, kIicRead, kMcuAddress, 1, data, count) || data[0] != 0) {
            DebugOut("ReadEx ERROR\n");
            return false;
        }
        std::memcpy(out, data + 1, count);
        return true;
    };
    uint8_t type = 0, version = 0, variant[4] = {};
    if (!read(mcu_reg::kDeviceType, &type, 1) || !read(mcu_reg::kFirmwareVersion, &version, 1) ||
        !read(mcu_reg::kBoardVariant, variant, 4))
        return false;

    char text[32];
    std::snprintf(text, sizeof text, "%02x.%02x.%02x.%02x%02x%02x", type, version, variant[0],
                  variant[1], variant[2], variant[3]);
    m_mcuFwVersion = text;
    m_mcuDeviceType = type;
    m_boardVariant = variant[0];

    if (quiet) return true;
    const std::string line = std::string("MCU FW current version: ") + text;
    LogInfo(line);
    DebugOut(line + "\n");
    if (IntegerSetting("Boot_code_ver", 10).value_or(0) != 0) {
        // The version of the bootloader underneath the application.
        uint8_t boot = 0;
        if (ReadMcuRegister(*this, mcu_reg::kBootloaderVersion, &boot)) {
            char bootLine[48];
            std::snprintf(bootLine, sizeof bootLine, "MCU Boot code  version: %02x", boot);
            LogInfo(bootLine);
        }
    }
    // The record: message and first text the version, value the board variant.
    NotifyDeviceState(line.c_str(), m_boardVariant, text, nullptr);
    return true;
}

bool VideoConsoleCoreImp::GetUsbFwVersion(std::string& text) {
    text.clear();
    if (!RequireIdleDevice(kRefuseUsbFwVersion)) return false;
    if (!ReadUsbFwVersion(m_quietQueries)) return false;
    text = m_usbFwVersion;
    return true;
}

bool VideoConsoleCoreImp::GetMcuFwVersion(std::string& text) {
    text.clear();
    if (!RequireIdleDevice(kRefuseMcuFwVersion)) return false;
    if (!ReadMcuFwVersion(m_quietQueries)) return false;
    text = m_mcuFwVersion;
    return true;
}

}  // namespace VideoConsoleCore
