// A program that ends while a finish-light thread blinks: the library must
// stop the thread on its way out, without a crash and without touching the
// core after it is gone. ctest runs it and expects exit code 0.
#include <cstdio>
#include <string>
#include <thread>

#include "core/VideoConsoleCoreImp.h"
#include "discovery/device_list.h"
#include "firmware/lights.h"
#include "support/test_support.h"

using namespace VideoConsoleCore;

int main() {
    korvsdk_test::TempFolder folder;
    korvsdk_test::WorkingFolder cwd(folder.path());
    korvsdk_test::WriteFile(folder.path() / "setting.cfg",
                            "EnableLocalLogging=0\nDeviceBackend=virtual\nDevIDNum=1\n"
                            "DevDrvID0=USB\\VID_FFF0&PID_0C01\n");
    g_VC_Core.SwitchConsoleLogging(false);
    DeviceEntry* list = nullptr;
    uint16_t count = 0;
    if (!g_VC_Core.Initialize("setting.cfg") || !g_VC_Core.ScanDeviceList(&list, &count) ||
        count != 1 || !g_VC_Core.SelectDevice(&list[0])) {
        std::fprintf(stderr, "no virtual device\n");
        return 1;
    }
    g_VC_Core.SetUpdateGpioLedLights(1, 0x80, 3200);  // a long sleep to cut short
    g_VC_Core.m_updateFinished = true;
    firmware::StartFinishLights(g_VC_Core, true);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    FreeDeviceEntries(list, count);
    std::printf("exiting with the finish lights on\n");
    return 0;
}
