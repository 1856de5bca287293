// The log folder and file-name rules.
#include <gtest/gtest.h>

#include <regex>

#include "platform/platform.h"
#include "settings/log_location.h"
#include "support/test_support.h"

namespace fs = std::filesystem;
using VideoConsoleCore::LogLocation;
using VideoConsoleCore::SettingsTable;

namespace {

LogLocation Apply(const SettingsTable& table) {
    LogLocation location;
    location.ApplySettings(table);
    return location;
}

std::string Sep() { return std::string(1, VideoConsoleCore::platform::PathSeparator()); }

}  // namespace

TEST(LocalTimeStamp, DateWithZerosTimeWithout) {
    const std::string stamp = VideoConsoleCore::LocalTimeStamp();
    static const std::regex pattern(R"((\d{4})-(\d{2})-(\d{2}) (\d{1,2})h (\d{1,2})m (\d{1,2})s)");
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(stamp, parts, pattern)) << stamp;
    for (int i = 4; i <= 6; ++i) {
        const std::string field = parts[i].str();
        EXPECT_FALSE(field.size() == 2 && field[0] == '0') << "leading zero in " << stamp;
    }
    EXPECT_LT(std::stoi(parts[4].str()), 24);
}

TEST(LogLocationRecord, DefaultsWithoutSettings) {
    korvsdk_test::SetEnvironment("APPDATA", "base");
    const LogLocation location = Apply({});
    EXPECT_TRUE(location.genToCurrentFolder);
    EXPECT_EQ(location.currentFolderName, ".");
    EXPECT_EQ(location.loggerName, "VideoCapture");
    EXPECT_EQ(location.logPrefix, "Device_Log_");
    EXPECT_EQ(location.appDataPath, "base");
}

TEST(LogLocationRecord, OnlyZeroTurnsCurrentFolderOff) {
    EXPECT_FALSE(Apply({{"GenToCurrentFolder", "0"}}).genToCurrentFolder);
    EXPECT_TRUE(Apply({{"GenToCurrentFolder", "no"}}).genToCurrentFolder);
    EXPECT_TRUE(Apply({{"GenToCurrentFolder", "0 "}}).genToCurrentFolder);
    EXPECT_TRUE(Apply({{"GenToCurrentFolder", ""}}).genToCurrentFolder);
}

TEST(LogLocationRecord, UnsetAppDataFallsBackToWorkingFolder) {
    korvsdk_test::UnsetEnvironment("APPDATA");
    const LogLocation location = Apply({{"GenToCurrentFolder", "0"},
                                        {"CompanyFolderName", "Acme"},
                                        {"ProductFolderName", "Viewer"}});
    EXPECT_EQ(location.appDataPath, "");
    EXPECT_EQ(location.LogFolder(), "." + Sep() + "Acme" + Sep() + "Viewer");
}

TEST(LogLocationRecord, CurrentFolderIsMadeAbsolute) {
    korvsdk_test::TempFolder folder;
    korvsdk_test::WorkingFolder cwd(folder.path());
    const LogLocation location = Apply({{"CurrentFolderName", "logs"}});
    const fs::path path(location.LogFilePath());
    EXPECT_TRUE(path.is_absolute()) << path;
    EXPECT_EQ(fs::weakly_canonical(path.parent_path()), folder.path() / "logs");
    EXPECT_EQ(location.StampedFileName("Dump_").rfind("Dump_", 0), 0u);
}
