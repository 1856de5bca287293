// The bridge chip's SPI NOR flash and what its boot code finds in it.
//
// Storage is the whole part, erased (0xFF) at first, kept as 4 KiB pages
// that are shared until written: every erased page is one shared page, and
// a factory image is built once per distinct device and shared by every
// device made with it, so making a virtual device costs microseconds, not
// the tens of megabytes a byte array of the part would take to fill.
// Writes reach it through the bridge, which erases each erase unit it
// programs into and puts back the bytes of that unit outside the written
// range: a written byte reads back exactly as sent, whatever was there, and
// bytes next to it are kept. The host therefore never erases explicitly,
// and a read-modify-write of part of a sector (the 4 KiB configuration
// block in a 64 KiB sector) does not disturb the rest of the sector.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "virtual/device/flash_chip_table.h"
#include "virtual/device/usb_image.h"
#include "virtual/device/virtual_device_config.h"

namespace VideoConsoleCore::virtualdev {

class VirtualFlash {
public:
    explicit VirtualFlash(const FlashGeometry& geometry);

    uint32_t Size() const { return size_; }
    uint32_t SectorSize() const { return sectorSize_; }

    // Reads `count` bytes from `address`; bytes past the end read 0xFF.
    void Read(uint32_t address, uint8_t* out, uint32_t count) const;
    // Programs `count` bytes at `address` (erase-and-reprogram, see above);
    // bytes past the end are dropped. Counts the erase units touched.
    void Write(uint32_t address, const uint8_t* data, uint32_t count);
    void EraseAll();

    uint32_t ReadLe32(uint32_t address) const;
    uint32_t ReadBe32(uint32_t address) const;
    void WriteLe32(uint32_t address, uint32_t value);

    // Erase units programmed into since construction.
    uint64_t SectorErases() const { return sectorErases_; }
    // Pages this flash holds alone: the memory its writes have taken
    // (kPageSize each), which shared pages do not.
    size_t OwnPages() const;

    // A new write session: the bridge's flash window was set up again.
    // Writes of one session follow each other from the window's start.
    void BeginWriteSession() { ++session_; }
    // The stretch of the firmware area that the latest session writing into
    // it has written without a gap, [start, end); it tells the boot code
    // whether the firmware there is whole or was cut off part-way.
    uint32_t FirmwareWrittenStart() const { return firmwareStart_; }
    uint32_t FirmwareWrittenEnd() const { return firmwareEnd_; }

    // Erases the flash and writes the image the device leaves the factory
    // with (FactoryImageOptions): what BuildUsbImage makes of the device's
    // settings.
    void WriteFactoryImage(const VirtualDeviceConfig& config);

    static constexpr uint32_t kPageSize = 0x1000;
    using Page = std::array<uint8_t, kPageSize>;

private:
    // Copies bytes in, copying a shared page before it is changed.
    void Store(uint32_t address, const uint8_t* data, uint32_t count);
    // The bookkeeping of a write of `count` bytes at `address`.
    void NoteWrite(uint32_t address, uint32_t count);

    // A page is changed in place only when this flash holds the one
    // reference to it; shared pages (the erased page, the factory image's)
    // are never written.
    std::vector<std::shared_ptr<Page>> pages_;
    uint32_t size_;
    uint32_t sectorSize_;
    uint64_t sectorErases_ = 0;
    uint64_t session_ = 0;
    uint64_t firmwareSession_ = 0;
    uint32_t firmwareStart_ = 0;
    uint32_t firmwareEnd_ = 0;
};

// The factory image of a device: boot configuration "load updated", a
// firmware area with a valid header, the version text (usbFwVersion), the
// device's VID/PID, model code and flash type, its serial number in string
// descriptor slot 3; no longer than `flashSize`.
UsbImageOptions FactoryImageOptions(const VirtualDeviceConfig& config, uint32_t flashSize);

// What the bridge's boot code decides from the flash.
struct BootChoice {
    bool updated = false;               // runs the firmware in the flash
    std::array<uint8_t, 4> version{};   // running version (registers 0x54..0x60)
    // The configuration word said "updated" and the header was sane, but the
    // firmware was not written whole: a real bridge, which cannot tell,
    // would have started a half-written firmware here. The model runs its
    // original firmware instead and says so.
    bool partialFirmware = false;
};

// The boot rule: the firmware in the flash runs when the configuration word
// is 1, the firmware area's header is sane (header length and boot size
// neither erased nor zero, their sum within the area), the firmware area
// holds a whole image (its first header length + boot size bytes written
// without a gap by the latest session that wrote into the area) and the
// image's version text parses; in every other case the bridge runs its
// original firmware from its boot ROM, so no flash content leaves it
// unbootable.
BootChoice DecideBoot(const VirtualFlash& flash, const std::array<uint8_t, 4>& originalVersion);

}  // namespace VideoConsoleCore::virtualdev
