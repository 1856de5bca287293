// What korvtool shows while a firmware update runs: the library's progress
// records turned into a phase word, a bar, the percentage, a rate and the
// time left. Redrawn in place on a terminal, printed as plain lines
// otherwise, or written as one JSON event per line. Library messages and
// korvtool's own notes go through the display, so that they never cut a
// bar in half. Safe to call from the library's update thread and the main
// thread at once.
#pragma once

#include <chrono>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace korvtool {

enum class DisplayMode { kTerminal, kLines, kJson };

// The phase word for a firmware-update record (state and message as the
// library sends them), or "" for a record that is not about progress.
// `mcu`: the update programs the microcontroller rather than the flash.
std::string PhaseOf(const std::string& state, const std::string& message, bool mcu);

// "[#########...........]": `width` cells, filled in proportion to
// `percent` (0 to 100, clamped).
std::string Bar(double percent, int width);

// "1:05" (minutes and seconds), "1:02:05" from an hour on.
std::string Duration(double seconds);

class ProgressDisplay {
public:
    // `out` gets the bar or the events; notes go to `err` (the same file on
    // a terminal keeps them in order with the bar).
    ProgressDisplay(DisplayMode mode, FILE* out, FILE* err);

    // One event before the update: what is written, and to which device.
    void Start(const nlohmann::ordered_json& details);
    // `phaseBytes`: how many bytes the phase moves, when known (for the rate).
    void Progress(const std::string& phase, double percent, std::optional<double> phaseBytes);
    // A step of korvtool's own (the wait for a re-plug): `event` as one
    // JSON line, else `text` as a line of standard output.
    void Event(const nlohmann::ordered_json& event, const std::string& text);
    // A line that is not the bar (a library message, a warning).
    void Note(const std::string& line);
    // The end: the library's final state word and message.
    void End(bool ok, const std::string& state, const std::string& message);

private:
    void ClearBar();   // caller holds mutex_
    void DrawBar();    // caller holds mutex_
    void Emit(const nlohmann::ordered_json& event);  // caller holds mutex_

    std::mutex mutex_;
    DisplayMode mode_;
    FILE* out_;
    FILE* err_;
    std::string phase_;
    double percent_ = 0;
    std::chrono::steady_clock::time_point phaseStart_;
    std::optional<double> rate_;     // bytes per second
    std::optional<double> left_;     // seconds
    size_t drawn_ = 0;               // characters of the bar on screen
    int lastLineStep_ = -1;          // plain lines: last 10 % step printed
};

}  // namespace korvtool
