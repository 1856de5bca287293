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

}  // namespace korvbench
