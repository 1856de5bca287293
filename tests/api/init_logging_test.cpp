// KORVSDK_Init with its settings file and the log file it starts, seen from
// the outside: which files and folders appear, and what they hold. Each test
// runs in a process of its own and in a scratch working folder.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "KORVSDKDeviceTool.h"
#include "support/test_support.h"

namespace fs = std::filesystem;
using korvsdk_test::FilesStartingWith;
using korvsdk_test::MessageLog;
using korvsdk_test::ReadFile;
using korvsdk_test::WriteFile;

namespace {

class InitTest : public ::testing::Test {
protected:
    InitTest() : cwd_(folder_.path()) {}

    void SetUp() override {
        MessageLog::Clear();
        KORVSDK_Set_Debug_Output_Handler(MessageLog::Collect);
        korvsdk_test::UnsetEnvironment("SPDLOG_LEVEL");
        appData_ = folder_.path() / "appdata";
        fs::create_directory(appData_);
        korvsdk_test::SetEnvironment("APPDATA", appData_.string());
    }
    void TearDown() override { KORVSDK_Set_Debug_Output_Handler(nullptr); }

    fs::path Here() const { return folder_.path(); }

    // The one log file in `folder`; fails the test when there is not exactly one.
    fs::path OnlyLogFile(const fs::path& folder) const {
        const auto logs = FilesStartingWith(folder, "Device_Log_");
        EXPECT_EQ(logs.size(), 1u) << "log files in " << folder;
        return logs.empty() ? fs::path() : logs.front();
    }

    korvsdk_test::TempFolder folder_;
    korvsdk_test::WorkingFolder cwd_;
    fs::path appData_;
};

bool NameIsStamped(const fs::path& log) {
    static const std::regex pattern(
        R"(Device_Log_\d{4}-\d{2}-\d{2} \d{1,2}h \d{1,2}m \d{1,2}s\.txt)");
    return std::regex_match(log.filename().string(), pattern);
}

}  // namespace

TEST_F(InitTest, LoggingOffCreatesNoFileAndNoFolder) {
    WriteFile(Here() / "setting.cfg",
              "EnableLocalLogging=0\nGenToCurrentFolder=0\nCompanyFolderName=Acme\n"
              "ProductFolderName=Viewer\n");
    EXPECT_EQ(KORVSDK_Init("setting.cfg"), 1);
    EXPECT_TRUE(FilesStartingWith(Here(), "Device_Log_").empty());
    EXPECT_FALSE(fs::exists(appData_ / "Acme"));
    EXPECT_TRUE(fs::is_empty(appData_));
}

TEST_F(InitTest, MissingSettingsFileStartsLoggingInTheWorkingFolder) {
    EXPECT_EQ(KORVSDK_Init("no-such-file.cfg"), 1);
    const fs::path log = OnlyLogFile(Here());
    EXPECT_TRUE(NameIsStamped(log)) << log;
    EXPECT_NE(ReadFile(log).find("starting logger..."), std::string::npos);
}

TEST_F(InitTest, AnyValueButZeroStartsLogging) {
    // "0 " (with a blank) is not "0".
    WriteFile(Here() / "setting.cfg", "EnableLocalLogging=0 \n");
    EXPECT_EQ(KORVSDK_Init("setting.cfg"), 1);
    EXPECT_NE(ReadFile(OnlyLogFile(Here())).find("starting logger..."), std::string::npos);
}

TEST_F(InitTest, GivenPathIsReadAndNullPathFallsBackToWorkingFolder) {
    // The file given to Init switches logging off; the fallback file in the
    // working folder would switch it on.
    fs::create_directory(Here() / "conf");
    WriteFile(Here() / "conf" / "mine.cfg", "EnableLocalLogging=0\n");
    WriteFile(Here() / "setting.cfg", "EnableLocalLogging=1\n");
    EXPECT_EQ(KORVSDK_Init((Here() / "conf" / "mine.cfg").string().c_str()), 1);
    EXPECT_TRUE(FilesStartingWith(Here(), "Device_Log_").empty());
}

TEST_F(InitTest, AFolderGivenForTheFileFallsBackToSettingCfg) {
    fs::create_directory(Here() / "conf");
    WriteFile(Here() / "setting.cfg", "EnableLocalLogging=0\n");
    EXPECT_EQ(KORVSDK_Init((Here() / "conf").string().c_str()), 1);
    EXPECT_TRUE(FilesStartingWith(Here(), "Device_Log_").empty());
}

TEST_F(InitTest, PerUserFolderUnderAppData) {
    WriteFile(Here() / "setting.cfg",
              "GenToCurrentFolder=0\nCompanyFolderName=Acme\nProductFolderName=Viewer\n");
    EXPECT_EQ(KORVSDK_Init("setting.cfg"), 1);
    const fs::path log = OnlyLogFile(appData_ / "Acme" / "Viewer");
    EXPECT_TRUE(NameIsStamped(log)) << log;
    EXPECT_NE(ReadFile(log).find("starting logger..."), std::string::npos);
    EXPECT_TRUE(FilesStartingWith(Here(), "Device_Log_").empty());
}

TEST_F(InitTest, OldLogsInAppDataAreKept) {
    WriteFile(appData_ / "Device_Log_2020-01-01 1h 2m 3s.txt", "old run\n");
    WriteFile(appData_ / "Device_Other.txt", "other\n");
    EXPECT_EQ(KORVSDK_Init("setting.cfg"), 1);
    EXPECT_TRUE(fs::exists(appData_ / "Device_Log_2020-01-01 1h 2m 3s.txt"));
    EXPECT_TRUE(fs::exists(appData_ / "Device_Other.txt"));
}

TEST_F(InitTest, SpdlogLevelFromTheEnvironmentIsHonoured) {
    korvsdk_test::SetEnvironment("SPDLOG_LEVEL", "warn");
    EXPECT_EQ(KORVSDK_Init("setting.cfg"), 1);
    const fs::path log = OnlyLogFile(Here());
    EXPECT_EQ(ReadFile(log).find("starting logger..."), std::string::npos);
}
