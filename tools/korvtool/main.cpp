// korvtool: a console program over the library's exported C API.
//
//   korvtool [--config PATH] [--verbose]
//
// Initialises the library with the given setting.cfg (default: setting.cfg
// in the working directory), scans for capture devices and lists them.
#include <cstdio>
#include <cstring>
#include <string>

#include "KORVSDKDeviceTool.h"

namespace {

bool g_verbose = false;

void PrintLibraryText(const char* text) {
    if (g_verbose) std::fprintf(stderr, "[library] %s", text);
}

int Usage(const char* program) {
    std::fprintf(stderr, "usage: %s [--config PATH] [--verbose]\n", program);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::string config = "setting.cfg";
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--config") == 0 && i + 1 < argc) {
            config = argv[++i];
        } else if (std::strcmp(argv[i], "--verbose") == 0) {
            g_verbose = true;
        } else if (std::strcmp(argv[i], "--help") == 0) {
            Usage(argv[0]);
            return 0;
        } else {
            return Usage(argv[0]);
        }
    }

    // Library texts reach us through the handler; without --verbose they are
    // kept out of the way.
    KORVSDK_Set_Debug_Output_Handler(PrintLibraryText);

    if (!KORVSDK_Init(config.c_str())) {
        std::fprintf(stderr, "error: the library could not be initialised\n");
        return 1;
    }

    DeviceEntry* devices = nullptr;
    uint16_t count = 0;
    if (!KORVSDK_Scan_DeviceList(&devices, &count)) {
        std::fprintf(stderr,
                     "error: the device scan failed: the system's device list could not be "
                     "read (run with --verbose for the library's messages)\n");
        return 1;
    }
    if (count == 0) {
        std::printf("No capture device found. Check the cable and the DevIDNum/DevDrvID<n> "
                    "entries of %s.\n", config.c_str());
    }
    for (uint16_t i = 0; i < count; ++i) {
        std::printf("%u  %s  %s:%s  serial %s\n", static_cast<unsigned>(i),
                    devices[i].description, devices[i].vid, devices[i].pid, devices[i].instance);
    }
    KORVSDK_Free_DeviceList(&devices, &count);
    return 0;
}
