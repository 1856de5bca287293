// Benchmark of a production station: eight virtual units, 1 ms per
// transfer, each given a firmware-area USB update and a 4 KiB
// microcontroller update by korvtool at once, against one unit alone given
// the same. Every korvtool is a child process; the wall time is the
// station's, the CPU time that of every process it ran (getrusage of the
// children, which counts theirs too). Per count the run with the median
// wall time is taken:
//
//   bench case=station mode=M units=8 wall_8_ms=W8 wall_1_ms=W1 ratio=R cpu_per_unit_ms=C cpu_1_ms=C1 within_1_10=yes|no
//
// M  station: `korvtool --config S --json station --usb F.hex --mcu F.bin`
//    (every unit in a worker process of its own).
//    per_unit: korvtool has no station command; every unit gets a process
//    of its own here that runs `korvtool --config S --device SERIAL update
//    usb F.hex`, then `... update mcu F.bin`, all units at once.
// R  W8 / W1; the station keeps up when R <= 1.10.
// C  CPU time of the eight-unit run divided by 8; C1 that of the one.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench_support.h"
#include "benches.h"

namespace korvbench {
namespace {

constexpr int kUnits = 8;

std::string Serial(int n) {
    char text[16];
    std::snprintf(text, sizeof text, "VC%08d", n + 1);
    return text;
}

std::string Settings(int units) {
    std::string text =
        "EnableLocalLogging=0\nDeviceBackend=virtual\nDevIDNum=1\n"
        "DevDrvID0=USB\\VID_FFF0&PID_0C01\nFW_Overwrite=0\nUSB_Burn_Area=1\n"
        "VirtualDeviceCount=" + std::to_string(units) + "\n";
    for (int n = 0; n < units; ++n) {
        const std::string p = "Virtual" + std::to_string(n) + "_";
        text += p + "Serial=" + Serial(n) + "\n" + p + "LatencyMs=1\n";
    }
    return text;
}

// Runs `arguments` as a child process with its output thrown away; its exit
// status, or -1 when it could not run.
int RunQuiet(const std::vector<std::string>& arguments) {
    const pid_t child = fork();
    if (child < 0) return -1;
    if (child == 0) {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null >= 0) {
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
        }
        std::vector<char*> argv;
        for (const std::string& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

double CpuMs(const rusage& u) {
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) * 1000.0 +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1000.0;
}

// Whether korvtool's help lists a station command.
bool HasStationCommand(const std::string& korvtool) {
    FILE* help = popen(("'" + korvtool + "' --help 2>/dev/null").c_str(), "r");
    if (help == nullptr) return false;
    bool found = false;
    char line[512];
    while (std::fgets(line, sizeof line, help) != nullptr) {
        const char* word = line + std::strspn(line, " ");
        if (word != line && std::strncmp(word, "station ", 8) == 0) found = true;
    }
    pclose(help);
    return found;
}

struct Files {
    std::string korvtool, hex, bin;
};

// One station run over the units of `settings`: its wall and CPU time (the
// CPU time of the children waited for in it). False when a unit failed.
bool RunStation(const Files& f, const std::string& settings, int units, bool haveStation,
                double& wallMs, double& cpuMs) {
    rusage before{};
    getrusage(RUSAGE_CHILDREN, &before);
    const Clock::time_point start = Clock::now();
    bool ok = true;
    if (haveStation) {
        ok = RunQuiet({f.korvtool, "--config", settings, "--json", "station", "--usb", f.hex,
                       "--mcu", f.bin}) == 0;
    } else {
        std::vector<pid_t> workers;
        for (int n = 0; n < units; ++n) {
            const pid_t worker = fork();
            if (worker == 0) {
                const std::string serial = Serial(n);
                const bool done =
                    RunQuiet({f.korvtool, "--config", settings, "--device", serial, "update",
                              "usb", f.hex}) == 0 &&
                    RunQuiet({f.korvtool, "--config", settings, "--device", serial, "update",
                              "mcu", f.bin}) == 0;
                _exit(done ? 0 : 1);
            }
            if (worker < 0) ok = false;
            else workers.push_back(worker);
        }
        for (const pid_t worker : workers) {
            int status = 0;
            while (waitpid(worker, &status, 0) < 0) {
            }
            ok = ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        }
    }
    wallMs = MsSince(start, Clock::now());
    rusage after{};
    getrusage(RUSAGE_CHILDREN, &after);
    cpuMs = CpuMs(after) - CpuMs(before);
    return ok;
}

}  // namespace

int DriveStation(const std::string& korvtool, int reps) {
    char folder[] = "/tmp/korvsdk-station-XXXXXX";
    if (mkdtemp(folder) == nullptr) return Fail("no scratch folder");
    const std::string dir = folder;
    // The children work in a folder of their own (the library takes firmware
    // files from its working folder at start) and keep their history there.
    const std::string work = dir + "/work";
    const Files f{korvtool, dir + "/usb.hex", dir + "/mcu.bin"};
    const std::string settings8 = dir + "/station8.cfg", settings1 = dir + "/station1.cfg";
    std::ofstream(settings8) << Settings(kUnits);
    std::ofstream(settings1) << Settings(1);
    const std::string history = dir + "/history";
    setenv("KORVTOOL_HISTORY", history.c_str(), 1);

    int failures = 0;
    char here[4096] = {};
    const bool haveHere = getcwd(here, sizeof here) != nullptr;
    if (mkdir(work.c_str(), 0700) != 0 || chdir(work.c_str()) != 0 ||
        RunQuiet({korvtool, "make-image", "usb", f.hex}) != 0 ||
        RunQuiet({korvtool, "make-image", "mcu", "--size", "4096", f.bin}) != 0) {
        failures = Fail("cannot run korvtool make-image (is korvtool built beside the benchmark?)");
    } else {
        const bool haveStation = HasStationCommand(korvtool);
        std::vector<double> wall8, cpu8, wall1, cpu1;
        for (int i = 0; i < reps && failures == 0; ++i) {
            double w = 0, c = 0;
            if (!RunStation(f, settings8, kUnits, haveStation, w, c)) {
                failures = Fail("case station: a unit of eight failed");
                break;
            }
            wall8.push_back(w);
            cpu8.push_back(c);
            if (!RunStation(f, settings1, 1, haveStation, w, c)) {
                failures = Fail("case station: the unit alone failed");
                break;
            }
            wall1.push_back(w);
            cpu1.push_back(c);
        }
        if (failures == 0) {
            // The median run of each count, CPU time with its wall time.
            const auto median = [](const std::vector<double>& wall, const std::vector<double>& cpu,
                                   double& w, double& c) {
                size_t best = 0;
                const double mid = Median(wall);
                for (size_t i = 0; i < wall.size(); ++i)
                    if (wall[i] == mid) best = i;
                w = wall[best];
                c = cpu[best];
            };
            double w8 = 0, c8 = 0, w1 = 0, c1 = 0;
            median(wall8, cpu8, w8, c8);
            median(wall1, cpu1, w1, c1);
            std::printf("bench case=station mode=%s units=%d wall_8_ms=%.1f wall_1_ms=%.1f "
                        "ratio=%.4f cpu_per_unit_ms=%.1f cpu_1_ms=%.1f within_1_10=%s\n",
                        haveStation ? "station" : "per_unit", kUnits, w8, w1, w8 / w1,
                        c8 / kUnits, c1, w8 / w1 <= 1.10 ? "yes" : "no");
            std::fflush(stdout);
        }
    }
    if (haveHere && chdir(here) != 0) failures += Fail("cannot go back to the working folder");
    std::error_code error;
    std::filesystem::remove_all(dir, error);
    if (error) failures += Fail("cannot remove the scratch folder");
    return failures;
}

}  // namespace korvbench
