#include "virtual/mcu/virtual_mcu.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "virtual/mcu/mcu_image.h"

namespace VideoConsoleCore::virtualdev {

namespace {
constexpr uint8_t kVolumeMax = 100;
constexpr uint8_t kSaveParameters = 0x01;
constexpr uint8_t kSaveLedParameters = 0x02;
constexpr size_t kLedSaveFrame = 2 + 4 + VirtualMcu::kLedParameterSize;
constexpr uint8_t kBlErase = 'e';
constexpr uint8_t kBlBlankCheck = 'b';
constexpr uint8_t kBlProgram = 'w';
constexpr uint8_t kBlVerify = 'v';
constexpr uint8_t kBlRestart = 'r';
constexpr size_t kBlHeader = 9;
constexpr uint32_t kProgramEnd = kProgramBase + kImageMaxSize;

uint8_t Flag(uint8_t v) { return v != 0 ? 1 : 0; }
}  // namespace

CodecPlace CodecForVariant(uint8_t boardVariant) {
    switch (boardVariant) {
        case 0: return {0x34, CodecKind::IdAtFE};
        case 1: return {0x36, CodecKind::IdAtFE};
        case 2: return {0x34, CodecKind::IdAt7E};
        case 3: return {0x34, CodecKind::None};
        case 4: return {0x38, CodecKind::IdAtFE};
        default: return {0x34, CodecKind::IdAtFE};
    }
}

VirtualMcu::VirtualMcu(VirtualMcuConfig config)
    : config_(std::move(config)),
      hpMicPlugged_(config_.hpMicPlugged),
      lineInPlugged_(config_.lineInPlugged),
      videoLocked_(config_.videoLocked),
      hdmiSourcePresent_(config_.hdmiSourcePresent),
      led_(config_.ledPattern),
      program_(kImageMaxSize, 0xFF) {
    splitter_ = std::make_unique<VirtualHdmiSplitter>(config_.txEdid);
    busTargets_[{0, VirtualHdmiSplitter::kAddress}] = splitter_.get();
    const CodecPlace place = CodecForVariant(config_.boardVariant);
    const CodecKind kind = config_.codecKind.value_or(place.kind);
    if (config_.codecPresent && kind != CodecKind::None) {
        codec_ = std::make_unique<VirtualAudioCodec>(kind);
        busTargets_[{1, config_.codecAddress.value_or(place.address)}] = codec_.get();
    }
    if (config_.rgbLight) {
        rgbLight_ = std::make_unique<VirtualRgbLight>();
        busTargets_[{VirtualRgbLight::kBus, VirtualRgbLight::kAddress}] = rgbLight_.get();
    }
    if (!config_.programMemoryErased) {
        McuImageOptions image;
        image.deviceType = config_.deviceType;
        image.version = config_.firmwareVersion;
        image.codec = config_.boardVariant;
        image.config = config_.configBytes;
        const std::vector<uint8_t> bytes = BuildMcuImage(image);
        std::copy(bytes.begin(), bytes.end(), program_.begin());
    }
    Start(McuMode::Application);
}

VirtualMcu::~VirtualMcu() = default;

void VirtualMcu::AttachBusTarget(uint8_t bus, uint8_t address, I2cTarget* target) {
    busTargets_[{uint8_t(bus & 3), address}] = target;
}

// Power-on or restart: the bootloader runs first and starts the application
// when one is in program memory and the application was asked for.
void VirtualMcu::Start(McuMode target) {
    transition_ = Busy{};
    startingUp_ = Busy{};
    save_ = Busy{};
    bridge_ = Busy{};
    blBusy_ = Busy{};
    blOp_ = BlOp::None;
    blStatus_ = 0;
    saveStatus_ = 0;
    bridgeStatus_ = 0;
    bridgeData_.clear();
    pointer_ = 0;
    led_ = config_.ledPattern;
    if (target == McuMode::Application && McuImageStartable(program_.data(), program_.size())) {
        mode_ = McuMode::Application;
        LoadIdentity();
        parameterSource_ = saved_ ? 1 : 0;
        audio_ = saved_ ? *saved_
                        : Audio{config_.hpOutVolume, config_.micInVolume, config_.auxInVolume,
                                Flag(config_.hpOutMute), Flag(config_.micInMute),
                                Flag(config_.auxInMute), Flag(config_.hdcp)};
    } else {
        mode_ = McuMode::Bootloader;
    }
}

void VirtualMcu::LoadIdentity() {
    const size_t at[6] = {kImageDeviceTypeOffset, kImageVersionOffset, kImageCodecOffset,
                          kImageConfigOffset, kImageConfigOffset + 1, kImageConfigOffset + 2};
    for (size_t i = 0; i < 6; ++i) identity_[i] = program_[at[i]];
}

void VirtualMcu::PowerCycle() {
    if (!config_.programDumpPath.empty()) {
        if (FILE* file = std::fopen(config_.programDumpPath.c_str(), "wb")) {
            std::fwrite(program_.data(), 1, program_.size(), file);
            std::fclose(file);
        }
    }
    Start(McuMode::Application);
}

void VirtualMcu::EnterBootloaderLine() {
    if (mode_ != McuMode::Application) return;
    transitionTarget_ = McuMode::Bootloader;
    mode_ = McuMode::Restarting;
    Arm(transition_, config_.timings.bootJumpMs, false);
    if (!transition_.active) FinishTransition();
}

void VirtualMcu::FinishTransition() {
    if (transitionTarget_ == McuMode::Bootloader) {
        Start(McuMode::Bootloader);
    } else {
        Start(McuMode::Application);
        // The bootloader found nothing to start: it says so in its status.
        if (mode_ == McuMode::Bootloader) blStatus_ = kBlStatusNoApplication;
    }
    // The program that now runs starts up before it answers.
    Arm(startingUp_, config_.timings.restartNackMs, false);
}

bool VirtualMcu::Nacked(const uint8_t* data, size_t count) const {
    if (faults_.nackAll || startingUp_.active) return true;
    const uint8_t reg = count > 0 ? data[0] : pointer_;
    return faults_.nackRegister && *faults_.nackRegister == reg;
}

// ---------------------------------------------------------------- time

void VirtualMcu::Arm(Busy& busy, uint32_t ms, bool forever) {
    busy.forever = forever;
    busy.left = ms;
    busy.active = forever || ms > 0;
}

// Counts `ms` down on `busy`; true when it ran out now.
bool VirtualMcu::Tick(Busy& busy, uint32_t& ms) {
    if (!busy.active || busy.forever) return false;
    const uint32_t used = std::min(ms, busy.left);
    busy.left -= used;
    if (busy.left > 0) return false;
    busy.active = false;
    return true;
}

void VirtualMcu::Advance(uint32_t milliseconds) {
    clockMs_ += milliseconds;
    uint32_t ms = milliseconds;
    if (Tick(transition_, ms)) FinishTransition();
    ms = milliseconds;
    if (Tick(save_, ms)) FinishSave();
    ms = milliseconds;
    if (Tick(bridge_, ms)) FinishBridge();
    ms = milliseconds;
    if (Tick(blBusy_, ms)) FinishBootloaderOp();
    ms = milliseconds;
    Tick(startingUp_, ms);
    for (auto& [place, target] : busTargets_) target->Advance(milliseconds);
}

// ---------------------------------------------------------------- I2C

void VirtualMcu::AppendWriteLog(const uint8_t* data, size_t count) const {
    std::string line;
    char byte[4];
    for (size_t i = 0; i < count && i < 9; ++i) {
        std::snprintf(byte, sizeof byte, i == 0 ? "%02X" : " %02X", data[i]);
        line += byte;
    }
    if (count > 9) line += " ...";
    if (FILE* file = std::fopen(config_.writeLogPath.c_str(), "ab")) {
        std::fprintf(file, "%s\n", line.c_str());
        std::fclose(file);
    }
}

bool VirtualMcu::Write(const uint8_t* data, size_t count) {
    if (count >= 2) {
        ++writesAddressed_[data[0]];
        if (!config_.writeLogPath.empty()) AppendWriteLog(data, count);
    }
    if (Nacked(data, count)) return false;
    if (count == 0) return true;
    if (count == 1) {  // register pointer for a following plain read
        pointer_ = data[0];
        return true;
    }
    switch (mode_) {
        case McuMode::Application: return WriteApplication(data, count);
        case McuMode::Bootloader: return WriteBootloader(data, count);
        case McuMode::Restarting: return false;
    }
    return false;
}

bool VirtualMcu::Read(const uint8_t* writeData, size_t writeCount, uint8_t* out, size_t readCount) {
    if (writeCount >= 1) ++readsAddressed_[writeData[0]];
    if (Nacked(writeData, writeCount)) return false;
    if (writeCount > 1) return false;  // registers take one address byte
    if (writeCount == 1) pointer_ = writeData[0];
    if (mode_ == McuMode::Application && pointer_ == kRegBridgeData) {
        // The data of the last bridge read streams from its start.
        for (size_t i = 0; i < readCount; ++i) out[i] = i < bridgeData_.size() ? bridgeData_[i] : 0x00;
        return true;
    }
    uint8_t reg = pointer_;
    for (size_t i = 0; i < readCount; ++i, ++reg) {
        switch (mode_) {
            case McuMode::Application: out[i] = ReadAppRegister(reg); break;
            case McuMode::Bootloader: out[i] = ReadBootloaderRegister(reg); break;
            case McuMode::Restarting: out[i] = reg == kRegWorkMode ? 0x02 : 0xFF; break;
        }
    }
    return true;
}

// ---------------------------------------------------------------- application

uint8_t VirtualMcu::ReadAppRegister(uint8_t reg) const {
    switch (reg) {
        case kRegHdmiInput: return uint8_t((hdmiSourcePresent_ ? 1 : 0) | (videoLocked_ ? 2 : 0));
        case kRegVideoLocked: return videoLocked_ ? 1 : 0;
        case kRegHdcp: return audio_.hdcp;
        case kRegHpOutVolume: return audio_.hpVolume;
        case kRegMicInVolume: return audio_.micVolume;
        case kRegAuxInVolume: return audio_.auxVolume;
        case kRegHpOutMuteState: return audio_.hpMute;
        case kRegMicInMuteState: return audio_.micMute;
        case kRegAuxInMuteState: return audio_.auxMute;
        case kRegHpMicPlug: return hpMicPlugged_ ? 1 : 0;
        case kRegLineInPlug: return lineInPlugged_ ? 1 : 0;
        case kRegSave: return saveStatus_;
        case kRegParameterSource: return parameterSource_;
        case kRegLed: return led_;
        case kRegLed + 1: return led_;  // the pattern shown, read as the pair's second byte
        case kRegBridgeStatus: return bridgeStatus_;
        case kRegWorkMode: return 0x01;
        case kRegBootloaderVersion: return config_.bootloaderVersion;
        default:
            if (reg >= kRegDeviceType && reg < kRegDeviceType + identity_.size())
                return identity_[reg - kRegDeviceType];
            return 0xFF;  // nothing there, or write only
    }
}

bool VirtualMcu::WriteApplication(const uint8_t* data, size_t count) {
    if (data[0] == kRegSave) return StartSave(data, count);
    if (data[0] == kRegBridgeCommand) return StartBridge(data, count);
    uint8_t reg = data[0];
    for (size_t i = 1; i < count; ++i, ++reg)
        if (!WriteAppRegister(reg, data[i])) return false;
    return true;
}

bool VirtualMcu::WriteAppRegister(uint8_t reg, uint8_t value) {
    switch (reg) {
        case kRegHdcp: audio_.hdcp = Flag(value); return true;
        case kRegHpOutVolume: audio_.hpVolume = std::min(value, kVolumeMax); return true;
        case kRegMicInVolume: audio_.micVolume = std::min(value, kVolumeMax); return true;
        case kRegAuxInVolume: audio_.auxVolume = std::min(value, kVolumeMax); return true;
        case kRegHpOutMuteSet: audio_.hpMute = Flag(value); return true;
        case kRegMicInMuteSet: audio_.micMute = Flag(value); return true;
        case kRegAuxInMuteSet: audio_.auxMute = Flag(value); return true;
        case kRegLed: return WriteLed(value);
        case kRegJumpBootloader:
            if (value != 0x01) return false;
            EnterBootloaderLine();
            return true;
        default: return false;  // read only or nothing there: data byte not acknowledged
    }
}

bool VirtualMcu::WriteLed(uint8_t value) {
    if (value < 0x80 || value > 0x83) return false;
    led_ = value;
    ledTimeline_.push_back({clockMs_, value});
    return true;
}

// 0xBC 0x01: save the audio and HDCP parameters. 0xBC 0x02 0 0 0 0 + 80
// bytes: save the LED parameter block. Status in 0xBC: busy (0x01 or
// 0x02 by kind), then 0x00 or an error.
bool VirtualMcu::StartSave(const uint8_t* data, size_t count) {
    if (save_.active) return false;
    if (count == 2 && data[1] == kSaveParameters) {
        saveIsLed_ = false;
    } else if (count == kLedSaveFrame && data[1] == kSaveLedParameters) {
        saveIsLed_ = true;
        std::memcpy(pendingLed_.data(), data + 6, kLedParameterSize);
    } else {
        return false;
    }
    saveStatus_ = saveIsLed_ ? kLedSaveBusy : kSaveBusy;
    Arm(save_, config_.timings.saveMs, false);
    if (!save_.active) FinishSave();
    return true;
}

void VirtualMcu::FinishSave() {
    const uint8_t result = faults_.saveResult.value_or(0x00);
    if (result == 0x00) {
        if (saveIsLed_) savedLed_ = pendingLed_;
        else saved_ = audio_;
    }
    saveStatus_ = result;
}

// 0xCD, bus (bit 7: read), device, address length, address (big-endian; 2,
// 3 or 4 bytes for those lengths, else one byte), count, then for a write
// the count data bytes.
bool VirtualMcu::StartBridge(const uint8_t* data, size_t count) {
    if (bridge_.active || count < 6) return false;
    BridgeJob job;
    job.read = (data[1] & 0x80) != 0;
    job.bus = data[1] & 0x03;
    job.device = data[2];
    const uint8_t lengthCode = data[3];
    const size_t addressBytes = (lengthCode >= 2 && lengthCode <= 4) ? lengthCode : 1;
    if (count < 4 + addressBytes + 1) return false;
    job.address.assign(data + 4, data + 4 + addressBytes);
    job.count = data[4 + addressBytes];
    const size_t expected = 5 + addressBytes + (job.read ? 0 : job.count);
    if (count != expected) return false;
    if (!job.read) job.payload.assign(data + 5 + addressBytes, data + count);
    bridgeJob_ = std::move(job);
    bridgeStatus_ = kBridgeBusy;
    Arm(bridge_, config_.timings.bridgeMs, faults_.bridgeNeverCompletes);
    if (!bridge_.active) FinishBridge();
    return true;
}

void VirtualMcu::FinishBridge() {
    const BridgeJob& job = bridgeJob_;
    auto it = busTargets_.find({job.bus, job.device});
    bool ok = it != busTargets_.end();
    if (ok && job.read) {
        std::vector<uint8_t> in(job.count);
        ok = it->second->Read(job.address.data(), job.address.size(), in.data(), in.size());
        if (ok) bridgeData_ = std::move(in);
    } else if (ok) {
        std::vector<uint8_t> frame = job.address;
        frame.insert(frame.end(), job.payload.begin(), job.payload.end());
        ok = it->second->Write(frame.data(), frame.size());
    }
    bridgeStatus_ = ok ? 0x00 : kBridgeNoAck;
}

// ---------------------------------------------------------------- bootloader

uint8_t VirtualMcu::ReadBootloaderRegister(uint8_t reg) const {
    switch (reg) {
        case kRegWorkMode: return 0x00;
        case kBlBusy: return blStatus_;
        case kRegBootloaderVersion: return config_.bootloaderVersion;
        case kRegLed:
        case kRegLed + 1: return led_;
        default: return 0xFF;
    }
}

bool VirtualMcu::BlAddressRange(uint32_t address, uint32_t pages) const {
    if (address < kProgramBase || (address - kProgramBase) % kProgramPageSize != 0) return false;
    return uint64_t(address) + uint64_t(pages) * kProgramPageSize <= kProgramEnd;
}

// 0xE2, command letter, 0x00, address (4 bytes big-endian), page count (2
// bytes big-endian), then 128 data bytes for program and verify.
bool VirtualMcu::WriteBootloader(const uint8_t* data, size_t count) {
    if (data[0] == kRegLed) {  // the bootloader drives the LED during an update
        return count == 2 && WriteLed(data[1]);
    }
    if (data[0] == kRegJumpBootloader) return count == 2 && data[1] == 0x01;  // already here
    if (data[0] != kBlCommand || count < kBlHeader || blBusy_.active) return false;
    ++bootloaderCommands_;
    const uint8_t command = data[1];
    const uint32_t address = (uint32_t(data[3]) << 24) | (uint32_t(data[4]) << 16) |
                             (uint32_t(data[5]) << 8) | data[6];
    const uint32_t pages = (uint32_t(data[7]) << 8) | data[8];
    const auto& t = config_.timings;
    uint32_t busyMs = 0;
    switch (command) {
        case kBlErase:
        case kBlBlankCheck:
            if (count != kBlHeader || !BlAddressRange(address, pages)) return false;
            blOp_ = command == kBlErase ? BlOp::Erase : BlOp::BlankCheck;
            busyMs = pages * (command == kBlErase ? t.eraseMsPerPage : t.blankCheckMsPerPage);
            break;
        case kBlProgram:
        case kBlVerify:
            if (count != kBlHeader + kProgramPageSize || pages != 1 || !BlAddressRange(address, 1))
                return false;
            blOp_ = command == kBlProgram ? BlOp::Program : BlOp::Verify;
            std::memcpy(blPage_.data(), data + kBlHeader, kProgramPageSize);
            busyMs = command == kBlProgram ? t.programPageMs : t.verifyPageMs;
            break;
        case kBlRestart:
            if (count != kBlHeader) return false;
            transitionTarget_ = McuMode::Application;
            mode_ = McuMode::Restarting;
            Arm(transition_, t.restartMs, false);
            if (!transition_.active) FinishTransition();
            return true;
        default: return false;
    }
    blAddress_ = address;
    blPages_ = pages;
    blStatus_ = kBlStatusBusy;
    Arm(blBusy_, busyMs, faults_.bootloaderStaysBusy);
    if (!blBusy_.active) FinishBootloaderOp();
    return true;
}

void VirtualMcu::FinishBootloaderOp() {
    const size_t at = blAddress_ - kProgramBase;
    const size_t length = size_t(blPages_) * kProgramPageSize;
    uint8_t status = 0x00;
    switch (blOp_) {
        case BlOp::Erase: std::fill_n(program_.begin() + std::ptrdiff_t(at), length, uint8_t(0xFF)); break;
        case BlOp::BlankCheck:
            if (!std::all_of(program_.begin() + std::ptrdiff_t(at),
                             program_.begin() + std::ptrdiff_t(at + length),
                             [](uint8_t b) { return b == 0xFF; }))
                status = kBlStatusBlankFail;
            break;
        case BlOp::Program:
            // NOR flash: programming only clears bits.
            for (size_t i = 0; i < kProgramPageSize; ++i) program_[at + i] &= blPage_[i];
            break;
        case BlOp::Verify: {
            const bool injected = faults_.verifyMismatchAddress &&
                                  *faults_.verifyMismatchAddress >= blAddress_ &&
                                  *faults_.verifyMismatchAddress < blAddress_ + kProgramPageSize;
            if (injected || std::memcmp(&program_[at], blPage_.data(), kProgramPageSize) != 0)
                status = kBlStatusVerifyFail;
            break;
        }
        case BlOp::None: break;
    }
    blOp_ = BlOp::None;
    blStatus_ = status;
}

}  // namespace VideoConsoleCore::virtualdev
