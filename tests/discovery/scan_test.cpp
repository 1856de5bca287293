// The device scan over a scripted backend: filters, skipped children, the
// two lists, the callback and the summary texts.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "core/VideoConsoleCoreImp.h"
#include "discovery/device_list.h"
#include "support/fake_hid_backend.h"
#include "support/test_support.h"

using korvsdk_test::FakeHidBackend;
using korvsdk_test::MessageLog;
using VideoConsoleCore::VideoConsoleCoreImp;

namespace {

struct SeenList {
    std::vector<std::string> serials;
    int calls = 0;
    uint16_t count = 0xFFFF;
};
SeenList g_seen;

void RecordScan(DeviceEntry* first, uint16_t count) {
    ++g_seen.calls;
    g_seen.count = count;
    for (uint16_t i = 0; i < count; ++i) g_seen.serials.emplace_back(first[i].instance);
}

class ScanTest : public ::testing::Test {
protected:
    ScanTest() : cwd_(folder_.path()) {}

    // Initialises a core with these settings and a scripted backend that
    // lists `ids` (description "Capture <n>").
    void Start(const std::string& settings, const std::vector<std::string>& ids) {
        korvsdk_test::WriteFile(folder_.path() / "setting.cfg", "EnableLocalLogging=0\n" + settings);
        ASSERT_TRUE(core_.Initialize("setting.cfg"));
        auto backend = std::make_unique<FakeHidBackend>();
        for (size_t i = 0; i < ids.size(); ++i)
            backend->usbDevices.push_back({ids[i], "Capture " + std::to_string(i), ""});
        fake_ = backend.get();
        core_.UseHidBackend(std::move(backend));
        MessageLog::Clear();
        g_seen = SeenList{};
    }
    void SetUp() override { core_.SetDebugOutputHandler(MessageLog::Collect); }
    void TearDown() override { VideoConsoleCore::FreeDeviceEntries(list_, count_); }

    korvsdk_test::TempFolder folder_;
    korvsdk_test::WorkingFolder cwd_;
    VideoConsoleCoreImp core_;
    FakeHidBackend* fake_ = nullptr;
    DeviceEntry* list_ = nullptr;
    uint16_t count_ = 0;
};

const std::string kOneFilter = "DevIDNum=1\nDevDrvID0=USB\\VID_FFF0&PID_0001\n";

}  // namespace

TEST_F(ScanTest, NoFilterFindsNothingButSucceeds) {
    Start("", {"USB\\VID_FFF0&PID_0001\\SN1"});
    ASSERT_TRUE(core_.OpenScanListCallback(RecordScan));
    EXPECT_TRUE(core_.ScanDeviceList(&list_, &count_));
    EXPECT_EQ(list_, nullptr);
    EXPECT_EQ(count_, 0);
    EXPECT_EQ(g_seen.calls, 1);
    EXPECT_EQ(g_seen.count, 0);
    EXPECT_EQ(MessageLog::All(),
              "Scan Device is completed, 0 device is found.\n"
              "----------------------------------------------\n");
    EXPECT_TRUE(core_.m_scanned);
    EXPECT_FALSE(core_.m_devicesPresent);
}

TEST_F(ScanTest, OneMatchingDeviceWithItsCompositeChildren) {
    Start(kOneFilter, {"USB\\VID_FFF0&PID_0001\\SN1", "USB\\VID_FFF0&PID_0001&MI_00\\6&abc&0&0000",
                       "USB\\VID_FFF0&PID_0001&MI_02\\6&abc&0&0002", "USB\\VID_1234&PID_0001\\X",
                       "HID\\VID_FFF0&PID_0001\\Y", "USB\\ROOT_HUB30\\4&1"});
    EXPECT_TRUE(core_.ScanDeviceList(&list_, &count_));
    ASSERT_EQ(count_, 1);
    EXPECT_STREQ(list_[0].instance, "SN1");
    EXPECT_STREQ(list_[0].vid, "FFF0");
    EXPECT_STREQ(list_[0].pid, "0001");
    EXPECT_STREQ(list_[0].description, "Capture 0");
    EXPECT_EQ(MessageLog::All(),
              "Start to read No.1 Device information."
              "Scan Device is completed, 1 device is found.\n"
              "----------------------------------------------\n");
    EXPECT_TRUE(core_.m_devicesPresent);
}

TEST_F(ScanTest, DeviceMatchingTwoFiltersIsListedTwice) {
    Start("DevIDNum=2\nDevDrvID0=VID_FFF0&PID_0001\nDevDrvID1=VID_FFF0&PID_0001\n",
          {"USB\\VID_FFF0&PID_0001\\A"});
    EXPECT_TRUE(core_.ScanDeviceList(&list_, &count_));
    EXPECT_EQ(count_, 2);
    EXPECT_EQ(MessageLog::Count("Start to read No.2 Device information."), 1);
}
