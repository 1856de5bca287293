#include "firmware/version_rules.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace VideoConsoleCore::firmware {

namespace {

uint8_t ByteAt(const uint8_t* image, size_t size, size_t offset) {
    return offset < size ? image[offset] : 0;
}

}  // namespace

std::string UsbImageVersionText(const uint8_t* image, size_t size) {
    char text[kImageVersionLength + 1] = {};
    for (size_t i = 0; i < kImageVersionLength; ++i) {
        text[i] = static_cast<char>(ByteAt(image, size, kImageVersionOffset + i));
    }
    return text;
}

std::string McuImageVersionText(const uint8_t* image, size_t size) {
    char text[16];
    std::snprintf(text, sizeof text, "%02x.%02x.%02x", ByteAt(image, size, kMcuDeviceTypeOffset),
                  ByteAt(image, size, kMcuVersionOffset), ByteAt(image, size, kMcuCodecOffset));
    return text;
}

uint32_t VersionDigitValue(char c) {
    const char upper = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (upper >= 'A' && upper <= 'F') return static_cast<uint32_t>(upper - 'A' + 10);
    if (upper >= '0' && upper <= ':') return static_cast<uint32_t>(upper - '0');
    return static_cast<unsigned char>(upper);
}

bool UsbVersionAccepted(const std::string& overwrite, const std::string& device,
                        const std::string& file) {
    if (overwrite == "1" || overwrite == "2") return true;
    if (overwrite != "0") return false;
    if (device.size() < kImageVersionLength || file.size() < kImageVersionLength) return false;
    uint64_t deviceWeight = 0;
    uint64_t fileWeight = 0;
    for (size_t i = 0; i < kImageVersionLength; ++i) {
        if (device[i] == '.' || file[i] == '.') continue;
        deviceWeight = (deviceWeight + VersionDigitValue(device[i])) * 16;
        fileWeight = (fileWeight + VersionDigitValue(file[i])) * 16;
    }
    return deviceWeight <= fileWeight;
}

McuIdentity CheckMcuIdentity(const std::string& device, const std::string& file,
                             uint8_t modelCode) {
    std::string upper = device;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (upper.size() >= 8 && upper[6] == 'F' && upper[7] == 'F') upper[6] = upper[7] = '0';

    if (file.size() < 8 || modelCode < 5 || modelCode > 17) return McuIdentity::Wrong;
    const std::string typeText = "0x" + file.substr(0, 2);
    const long type = std::strtol(typeText.c_str(), nullptr, 16);
    if (type != modelCode && type != modelCode + 128) return McuIdentity::Wrong;
    const bool codecMatches = upper.size() >= 8 && file[6] == upper[6] && file[7] == upper[7];
    return codecMatches ? McuIdentity::Match : McuIdentity::CodecDiffers;
}

bool McuVersionAccepted(const std::string& overwrite, const std::string& device,
                        const std::string& file) {
    if (overwrite == "1") return true;
    if (overwrite != "0" && overwrite != "2") return false;
    if (device.size() < 5 || file.size() < 5) return false;
    const auto number = [](const std::string& text) {
        return VersionDigitValue(text[3]) * 16 + VersionDigitValue(text[4]);
    };
    return number(device) <= number(file);
}

}  // namespace VideoConsoleCore::firmware
