#include "fuzz_core.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace fuzz {

void Check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

void QuietCore(VideoConsoleCore::VideoConsoleCoreImp& core,
               const VideoConsoleCore::SettingsTable& settings) {
    // KORVSDK_FUZZ_VERBOSE=1 shows the library's messages, for looking into
    // one input; fuzzing runs silent.
    static const bool verbose = std::getenv("KORVSDK_FUZZ_VERBOSE") != nullptr;
    if (verbose) {
        core.SetDebugOutputHandler([](const char* text) { std::fputs(text, stderr); });
    } else {
        core.SetDebugOutputHandler([](const char*) {});
    }
    core.m_localLogging = false;
    core.m_settings = settings;
    core.m_initialized = true;
}

MemoryFile::MemoryFile(const char* name)
    : fd_(memfd_create(name, 0)), path_("/proc/self/fd/" + std::to_string(fd_)) {
    Check(fd_ >= 0, "memfd_create");
}

void MemoryFile::Resize(size_t size) {
    Check(ftruncate(fd_, 0) == 0 && ftruncate(fd_, static_cast<off_t>(size)) == 0, "ftruncate");
}

void MemoryFile::Write(size_t offset, const uint8_t* data, size_t length) {
    Check(pwrite(fd_, data, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length),
          "pwrite");
}

uint8_t InputReader::Byte() {
    if (left_ == 0) return 0;
    --left_;
    return *data_++;
}

uint16_t InputReader::Le16() {
    const uint8_t low = Byte();
    return static_cast<uint16_t>(low | Byte() << 8);
}

std::string InputReader::Text() { return Bytes(Byte()); }

std::string InputReader::Bytes(size_t count) {
    count = std::min(count, left_);
    std::string text(reinterpret_cast<const char*>(data_), count);
    data_ += count;
    left_ -= count;
    return text;
}

}  // namespace fuzz

// The fuzz build's platform sleep (linked with --wrap in place of the
// library's): the fuzzers' devices answer at once.
extern "C" void __wrap__ZN16VideoConsoleCore8platform17SleepMillisecondsEj(uint32_t) {}

// The light threads sleep in 10 ms slices (std::this_thread::sleep_for,
// which calls nanosleep inside libstdc++) and look at their orders after
// each; ending one waits for its slice to run out, so every run of the
// reply fuzzer waited about as long as it computed. The fuzzers' nanosleep
// sleeps at most 100 us: a light thread looks at its orders more often but
// keeps its timing, which it measures on the steady clock.
extern "C" int nanosleep(const struct timespec* request, struct timespec* remaining) {
    constexpr long kLongestNs = 100000;
    struct timespec capped = *request;
    if (capped.tv_sec > 0 || capped.tv_nsec > kLongestNs) {
        capped.tv_sec = 0;
        capped.tv_nsec = kLongestNs;
    }
    if (remaining != nullptr) *remaining = {};
    return static_cast<int>(syscall(SYS_nanosleep, &capped, nullptr));
}
