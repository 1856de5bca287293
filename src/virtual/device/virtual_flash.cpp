#include "virtual/device/virtual_flash.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace VideoConsoleCore::virtualdev {

VirtualFlash::VirtualFlash(const FlashGeometry& geometry)
    : bytes_(static_cast<size_t>(TotalBytes(geometry)), 0xFF),
      sectorSize_(geometry.sectorSize) {}

void VirtualFlash::Read(uint32_t address, uint8_t* out, uint32_t count) const {
    const uint64_t inside =
        address < bytes_.size() ? std::min<uint64_t>(count, bytes_.size() - address) : 0;
    if (inside > 0) std::memcpy(out, bytes_.data() + address, static_cast<size_t>(inside));
    std::fill(out + inside, out + count, uint8_t{0xFF});
}

void VirtualFlash::Write(uint32_t address, const uint8_t* data, uint32_t count) {
    if (address >= bytes_.size() || count == 0) return;
    const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(count, bytes_.size() - address));
    std::memcpy(bytes_.data() + address, data, n);
    sectorErases_ += (address + n - 1) / sectorSize_ - address / sectorSize_ + 1;

    // Coverage of the firmware area by the session writing into it.
    using namespace flash_layout;
    const uint64_t end = uint64_t{address} + n;
    if (end <= kFirmwareStart || address >= kFirmwareStart + kFirmwareLength) return;
    const uint32_t from = std::max(address, kFirmwareStart);
    const uint32_t to = static_cast<uint32_t>(std::min<uint64_t>(end, kFirmwareStart + kFirmwareLength));
    if (firmwareSession_ == session_ && from >= firmwareStart_ && from <= firmwareEnd_) {
        firmwareEnd_ = std::max(firmwareEnd_, to);
    } else {
        firmwareSession_ = session_;
        firmwareStart_ = from;
        firmwareEnd_ = to;
    }
}

void VirtualFlash::EraseAll() {
    std::fill(bytes_.begin(), bytes_.end(), uint8_t{0xFF});
    firmwareStart_ = firmwareEnd_ = 0;
}

uint32_t VirtualFlash::ReadLe32(uint32_t address) const {
    uint8_t b[4];
    Read(address, b, 4);
    return uint32_t{b[0]} | uint32_t{b[1]} << 8 | uint32_t{b[2]} << 16 | uint32_t{b[3]} << 24;
}

uint32_t VirtualFlash::ReadBe32(uint32_t address) const {
    uint8_t b[4];
    Read(address, b, 4);
    return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | uint32_t{b[3]};
}

void VirtualFlash::WriteLe32(uint32_t address, uint32_t value) {
    const uint8_t b[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                          static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
    Write(address, b, 4);
}

UsbImageOptions FactoryImageOptions(const VirtualDeviceConfig& config, uint32_t flashSize) {
    UsbImageOptions o;
    o.size = std::min(o.size, flashSize);
    o.versionText = StoredVersionText(config.usbFwVersion, config.usbFwBuild);
    o.vid = config.vid;
    o.pid = config.pid;
    o.infoBase = config.infoBase;
    o.modelCode = config.modelCode;
    o.flashType = config.flashType;
    o.slot3Text = config.serial;
    return o;
}

void VirtualFlash::WriteFactoryImage(const VirtualDeviceConfig& config) {
    EraseAll();
    BeginWriteSession();
    const std::vector<uint8_t> image = BuildUsbImage(FactoryImageOptions(config, Size()));
    Write(0, image.data(), static_cast<uint32_t>(image.size()));
}

BootChoice DecideBoot(const VirtualFlash& flash, const std::array<uint8_t, 4>& originalVersion) {
    using namespace flash_layout;
    BootChoice choice;
    choice.version = originalVersion;
    if (flash.ReadLe32(kConfigBlock) != kLoadUpdated) return choice;
    const uint32_t header = flash.ReadBe32(kHeaderLengthAt);
    const uint32_t boot = flash.ReadBe32(kBootSizeAt);
    if (header == 0 || boot == 0 || header == 0xFFFFFFFF || boot == 0xFFFFFFFF ||
        uint64_t{header} + boot > kFirmwareLength) {
        return choice;
    }
    if (flash.FirmwareWrittenStart() > kFirmwareStart ||
        flash.FirmwareWrittenEnd() < kFirmwareStart + header + boot) {
        choice.partialFirmware = true;
        return choice;
    }
    char text[17] = {};
    flash.Read(kPrivateStart, reinterpret_cast<uint8_t*>(text), 16);
    std::array<uint8_t, 4> version{};
    if (!ParseStoredVersionText(std::string(text), version)) return choice;
    choice.updated = true;
    choice.version = version;
    return choice;
}

}  // namespace VideoConsoleCore::virtualdev
