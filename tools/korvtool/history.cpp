#include "history.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>

#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX  // std::max below
#endif
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "safe_text.h"

namespace korvtool {

namespace fs = std::filesystem;
using nlohmann::ordered_json;

namespace {

// An environment variable as a path; empty when unset. Windows keeps the
// environment in UTF-16: the wide call keeps a non-ASCII user name intact.
fs::path EnvironmentPath(const char* name) {
#ifdef _WIN32
    const std::wstring wide(name, name + std::char_traits<char>::length(name));
    const wchar_t* value = _wgetenv(wide.c_str());
#else
    const char* value = std::getenv(name);
#endif
    return value != nullptr && value[0] != 0 ? fs::path(value) : fs::path();
}

std::string Field(const ordered_json& entry, const char* key) {
    const auto it = entry.find(key);
    if (it == entry.end() || it->is_null()) return "-";
    return it->is_string() ? it->get<std::string>() : JsonText(*it);
}

}  // namespace

fs::path HistoryPath() {
    if (fs::path named = EnvironmentPath("KORVTOOL_HISTORY"); !named.empty()) return named;
#ifdef _WIN32
    fs::path base = EnvironmentPath("LOCALAPPDATA");
#else
    fs::path base = EnvironmentPath("XDG_DATA_HOME");
    if (base.empty()) {
        const fs::path home = EnvironmentPath("HOME");
        if (!home.empty()) base = home / ".local" / "share";
    }
#endif
    return base.empty() ? fs::path() : base / "korvtool" / "history.jsonl";
}

std::string UtcTimeNow() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
#ifdef _WIN32
    gmtime_s(&utc, &now);
#else
    gmtime_r(&now, &utc);
#endif
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

namespace {

// Appends `line` to `file` with one write, creating the file for the user
// alone; never through a link planted at its name, never into a file of
// another user's or one that is no regular file. "" when done, else why not.
std::string AppendLine(const fs::path& file, const std::string& line) {
#ifdef _WIN32
    // A reparse point (a link or a junction) is opened as itself and refused.
    const HANDLE handle = CreateFileW(file.c_str(), FILE_APPEND_DATA,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return "error " + std::to_string(GetLastError());
    std::string problem;
    BY_HANDLE_FILE_INFORMATION info{};
    DWORD written = 0;
    if (!GetFileInformationByHandle(handle, &info)) {
        problem = "error " + std::to_string(GetLastError());
    } else if ((info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        problem = "it is a link";
    } else if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        problem = "it is no regular file";
    } else if (!WriteFile(handle, line.data(), static_cast<DWORD>(line.size()), &written,
                          nullptr) ||
               written != line.size()) {
        problem = "error " + std::to_string(GetLastError());
    }
    CloseHandle(handle);
    return problem;
#else
    // O_NONBLOCK: a FIFO at the name fails at once instead of waiting.
    const int fd = open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK |
                                          O_CLOEXEC, 0600);
    if (fd < 0) return errno == ELOOP ? "it is a symbolic link" : std::strerror(errno);
    std::string problem;
    struct stat info {};
    if (fstat(fd, &info) != 0) {
        problem = std::strerror(errno);
    } else if (!S_ISREG(info.st_mode)) {
        problem = "it is no regular file";
    } else if (info.st_uid != geteuid()) {
        problem = "it belongs to user " + std::to_string(info.st_uid) + ", not to this user (" +
                  std::to_string(geteuid()) + ")";
    } else {
        const ssize_t written = write(fd, line.data(), line.size());
        if (written != static_cast<ssize_t>(line.size()))
            problem = written < 0 ? std::strerror(errno) : "the disk is full";
    }
    close(fd);
    return problem;
#endif
}

}  // namespace

bool AppendHistory(const fs::path& file, const ordered_json& entry, std::string& problem) {
    if (file.empty()) {
        problem = "no folder for the update history (set KORVTOOL_HISTORY)";
        return false;
    }
    std::error_code error;
    if (file.has_parent_path()) fs::create_directories(file.parent_path(), error);
    // One write of one whole line in append mode: two korvtools finishing
    // at once do not mix their lines. The line holds no raw control
    // character, so that showing the file shows text.
    const std::string why = AppendLine(file, JsonText(entry) + "\n");
    if (!why.empty()) {
        problem = "the update history " + Printable(file.string()) + " could not be written: " + why;
        return false;
    }
    return true;
}

std::vector<ordered_json> ReadHistory(const fs::path& file, size_t& skipped) {
    skipped = 0;
    std::vector<ordered_json> entries;
    std::ifstream in(file, std::ios::binary);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty()) continue;
        ordered_json entry = ordered_json::parse(line, nullptr, false);
        if (entry.is_object()) {
            entries.push_back(std::move(entry));
        } else {
            ++skipped;
        }
    }
    return entries;
}

std::string HistoryTable(const std::vector<ordered_json>& entries) {
    const char* const keys[] = {"time", "serial", "kind", "version_before", "version_after",
                                "result", "file"};
    const char* const headers[] = {"TIME (UTC)", "SERIAL", "KIND", "BEFORE", "AFTER",
                                   "RESULT", "FILE"};
    constexpr size_t kColumns = std::size(keys);
    std::vector<std::vector<std::string>> rows(1, std::vector<std::string>(headers, headers + kColumns));
    for (const ordered_json& entry : entries) {
        std::vector<std::string> row;
        for (const char* key : keys) row.push_back(Printable(Field(entry, key)));
        // The file by its name: the folder makes the table too wide.
        std::string& file = row.back();
        file.erase(0, file.find_last_of("/\\") + 1);
        rows.push_back(std::move(row));
    }
    size_t width[kColumns] = {};
    for (const auto& row : rows)
        for (size_t c = 0; c < kColumns; ++c) width[c] = std::max(width[c], row[c].size());
    std::string text;
    for (const auto& row : rows) {
        std::string line;
        for (size_t c = 0; c < kColumns; ++c) {
            line += row[c];
            if (c + 1 < kColumns) line += std::string(width[c] - row[c].size() + 2, ' ');
        }
        text += line + "\n";
    }
    return text;
}

}  // namespace korvtool
