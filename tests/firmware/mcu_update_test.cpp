// The microcontroller update against the virtual board: images of every
// size class, a bootloader that stays busy or finds a page it cannot
// verify, a microcontroller that does not answer, and the bootloader entry
// riding out the restart.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "device/mcu_access.h"
#include "firmware/update_rig.h"

using namespace VideoConsoleCore;
using korvsdk_test::g_messages;
using korvsdk_test::g_states;
using korvsdk_test::MessageLog;
using korvsdk_test::Rig;

namespace {

constexpr const char* kFailed = "The firmware update of MCU is failed.";

}  // namespace

TEST(McuUpdate, ImagesAndFaults) {
    struct Row {
        const char* name;
        size_t size;
        const char* settings;
        bool ok;
        const char* stepError;  // the record before the final one; nullptr: none
        const char* said;
        bool busyLine;  // "M0_WaitBusy failed." in the log: the erase step only
    };
    const Row rows[] = {
        {"4 KiB", 4096, "", true, nullptr, "Call ExitThread_1.\n", false},
        {"largest", 114688, "", true, nullptr, "MCU firmware is verify..\n", false},
        {"one byte too big", 114689, "", false, nullptr, "File is null or too big!\n", false},
        {"busy for ever", 4096, "Virtual0_BootloaderStaysBusy=1\n", false, "MCU Error:Erase Fail!",
         "Erase Fail!\n", true},
        {"verify mismatch", 4096, "Virtual0_BootloaderVerifyFailAt=1280\n", false,
         "MCU Error:Verify Fail!", "Verify Fail!\n", false},
        {"silent", 4096, "Virtual0_McuNoAnswer=1\n", false, "MCU Error:Enter Boot Mode Fail!",
         "MCU Error:Enter Boot Mode Fail!\n", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Rig rig(std::string(row.settings) + "EnableLocalLogging=1\n");
        ASSERT_TRUE(rig.ok()) << MessageLog::All();
        rig.core_.m_updateWaitDivisor = 10;
        virtualdev::McuImageOptions image;
        image.size = row.size;
        image.version = 0x21;
        const std::string path = rig.WriteMcu(image);
        MessageLog::Clear();
        g_states.clear();
        ASSERT_TRUE(rig.Update(path, kFirmwareMcuBin)) << MessageLog::All();
        EXPECT_EQ(rig.core_.m_deviceState, kDeviceStateSelected);
        EXPECT_EQ(MessageLog::Count(row.said), 1) << MessageLog::All();
        ASSERT_GE(g_states.size(), 3u);
        EXPECT_EQ(g_states[1], "Updating initialization");  // after the file's record
        EXPECT_EQ(g_states.back(), row.ok ? "UpdateCompleted" : "UpdateFailed");
        if (!row.ok) {
            EXPECT_EQ(g_messages.back(), kFailed);
        }
        if (row.stepError != nullptr) {
            EXPECT_EQ(g_messages[g_messages.size() - 2], row.stepError);
        }
        if (row.ok) {
            // Progress in both phases, then the new version once restarted.
            int program = 0, verify = 0;
            for (size_t i = 0; i < g_states.size(); ++i) {
                program += g_states[i] == "Updating" && g_messages[i] == "MCU firmware is updating..";
                verify += g_states[i] == "Updating" && g_messages[i] == "MCU firmware is verifying..";
            }
            EXPECT_GT(program, 0);
            EXPECT_GT(verify, 0);
            EXPECT_LE(program, 100);
            rig.Device().Replug(0);
            ASSERT_TRUE(rig.Reselect());
            EXPECT_EQ(rig.core_.m_mcuFwVersion.substr(0, 5), "0d.21");
        }
        const std::string log = korvsdk_test::ReadFile(rig.core_.LogFilePath());
        EXPECT_EQ(log.find("M0_WaitBusy failed.") != std::string::npos, row.busyLine);
        if (row.busyLine) {
            EXPECT_NE(log.find("[M0_WaitBusy] AccessIicData read time out."), std::string::npos);
        }
    }
}

// The updating light during a programming, read from the microcontroller's
// write log: the blink goes on from where the counter stood (an odd count
// gives the dark half first), it blinks in the verify loop as in the program
// loop, and it asks no model (model 6 has an RGB light, not the GPIO LED).
TEST(McuUpdate, TheUpdatingLightBlinks) {
    struct Row {
        const char* settings;
        bool stageToggles;  // the GPIO-LED models mark the stages too
    };
    for (const Row& row : {Row{"", true}, Row{"Virtual0_ModelCode=6\n", false}}) {
        SCOPED_TRACE(row.settings);
        Rig rig(std::string(row.settings) +
                "Virtual0_McuWriteLog=writes.txt\nVirtual0_McuVerifyPageMs=15\n");
        ASSERT_TRUE(rig.ok());
        rig.core_.m_updateWaitDivisor = 10;
        rig.core_.m_ledPeriod[0] = 100;
        rig.core_.m_toggleCounter = 7;
        virtualdev::McuImageOptions image;
        image.size = 4096;  // 32 pages, verified in about half a second
        std::remove("writes.txt");
        ASSERT_TRUE(rig.Update(rig.WriteMcu(image), kFirmwareMcuBin));
        ASSERT_EQ(g_states.back(), "UpdateCompleted");
        // The lines from the first to the last verify command.
        std::vector<std::string> lines;
        std::istringstream log(korvsdk_test::ReadFile("writes.txt"));
        for (std::string line; std::getline(log, line);) lines.push_back(line);
        const auto isVerify = [](const std::string& l) { return l.rfind("E2 76", 0) == 0; };
        const auto first = std::find_if(lines.begin(), lines.end(), isVerify);
        const auto last = std::find_if(lines.rbegin(), lines.rend(), isVerify).base();
        ASSERT_NE(first, lines.end());
        const auto isLed = [](const std::string& l) { return l.rfind("C8 ", 0) == 0; };
        EXPECT_GT(std::count_if(first, last, isLed), 0);
        const auto led = std::find_if(lines.begin(), lines.end(), isLed);
        ASSERT_NE(led, lines.end());
        // Counter 7: the first toggle is the dark pattern.
        if (row.stageToggles) {
            EXPECT_EQ(*led, "C8 83");
        }
    }
}

// A start that cannot read its file says so while the device is still
// taken, then gives it back, then tells the callback.
namespace {
std::vector<std::string> g_events;
VideoConsoleCoreImp* g_core = nullptr;
void EventText(const char* text) {
    g_events.push_back(std::string(text) + " @" + std::to_string(g_core->m_deviceState.load()));
}
void EventState(DevFwUpdateStateInfo* info) {
    if (info->state != nullptr) EventText(info->state);
}
}  // namespace

TEST(McuUpdate, AFailedStartSaysWhyBeforeItGivesTheDeviceBack) {
    Rig rig("");
    ASSERT_TRUE(rig.ok());
    virtualdev::McuImageOptions image;
    const std::string path = rig.WriteMcu(image);
    ASSERT_TRUE(rig.core_.SetFirmwareFile(path.c_str(), kFirmwareMcuBin));
    std::remove(path.c_str());
    g_core = &rig.core_;
    g_events.clear();
    rig.core_.SetDebugOutputHandler(EventText);
    rig.core_.CloseFwUpdateStateCallback();
    rig.core_.OpenFwUpdateStateCallback(EventState);
    EXPECT_FALSE(rig.core_.StartMcuFwUpdate());
    rig.core_.SetDebugOutputHandler(nullptr);
    const auto at = std::find(g_events.begin(), g_events.end(), "MCU Firmware read failed @3");
    ASSERT_NE(at, g_events.end()) << ::testing::PrintToString(g_events);
    EXPECT_EQ(g_events.back(), "UpdateFailed @2");
}

TEST(McuUpdate, LastPageIsFilledWithErasedBytes) {
    // 129 bytes: too short to carry an identity, so only force mode takes it.
    Rig rig("FW_Overwrite=99\n");
    ASSERT_TRUE(rig.ok());
    rig.core_.m_updateWaitDivisor = 10;
    virtualdev::McuImageOptions image;
    image.size = 129;
    const std::vector<uint8_t> bytes = virtualdev::BuildMcuImage(image);
    ASSERT_TRUE(rig.Update(rig.WriteMcu(image), kFirmwareMcuBin));
    EXPECT_EQ(g_states.back(), "UpdateCompleted");
    const std::vector<uint8_t>& memory = rig.Device().Mcu(0).ProgramMemory();
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), memory.begin()));
    EXPECT_TRUE(std::all_of(memory.begin() + 129, memory.begin() + 256, [](uint8_t b) { return b == 0xFF; }));
}

// The entry into the bootloader: the microcontroller acknowledges nothing
// while it restarts (30 ms by default); that is waited out, within the
// entry's 300 looks.
TEST(McuUpdate, BootloaderEntryRidesOutTheRestart) {
    struct Row {
        const char* settings;
        uint8_t version;  // 0: the entry fails
        const char* said;
    };
    const Row rows[] = {
        {"", 3, nullptr},
        {"Virtual0_McuRestartNackMs=200\n", 3, nullptr},
        {"Virtual0_McuBootJumpMs=100\n", 3, nullptr},  // reads 2 (restarting) for a while
        {"Virtual0_BootloaderVersion=0\n", 0, nullptr},
        {"Virtual0_BootloaderVersion=255\n", 0xFF, nullptr},
        {"Virtual0_McuRestartNackMs=5000\n", 0, "set boot mode time out!\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.settings);
        Rig rig(row.settings);
        ASSERT_TRUE(rig.ok());
        MessageLog::Clear();
        EXPECT_EQ(EnterMcuBootloader(rig.core_), row.version);
        if (row.said != nullptr) {
            EXPECT_EQ(MessageLog::Count(row.said), 1) << MessageLog::All();
        }
        // Already in the bootloader: it answers at once.
        if (row.version == 3) {
            EXPECT_EQ(EnterMcuBootloader(rig.core_), 3);
        }
    }
    // A failed exchange with the bridge ends the entry at once.
    Rig gone("");
    ASSERT_TRUE(gone.ok());
    gone.Device().Unplug(0);
    MessageLog::Clear();
    EXPECT_EQ(EnterMcuBootloader(gone.core_), 0);
    EXPECT_EQ(MessageLog::Count("set AP_GPIO_SET fail!\n"), 1) << MessageLog::All();
}
