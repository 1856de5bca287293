// The information queries answer with texts posted to the device-state
// callback. These functions take such a text apart for the JSON output and
// for a tidier display; each returns nothing when the text is not of the
// expected form, and the caller then shows the text as it came.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace korvtool {

// "HDMI info: 01 00 ..." : the bytes of the HDMI status block.
std::optional<std::vector<uint8_t>> ParseHdmiInfo(const std::string& text);

struct UsbStreamInfo {
    int width = 0;
    int height = 0;
    int frameRate = 0;
    std::string colorFormat;  // empty when the device's code has no name
};

// "Resolution=1920x1080 FrameRate=60 ColorFormat=YUYV"
std::optional<UsbStreamInfo> ParseUsbInfo(const std::string& text);

enum class EdidVerdict { kNotRead, kValid, kInvalid, kTimeout };

struct McuInfo {
    std::vector<std::pair<uint8_t, uint8_t>> registers;  // register, value
    EdidVerdict edid = EdidVerdict::kNotRead;
    std::vector<uint8_t> edidBytes;  // the first bytes of the splitter's EDID
};

// "[MCU_Info] a0=01 a2=03 ... EDID: true, 00 ff ff ff ff ff ff 00 ..."
std::optional<McuInfo> ParseMcuInfo(const std::string& text);

const char* EdidVerdictName(EdidVerdict verdict);

// korvtool names a microcontroller firmware version in one form everywhere:
// "tt.vv.cc", the device type, the version number and the audio codec (the
// board variant's first byte) as two hex digits each. A program image says
// just that; the running microcontroller adds three more bytes of its board
// variant ("tt.vv.cc.bbbbbb"), returned apart as `detail` ("bbbbbb").
struct McuVersion {
    std::string version;
    std::string detail;
};
std::optional<McuVersion> SplitMcuVersion(const std::string& text);

// Bytes as lower-case hexadecimal pairs separated by blanks.
std::string HexBytes(const std::vector<uint8_t>& bytes);

}  // namespace korvtool
