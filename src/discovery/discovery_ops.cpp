// Scan, selection and the USB type of the selected device.
//
// The guards are in place; the device work arrives with the HID layer and
// the scan, and until then these operations refuse after their guards.
#include "core/VideoConsoleCoreImp.h"

namespace VideoConsoleCore {

bool VideoConsoleCoreImp::ScanDeviceList(DeviceEntry** list, uint16_t* count) {
    if (!RequireInitialized()) return false;
    (void)list;
    (void)count;
    return false;
}

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
