// KORVSDK_Scan_DeviceList through the exported API, against the virtual
// capture devices: the same code path as real hardware below the backend.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KORVSDKDeviceTool.h"
#include "support/test_support.h"

using korvsdk_test::MessageLog;

namespace {

std::vector<std::string> g_callbackSerials;
void OnScan(DeviceEntry* first, uint16_t count) {
    for (uint16_t i = 0; i < count; ++i) g_callbackSerials.emplace_back(first[i].instance);
}

class ApiScan : public ::testing::Test {
protected:
    ApiScan() : cwd_(folder_.path()) {}
    void SetUp() override {
        MessageLog::Clear();
        KORVSDK_Set_Debug_Output_Handler(MessageLog::Collect);
    }
    void TearDown() override {
        KORVSDK_Free_DeviceList(&list_, &count_);
        KORVSDK_Set_Debug_Output_Handler(nullptr);
    }
    korvsdk_test::TempFolder folder_;
    korvsdk_test::WorkingFolder cwd_;
    DeviceEntry* list_ = nullptr;
    uint16_t count_ = 0;
};

const char* kTwoVirtualDevices =
    "EnableLocalLogging=0\n"
    "DeviceBackend=virtual\n"
    "VirtualDeviceCount=2\n"
    "Virtual0_Serial=VC00000001\n"
    "Virtual1_PID=0C02\n"
    "Virtual1_Serial=VC00000002\n"
    "Virtual1_Description=Second capture\n"
    "DevIDNum=2\n"
    "DevDrvID0=USB\\VID_FFF0&PID_0C01\n"
    "DevDrvID1=USB\\VID_FFF0&PID_0C02\n";

}  // namespace

TEST_F(ApiScan, FindsTheConfiguredVirtualDevices) {
    korvsdk_test::WriteFile(folder_.path() / "setting.cfg", kTwoVirtualDevices);
    ASSERT_EQ(KORVSDK_Init("setting.cfg"), 1);
    ASSERT_EQ(KORVSDK_Open_CB_Scan_DeviceList(OnScan), 1);
    ASSERT_EQ(KORVSDK_Scan_DeviceList(&list_, &count_), 1);
    ASSERT_EQ(count_, 2);
    EXPECT_STREQ(list_[0].vid, "FFF0");
    EXPECT_STREQ(list_[0].pid, "0C01");
    EXPECT_STREQ(list_[0].instance, "VC00000001");
    EXPECT_STREQ(list_[1].pid, "0C02");
    EXPECT_STREQ(list_[1].description, "Second capture");
    EXPECT_EQ(g_callbackSerials, (std::vector<std::string>{"VC00000001", "VC00000002"}));
    EXPECT_EQ(MessageLog::Count("Start to read No.2 Device information."), 1);
    EXPECT_EQ(MessageLog::Count("Scan Device is completed, 2 devices are found.\n"
                                "----------------------------------------------\n"),
              1);
}

TEST_F(ApiScan, OnlyAcceptedDevicesAreListed) {
    std::string settings = kTwoVirtualDevices;
    settings += "DevIDNum=1\n";  // a later line wins: only the first filter counts
    korvsdk_test::WriteFile(folder_.path() / "setting.cfg", settings);
    ASSERT_EQ(KORVSDK_Init("setting.cfg"), 1);
    ASSERT_EQ(KORVSDK_Scan_DeviceList(&list_, &count_), 1);
    ASSERT_EQ(count_, 1);
    EXPECT_STREQ(list_[0].instance, "VC00000001");
}

TEST_F(ApiScan, SelectionAfterAScanPassesTheScanGuard) {
    korvsdk_test::WriteFile(folder_.path() / "setting.cfg", kTwoVirtualDevices);
    ASSERT_EQ(KORVSDK_Init("setting.cfg"), 1);
    DeviceEntry entry{};
    MessageLog::Clear();
    EXPECT_EQ(KORVSDK_Select_Device(&entry), 0);
    EXPECT_EQ(MessageLog::All(), "Please Scan Device First!     ->  KORVSDK_Scan_DeviceList()\n");
    ASSERT_EQ(KORVSDK_Scan_DeviceList(nullptr, nullptr), 1);
    MessageLog::Clear();
    EXPECT_EQ(KORVSDK_Select_Device(&entry), 0);
    EXPECT_EQ(MessageLog::All().find("Please Scan Device First!"), std::string::npos);
}
