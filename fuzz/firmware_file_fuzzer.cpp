// Fuzz target: the check of a firmware file against the selected device.
//
// Input layout (missing bytes read as zero):
//   byte 0     bit 0: kind (0 flash image *.hex, 1 program image *.bin)
//              bit 1: full size (see below)
//   byte 1     the device's model code
//   bytes 2-5  the selected device's VID and PID, little-endian
//   3 texts    FW_Overwrite, the device's USB version, its MCU version;
//              each a length byte and that many bytes
//   the rest   the file. Short: the file is these bytes. Full size: a
//              flash image of the minimum size with the first 16 bytes at
//              the version, the next 8 at the VID/PID, the others after its
//              end; a program image with the rest from offset 0x800.
//
// The file goes through SetFirmwareFile by its path. Besides crashes and
// sanitizer reports, it stops when a file is accepted against the rules
// the check must keep whatever the version texts say: only force mode
// takes a file too short or of another device, and the version kept is the
// file's own.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "firmware/version_rules.h"
#include "fuzz_core.h"

using namespace VideoConsoleCore;
namespace fw = VideoConsoleCore::firmware;

namespace {

struct Image {
    size_t size = 0;
    std::vector<uint8_t> bytes;  // bytes[0..size) where not sparse
    // What the checks read, as the file holds them (zero beyond its end).
    uint8_t version[16] = {};
    uint16_t vid = 0, pid = 0;
    uint8_t mcu[9] = {};  // offsets 0x800..0x808
};

Image WriteFile(fuzz::MemoryFile& file, bool usb, bool full, const uint8_t* rest, size_t left) {
    Image image;
    if (usb && full) {
        const size_t version = std::min<size_t>(left, 16);
        const size_t ids = std::min<size_t>(left - version, 8);
        const size_t tail = left - version - ids;
        image.size = fw::kUsbImageMinimumSize + tail;
        file.Resize(image.size);
        file.Write(fw::kImageVersionOffset, rest, version);
        file.Write(fw::kImageVidOffset, rest + version, ids);
        file.Write(fw::kUsbImageMinimumSize, rest + version + ids, tail);
        std::memcpy(image.version, rest, version);
        uint8_t idBytes[8] = {};
        std::memcpy(idBytes, rest + version, ids);
        image.vid = static_cast<uint16_t>(idBytes[0] | idBytes[1] << 8);
        image.pid = static_cast<uint16_t>(idBytes[2] | idBytes[3] << 8);
        return image;
    }
    const size_t at = !usb && full ? fw::kMcuVersionOffset : 0;
    image.size = at + left;
    if (!usb && full) image.size = std::max(image.size, fw::kMcuImageMinimumSize);
    image.bytes.assign(image.size, 0);
    std::copy(rest, rest + left, image.bytes.begin() + static_cast<ptrdiff_t>(at));
    file.Resize(image.size);
    file.Write(0, image.bytes.data(), image.size);
    for (size_t i = 0; i < 9; ++i) {
        const size_t offset = fw::kMcuVersionOffset + i;
        image.mcu[i] = offset < image.size ? image.bytes[offset] : 0;
    }
    return image;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::MemoryFile file("firmware");
    fuzz::InputReader in(data, size);
    const uint8_t flags = in.Byte();
    const bool usb = (flags & 1) == 0;
    const bool full = (flags & 2) != 0;
    const uint8_t model = in.Byte();
    const uint16_t vid = in.Le16();
    const uint16_t pid = in.Le16();
    const std::string overwrite = in.Text();
    const std::string usbVersion = in.Text();
    const std::string mcuVersion = in.Text();
    const Image image = WriteFile(file, usb, full, in.Rest(), in.Left());

    VideoConsoleCoreImp core;
    fuzz::QuietCore(core, {{"FW_Overwrite", overwrite}});
    core.m_scanned = true;
    core.m_selected = true;
    core.m_deviceState = kDeviceStateSelected;
    core.m_deviceModel = model;
    core.m_selectedVid = vid;
    core.m_selectedPid = pid;
    core.m_usbFwVersion = usbVersion;
    core.m_mcuFwVersion = mcuVersion;

    const FirmwareKind kind = usb ? kFirmwareUsbHex : kFirmwareMcuBin;
    const bool answer = core.SetFirmwareFile(file.Path().c_str(), kind);
    std::string kept;
    const bool accepted = core.GetFirmwareFileVersion(kept, kind);
    const bool forced = overwrite == "99";
    if (usb) {
        const bool longEnough = image.size >= fw::kUsbImageMinimumSize;
        const bool sameDevice = longEnough && image.vid == vid && image.pid == pid;
        fuzz::Check(!accepted || forced || sameDevice, "foreign or short flash image accepted");
        fuzz::Check(answer == (forced || sameDevice), "answer is not the identity check");
        if (accepted) {
            const char* text = reinterpret_cast<const char*>(image.version);
            fuzz::Check(kept == std::string(text, strnlen(text, 16)), "kept version is not the file's");
        }
    } else {
        const bool longEnough = image.size >= fw::kMcuImageMinimumSize;
        const uint8_t type = image.mcu[1];
        const bool sameBoard = model >= 5 && model <= 17 && (type == model || type == model + 128);
        fuzz::Check(!accepted || forced || (longEnough && sameBoard),
                    "foreign or short program image accepted");
        fuzz::Check(answer == accepted, "answer is not the acceptance");
        if (accepted) {
            char text[16];
            std::snprintf(text, sizeof text, "%02x.%02x.%02x", type, image.mcu[0], image.mcu[8]);
            fuzz::Check(kept == text, "kept version is not the file's");
        }
    }
    return 0;
}
