// The board microcontroller, reached through the bridge chip's I2C tunnel.
//
// It answers at I2C address 0x1A. Its registers are one byte wide and are
// read by writing the register number and reading the value back. It also
// acts as an I2C master towards the chips on its own buses (the HDMI
// splitter, the audio codec): a command at 0xCD starts a transaction, 0xCF
// tells when it has finished and 0xCE holds the bytes read. A bootloader
// shares the address; 0xE0 tells which of the two is running.
#pragma once

#include <cstdint>

namespace VideoConsoleCore {

class VideoConsoleCoreImp;

inline constexpr uint8_t kMcuAddress = 0x1A;

namespace mcu_reg {
inline constexpr uint8_t kHdmiInput = 0x02;
inline constexpr uint8_t kDeviceType = 0xA0;
inline constexpr uint8_t kFirmwareVersion = 0xA1;
inline constexpr uint8_t kBoardVariant = 0xA2;
inline constexpr uint8_t kSave = 0xBC;
inline constexpr uint8_t kBridgeCommand = 0xCD;
inline constexpr uint8_t kBridgeData = 0xCE;
inline constexpr uint8_t kBridgeStatus = 0xCF;
inline constexpr uint8_t kWorkMode = 0xE0;         // CMD_REG_R_BL_WorkMode
inline constexpr uint8_t kJumpBootloader = 0xEE;   // CMD_REG_JumpBootLoader
inline constexpr uint8_t kBootloaderVersion = 0xFD;  // CMD_REG_BootLoader_Version
}  // namespace mcu_reg

// Writes one register of the microcontroller at the core's address. 1 when
// the transfer ran and was acknowledged, 0 otherwise.
uint32_t WriteMcuRegister(VideoConsoleCoreImp& core, uint8_t reg, uint8_t value);

// Reads one register into *value. 1 when the transfer ran and was
// acknowledged; otherwise 0 and *value keeps what it held.
uint32_t ReadMcuRegister(VideoConsoleCoreImp& core, uint8_t reg, uint8_t* value);

// One transaction of the microcontroller's I2C master on `bus` (0..3)
// towards `device`, with a register address of `addressLength` bytes (2, 3
// or 4 bytes big-endian; any other length sends the low byte). The status
// is polled up to ten times, 100 ms apart. `count` bytes are read into
// `out` or written from `data`.
bool BridgeI2cRead(VideoConsoleCoreImp& core, uint8_t bus, uint8_t device, uint32_t address,
                   uint8_t addressLength, uint8_t* out, uint8_t count);
bool BridgeI2cWrite(VideoConsoleCoreImp& core, uint8_t bus, uint8_t device, uint32_t address,
                    uint8_t addressLength, const uint8_t* data, uint8_t count);

// Whether a microcontroller answers: probes 0xA0, then 0xA1, then the
// bootloader version 0xFD. While the core's probe switch is on, the outcome
// is posted to the device-state callback.
bool CheckMcu(VideoConsoleCoreImp& core);

// Sends the microcontroller to its bootloader (GPIO pin 1 of the bridge,
// then the jump register while the application still runs) and returns the
// bootloader version, 0 on failure.
uint8_t EnterMcuBootloader(VideoConsoleCoreImp& core);

// The boot-mode answer: 1 when the bootloader runs (or when the
// Check_boot_mode setting is not 1), 0 when the application runs, any other
// work-mode value as it is; 0 when the work mode cannot be read.
uint8_t ReadBootModeState(VideoConsoleCoreImp& core);

}  // namespace VideoConsoleCore
