// The file logger and the two message channels.
#include <gtest/gtest.h>

#include <spdlog/spdlog.h>

#include <string>

#include "core/VideoConsoleCoreImp.h"
#include "settings/log_location.h"
#include "support/test_support.h"

namespace fs = std::filesystem;
using korvsdk_test::MessageLog;
using korvsdk_test::ReadFile;
using VideoConsoleCore::VideoConsoleCoreImp;

namespace {

class LoggerTest : public ::testing::Test {
protected:
    LoggerTest() : cwd_(folder_.path()) {}
    void SetUp() override {
        korvsdk_test::UnsetEnvironment("SPDLOG_LEVEL");
        MessageLog::Clear();
    }
    void TearDown() override { spdlog::drop_all(); }

    korvsdk_test::TempFolder folder_;
    korvsdk_test::WorkingFolder cwd_;
};

size_t Occurrences(const std::string& text, const std::string& piece) {
    size_t count = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1))
        ++count;
    return count;
}

}  // namespace

TEST_F(LoggerTest, ChannelsAreIndependent) {
    VideoConsoleCoreImp core;
    core.SetDebugOutputHandler(MessageLog::Collect);
    core.StartLogger();
    ASSERT_TRUE(core.m_localLogging);

    core.SwitchConsoleLogging(false);
    core.Report("file only\n");
    core.SwitchConsoleLogging(true);
    core.m_localLogging = false;
    core.Report("debugger only\n");
    core.m_localLogging = true;
    core.Report("both\n");

    const std::string log = ReadFile(core.LogFilePath());
    EXPECT_NE(log.find("[VideoCapture] [info] file only"), std::string::npos) << log;
    EXPECT_EQ(log.find("debugger only"), std::string::npos);
    EXPECT_NE(log.find("[info] both"), std::string::npos);
    EXPECT_EQ(log.find("both\n\n"), std::string::npos) << "the newline is dropped in the file";
    EXPECT_EQ(MessageLog::All(), "debugger only\nboth\n");
}

TEST_F(LoggerTest, EveryMessageIsFlushedAtOnce) {
    VideoConsoleCoreImp core;
    core.StartLogger();
    core.LogInfo("written through");
    // Read while the logger is still alive: nothing waits in a buffer.
    EXPECT_NE(ReadFile(core.LogFilePath()).find("written through"), std::string::npos);
}

TEST_F(LoggerTest, StartsWithinOneSecondShareAnAppendedFile) {
    // Two starts land in the same file when their stamps agree; try again if
    // a second boundary fell between them.
    for (int attempt = 0; attempt < 5; ++attempt) {
        // A folder of its own per attempt, so earlier attempts cannot add lines.
        korvsdk_test::WriteFile(folder_.path() / "setting.cfg",
                                "CurrentFolderName=run" + std::to_string(attempt) + "\n");
        VideoConsoleCoreImp first;
        VideoConsoleCoreImp second;
        first.StartLogger();
        second.StartLogger();
        if (first.LogFilePath() != second.LogFilePath()) continue;
        EXPECT_EQ(Occurrences(ReadFile(first.LogFilePath()), "starting logger..."), 2u);
        return;
    }
    FAIL() << "five pairs of starts never fell in one second";
}

TEST_F(LoggerTest, FailureToCreateTheFileSwitchesTheFileChannelOff) {
    korvsdk_test::WriteFile(folder_.path() / "blocker", "");
    korvsdk_test::WriteFile(folder_.path() / "setting.cfg", "CurrentFolderName=blocker/sub\n");
    VideoConsoleCoreImp core;
    core.SetDebugOutputHandler(MessageLog::Collect);
    core.SwitchConsoleLogging(false);
    core.StartLogger();
    EXPECT_FALSE(core.m_localLogging);
    EXPECT_EQ(core.m_logger, nullptr);
    EXPECT_EQ(MessageLog::All(), "create log file failed!!!\n");
    core.LogInfo("goes nowhere");  // must not crash without a logger
}

// The log folder is the working folder here; its name is outside any ANSI
// code page, so only a UTF-8 path opened wide on Windows reaches it.
TEST_F(LoggerTest, LogsBelowAWorkingFolderNamedInAnyScript) {
    const fs::path here = folder_.path() / fs::path(u8"Prüfung-日本");
    fs::create_directory(here);
    korvsdk_test::WorkingFolder inside(here);
    VideoConsoleCoreImp core;
    core.StartLogger();
    ASSERT_TRUE(core.m_localLogging);
    core.Report("logged\n");

    const auto files = korvsdk_test::FilesStartingWith(here, "Device_Log_");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_NE(ReadFile(files[0]).find("[info] logged"), std::string::npos);
    const std::string path = core.LogFilePath();
    EXPECT_EQ(fs::path(std::u8string(path.begin(), path.end())), files[0]);
}
