// Support snapshots of the device: what the bridge streams over USB, its
// HDMI status block, and the microcontroller's registers with the EDID of
// the monitor on the splitter's transmit port.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>

#include <spdlog/logger.h>

#include "core/VideoConsoleCoreImp.h"
#include "device/mcu_access.h"
#include "hid/report_protocol.h"
#include "platform/platform.h"

namespace VideoConsoleCore {

namespace {

constexpr const char* kRule = "----------------------------------------";
constexpr size_t kUsbInfoBytes = 32;
constexpr size_t kHdmiInfoBytes = 24;

// Fetches one input report of the IIC kind into `out` (`count` bytes, the
// rest of a short reply zero). False when the exchange failed; `out` then
// holds zeros.
bool FetchReply(VideoConsoleCoreImp& core, const ReportTemplate& report, uint8_t* out,
                size_t count) {
    std::memset(out, 0, count);
    // The reply lands in the core's shared input buffer: an update's light
    // blinking on its own thread must not exchange through it meanwhile.
    std::lock_guard exchange(core.m_exchangeLock);
    hid::HidCallParameters request;
    bool hidError = false;
    if (!PrepareReportRequest(core, request, report, nullptr)) return false;
    // Clear what an earlier reply left, so a failed read yields zeros.
    std::memset(core.m_inputBuffer.data(), 0, core.m_inputBuffer.size());
    const bool ok = ExchangeReport(core, report, request, hidError) && !hidError;
    // Only the bytes of the report itself are taken; a short report leaves
    // the rest of `out` zero.
    const size_t reportLength = core.m_inputValueCaps[report.kind].ReportCount + 1u;
    if (ok) {
        const size_t taken = std::min({count, reportLength, core.m_inputBuffer.size()});
        std::memcpy(out, core.m_inputBuffer.data(), taken);
    }
    return ok;
}

// The bridge answers the USB stream report from firmware 01.00.01.09 on:
// the digits of the version's first eleven characters add up to 11 or more.
bool UsbInfoSupported(const std::string& version) {
    int sum = 0;
    for (size_t i = 0; i < version.size() && i < 11; ++i)
        if (version[i] != '.') sum += version[i] - '0';
    return sum >= 11;
}

const char* ColorFormatName(uint8_t code) {
    switch (code) {
        case 1: return "NV12";
        case 2: return "YUYV";
        case 3: return "P010";
        case 4: return "RGB32";
        default: return "";
    }
}

// Registers of the microcontroller in the support snapshot, in order.
constexpr uint8_t kSnapshotRegisters[] = {0xA0, 0xA2, 0x02, 0x0C, 0x0E, 0x10, 0x11,
                                          0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0xC6};

// The splitter (IT6663) on bus 0 of the microcontroller, and its DDC
// master's registers.
constexpr uint8_t kSplitter = 0x6A;
constexpr uint8_t kDdcCommand = 0x2E, kDdcTarget = 0x29, kDdcOffset = 0x2A, kDdcCount = 0x2B,
                  kDdcSegment = 0x2C, kDdcPort = 0x2D, kDdcFifo = 0x30;
constexpr uint8_t kDdcClear = 0x09, kDdcRead = 0x03;
constexpr uint8_t kEdidBytes = 0x20;

// One splitter register write through the microcontroller's I2C master.
bool SplitterWrite(VideoConsoleCoreImp& core, uint8_t reg, uint8_t value) {
    uint8_t frame[7] = {mcu_reg::kBridgeCommand, 0x00, kSplitter, 1, reg, 1, value};
    return AccessIicData(core, kIicWrite, kMcuAddress, 7, frame, 0) && frame[0] == 0;
}

std::string Hex12(const uint8_t* b) {
    char text[64];
    std::snprintf(text, sizeof text, "%02x %02x %02x %02x %02x %02x %02x %02x %02x %02x %02x %02x",
                  b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11]);
    return text;
}

// Reads the first 32 EDID bytes of the monitor on TX port 1 and appends the
// verdict to `summary`.
void ReadTxEdid(VideoConsoleCoreImp& core, std::string& summary) {
    const std::pair<uint8_t, uint8_t> setup[] = {{kDdcCommand, kDdcClear}, {kDdcTarget, 0xA0},
                                                 {kDdcOffset, 0x00},       {kDdcCount, kEdidBytes},
                                                 {kDdcSegment, 0x00},      {kDdcPort, 0x00}};
    for (const auto& [reg, value] : setup)
        if (!SplitterWrite(core, reg, value)) return;
    platform::SleepMilliseconds(100);
    if (!SplitterWrite(core, kDdcCommand, kDdcRead)) return;
    platform::SleepMilliseconds(100);

    uint8_t start[6] = {mcu_reg::kBridgeCommand, 0x80, kSplitter, 1, kDdcFifo, kEdidBytes};
    if (!AccessIicData(core, kIicWrite, kMcuAddress, 6, start, 0) || start[0] != 0) return;
    bool done = false;
    for (int poll = 1; poll <= 10 && !done; ++poll) {
        uint8_t status = 0xFF;
        if (!ReadMcuRegister(core, mcu_reg::kBridgeStatus, &status)) {
            core.DebugOut("Iic Access Fail!\n");
            return;
        }
        done = status == 0;
        if (!done && poll < 10) platform::SleepMilliseconds(100);
    }
    if (!done) {
        core.LogInfo("IT6663 TX EDID: Iic Timeout!");
        summary += "TX_EDID: Iic Timeout!";
        core.DebugOut("Iic Timeout!\n");
        return;
    }

    uint8_t reply[1 + kEdidBytes] = {mcu_reg::kBridgeData};
    if (!AccessIicData(core, kIicRead, kMcuAddress, 1, reply, kEdidBytes) || reply[0] != 0)
        return;
    const uint8_t* b = reply + 1;
    const std::string bytes = Hex12(b);
    core.LogInfo("IT6663 TxPort1 EDID: " + bytes);

    bool header = b[0] == 0 && b[7] == 0;
    for (int i = 1; i <= 6; ++i) header = header && b[i] == 0xFF;
    bool tailZero = true;
    for (int i = 5; i <= 11; ++i) tailZero = tailZero && b[i] == 0;
    if (header) {
        core.LogInfo("Tx_EDID Read Result: true");
        summary += "EDID: true";
    } else if (b[4] < 0xFF || !tailZero) {
        core.LogInfo("Tx_EDID Read Result: false");
        summary += "EDID: false";
    } else {
        // What an older microcontroller firmware answers instead of the EDID.
        core.LogInfo("Tx_EDID Read Result: true (old firmware version)");
        summary += "EDID: true";
    }
    summary += ", " + bytes;
}

}  // namespace

uint8_t VideoConsoleCoreImp::GetUsbAppInfo() {
    if (!RequireDevice()) return 0;
    LogInfo(kRule);
    if (!UsbInfoSupported(m_usbFwVersion)) {
        LogInfo("[APP info]");
        LogInfo("ERROR: Firmware version too low");
        NotifyDeviceState("[APP_info] ERROR: Firmware version too low");
        return 0;
    }
    try {
        uint8_t reply[kUsbInfoBytes];
        if (!FetchReply(*this, templates::kUsbInfo, reply, sizeof reply) && m_localLogging &&
            m_logger) {
            // Logged with its own line feed (LogInfo would drop it): the
            // log shows an empty line after it.
            m_logger->info("{}", "Unknown error: Couldn't execute REPORT_USB_INFO function\n");
        }
        LogInfo("[APP Info]");
        const int width = reply[0] * 256 + reply[1];
        const int height = reply[2] * 256 + reply[3];
        const int frameRate = reply[4];
        const char* color = ColorFormatName(reply[5]);
        char text[128];
        std::snprintf(text, sizeof text, "%d x %d", width, height);
        LogInfo(std::string("Resolution: ") + text);
        std::snprintf(text, sizeof text, "USB frame rate: %d", frameRate);
        LogInfo(text);
        LogInfo(std::string("USB color format: ") + color);
        std::snprintf(text, sizeof text, "usb resolution (%d x %d) \n", width, height);
        DebugOut(text);
        std::snprintf(text, sizeof text, "frame rate(%d) \n", frameRate);
        DebugOut(text);
        std::snprintf(text, sizeof text, "color format(%d) \n", reply[5]);
        DebugOut(text);
        std::snprintf(text, sizeof text, "Resolution=%dx%d FrameRate=%d ColorFormat=%s", width,
                      height, frameRate, *color ? color : "0");
        // The value field carries the numbers as 16-bit fields: width,
        // height, frame rate, colour format code (lowest first).
        const uint64_t packed = uint64_t(width) | uint64_t(height) << 16 |
                                uint64_t(frameRate) << 32 | uint64_t(reply[5]) << 48;
        NotifyDeviceState(text, packed);
        return 1;
    } catch (const std::exception&) {
        DebugOut("error to fetch usb information");
        LogInfo("error to fetch usb information");
        NotifyDeviceState("[APP info] Error to fetch usb information");
        return 0;
    }
}

bool VideoConsoleCoreImp::GetHdmiInfo() {
    if (!RequireDevice()) return false;
    uint8_t reply[kHdmiInfoBytes];
    if (!FetchReply(*this, templates::kHdmiInfo, reply, sizeof reply))
        DebugOut("Unknown error: Couldn't execute REPORT_HDMI_INFO function\n");
    std::string hex;
    for (size_t i = 0; i < kHdmiInfoBytes; ++i) {
        char byte[4];
        std::snprintf(byte, sizeof byte, "%02x", reply[i]);
        if (i) hex += ' ';
        hex += byte;
    }
    DebugOut("HDMI info: " + hex + "\n");
    const std::string text = "HDMI info: " + hex;
    LogInfo("========================================");
    LogInfo("[HDMI Info]");
    LogInfo(text);
    NotifyDeviceState(text.c_str());
    return true;
}

bool VideoConsoleCoreImp::GetMcuInfo() {
    if (!RequireIdleDevice(kRefuseMcuInfo)) return false;
    if (!CheckMcu(*this)) {
        LogInfo(kRule);
        LogInfo("[MCU info]");
        LogInfo("ERROR: No MCU detected");
        NotifyDeviceState("[MCU_Info] ERROR: No MCU detected");
        return false;
    }
    LogInfo(kRule);
    LogInfo("[MCU info]");
    std::string summary;
    for (const uint8_t reg : kSnapshotRegisters) {
        uint8_t data[2] = {reg, 0};
        if (!AccessIicData(*this, kIicRead, kMcuAddress, 1, data, 1) || data[0] != 0)
            return false;
        char pair[48];
        std::snprintf(pair, sizeof pair, "MCU addr: %02x, value: %02x", reg, data[1]);
        LogInfo(pair);
        std::snprintf(pair, sizeof pair, "%02x=%02x ", reg, data[1]);
        summary += pair;
    }
    ReadTxEdid(*this, summary);
    NotifyDeviceState(("[MCU_Info] " + summary).c_str());
    return true;
}

}  // namespace VideoConsoleCore
