#include "virtual/mcu/behind_mcu_chips.h"

#include <algorithm>

namespace VideoConsoleCore::virtualdev {

namespace {
constexpr uint8_t kRegDdcTarget = 0x29;
constexpr uint8_t kRegDdcOffset = 0x2A;
constexpr uint8_t kRegDdcCount = 0x2B;
constexpr uint8_t kRegDdcSegment = 0x2C;
constexpr uint8_t kRegTxPort = 0x2D;
constexpr uint8_t kRegDdcCommand = 0x2E;
constexpr uint8_t kRegDdcStatus = 0x2F;
constexpr uint8_t kRegDdcFifo = 0x30;
constexpr uint8_t kDdcCmdRead = 0x03;
constexpr uint8_t kDdcCmdAbort = 0x09;
constexpr uint8_t kStatusDone = 0x01;
constexpr uint8_t kStatusNoAck = 0x08;
constexpr uint8_t kEdidDdcAddress = 0xA0;
}  // namespace

VirtualHdmiSplitter::VirtualHdmiSplitter(std::vector<uint8_t> edid) : edid_(std::move(edid)) {
    regs_[0x00] = 0x63;
    regs_[0x01] = 0x66;
}

bool VirtualHdmiSplitter::Write(const uint8_t* data, size_t count) {
    if (count == 0) return true;
    pointer_ = data[0];
    for (size_t i = 1; i < count; ++i) {
        const uint8_t reg = pointer_++;
        if (reg <= 0x01 || reg == kRegDdcStatus || reg == kRegDdcFifo) continue;  // read only
        regs_[reg] = data[i];
        if (reg == kRegDdcCommand) Command(data[i]);
    }
    return true;
}

void VirtualHdmiSplitter::Command(uint8_t value) {
    if (value == kDdcCmdAbort) {
        fifo_.clear();
        fifoPos_ = 0;
        regs_[kRegDdcStatus] = 0;
        return;
    }
    if (value != kDdcCmdRead) return;
    fifo_.clear();
    fifoPos_ = 0;
    const size_t count = std::min<size_t>(regs_[kRegDdcCount], kFifoSize);
    const size_t start = size_t(regs_[kRegDdcSegment]) * 256 + regs_[kRegDdcOffset];
    const bool sinkAnswers = regs_[kRegTxPort] == 0 && regs_[kRegDdcTarget] == kEdidDdcAddress &&
                             start + count <= edid_.size();
    if (!sinkAnswers) {
        regs_[kRegDdcStatus] = kStatusDone | kStatusNoAck;
        return;
    }
    fifo_.assign(edid_.begin() + std::ptrdiff_t(start), edid_.begin() + std::ptrdiff_t(start + count));
    regs_[kRegDdcStatus] = kStatusDone;
}

uint8_t VirtualHdmiSplitter::ReadOne(uint8_t reg) {
    if (reg == kRegDdcFifo) return fifoPos_ < fifo_.size() ? fifo_[fifoPos_++] : 0x00;
    return regs_[reg];
}

bool VirtualHdmiSplitter::Read(const uint8_t* writeData, size_t writeCount, uint8_t* out,
                               size_t readCount) {
    if (writeCount > 0) pointer_ = writeData[0];
    for (size_t i = 0; i < readCount; ++i) {
        out[i] = ReadOne(pointer_);
        if (pointer_ != kRegDdcFifo) ++pointer_;  // the FIFO port does not advance
    }
    return true;
}

VirtualAudioCodec::VirtualAudioCodec(CodecKind kind) : kind_(kind) {
    if (kind == CodecKind::IdAtFE) {
        regs_[0xFE] = 0x10;
        regs_[0xFF] = 0xEC;
    } else if (kind == CodecKind::IdAt7E) {
        regs_[0x7E] = 0x00;
        regs_[0x7F] = 0x1A;
    }
}

bool VirtualAudioCodec::IsIdRegister(uint8_t reg) const {
    if (kind_ == CodecKind::IdAtFE) return reg == 0xFE || reg == 0xFF;
    if (kind_ == CodecKind::IdAt7E) return reg == 0x7E || reg == 0x7F;
    return false;
}

bool VirtualAudioCodec::Write(const uint8_t* data, size_t count) {
    if (kind_ == CodecKind::None) return false;
    if (count == 0) return true;
    pointer_ = data[0];
    for (size_t i = 1; i < count; ++i, ++pointer_)
        if (!IsIdRegister(pointer_)) regs_[pointer_] = data[i];
    return true;
}

bool VirtualAudioCodec::Read(const uint8_t* writeData, size_t writeCount, uint8_t* out,
                             size_t readCount) {
    if (kind_ == CodecKind::None) return false;
    if (writeCount > 0) pointer_ = writeData[0];
    for (size_t i = 0; i < readCount; ++i) out[i] = regs_[pointer_++];
    return true;
}

bool VirtualRgbLight::Write(const uint8_t* data, size_t count) {
    if (count == 0) return false;
    writes_.emplace_back(data, data + count);
    uint8_t reg = data[0];
    for (size_t i = 1; i < count; ++i) regs_[reg++] = data[i];
    return true;
}

bool VirtualRgbLight::Read(const uint8_t* writeData, size_t writeCount, uint8_t* out,
                           size_t readCount) {
    uint8_t reg = writeCount > 0 ? writeData[0] : 0;
    for (size_t i = 0; i < readCount; ++i) out[i] = regs_[reg++];
    return true;
}

}  // namespace VideoConsoleCore::virtualdev
