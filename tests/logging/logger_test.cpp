// The file logger and the two message channels.
#include <gtest/gtest.h>

#include <spdlog/spdlog.h>

#include <string>

#ifndef _WIN32
#include <unistd.h>
#endif

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

// The log goes to folders other users may write. A log folder that is a
// symbolic link is followed only when the link and the folder it leads to
// are the user's own, and a file of another user's, or another name of a
// file elsewhere, at the log's name is not appended to; each refusal says
// why. Only root can hand a link or a file to another user (uid 1 here).
TEST_F(LoggerTest, LogsOnlyThroughFoldersAndIntoFilesOfTheUsersOwn) {
#ifdef _WIN32
    GTEST_SKIP() << "owner checks of links are POSIX ones";
#else
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give files to another user";
    enum class AtName { kNothing, kOthersFile, kHardLink };  // what waits at the log's name
    struct Row {
        const char* name;
        bool otherLink, otherFolder;
        AtName atName;
        const char* said;  // null: the log is written in the folder
    };
    const Row rows[] = {
        {"own link, own folder", false, false, AtName::kNothing, nullptr},
        {"another user's link", true, false, AtName::kNothing,
         "its folder is a link that is not the user's own"},
        {"link to another user's folder", false, true, AtName::kNothing, "its folder is a link"},
        {"another user's file at the log's name", false, false, AtName::kOthersFile,
         "it belongs to another user"},
        {"a hard link at the log's name", false, false, AtName::kHardLink,
         "it is a hard link to another file"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        MessageLog::Clear();
        const std::string name = std::to_string(&row - rows);
        const fs::path folder = folder_.path() / ("folder" + name);
        const fs::path link = folder_.path() / ("link" + name);
        fs::create_directory(folder);
        fs::create_directory_symlink(folder, link);
        ASSERT_EQ(lchown(link.c_str(), row.otherLink ? 1 : geteuid(), 0), 0);
        ASSERT_EQ(chown(folder.c_str(), row.otherFolder ? 1 : geteuid(), 0), 0);
        const fs::path victim = folder_.path() / "victim.txt";
        korvsdk_test::WriteFile(folder_.path() / "setting.cfg",
                                "CurrentFolderName=link" + name + "\n");
        std::string planted;
        bool checked = false;
        // Another try when a second boundary fell between the plant and the start.
        for (int attempt = 0; attempt < 5 && !checked; ++attempt) {
            if (row.atName != AtName::kNothing) {
                planted = "Device_Log_" + VideoConsoleCore::LocalTimeStamp() + ".txt";
                fs::remove(folder / planted);
                korvsdk_test::WriteFile(victim, "kept\n");
                if (row.atName == AtName::kHardLink) {
                    fs::create_hard_link(victim, folder / planted);
                } else {
                    fs::copy_file(victim, folder / planted);
                    ASSERT_EQ(chown((folder / planted).c_str(), 1, 0), 0);
                }
            }
            VideoConsoleCoreImp core;
            core.SetDebugOutputHandler(MessageLog::Collect);
            core.StartLogger();
            const bool atName = row.atName != AtName::kNothing;
            if (atName && fs::path(core.LogFilePath()).filename() != planted) {
                fs::remove(core.LogFilePath());
                continue;
            }
            EXPECT_EQ(core.m_logger != nullptr, row.said == nullptr);
            const auto logs = korvsdk_test::FilesStartingWith(folder, "Device_Log_");
            EXPECT_EQ(logs.size(), row.said == nullptr || atName ? 1u : 0u);
            if (atName) {
                EXPECT_EQ(ReadFile(folder / planted), "kept\n");
                EXPECT_EQ(ReadFile(victim), "kept\n");
            }
            if (row.said != nullptr) {
                EXPECT_NE(MessageLog::All().find(row.said), std::string::npos) << MessageLog::All();
            }
            checked = true;
        }
        EXPECT_TRUE(checked) << "five starts never fell in the second of the planted file";
    }
#endif
}
