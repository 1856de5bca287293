// Fuzz target: any byte string as the contents of setting.cfg.
//
// The file is read through its path, as initialisation reads it, then every
// value is read as an integer setting in the bases the library uses. Stops
// on crashes, sanitizer reports and broken invariants of the table: keys
// and values are non-empty, a key holds no '=', no line break survives, and
// reading the file and parsing its lines one by one agree.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "settings/settings_file.h"

using namespace VideoConsoleCore;

namespace {

void Check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

// One in-memory file for the whole run, reached through /proc like any path.
const std::string& SettingsPath(int& fd) {
    static int file = memfd_create("setting.cfg", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    fd = file;
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int fd = -1;
    const std::string& path = SettingsPath(fd);
    Check(fd >= 0 && ftruncate(fd, 0) == 0, "memfd");
    Check(pwrite(fd, data, size, 0) == static_cast<ssize_t>(size), "memfd write");

    SettingsTable table;
    Check(ReadSettingsFile(path, table), "existing file not read");
    for (const auto& [key, value] : table) {
        Check(!key.empty() && !value.empty(), "empty key or value");
        Check(key.find('=') == std::string::npos, "'=' in a key");
        Check(key.find('\n') == std::string::npos && value.find('\n') == std::string::npos,
              "line break kept");
        for (const int base : {0, 10, 16}) ParseIntegerSetting(value, base);
    }
    // A file of whole lines reads like the same lines parsed one by one.
    SettingsTable byLine;
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        std::string_view line(text.data() + at, end - at);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        ParseSettingsLine(line, byLine);
        at = end + 1;
    }
    Check(byLine == table, "file and lines disagree");
    return 0;
}
