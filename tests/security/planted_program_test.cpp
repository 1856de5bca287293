// A program named like the system's diagnostic tool, left where Windows
// looks first (beside the program, in the working folder), never runs: the
// system report starts the tool of the system folder. The plant leaves
// "<path>.started" when it runs.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "platform/platform.h"
#include "support/test_support.h"
#include "tool/run_process.h"

namespace {

namespace fs = std::filesystem;

// The report path below a working folder with a space and a non-ASCII
// letter in its name: the system's tool writes it, the planted tool beside
// this program and in the working folder never runs.
TEST(PlantedPrograms, SystemReportRunsTheSystemFoldersTool) {
    const fs::path besideUs = korvtool_test::ThisProgramFolder() / "dxdiag.exe";
    ASSERT_TRUE(fs::exists(besideUs));
    fs::remove(besideUs.string() + ".started");
    korvsdk_test::TempFolder root;
    const fs::path work = root.path() / fs::path(u8"report folder \u00e9");
    fs::create_directories(work);
    fs::copy_file(besideUs, work / "dxdiag.exe");
    const korvsdk_test::WorkingFolder cwd(work);

    ASSERT_TRUE(VideoConsoleCore::platform::StartSystemReport("dxdiagData_full.txt"));
    const fs::path planted[] = {besideUs.string() + ".started", work / "dxdiag.exe.started"};
    const auto plantRan = [&] { return fs::exists(planted[0]) || fs::exists(planted[1]); };
    // The tool takes a few seconds; it is waited for, not timed.
    const fs::path report = work / "dxdiagData_full.txt";
    for (int i = 0; i < 800 && !fs::exists(report) && !plantRan(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    for (const fs::path& marker : planted) EXPECT_FALSE(fs::exists(marker)) << marker;
    EXPECT_TRUE(fs::exists(report));
}

// A quotation mark in the path would end its argument on the tool's command
// line: nothing is started.
TEST(PlantedPrograms, SystemReportRefusesAPathWithAQuotationMark) {
    EXPECT_FALSE(VideoConsoleCore::platform::StartSystemReport("a\" /whql:on \"b.txt"));
}

}  // namespace
