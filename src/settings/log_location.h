// Where log files and diagnostic dumps go.
//
// A LogLocation is built afresh by each user (the logger start, the
// diagnostic dump): it reads "setting.cfg" from the working directory - not
// the file given to KORVSDK_Init - and creates the chosen folders.
#pragma once

#include <string>

#include "settings/settings_file.h"

namespace VideoConsoleCore {

// The current local time as "2024-03-05 9h 7m 3s": date with leading zeros,
// hour, minute and second without.
std::string LocalTimeStamp();

struct LogLocation {
    std::string appDataPath;  // value of APPDATA (UTF-8); "" when unset
    std::string loggerName = "VideoCapture";
    SettingsTable settings;
    std::string currentFolderName;
    std::string companyFolderName;
    std::string productFolderName;
    std::string dxdiagFullFileName = "dxdiagData_full.txt";
    std::string logPrefix = "Device_Log_";
    std::string logExtension = ".txt";
    std::string dxdiagFullPath;
    bool genToCurrentFolder = true;

    // Reads "setting.cfg" from the working directory, applies its keys and
    // creates the log folders. Failures to create a folder are silent: they
    // show up when the logger cannot create its file.
    static LogLocation Build();

    // Applies the keys of `table` (GenToCurrentFolder, CompanyFolderName,
    // ProductFolderName, CurrentFolderName) and reads APPDATA, without
    // touching the file system.
    void ApplySettings(const SettingsTable& table);

    // Creates the folder the logs go to (see LogFolder).
    void CreateFolders() const;

    // The folder that log files go into: CurrentFolderName when
    // GenToCurrentFolder is on, else APPDATA\Company\Product. When APPDATA is
    // unset the per-user base is the working directory.
    std::string LogFolder() const;

    // head + time stamp + logExtension.
    std::string StampedFileName(const std::string& head) const;

    // Full path of a new log file: LogFolder + "Device_Log_" + stamp + ".txt".
    std::string LogFilePath() const;

    // The old-log pass over the APPDATA folder. It looks for names that begin
    // with the log prefix but compares only their first seven characters with
    // the whole eleven-character prefix, so it never matches and old logs are
    // kept. That outcome is wanted: support staff ask users for earlier logs.
    // Returns the number of files removed (always 0).
    int RemoveOldLogs() const;

    // The per-user base folder: appDataPath, or "." when APPDATA is unset.
    std::string UserBaseFolder() const;
};

}  // namespace VideoConsoleCore
