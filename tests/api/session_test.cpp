// A whole session through the exported functions against a virtual capture
// device: init, scan, select, and the queries that need a selected device.
// The same program runs on the Linux library and on the DLL under Wine.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KORVSDKDeviceTool.h"
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
    void Begin(const std::string& extra) {
        korvsdk_test::WriteFile(folder_.path() / "setting.cfg",
                                "EnableLocalLogging=0\n"
                                "DeviceBackend=virtual\n"
                                "DevIDNum=1\n"
                                "DevDrvID0=USB\\VID_FFF0&PID_0C01\n" +
                                    extra);
        ASSERT_EQ(KORVSDK_Init("setting.cfg"), 1);
        ASSERT_EQ(KORVSDK_Scan_DeviceList(&list_, &count_), 1);
        ASSERT_EQ(count_, 1);
        EXPECT_EQ(MessageLog::Count("Scan Device is completed, 1 device is found.\n"
                                    "----------------------------------------------\n"),
                  1);
        ASSERT_EQ(KORVSDK_Select_Device(&list_[0]), 1);
        ASSERT_EQ(KORVSDK_Open_CB_Device_StateInfo(OnState), 1);
        MessageLog::Clear();
    }
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

TEST_F(ApiSession, UsbTwoPort) {
    Begin("Virtual0_PortLevel=2\n");
    EXPECT_EQ(KORVSDK_Get_Device_USBType(), 2);
    EXPECT_EQ(MessageLog::Count("USB type: 2\n"), 1);
}
