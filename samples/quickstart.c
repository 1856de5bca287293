/* A complete small program on the C API: lists the capture devices, selects
 * the first and prints its firmware versions and headphone volume.
 *
 *   cc quickstart.c $(pkg-config --cflags --libs KORVSDKDeviceTool)
 *   ./a.out [setting.cfg]
 *
 * With samples/virtual-setting.cfg it runs on the virtual devices. */
#include <stdio.h>

#include "KORVSDKDeviceTool.h"

int main(int argc, char** argv) {
    if (!KORVSDK_Init(argc > 1 ? argv[1] : "setting.cfg")) {
        fprintf(stderr, "the library could not start\n");
        return 1;
    }
    DeviceEntry* devices = NULL;
    uint16_t count = 0;
    if (!KORVSDK_Scan_DeviceList(&devices, &count) || count == 0) {
        fprintf(stderr, "no capture device found\n");
        return 1;
    }
    for (uint16_t i = 0; i < count; ++i)
        printf("%u: %s:%s %s %s\n", i, devices[i].vid, devices[i].pid, devices[i].instance,
               devices[i].description);

    int result = 1;
    if (KORVSDK_Select_Device(&devices[0])) {
        char* usb = KORVSDK_Get_USB_FW_Ver(); /* heap texts, never NULL */
        char* mcu = KORVSDK_Get_MCU_FW_Ver();
        uint8_t volume = 0;
        printf("USB firmware %s, MCU firmware %s\n", usb, mcu);
        if (KORVSDK_Audio_Get_HP_Out_Volume(&volume)) printf("headphone volume %u\n", volume);
        KORVSDK_Free_PeCHAR(&usb);
        KORVSDK_Free_PeCHAR(&mcu);
        result = 0;
    } else {
        fprintf(stderr, "the device could not be selected\n");
    }
    KORVSDK_Free_DeviceList(&devices, &count);
    return result;
}
