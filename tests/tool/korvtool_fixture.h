// What the tests that run korvtool as a process share: the virtual
// device's settings, a fixture with its own working folder and history, and
// small text helpers.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "run_process.h"
#include "support/test_support.h"

namespace korvtool_test {

using korvtool_test::ProcessResult;
// Ordered, so that tests see the keys in the order korvtool writes them.
using json = nlohmann::ordered_json;

// Settings of the virtual device, without a log file.
inline const std::string kBase = "DeviceBackend=virtual\nEnableLocalLogging=0\n";
inline const std::string kOneDevice = kBase + "DevIDNum=1\nDevDrvID0=USB\\VID_FFF0&PID_0C01\n";
// The second device sits on a USB 2 port and runs USB firmware too old for
// the stream query.
inline const std::string kTwoDevices = kBase +
                                "DevIDNum=2\n"
                                "DevDrvID0=USB\\VID_FFF0&PID_0C01\n"
                                "DevDrvID1=USB\\VID_FFF0&PID_0C02\n"
                                "VirtualDeviceCount=2\n"
                                "Virtual1_PID=0C02\n"
                                "Virtual1_Serial=VC00000002\n"
                                "Virtual1_PortLevel=2\n"
                                "Virtual1_UsbFwVersion=01.00.00.09\n"
                                "Virtual1_UsbFwBuild=0002\n";
inline const std::string kNoDevice = kOneDevice + "VirtualDeviceCount=0\n";

inline std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

inline bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class Korvtool : public ::testing::Test {
protected:
    // Each test keeps its own update history, in its working folder.
    Korvtool() {
        const std::string history = (work_.path() / "history.sqlite").string();
#ifdef _WIN32
        _putenv_s("KORVTOOL_HISTORY", history.c_str());
#else
        setenv("KORVTOOL_HISTORY", history.c_str(), 1);
#endif
    }

    // Runs korvtool in the test's own empty working folder.
    ProcessResult Run(const std::vector<std::string>& args) {
#ifdef _WIN32
        const char* name = "korvtool.exe";
#else
        const char* name = "korvtool";
#endif
        return korvtool_test::RunProcess(korvtool_test::ThisProgramFolder() / name, args,
                                         work_.path());
    }

    // Writes a settings file into the working folder; returns its name.
    std::string Settings(const std::string& text, const std::string& name = "test.cfg") {
        korvsdk_test::WriteFile(work_.path() / name, text);
        return name;
    }

    // The whole standard output as one JSON document.
    static json Json(const ProcessResult& result) {
        try {
            return json::parse(result.out);
        } catch (const json::exception& e) {
            ADD_FAILURE() << "not one JSON document (" << e.what() << "):\n" << result.out;
            return json::object();
        }
    }

    const std::filesystem::path& WorkFolder() const { return work_.path(); }

private:
    korvsdk_test::TempFolder work_;
};

}  // namespace korvtool_test
