// DLLs named like the system's, left where Windows looks first (beside the
// program, in the working folder), never run: korvtool and the library load
// the system's DLLs from the system folder only. A plant leaves
// "<path>.loaded" when a process loads it.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "tool/run_process.h"

namespace {

namespace fs = std::filesystem;
using korvtool_test::ProcessResult;

const char* const kPlantedDlls[] = {"hid.dll", "setupapi.dll", "cfgmgr32.dll"};

// korvtool.exe and the library DLL copied into a folder of their own, as a
// user unpacks them, with a hid.dll, setupapi.dll and cfgmgr32.dll planted
// beside them and in the working folder. The test runs with a native-first
// override for the three (CMakeLists.txt), so that Wine would take each
// plant where it is looked for: korvtool on the virtual device must not
// look for them at all, and on the system's own backend only in the system
// folder.
TEST(PlantedDlls, KorvtoolLoadsNoneBesideItOrInTheWorkingFolder) {
    korvsdk_test::TempFolder root;
    const fs::path app = root.path() / "app";
    const fs::path work = root.path() / "work";
    fs::create_directories(app);
    fs::create_directories(work);
    const fs::path bin = korvtool_test::ThisProgramFolder().parent_path();
    for (const char* file : {"korvtool.exe", "KORVSDKDeviceTool.dll"})
        fs::copy_file(bin / file, app / file);
    const fs::path plants = korvtool_test::ThisProgramFolder() / "plants";
    for (const char* dll : kPlantedDlls) {
        fs::copy_file(plants / dll, app / dll);
        fs::copy_file(plants / dll, work / dll);
    }
    korvsdk_test::SetEnvironment("KORVTOOL_HISTORY", (work / "history.jsonl").string());
    // For the run without --virtual: the system's own devices (none under Wine).
    korvsdk_test::WriteFile(work / "setting.cfg", "EnableLocalLogging=0\n");

    const std::vector<std::string> runs[] = {
        {"make-image", "usb", "new.hex"},
        {"--virtual", "list"},
        {"--virtual", "update", "usb", "new.hex"},
        {"list"},  // the Windows backend: looks up the three DLLs
    };
    for (const std::vector<std::string>& args : runs) {
        const ProcessResult result = korvtool_test::RunProcess(app / "korvtool.exe", args, work);
        EXPECT_EQ(result.exitCode, 0) << args.back() << ": " << result.out << result.err;
    }
    for (const fs::path& folder : {app, work}) {
        for (const char* dll : kPlantedDlls)
            EXPECT_FALSE(fs::exists(folder / (std::string(dll) + ".loaded"))) << folder / dll;
    }
}

}  // namespace
