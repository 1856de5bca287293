// Which virtual devices are plugged in, told by a file that every process
// of a test bench reads (setting VirtualPresenceFile=PATH).
//
// Each process has virtual devices of its own; the file is how a test plugs
// and unplugs "the same" unit in all of them at once, as a person at a
// station would. It lists the locations of the plugged-in devices, one a
// line ("1-4.2"); blank lines and lines starting with '#' are ignored, and
// so are blanks around a location. While the file does not exist, every
// device is plugged in.
//
// Writers replace the file atomically: write the new list to a temporary
// file in the same folder, then rename it over the old one. A reader then
// sees either the old list or the new one, never half of one.
//
// A look costs one stat(): the file is read again when its identity, size
// or modification times changed, and otherwise at most every 25 ms (file
// times are coarse: two replacements within one tick, of equal size, could
// leave the same stamp).
#pragma once

#include <chrono>
#include <cstdint>
#include <set>
#include <string>

namespace VideoConsoleCore::virtualdev {

class PresenceFile {
public:
    explicit PresenceFile(std::string path) : path_(std::move(path)) {}

    // Looks at the file again; true when what it says may have changed
    // since the last look (always on the first).
    bool Refresh();

    // Whether the device at `location` is plugged in by the file's last
    // reading; true while there is no file.
    bool Plugged(const std::string& location) const {
        return !exists_ || locations_.count(location) != 0;
    }

private:
    struct Stamp {
        bool exists = false;
        uint64_t identity = 0;  // inode (POSIX), 0 on Windows
        uint64_t size = 0;
        int64_t modified = 0;   // nanoseconds or file-time ticks
        int64_t changed = 0;
        bool operator==(const Stamp&) const = default;
    };
    static bool Look(const std::string& path, Stamp& stamp);

    std::string path_;
    bool looked_ = false;
    std::chrono::steady_clock::time_point readAt_{};
    Stamp stamp_;
    bool exists_ = false;
    std::set<std::string> locations_;
};

// The lines of a presence file that name locations.
std::set<std::string> ParsePresenceList(const std::string& text);

}  // namespace VideoConsoleCore::virtualdev
