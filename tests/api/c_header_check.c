/* Compiled as C: the public header must stand on its own in a C program,
 * and a C caller must get the documented results from the library. */
#include "KORVSDKDeviceTool.h"

#include <stdio.h>
#include <string.h>

static void quiet(const char* text) { (void)text; }

int main(void) {
    DeviceEntry* list = NULL;
    uint16_t count = 7;
    char* text;
    int failures = 0;

    KORVSDK_Set_Debug_Output_Handler(quiet);
    if (KORVSDK_Check_IsFirmwareUpdating() != 0) failures++;
    if (KORVSDK_Free_DeviceList(&list, &count) != 1 || list != NULL || count != 0) failures++;
    text = KORVSDK_Get_MCU_FW_Ver();
    if (text == NULL || strlen(text) != 0) failures++;
    if (KORVSDK_Free_PeCHAR(&text) != 1 || text != NULL) failures++;
    if (KORVSDK_Switch_Console_Logging_Mode(false) != 1) failures++;
    /* No scan yet: no entry has a location. */
    if (KORVSDK_Get_Device_Location(list) != NULL) failures++;

    if (failures != 0) fprintf(stderr, "%d of 6 checks failed\n", failures);
    return failures == 0 ? 0 : 1;
}
