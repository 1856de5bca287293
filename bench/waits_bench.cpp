// Benchmark of the device waits: how late a wait ends and what CPU it takes,
// for the library's wait (platform::SleepMilliseconds) against the ways
// waits were or could be made, with one thread waiting and with eight at
// once (eight units of a station, on however many cores there are). One
// line per method, thread count and wait length:
//
//   bench case=waits method=M threads=T wait_ms=W waits=N late_mean_us=A late_p99_us=P late_max_us=X cpu_us_per_wait=C
//
// M  library: platform::SleepMilliseconds as it is now.
//    spin_tail: the former library wait, a sleep to 0.3 ms before the
//    deadline and a spin for the rest.
//    sleep: one clock_nanosleep to the deadline, nothing else.
//    spin: a spin for the whole wait (the former virtual bus's 1 ms
//    transfer).
// N  waits over all threads; A, P, X: how long after the deadline the waits
//    ended (mean, 99th percentile, largest), in microseconds; C: CPU time of
//    the waiting threads divided by N. Every thread runs with the timer
//    slack the library's own threads have (none).
#include <sys/prctl.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "benches.h"
#include "platform/platform.h"

namespace korvbench {
namespace {

int64_t Now(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec;
}

void SleepUntil(int64_t at) {
    const timespec wake{static_cast<time_t>(at / 1000000000), static_cast<long>(at % 1000000000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &wake, nullptr) == EINTR) {
    }
}

void SpinUntil(int64_t at) {
    while (Now(CLOCK_MONOTONIC) < at) {
    }
}

enum class Method { kLibrary, kSpinTail, kSleep, kSpin };

void WaitOnce(Method method, uint32_t ms, int64_t deadline) {
    switch (method) {
        case Method::kLibrary:
            VideoConsoleCore::platform::SleepMilliseconds(ms);
            break;
        case Method::kSpinTail:
            SleepUntil(deadline - 300000);
            SpinUntil(deadline);
            break;
        case Method::kSleep:
            SleepUntil(deadline);
            break;
        case Method::kSpin:
            SpinUntil(deadline);
            break;
    }
}

struct ThreadResult {
    std::vector<int64_t> lateNs;
    int64_t cpuNs = 0;
};

void WaitMany(Method method, uint32_t ms, int count, ThreadResult& out) {
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);  // as the library's threads
    out.lateNs.reserve(static_cast<size_t>(count));
    const int64_t cpuStart = Now(CLOCK_THREAD_CPUTIME_ID);
    for (int i = 0; i < count; ++i) {
        const int64_t start = Now(CLOCK_MONOTONIC);
        const int64_t deadline = start + int64_t{ms} * 1000000;
        WaitOnce(method, ms, deadline);
        out.lateNs.push_back(Now(CLOCK_MONOTONIC) - deadline);
    }
    out.cpuNs = Now(CLOCK_THREAD_CPUTIME_ID) - cpuStart;
}

}  // namespace

int DriveWaits() {
    struct Named {
        Method method;
        const char* name;
    };
    const Named methods[] = {{Method::kLibrary, "library"},
                             {Method::kSpinTail, "spin_tail"},
                             {Method::kSleep, "sleep"},
                             {Method::kSpin, "spin"}};
    int failures = 0;
    for (const int threads : {1, 8}) {
        for (const uint32_t ms : {1u, 2u, 10u}) {
            // About a third of a second of waiting per thread and length.
            const int count = static_cast<int>(300 / ms);
            for (const Named& m : methods) {
                std::vector<ThreadResult> results(static_cast<size_t>(threads));
                std::vector<std::thread> running;
                for (auto& r : results)
                    running.emplace_back(WaitMany, m.method, ms, count, std::ref(r));
                for (auto& t : running) t.join();
                std::vector<int64_t> late;
                int64_t cpu = 0;
                for (auto& r : results) {
                    late.insert(late.end(), r.lateNs.begin(), r.lateNs.end());
                    cpu += r.cpuNs;
                }
                std::sort(late.begin(), late.end());
                double sum = 0;
                for (const int64_t l : late) sum += static_cast<double>(l);
                const double n = static_cast<double>(late.size());
                if (late.front() < 0) {
                    std::fprintf(stderr, "bench: method %s ended a %u ms wait early\n", m.name, ms);
                    ++failures;
                }
                std::printf("bench case=waits method=%s threads=%d wait_ms=%u waits=%zu "
                            "late_mean_us=%.1f late_p99_us=%.1f late_max_us=%.1f "
                            "cpu_us_per_wait=%.1f\n",
                            m.name, threads, ms, late.size(), sum / n / 1000.0,
                            static_cast<double>(late[late.size() * 99 / 100]) / 1000.0,
                            static_cast<double>(late.back()) / 1000.0,
                            static_cast<double>(cpu) / n / 1000.0);
                std::fflush(stdout);
            }
        }
    }
    return failures;
}

}  // namespace korvbench
