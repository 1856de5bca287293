#include "settings/log_location.h"

#include <cstdio>
#include <filesystem>
#include <system_error>

#include "platform/platform.h"

namespace VideoConsoleCore {

namespace fs = std::filesystem;

namespace {

std::string Join(const std::string& folder, const std::string& name) {
    return folder + platform::PathSeparator() + name;
}

// Paths are UTF-8 texts. A plain std::string given to std::filesystem would be
// read in the ANSI code page on Windows, and a working folder with characters
// outside it would become a folder that does not exist; the char8_t forms
// convert to UTF-16 there and pass the bytes through elsewhere.
fs::path FromUtf8(const std::string& text) {
    return fs::path(std::u8string(text.begin(), text.end()));
}

std::string ToUtf8(const fs::path& path) {
    const std::u8string text = path.u8string();
    return std::string(text.begin(), text.end());
}

// Creates one folder level; an existing folder, or a failure, is no error.
void CreateFolderIfMissing(const std::string& folder) {
    std::error_code ignored;
    if (!fs::exists(FromUtf8(folder), ignored)) fs::create_directory(FromUtf8(folder), ignored);
}

}  // namespace

std::string LocalTimeStamp() {
    const platform::LocalTime now = platform::CurrentLocalTime();
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %dh %dm %ds", now.year, now.month, now.day,
                  now.hour, now.minute, now.second);
    return text;
}

LogLocation LogLocation::Build() {
    LogLocation location;
    SettingsTable table;
    ReadSettingsFile("setting.cfg", table);
    location.ApplySettings(table);
    location.CreateFolders();
    return location;
}

void LogLocation::ApplySettings(const SettingsTable& table) {
    settings = table;
    const std::string& genToCurrent = settings["GenToCurrentFolder"];
    if (!genToCurrent.empty()) genToCurrentFolder = genToCurrent != "0";
    if (!settings["CompanyFolderName"].empty()) companyFolderName = settings["CompanyFolderName"];
    if (!settings["ProductFolderName"].empty()) productFolderName = settings["ProductFolderName"];
    if (!settings["CurrentFolderName"].empty()) currentFolderName = settings["CurrentFolderName"];
    if (currentFolderName.empty()) currentFolderName = ".";
    appDataPath = platform::EnvironmentVariable("APPDATA");
}

std::string LogLocation::UserBaseFolder() const {
    return appDataPath.empty() ? std::string(".") : appDataPath;
}

void LogLocation::CreateFolders() const {
    if (genToCurrentFolder) {
        CreateFolderIfMissing(currentFolderName);
        return;
    }
    const std::string company = Join(UserBaseFolder(), companyFolderName);
    CreateFolderIfMissing(company);
    CreateFolderIfMissing(Join(company, productFolderName));
}

std::string LogLocation::LogFolder() const {
    if (genToCurrentFolder) {
        std::error_code failed;
        const fs::path absolute = fs::absolute(FromUtf8(currentFolderName), failed);
        return failed ? currentFolderName : ToUtf8(absolute.lexically_normal());
    }
    return Join(Join(UserBaseFolder(), companyFolderName), productFolderName);
}

std::string LogLocation::StampedFileName(const std::string& head) const {
    return head + LocalTimeStamp() + logExtension;
}

std::string LogLocation::LogFilePath() const {
    std::string folder = LogFolder();
    // lexically_normal keeps a trailing separator for "." ("/work/./" -> "/work/").
    if (!folder.empty() && (folder.back() == '/' || folder.back() == '\\')) folder.pop_back();
    return Join(folder, StampedFileName(logPrefix));
}

int LogLocation::RemoveOldLogs() const {
    if (appDataPath.empty()) return 0;
    int removed = 0;
    std::error_code failed;
    for (fs::directory_iterator it(FromUtf8(appDataPath), failed), end; !failed && it != end;
         it.increment(failed)) {
        const std::string name = ToUtf8(it->path().filename());
        // First seven characters against the whole prefix: never equal.
        if (name.compare(0, 7, logPrefix) == 0) {
            std::error_code ignored;
            if (fs::remove(FromUtf8(Join(appDataPath, name)), ignored)) ++removed;
        }
    }
    return removed;
}

}  // namespace VideoConsoleCore
