// Benchmark of the USB firmware update on the virtual capture device. Each
// case runs several times, every run in a process of its own (the library
// keeps process-wide state, and a peak-RSS reading is only clean in a fresh
// process); per case the run with the median wall time is printed:
//
//   bench case=NAME latency_ms=L transfers=N wall_ms=W floor_ms=F ratio=R
//
// and, for L = 0, a second line with the host cost of a data report, a
// plain memcpy of the same size, the peak RSS rise and the image size:
//
//   bench case=NAME host_us_per_data_report=H memcpy_us_per_report=M peak_rss_rise_mib=P image_mib=I device_pages_mib=D library_rise_mib=B library_within_image_plus_1=yes|no
//
// N  report transfers of the update, as the virtual device counted them.
// W  wall time from the start call to the end of the writer thread.
// F  what the update cannot go below: N x L plus the waits the updater
//    keeps for the device (kDeviceWaitsMs).
// H  the time spent inside the two burst phases (write, compare), divided
//    by the data reports they sent. A phase is timed between two debugger
//    texts the library writes on the writer thread: "USB firmware is
//    updating.." (before the first data report) to "FlashWrite -- Transfer
//    ... bytes" (after the last), and "USB firmware is verify.." to
//    "FlashWrite -- Compare data OK.". It covers everything done per report:
//    the library's buffers and HID layer, the virtual device's side, the
//    activity light and the progress records. (In the firmware-area case the
//    compare phase also holds the 4 KiB write of the boot configuration
//    word, two data reports and four command reports more.)
// M  a plain 4 KiB memcpy, streaming through an image-sized buffer as the
//    updater does, for comparison.
// P  the peak RSS rise from just before the file is set (the set reads it
//    into the buffer the update re-reads it into) to the end of the writer:
//    the peak mark is reset first (/proc/self/clear_refs), then VmHWM after
//    the run minus VmRSS before it (after malloc_trim, so that memory freed
//    earlier does not hide what the update takes). It holds the virtual
//    device's flash too: its pages are shared until written, so every 4 KiB
//    the update writes is a new page of the device's.
// D  what those new pages take (4 KiB each), from the flash's own count.
// B  the library's own rise: P - D, the largest over the runs; it should
//    stay within the image size plus 1 MiB (the last field says whether it
//    does).
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench_support.h"
#include "benches.h"
#include "core/VideoConsoleCoreImp.h"
#include "discovery/device_list.h"
#include "firmware/lights.h"
#include "firmware/update_common.h"
#include "virtual/device/usb_image.h"
#include "virtual/device/virtual_hid_backend.h"

namespace korvbench {
namespace {

namespace vc = VideoConsoleCore;
namespace vd = VideoConsoleCore::virtualdev;

// The waits the updater keeps for the device on a board without an RGB
// light: 4 ms after the flash identification (hid/flash_identification.cpp),
// 86 ms and 46 ms at the end of the writer (firmware/usb_update.cpp).
constexpr double kDeviceWaitsMs = 4 + 86 + 46;

constexpr uint32_t kReportBytes = 4096;  // data chunk of the default device

// ---- One run (child process) -------------------------------------------

// Timestamps of the burst phases, taken from the library's debugger texts
// on the writer thread. Only plain stores: the handler runs on that thread
// while the main thread waits in the join.
struct PhaseMarks {
    Clock::time_point writeStart, writeEnd, verifyStart, verifyEnd;
    uint32_t writtenBytes = 0;
    int seen = 0;  // bit per mark
};
PhaseMarks g_marks;
std::atomic<bool> g_completed{false};

bool StartsWith(const char* text, const char* prefix) {
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

void OnDebugText(const char* text) {
    const Clock::time_point now = Clock::now();
    if (std::strcmp(text, "USB firmware is updating..\n") == 0) {
        g_marks.writeStart = now;
        g_marks.seen |= 1;
    } else if (StartsWith(text, "FlashWrite -- Transfer ")) {
        g_marks.writeEnd = now;
        g_marks.writtenBytes = static_cast<uint32_t>(std::strtoul(text + 23, nullptr, 10));
        g_marks.seen |= 2;
    } else if (std::strcmp(text, "USB firmware is verify..\n") == 0) {
        g_marks.verifyStart = now;
        g_marks.seen |= 4;
    } else if (std::strcmp(text, "FlashWrite -- Compare data OK.\n") == 0) {
        g_marks.verifyEnd = now;
        g_marks.seen |= 8;
    }
}

void OnFwState(DevFwUpdateStateInfo* info) {
    if (info->state != nullptr && std::strcmp(info->state, "UpdateCompleted") == 0)
        g_completed = true;
}

// A plain 4 KiB memcpy, streaming through `bytes` of source: microseconds
// each, the median of several passes.
double MemcpyMicroseconds(size_t bytes) {
    std::vector<uint8_t> source(bytes);
    for (size_t i = 0; i < bytes; ++i) source[i] = static_cast<uint8_t>(i * 131 + 7);
    std::vector<uint8_t> target(kReportBytes);
    std::vector<double> passes;
    const size_t chunks = bytes / kReportBytes;
    for (int pass = 0; pass < 21; ++pass) {
        const Clock::time_point start = Clock::now();
        for (size_t c = 0; c < chunks; ++c) {
            std::memcpy(target.data(), source.data() + c * kReportBytes, kReportBytes);
            asm volatile("" : : "r"(target.data()) : "memory");  // keep every copy
        }
        passes.push_back(MsSince(start, Clock::now()) * 1000.0 / static_cast<double>(chunks));
    }
    return Median(passes);
}

}  // namespace

int RunUsbUpdate(bool firmwareArea, uint32_t latencyMs) {
    ScratchFolder folder(
        "EnableLocalLogging=0\nDeviceBackend=virtual\nDevIDNum=1\n"
        "DevDrvID0=USB\\VID_FFF0&PID_0C01\nFW_Overwrite=99\n"
        "Virtual0_LatencyMs=" + std::to_string(latencyMs) + "\n" +
        (firmwareArea ? "USB_Burn_Area=1\n" : ""));
    if (!folder.ok()) return Fail("no scratch folder");
    const std::string image = folder.Beside(".hex");

    auto core = std::make_unique<vc::VideoConsoleCoreImp>();
    core->SetDebugOutputHandler(OnDebugText);
    DeviceEntry* list = nullptr;
    uint16_t count = 0;
    if (!core->Initialize("setting.cfg")) return Fail("initialisation failed");
    if (!core->ScanDeviceList(&list, &count) || count < 1) return Fail("no virtual device");
    if (!core->SelectDevice(&list[0])) return Fail("selection failed");
    if (vc::firmware::HasRgbLight(core->m_deviceModel))
        return Fail("the device model has an RGB light: its waits are not in the floor");
    auto* device = static_cast<vd::VirtualHidBackend*>(core->Hid());

    uint32_t imageBytes = 0;
    {
        vd::UsbImageOptions options;
        options.versionText = "01.00.02.00.0000";
        const std::vector<uint8_t> bytes = vd::BuildUsbImage(options);
        imageBytes = static_cast<uint32_t>(bytes.size());
        if (!vd::WriteUsbImageFile(image, bytes)) return Fail("cannot write the image");
    }

    // Memory freed before the file is set (the image built above) goes back
    // to the system first, so that the rise counts what setting the file
    // and the update hold and not what the allocator kept. The rise starts
    // at the set: the buffer the file is read into stays from there to the
    // update's end.
    malloc_trim(0);
    const bool peakReset = ResetPeakRss();
    const long rssBefore = StatusKib("VmRSS");
    const size_t pagesBefore = device->Flash(0).OwnPages();
    if (!core->SetFirmwareFile(image.c_str(), vc::kFirmwareUsbHex))
        return Fail("the image was refused");
    core->OpenFwUpdateStateCallback(OnFwState);

    const uint32_t transfersBefore = device->Transfers(0);
    const Clock::time_point start = Clock::now();
    if (!core->StartUsbFwUpdate()) return Fail("the update did not start");
    vc::firmware::JoinUpdateThread(*core);
    const Clock::time_point end = Clock::now();
    const uint32_t transfers = device->Transfers(0) - transfersBefore;
    const long peak = StatusKib("VmHWM");
    const size_t devicePages = device->Flash(0).OwnPages() - pagesBefore;
    vc::FreeDeviceEntries(list, count);

    if (!g_completed) return Fail("the update failed");
    if (g_marks.seen != 15 || g_marks.writtenBytes == 0) return Fail("burst phases not seen");
    const double burstMs = MsSince(g_marks.writeStart, g_marks.writeEnd) +
                           MsSince(g_marks.verifyStart, g_marks.verifyEnd);
    const uint32_t dataReports = 2 * ((g_marks.writtenBytes + kReportBytes - 1) / kReportBytes);
    std::printf("run transfers=%u wall_ms=%.4f burst_ms=%.4f data_reports=%u rss_rise_kib=%ld "
                "image_bytes=%u device_kib=%zu\n",
                transfers, MsSince(start, end), burstMs, dataReports,
                peakReset && rssBefore >= 0 && peak >= 0 ? peak - rssBefore : -1, imageBytes,
                devicePages * (vd::VirtualFlash::kPageSize / 1024));
    return 0;
}

int DriveUsbUpdate(const std::string& self, int reps) {
    struct Case {
        const char* name;
        const char* area;
    };
    const Case cases[] = {{"usb_whole", "whole"}, {"usb_firmware_area", "firmware"}};
    double memcpyUs = -1;
    int failures = 0;
    for (const Case& c : cases) {
        for (const uint32_t latency : {0u, 1u}) {
            auto runs = RunSorted(self, std::string("usb ") + c.area + " " + std::to_string(latency),
                                  reps, std::string(c.name) + " latency " + std::to_string(latency));
            if (runs.empty()) {
                ++failures;
                continue;
            }
            // The run with the median wall time gives the first line.
            auto& mid = runs[runs.size() / 2];
            PrintRatioLine(c.name, latency, mid["transfers"], mid["wall_ms"],
                           mid["transfers"] * latency + kDeviceWaitsMs);
            if (latency != 0) continue;
            // Host cost: median over the runs; peak RSS rise: the largest.
            std::vector<double> perReport;
            double rise = -1;  // stays -1 when the peak could not be read
            double library = -1, device = 0;
            for (auto& r : runs) {
                perReport.push_back(r["burst_ms"] * 1000.0 / r["data_reports"]);
                rise = std::max(rise, r["rss_rise_kib"]);
                if (r["rss_rise_kib"] >= 0 && r["rss_rise_kib"] - r["device_kib"] > library) {
                    library = r["rss_rise_kib"] - r["device_kib"];
                    device = r["device_kib"];
                }
            }
            const double imageMib = mid["image_bytes"] / (1024.0 * 1024.0);
            if (memcpyUs < 0) memcpyUs = MemcpyMicroseconds(static_cast<size_t>(mid["image_bytes"]));
            std::printf("bench case=%s host_us_per_data_report=%.2f memcpy_us_per_report=%.3f "
                        "peak_rss_rise_mib=%.2f image_mib=%.2f device_pages_mib=%.2f "
                        "library_rise_mib=%.2f library_within_image_plus_1=%s\n",
                        c.name, Median(perReport), memcpyUs, rise < 0 ? -1.0 : rise / 1024.0,
                        imageMib, device / 1024.0, library < 0 ? -1.0 : library / 1024.0,
                        library >= 0 && library / 1024.0 <= imageMib + 1 ? "yes" : "no");
            std::fflush(stdout);
        }
    }
    return failures;
}

}  // namespace korvbench
