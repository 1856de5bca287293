// The byte sequences the library sends to the microcontroller through the
// bridge chip's I2C tunnel, replayed directly on the model: a register read
// is one write of the register number followed by a read, a register write
// is one write of register and value, and the I2C-master and bootloader
// exchanges follow the library's polling.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "virtual/mcu/virtual_mcu.h"

namespace VideoConsoleCore::virtualdev::testing {

std::optional<uint8_t> ReadReg(I2cTarget& mcu, uint8_t reg);
std::optional<std::vector<uint8_t>> ReadRegs(I2cTarget& mcu, uint8_t reg, size_t count);
bool WriteReg(I2cTarget& mcu, uint8_t reg, uint8_t value);
bool WriteBytes(I2cTarget& mcu, const std::vector<uint8_t>& bytes);

// The I2C-master command frame 0xCD ... for a read or a write.
std::vector<uint8_t> BridgeFrame(bool read, uint8_t bus, uint8_t device, uint32_t address,
                                 uint8_t addressLength, uint8_t count,
                                 const std::vector<uint8_t>& data = {});

// Status polls of 0xCF: up to 10, 100 ms apart, the first straight after the
// command. True when the status read 0.
bool PollBridge(VirtualMcu& mcu);

std::optional<std::vector<uint8_t>> BridgeRead(VirtualMcu& mcu, uint8_t bus, uint8_t device,
                                               uint32_t address, uint8_t addressLength,
                                               uint8_t count);
bool BridgeWrite(VirtualMcu& mcu, uint8_t bus, uint8_t device, uint32_t address,
                 uint8_t addressLength, const std::vector<uint8_t>& data);

// The splitter's transmit-port EDID read: the six register writes, the
// start command, then `chunk` bytes from the FIFO at `offset`.
std::optional<std::vector<uint8_t>> ReadTxEdid(VirtualMcu& mcu, uint8_t offset, uint8_t chunk);

// Bootloader entry as the library makes it after raising GPIO pin 1: read
// the work mode up to 300 times, 10 ms apart, writing 0xEE while it reads 1.
// Returns the bootloader version (0 on failure).
uint8_t EnterBootModeByRegister(VirtualMcu& mcu);

// Bootloader frames.
std::vector<uint8_t> BlRangeCommand(char command, uint16_t pages);
std::vector<uint8_t> BlPageCommand(char command, uint32_t address, const uint8_t* page128);

// Busy polls: up to 300 rounds of 10 ms, then write 0xE1 and read a byte.
// True when it read 0.
bool WaitBusy(VirtualMcu& mcu);

// Erase, blank check, program and verify of a whole image, as the update
// worker does it; false at the first failed step.
bool ProgramImage(VirtualMcu& mcu, const std::vector<uint8_t>& image, bool verify = true);

// Parameter save: 0xBC 0x01, 100 ms, then up to 30 polls 100 ms apart while
// bit 0 is set. The status that ended the polling (nullopt on a NACK).
std::optional<uint8_t> SaveParameters(VirtualMcu& mcu);

}  // namespace VideoConsoleCore::virtualdev::testing
