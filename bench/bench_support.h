// What the update benchmarks share: the scratch folder and setting file a
// run works in, the process's memory figures, and the driver's side of a
// run (a child process of its own that prints one "run key=value ..." line).
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace korvbench {

using Clock = std::chrono::steady_clock;

double MsSince(Clock::time_point from, Clock::time_point to);

// Prints "bench: <what>" to standard error and returns 1 (a failed run).
int Fail(const char* what);

// A fresh folder under /tmp made the working directory, with `settings` as
// its setting.cfg; removed again with what the run left in it.
class ScratchFolder {
public:
    explicit ScratchFolder(const std::string& settings);
    ~ScratchFolder();
    bool ok() const { return ok_; }
    // A path beside the folder, not in it: the library's start-up scan
    // takes firmware files from the working folder.
    std::string Beside(const char* suffix) const { return path_ + suffix; }

private:
    std::string path_;
    bool ok_ = false;
};

// A "Key:   value kB" line of /proc/self/status, in KiB; -1 when missing.
long StatusKib(const char* key);
// Resets the peak resident set (VmHWM) to the current one.
bool ResetPeakRss();

// Runs this program again with `arguments` and parses the last "run ..."
// line it prints into key -> value. Empty when the run failed.
std::map<std::string, double> SpawnRun(const std::string& self, const std::string& arguments);

using RunValues = std::map<std::string, double>;

// Runs the case `reps` times (each SpawnRun) and returns the runs sorted by
// their wall time, the median one at size() / 2. Empty, with a message
// naming `name`, when a run failed.
std::vector<RunValues> RunSorted(const std::string& self, const std::string& arguments, int reps,
                                 const std::string& name);

// The median of `values` (the upper one of an even count).
double Median(std::vector<double> values);

// Prints the first benchmark line.
void PrintRatioLine(const char* name, uint32_t latencyMs, double transfers, double wallMs,
                    double floorMs);

}  // namespace korvbench
