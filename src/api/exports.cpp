// The exported C functions. Each one forwards to one operation of g_VC_Core
// and widens its result; every guard lives in the core operations.
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <string>

#include "KORVSDKDeviceTool.h"
#include "core/VideoConsoleCoreImp.h"
#include "discovery/device_list.h"

using VideoConsoleCore::g_VC_Core;

namespace {

// A string getter hands out a malloc'd copy of the operation's text, an
// empty one when the operation was refused; never a null pointer.
// When even the copy cannot be had, the getter hands out this empty text,
// which KORVSDK_Free_PeCHAR knows not to free.
char g_noText[1] = "";

char* HeapText(const std::string& text) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy == nullptr) return g_noText;
    std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

// No exception leaves the library: a C caller cannot catch one. Running out
// of memory is said the way the library says it elsewhere, anything else by
// its own text; the call then fails (0, or an empty text).
void SayFailure(const char* text) noexcept {
    try {
        g_VC_Core.Report(text);
    } catch (...) {
    }
}

template <typename Body>
auto Shielded(Body body) noexcept -> decltype(body()) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        SayFailure("Error allocating memory!\n");
    } catch (const std::exception& e) {
        SayFailure(e.what());
    } catch (...) {
        SayFailure("Unexpected error!\n");
    }
    return {};
}

// A getter that failed on the way (an exception) still hands out a text.
template <typename Operation>
char* TextResult(Operation operation) {
    char* text = Shielded([&] {
        std::string result;
        operation(result);
        return HeapText(result);
    });
    return text != nullptr ? text : g_noText;
}

// Setters pass the address of a local copy of their value: direction 0.
constexpr int kAudioSet = 0;
constexpr int kAudioGet = 1;

}  // namespace

extern "C" {

KORVSDK_BOOL KORVSDK_Init(const char* settingsPath) { return Shielded([&] { return g_VC_Core.Initialize(settingsPath); }); }

KORVSDK_BOOL KORVSDK_Scan_DeviceList(DeviceEntry** list, uint16_t* count) {
    return Shielded([&] { return g_VC_Core.ScanDeviceList(list, count); });
}

KORVSDK_BOOL KORVSDK_Select_Device(DeviceEntry* entry) { return Shielded([&] { return g_VC_Core.SelectDevice(entry); }); }

uint8_t KORVSDK_Get_Device_USBType(void) { return Shielded([&] { return g_VC_Core.GetDeviceUsbType(); }); }

char* KORVSDK_Get_USB_FW_Ver(void) {
    return TextResult([](std::string& text) { g_VC_Core.GetUsbFwVersion(text); });
}

char* KORVSDK_Get_MCU_FW_Ver(void) {
    return TextResult([](std::string& text) { g_VC_Core.GetMcuFwVersion(text); });
}

KORVSDK_BOOL KORVSDK_Set_USB_HexFile(const char* path) {
    return Shielded([&] { return g_VC_Core.SetFirmwareFile(path, VideoConsoleCore::kFirmwareUsbHex); });
}

KORVSDK_BOOL KORVSDK_Set_MCU_BinFile(const char* path) {
    return Shielded([&] { return g_VC_Core.SetFirmwareFile(path, VideoConsoleCore::kFirmwareMcuBin); });
}

char* KORVSDK_Get_USB_HexFile_Ver(void) {
    return TextResult([](std::string& text) {
        g_VC_Core.GetFirmwareFileVersion(text, VideoConsoleCore::kFirmwareUsbHex);
    });
}

char* KORVSDK_Get_MCU_BinFile_Ver(void) {
    return TextResult([](std::string& text) {
        g_VC_Core.GetFirmwareFileVersion(text, VideoConsoleCore::kFirmwareMcuBin);
    });
}

KORVSDK_BOOL KORVSDK_Start_USB_FwUpdate(void) { return Shielded([&] { return g_VC_Core.StartUsbFwUpdate(); }); }
KORVSDK_BOOL KORVSDK_Start_MCU_FwUpdate(void) { return Shielded([&] { return g_VC_Core.StartMcuFwUpdate(); }); }
int KORVSDK_Check_IsFirmwareUpdating(void) { return Shielded([&] { return g_VC_Core.IsUpdating() ? 1 : 0; }); }

int KORVSDK_Open_CB_Scan_DeviceList(KORVSDK_ScanDeviceListCallback fn) {
    return Shielded([&] { return g_VC_Core.OpenScanListCallback(fn); });
}
int KORVSDK_Open_CB_Device_StateInfo(KORVSDK_DeviceStateCallback fn) {
    return Shielded([&] { return g_VC_Core.OpenDeviceStateCallback(fn); });
}
int KORVSDK_Open_CB_DevFwUpdate_StateInfo(KORVSDK_DevFwUpdateStateCallback fn) {
    return Shielded([&] { return g_VC_Core.OpenFwUpdateStateCallback(fn); });
}
int KORVSDK_Close_CB_Scan_DeviceList(void) { return Shielded([&] { return g_VC_Core.CloseScanListCallback(); }); }
int KORVSDK_Close_CB_Device_StateInfo(void) { return Shielded([&] { return g_VC_Core.CloseDeviceStateCallback(); }); }
int KORVSDK_Close_CB_DevFwUpdate_StateInfo(void) { return Shielded([&] { return g_VC_Core.CloseFwUpdateStateCallback(); }); }

KORVSDK_BOOL KORVSDK_Get_HDMI_Info(void) { return Shielded([&] { return g_VC_Core.GetHdmiInfo(); }); }
KORVSDK_BOOL KORVSDK_Get_MCU_Info(void) { return Shielded([&] { return g_VC_Core.GetMcuInfo(); }); }
KORVSDK_BOOL KORVSDK_Get_USB_APP_Info(void) { return Shielded([&] { return g_VC_Core.GetUsbAppInfo(); }); }

KORVSDK_BOOL KORVSDK_Set_GPIO_LED(uint8_t value) { return Shielded([&] { return g_VC_Core.SetGpioLed(value); }); }
KORVSDK_BOOL KORVSDK_Set_Update_GPIO_LED_Lights(uint8_t a, uint8_t b, uint16_t c) {
    return Shielded([&] { return g_VC_Core.SetUpdateGpioLedLights(a, b, c); });
}

KORVSDK_BOOL KORVSDK_Check_Is_MCU_OnBoard(void) { return Shielded([&] { return g_VC_Core.CheckMcuOnBoard(); }); }
KORVSDK_BOOL KORVSDK_Check_Is_AudioIC_OnBoard(void) { return Shielded([&] { return g_VC_Core.CheckAudioIcOnBoard(); }); }
KORVSDK_BOOL KORVSDK_Save_Audio_HDCP_Parameters(void) { return Shielded([&] { return g_VC_Core.SaveParameters(); }); }
KORVSDK_BOOL KORVSDK_Enter_Boot_Mode(void) { return Shielded([&] { return g_VC_Core.EnterBootMode(); }); }
KORVSDK_BOOL KORVSDK_Check_Is_Boot_Mode(void) { return Shielded([&] { return g_VC_Core.CheckBootMode(); }); }

KORVSDK_BOOL KORVSDK_Audio_Get_AUX_In_Mute(uint8_t* value) {
    return Shielded([&] { return g_VC_Core.AudioAuxInMute(value, kAudioGet); });
}
KORVSDK_BOOL KORVSDK_Audio_Set_AUX_In_Mute(uint8_t value) {
    return Shielded([&] { return g_VC_Core.AudioAuxInMute(&value, kAudioSet); });
}
KORVSDK_BOOL KORVSDK_Audio_Get_HP_Out_Mute(uint8_t* value) {
    return Shielded([&] { return g_VC_Core.AudioHpOutMute(value, kAudioGet); });
}
KORVSDK_BOOL KORVSDK_Audio_Set_HP_Out_Mute(uint8_t value) {
    return Shielded([&] { return g_VC_Core.AudioHpOutMute(&value, kAudioSet); });
}
KORVSDK_BOOL KORVSDK_Audio_Get_MIC_In_Mute(uint8_t* value) {
    return Shielded([&] { return g_VC_Core.AudioMicInMute(value, kAudioGet); });
}
KORVSDK_BOOL KORVSDK_Audio_Set_MIC_In_Mute(uint8_t value) {
    return Shielded([&] { return g_VC_Core.AudioMicInMute(&value, kAudioSet); });
}
KORVSDK_BOOL KORVSDK_Audio_Get_AUX_In_Volume(uint8_t* value) {
    return Shielded([&] { return g_VC_Core.AudioAuxInVolume(value, kAudioGet); });
}
KORVSDK_BOOL KORVSDK_Audio_Set_AUX_In_Volume(uint8_t value) {
    return Shielded([&] { return g_VC_Core.AudioAuxInVolume(&value, kAudioSet); });
}
KORVSDK_BOOL KORVSDK_Audio_Get_HP_Out_Volume(uint8_t* value) {
    return Shielded([&] { return g_VC_Core.AudioHpOutVolume(value, kAudioGet); });
}
KORVSDK_BOOL KORVSDK_Audio_Set_HP_Out_Volume(uint8_t value) {
    return Shielded([&] { return g_VC_Core.AudioHpOutVolume(&value, kAudioSet); });
}
KORVSDK_BOOL KORVSDK_Audio_Get_MIC_In_Volume(uint8_t* value) {
    return Shielded([&] { return g_VC_Core.AudioMicInVolume(value, kAudioGet); });
}
KORVSDK_BOOL KORVSDK_Audio_Set_MIC_In_Volume(uint8_t value) {
    return Shielded([&] { return g_VC_Core.AudioMicInVolume(&value, kAudioSet); });
}

// The HDMI side tone is wired to the AUX-in controls on this device: the
// side-tone exports are the AUX-in operations, not operations of their own.
KORVSDK_BOOL KORVSDK_Audio_Get_HDMI_SideTone_Mute(uint8_t* value) {
    return Shielded([&] { return g_VC_Core.AudioAuxInMute(value, kAudioGet); });
}
KORVSDK_BOOL KORVSDK_Audio_Set_HDMI_SideTone_Mute(uint8_t value) {
    return Shielded([&] { return g_VC_Core.AudioAuxInMute(&value, kAudioSet); });
}
KORVSDK_BOOL KORVSDK_Audio_Get_HDMI_SideTone_Volume(uint8_t* value) {
    return Shielded([&] { return g_VC_Core.AudioAuxInVolume(value, kAudioGet); });
}
KORVSDK_BOOL KORVSDK_Audio_Set_HDMI_SideTone_Volume(uint8_t value) {
    return Shielded([&] { return g_VC_Core.AudioAuxInVolume(&value, kAudioSet); });
}

KORVSDK_BOOL KORVSDK_Get_HDMI_Video_Locked(uint8_t* value) {
    return Shielded([&] { return g_VC_Core.GetHdmiVideoLocked(value); });
}
KORVSDK_BOOL KORVSDK_Get_HP_Mic_PlugIn(uint8_t* value) { return Shielded([&] { return g_VC_Core.GetHpMicPlugIn(value); }); }
KORVSDK_BOOL KORVSDK_Get_Line_In_PlugIn(uint8_t* value) {
    return Shielded([&] { return g_VC_Core.GetLineInPlugIn(value); });
}

KORVSDK_BOOL KORVSDK_Switch_Console_Logging_Mode(bool on) {
    g_VC_Core.SwitchConsoleLogging(on);
    return 1;
}

KORVSDK_BOOL KORVSDK_Free_DeviceList(DeviceEntry** list, uint16_t* count) {
    // Both pointers are the caller's and must be valid; the array they
    // designate may be null. A null pointer is refused quietly rather than
    // dereferenced.
    if (list == nullptr || count == nullptr) return 1;
    g_VC_Core.ForgetDeviceList(*list);
    VideoConsoleCore::FreeDeviceEntries(*list, *count);
    *list = nullptr;
    *count = 0;
    return 1;
}

KORVSDK_BOOL KORVSDK_Free_PeCHAR(char** text) {
    if (text == nullptr) return 1;
    if (*text != g_noText) std::free(*text);
    *text = nullptr;
    return 1;
}

int KORVSDK_Set_Debug_Output_Handler(KORVSDK_DebugOutputHandler handler) {
    g_VC_Core.SetDebugOutputHandler(handler);
    return 1;
}

KORVSDK_BOOL KORVSDK_Read_USB_Flash(const char* path) { return Shielded([&] { return g_VC_Core.ReadUsbFlash(path); }); }

char* KORVSDK_Get_Device_Location(const DeviceEntry* entry) {
    return Shielded([&]() -> char* {
        const std::string location = g_VC_Core.EntryLocation(entry);
        if (location.empty()) return nullptr;
        char* text = HeapText(location);
        return text == g_noText ? nullptr : text;
    });
}

}  // extern "C"
