// The built-in settings of --virtual: the library's virtual capture device,
// accepted by the scan, without a log file. The library reads its settings
// from a file, so they are written to a temporary one for the length of
// KORVSDK_Init.
#pragma once

#include <filesystem>
#include <string>

namespace korvtool {

std::string BuiltInVirtualSettings();

// A setting.cfg with the given text in a folder of its own under the
// system's temporary folder; both are removed with the object.
class TemporarySettingsFile {
public:
    explicit TemporarySettingsFile(const std::string& text);
    ~TemporarySettingsFile();
    TemporarySettingsFile(const TemporarySettingsFile&) = delete;
    TemporarySettingsFile& operator=(const TemporarySettingsFile&) = delete;

    std::string Path() const { return file_.string(); }

private:
    std::filesystem::path folder_;
    std::filesystem::path file_;
};

}  // namespace korvtool
