#include "device_reports.h"

#include <cctype>
#include <charconv>
#include <sstream>

namespace korvtool {

namespace {

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::string Trim(const std::string& text) {
    size_t begin = 0, end = text.size();
    while (begin < end && std::isspace(static_cast<unsigned char>(text[begin]))) ++begin;
    while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1]))) --end;
    return text.substr(begin, end - begin);
}

std::optional<uint8_t> HexByte(const std::string& token) {
    if (token.size() != 2 || !std::isxdigit(static_cast<unsigned char>(token[0])) ||
        !std::isxdigit(static_cast<unsigned char>(token[1])))
        return std::nullopt;
    unsigned value = 0;
    std::from_chars(token.data(), token.data() + 2, value, 16);
    return static_cast<uint8_t>(value);
}

// Blank-separated hexadecimal pairs; nothing when any token is not one.
std::optional<std::vector<uint8_t>> HexList(const std::string& text) {
    std::istringstream in(text);
    std::vector<uint8_t> bytes;
    std::string token;
    while (in >> token) {
        const std::optional<uint8_t> byte = HexByte(token);
        if (!byte) return std::nullopt;
        bytes.push_back(*byte);
    }
    return bytes;
}

// A decimal number at `pos` (moved past it).
std::optional<int> Number(const std::string& text, size_t& pos) {
    int value = 0;
    const char* begin = text.data() + pos;
    const auto [end, error] = std::from_chars(begin, text.data() + text.size(), value);
    if (error != std::errc() || end == begin) return std::nullopt;
    pos += static_cast<size_t>(end - begin);
    return value;
}

bool Expect(const std::string& text, size_t& pos, const std::string& word) {
    if (text.compare(pos, word.size(), word) != 0) return false;
    pos += word.size();
    return true;
}

}  // namespace

std::optional<std::vector<uint8_t>> ParseHdmiInfo(const std::string& text) {
    std::string rest = Trim(text);
    const std::string prefix = "HDMI info:";
    if (StartsWith(rest, prefix)) rest = rest.substr(prefix.size());
    std::optional<std::vector<uint8_t>> bytes = HexList(rest);
    if (!bytes || bytes->empty()) return std::nullopt;
    return bytes;
}

std::optional<UsbStreamInfo> ParseUsbInfo(const std::string& text) {
    const std::string line = Trim(text);
    UsbStreamInfo info;
    size_t pos = 0;
    std::optional<int> width, height, rate;
    if (!Expect(line, pos, "Resolution=") || !(width = Number(line, pos)) ||
        !Expect(line, pos, "x") || !(height = Number(line, pos)) ||
        !Expect(line, pos, " FrameRate=") || !(rate = Number(line, pos)) ||
        !Expect(line, pos, " ColorFormat="))
        return std::nullopt;
    info.width = *width;
    info.height = *height;
    info.frameRate = *rate;
    info.colorFormat = line.substr(pos);
    // The library writes 0 for a colour code that has no name.
    if (info.colorFormat == "0") info.colorFormat.clear();
    if (info.colorFormat.find(' ') != std::string::npos) return std::nullopt;
    return info;
}

std::optional<McuInfo> ParseMcuInfo(const std::string& text) {
    std::string rest = Trim(text);
    const std::string prefix = "[MCU_Info]";
    if (!StartsWith(rest, prefix)) return std::nullopt;
    rest = Trim(rest.substr(prefix.size()));

    McuInfo info;
    // Register pairs "rr=vv" up to the EDID part.
    size_t pos = 0;
    while (pos + 5 <= rest.size() && rest[pos + 2] == '=') {
        const std::optional<uint8_t> reg = HexByte(rest.substr(pos, 2));
        const std::optional<uint8_t> value = HexByte(rest.substr(pos + 3, 2));
        if (!reg || !value) return std::nullopt;
        info.registers.emplace_back(*reg, *value);
        pos += 5;
        while (pos < rest.size() && rest[pos] == ' ') ++pos;
    }
    if (info.registers.empty()) return std::nullopt;

    const std::string edid = rest.substr(pos);
    if (edid.empty()) return info;
    if (edid == "TX_EDID: Iic Timeout!") {
        info.edid = EdidVerdict::kTimeout;
        return info;
    }
    size_t at = 0;
    if (Expect(edid, at, "EDID: true")) {
        info.edid = EdidVerdict::kValid;
    } else if (Expect(edid, at, "EDID: false")) {
        info.edid = EdidVerdict::kInvalid;
    } else {
        return std::nullopt;
    }
    if (at == edid.size()) return info;
    if (!Expect(edid, at, ",")) return std::nullopt;
    std::optional<std::vector<uint8_t>> bytes = HexList(edid.substr(at));
    if (!bytes) return std::nullopt;
    info.edidBytes = std::move(*bytes);
    return info;
}

const char* EdidVerdictName(EdidVerdict verdict) {
    switch (verdict) {
        case EdidVerdict::kValid: return "valid";
        case EdidVerdict::kInvalid: return "invalid";
        case EdidVerdict::kTimeout: return "timeout";
        case EdidVerdict::kNotRead: break;
    }
    return "not read";
}

std::string HexBytes(const std::vector<uint8_t>& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        if (!text.empty()) text += ' ';
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0F];
    }
    return text;
}

std::optional<McuVersion> SplitMcuVersion(const std::string& text) {
    const auto hex = [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; };
    // "tt.vv.cc", then nothing or "." and hex digits.
    for (size_t i = 0; i < 8; ++i)
        if (i >= text.size() || (i % 3 == 2 ? text[i] != '.' : !hex(text[i]))) return std::nullopt;
    if (text.size() > 8 && (text[8] != '.' || text.size() == 9)) return std::nullopt;
    for (size_t i = 9; i < text.size(); ++i)
        if (!hex(text[i])) return std::nullopt;
    return McuVersion{text.substr(0, 8), text.size() > 9 ? text.substr(9) : ""};
}

}  // namespace korvtool
