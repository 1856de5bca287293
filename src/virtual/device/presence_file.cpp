#include "virtual/device/presence_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace VideoConsoleCore::virtualdev {

namespace {

// A list of a bench's ports is a few hundred bytes; more is not read.
constexpr size_t kMaxPresenceFileBytes = 64 * 1024;
constexpr auto kRereadAfter = std::chrono::milliseconds(25);

std::filesystem::path FromUtf8(const std::string& text) {
    return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

}  // namespace

std::set<std::string> ParsePresenceList(const std::string& text) {
    std::set<std::string> locations;
    size_t begin = 0;
    while (begin <= text.size()) {
        size_t end = text.find('\n', begin);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(begin, end - begin);
        const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
        while (!line.empty() && blank(line.back())) line.pop_back();
        size_t first = 0;
        while (first < line.size() && blank(line[first])) ++first;
        line.erase(0, first);
        if (!line.empty() && line[0] != '#') locations.insert(line);
        begin = end + 1;
    }
    return locations;
}

// False when the file could not be looked at for another reason than its
// absence (the last reading then stands).
bool PresenceFile::Look(const std::string& path, Stamp& stamp) {
    stamp = Stamp{};
#ifdef _WIN32
    std::error_code error;
    const std::filesystem::path file = FromUtf8(path);
    const auto status = std::filesystem::status(file, error);
    if (status.type() == std::filesystem::file_type::not_found) return true;
    if (error) return false;
    const auto modified = std::filesystem::last_write_time(file, error);
    if (error) return false;
    const auto size = std::filesystem::file_size(file, error);
    if (error) return false;
    stamp.exists = true;
    stamp.size = size;
    stamp.modified = modified.time_since_epoch().count();
#else
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return errno == ENOENT || errno == ENOTDIR;
    stamp.exists = true;
    stamp.identity = static_cast<uint64_t>(info.st_ino) ^ (static_cast<uint64_t>(info.st_dev) << 40);
    stamp.size = static_cast<uint64_t>(info.st_size);
    stamp.modified = static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
    stamp.changed = static_cast<int64_t>(info.st_ctim.tv_sec) * 1000000000 + info.st_ctim.tv_nsec;
#endif
    return true;
}

bool PresenceFile::Refresh() {
    Stamp now;
    if (!Look(path_, now)) return false;
    const auto time = std::chrono::steady_clock::now();
    if (looked_ && now == stamp_ && (!now.exists || time - readAt_ < kRereadAfter)) return false;
    if (!now.exists) {
        looked_ = true;
        stamp_ = now;
        exists_ = false;
        locations_.clear();
        return true;
    }
    std::ifstream in(FromUtf8(path_), std::ios::binary);
    if (!in) return false;  // gone or unreadable since the look: try again next time
    std::string text(kMaxPresenceFileBytes, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(in.gcount()));
    std::set<std::string> locations = ParsePresenceList(text);
    const bool changed = !looked_ || !exists_ || locations != locations_;
    looked_ = true;
    readAt_ = time;
    stamp_ = now;
    exists_ = true;
    locations_ = std::move(locations);
    return changed;
}

}  // namespace VideoConsoleCore::virtualdev
