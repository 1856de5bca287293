#include "safe_text.h"

#include <cstdint>
#include <cstdio>

namespace korvtool {

namespace {

// The length of the valid UTF-8 sequence that starts at `at` (1 to 4), or 0
// when the byte there starts none: overlong forms, surrogates and code
// points past U+10FFFF are not valid.
size_t SequenceLength(std::string_view text, size_t at) {
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
    const uint8_t first = byte(at);
    if (first < 0x80) return 1;
    size_t length = 0;
    uint8_t low = 0x80, high = 0xBF;  // the allowed range of the second byte
    if (first >= 0xC2 && first <= 0xDF) {
        length = 2;
    } else if (first >= 0xE0 && first <= 0xEF) {
        length = 3;
        if (first == 0xE0) low = 0xA0;
        if (first == 0xED) high = 0x9F;
    } else if (first >= 0xF0 && first <= 0xF4) {
        length = 4;
        if (first == 0xF0) low = 0x90;
        if (first == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (at + length > text.size()) return 0;
    if (byte(at + 1) < low || byte(at + 1) > high) return 0;
    for (size_t i = 2; i < length; ++i)
        if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) return 0;
    return length;
}

void AppendEscape(std::string& out, const char* format, unsigned value) {
    char escape[8];
    std::snprintf(escape, sizeof escape, format, value);
    out += escape;
}

std::string Escaped(std::string_view text, bool keepNewlines) {
    std::string out;
    out.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        const auto first = static_cast<uint8_t>(text[at]);
        const size_t length = SequenceLength(text, at);
        if (length == 0 || first < 0x20 || first == 0x7F) {
            if (first == '\n' && keepNewlines) {
                out += '\n';
            } else {
                AppendEscape(out, "\\x%02x", first);
            }
            ++at;
            continue;
        }
        // U+0080..U+009F: C2 80..C2 9F.
        if (length == 2 && first == 0xC2 && static_cast<uint8_t>(text[at + 1]) <= 0x9F) {
            AppendEscape(out, "\\u%04x", static_cast<uint8_t>(text[at + 1]));
        } else {
            out.append(text, at, length);
        }
        at += length;
    }
    return out;
}

}  // namespace

std::string Printable(std::string_view text) { return Escaped(text, false); }

std::string PrintableLines(std::string_view text) { return Escaped(text, true); }

std::string JsonText(const nlohmann::ordered_json& doc, int indent) {
    // After the replacement the text is valid UTF-8, and the dump has
    // escaped C0 already. DEL and C2 80..C2 9F (U+0080..U+009F) can only
    // stand inside strings, where the \u form means the same character.
    const std::string text = doc.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
    std::string out;
    out.reserve(text.size());
    for (size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<uint8_t>(text[at]);
        if (byte == 0x7F) {
            out += "\\u007f";
        } else if (byte == 0xC2 && at + 1 < text.size() &&
                   static_cast<uint8_t>(text[at + 1]) <= 0x9F) {
            AppendEscape(out, "\\u%04x", static_cast<uint8_t>(text[++at]));
        } else {
            out += text[at];
        }
    }
    return out;
}

}  // namespace korvtool
