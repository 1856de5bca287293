// Helpers shared by the test programs: scratch folders, working-folder
// switches, environment variables, files, and a collector for the library's
// debugger-output texts.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace korvsdk_test {

namespace fs = std::filesystem;

// A fresh, empty folder under the system's temporary folder, removed with
// everything in it when the object goes.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

// Makes `folder` the working folder until the object goes.
class WorkingFolder {
public:
    explicit WorkingFolder(const fs::path& folder);
    ~WorkingFolder();
    WorkingFolder(const WorkingFolder&) = delete;
    WorkingFolder& operator=(const WorkingFolder&) = delete;

private:
    fs::path previous_;
};

void WriteFile(const fs::path& file, const std::string& content);
std::string ReadFile(const fs::path& file);

// Regular files in `folder` whose names begin with `prefix`.
std::vector<fs::path> FilesStartingWith(const fs::path& folder, const std::string& prefix);

// Environment variables (test_env_<platform>.cpp).
void SetEnvironment(const char* name, const std::string& value);
void UnsetEnvironment(const char* name);
// Whether KORVSDK_DEBUG_STDERR=1 turns the library's own debugger channel on
// this platform into standard error (which a test can capture).
bool DebuggerChannelCanBeStderr();

// Collects the texts handed to a debug-output handler.
struct MessageLog {
    static void Collect(const char* text);
    static std::vector<std::string>& Texts();
    static void Clear();
    // All collected texts joined.
    static std::string All();
    // How many collected texts equal `text` exactly.
    static int Count(const std::string& text);
};

}  // namespace korvsdk_test
