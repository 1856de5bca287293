// Microcontroller updates through the exported functions on the virtual
// device, with the device's real waits: a small and the largest image, the
// progress of both phases, and the new version once the board is re-plugged.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "KORVSDKDeviceTool.h"
#include "sessions/session_harness.h"
#include "sessions/update_session.h"
#include "support/test_support.h"
#include "virtual/mcu/mcu_image.h"

namespace vd = VideoConsoleCore::virtualdev;

namespace {

std::vector<std::string> g_states, g_messages;
void OnFwState(DevFwUpdateStateInfo* info) {
    g_states.emplace_back(info->state ? info->state : "");
    g_messages.emplace_back(info->message ? info->message : "");
}

std::string Take(char* text) {
    std::string copy = text ? text : "<null>";
    KORVSDK_Free_PeCHAR(&text);
    return copy;
}

using McuUpdate = korvsdk_test::UpdateSession<size_t>;

}  // namespace

TEST_P(McuUpdate, ProgramsTheBoardAndItComesBackWithTheNewVersion) {
    korvsdk_test::WriteFile(
        folder_.path() / "setting.cfg",
        "EnableLocalLogging=0\nDevIDNum=1\nDevDrvID0=USB\\VID_FFF0&PID_0C01\nFW_Overwrite=0\n" +
            korvsdk_test::PrepareSessionBackend("Virtual0_ReplugAfterUpdateMs=2000\n"));
    ASSERT_EQ(KORVSDK_Init("setting.cfg"), 1);
    ASSERT_NO_FATAL_FAILURE(ScanAndSelect());
    ASSERT_EQ(Take(KORVSDK_Get_MCU_FW_Ver()), "0d.17.00.010000");

    vd::McuImageOptions image;
    image.size = GetParam();
    image.version = 0x18;
    const std::string path = (folder_.path() / "new.bin").string();
    ASSERT_TRUE(vd::WriteMcuImageFile(path, vd::BuildMcuImage(image)));
    ASSERT_EQ(KORVSDK_Set_MCU_BinFile(path.c_str()), 1);
    ASSERT_EQ(KORVSDK_Open_CB_DevFwUpdate_StateInfo(OnFwState), 1);
    g_states.clear();
    g_messages.clear();
    ASSERT_EQ(KORVSDK_Start_MCU_FwUpdate(), 1);
    EXPECT_EQ(Take(KORVSDK_Get_MCU_FW_Ver()), "");  // refused while it runs
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(50);
    while (KORVSDK_Check_IsFirmwareUpdating() == 1 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(KORVSDK_Check_IsFirmwareUpdating(), 0);

    ASSERT_FALSE(g_states.empty());
    EXPECT_EQ(g_states.front(), "Updating initialization");
    EXPECT_EQ(g_states.back(), "UpdateCompleted");
    EXPECT_EQ(g_messages.back(), "The MCU firmware has been updated, please re-plug the device.");
    for (const char* phase : {"MCU firmware is updating..", "MCU firmware is verifying.."}) {
        int records = 0;
        for (size_t i = 0; i < g_states.size(); ++i)
            records += g_states[i] == "Updating" && g_messages[i] == phase;
        EXPECT_GT(records, 0) << phase;
        EXPECT_LE(records, 100) << phase;
    }

    // Re-plugged 2 s after the last bootloader command (longer than the
    // update's own pauses of up to 1.5 s).
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    ASSERT_NO_FATAL_FAILURE(ScanAndSelect());
    EXPECT_EQ(Take(KORVSDK_Get_MCU_FW_Ver()), "0d.18.00.010000");
}

INSTANTIATE_TEST_SUITE_P(Size, McuUpdate, ::testing::Values(size_t{4096}, size_t{114688}),
                         [](const auto& param) { return "Bytes" + std::to_string(param.param); });
