// korvtool station: one recipe (a USB flash image and/or a microcontroller
// program) run on every attached device of the accepted models at once.
//
// The station process scans and supervises; each unit runs in a worker
// process of its own (korvtool starting itself with the hidden command
// station-unit and --device LOCATION), so that one unit's fault, hang or
// crash never stops the others, and so that the library keeps its one
// selected device per process. A worker reports one JSON event per line on
// its standard output and writes its unit's record into the update history
// itself; the station records a worker that crashed or stopped reporting.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "progress.h"
#include "session.h"

namespace korvtool::station {

// What is written into each unit.
struct Recipe {
    std::string usbFile;    // *.hex, "" for none
    std::string mcuFile;    // *.bin, "" for none
    std::string backupDir;  // one backup of each written unit's USB flash; "" for none
    // Wait this long for each written unit's re-plug and confirm the
    // versions it runs; none: the unit passes when its writes completed.
    std::optional<int> waitReplugSeconds;
};

struct StationOptions {
    Recipe recipe;
    int retries = 0;               // further attempts for a failed unit still plugged in
    bool watch = false;            // keep running, start each unit as it is plugged in
    std::string stationName;       // "" = the host's name
    std::vector<std::string> reports;  // extra summary files, *.csv or *.json
    std::string runDir;            // "" = runs/<run id> beside the history
    int unitTimeoutSeconds = 120;  // a worker silent this long is stopped
    // How workers reach the settings: "--config" ABSOLUTE-PATH, "--virtual",
    // or nothing for ./setting.cfg.
    std::vector<std::string> settingsArguments;
    bool verbose = false;
};

// Runs the station until every unit has ended (with --watch: until Ctrl-C
// and then the units still writing). Returns the exit status: 0 when every
// unit passed or was up to date.
int RunStation(Session& session, const StationOptions& options, DisplayMode mode);

// The worker's side: the recipe on the unit at `location`.
struct UnitJob {
    std::string location;
    Recipe recipe;
    std::string run;      // run id
    std::string station;  // station name
    int attempt = 1;
};

// Runs `job` in this process, printing its events as JSON lines on
// standard output and adding its record to the history. Returns the exit
// status: 0 passed or up to date, 1 failed.
int RunStationUnit(Session& session, const UnitJob& job);

// A serial number or location as part of a file name: letters, digits,
// '-', '_' and '.' kept, anything else (a path separator above all) '_'.
std::string FileNamePart(const std::string& text);

// The host's name, for the default station name ("station" when unknown).
std::string HostName();

}  // namespace korvtool::station
