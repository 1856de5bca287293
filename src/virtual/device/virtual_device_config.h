// What a virtual capture device looks like, read from the Virtual* keys of
// setting.cfg. Every key is optional; a value that does not parse, or lies
// outside what the device can be, leaves the default in place.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "settings/settings_file.h"
#include "virtual/mcu/virtual_mcu.h"

namespace VideoConsoleCore::virtualdev {

// One HID report of the device: its ID and its report count (bytes after
// the report-ID byte; each field is 8 bits wide).
struct ReportShape {
    uint8_t id = 0;
    uint16_t count = 0;
    uint32_t Length() const { return uint32_t{count} + 1; }
};

// The three report kinds in the order the library indexes them.
enum ReportKind : int { kDataReport = 0, kCommandReport = 1, kIicReport = 2 };

// Which HID call a planned failure hits.
enum class HidCall : int {
    kNone = 0,
    kOpen,
    kGetAttributes,
    kGetPreparsedData,
    kSetOutputReport,
    kGetInputReport,
    kGetSerialNumberString,
    kGetProductString,
    kEnumerateHidInterfaces,
    kEnumerateUsbDevices,
};

// Faults a device shows on purpose, for tests and demonstrations.
struct FaultPlan {
    // The Nth call (1-based) of `failCall` on this device fails (the
    // backend returns false); calls before and after succeed. 0 = never.
    HidCall failCall = HidCall::kNone;
    uint32_t failAt = 0;
    // Every IIC reply says busy (status kIicBusy) and no I2C transfer runs.
    bool iicNeverFinishes = false;
    // The bridge stalls every input report request: the host's HID call
    // fails, which the library sees as its HID error flag on each reply.
    bool repliesStall = false;
    // After this many report transfers (SetOutputReport and GetInputReport
    // together) the device is unplugged: open handles fail, enumeration no
    // longer lists it. 0 = never.
    uint32_t unplugAfterTransfers = 0;
    // The program driving the device dies (abort) or stops for good (its
    // transfer never returns) at this report transfer: what a crash or a
    // hang of a host process looks like to those who supervise it. 0 = never.
    uint32_t crashAfterTransfers = 0;
    uint32_t hangAfterTransfers = 0;
    // The microcontroller alone loses its power after this many report
    // transfers and starts again (the bridge stays). 0 = never.
    uint32_t mcuPowerCutAfterTransfers = 0;
    // A flash cell that does not keep what is written: the byte at this
    // address is stored with its bits inverted (a failing compare). 0 =
    // every cell is sound.
    uint32_t corruptFlashAt = 0;
    // How many value reports of each direction the report descriptor
    // carries (1..3); fewer than 3 leaves the later kinds out.
    int valueReports = 3;
};

struct VirtualDeviceConfig {
    uint16_t vid = 0xFFF0;
    uint16_t pid = 0x0C01;
    uint16_t versionNumber = 0x0100;  // bcdDevice
    std::string serial;               // default "VC" + eight digits of the device number
    // The USB port the device is plugged into ("1-4.2"); default "1-<n+1>"
    // for device n, so that every device of a bench has a port of its own.
    std::string location;
    std::string description = "Virtual HDMI Capture";
    std::string manufacturer = "Virtual Capture Devices";
    int portLevel = 3;   // 2 or 3
    uint8_t modelCode = 13;  // 5..17
    uint8_t flashType = 0;   // second byte of the identification block
    int flashIndex = 26;     // what REPORT_FLASH_GET_ID answers (any 16-bit value)
    // Running version of the firmware stored in the flash image, and of the
    // bridge's original (boot ROM) firmware: four bytes, xx.xx.xx.xx.
    std::array<uint8_t, 4> usbFwVersion{1, 0, 1, 9};
    // Build number behind the version in the stored 16-character version
    // text, "xx.xx.xx.xx.bbbb" (hexadecimal).
    uint16_t usbFwBuild = 0;
    std::array<uint8_t, 4> originalFwVersion{1, 0, 0, 0};
    // Flash address where the library's "firmware-area base" points: the
    // stored version text sits here and the identification block at
    // + 0x20000 + 384.
    uint32_t infoBase = 0x4F0000;
    // Output reports (index = ReportKind) and input reports.
    std::array<ReportShape, 3> output{{{1, 4099}, {2, 64}, {3, 160}}};
    std::array<ReportShape, 3> input{{{1, 4099}, {2, 64}, {3, 160}}};
    std::array<uint8_t, 24> hdmiInfo{};
    uint16_t usbWidth = 1920;
    uint16_t usbHeight = 1080;
    uint8_t usbFrameRate = 60;
    uint8_t usbColorFormat = 2;
    uint32_t latencyMs = 0;
    // Someone re-plugs the device this long after the last flash data
    // report of an update (a flash write since the last plug-in, then this
    // much quiet); 0 = nobody does.
    uint32_t replugAfterUpdateMs = 0;
    FaultPlan faults;
    // The board's microcontroller (read from the settings, its device type
    // follows modelCode unless set) and the faults it shows from power-on;
    // tests change the faults later through VirtualHidBackend::Mcu(n).
    VirtualMcuConfig mcu;
    VirtualMcuFaults mcuFaults;

    // Largest bytes of flash data one data report carries.
    uint32_t OutputChunk() const { return output[kDataReport].Length() - 4; }
    uint32_t InputChunk() const { return input[kDataReport].Length() - 4; }
};

// Report counts the device accepts: command and IIC reports must stay below
// 256 bytes in all (the input request carries the command in bits 8..15 of
// its length word), data reports must hold the 4-byte header and data.
inline constexpr uint16_t kMinSmallReportCount = 32;
inline constexpr uint16_t kMaxSmallReportCount = 254;
inline constexpr uint16_t kMinDataReportCount = 8;

// The whole set of virtual devices from the settings table. Two devices
// cannot share a port: one whose location an earlier device already has
// is moved to the first free "1-<k>".
std::vector<VirtualDeviceConfig> ReadVirtualDeviceConfigs(const SettingsTable& settings);

// One device's keys ("Virtual<n>_..."), for device number n.
VirtualDeviceConfig ReadVirtualDeviceConfig(const SettingsTable& settings, int n);

// "xx.xx.xx.xx" with hexadecimal groups of one or two digits; false when the
// text is not of that form.
bool ParseVersionText(const std::string& text, std::array<uint8_t, 4>& out);
std::string VersionText(const std::array<uint8_t, 4>& version);
// The 16-character text a flash image stores: the version and its build,
// "xx.xx.xx.xx.bbbb".
std::string StoredVersionText(const std::array<uint8_t, 4>& version, uint16_t build);
// The running version of a stored text: its first eleven characters.
bool ParseStoredVersionText(const std::string& text, std::array<uint8_t, 4>& out);

// "SetOutputReport:5" -> (kSetOutputReport, 5); false when malformed.
bool ParseFailCall(const std::string& text, HidCall& call, uint32_t& at);

}  // namespace VideoConsoleCore::virtualdev
