// korvtool station on a bench of virtual units: every unit in a worker
// process of its own, each result in the history and the run's summary, and
// one unit's fault kept to its own row.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include "korvtool_fixture.h"
#include "station/station_platform.h"

#ifndef _WIN32
#include <csignal>
#endif

namespace {

using namespace korvtool_test;
using korvtool::station::ChildProcess;

// Eight units of one model on eight ports (locations and serial numbers
// distinct by default).
std::string Bench(int count, const std::string& extra = "") {
    return kBase + "DevIDNum=2\nDevDrvID0=USB\\VID_FFF0&PID_0C01\nDevDrvID1=USB\\VID_FFF0&PID_0C02\n"
                   "FW_Overwrite=0\nVirtualDeviceCount=" +
           std::to_string(count) + "\n" + extra;
}

class Station : public Korvtool {
protected:
    void SetUp() override {
        ASSERT_EQ(Run({"make-image", "usb", "fw.hex"}).exitCode, 0);
        ASSERT_EQ(Run({"make-image", "mcu", "mcu.bin", "--size", "4096"}).exitCode, 0);
    }

    // The JSON events of a station's standard output; every line must be one.
    static std::vector<json> Events(const std::string& out) {
        std::vector<json> events;
        for (const std::string& line : Lines(out)) {
            const json event = json::parse(line, nullptr, false);
            EXPECT_TRUE(event.is_object() && event.contains("event")) << line;
            if (event.is_object()) events.push_back(event);
        }
        return events;
    }

    // The unit rows of the run's summary, by location.
    std::map<std::string, json> SummaryUnits(const std::string& runDir) {
        std::ifstream in(WorkFolder() / runDir / "summary.json");
        const json summary = json::parse(in, nullptr, false);
        std::map<std::string, json> units;
        if (summary.is_object())
            for (const json& unit : summary["units"]) units[unit["location"]] = unit;
        return units;
    }

    // The history's records of one run.
    std::vector<json> HistoryOfRun(const std::string& run) {
        const ProcessResult result = Run({"--json", "history", "--run", run});
        const json doc = json::parse(result.out, nullptr, false);
        std::vector<json> records;
        if (doc.is_object() && doc.contains("entries"))
            for (const json& entry : doc["entries"])
                if (entry.value("run", "") == run) records.push_back(entry);
        return records;
    }

#ifdef _WIN32
    static constexpr const char* kProgram = "korvtool.exe";
#else
    static constexpr const char* kProgram = "korvtool";
#endif
};

TEST_F(Station, EightUnitsAtOnceEachInTheHistoryAndTheSummary) {
    // Each unit is re-plugged 4 s after its flash was last written.
    std::string replugs;
    for (int n = 0; n < 8; ++n) replugs += "Virtual" + std::to_string(n) + "_ReplugAfterUpdateMs=4000\n";
    const std::string cfg = Settings(Bench(8, replugs));
    const ProcessResult result =
        Run({"--config", cfg, "--json", "station", "--usb", "fw.hex", "--mcu", "mcu.bin",
             "--wait-replug", "30", "--backup-dir", "backups", "--run-dir", "run", "--report",
             "units.csv"});
    ASSERT_EQ(result.exitCode, 0) << result.out << result.err;
    const std::vector<json> events = Events(result.out);
    ASSERT_FALSE(events.empty());
    const std::string run = events.front().value("run", "");
    std::set<std::string> serials, workers;
    for (const json& event : events) {
        if (event["event"] == "started") workers.insert(std::to_string(event.value("worker", 0L)));
        if (event["event"] != "done") continue;
        EXPECT_EQ(event["result"], "pass") << event.dump();
        serials.insert(event["serial"]);
        // Every unit event names the unit's port and serial.
        EXPECT_FALSE(event.value("location", "").empty());
    }
    EXPECT_EQ(serials.size(), 8u);
    EXPECT_EQ(workers.size(), 8u);  // a process of its own each
    // One backup per unit, named by its serial.
    std::set<std::string> backups;
    for (const auto& file : std::filesystem::directory_iterator(WorkFolder() / "backups"))
        backups.insert(file.path().filename().string().substr(0, 10));
    EXPECT_EQ(backups, serials);

    const std::map<std::string, json> units = SummaryUnits("run");
    ASSERT_EQ(units.size(), 8u);
    for (const auto& [location, unit] : units) {
        EXPECT_EQ(unit["result"], "pass") << location;
        // Confirmed after the re-plug.
        EXPECT_EQ(unit["usb_after"], "01.00.02.00.0000") << location;
        EXPECT_EQ(unit["mcu_after"], "0d.18.00") << location;
        // The unit's worker kept the library's log in the unit's folder.
        size_t logs = 0;
        for (const auto& file : std::filesystem::directory_iterator(unit["folder"].get<std::string>()))
            logs += file.path().filename().string().rfind("korvtool-", 0) != 0;
        EXPECT_GE(logs, 1u) << location;
    }
    EXPECT_EQ(Lines(korvsdk_test::ReadFile(WorkFolder() / "units.csv")).size(), 9u);
    const std::vector<json> records = HistoryOfRun(run);
    ASSERT_EQ(records.size(), 8u);
    for (const json& record : records) {
        EXPECT_EQ(record["result"], "pass");
        EXPECT_EQ(record["steps"].size(), 5u) << record.dump();  // check, backup, mcu, usb, replug
    }
}

// One run, a fault per unit: each row says what happened to its unit and
// the others pass.
TEST_F(Station, EachUnitsFaultStaysInItsRow) {
    const std::string cfg = Settings(Bench(8,
        // 1: already runs the images' versions
        "Virtual1_UsbFwVersion=01.00.02.00\nVirtual1_McuVersion=0x18\n"
        // 2 and 3: one serial number on two ports
        "Virtual2_Serial=DUPLICATE1\nVirtual3_Serial=DUPLICATE1\n"
        // 4: unplugged in the middle of its update
        "Virtual4_UnplugAfter=700\n"
        // 5: its worker crashes; 6: its worker hangs
        "Virtual5_CrashAfter=40\nVirtual6_HangAfter=40\n"
        // 7: another model, whose check refuses the image
        "Virtual7_PID=0C02\n"));
    const ProcessResult result =
        Run({"--config", cfg, "--json", "station", "--usb", "fw.hex", "--mcu", "mcu.bin",
             "--run-dir", "run", "--retries", "1", "--unit-timeout", "5"});
    EXPECT_EQ(result.exitCode, 1) << result.out << result.err;
    Events(result.out);
    const std::map<std::string, json> units = SummaryUnits("run");
    ASSERT_EQ(units.size(), 8u) << result.out;
    std::vector<json> rows;
    for (const auto& [location, unit] : units) rows.push_back(unit);
    // Locations are in port order.
    struct Expect { const char* result; int attempts; const char* words; };
    const Expect expected[8] = {
        {"pass", 1, ""},
        {"up to date", 1, "nothing written"},
        {"refused", 0, "cannot tell them apart"},
        {"refused", 0, "cannot tell them apart"},
        {"fail", 2, "unplugged"},
        {"fail", 2, "ended without a result"},
        {"fail", 2, "stopped reporting"},
        {"fail", 1, "refused"},
    };
    for (size_t i = 0; i < 8; ++i) {
        SCOPED_TRACE(rows[i].dump());
        EXPECT_EQ(rows[i]["result"], expected[i].result);
        EXPECT_EQ(rows[i]["attempts"], expected[i].attempts);
        EXPECT_TRUE(Contains(rows[i]["message"], expected[i].words));
    }
    // The refusal names both ports.
    EXPECT_TRUE(Contains(rows[2]["message"], rows[3]["location"])) << rows[2]["message"];
    EXPECT_TRUE(Contains(rows[3]["message"], rows[2]["location"])) << rows[3]["message"];
    // Every attempt is in the history: the workers' own, and the station's
    // for the crashed and the stopped worker and the refused units.
    const std::string run = json::parse(Lines(result.out).front())["run"];
    EXPECT_EQ(HistoryOfRun(run).size(), 1u + 1 + 2 + 2 + 2 + 2 + 1);
}

#ifndef _WIN32
// A station started in the background, its events read as they come.
class Background {
public:
    // `args` name every file by its full path: the station runs in the
    // test's working folder, not the station's.
    Background(const std::filesystem::path& program, const std::vector<std::string>& args,
               const std::filesystem::path& work)
        : process_(std::make_unique<ChildProcess>(program, args, work / "station-stderr.txt")) {}
    // Events until one matches `want` (or 60 s pass: a failure).
    json WaitFor(const std::function<bool(const json&)>& want) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (std::chrono::steady_clock::now() < deadline) {
            std::vector<std::string> lines;
            process_->ReadLines(lines);
            for (const std::string& line : lines) {
                const json event = json::parse(line, nullptr, false);
                if (!event.is_object()) continue;
                seen.push_back(event);
                if (want(event)) return event;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        ADD_FAILURE() << "the awaited event did not come";
        return json::object();
    }
    void Signal(int number) { ::kill(static_cast<pid_t>(process_->Id()), number); }
    korvtool::station::ExitStatus Wait() {
        for (int i = 0; i < 600; ++i) {
            std::vector<std::string> lines;
            process_->ReadLines(lines);
            for (const std::string& line : lines) {
                const json event = json::parse(line, nullptr, false);
                if (event.is_object()) seen.push_back(event);
            }
            const auto status = process_->Poll();
            if (status.ended) return status;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        process_->Kill();
        return process_->Poll();
    }
    std::vector<json> seen;

private:
    std::unique_ptr<ChildProcess> process_;
};

void WritePresence(const std::filesystem::path& file, const std::vector<std::string>& locations) {
    std::string text;
    for (const std::string& location : locations) text += location + "\n";
    korvsdk_test::WriteFile(file.string() + ".new", text);
    std::filesystem::rename(file.string() + ".new", file);
}

auto Is(const std::string& kind, const std::string& location) {
    return [kind, location](const json& event) {
        return event.value("event", "") == kind && event.value("location", "") == location;
    };
}

// Continuous mode: units plugged in over time are each written once per
// plug-in, a unit unplugged and plugged again is a new one, and Ctrl-C
// lets the write under way finish.
TEST_F(Station, ContinuousModePlugUnplugAndCtrlC) {
    const std::filesystem::path presence = WorkFolder() / "present.txt";
    // Device 2 is slow: its update is still running when Ctrl-C comes.
    const std::string cfg = Settings(Bench(3, "VirtualPresenceFile=" + presence.string() +
                                                  "\nVirtual2_LatencyMs=3\nUSB_Burn_Area=1\n"));
    WritePresence(presence, {"1-1"});
    Background station(ThisProgramFolder() / kProgram,
                       {"--config", (WorkFolder() / cfg).string(), "--json", "station", "--usb",
                        (WorkFolder() / "fw.hex").string(), "--watch", "--run-dir",
                        (WorkFolder() / "run").string()},
                       WorkFolder());
    EXPECT_EQ(station.WaitFor(Is("done", "1-1")).value("result", ""), "pass");
    WritePresence(presence, {"1-1", "1-2"});
    EXPECT_EQ(station.WaitFor(Is("done", "1-2")).value("result", ""), "pass");
    WritePresence(presence, {"1-2"});
    station.WaitFor(Is("unplugged", "1-1"));
    WritePresence(presence, {"1-1", "1-2", "1-3"});
    station.WaitFor(Is("done", "1-1"));
    station.WaitFor(Is("progress", "1-3"));
    station.Signal(SIGINT);
    const auto status = station.Wait();
    EXPECT_TRUE(status.ended && status.code == 0) << status.Describe();
    std::map<std::string, int> starts;
    json summary;
    for (const json& event : station.seen) {
        if (event["event"] == "started") ++starts[event["location"]];
        if (event["event"] == "summary") summary = event;
    }
    // 1-1 twice (two plug-ins), the others once though they stayed plugged in.
    EXPECT_EQ(starts, (std::map<std::string, int>{{"1-1", 2}, {"1-2", 1}, {"1-3", 1}}));
    ASSERT_TRUE(summary.is_object());
    ASSERT_EQ(summary["units"].size(), 4u);
    for (const json& unit : summary["units"]) EXPECT_EQ(unit["result"], "pass") << unit.dump();
}

// A station killed outright: its workers finish their writes and every
// unit's record reaches the history.
TEST_F(Station, AKilledStationLosesNoRecord) {
    const std::string cfg = Settings(Bench(4, "Virtual0_LatencyMs=2\nVirtual1_LatencyMs=2\n"
                                              "Virtual2_LatencyMs=2\nVirtual3_LatencyMs=2\nUSB_Burn_Area=1\n"));
    Background station(ThisProgramFolder() / kProgram,
                       {"--config", (WorkFolder() / cfg).string(), "--json", "station", "--usb",
                        (WorkFolder() / "fw.hex").string(), "--run-dir",
                        (WorkFolder() / "run").string()},
                       WorkFolder());
    const std::string run = station.WaitFor([](const json& e) { return e["event"] == "run"; })["run"];
    for (const char* location : {"1-1", "1-2", "1-3", "1-4"}) station.WaitFor(Is("progress", location));
    station.Signal(SIGKILL);
    station.Wait();
    std::vector<json> records;
    for (int i = 0; i < 120 && records.size() < 4; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        records = HistoryOfRun(run);
    }
    ASSERT_EQ(records.size(), 4u);
    for (const json& record : records) EXPECT_EQ(record["result"], "pass") << record.dump();
}
#endif

}  // namespace
