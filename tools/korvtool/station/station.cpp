#include "station.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>

#include "station_platform.h"
#include "errors.h"
#include "history.h"
#include "make_image.h"
#include "safe_text.h"
#include "station_view.h"

namespace korvtool::station {

using nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

namespace {

// Ctrl-C: stop starting units; the units being written finish.
std::atomic<int> g_stops{0};
static_assert(std::atomic<int>::is_always_lock_free);
extern "C" void OnStop(int) {
    ++g_stops;
    std::signal(SIGINT, OnStop);
}

class StopGuard {
public:
    StopGuard() : previous_(std::signal(SIGINT, OnStop)) { g_stops = 0; }
    ~StopGuard() { std::signal(SIGINT, previous_ == SIG_ERR ? SIG_DFL : previous_); }
    StopGuard(const StopGuard&) = delete;
    StopGuard& operator=(const StopGuard&) = delete;

private:
    void (*previous_)(int);
};

std::string NewRunId() {
    std::string id;
    for (const char c : UtcTimeNow())
        if (c != '-' && c != ':') id += c;
    std::random_device random;
    char suffix[8];
    std::snprintf(suffix, sizeof suffix, "-%04x", static_cast<unsigned>(random() & 0xFFFF));
    return id + suffix;
}

std::filesystem::path Absolute(const std::string& path) {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    return error ? std::filesystem::path(path) : absolute.lexically_normal();
}

struct Unit : UnitRow {
    std::unique_ptr<ChildProcess> worker;
    bool reported = false;  // the worker's "done" came
    bool timedOut = false;
    bool retry = true;      // the worker did not say that another attempt is useless
    bool removed = false;   // unplugged after its end (continuous mode)
    Clock::time_point lastHeard;
    std::filesystem::path folder;
    int lastQuarter = -1;   // plain lines: last quarter of progress printed
};

class Station {
public:
    Station(Session& session, const StationOptions& options, DisplayMode mode)
        : session_(session), options_(options), view_(mode, stdout), mode_(mode) {}

    int Run();

private:
    void Prepare();
    bool ScanUnits(bool addNew);
    void Start(Unit& unit);
    void Supervise(Unit& unit, Clock::time_point now);
    void Handle(Unit& unit, const ordered_json& event);
    void Conclude(Unit& unit);
    void Record(const Unit& unit);
    void Refuse(Unit& unit, const std::string& why);
    std::string Heading() const;
    std::vector<const UnitRow*> Shown() const;
    ordered_json Summary() const;
    void WriteReports(const ordered_json& summary);

    Session& session_;
    const StationOptions& options_;
    StationView view_;
    DisplayMode mode_;
    std::string run_;
    std::string name_;
    std::string startedAt_;
    std::filesystem::path folder_;
    std::filesystem::path program_;
    std::vector<std::unique_ptr<Unit>> units_;  // every unit of the run, in order seen
    bool stopping_ = false;
    std::string scanProblem_;
};

void Station::Prepare() {
    run_ = NewRunId();
    name_ = options_.stationName.empty() ? HostName() : options_.stationName;
    startedAt_ = UtcTimeNow();
    program_ = OwnProgram();
    if (!options_.runDir.empty()) {
        folder_ = Absolute(options_.runDir);
    } else {
        const std::filesystem::path history = HistoryPath();
        folder_ = (history.empty() ? std::filesystem::current_path() / "korvtool-runs"
                                   : history.parent_path() / "runs") /
                  run_;
    }
    std::error_code error;
    // Workers run in their units' folders: a history named relative to
    // this one's working folder is named in full for them.
    if (const char* history = std::getenv("KORVTOOL_HISTORY");
        history != nullptr && *history != '\0' && std::filesystem::path(history).is_relative())
        SetEnvironment("KORVTOOL_HISTORY", Absolute(history).string());
    std::filesystem::create_directories(folder_ / "units", error);
    if (error)
        throw Failure("the run's folder '" + folder_.string() + "' could not be made: " +
                      error.message());
    if (!options_.recipe.backupDir.empty()) {
        std::filesystem::create_directories(options_.recipe.backupDir, error);
        if (error)
            throw Failure("the backup folder '" + options_.recipe.backupDir +
                          "' could not be made: " + error.message());
    }
}

// Takes the devices found now: marks which units are present, and with
// `addNew` adds a unit for each device at a port that has none (or whose
// unit has gone). Units with one serial number on two ports are refused
// both: the library selects a device by its serial number. False when the
// scan itself failed.
bool Station::ScanUnits(bool addNew) {
    std::vector<DeviceInfo> devices;
    try {
        devices = session_.Scan();
        scanProblem_.clear();
    } catch (const ToolError& e) {
        if (scanProblem_ != e.what()) view_.Note(std::string("korvtool: warning: ") + e.what());
        scanProblem_ = e.what();
        return false;
    }
    for (auto& unit : units_) unit->present = false;
    std::map<std::string, std::vector<std::string>> portsOfSerial;
    for (const DeviceInfo& device : devices)
        if (!device.serial.empty()) portsOfSerial[device.serial].push_back(device.location);

    for (size_t i = 0; i < devices.size(); ++i) {
        const DeviceInfo& device = devices[i];
        const std::string location =
            device.location.empty() ? "#" + std::to_string(i) : device.location;
        Unit* unit = nullptr;
        for (auto& known : units_)
            if (!known->removed && known->location == location) unit = known.get();
        // Another unit in the same port since the last scan.
        if (unit != nullptr && unit->serial != device.serial && unit->state != UnitState::kRunning &&
            !unit->serial.empty()) {
            unit->removed = true;
            unit = nullptr;
        }
        if (unit == nullptr) {
            if (!addNew) continue;
            auto fresh = std::make_unique<Unit>();
            fresh->location = location;
            fresh->serial = device.serial;
            fresh->vidPid = device.vid + ":" + device.pid;
            fresh->model = device.description;
            unit = fresh.get();
            units_.push_back(std::move(fresh));
            view_.UnitEvent(*unit, {{"event", "plugged"}, {"vid_pid", unit->vidPid}, {"model", unit->model}},
                            "plugged in (" + unit->vidPid + ")");
        }
        unit->present = true;
        const std::vector<std::string>& ports = portsOfSerial[device.serial];
        if (ports.size() > 1 && unit->state == UnitState::kWaiting) {
            std::string list;
            for (size_t p = 0; p < ports.size(); ++p)
                list += (p == 0 ? "" : p + 1 == ports.size() ? " and " : ", ") + ports[p];
            Refuse(*unit, "serial number " + device.serial + " is on " + std::to_string(ports.size()) +
                              " ports (" + list + "): the library selects a device by its serial "
                              "number and cannot tell them apart - unplug all but one");
        }
    }
    // Continuous mode: an ended unit that is gone leaves the table; the next
    // unit in its port is a new one.
    for (auto& unit : units_) {
        if (unit->present || unit->removed) continue;
        if (Final(unit->state) && options_.watch) {
            unit->removed = true;
            view_.UnitEvent(*unit, {{"event", "unplugged"}}, "unplugged");
        } else if (unit->state == UnitState::kWaiting && unit->attempts > 0) {
            // A retry whose unit has gone: it keeps its failure.
            unit->state = UnitState::kFailed;
        }
    }
    return true;
}

void Station::Refuse(Unit& unit, const std::string& why) {
    unit.state = UnitState::kRefused;
    unit.message = why;
    unit.started = unit.ended = Clock::now();
    view_.UnitEvent(unit, {{"event", "done"}, {"result", "refused"}, {"message", why}},
                    "refused: " + why);
    Record(unit);
}

void Station::Start(Unit& unit) {
    ++unit.attempts;
    unit.message.clear();
    unit.reported = false;
    unit.timedOut = false;
    unit.retry = true;
    unit.step.clear();
    unit.phase.clear();
    unit.percent = 0;
    unit.lastQuarter = -1;
    if (unit.folder.empty()) {
        const std::string base = FileNamePart(unit.location) + "_" + FileNamePart(unit.serial);
        std::filesystem::path folder = folder_ / "units" / base;
        for (int n = 2; std::filesystem::exists(folder); ++n)
            folder = folder_ / "units" / (base + "_" + std::to_string(n));
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        unit.folder = folder;
        // The library puts its log where the setting.cfg of its working
        // folder says: here, the unit's folder.
        try {
            const std::string text = "GenToCurrentFolder=1\nCurrentFolderName=.\n";
            WriteInPlace((folder / "setting.cfg").string(), std::vector<uint8_t>(text.begin(), text.end()));
        } catch (const ToolError& e) {
            view_.Note(std::string("korvtool: warning: the unit's log stays elsewhere: ") + e.what());
        }
    }
    std::vector<std::string> arguments = options_.settingsArguments;
    const std::string attempt = std::to_string(unit.attempts);
    for (const std::string& argument :
         {std::string("--device"), unit.location, std::string("--json"), std::string("station-unit"),
          std::string("--run"), run_, std::string("--station"), name_, std::string("--attempt"),
          attempt})
        arguments.push_back(argument);
    const Recipe& recipe = options_.recipe;
    if (!recipe.usbFile.empty()) arguments.insert(arguments.end(), {"--usb", Absolute(recipe.usbFile).string()});
    if (!recipe.mcuFile.empty()) arguments.insert(arguments.end(), {"--mcu", Absolute(recipe.mcuFile).string()});
    if (!recipe.backupDir.empty())
        arguments.insert(arguments.end(), {"--backup-dir", Absolute(recipe.backupDir).string()});
    if (recipe.waitReplugSeconds)
        arguments.insert(arguments.end(), {"--wait-replug", std::to_string(*recipe.waitReplugSeconds)});
    if (options_.verbose) arguments.push_back("--verbose");

    unit.started = unit.lastHeard = Clock::now();
    unit.state = UnitState::kRunning;
    try {
        unit.worker = std::make_unique<ChildProcess>(
            program_, arguments, unit.folder / ("korvtool-attempt-" + attempt + ".txt"), unit.folder);
    } catch (const ToolError& e) {
        unit.state = UnitState::kFailed;
        unit.message = e.what();
        unit.ended = Clock::now();
        view_.UnitEvent(unit, {{"event", "done"}, {"result", "fail"}, {"message", unit.message}},
                        "fail: " + unit.message);
        Record(unit);
        return;
    }
    view_.UnitEvent(unit, {{"event", "started"}, {"attempt", unit.attempts}, {"worker", unit.worker->Id()}},
                    "started" + (unit.attempts > 1 ? " (attempt " + attempt + ")" : std::string()));
}

void Station::Handle(Unit& unit, const ordered_json& event) {
    const std::string kind = event.value("event", "");
    std::string text;
    if (kind == "unit") {
        unit.serial = event.value("serial", unit.serial);
        unit.vidPid = event.value("vid_pid", unit.vidPid);
        unit.model = event.value("model", unit.model);
        unit.usbBefore = event.value("usb_before", "");
        unit.mcuBefore = event.value("mcu_before", "");
        for (const char* part : {"usb", "mcu"}) {
            const std::string file = event.value(std::string(part) + "_file_version", "");
            if (!file.empty())
                text += std::string(text.empty() ? "" : "; ") + part + " " +
                        event.value(std::string(part) + "_before", "") + ", image " + file;
        }
    } else if (kind == "step") {
        unit.step = event.value("step", "");
        if (event.value("state", "") == "begin") {
            unit.phase.clear();
            unit.percent = 0;
            unit.lastQuarter = -1;
            text = unit.step + "...";
        } else {
            text = unit.step + " " + event.value("result", "") + " (" +
                   Duration(event.value("seconds", 0.0)) + ")";
        }
    } else if (kind == "progress") {
        unit.phase = event.value("phase", "");
        unit.percent = event.value("percent", 0.0);
        const int quarter = static_cast<int>(unit.percent / 25.0);
        if (quarter != unit.lastQuarter) {
            unit.lastQuarter = quarter;
            char percent[16];
            std::snprintf(percent, sizeof percent, "%.0f%%", unit.percent);
            text = unit.step + " " + unit.phase + " " + percent;
        }
    } else if (kind == "error") {
        unit.message = event.value("error", "");
    } else if (kind == "replug") {
        text = "re-plug the unit now";
    } else if (kind == "done") {
        unit.reported = true;
        const std::string result = event.value("result", "fail");
        unit.state = result == "pass"         ? UnitState::kPassed
                     : result == "up to date" ? UnitState::kUpToDate
                                              : UnitState::kFailed;
        unit.message = event.value("message", "");
        unit.usbAfter = event.value("usb_after", "");
        unit.mcuAfter = event.value("mcu_after", "");
        unit.steps = event.value("steps", ordered_json::array());
        unit.retry = event.value("retry", true);
        text = result + (unit.message.empty() ? "" : ": " + unit.message);
        if (!event.value("recorded", true))
            view_.Note("korvtool: warning: unit " + unit.location +
                       ": its record could not be added to the history (" +
                       (unit.folder / "korvtool-attempt-*.txt").string() + " says why)");
    }
    view_.UnitEvent(unit, event, text);
}

void Station::Supervise(Unit& unit, Clock::time_point now) {
    std::vector<std::string> lines;
    const bool open = unit.worker->ReadLines(lines);
    if (!lines.empty()) unit.lastHeard = now;
    for (const std::string& line : lines) {
        const ordered_json event = ordered_json::parse(line, nullptr, false);
        if (event.is_object()) Handle(unit, event);
    }
    const ExitStatus status = unit.worker->Poll();
    if (!status.ended) {
        const int limit = options_.unitTimeoutSeconds + options_.recipe.waitReplugSeconds.value_or(0);
        if (!unit.timedOut && now - unit.lastHeard > std::chrono::seconds(limit)) {
            unit.timedOut = true;
            unit.worker->Kill();
        }
        return;
    }
    if (open) return;  // its last lines are still on their way
    Conclude(unit);
}

// A worker has ended: its unit's result, and the history record when the
// worker could not write it itself.
void Station::Conclude(Unit& unit) {
    const ExitStatus status = unit.worker->Poll();
    unit.worker.reset();
    unit.ended = Clock::now();
    if (!unit.reported) {
        unit.state = UnitState::kFailed;
        unit.message =
            unit.timedOut
                ? "the worker stopped reporting for " +
                      std::to_string(options_.unitTimeoutSeconds +
                                     options_.recipe.waitReplugSeconds.value_or(0)) +
                      " s and was stopped" + (unit.step.empty() ? "" : " (step " + unit.step + ")")
                : unit.message.empty()
                ? "the worker ended without a result (" + status.Describe() + ")" +
                      (unit.step.empty() ? "" : " during step " + unit.step)
                : unit.message + " (" + status.Describe() + ")";
        view_.UnitEvent(unit,
                        {{"event", "done"}, {"result", "fail"}, {"message", unit.message},
                         {"exit", status.Describe()}},
                        "fail: " + unit.message);
        Record(unit);
    }
    if (unit.state == UnitState::kFailed && unit.retry && unit.attempts <= options_.retries &&
        !stopping_)
        unit.state = UnitState::kWaiting;  // again, if it is still plugged in at the next scan
}

// The station's own record of a unit whose worker wrote none.
void Station::Record(const Unit& unit) {
    ordered_json entry = {{"time", UtcTimeNow()}, {"command", "station"}, {"run", run_},
                          {"station", name_}, {"location", unit.location},
                          {"serial", unit.serial}, {"vid_pid", unit.vidPid},
                          {"model", unit.model}, {"attempt", unit.attempts},
                          {"usb_file", options_.recipe.usbFile}, {"mcu_file", options_.recipe.mcuFile},
                          {"usb_before", unit.usbBefore}, {"usb_after", unit.usbAfter},
                          {"mcu_before", unit.mcuBefore}, {"mcu_after", unit.mcuAfter},
                          {"steps", unit.steps}, {"result", StateWord(unit.state)},
                          {"message", unit.message}};
    std::string problem;
    if (!AppendHistory(HistoryPath(), entry, problem))
        view_.Note("korvtool: warning: " + problem);
}

std::vector<const UnitRow*> Station::Shown() const {
    std::vector<const UnitRow*> rows;
    for (const auto& unit : units_)
        if (!unit->removed) rows.push_back(unit.get());
    return rows;
}

std::string Station::Heading() const {
    std::map<std::string, int> counts;
    for (const auto& unit : units_) ++counts[StateWord(unit->state)];
    std::string text = "Station " + name_ + " - run " + run_ + " - " +
                       std::to_string(units_.size()) + " units";
    for (const auto& [word, count] : counts) text += ", " + std::to_string(count) + " " + word;
    if (stopping_) return text + " - stopping: the units being written finish";
    return text + (options_.watch ? " - plug units in; Ctrl-C ends" : "");
}

ordered_json Station::Summary() const {
    const auto now = Clock::now();
    ordered_json counts = ordered_json::object();
    for (const UnitState state : {UnitState::kPassed, UnitState::kUpToDate, UnitState::kFailed,
                                  UnitState::kRefused, UnitState::kNotStarted})
        counts[StateWord(state)] = 0;
    ordered_json units = ordered_json::array();
    for (const auto& unit : units_) {
        counts[StateWord(unit->state)] = counts.value(StateWord(unit->state), 0) + 1;
        ordered_json row = unit->Json(now);
        row["folder"] = unit->folder.string();
        units.push_back(std::move(row));
    }
    return {{"run", run_},          {"station", name_},
            {"started", startedAt_}, {"ended", UtcTimeNow()},
            {"folder", folder_.string()},
            {"usb_file", options_.recipe.usbFile}, {"mcu_file", options_.recipe.mcuFile},
            {"counts", counts},      {"units", units}};
}

void Station::WriteReports(const ordered_json& summary) {
    const std::string csv = SummaryCsv(summary);
    const std::string json = JsonText(summary, 2) + "\n";
    std::vector<std::string> files = {(folder_ / "summary.csv").string(),
                                      (folder_ / "summary.json").string()};
    files.insert(files.end(), options_.reports.begin(), options_.reports.end());
    for (const std::string& file : files) {
        const bool isCsv = std::filesystem::path(file).extension() == ".csv";
        const std::string& text = isCsv ? csv : json;
        try {
            WriteInPlace(file, std::vector<uint8_t>(text.begin(), text.end()));
        } catch (const ToolError& e) {
            view_.Note(std::string("korvtool: warning: the summary was not written: ") + e.what());
        }
    }
}

int Station::Run() {
    Prepare();
    StopGuard stops;
    view_.Begin({{"event", "run"}, {"run", run_}, {"station", name_}, {"folder", folder_.string()},
                 {"usb_file", options_.recipe.usbFile}, {"mcu_file", options_.recipe.mcuFile},
                 {"watch", options_.watch}},
                "Station " + name_ + ", run " + run_ + " (logs and summary in " + folder_.string() + ")");
    ScanUnits(true);
    if (units_.empty() && !options_.watch) {
        throw Failure("no capture device found: check that the units are plugged in and that "
                      "the DevIDNum and DevDrvID<n> entries of " + session_.SettingsName() +
                      " accept their VID and PID");
    }
    auto lastScan = Clock::now();
    int stopsSeen = 0;
    for (;;) {
        const auto now = Clock::now();
        if (g_stops != stopsSeen) {
            stopsSeen = g_stops;
            stopping_ = true;
            view_.Note("korvtool: stopping: no unit is started any more; the units being "
                       "written finish first (a write is never abandoned).");
        }
        bool retryWaiting = false;
        for (auto& unit : units_)
            if (unit->state == UnitState::kWaiting && unit->attempts > 0) retryWaiting = true;
        if (now - lastScan >= std::chrono::milliseconds(options_.watch ? 500 : 1000) ||
            retryWaiting) {
            ScanUnits(options_.watch && !stopping_);
            lastScan = now;
        }
        std::vector<ChildProcess*> running;
        for (auto& unit : units_) {
            if (unit->state == UnitState::kWaiting) {
                if (stopping_) {
                    unit->state = UnitState::kNotStarted;
                    unit->message = "the station was stopped before this unit started";
                } else if (unit->present) {
                    Start(*unit);
                }
            }
            if (unit->worker) {
                Supervise(*unit, now);
                if (unit->worker) running.push_back(unit->worker.get());
            }
        }
        view_.Redraw(Shown(), Heading(), false);
        bool busy = !running.empty();
        for (auto& unit : units_)
            if (unit->state == UnitState::kWaiting) busy = true;
        if (!busy && (!options_.watch || stopping_)) break;
        WaitForOutput(running, 100);
    }
    const ordered_json summary = Summary();
    view_.Redraw(Shown(), Heading(), true);
    WriteReports(summary);
    view_.End(summary, Shown());
    for (const auto& unit : units_)
        if (!Good(unit->state)) return kExitFailure;
    return kExitSuccess;
}

}  // namespace

std::string FileNamePart(const std::string& text) {
    std::string part;
    for (const char c : text) {
        const bool plain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') ||
                           (c >= 'a' && c <= 'z') || c == '-' || c == '_' || c == '.';
        part += plain ? c : '_';
    }
    if (part.empty() || part.find_first_not_of('.') == std::string::npos) part = "unit";
    return part;
}

int RunStation(Session& session, const StationOptions& options, DisplayMode mode) {
    for (const std::string& report : options.reports) {
        const std::string extension = std::filesystem::path(report).extension().string();
        if (extension != ".csv" && extension != ".json")
            throw UsageError("--report takes a *.csv or *.json file, not '" + report + "'");
    }
    if (options.recipe.usbFile.empty() && options.recipe.mcuFile.empty())
        throw UsageError("station needs --usb FILE, --mcu FILE or both");
    for (const std::string* file : {&options.recipe.usbFile, &options.recipe.mcuFile}) {
        std::error_code error;
        if (!file->empty() && !std::filesystem::is_regular_file(*file, error))
            throw UsageError("the image '" + *file + "' does not exist");
    }
    // A console that cannot move the cursor gets plain lines instead.
    if (mode == DisplayMode::kTerminal && !PrepareTerminal()) mode = DisplayMode::kLines;
    Station station(session, options, mode);
    return station.Run();
}

}  // namespace korvtool::station
