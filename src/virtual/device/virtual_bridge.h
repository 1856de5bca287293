// The USB bridge chip as the host sees it through HID reports: a 32-bit
// register file, the SPI flash behind a windowed burst engine, GPIO pins,
// an I2C master towards the board's chips, and the HDMI and USB status
// replies.
//
// Output reports (host to device) carry a command in byte 2 and parameters
// from byte 3 (little-endian); the data report carries flash data from
// byte 4. Input requests name their command in bits 8..15 of the requested
// length; the data report needs none. Every reply carries its payload from
// byte 0.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>

#include "virtual/device/virtual_device_config.h"
#include "virtual/device/virtual_flash.h"
#include "virtual/i2c_target.h"

namespace VideoConsoleCore::virtualdev {

// GPIO pin 1 of the bridge is wired to the microcontroller's bootloader
// request line; whoever models the microcontroller listens here.
class BootloaderLine {
public:
    virtual ~BootloaderLine() = default;
    virtual void SetLevel(bool high) = 0;
};

// Command codes (byte 2 of an output report, bits 8..15 of an input
// request's length).
namespace bridge_cmd {
inline constexpr uint8_t kRegisterWrite = 0x00;
inline constexpr uint8_t kRegisterReadRequest = 0x01;
inline constexpr uint8_t kRegisterReadReply = 0x02;
inline constexpr uint8_t kFlashAccessMode = 0x03;
inline constexpr uint8_t kFlashGetId = 0x04;
inline constexpr uint8_t kFlashSetLength = 0x05;
inline constexpr uint8_t kIicWrite = 0x06;
inline constexpr uint8_t kIicRead = 0x07;
inline constexpr uint8_t kGpioSet = 0x08;
inline constexpr uint8_t kGpioWrite = 0x09;
inline constexpr uint8_t kGpioRead = 0x0A;
inline constexpr uint8_t kHdmiInfo = 0x0B;
inline constexpr uint8_t kReserved0C = 0x0C;
inline constexpr uint8_t kUsbInfo = 0x0D;
}  // namespace bridge_cmd

// IIC status byte (byte 0 of an IIC reply).
inline constexpr uint8_t kIicAck = 0x00;
inline constexpr uint8_t kIicNack = 0x01;
inline constexpr uint8_t kIicBusy = 0x02;
inline constexpr uint8_t kIicBadRequest = 0x04;  // counts that do not fit the reports

inline constexpr int kGpioPins = 16;
inline constexpr uint8_t kBootloaderPin = 1;

// The running-version registers.
inline constexpr uint32_t kVersionRegisters[4] = {0x54, 0x58, 0x5C, 0x60};

class VirtualBridge {
public:
    // `flash` must outlive the bridge. Boots at once.
    VirtualBridge(const VirtualDeviceConfig& config, VirtualFlash& flash);

    // A report from the host. False (the transfer stalls) for an unknown
    // report ID, an empty report or one longer than the report; a short
    // report reads as if padded with zeros.
    bool OnOutputReport(const uint8_t* report, uint32_t length);
    // An input request: report[0] holds the report ID, `lengthWord` the
    // requested length (command in bits 8..15 for the command and IIC
    // reports). Writes exactly the report's length into `report` on success;
    // false for an unknown ID or command, or a buffer shorter than the
    // report.
    bool OnInputRequest(uint8_t* report, uint32_t lengthWord);

    // Power-up: runs the boot rule (DecideBoot) and resets registers, flash
    // window, GPIO and pending replies.
    void Boot();
    bool RunningUpdatedFirmware() const { return boot_.updated; }
    // The last boot found a half-written firmware marked bootable (see
    // BootChoice).
    bool FoundPartialFirmware() const { return boot_.partialFirmware; }

    void AttachI2cTarget(uint8_t address7, I2cTarget* target);
    void DetachI2cTarget(uint8_t address7);
    void SetBootloaderLine(BootloaderLine* line) { bootloaderLine_ = line; }

    uint32_t Register(uint32_t address) const;
    bool GpioLevel(int pin) const { return pin >= 0 && pin < kGpioPins && gpioLevel_[pin]; }
    bool GpioOutput(int pin) const { return pin >= 0 && pin < kGpioPins && gpioOutput_[pin]; }

    // IIC requests (write or read) taken since construction.
    uint64_t IicRequests() const { return iicRequests_; }

    // Changes after construction (tests).
    VirtualDeviceConfig& Config() { return config_; }

private:
    bool OnCommand(const uint8_t* r);
    bool OnIic(const uint8_t* r);
    void OnFlashData(const uint8_t* r);
    void ReplyFlashData(uint8_t* out);
    void SetGpioLevel(int pin, bool high);
    void AdvanceTargets();

    VirtualDeviceConfig config_;
    VirtualFlash& flash_;
    BootChoice boot_;
    std::map<uint32_t, uint32_t> registers_;
    uint32_t pendingRegister_ = 0;
    // Flash window: set by the access-mode and set-length commands; bursts
    // move the cursor through it.
    uint8_t accessMode_ = 0;
    uint32_t windowStart_ = 0;
    uint32_t windowLength_ = 0;
    uint32_t cursor_ = 0;
    std::array<bool, kGpioPins> gpioOutput_{};
    std::array<bool, kGpioPins> gpioLevel_{};
    uint8_t pendingGpioPin_ = 0;
    // Last IIC transaction's reply: status then the bytes read.
    std::array<uint8_t, 256> iicReply_{};
    uint8_t iicWriteStatus_ = kIicAck;
    std::map<uint8_t, I2cTarget*> targets_;
    BootloaderLine* bootloaderLine_ = nullptr;
    uint64_t iicRequests_ = 0;
    std::chrono::steady_clock::time_point lastIic_;
};

}  // namespace VideoConsoleCore::virtualdev
