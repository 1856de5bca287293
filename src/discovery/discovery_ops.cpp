// Selection and the USB type of the selected device.
//
// The guards are in place; the device work arrives with the report protocol
// and the flash identification, and until then these operations refuse
// after their guards.
#include "core/VideoConsoleCoreImp.h"

namespace VideoConsoleCore {

bool VideoConsoleCoreImp::SelectDevice(DeviceEntry* entry) {
    if (!RequireInitialized() || !RequireScanned() || !RequireNotUpdating(kRefuseSelect))
        return false;
    (void)entry;
    return false;
}

uint8_t VideoConsoleCoreImp::GetDeviceUsbType() {
    if (!RequireInitialized() || !RequireSelected()) return 0;
    return 0;
}

}  // namespace VideoConsoleCore
