#include "settings/settings_file.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace VideoConsoleCore {

void ParseSettingsLine(std::string_view line, SettingsTable& table) {
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) return;
    const std::string_view key = line.substr(0, equals);
    const std::string_view value = line.substr(equals + 1);
    if (key.empty() || value.empty()) return;
    table[std::string(key)] = std::string(value);
}

bool ReadSettingsFile(const std::string& path, SettingsTable& table) {
    // A folder opens as a stream on Linux and reads as empty; on Windows it
    // does not open. Either way it is no settings file.
    std::error_code error;
    if (path.empty() || std::filesystem::is_directory(path, error)) return false;
    std::ifstream file(path, std::ios::in | std::ios::binary);
    if (!file.is_open()) return false;

    std::string line;
    while (std::getline(file, line)) {
        // Windows' text mode turns "\r\n" into "\n"; do the same everywhere so
        // a file edited on either system reads alike.
        if (!line.empty() && line.back() == '\r') line.pop_back();
        ParseSettingsLine(line, table);
    }
    return true;
}

std::optional<int> ParseIntegerSetting(const std::string& value, int base) {
    const char* begin = value.c_str();
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(begin, &end, base);
    if (end == begin || errno == ERANGE || number < INT_MIN || number > INT_MAX) {
        return std::nullopt;
    }
    return static_cast<int>(number);
}

}  // namespace VideoConsoleCore
