// Audio controls, plug-in and video-lock states and the audio-chip check on
// a selected virtual device.
#include <gtest/gtest.h>

#include <string>

#include "device/mcu_access.h"
#include "support/virtual_session.h"

using korvsdk_test::MessageLog;
using korvsdk_test::StateRecords;
using korvsdk_test::VirtualSession;
using namespace VideoConsoleCore;

namespace {

using Control = bool (VideoConsoleCoreImp::*)(uint8_t*, int);

struct ControlCase {
    const char* name;
    Control control;
    uint8_t stateRegister;  // where the microcontroller keeps the value
    uint8_t value;
};

const ControlCase kControls[] = {
    {"HP out volume", &VideoConsoleCoreImp::AudioHpOutVolume, 0x10, 37},
    {"MIC in volume", &VideoConsoleCoreImp::AudioMicInVolume, 0x11, 55},
    {"AUX in volume", &VideoConsoleCoreImp::AudioAuxInVolume, 0x12, 99},
    {"HP out mute", &VideoConsoleCoreImp::AudioHpOutMute, 0x13, 1},
    {"MIC in mute", &VideoConsoleCoreImp::AudioMicInMute, 0x14, 1},
    {"AUX in mute", &VideoConsoleCoreImp::AudioAuxInMute, 0x15, 1},
};

class Audio : public VirtualSession {
protected:
    void SetUp() override {
        VirtualSession::SetUp();
        Start();
    }
    int McuRegister(uint8_t reg) {
        uint8_t value = 0;
        return ReadMcuRegister(core_, reg, &value) ? value : -1;
    }
    std::string LastState() const {
        return StateRecords().empty() ? "" : StateRecords().back().message;
    }
};

}  // namespace

TEST_F(Audio, EveryControlReadsBackWhatWasSet) {
    for (const ControlCase& c : kControls) {
        uint8_t value = c.value;
        ASSERT_TRUE((core_.*c.control)(&value, 0)) << c.name;
        EXPECT_EQ(McuRegister(c.stateRegister), c.value) << c.name;
        uint8_t back = 0xEE;
        ASSERT_TRUE((core_.*c.control)(&back, 1)) << c.name;
        EXPECT_EQ(back, c.value) << c.name;

        value = 0;
        ASSERT_TRUE((core_.*c.control)(&value, 0)) << c.name;
        ASSERT_TRUE((core_.*c.control)(&back, 1)) << c.name;
        EXPECT_EQ(back, 0) << c.name;
    }
}

TEST_F(Audio, BoardsWithoutTheAudioPathTakeEveryControlAsDone) {
    uint8_t value = 20;
    ASSERT_TRUE(core_.AudioHpOutVolume(&value, 0));
    core_.m_audioVariant = 2;
    value = 90;
    EXPECT_TRUE(core_.AudioHpOutVolume(&value, 0));
    uint8_t back = 0xEE;
    EXPECT_TRUE(core_.AudioHpOutVolume(&back, 1));
    EXPECT_EQ(back, 0xEE);
    EXPECT_EQ(McuRegister(0x10), 20);
}

TEST_F(Audio, UnknownOperationsAndFailures) {
    uint8_t value = 7;
    EXPECT_TRUE(core_.AudioMicInVolume(&value, 5));
    EXPECT_EQ(value, 7);
    EXPECT_FALSE(core_.AudioMicInVolume(nullptr, 1));
    Device().Mcu(0).Faults().nackRegister = 0x11;
    EXPECT_FALSE(core_.AudioMicInVolume(&value, 0));
    EXPECT_FALSE(core_.AudioMicInVolume(&value, 1));
}

TEST_F(Audio, PlugAndLockStates) {
    uint8_t state = 0xEE;
    ASSERT_TRUE(core_.GetHpMicPlugIn(&state));
    EXPECT_EQ(state, 0);
    Device().Mcu(0).SetHpMicPlugged(true);
    Device().Mcu(0).SetLineInPlugged(true);
    ASSERT_TRUE(core_.GetHpMicPlugIn(&state));
    EXPECT_EQ(state, 1);
    ASSERT_TRUE(core_.GetLineInPlugIn(&state));
    EXPECT_EQ(state, 1);

    ASSERT_TRUE(core_.GetHdmiVideoLocked(&state));
    EXPECT_EQ(state, 1);
    Device().Mcu(0).SetVideoLocked(false);
    ASSERT_TRUE(core_.GetHdmiVideoLocked(&state));
    EXPECT_EQ(state, 0);

    // Without a microcontroller the lock is not even asked for.
    Device().Mcu(0).Faults().nackAll = true;
    EXPECT_FALSE(core_.GetHdmiVideoLocked(&state));
    EXPECT_FALSE(core_.GetLineInPlugIn(&state));
}

TEST_F(Audio, AudioChipCheckFollowsTheSetting) {
    // Board variant 0 with its codec at 0x34.
    EXPECT_EQ(core_.CheckAudioIcOnBoard(), 1);
    EXPECT_EQ(LastState(), "[Check_Audio] AudioIC:0x00, MCU:true");

    core_.m_settings["CheckAudioViaMCUI2C"] = "1";
    EXPECT_EQ(core_.CheckAudioIcOnBoard(), 1);
    EXPECT_EQ(LastState(), "[Check_Audio] AudioIC:0x00, MCU:true, I2C:true");

    // Any other non-zero value skips the codec probe.
    core_.m_settings["CheckAudioViaMCUI2C"] = "2";
    EXPECT_EQ(core_.CheckAudioIcOnBoard(), 1);
    EXPECT_EQ(LastState(), "[Check_Audio] AudioIC:0x00, MCU:true, I2C:false");
}

TEST_F(Audio, AudioChipCheckWithoutAnswers) {
    core_.m_settings["CheckAudioViaMCUI2C"] = "1";
    Device().Mcu(0).Faults().nackAll = true;
    // Register 0xA2 unreadable: the byte keeps its preset 0xDD, which names
    // no board; the codec probe cannot pass either.
    EXPECT_EQ(core_.CheckAudioIcOnBoard(), 0);
    EXPECT_EQ(LastState(), "[Check_Audio] AudioIC:0xdd, MCU:false, I2C:false");
}
