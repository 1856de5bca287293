// The chips on the microcontroller's own I2C buses: the HDMI splitter
// (IT6663) whose DDC master reads the EDID of the monitor on its transmit
// port, and the audio codec. Both see one-byte register addresses.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "virtual/i2c_target.h"

namespace VideoConsoleCore::virtualdev {

// The splitter's DDC master, as the microcontroller drives it:
//   0x00,0x01  chip ID 0x63 0x66 (read only)
//   0x29  DDC target (8-bit address form; 0xA0 = EDID)
//   0x2A  offset within the segment      0x2B  byte count (FIFO holds 32)
//   0x2C  E-DDC segment                  0x2D  transmit port (0 = TX port 1)
//   0x2E  command: 0x09 abort and clear the FIFO, 0x03 read into the FIFO
//   0x2F  status (read only): bit 0 done, bit 3 the sink did not answer
//   0x30  FIFO data port: each byte read takes one byte from the FIFO
// Other registers hold what is written to them.
class VirtualHdmiSplitter : public I2cTarget {
public:
    static constexpr uint8_t kAddress = 0x6A;
    static constexpr size_t kFifoSize = 32;

    // `edid` is what the monitor on TX port 1 answers (any multiple of
    // 128 bytes, at most 512); empty means no monitor.
    explicit VirtualHdmiSplitter(std::vector<uint8_t> edid);

    bool Write(const uint8_t* data, size_t count) override;
    bool Read(const uint8_t* writeData, size_t writeCount, uint8_t* out, size_t readCount) override;

    void SetEdid(std::vector<uint8_t> edid) { edid_ = std::move(edid); }
    uint8_t Register(uint8_t reg) const { return regs_[reg]; }

private:
    void Command(uint8_t value);
    uint8_t ReadOne(uint8_t reg);

    std::vector<uint8_t> edid_;
    std::array<uint8_t, 256> regs_{};
    std::vector<uint8_t> fifo_;
    size_t fifoPos_ = 0;
    uint8_t pointer_ = 0;
};

// Which ID the codec answers; the board variant decides it.
enum class CodecKind : uint8_t {
    None,
    IdAtFE,  // registers 0xFE,0xFF read 0x10,0xEC
    IdAt7E,  // registers 0x7E,0x7F read 0x00,0x1A
};

// An audio codec: 256 one-byte registers with auto-increment; the two ID
// registers of its kind are read only.
class VirtualAudioCodec : public I2cTarget {
public:
    explicit VirtualAudioCodec(CodecKind kind);

    bool Write(const uint8_t* data, size_t count) override;
    bool Read(const uint8_t* writeData, size_t writeCount, uint8_t* out, size_t readCount) override;

    CodecKind Kind() const { return kind_; }
    uint8_t Register(uint8_t reg) const { return regs_[reg]; }

private:
    bool IsIdRegister(uint8_t reg) const;

    CodecKind kind_;
    std::array<uint8_t, 256> regs_{};
    uint8_t pointer_ = 0;
};

// The RGB light of the boards with models 6 and 8, on bus 2 at 0xCE: 256
// one-byte registers with auto-increment. It keeps every write as it came
// (register address first), so that tests see the light's programming
// byte for byte.
class VirtualRgbLight : public I2cTarget {
public:
    static constexpr uint8_t kBus = 2;
    static constexpr uint8_t kAddress = 0xCE;

    bool Write(const uint8_t* data, size_t count) override;
    bool Read(const uint8_t* writeData, size_t writeCount, uint8_t* out, size_t readCount) override;

    const std::vector<std::vector<uint8_t>>& Writes() const { return writes_; }
    uint8_t Register(uint8_t reg) const { return regs_[reg]; }

private:
    std::array<uint8_t, 256> regs_{};
    std::vector<std::vector<uint8_t>> writes_;
};

}  // namespace VideoConsoleCore::virtualdev
