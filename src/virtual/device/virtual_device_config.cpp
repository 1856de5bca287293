#include "virtual/device/virtual_device_config.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <optional>
#include <set>
#include <utility>

#include "virtual/mcu/mcu_image.h"

namespace VideoConsoleCore::virtualdev {

namespace {

constexpr int kMaxDevices = 16;
constexpr size_t kMaxLocationLength = 64;

const std::string* Find(const SettingsTable& settings, const std::string& key) {
    const auto it = settings.find(key);
    if (it == settings.end() || it->second.empty()) return nullptr;
    return &it->second;
}

// An integer key within [low, high]; nullopt when absent, malformed or out
// of range.
std::optional<long long> Number(const SettingsTable& settings, const std::string& key, int base,
                                long long low, long long high) {
    const std::string* text = Find(settings, key);
    if (!text) return std::nullopt;
    const std::optional<int> value = ParseIntegerSetting(*text, base);
    if (!value || *value < low || *value > high) return std::nullopt;
    return *value;
}

template <typename T>
void SetNumber(const SettingsTable& settings, const std::string& key, int base, long long low,
               long long high, T& field) {
    if (const auto value = Number(settings, key, base, low, high)) field = static_cast<T>(*value);
}

void SetText(const SettingsTable& settings, const std::string& key, std::string& field) {
    if (const std::string* text = Find(settings, key)) field = *text;
}

void SetFlag(const SettingsTable& settings, const std::string& key, bool& field) {
    if (const auto value = Number(settings, key, 10, 0, 1)) field = *value == 1;
}

// Hexadecimal bytes, with or without blanks between them: "00 11 a2" or
// "0011a2", 1 to `limit` of them. False (out untouched) on anything else.
bool ParseHexByteList(const std::string& text, size_t limit, std::vector<uint8_t>& out) {
    std::vector<uint8_t> bytes;
    int high = -1;
    for (const char c : text) {
        if (c == ' ') {
            if (high >= 0) return false;
            continue;
        }
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
        const int digit = std::isdigit(static_cast<unsigned char>(c))
                              ? c - '0'
                              : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
        if (high < 0) {
            high = digit;
        } else {
            if (bytes.size() == limit) return false;
            bytes.push_back(static_cast<uint8_t>(high * 16 + digit));
            high = -1;
        }
    }
    if (high >= 0 || bytes.empty()) return false;
    out = std::move(bytes);
    return true;
}

// The same into a fixed array: up to N bytes, the rest zero.
template <size_t N>
void SetHexBytes(const SettingsTable& settings, const std::string& key, std::array<uint8_t, N>& field) {
    const std::string* text = Find(settings, key);
    std::vector<uint8_t> bytes;
    if (!text || !ParseHexByteList(*text, N, bytes)) return;
    field.fill(0);
    std::copy(bytes.begin(), bytes.end(), field.begin());
}

// The microcontroller's keys: its identity and board, the state of its
// inputs, its busy times and the faults it shows from power-on.
void ReadMcuKeys(const SettingsTable& settings, const std::string& p, VirtualDeviceConfig& config) {
    VirtualMcuConfig& mcu = config.mcu;
    // The library takes the microcontroller for the board's own when its
    // device type is the model code (or the model code + 128).
    mcu.deviceType = config.modelCode;
    mcu.rgbLight = config.modelCode == 6 || config.modelCode == 8;
    SetNumber(settings, p + "McuDeviceType", 0, 0, 0xFF, mcu.deviceType);
    SetNumber(settings, p + "McuVersion", 0, 0, 0xFF, mcu.firmwareVersion);
    SetNumber(settings, p + "BoardVariant", 0, 0, 0xFF, mcu.boardVariant);
    SetHexBytes(settings, p + "McuConfig", mcu.configBytes);
    SetNumber(settings, p + "BootloaderVersion", 0, 0, 0xFF, mcu.bootloaderVersion);
    SetFlag(settings, p + "McuErased", mcu.programMemoryErased);
    SetFlag(settings, p + "CodecPresent", mcu.codecPresent);
    if (const std::string* text = Find(settings, p + "Edid")) {
        std::vector<uint8_t> edid;
        if (*text == "none") {
            mcu.txEdid.clear();
        } else if (ParseHexByteList(*text, 256, edid) && (edid.size() == 128 || edid.size() == 256)) {
            mcu.txEdid = std::move(edid);
        }
    }
    SetFlag(settings, p + "HpMicPlugged", mcu.hpMicPlugged);
    SetFlag(settings, p + "LineInPlugged", mcu.lineInPlugged);
    SetFlag(settings, p + "VideoLocked", mcu.videoLocked);
    SetFlag(settings, p + "HdmiSource", mcu.hdmiSourcePresent);
    SetText(settings, p + "McuWriteLog", mcu.writeLogPath);
    SetText(settings, p + "McuProgramDump", mcu.programDumpPath);

    McuTimings& t = mcu.timings;
    t.restartNackMs = kDefaultRestartNackMs;
    const std::pair<const char*, uint32_t*> timings[] = {
        {"McuSaveMs", &t.saveMs},
        {"McuBridgeMs", &t.bridgeMs},
        {"McuBootJumpMs", &t.bootJumpMs},
        {"McuRestartMs", &t.restartMs},
        {"McuRestartNackMs", &t.restartNackMs},
        {"McuErasePageMs", &t.eraseMsPerPage},
        {"McuBlankCheckPageMs", &t.blankCheckMsPerPage},
        {"McuProgramPageMs", &t.programPageMs},
        {"McuVerifyPageMs", &t.verifyPageMs},
    };
    for (const auto& [name, field] : timings) SetNumber(settings, p + name, 10, 0, 60000, *field);

    VirtualMcuFaults& faults = config.mcuFaults;
    if (const auto reg = Number(settings, p + "McuNackRegister", 0, 0, 0xFF)) {
        faults.nackRegister = static_cast<uint8_t>(*reg);
    }
    SetFlag(settings, p + "McuNoAnswer", faults.nackAll);
    SetFlag(settings, p + "BootloaderStaysBusy", faults.bootloaderStaysBusy);
    if (const auto at = Number(settings, p + "BootloaderVerifyFailAt", 16, kProgramBase,
                               kProgramBase + kImageMaxSize - 1)) {
        faults.verifyMismatchAddress = static_cast<uint32_t>(*at);
    }
    if (const auto result = Number(settings, p + "McuSaveResult", 0, 0, 0xFF)) {
        faults.saveResult = static_cast<uint8_t>(*result);
    }
    SetFlag(settings, p + "McuBridgeNeverCompletes", faults.bridgeNeverCompletes);
}

}  // namespace

bool ParseVersionText(const std::string& text, std::array<uint8_t, 4>& out) {
    std::array<uint8_t, 4> version{};
    size_t group = 0;
    int digits = 0;
    int value = 0;
    for (const char c : text) {
        if (c == '.') {
            if (digits == 0 || group == 3) return false;
            version[group++] = static_cast<uint8_t>(value);
            digits = value = 0;
            continue;
        }
        if (!std::isxdigit(static_cast<unsigned char>(c)) || digits == 2) return false;
        value = value * 16 + (std::isdigit(static_cast<unsigned char>(c))
                                  ? c - '0'
                                  : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10);
        ++digits;
    }
    if (group != 3 || digits == 0) return false;
    version[3] = static_cast<uint8_t>(value);
    out = version;
    return true;
}

std::string VersionText(const std::array<uint8_t, 4>& version) {
    char text[16];
    std::snprintf(text, sizeof text, "%02x.%02x.%02x.%02x", version[0], version[1], version[2],
                  version[3]);
    return text;
}

std::string StoredVersionText(const std::array<uint8_t, 4>& version, uint16_t build) {
    char text[24];
    std::snprintf(text, sizeof text, "%s.%04x", VersionText(version).c_str(), build);
    return text;
}

bool ParseStoredVersionText(const std::string& text, std::array<uint8_t, 4>& out) {
    return ParseVersionText(text.substr(0, 11), out);
}

bool ParseFailCall(const std::string& text, HidCall& call, uint32_t& at) {
    static const std::pair<const char*, HidCall> kNames[] = {
        {"Open", HidCall::kOpen},
        {"GetAttributes", HidCall::kGetAttributes},
        {"GetPreparsedData", HidCall::kGetPreparsedData},
        {"SetOutputReport", HidCall::kSetOutputReport},
        {"GetInputReport", HidCall::kGetInputReport},
        {"GetSerialNumberString", HidCall::kGetSerialNumberString},
        {"GetProductString", HidCall::kGetProductString},
        {"EnumerateHidInterfaces", HidCall::kEnumerateHidInterfaces},
        {"EnumerateUsbDevices", HidCall::kEnumerateUsbDevices},
    };
    const size_t colon = text.find(':');
    if (colon == std::string::npos) return false;
    const std::string name = text.substr(0, colon);
    const std::optional<int> n = ParseIntegerSetting(text.substr(colon + 1), 10);
    if (!n || *n < 1) return false;
    for (const auto& [known, value] : kNames) {
        if (name == known) {
            call = value;
            at = static_cast<uint32_t>(*n);
            return true;
        }
    }
    return false;
}

VirtualDeviceConfig ReadVirtualDeviceConfig(const SettingsTable& settings, int n) {
    VirtualDeviceConfig config;
    const std::string p = "Virtual" + std::to_string(n) + "_";
    char serial[16];
    std::snprintf(serial, sizeof serial, "VC%08d", n + 1);
    config.serial = serial;

    SetNumber(settings, p + "VID", 16, 0, 0xFFFF, config.vid);
    SetNumber(settings, p + "PID", 16, 0, 0xFFFF, config.pid);
    SetNumber(settings, p + "Version", 16, 0, 0xFFFF, config.versionNumber);
    // The serial becomes part of an instance ID and a device path: no
    // separators of either.
    if (const std::string* text = Find(settings, p + "Serial");
        text && text->find_first_of("\\&/") == std::string::npos) {
        config.serial = *text;
    }
    config.location = "1-" + std::to_string(n + 1);
    // The location is part of the device path too: printable, no blanks,
    // no separators.
    if (const std::string* text = Find(settings, p + "Location");
        text && text->size() <= kMaxLocationLength &&
        std::all_of(text->begin(), text->end(), [](unsigned char c) {
            return c > 0x20 && c < 0x7F && c != '\\' && c != '&' && c != '/';
        })) {
        config.location = *text;
    }
    SetText(settings, p + "Description", config.description);
    SetText(settings, p + "Manufacturer", config.manufacturer);
    SetNumber(settings, p + "PortLevel", 10, 2, 3, config.portLevel);
    SetNumber(settings, p + "ModelCode", 10, 5, 17, config.modelCode);
    SetNumber(settings, p + "FlashType", 0, 0, 0xFF, config.flashType);
    SetNumber(settings, p + "FlashIndex", 10, 0, 0xFFFF, config.flashIndex);
    if (const std::string* text = Find(settings, p + "UsbFwVersion")) {
        ParseVersionText(*text, config.usbFwVersion);
    }
    if (const std::string* text = Find(settings, p + "OriginalFwVersion")) {
        ParseVersionText(*text, config.originalFwVersion);
    }
    SetNumber(settings, p + "UsbFwBuild", 16, 0, 0xFFFF, config.usbFwBuild);
    SetNumber(settings, p + "InfoBase", 16, 0, 0x7FFFFFFF, config.infoBase);

    static const char* const kKindNames[3] = {"Data", "Cmd", "Iic"};
    for (int kind = 0; kind < 3; ++kind) {
        const uint16_t low = kind == kDataReport ? kMinDataReportCount : kMinSmallReportCount;
        const uint16_t high = kind == kDataReport ? 0xFFFF : kMaxSmallReportCount;
        for (int dir = 0; dir < 2; ++dir) {
            ReportShape& shape = dir == 0 ? config.output[kind] : config.input[kind];
            const std::string stem = p + (dir == 0 ? "Out" : "In") + kKindNames[kind];
            SetNumber(settings, stem + "Id", 0, 1, 255, shape.id);
            SetNumber(settings, stem + "Count", 10, low, high, shape.count);
        }
    }

    // The device tells its reports apart by ID: IDs that collide within a
    // direction fall back to 1, 2, 3.
    for (auto* shapes : {&config.output, &config.input}) {
        auto& s = *shapes;
        if (s[0].id == s[1].id || s[0].id == s[2].id || s[1].id == s[2].id) {
            for (uint8_t k = 0; k < 3; ++k) s[k].id = static_cast<uint8_t>(k + 1);
        }
    }

    SetHexBytes(settings, p + "HdmiInfo", config.hdmiInfo);
    SetNumber(settings, p + "UsbWidth", 10, 0, 0xFFFF, config.usbWidth);
    SetNumber(settings, p + "UsbHeight", 10, 0, 0xFFFF, config.usbHeight);
    SetNumber(settings, p + "UsbFrameRate", 10, 0, 255, config.usbFrameRate);
    SetNumber(settings, p + "UsbColorFormat", 10, 0, 255, config.usbColorFormat);
    SetNumber(settings, p + "LatencyMs", 10, 0, 10000, config.latencyMs);
    SetNumber(settings, p + "ReplugAfterUpdateMs", 10, 0, 600000, config.replugAfterUpdateMs);

    if (const std::string* text = Find(settings, p + "FailCall")) {
        ParseFailCall(*text, config.faults.failCall, config.faults.failAt);
    }
    SetFlag(settings, p + "IicNeverFinishes", config.faults.iicNeverFinishes);
    SetNumber(settings, p + "UnplugAfter", 10, 0, 0x7FFFFFFF, config.faults.unplugAfterTransfers);
    SetNumber(settings, p + "CrashAfter", 10, 0, 0x7FFFFFFF, config.faults.crashAfterTransfers);
    SetNumber(settings, p + "HangAfter", 10, 0, 0x7FFFFFFF, config.faults.hangAfterTransfers);
    SetNumber(settings, p + "CorruptFlashAt", 16, 0, 0x7FFFFFFF, config.faults.corruptFlashAt);
    SetNumber(settings, p + "ValueReports", 10, 1, 3, config.faults.valueReports);

    ReadMcuKeys(settings, p, config);
    return config;
}

std::vector<VirtualDeviceConfig> ReadVirtualDeviceConfigs(const SettingsTable& settings) {
    int count = 1;
    SetNumber(settings, "VirtualDeviceCount", 10, 0, kMaxDevices, count);
    std::vector<VirtualDeviceConfig> configs;
    std::set<std::string> taken;
    for (int n = 0; n < count; ++n) {
        configs.push_back(ReadVirtualDeviceConfig(settings, n));
        std::string& location = configs.back().location;
        for (int k = 1; taken.count(location) != 0; ++k) location = "1-" + std::to_string(k);
        taken.insert(location);
    }
    return configs;
}

}  // namespace VideoConsoleCore::virtualdev
