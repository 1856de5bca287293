// Firmware files, the two updaters and the lights.
//
// The guards are in place; the file checks, the updaters and the light
// patterns arrive with the firmware-update work, and until then these
// operations refuse after their guards.
#include "core/VideoConsoleCoreImp.h"

namespace VideoConsoleCore {

bool VideoConsoleCoreImp::SetFirmwareFile(const char* path, FirmwareKind kind) {
    (void)path;
    (void)kind;
    if (!RequireIdleDevice(kRefuseSetFile)) return false;
    return false;
}

bool VideoConsoleCoreImp::GetFirmwareFileVersion(std::string& text, FirmwareKind kind) {
    (void)kind;
    text.clear();
    if (!RequireIdleDevice(kRefuseFileVersion)) return false;
    return false;
}

bool VideoConsoleCoreImp::StartUsbFwUpdate() { return RequireDevice() && false; }
bool VideoConsoleCoreImp::StartMcuFwUpdate() { return RequireDevice() && false; }
bool VideoConsoleCoreImp::SetGpioLed(uint8_t) { return RequireDevice() && false; }
bool VideoConsoleCoreImp::SetUpdateGpioLedLights(uint8_t, uint8_t, uint16_t) {
    return RequireDevice() && false;
}

}  // namespace VideoConsoleCore
