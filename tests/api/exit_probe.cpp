// Programs that end, or let the library go, while one of its threads runs.
// ctest runs each case in a process of its own, in a folder of its own, and
// expects exit code 0 within the test's time limit: a library whose teardown
// waited for the very thread it runs on would hang, or end the process with
// an error, instead.
//
//   exit_probe exit-in-callback      the firmware-update callback calls exit(0)
//                                    on the update's worker, at the first
//                                    "Updating" record
//   exit_probe exit-on-light-thread  the debug-output handler calls exit(0) on
//                                    the finish-light thread, when that thread
//                                    says it ends
//   exit_probe main-returns          main returns while the update runs
//   unload_probe MODEL (Windows)     loads the DLL itself, starts an update on
//                                    a device of that model and frees the DLL
//                                    at once: the DLL must be gone from the
//                                    process within 30 s
//
// Other exit codes: 1 the set-up failed, 2 the case did not come about (the
// update was not running, or nobody called exit within 60 s), 3 the DLL
// stayed loaded.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#ifdef KORVSDK_PROBE_LOADS_DLL
#include <windows.h>
#endif

#include "KORVSDKDeviceTool.h"
#include "virtual/device/usb_image.h"

namespace {

// The exports the probes use: linked, or looked up in the loaded DLL.
struct Api {
    decltype(&KORVSDK_Init) init = nullptr;
    decltype(&KORVSDK_Scan_DeviceList) scan = nullptr;
    decltype(&KORVSDK_Select_Device) select = nullptr;
    decltype(&KORVSDK_Free_DeviceList) freeList = nullptr;
    decltype(&KORVSDK_Set_USB_HexFile) setHexFile = nullptr;
    decltype(&KORVSDK_Start_USB_FwUpdate) startUpdate = nullptr;
    decltype(&KORVSDK_Check_IsFirmwareUpdating) updating = nullptr;
    decltype(&KORVSDK_Open_CB_DevFwUpdate_StateInfo) openUpdateCallback = nullptr;
    decltype(&KORVSDK_Set_Debug_Output_Handler) setDebugHandler = nullptr;
};

// The virtual device of the given model, a newer flash image for it, and an
// update of the firmware area that takes a few hundred milliseconds (1 ms
// per transfer). Model 13 has a GPIO LED, whose finish lights start when
// the update ends; model 5 has no light.
bool StartUpdate(const Api& api, int model) {
    std::ofstream("setting.cfg") << "EnableLocalLogging=0\nDeviceBackend=virtual\nDevIDNum=1\n"
                                    "DevDrvID0=USB\\VID_FFF0&PID_0C01\nFW_Overwrite=0\n"
                                    "USB_Burn_Area=1\nVirtual0_LatencyMs=1\nVirtual0_ModelCode="
                                 << model << "\n";
    VideoConsoleCore::virtualdev::UsbImageOptions image;
    image.versionText = "01.00.02.00.0000";
    image.modelCode = static_cast<uint8_t>(model);
    DeviceEntry* list = nullptr;
    uint16_t count = 0;
    const bool ok =
        VideoConsoleCore::virtualdev::WriteUsbImageFile(
            "new.hex", VideoConsoleCore::virtualdev::BuildUsbImage(image)) &&
        api.init("setting.cfg") == 1 && api.scan(&list, &count) == 1 && count == 1 &&
        api.select(&list[0]) == 1 && api.setHexFile("new.hex") == 1 && api.startUpdate() == 1;
    api.freeList(&list, &count);
    if (!ok) std::fprintf(stderr, "the update on the virtual device did not start\n");
    return ok;
}

}  // namespace

#ifndef KORVSDK_PROBE_LOADS_DLL

namespace {

void ExitAtFirstUpdating(DevFwUpdateStateInfo* info) {
    if (info->state != nullptr && std::strcmp(info->state, "Updating") == 0) std::exit(0);
}

void ExitWhenTheFinishLightEnds(const char* text) {
    if (std::strcmp(text, "Call Exit_UpdateFinish_Lights_Thread_0.\n") == 0) std::exit(0);
}

// Waits for someone else to end the process. Should nobody do it, the
// process ends at once with 2: an orderly exit would stop the library's
// threads, whose last texts might still make the handler call exit(0).
[[noreturn]] void WaitForExit(const char* who) {
    std::this_thread::sleep_for(std::chrono::seconds(60));
    std::fprintf(stderr, "%s did not end the process\n", who);
    std::fflush(stderr);
    std::_Exit(2);
}

}  // namespace

int main(int argc, char** argv) {
    const Api api{KORVSDK_Init,
                  KORVSDK_Scan_DeviceList,
                  KORVSDK_Select_Device,
                  KORVSDK_Free_DeviceList,
                  KORVSDK_Set_USB_HexFile,
                  KORVSDK_Start_USB_FwUpdate,
                  KORVSDK_Check_IsFirmwareUpdating,
                  KORVSDK_Open_CB_DevFwUpdate_StateInfo,
                  KORVSDK_Set_Debug_Output_Handler};
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "exit-in-callback") {
        api.openUpdateCallback(ExitAtFirstUpdating);
        if (!StartUpdate(api, 13)) return 1;
        WaitForExit("the firmware-update callback");
    }
    if (mode == "exit-on-light-thread") {
        api.setDebugHandler(ExitWhenTheFinishLightEnds);
        if (!StartUpdate(api, 13)) return 1;
        WaitForExit("the finish-light thread");
    }
    if (mode == "main-returns") {
        if (!StartUpdate(api, 13)) return 1;
        if (api.updating() != 1) {
            std::fprintf(stderr, "the update had ended already\n");
            return 2;
        }
        return 0;
    }
    std::fprintf(stderr, "usage: exit_probe exit-in-callback|exit-on-light-thread|main-returns\n");
    return 1;
}

#else

namespace {

template <typename Fn>
bool Resolve(HMODULE dll, const char* name, Fn& fn) {
    fn = reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(dll, name)));
    return fn != nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    const int model = argc > 1 ? std::atoi(argv[1]) : 13;
    // The DLL beside this program, by its full path.
    wchar_t path[MAX_PATH] = {};
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring dllPath(path, length);
    const std::string fileName = KORVSDK_DLL_FILE;
    const std::wstring dllName(fileName.begin(), fileName.end());
    dllPath = dllPath.substr(0, dllPath.find_last_of(L"\\/") + 1) + dllName;
    HMODULE dll = LoadLibraryW(dllPath.c_str());
    Api api;
    if (dll == nullptr || !Resolve(dll, "KORVSDK_Init", api.init) ||
        !Resolve(dll, "KORVSDK_Scan_DeviceList", api.scan) ||
        !Resolve(dll, "KORVSDK_Select_Device", api.select) ||
        !Resolve(dll, "KORVSDK_Free_DeviceList", api.freeList) ||
        !Resolve(dll, "KORVSDK_Set_USB_HexFile", api.setHexFile) ||
        !Resolve(dll, "KORVSDK_Start_USB_FwUpdate", api.startUpdate) ||
        !Resolve(dll, "KORVSDK_Check_IsFirmwareUpdating", api.updating)) {
        std::fprintf(stderr, "the DLL or its exports could not be loaded\n");
        return 1;
    }
    if (!StartUpdate(api, model)) return 1;
    if (api.updating() != 1) {
        std::fprintf(stderr, "the update had ended already\n");
        return 2;
    }
    FreeLibrary(dll);
    for (int look = 0; look < 300; ++look) {
        if (GetModuleHandleW(dllName.c_str()) == nullptr) return 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::fprintf(stderr, "the DLL is still loaded 30 s after FreeLibrary\n");
    return 3;
}

#endif
