// What the fuzzers that drive a core object share: a quiet core, an
// in-memory file reached through a path, and a reader of the fuzz input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/VideoConsoleCoreImp.h"

namespace fuzz {

// Stops the run with a message when `ok` is false.
void Check(bool ok, const char* what);

// Makes `core` initialised with `settings` and silent: no log file, and
// debugger output only with KORVSDK_FUZZ_VERBOSE set.
void QuietCore(VideoConsoleCore::VideoConsoleCoreImp& core,
               const VideoConsoleCore::SettingsTable& settings);

// An in-memory file (memfd) named `name`, one per name for the whole run;
// its path opens like any file's.
class MemoryFile {
public:
    explicit MemoryFile(const char* name);
    const std::string& Path() const { return path_; }
    // Replaces the contents: `size` bytes, zero where nothing is written.
    void Resize(size_t size);
    void Write(size_t offset, const uint8_t* data, size_t length);

private:
    int fd_;
    std::string path_;
};

// Takes the fuzz input apart from the front; past its end everything
// reads as zero or empty.
class InputReader {
public:
    InputReader(const uint8_t* data, size_t size) : data_(data), left_(size) {}
    uint8_t Byte();
    uint16_t Le16();
    // A text of up to 255 bytes, preceded by its length byte.
    std::string Text();
    // Up to `count` bytes.
    std::string Bytes(size_t count);
    const uint8_t* Rest() const { return data_; }
    size_t Left() const { return left_; }

private:
    const uint8_t* data_;
    size_t left_;
};

}  // namespace fuzz
