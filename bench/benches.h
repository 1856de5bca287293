// The benchmark's cases. Run*: one run in this process, printing one
// "run key=value ..." line; Drive*: the runs of every case, each in a child
// process, printing the "bench ..." lines. Drive* return their failed runs.
#pragma once

#include <cstdint>
#include <string>

namespace korvbench {

int RunUsbUpdate(bool firmwareArea, uint32_t latencyMs);
int DriveUsbUpdate(const std::string& self, int reps);

int RunMcuUpdate(uint32_t imageBytes, bool realisticBusy, uint32_t latencyMs);
int DriveMcuUpdate(const std::string& self, int reps);

// Lateness and CPU time of the device waits (waits_bench.cpp).
int DriveWaits();

// Eight units updated at once by korvtool's station against one alone
// (station_bench.cpp). `korvtool` is the program's path.
int DriveStation(const std::string& korvtool, int reps);

}  // namespace korvbench
