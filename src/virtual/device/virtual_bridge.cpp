#include "virtual/device/virtual_bridge.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace VideoConsoleCore::virtualdev {

namespace {

uint32_t Le32(const uint8_t* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

void PutLe32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

int KindOf(const std::array<ReportShape, 3>& shapes, uint8_t id, int reports) {
    for (int kind = 0; kind < reports; ++kind) {
        if (shapes[static_cast<size_t>(kind)].id == id) return kind;
    }
    return -1;
}

}  // namespace

VirtualBridge::VirtualBridge(const VirtualDeviceConfig& config, VirtualFlash& flash)
    : config_(config), flash_(flash), lastIic_(std::chrono::steady_clock::now()) {
    Boot();
}

void VirtualBridge::Boot() {
    boot_ = DecideBoot(flash_, config_.originalFwVersion);
    registers_.clear();
    for (int i = 0; i < 4; ++i) registers_[kVersionRegisters[i]] = boot_.version[static_cast<size_t>(i)];
    pendingRegister_ = 0;
    accessMode_ = 0;
    windowStart_ = windowLength_ = cursor_ = 0;
    gpioOutput_.fill(false);
    gpioLevel_.fill(false);
    pendingGpioPin_ = 0;
    iicReply_.fill(0);
    iicWriteStatus_ = kIicAck;
}

uint32_t VirtualBridge::Register(uint32_t address) const {
    const auto it = registers_.find(address);
    return it == registers_.end() ? 0 : it->second;
}

void VirtualBridge::AttachI2cTarget(uint8_t address7, I2cTarget* target) {
    targets_[static_cast<uint8_t>(address7 & 0x7F)] = target;
}

void VirtualBridge::DetachI2cTarget(uint8_t address7) {
    targets_.erase(static_cast<uint8_t>(address7 & 0x7F));
}

bool VirtualBridge::OnOutputReport(const uint8_t* report, uint32_t length) {
    if (!report || length == 0) return false;
    const int kind = KindOf(config_.output, report[0], config_.faults.valueReports);
    if (kind < 0) return false;
    const uint32_t full = config_.output[static_cast<size_t>(kind)].Length();
    if (length > full) return false;
    // Work on a full-length copy: a short report reads as zero-padded.
    std::vector<uint8_t> r(full, 0);
    std::memcpy(r.data(), report, length);
    switch (kind) {
    case kDataReport:
        OnFlashData(r.data());
        return true;
    case kCommandReport:
        return OnCommand(r.data());
    default:
        return OnIic(r.data());
    }
}

bool VirtualBridge::OnCommand(const uint8_t* r) {
    using namespace bridge_cmd;
    switch (r[2]) {
    case kRegisterWrite:
        registers_[Le32(r + 3)] = Le32(r + 7);
        return true;
    case kRegisterReadRequest:
        pendingRegister_ = Le32(r + 3);
        return true;
    case kFlashAccessMode:
        accessMode_ = r[3];
        windowStart_ = Le32(r + 4);
        cursor_ = 0;
        flash_.BeginWriteSession();
        return true;
    case kFlashSetLength:
        windowLength_ = Le32(r + 3);
        cursor_ = 0;
        flash_.BeginWriteSession();
        return true;
    case kGpioSet:
        if (r[3] >= kGpioPins) return true;  // no such pin: ignored
        gpioOutput_[r[3]] = r[4] != 0;
        if (!gpioOutput_[r[3]]) SetGpioLevel(r[3], false);
        return true;
    case kGpioWrite:
        // Only a pin set as output drives its level.
        if (r[3] < kGpioPins && gpioOutput_[r[3]]) SetGpioLevel(r[3], r[4] != 0);
        return true;
    case kGpioRead:
        pendingGpioPin_ = r[3];
        return true;
    default:
        return false;  // the bridge stalls a command it does not know
    }
}

void VirtualBridge::SetGpioLevel(int pin, bool high) {
    const bool changed = gpioLevel_[static_cast<size_t>(pin)] != high;
    gpioLevel_[static_cast<size_t>(pin)] = high;
    if (changed && pin == kBootloaderPin && bootloaderLine_) bootloaderLine_->SetLevel(high);
}

void VirtualBridge::AdvanceTargets() {
    const auto now = std::chrono::steady_clock::now();
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(now - lastIic_);
    const auto ms = elapsed.count();
    // The fraction of a millisecond left over counts towards the next step,
    // so that the targets' clocks keep pace with real time.
    lastIic_ += elapsed;
    for (auto& [address, target] : targets_) {
        (void)address;
        if (target) target->Advance(static_cast<uint32_t>(ms));
    }
}

bool VirtualBridge::OnIic(const uint8_t* r) {
    using namespace bridge_cmd;
    const uint8_t command = r[2];
    if (command != kIicWrite && command != kIicRead) return false;
    const uint32_t outCount = config_.output[kIicReport].count;
    const uint32_t inCount = config_.input[kIicReport].count;
    const uint8_t address = r[3];
    const uint32_t n = r[4];
    ++iicRequests_;
    iicReply_.fill(0);
    uint8_t& status = command == kIicWrite ? iicWriteStatus_ : iicReply_[0];

    // Data runs from byte 5 to 4 + n, and a read's count follows it.
    const uint32_t needed = 5 + n + (command == kIicRead ? 1 : 0);
    if (needed > outCount + 1) {
        status = kIicBadRequest;
        return true;
    }
    const uint32_t readCount = command == kIicRead ? r[5 + n] : 0;
    if (readCount + 1 > inCount + 1 || readCount + 1 > iicReply_.size()) {
        status = kIicBadRequest;
        return true;
    }
    if (config_.faults.iicNeverFinishes) {
        status = kIicBusy;
        return true;
    }
    AdvanceTargets();
    const auto it = address <= 0x7F ? targets_.find(address) : targets_.end();
    if (it == targets_.end() || !it->second) {
        status = kIicNack;
        return true;
    }
    bool ack;
    if (command == kIicWrite) {
        ack = it->second->Write(r + 5, n);
    } else {
        ack = it->second->Read(r + 5, n, iicReply_.data() + 1, readCount);
        if (!ack) std::fill(iicReply_.begin() + 1, iicReply_.end(), uint8_t{0});
    }
    status = ack ? kIicAck : kIicNack;
    return true;
}

void VirtualBridge::OnFlashData(const uint8_t* r) {
    const uint32_t remaining = windowLength_ - cursor_;
    const uint32_t n = std::min(remaining, config_.OutputChunk());
    if (n == 0) return;  // no window set up: the data goes nowhere
    // The window may reach past the 32-bit address space; such bytes are
    // dropped instead of wrapping round to address 0.
    const uint64_t at = uint64_t{windowStart_} + cursor_;
    if (at <= 0xFFFFFFFFu) {
        const auto fits = static_cast<uint32_t>(std::min<uint64_t>(n, 0x100000000ull - at));
        const uint32_t bad = config_.faults.corruptFlashAt;
        if (bad != 0 && bad >= at && bad < at + fits) {
            std::vector<uint8_t> kept(r + 4, r + 4 + fits);
            kept[bad - at] = static_cast<uint8_t>(~kept[bad - at]);
            flash_.Write(static_cast<uint32_t>(at), kept.data(), fits);
        } else {
            flash_.Write(static_cast<uint32_t>(at), r + 4, fits);
        }
    }
    cursor_ += n;
}

void VirtualBridge::ReplyFlashData(uint8_t* out) {
    const uint32_t n = std::min(windowLength_ - cursor_, config_.InputChunk());
    const uint64_t at = uint64_t{windowStart_} + cursor_;
    if (at <= 0xFFFFFFFFu) {
        const auto fits = static_cast<uint32_t>(std::min<uint64_t>(n, 0x100000000ull - at));
        flash_.Read(static_cast<uint32_t>(at), out, fits);
        std::fill(out + fits, out + n, uint8_t{0xFF});
    } else {
        std::fill(out, out + n, uint8_t{0xFF});
    }
    cursor_ += n;
}

bool VirtualBridge::OnInputRequest(uint8_t* report, uint32_t lengthWord) {
    using namespace bridge_cmd;
    if (!report || config_.faults.repliesStall) return false;
    const int kind = KindOf(config_.input, report[0], config_.faults.valueReports);
    if (kind < 0) return false;
    const uint32_t full = config_.input[static_cast<size_t>(kind)].Length();
    if (kind == kDataReport) {
        if (lengthWord < full) return false;
        std::memset(report, 0, full);
        ReplyFlashData(report);
        return true;
    }
    // Command and IIC reports are below 256 bytes: the low byte is the
    // buffer length, the next byte the command.
    const uint32_t bufferLength = lengthWord & 0xFF;
    const uint8_t command = static_cast<uint8_t>(lengthWord >> 8);
    if (bufferLength < full) return false;

    std::vector<uint8_t> reply(full, 0);
    if (kind == kCommandReport) {
        switch (command) {
        case kRegisterReadReply:
            PutLe32(reply.data(), Register(pendingRegister_));
            break;
        case kFlashGetId:
            reply[0] = static_cast<uint8_t>(config_.flashIndex);
            reply[1] = static_cast<uint8_t>(config_.flashIndex >> 8);
            break;
        case kGpioRead:
            reply[0] = GpioLevel(pendingGpioPin_) ? 1 : 0;
            break;
        default:
            return false;
        }
    } else {
        switch (command) {
        case kIicWrite:
            reply[0] = iicWriteStatus_;
            break;
        case kIicRead:
            std::memcpy(reply.data(), iicReply_.data(), std::min<size_t>(full, iicReply_.size()));
            break;
        case kHdmiInfo:
            std::memcpy(reply.data(), config_.hdmiInfo.data(),
                        std::min<size_t>(full, config_.hdmiInfo.size()));
            break;
        case kReserved0C:
            break;  // answered, with nothing in it
        case kUsbInfo:
            reply[0] = static_cast<uint8_t>(config_.usbWidth >> 8);
            reply[1] = static_cast<uint8_t>(config_.usbWidth);
            reply[2] = static_cast<uint8_t>(config_.usbHeight >> 8);
            reply[3] = static_cast<uint8_t>(config_.usbHeight);
            reply[4] = config_.usbFrameRate;
            reply[5] = config_.usbColorFormat;
            break;
        default:
            return false;
        }
    }
    std::memcpy(report, reply.data(), full);
    return true;
}

}  // namespace VideoConsoleCore::virtualdev
