// Benchmark of the microcontroller firmware update on the virtual capture
// device: a 4 KiB and a 114688-byte (largest) program image, each with a
// bootloader that finishes every command at once and with one that takes
// realistic times, over a link of 1 ms per transfer. Per case the run with
// the median wall time is printed, in the USB update's form:
//
//   bench case=NAME latency_ms=L transfers=N wall_ms=W floor_ms=F ratio=R
//
// N  report transfers of the update, as the virtual device counted them.
// W  wall time from the start call to the end of the programming thread.
// F  the waits the update keeps for the microcontroller, plus N x L:
//    100 ms after reading the file; the bootloader entry's 10 ms before
//    every look at the work mode and 1 ms before every read of the
//    bootloader version; 500 ms before boot mode, erase, blank check and
//    after programming, and after each of the two LED toggles on a board
//    with a GPIO LED (one more after the blank check on models 13 and 14,
//    and before the end colour on boards with an RGB light); 10 ms before
//    every look at the busy byte; 1 ms after every page programmed and
//    every page verified; 200 ms at the end. The looks at the work mode,
//    the bootloader version and the busy byte are counted by the virtual
//    microcontroller, so a bootloader that stays busy longer raises the
//    floor by the polls it costs and not the ratio.
//
// Realistic times, for a Cortex-M0 with 128-byte flash pages: 20 ms from
// the boot request to the bootloader, 30 ms not answering while it starts
// (the virtual device's default), 4 ms to erase a page, 2 ms to program
// one; blank check and verify take well under a millisecond.
#include <algorithm>
#include <atomic>
#include <cstdio>
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
#include "virtual/device/virtual_hid_backend.h"
#include "virtual/mcu/mcu_image.h"
#include "virtual/mcu/virtual_mcu.h"

namespace korvbench {
namespace {

namespace vc = VideoConsoleCore;
namespace vd = VideoConsoleCore::virtualdev;

constexpr double kStartReadMs = 100, kStepMs = 500, kWorkModeLookMs = 10, kVersionLookMs = 1,
                 kBusyLookMs = 10, kPageMs = 1, kEndMs = 200;

std::atomic<bool> g_completed{false};

void OnFwState(DevFwUpdateStateInfo* info) {
    if (info->state != nullptr && std::strcmp(info->state, "UpdateCompleted") == 0)
        g_completed = true;
}

// The 500 ms steps of the update on a board of `model`.
int Steps(uint32_t model) {
    int steps = 4;  // boot mode, erase, blank check, after programming
    if (vc::firmware::HasGpioLed(model)) steps += 2;  // the two toggles
    if (model == 13 || model == 14) steps += 1;
    if (vc::firmware::HasRgbLight(model)) steps += 1;
    return steps;
}

}  // namespace

int RunMcuUpdate(uint32_t imageBytes, bool realisticBusy, uint32_t latencyMs) {
    ScratchFolder folder(
        "EnableLocalLogging=0\nDeviceBackend=virtual\nDevIDNum=1\n"
        "DevDrvID0=USB\\VID_FFF0&PID_0C01\nFW_Overwrite=99\n"
        "Virtual0_LatencyMs=" + std::to_string(latencyMs) + "\n" +
        (realisticBusy ? "Virtual0_McuBootJumpMs=20\nVirtual0_McuErasePageMs=4\n"
                         "Virtual0_McuProgramPageMs=2\n"
                       : ""));
    if (!folder.ok()) return Fail("no scratch folder");
    const std::string image = folder.Beside(".bin");

    auto core = std::make_unique<vc::VideoConsoleCoreImp>();
    core->SetDebugOutputHandler([](const char*) {});  // the library's chatter
    DeviceEntry* list = nullptr;
    uint16_t count = 0;
    if (!core->Initialize("setting.cfg")) return Fail("initialisation failed");
    if (!core->ScanDeviceList(&list, &count) || count < 1) return Fail("no virtual device");
    if (!core->SelectDevice(&list[0])) return Fail("selection failed");
    auto* device = static_cast<vd::VirtualHidBackend*>(core->Hid());
    const vd::VirtualMcu& mcu = device->Mcu(0);

    vd::McuImageOptions options;
    options.size = imageBytes;
    options.version = 0x18;
    if (!vd::WriteMcuImageFile(image, vd::BuildMcuImage(options)))
        return Fail("cannot write the image");
    if (!core->SetFirmwareFile(image.c_str(), vc::kFirmwareMcuBin))
        return Fail("the image was refused");
    core->OpenFwUpdateStateCallback(OnFwState);

    const uint32_t transfersBefore = device->Transfers(0);
    const uint64_t workModeBefore = mcu.ReadsOf(vd::VirtualMcu::kRegWorkMode);
    const uint64_t versionBefore = mcu.ReadsOf(vd::VirtualMcu::kRegBootloaderVersion);
    const uint64_t busyBefore = mcu.ReadsOf(vd::VirtualMcu::kBlBusy);
    const Clock::time_point start = Clock::now();
    if (!core->StartMcuFwUpdate()) return Fail("the update did not start");
    vc::firmware::JoinUpdateThread(*core);
    const Clock::time_point end = Clock::now();
    const uint32_t model = core->m_deviceModel;
    vc::FreeDeviceEntries(list, count);
    if (!g_completed) return Fail("the update failed");

    const uint32_t pages = (imageBytes + vd::kProgramPageSize - 1) / vd::kProgramPageSize;
    const double waitsMs =
        kStartReadMs +
        kWorkModeLookMs * static_cast<double>(mcu.ReadsOf(vd::VirtualMcu::kRegWorkMode) -
                                              workModeBefore) +
        kVersionLookMs * static_cast<double>(
                             mcu.ReadsOf(vd::VirtualMcu::kRegBootloaderVersion) - versionBefore) +
        kStepMs * Steps(model) +
        kBusyLookMs * static_cast<double>(mcu.ReadsOf(vd::VirtualMcu::kBlBusy) - busyBefore) +
        kPageMs * 2 * pages + kEndMs;
    std::printf("run transfers=%u wall_ms=%.4f waits_ms=%.1f\n",
                device->Transfers(0) - transfersBefore, MsSince(start, end), waitsMs);
    return 0;
}

int DriveMcuUpdate(const std::string& self, int reps) {
    struct Case {
        const char* name;
        uint32_t bytes;
        bool realistic;
    };
    const Case cases[] = {{"mcu_4k_busy_none", 4096, false},
                          {"mcu_4k_busy_realistic", 4096, true},
                          {"mcu_112k_busy_none", 114688, false},
                          {"mcu_112k_busy_realistic", 114688, true}};
    constexpr uint32_t kLatencyMs = 1;
    int failures = 0;
    for (const Case& c : cases) {
        auto runs = RunSorted(self,
                              "mcu " + std::to_string(c.bytes) + " " +
                                  (c.realistic ? "realistic" : "none") + " " +
                                  std::to_string(kLatencyMs),
                              reps, c.name);
        if (runs.empty()) {
            ++failures;
            continue;
        }
        auto& mid = runs[runs.size() / 2];
        PrintRatioLine(c.name, kLatencyMs, mid["transfers"], mid["wall_ms"],
                       mid["waits_ms"] + mid["transfers"] * kLatencyMs);
    }
    return failures;
}

}  // namespace korvbench
