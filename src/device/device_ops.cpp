// Device functions still to come: the information queries and the audio
// controls. The guards are in place; until their exchanges with the device
// arrive they refuse after their guards.
// The audio controls and states have no guards: they go to the device
// directly.
#include "core/VideoConsoleCoreImp.h"

namespace VideoConsoleCore {

bool VideoConsoleCoreImp::GetMcuInfo() {
    if (!RequireIdleDevice(kRefuseMcuInfo)) return false;
    return false;
}

bool VideoConsoleCoreImp::GetHdmiInfo() { return RequireDevice() && false; }
bool VideoConsoleCoreImp::GetUsbAppInfo() { return RequireDevice() && false; }
bool VideoConsoleCoreImp::CheckAudioIcOnBoard() { return RequireDevice() && false; }

bool VideoConsoleCoreImp::AudioAuxInMute(uint8_t*, int) { return false; }
bool VideoConsoleCoreImp::AudioHpOutMute(uint8_t*, int) { return false; }
bool VideoConsoleCoreImp::AudioMicInMute(uint8_t*, int) { return false; }
bool VideoConsoleCoreImp::AudioAuxInVolume(uint8_t*, int) { return false; }
bool VideoConsoleCoreImp::AudioHpOutVolume(uint8_t*, int) { return false; }
bool VideoConsoleCoreImp::AudioMicInVolume(uint8_t*, int) { return false; }
bool VideoConsoleCoreImp::GetHdmiVideoLocked(uint8_t*) { return false; }
bool VideoConsoleCoreImp::GetHpMicPlugIn(uint8_t*) { return false; }
bool VideoConsoleCoreImp::GetLineInPlugIn(uint8_t*) { return false; }

}  // namespace VideoConsoleCore
