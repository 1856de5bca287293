// setting.cfg: one "Key=Value" pair per line.
//
// The key is everything before the first '=', the value everything after it
// to the end of the line. There are no sections, comments, quotes or
// escapes, and blanks are kept: " Key" and "Key" are different keys, "1 " is
// not "1". A line without '=' or with an empty value adds nothing; a later
// line overrides an earlier one with the same key.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace VideoConsoleCore {

// Ordered key -> value table. Looking up an absent key with operator[] yields
// "" (and inserts it); a key counts as present when its value is non-empty.
using SettingsTable = std::map<std::string, std::string>;

// Adds the pair of one line (without its line break) to `table`, if it holds
// one.
void ParseSettingsLine(std::string_view line, SettingsTable& table);

// Reads a whole settings file into `table`. Returns false, leaving the table
// untouched, when the file cannot be opened. Lines may end in "\n" or "\r\n".
bool ReadSettingsFile(const std::string& path, SettingsTable& table);

// Reads an integer setting the way the C library's strtol does: leading
// blanks, an optional sign, then digits in `base` (0: "0x" hexadecimal,
// leading "0" octal, else decimal); anything after the digits is ignored.
// A value without digits, or out of the range of int, reads as missing.
std::optional<int> ParseIntegerSetting(const std::string& value, int base);

}  // namespace VideoConsoleCore
