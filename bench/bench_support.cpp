#include "bench_support.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace korvbench {

double MsSince(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

int Fail(const char* what) {
    std::fprintf(stderr, "bench: %s\n", what);
    return 1;
}

ScratchFolder::ScratchFolder(const std::string& settings) {
    char folder[] = "/tmp/korvsdk-bench-XXXXXX";
    if (mkdtemp(folder) == nullptr || chdir(folder) != 0) return;
    path_ = folder;
    std::ofstream cfg("setting.cfg");
    cfg << settings;
    ok_ = static_cast<bool>(cfg);
}

ScratchFolder::~ScratchFolder() {
    if (path_.empty()) return;
    // What the run may have left: the setting file, and the image beside
    // the folder (".hex" or ".bin").
    std::remove((path_ + "/setting.cfg").c_str());
    std::remove((path_ + ".hex").c_str());
    std::remove((path_ + ".bin").c_str());
    if (chdir("/tmp") == 0) rmdir(path_.c_str());
}

long StatusKib(const char* key) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const size_t n = std::strlen(key);
    while (std::getline(status, line))
        if (line.compare(0, n, key) == 0 && line.size() > n && line[n] == ':')
            return std::strtol(line.c_str() + n + 1, nullptr, 10);
    return -1;
}

bool ResetPeakRss() {
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    clear.flush();
    return static_cast<bool>(clear);
}

std::map<std::string, double> SpawnRun(const std::string& self, const std::string& arguments) {
    std::map<std::string, double> values;
    FILE* pipe = popen(("'" + self + "' --run " + arguments).c_str(), "r");
    if (pipe == nullptr) return values;
    char line[1024] = {};
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        if (std::strncmp(line, "run ", 4) != 0) continue;
        values.clear();
        std::istringstream fields(line + 4);
        std::string field;
        while (fields >> field) {
            const size_t eq = field.find('=');
            if (eq != std::string::npos)
                values[field.substr(0, eq)] = std::strtod(field.c_str() + eq + 1, nullptr);
        }
    }
    if (pclose(pipe) != 0) values.clear();
    return values;
}

std::vector<RunValues> RunSorted(const std::string& self, const std::string& arguments, int reps,
                                 const std::string& name) {
    std::vector<RunValues> runs;
    for (int i = 0; i < reps; ++i) {
        RunValues run = SpawnRun(self, arguments);
        if (run.empty()) {
            std::fprintf(stderr, "bench: case %s: a run failed\n", name.c_str());
            return {};
        }
        runs.push_back(std::move(run));
    }
    std::sort(runs.begin(), runs.end(),
              [](RunValues& a, RunValues& b) { return a["wall_ms"] < b["wall_ms"]; });
    return runs;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0.0 : values[values.size() / 2];
}

void PrintRatioLine(const char* name, uint32_t latencyMs, double transfers, double wallMs,
                    double floorMs) {
    std::printf("bench case=%s latency_ms=%u transfers=%.0f wall_ms=%.2f floor_ms=%.2f "
                "ratio=%.4f\n",
                name, latencyMs, transfers, wallMs, floorMs, wallMs / floorMs);
    std::fflush(stdout);
}

}  // namespace korvbench
