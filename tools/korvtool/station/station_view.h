// What a station shows while it runs and what it leaves: the units' rows
// (a live table redrawn in place on a terminal, a plain line per event
// otherwise, one JSON event per line with --json) and the run's summary
// (CSV and JSON).
#pragma once

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "progress.h"

namespace korvtool::station {

enum class UnitState { kWaiting, kRunning, kPassed, kUpToDate, kFailed, kRefused, kNotStarted };

// "waiting", "running", "pass", "up to date", "fail", "refused", "not started".
const char* StateWord(UnitState state);
bool Final(UnitState state);
bool Good(UnitState state);  // passed or up to date

// One unit as the station knows it.
struct UnitRow {
    std::string location;
    std::string serial;
    std::string vidPid;
    std::string model;
    UnitState state = UnitState::kWaiting;
    std::string step;     // the worker's step now ("check", "usb", ...)
    std::string phase;    // the update's phase ("Writing", ...)
    double percent = 0;
    std::string message;  // why it failed, or how it ended
    std::string usbBefore, usbAfter, mcuBefore, mcuAfter;
    nlohmann::ordered_json steps = nlohmann::ordered_json::array();
    int attempts = 0;
    bool present = true;  // seen in the last scan
    std::chrono::steady_clock::time_point started, ended;

    double Seconds(std::chrono::steady_clock::time_point now) const;
    // The row as a summary record.
    nlohmann::ordered_json Json(std::chrono::steady_clock::time_point now) const;
};

class StationView {
public:
    StationView(DisplayMode mode, FILE* out);

    // The run's first words.
    void Begin(const nlohmann::ordered_json& run, const std::string& text);
    // An event of a unit: in JSON mode printed with the unit's location and
    // serial first; as a line when `text` is not empty in line mode.
    void UnitEvent(const UnitRow& unit, const nlohmann::ordered_json& event,
                   const std::string& text);
    // A line of the station's own (a note, a warning), in every mode.
    void Note(const std::string& text);
    // The table again (terminal only; at most a few times a second unless
    // `now` is true).
    void Redraw(const std::vector<const UnitRow*>& rows, const std::string& heading, bool force);
    // The end: the summary record as one event, or its table as lines.
    void End(const nlohmann::ordered_json& summary, const std::vector<const UnitRow*>& rows);

private:
    std::string Table(const std::vector<const UnitRow*>& rows) const;

    DisplayMode mode_;
    FILE* out_;
    int drawnLines_ = 0;
    std::chrono::steady_clock::time_point lastDraw_{};
};

// The summary as CSV: a header line, then one line per unit, cells as the
// history's CSV has them.
std::string SummaryCsv(const nlohmann::ordered_json& summary);

}  // namespace korvtool::station
