// Whole sessions through the exported functions against virtual capture
// devices: init, scan, select, and the queries that need a selected device.
// The same tests run on every backend that has a harness (see
// session_harness.h), on the Linux library and on the DLL under Wine.
#include <gtest/gtest.h>

#include <cstdio>
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

// The newest callback record's message and value; empty / all ones when no
// record came, so that a missing record fails the comparison cleanly.
std::string LastMessage() { return g_stateMessages.empty() ? "" : g_stateMessages.back(); }
uint64_t LastValue() { return g_stateValues.empty() ? ~uint64_t{0} : g_stateValues.back(); }

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
    EXPECT_EQ(LastValue(), 3u);

    const std::string usb = Take(KORVSDK_Get_USB_FW_Ver());
    EXPECT_EQ(usb.substr(0, 11), "01.00.02.10");
    EXPECT_EQ(MessageLog::Count("FW version from memory: 01.00.02.10\n"), 1);
    EXPECT_EQ(Take(KORVSDK_Get_MCU_FW_Ver()), "0d.17.00.010000");

    EXPECT_EQ(KORVSDK_Check_Is_MCU_OnBoard(), 1);
    EXPECT_EQ(LastMessage(), "[Check_MCU] 0xA0:true");

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

TEST_F(ApiSession, AudioControlsAndStates) {
    Begin("VirtualDeviceCount=1\n");
    uint8_t value = 0;
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
    EXPECT_EQ(LastMessage(), "[Check_Audio] AudioIC:0x00, MCU:true");
}

TEST_F(ApiSession, InformationQueries) {
    Begin("Virtual0_UsbColorFormat=4\n");
    EXPECT_EQ(KORVSDK_Get_USB_APP_Info(), 1);
    EXPECT_EQ(LastMessage(), "Resolution=1920x1080 FrameRate=60 ColorFormat=RGB32");
    EXPECT_EQ(KORVSDK_Get_HDMI_Info(), 1);
    EXPECT_EQ(LastMessage().rfind("HDMI info: 00 00 ", 0), 0u);
    g_stateMessages.clear();
    EXPECT_EQ(KORVSDK_Get_MCU_Info(), 1);
    ASSERT_EQ(g_stateMessages.size(), 1u);
    EXPECT_NE(g_stateMessages[0].find("EDID: true"), std::string::npos) << g_stateMessages[0];
}

namespace {

struct ExportedControl {
    const char* name;
    KORVSDK_BOOL (*set)(uint8_t);
    KORVSDK_BOOL (*get)(uint8_t*);
    uint8_t value;
};

const ExportedControl kExportedControls[] = {
    {"AUX in mute", KORVSDK_Audio_Set_AUX_In_Mute, KORVSDK_Audio_Get_AUX_In_Mute, 1},
    {"AUX in volume", KORVSDK_Audio_Set_AUX_In_Volume, KORVSDK_Audio_Get_AUX_In_Volume, 61},
    {"HP out mute", KORVSDK_Audio_Set_HP_Out_Mute, KORVSDK_Audio_Get_HP_Out_Mute, 1},
    {"HP out volume", KORVSDK_Audio_Set_HP_Out_Volume, KORVSDK_Audio_Get_HP_Out_Volume, 62},
    {"MIC in mute", KORVSDK_Audio_Set_MIC_In_Mute, KORVSDK_Audio_Get_MIC_In_Mute, 1},
    {"MIC in volume", KORVSDK_Audio_Set_MIC_In_Volume, KORVSDK_Audio_Get_MIC_In_Volume, 63},
    {"side-tone mute", KORVSDK_Audio_Set_HDMI_SideTone_Mute,
     KORVSDK_Audio_Get_HDMI_SideTone_Mute, 1},
    {"side-tone volume", KORVSDK_Audio_Set_HDMI_SideTone_Volume,
     KORVSDK_Audio_Get_HDMI_SideTone_Volume, 64},
};

}  // namespace

TEST_F(ApiSession, EveryAudioControlRoundTrips) {
    Begin("VirtualDeviceCount=1\n");
    for (const ExportedControl& c : kExportedControls) {
        uint8_t back = 0xEE;
        ASSERT_EQ(c.set(c.value), 1) << c.name;
        ASSERT_EQ(c.get(&back), 1) << c.name;
        EXPECT_EQ(back, c.value) << c.name;
        ASSERT_EQ(c.set(0), 1) << c.name;
        ASSERT_EQ(c.get(&back), 1) << c.name;
        EXPECT_EQ(back, 0) << c.name;
    }
}

// The codec probe through the microcontroller's I2C master, for each board.
class ApiAudioChip : public ApiSession, public ::testing::WithParamInterface<int> {};

TEST_P(ApiAudioChip, FoundOnEveryBoardVariant) {
    const int variant = GetParam();
    Begin("Virtual0_BoardVariant=" + std::to_string(variant) + "\nCheckAudioViaMCUI2C=1\n");
    EXPECT_EQ(KORVSDK_Check_Is_AudioIC_OnBoard(), 1);
    char expected[96];
    std::snprintf(expected, sizeof expected, "[Check_Audio] AudioIC:0x%02x, MCU:true, I2C:%s",
                  variant, variant == 3 ? "Not Support" : "true");
    EXPECT_EQ(LastMessage(), expected);
}

INSTANTIATE_TEST_SUITE_P(Boards, ApiAudioChip, ::testing::Range(0, 5));

TEST_F(ApiSession, McuInformationOfAnOlderFirmware) {
    // What an older microcontroller firmware answers instead of the EDID.
    std::string edid = "12 34 56 78 ff";
    for (int i = 5; i < 128; ++i) edid += " 00";
    Begin("Virtual0_Edid=" + edid + "\n");
    EXPECT_EQ(KORVSDK_Get_MCU_Info(), 1);
    EXPECT_NE(LastMessage().find("EDID: true, 12 34 56 78 ff 00"), std::string::npos)
        << LastMessage();
}
