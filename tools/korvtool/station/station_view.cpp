#include "station_view.h"

#include <algorithm>
#include <cmath>

#include "history.h"
#include "safe_text.h"

namespace korvtool::station {

using nlohmann::ordered_json;

const char* StateWord(UnitState state) {
    switch (state) {
        case UnitState::kWaiting: return "waiting";
        case UnitState::kRunning: return "running";
        case UnitState::kPassed: return "pass";
        case UnitState::kUpToDate: return "up to date";
        case UnitState::kFailed: return "fail";
        case UnitState::kRefused: return "refused";
        case UnitState::kNotStarted: return "not started";
    }
    return "?";
}

bool Final(UnitState state) {
    return state != UnitState::kWaiting && state != UnitState::kRunning;
}

bool Good(UnitState state) { return state == UnitState::kPassed || state == UnitState::kUpToDate; }

double UnitRow::Seconds(std::chrono::steady_clock::time_point now) const {
    if (attempts == 0) return 0;
    const auto end = Final(state) ? ended : now;
    return std::round(std::chrono::duration<double>(end - started).count() * 10.0) / 10.0;
}

ordered_json UnitRow::Json(std::chrono::steady_clock::time_point now) const {
    return {{"location", location}, {"serial", serial},       {"vid_pid", vidPid},
            {"model", model},       {"result", StateWord(state)}, {"attempts", attempts},
            {"usb_before", usbBefore}, {"usb_after", usbAfter}, {"mcu_before", mcuBefore},
            {"mcu_after", mcuAfter}, {"seconds", Seconds(now)}, {"steps", steps},
            {"message", message}};
}

StationView::StationView(DisplayMode mode, FILE* out) : mode_(mode), out_(out) {}

void StationView::Begin(const ordered_json& run, const std::string& text) {
    if (mode_ == DisplayMode::kJson) {
        std::fprintf(out_, "%s\n", JsonText(run).c_str());
    } else {
        std::fprintf(out_, "%s\n", Printable(text).c_str());
    }
    std::fflush(out_);
}

void StationView::UnitEvent(const UnitRow& unit, const ordered_json& event,
                            const std::string& text) {
    if (mode_ == DisplayMode::kJson) {
        ordered_json line = {{"event", event.value("event", "")},
                             {"location", unit.location},
                             {"serial", unit.serial}};
        for (const auto& [key, value] : event.items())
            if (key != "event" && key != "location" && key != "serial") line[key] = value;
        std::fprintf(out_, "%s\n", JsonText(line).c_str());
        std::fflush(out_);
    } else if (mode_ == DisplayMode::kLines && !text.empty()) {
        std::fprintf(out_, "%s %s: %s\n", Printable(unit.location).c_str(),
                     Printable(unit.serial.empty() ? "-" : unit.serial).c_str(),
                     Printable(text).c_str());
        std::fflush(out_);
    }
}

void StationView::Note(const std::string& text) {
    if (mode_ == DisplayMode::kTerminal && drawnLines_ > 0) {
        // Above the table: the table is drawn again below the note.
        std::fprintf(out_, "\x1b[%dF\x1b[J", drawnLines_);
        drawnLines_ = 0;
    }
    std::fprintf(mode_ == DisplayMode::kJson ? stderr : out_, "%s\n", Printable(text).c_str());
    std::fflush(mode_ == DisplayMode::kJson ? stderr : out_);
}

namespace {

std::string Cell(std::string text, size_t width) {
    if (text.size() > width) text = text.substr(0, width - 1) + "~";
    text.resize(width, ' ');
    return text;
}

}  // namespace

std::string StationView::Table(const std::vector<const UnitRow*>& rows) const {
    const auto now = std::chrono::steady_clock::now();
    std::string text = Cell("LOCATION", 12) + Cell("SERIAL", 18) + Cell("STEP", 8) +
                       Cell("PROGRESS", 30) + Cell("RESULT", 12) + "TIME\n";
    for (const UnitRow* row : rows) {
        std::string progress;
        if (row->state == UnitState::kRunning && !row->phase.empty()) {
            char percent[16];
            std::snprintf(percent, sizeof percent, " %3.0f%%", row->percent);
            progress = Bar(row->percent, 20) + percent;
        }
        std::string result = StateWord(row->state);
        if (row->attempts > 1) result += " #" + std::to_string(row->attempts);
        text += Cell(Printable(row->location), 12) + Cell(Printable(row->serial), 18) +
                Cell(row->state == UnitState::kRunning ? row->step : "", 8) + Cell(progress, 30) +
                Cell(result, 12) + Duration(row->Seconds(now)) + "\n";
        if ((row->state == UnitState::kFailed || row->state == UnitState::kRefused) &&
            !row->message.empty())
            text += "    " + Cell(Printable(row->message), 96) + "\n";
    }
    return text;
}

void StationView::Redraw(const std::vector<const UnitRow*>& rows, const std::string& heading,
                         bool force) {
    if (mode_ != DisplayMode::kTerminal) return;
    const auto now = std::chrono::steady_clock::now();
    if (!force && now - lastDraw_ < std::chrono::milliseconds(200)) return;
    lastDraw_ = now;
    std::string text = Printable(heading) + "\n" + Table(rows);
    // Back to the table's first line, clear to the end of the screen,
    // draw it anew.
    if (drawnLines_ > 0) std::fprintf(out_, "\x1b[%dF\x1b[J", drawnLines_);
    std::fputs(text.c_str(), out_);
    std::fflush(out_);
    drawnLines_ = static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

void StationView::End(const ordered_json& summary, const std::vector<const UnitRow*>& rows) {
    if (mode_ == DisplayMode::kJson) {
        ordered_json event = {{"event", "summary"}};
        event.update(summary);
        std::fprintf(out_, "%s\n", JsonText(event).c_str());
        std::fflush(out_);
        return;
    }
    if (mode_ == DisplayMode::kLines) std::fputs(Table(rows).c_str(), out_);
    const ordered_json& counts = summary["counts"];
    std::string line = "Run " + summary.value("run", "") + ": " +
                       std::to_string(summary["units"].size()) + " units";
    for (const auto& [word, count] : counts.items())
        if (count.get<int>() > 0) line += ", " + std::to_string(count.get<int>()) + " " + word;
    std::fprintf(out_, "%s\nSummary and logs: %s\n", Printable(line).c_str(),
                 Printable(summary.value("folder", "")).c_str());
    std::fflush(out_);
}

std::string SummaryCsv(const ordered_json& summary) {
    static const char* const kColumns[] = {"run", "station", "location", "serial", "vid_pid",
                                           "model", "result", "attempts", "usb_before",
                                           "usb_after", "mcu_before", "mcu_after", "seconds",
                                           "message"};
    const auto cell = [](const ordered_json& value) {
        return CsvCell(value.is_string() ? value.get<std::string>()
                       : value.is_null() ? std::string()
                                         : value.dump());
    };
    std::string text;
    for (const char* column : kColumns) text += std::string(text.empty() ? "" : ",") + column;
    text += "\r\n";
    for (const ordered_json& unit : summary["units"]) {
        std::string line;
        for (const char* column : kColumns) {
            const std::string key = column;
            const ordered_json& value =
                key == "run" || key == "station" ? summary[key] : unit.value(key, ordered_json());
            line += std::string(line.empty() && column == kColumns[0] ? "" : ",") + cell(value);
        }
        text += line + "\r\n";
    }
    return text;
}

}  // namespace korvtool::station
