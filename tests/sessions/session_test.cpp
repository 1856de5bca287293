// Whole sessions through the exported functions against virtual capture
// devices: init, scan, select, and the queries that need a selected device.
// The same tests run on every backend that has a harness (see
// session_harness.h), on the Linux library and on the DLL under Wine.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KORVSDKDeviceTool.h"
#include "sessions/session_harness.h"
#include "support/test_support.h"

using korvsdk_test::MessageLog;

namespace {

std::vector<uint64_t> g_stateValues;
std::vector<std::string> g_stateMessages;
void OnState(DeviceStateInfo* info) {
    g_stateValues.push_back(info->value);
    g_stateMessages.emplace_back(info->message ? info->message : "");
}

std::string Take(char* text) {
    std::string copy = text ? text : "<null>";
    KORVSDK_Free_PeCHAR(&text);
    return copy;
}

class ApiSession : public ::testing::Test {
protected:
    ApiSession() : cwd_(folder_.path()) {}
    void SetUp() override {
        MessageLog::Clear();
        KORVSDK_Set_Debug_Output_Handler(MessageLog::Collect);
    }
    void TearDown() override {
        KORVSDK_Free_DeviceList(&list_, &count_);
        KORVSDK_Set_Debug_Output_Handler(nullptr);
    }
    // Initialises the library for the devices of `deviceKeys` and scans.
    void Init(const std::string& deviceKeys, const std::string& filters = kOneFilter) {
        korvsdk_test::WriteFile(folder_.path() / "setting.cfg",
                                "EnableLocalLogging=0\n" + std::string(filters) +
                                    korvsdk_test::PrepareSessionBackend(deviceKeys));
        ASSERT_EQ(KORVSDK_Init("setting.cfg"), 1) << korvsdk_test::SessionBackendName();
        ASSERT_EQ(KORVSDK_Scan_DeviceList(&list_, &count_), 1);
    }
    // Init with one device, select it, and collect from here on.
    void Begin(const std::string& deviceKeys) {
        Init(deviceKeys);
        ASSERT_EQ(count_, 1);
        EXPECT_EQ(MessageLog::Count("Scan Device is completed, 1 device is found.\n"
                                    "----------------------------------------------\n"),
                  1);
        ASSERT_EQ(KORVSDK_Select_Device(&list_[0]), 1);
        ASSERT_EQ(KORVSDK_Open_CB_Device_StateInfo(OnState), 1);
        MessageLog::Clear();
    }
    static constexpr const char* kOneFilter = "DevIDNum=1\nDevDrvID0=USB\\VID_FFF0&PID_0C01\n";
    korvsdk_test::TempFolder folder_;
    korvsdk_test::WorkingFolder cwd_;
    DeviceEntry* list_ = nullptr;
    uint16_t count_ = 0;
};

}  // namespace

TEST_F(ApiSession, SelectedDeviceAnswersItsQueries) {
    Begin("Virtual0_UsbFwVersion=01.00.02.10\n");

    EXPECT_EQ(KORVSDK_Get_Device_USBType(), 3);
    ASSERT_FALSE(g_stateValues.empty());
    EXPECT_EQ(g_stateValues.back(), 3u);

    const std::string usb = Take(KORVSDK_Get_USB_FW_Ver());
    EXPECT_EQ(usb.substr(0, 11), "01.00.02.10");
    EXPECT_EQ(MessageLog::Count("FW version from memory: 01.00.02.10\n"), 1);
    EXPECT_EQ(Take(KORVSDK_Get_MCU_FW_Ver()), "0d.17.00.010000");

    EXPECT_EQ(KORVSDK_Check_Is_MCU_OnBoard(), 1);
    EXPECT_EQ(g_stateMessages.back(), "[Check_MCU] 0xA0:true");

    EXPECT_EQ(KORVSDK_Save_Audio_HDCP_Parameters(), 1);
    EXPECT_EQ(MessageLog::Count("Save Parameters Complete!"), 1);

    EXPECT_EQ(KORVSDK_Check_Is_Boot_Mode(), 0);
    EXPECT_EQ(KORVSDK_Enter_Boot_Mode(), 1);
    EXPECT_EQ(MessageLog::Count("M0_Enter_Boot_Mode\n"), 1);
    EXPECT_EQ(KORVSDK_Check_Is_Boot_Mode(), 1);
}

TEST_F(ApiSession, TwoDevicesAndTheSecondSelected) {
    Init("VirtualDeviceCount=2\nVirtual1_PID=0C02\nVirtual1_Serial=VC00000002\n"
         "Virtual1_Description=Second capture\nVirtual1_PortLevel=2\n",
         "DevIDNum=2\nDevDrvID0=USB\\VID_FFF0&PID_0C01\nDevDrvID1=USB\\VID_FFF0&PID_0C02\n");
    ASSERT_EQ(count_, 2);
    EXPECT_EQ(MessageLog::Count("Scan Device is completed, 2 devices are found.\n"
                                "----------------------------------------------\n"),
              1);
    EXPECT_STREQ(list_[1].instance, "VC00000002");
    EXPECT_STREQ(list_[1].description, "Second capture");
    ASSERT_EQ(KORVSDK_Select_Device(&list_[1]), 1);
    EXPECT_EQ(KORVSDK_Get_Device_USBType(), 2);
    ASSERT_EQ(KORVSDK_Select_Device(&list_[0]), 1);
    EXPECT_EQ(KORVSDK_Get_Device_USBType(), 3);
}

TEST_F(ApiSession, FlashIdentificationRetriedAfterAFailedExchange) {
    // The flash-ID request is the first input report the library fetches.
    Init("Virtual0_FailCall=GetInputReport:1\n");
    ASSERT_EQ(count_, 1);
    ASSERT_EQ(KORVSDK_Select_Device(&list_[0]), 1);
    EXPECT_EQ(MessageLog::Count("restart select device... error time: 1\n"), 1);
    EXPECT_EQ(MessageLog::All().find("error time: 2"), std::string::npos);
}

TEST_F(ApiSession, DeviceThatDisappearsAfterSelection) {
    // Selecting the default device exchanges 58 reports; the device goes
    // away right after them.
    Begin("Virtual0_UnplugAfter=58\n");
    EXPECT_EQ(KORVSDK_Get_HDMI_Info(), 1);
    EXPECT_EQ(MessageLog::Count("Unknown error: Couldn't execute REPORT_HDMI_INFO function\n"), 1);
    EXPECT_EQ(g_stateMessages.back().rfind("HDMI info: 00 00 00", 0), 0u);
    EXPECT_EQ(Take(KORVSDK_Get_USB_FW_Ver()), "");
    EXPECT_EQ(KORVSDK_Check_Is_MCU_OnBoard(), 0);
    EXPECT_EQ(g_stateMessages.back(), "[Check_MCU] 0xA0:false, 0xA1:false, 0xFD:false");
}

TEST_F(ApiSession, UsbTwoPort) {
    Begin("Virtual0_PortLevel=2\n");
    EXPECT_EQ(KORVSDK_Get_Device_USBType(), 2);
    EXPECT_EQ(MessageLog::Count("USB type: 2\n"), 1);
}

TEST_F(ApiSession, AudioControlsAndStates) {
    Begin("VirtualDeviceCount=1\n");
    ASSERT_EQ(KORVSDK_Audio_Set_HP_Out_Volume(33), 1);
    ASSERT_EQ(KORVSDK_Audio_Set_MIC_In_Mute(1), 1);
    uint8_t value = 0;
    ASSERT_EQ(KORVSDK_Audio_Get_HP_Out_Volume(&value), 1);
    EXPECT_EQ(value, 33);
    ASSERT_EQ(KORVSDK_Audio_Get_MIC_In_Mute(&value), 1);
    EXPECT_EQ(value, 1);

    // The HDMI side-tone is the AUX input's path.
    ASSERT_EQ(KORVSDK_Audio_Set_HDMI_SideTone_Volume(21), 1);
    ASSERT_EQ(KORVSDK_Audio_Get_AUX_In_Volume(&value), 1);
    EXPECT_EQ(value, 21);
    ASSERT_EQ(KORVSDK_Audio_Set_AUX_In_Mute(1), 1);
    ASSERT_EQ(KORVSDK_Audio_Get_HDMI_SideTone_Mute(&value), 1);
    EXPECT_EQ(value, 1);

    ASSERT_EQ(KORVSDK_Get_HDMI_Video_Locked(&value), 1);
    EXPECT_EQ(value, 1);
    ASSERT_EQ(KORVSDK_Get_HP_Mic_PlugIn(&value), 1);
    EXPECT_EQ(value, 0);
    ASSERT_EQ(KORVSDK_Get_Line_In_PlugIn(&value), 1);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(KORVSDK_Check_Is_AudioIC_OnBoard(), 1);
    EXPECT_EQ(g_stateMessages.back(), "[Check_Audio] AudioIC:0x00, MCU:true");
}

TEST_F(ApiSession, InformationQueries) {
    Begin("Virtual0_UsbColorFormat=4\n");
    EXPECT_EQ(KORVSDK_Get_USB_APP_Info(), 1);
    EXPECT_EQ(g_stateMessages.back(), "Resolution=1920x1080 FrameRate=60 ColorFormat=RGB32");
    EXPECT_EQ(KORVSDK_Get_HDMI_Info(), 1);
    EXPECT_EQ(g_stateMessages.back().rfind("HDMI info: 00 00 ", 0), 0u);
    g_stateMessages.clear();
    EXPECT_EQ(KORVSDK_Get_MCU_Info(), 1);
    ASSERT_EQ(g_stateMessages.size(), 1u);
    EXPECT_NE(g_stateMessages[0].find("EDID: true"), std::string::npos) << g_stateMessages[0];
}
