// USB firmware updates through the exported functions on the virtual
// device: a whole-flash and a firmware-area update from the start to the
// device re-plugged, with the progress records, the refusals while the
// writer runs, and queries from the caller's thread beside it.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "KORVSDKDeviceTool.h"
#include "sessions/session_harness.h"
#include "sessions/update_session.h"
#include "support/test_support.h"
#include "virtual/device/usb_image.h"

using korvsdk_test::MessageLog;
namespace vd = VideoConsoleCore::virtualdev;

namespace {

struct Record {
    std::string state, message;
    float percent;
};
std::vector<Record> g_records;
void OnFwState(DevFwUpdateStateInfo* info) {
    g_records.push_back({info->state ? info->state : "", info->message ? info->message : "",
                         info->percent});
}
std::string g_lastDeviceText1;
void OnDeviceState(DeviceStateInfo* info) { g_lastDeviceText1 = info->text1 ? info->text1 : ""; }

std::string Take(char* text) {
    std::string copy = text ? text : "<null>";
    KORVSDK_Free_PeCHAR(&text);
    return copy;
}

bool WaitUntilIdle() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (KORVSDK_Check_IsFirmwareUpdating() == 1) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// The "Updating" records of one phase: each more than 1.0 above the one
// before, at most 100 of them, reaching the end.
void ExpectPhase(const std::string& message) {
    std::vector<float> steps;
    for (const Record& r : g_records)
        if (r.state == "Updating" && r.message == message) steps.push_back(r.percent);
    ASSERT_FALSE(steps.empty()) << message;
    EXPECT_LE(steps.size(), 100u);
    EXPECT_GT(steps[0], 1.0f);
    for (size_t i = 1; i < steps.size(); ++i) EXPECT_GT(steps[i] - steps[i - 1], 1.0f) << i;
    EXPECT_GT(steps.back(), 98.0f);  // a last step of 1.0 or less is not reported
}

using UsbUpdate = korvsdk_test::UpdateSession<bool>;

}  // namespace

TEST_P(UsbUpdate, RunsToTheEndAndTheDeviceComesBackWithIt) {
    const bool firmwareArea = GetParam();
    // Someone re-plugs the device 300 ms after the update.
    korvsdk_test::WriteFile(
        folder_.path() / "setting.cfg",
        std::string("EnableLocalLogging=0\nDevIDNum=1\nDevDrvID0=USB\\VID_FFF0&PID_0C01\n"
                    "FW_Overwrite=0\n") +
            (firmwareArea ? "USB_Burn_Area=1\n" : "") +
            korvsdk_test::PrepareSessionBackend("Virtual0_ReplugAfterUpdateMs=300\n"));
    ASSERT_EQ(KORVSDK_Init("setting.cfg"), 1);
    ASSERT_NO_FATAL_FAILURE(ScanAndSelect());
    ASSERT_EQ(Take(KORVSDK_Get_USB_FW_Ver()), "01.00.01.09.0000");

    vd::UsbImageOptions image;
    image.versionText = "01.00.02.00.0000";
    const std::string path = (folder_.path() / "new.hex").string();
    ASSERT_TRUE(vd::WriteUsbImageFile(path, vd::BuildUsbImage(image)));
    ASSERT_EQ(KORVSDK_Set_USB_HexFile(path.c_str()), 1);

    KORVSDK_Set_Debug_Output_Handler(MessageLog::Collect);
    ASSERT_EQ(KORVSDK_Open_CB_DevFwUpdate_StateInfo(OnFwState), 1);
    MessageLog::Clear();
    ASSERT_EQ(KORVSDK_Start_USB_FwUpdate(), 1);
    EXPECT_EQ(KORVSDK_Check_IsFirmwareUpdating(), 1);

    // Beside the writer: refusals, and queries that stay allowed.
    EXPECT_EQ(KORVSDK_Set_USB_HexFile(path.c_str()), 0);
    EXPECT_EQ(Take(KORVSDK_Get_USB_FW_Ver()), "");
    EXPECT_EQ(Take(KORVSDK_Get_USB_HexFile_Ver()), "");
    EXPECT_EQ(KORVSDK_Select_Device(&list_[0]), 0);
    EXPECT_EQ(KORVSDK_Start_USB_FwUpdate(), 0);
    EXPECT_EQ(KORVSDK_Get_Device_USBType(), 3);
    uint8_t volume = 0;
    EXPECT_EQ(KORVSDK_Audio_Get_HP_Out_Volume(&volume), 1);
    EXPECT_EQ(KORVSDK_Check_Is_MCU_OnBoard(), 1);

    ASSERT_TRUE(WaitUntilIdle());
    for (const char* said :
         {"Cannot set FW File when you update the firmware!\n",
          "Cannot Get USB FW Version when you update the firmware!\n",
          "Cannot read FW File Version when you update the firmware!\n",
          "Cannot switch device when you update the firmware!\n", "Please select the burn file !\n",
          "Start write data to flash.\n", "FlashWrite -- Compare data OK.\n"})
        EXPECT_EQ(MessageLog::Count(said), 1) << said;

    ASSERT_GE(g_records.size(), 3u);
    EXPECT_EQ(g_records.front().state, "Updating initialization");
    EXPECT_EQ(g_records.back().state, "UpdateCompleted");
    EXPECT_EQ(g_records.back().message,
              "The USB firmware has been updated, please re-plug the device.");
    EXPECT_FLOAT_EQ(g_records.back().percent, 100.0f);
    ExpectPhase("USB firmware is updating..");
    ExpectPhase("USB firmware is verifying..");
    EXPECT_EQ(MessageLog::Count(firmwareArea ? "FlashWrite -- Header_len - 0x100\n"
                                             : "The entire flash has updated, please replug-in device!"),
              1);

    // After the re-plug the device runs the firmware in its flash (not its
    // original 01.00.00.00); a whole image brought its version text along.
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    ASSERT_NO_FATAL_FAILURE(ScanAndSelect());
    ASSERT_EQ(KORVSDK_Open_CB_Device_StateInfo(OnDeviceState), 1);
    EXPECT_EQ(Take(KORVSDK_Get_USB_FW_Ver()),
              firmwareArea ? "01.00.01.09.0000" : "01.00.02.00.0000");
    EXPECT_EQ(g_lastDeviceText1, firmwareArea ? "01.00.01.09" : "01.00.02.00");
    // The file was taken by the start.
    EXPECT_EQ(KORVSDK_Start_USB_FwUpdate(), 0);
}

INSTANTIATE_TEST_SUITE_P(Mode, UsbUpdate, ::testing::Values(false, true),
                         [](const auto& param) {
                             return std::string(param.param ? "FirmwareArea" : "WholeFlash");
                         });
