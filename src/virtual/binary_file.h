// Whole files of bytes, as the image builders write them.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace VideoConsoleCore::virtualdev {

// Writes `bytes` to `path`, replacing the file; false when it cannot be
// written.
inline bool WriteBinaryFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) return false;
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    return bool(out);
}

}  // namespace VideoConsoleCore::virtualdev
