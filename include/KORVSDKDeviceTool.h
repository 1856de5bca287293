/*
 * KORVSDKDeviceTool - find, inspect, configure and re-flash a USB HDMI
 * video-capture device through its HID interface.
 *
 * This is the library's only public C header. Every function returns at once
 * with a result; the reason for a failure is written to the debugger output
 * (see KORVSDK_Set_Debug_Output_Handler) and to the log file.
 *
 * Results:
 *   - KORVSDK_BOOL functions return 1 on success and 0 on failure.
 *   - The four string getters return a heap copy of a narrow, zero-terminated
 *     text, never NULL; release it with KORVSDK_Free_PeCHAR (so is the text
 *     of KORVSDK_Get_Device_Location, which may be NULL).
 *   - Device lists are released with KORVSDK_Free_DeviceList.
 *
 * Call the API from one thread. Callbacks run on the thread that performs the
 * operation which fires them; the records they receive belong to the library
 * and are freed as soon as the callback returns, so copy what you keep. A
 * callback may call the library; a call made inside a callback does not raise
 * that same callback again (it runs and returns its result, silently).
 * Callbacks may be registered and released at any time, an update included;
 * a release returns once no other thread is inside the released callback.
 */
#ifndef KORVSDK_DEVICE_TOOL_H
#define KORVSDK_DEVICE_TOOL_H

/* The SDK's version. The build reads it from these lines: the shared
 * library's version, the Windows version resources and korvtool --version
 * all come from here. Keep the string equal to the three numbers. */
#define KORVSDK_VERSION_MAJOR 0
#define KORVSDK_VERSION_MINOR 1
#define KORVSDK_VERSION_PATCH 0
#define KORVSDK_VERSION_STRING "0.1.0"

#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#if defined(_WIN32)
#  if defined(KORVSDK_STATIC)
#    define KORVSDK_API
#  elif defined(KORVSDK_BUILDING_LIBRARY)
#    define KORVSDK_API __declspec(dllexport)
#  else
#    define KORVSDK_API __declspec(dllimport)
#  endif
#else
#  define KORVSDK_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* A one-byte boolean widened into an int: 1 = success, 0 = failure. */
typedef int KORVSDK_BOOL;

/* One device found by a scan. Every field is a heap text owned by the list. */
typedef struct DeviceEntry {
    char* description; /* bus-reported device description, may be empty   */
    char* instance;    /* third part of the USB instance ID: the serial    */
    char* pid;         /* product ID, normally four hexadecimal digits     */
    char* vid;         /* vendor ID, normally four hexadecimal digits      */
} DeviceEntry;

/* Record handed to the device-state callback: five 8-byte fields. An event
 * fills only the fields it uses; the others are NULL / 0. */
typedef struct DeviceStateInfo {
    char*    text0;
    char*    text1;
    char*    message; /* the event's message text                          */
    uint64_t value;   /* the low byte carries a code, e.g. the USB type    */
    char*    text4;
} DeviceStateInfo;

/* Record handed to the firmware-update-state callback. */
typedef struct DevFwUpdateStateInfo {
    char* usbFileText; /* about the USB (*.hex) file, e.g. its version     */
    char* mcuFileText; /* about the MCU (*.bin) file, e.g. its version     */
    char* state;       /* "Updating initialization", "Updating",
                          "UpdateCompleted" or "UpdateFailed"              */
    char* message;     /* text for the user                                */
    float percent;     /* progress: bytes done / bytes total * 100         */
} DevFwUpdateStateInfo;

typedef void (*KORVSDK_ScanDeviceListCallback)(DeviceEntry* first, uint16_t count);
typedef void (*KORVSDK_DeviceStateCallback)(DeviceStateInfo* info);
typedef void (*KORVSDK_DevFwUpdateStateCallback)(DevFwUpdateStateInfo* info);

/* Receives every debugger-output text, UTF-8 encoded (extension). */
typedef void (*KORVSDK_DebugOutputHandler)(const char* utf8_text);

/* ---- Start, scan, select ------------------------------------------------ */
KORVSDK_API KORVSDK_BOOL KORVSDK_Init(const char* settingsPath);
KORVSDK_API KORVSDK_BOOL KORVSDK_Scan_DeviceList(DeviceEntry** list, uint16_t* count);
KORVSDK_API KORVSDK_BOOL KORVSDK_Select_Device(DeviceEntry* entry);
KORVSDK_API uint8_t      KORVSDK_Get_Device_USBType(void);

/* ---- Versions and firmware files --------------------------------------- */
KORVSDK_API char*        KORVSDK_Get_USB_FW_Ver(void);
KORVSDK_API char*        KORVSDK_Get_MCU_FW_Ver(void);
KORVSDK_API KORVSDK_BOOL KORVSDK_Set_USB_HexFile(const char* path);
KORVSDK_API KORVSDK_BOOL KORVSDK_Set_MCU_BinFile(const char* path);
KORVSDK_API char*        KORVSDK_Get_USB_HexFile_Ver(void);
KORVSDK_API char*        KORVSDK_Get_MCU_BinFile_Ver(void);
KORVSDK_API KORVSDK_BOOL KORVSDK_Start_USB_FwUpdate(void);
KORVSDK_API KORVSDK_BOOL KORVSDK_Start_MCU_FwUpdate(void);
KORVSDK_API int          KORVSDK_Check_IsFirmwareUpdating(void);

/* ---- Callbacks: Open returns 0 when one is already registered ---------- */
KORVSDK_API int KORVSDK_Open_CB_Scan_DeviceList(KORVSDK_ScanDeviceListCallback fn);
KORVSDK_API int KORVSDK_Open_CB_Device_StateInfo(KORVSDK_DeviceStateCallback fn);
KORVSDK_API int KORVSDK_Open_CB_DevFwUpdate_StateInfo(KORVSDK_DevFwUpdateStateCallback fn);
/* Close releases the slot's callback and returns 1, or 0 when the slot was
 * empty. It returns only once no other thread of the library is still inside
 * the released callback (an update's worker may be calling it), so its code
 * and what it writes to may go then; do not close while holding a lock the
 * callback takes. A callback may close itself: the close does not wait for
 * the calls on its own thread. While a thread waits in a close, its own
 * calls in progress do not count for others that wait, so two threads that
 * each close, from inside a callback, the one the other is in do not wait
 * for each other for ever. */
KORVSDK_API int KORVSDK_Close_CB_Scan_DeviceList(void);
KORVSDK_API int KORVSDK_Close_CB_Device_StateInfo(void);
KORVSDK_API int KORVSDK_Close_CB_DevFwUpdate_StateInfo(void);

/* ---- Information queries (delivered through the device-state callback) - */
KORVSDK_API KORVSDK_BOOL KORVSDK_Get_HDMI_Info(void);
KORVSDK_API KORVSDK_BOOL KORVSDK_Get_MCU_Info(void);
KORVSDK_API KORVSDK_BOOL KORVSDK_Get_USB_APP_Info(void);

/* ---- Lights ------------------------------------------------------------ */
KORVSDK_API KORVSDK_BOOL KORVSDK_Set_GPIO_LED(uint8_t value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Set_Update_GPIO_LED_Lights(uint8_t a, uint8_t b, uint16_t c);

/* ---- Microcontroller and audio chip ------------------------------------ */
KORVSDK_API KORVSDK_BOOL KORVSDK_Check_Is_MCU_OnBoard(void);
KORVSDK_API KORVSDK_BOOL KORVSDK_Check_Is_AudioIC_OnBoard(void);
KORVSDK_API KORVSDK_BOOL KORVSDK_Save_Audio_HDCP_Parameters(void);
KORVSDK_API KORVSDK_BOOL KORVSDK_Enter_Boot_Mode(void);
KORVSDK_API KORVSDK_BOOL KORVSDK_Check_Is_Boot_Mode(void);

/* ---- Audio controls ---------------------------------------------------- */
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Get_AUX_In_Mute(uint8_t* value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Set_AUX_In_Mute(uint8_t value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Get_HP_Out_Mute(uint8_t* value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Set_HP_Out_Mute(uint8_t value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Get_MIC_In_Mute(uint8_t* value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Set_MIC_In_Mute(uint8_t value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Get_AUX_In_Volume(uint8_t* value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Set_AUX_In_Volume(uint8_t value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Get_HP_Out_Volume(uint8_t* value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Set_HP_Out_Volume(uint8_t value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Get_MIC_In_Volume(uint8_t* value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Set_MIC_In_Volume(uint8_t value);
/* The HDMI side tone shares the AUX-in controls on this device. */
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Get_HDMI_SideTone_Mute(uint8_t* value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Set_HDMI_SideTone_Mute(uint8_t value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Get_HDMI_SideTone_Volume(uint8_t* value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Audio_Set_HDMI_SideTone_Volume(uint8_t value);

/* ---- States ------------------------------------------------------------ */
KORVSDK_API KORVSDK_BOOL KORVSDK_Get_HDMI_Video_Locked(uint8_t* value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Get_HP_Mic_PlugIn(uint8_t* value);
KORVSDK_API KORVSDK_BOOL KORVSDK_Get_Line_In_PlugIn(uint8_t* value);

/* ---- Logging and release ----------------------------------------------- */
KORVSDK_API KORVSDK_BOOL KORVSDK_Switch_Console_Logging_Mode(bool on);
KORVSDK_API KORVSDK_BOOL KORVSDK_Free_DeviceList(DeviceEntry** list, uint16_t* count);
KORVSDK_API KORVSDK_BOOL KORVSDK_Free_PeCHAR(char** text);

/* Extension: route every debugger-output text to `handler` instead of the
 * platform's channel. That channel is OutputDebugStringW on Windows (a
 * debugger or a debug-output viewer shows it) and the system log at debug
 * level on Linux, tagged KORVSDKDeviceTool (journalctl -t KORVSDKDeviceTool,
 * or journalctl -p debug). To get the texts on standard error, install a
 * handler that writes them there, or, on Linux, set the environment variable
 * KORVSDK_DEBUG_STDERR=1. NULL restores the platform channel. The
 * console-logging switch gates the handler exactly as it gates the platform
 * channel. When it returns, the previous handler is no longer running on any
 * thread (an update's last texts come from its own thread), so what that
 * handler wrote to may be torn down; do not call it while holding a lock
 * your handler takes. Returns 1. */
KORVSDK_API int KORVSDK_Set_Debug_Output_Handler(KORVSDK_DebugOutputHandler handler);

/* Extension: reads the selected device's whole USB flash (the bridge chip's
 * SPI flash) into `path` as a flash image (*.hex) that
 * KORVSDK_Set_USB_HexFile accepts, so that the device can be put back as it
 * was. Returns when the read has ended; refused (0) before KORVSDK_Init and
 * a selection, for a NULL or empty path, and while an update or another read
 * runs (the device is in the updating state meanwhile, so the update guard
 * refuses other operations). Progress goes to the firmware-update-state
 * callback: state "Reading" with percent, then "ReadCompleted" or
 * "ReadFailed" with the reason in `message`. The image is written to a new
 * file beside `path` (`path` + ".part-" and six random characters, readable
 * by its owner only on POSIX) and renamed to `path` only when complete;
 * after a failure no file is left behind and an earlier file at `path` is
 * kept. */
KORVSDK_API KORVSDK_BOOL KORVSDK_Read_USB_Flash(const char* path);

/* Extension: where the device of `entry` is plugged, as its USB port path:
 * the bus (Linux) or host controller (Windows, numbered from 1 in the
 * system's order) number, "-", then the port number on each hub from the
 * root hub down, joined by "." (for example "1-2.4.1": bus 1, root-hub port
 * 2, port 4 of the hub there, port 1 of the next hub). The same port gives
 * the same text after a re-plug, so it names a unit on a test bench when
 * serial numbers repeat. `entry` must be an element of the list that the
 * last KORVSDK_Scan_DeviceList handed out and that is not yet released; it
 * is recognised by its address, so a copy of an entry is not. Returns a heap
 * text to release with KORVSDK_Free_PeCHAR, or NULL when `entry` is not of
 * that list or the device's location is unknown. A selection with an entry
 * of that list opens the device on that port, also when another device has
 * the same serial number. */
KORVSDK_API char* KORVSDK_Get_Device_Location(const DeviceEntry* entry);

#ifdef __cplusplus
}
#endif

#endif /* KORVSDK_DEVICE_TOOL_H */
