// korvsdk_bench [--reps N] [usb|mcu|waits|station]
//
// Benchmarks of the firmware updates on the virtual capture device (see
// usb_update_bench.cpp, mcu_update_bench.cpp, waits_bench.cpp and
// station_bench.cpp for what each line means). Without a case name all run. "--run ..." is one run, in a child process.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench_support.h"
#include "benches.h"

int main(int argc, char** argv) {
    using namespace korvbench;
    if (argc == 5 && std::strcmp(argv[1], "--run") == 0 && std::strcmp(argv[2], "usb") == 0)
        return RunUsbUpdate(std::strcmp(argv[3], "firmware") == 0,
                            static_cast<uint32_t>(std::strtoul(argv[4], nullptr, 10)));
    if (argc == 6 && std::strcmp(argv[1], "--run") == 0 && std::strcmp(argv[2], "mcu") == 0)
        return RunMcuUpdate(static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 10)),
                            std::strcmp(argv[4], "realistic") == 0,
                            static_cast<uint32_t>(std::strtoul(argv[5], nullptr, 10)));

    int reps = 3;
    std::string only;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--reps") == 0 && i + 1 < argc) {
            reps = std::max(1, std::atoi(argv[++i]));
        } else if (std::strcmp(argv[i], "usb") == 0 || std::strcmp(argv[i], "mcu") == 0 ||
                   std::strcmp(argv[i], "waits") == 0 || std::strcmp(argv[i], "station") == 0) {
            only = argv[i];
        } else {
            std::fprintf(stderr, "usage: %s [--reps N] [usb|mcu|waits|station]\n", argv[0]);
            return 2;
        }
    }
    char self[4096] = {};
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return Fail("cannot find the program's own path");
    const std::string program(self, static_cast<size_t>(n));
    int failures = 0;
    if (only.empty() || only == "usb") failures += DriveUsbUpdate(program, reps);
    if (only.empty() || only == "mcu") failures += DriveMcuUpdate(program, reps);
    if (only.empty() || only == "waits") failures += DriveWaits();
    // korvtool is built beside the benchmark (scripts/bench.sh).
    if (only.empty() || only == "station")
        failures += DriveStation(program.substr(0, program.rfind('/') + 1) + "korvtool", reps);
    return failures == 0 ? 0 : 1;
}
