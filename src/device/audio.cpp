// The board's audio path, run by the microcontroller: volumes and mutes of
// the headphone output, the microphone input and the analogue AUX input
// (the HDMI side-tone rides on the AUX input's controls), the plug-in and
// video-lock states, and whether an audio codec is fitted.
//
// A volume is read where it is written. A mute is a command register that
// cannot be read (0x18..0x1A) with its state in another register
// (0x13..0x15). Values pass through unchanged: the microcontroller's
// firmware defines their range.
#include <cstdio>
#include <string>

#include "core/VideoConsoleCoreImp.h"
#include "device/mcu_access.h"

namespace VideoConsoleCore {

namespace {

struct AudioControl {
    uint8_t writeRegister;
    uint8_t readRegister;
};

constexpr AudioControl kAuxInMute{0x1A, 0x15};
constexpr AudioControl kAuxInVolume{0x12, 0x12};
constexpr AudioControl kHpOutMute{0x18, 0x13};
constexpr AudioControl kHpOutVolume{0x10, 0x10};
constexpr AudioControl kMicInMute{0x19, 0x14};
constexpr AudioControl kMicInVolume{0x11, 0x11};

constexpr uint8_t kRegHpMicPlug = 0x16;
constexpr uint8_t kRegLineInPlug = 0x17;
constexpr uint8_t kRegVideoLocked = 0x0C;

constexpr int kAudioSet = 0;
constexpr int kAudioGet = 1;

// Variants of the board-variant register that name a known board (0..4) or
// an application that does not say (0xFF).
bool KnownBoardVariant(uint8_t variant) { return variant <= 4 || variant == 0xFF; }

bool RunControl(VideoConsoleCoreImp& core, const AudioControl& control, uint8_t* value,
                int operation) {
    // Boards without the audio path take every control as done.
    if (core.m_audioVariant > 1) return true;
    if (operation != kAudioSet && operation != kAudioGet) return true;
    if (value == nullptr) return false;
    if (operation == kAudioSet) return WriteMcuRegister(core, control.writeRegister, *value) != 0;
    return ReadMcuRegister(core, control.readRegister, value) != 0;
}

bool ReadState(VideoConsoleCoreImp& core, uint8_t reg, uint8_t* value) {
    if (value == nullptr) return false;
    return ReadMcuRegister(core, reg, value) != 0;
}

// Reads two ID bytes of the codec through the microcontroller's I2C master
// (bus 1) and compares them.
bool CodecAnswers(VideoConsoleCoreImp& core, uint8_t device, uint8_t reg, uint8_t first,
                  uint8_t second) {
    uint8_t id[2] = {};
    return BridgeI2cRead(core, 1, device, reg, 1, id, 2) && id[0] == first && id[1] == second;
}

// Looks for the codec the board variant is built with.
bool ProbeAudioCodec(VideoConsoleCoreImp& core) {
    if (core.IsUpdating()) return false;
    switch (core.m_boardVariant) {
        case 0: return CodecAnswers(core, 0x34, 0xFE, 0x10, 0xEC);
        case 1:
            return CodecAnswers(core, 0x36, 0xFE, 0x10, 0xEC) ||
                   CodecAnswers(core, 0x34, 0x7E, 0x00, 0x1A);
        case 2: return CodecAnswers(core, 0x34, 0x7E, 0x00, 0x1A);
        case 3: return false;  // a board without codec
        case 4: return CodecAnswers(core, 0x38, 0xFE, 0x10, 0xEC);
        default: return CodecAnswers(core, 0x34, 0xFE, 0x10, 0xEC);
    }
}

const char* TrueFalse(bool flag) { return flag ? "true" : "false"; }

}  // namespace

bool VideoConsoleCoreImp::AudioAuxInMute(uint8_t* value, int operation) {
    return RunControl(*this, kAuxInMute, value, operation);
}
bool VideoConsoleCoreImp::AudioHpOutMute(uint8_t* value, int operation) {
    return RunControl(*this, kHpOutMute, value, operation);
}
bool VideoConsoleCoreImp::AudioMicInMute(uint8_t* value, int operation) {
    return RunControl(*this, kMicInMute, value, operation);
}
bool VideoConsoleCoreImp::AudioAuxInVolume(uint8_t* value, int operation) {
    return RunControl(*this, kAuxInVolume, value, operation);
}
bool VideoConsoleCoreImp::AudioHpOutVolume(uint8_t* value, int operation) {
    return RunControl(*this, kHpOutVolume, value, operation);
}
bool VideoConsoleCoreImp::AudioMicInVolume(uint8_t* value, int operation) {
    return RunControl(*this, kMicInVolume, value, operation);
}

bool VideoConsoleCoreImp::GetHpMicPlugIn(uint8_t* value) {
    return ReadState(*this, kRegHpMicPlug, value);
}
bool VideoConsoleCoreImp::GetLineInPlugIn(uint8_t* value) {
    return ReadState(*this, kRegLineInPlug, value);
}
bool VideoConsoleCoreImp::GetHdmiVideoLocked(uint8_t* value) {
    if (value == nullptr || !CheckMcu(*this)) return false;
    return ReadState(*this, kRegVideoLocked, value);
}

uint8_t VideoConsoleCoreImp::CheckAudioIcOnBoard() {
    if (!RequireDevice()) return 0;
    const int setting = IntegerSetting("CheckAudioViaMCUI2C", 10).value_or(0);
    uint8_t variant = 0xDD;  // stays when the register cannot be read
    ReadMcuRegister(*this, mcu_reg::kBoardVariant, &variant);
    const bool mcuFlag = KnownBoardVariant(variant);

    char text[96];
    uint8_t result;
    if (setting == 0) {
        result = mcuFlag;
        std::snprintf(text, sizeof text, "[Check_Audio] AudioIC:0x%02x, MCU:%s", variant,
                      TrueFalse(mcuFlag));
    } else if (variant == 3) {
        result = mcuFlag;
        std::snprintf(text, sizeof text, "[Check_Audio] AudioIC:0x%02x, MCU:%s, I2C:Not Support",
                      variant, TrueFalse(mcuFlag));
    } else {
        const bool i2cFlag = setting == 1 && ProbeAudioCodec(*this);
        result = mcuFlag || i2cFlag;
        std::snprintf(text, sizeof text, "[Check_Audio] AudioIC:0x%02x, MCU:%s, I2C:%s", variant,
                      TrueFalse(mcuFlag), TrueFalse(i2cFlag));
    }
    NotifyDeviceState(text);
    return result;
}

}  // namespace VideoConsoleCore
