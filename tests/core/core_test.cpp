// The core object on its own: initialisation order and outcome, the
// burn-area flags, device-state events and the message channels.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/VideoConsoleCoreImp.h"
#include "hid/backend/hid_backend.h"
#include "support/test_support.h"

using korvsdk_test::MessageLog;
using VideoConsoleCore::VideoConsoleCoreImp;

namespace {

// A fresh core in a scratch working folder, with its debugger texts
// collected and file logging off unless the settings say otherwise.
class CoreTest : public ::testing::Test {
protected:
    CoreTest() : cwd_(folder_.path()) {}
    void SetUp() override {
        MessageLog::Clear();
        core_.SetDebugOutputHandler(MessageLog::Collect);
    }
    void WriteSettings(const std::string& content) {
        korvsdk_test::WriteFile(folder_.path() / "setting.cfg", content);
    }

    korvsdk_test::TempFolder folder_;
    korvsdk_test::WorkingFolder cwd_;
    VideoConsoleCoreImp core_;
};

}  // namespace

TEST_F(CoreTest, NothingToReadLeavesTableEmptyAndLogsOn) {
    ASSERT_TRUE(core_.Initialize(nullptr));
    EXPECT_EQ(core_.Setting("EnableLocalLogging"), "");
    EXPECT_TRUE(core_.m_localLogging);
    EXPECT_NE(core_.LogFilePath().find("Device_Log_"), std::string::npos);
}

TEST_F(CoreTest, BurnAreaSelection) {
    struct Case {
        const char* value;
        bool entire, privateArea, customized;
    };
    // 2 = firmware + customized, 3 = firmware + private.
    const std::vector<Case> cases = {
        {"", true, false, false},       {"0", true, false, false},
        {"1", false, false, false},     {"2", false, false, true},
        {"3", false, true, false},      {"4", false, true, true},
        {"5", true, false, false},      {"0x4", false, true, true},
        {"03", false, true, false},     {"banana", true, false, false},
        {"-1", true, false, false},
    };
    for (const Case& c : cases) {
        VideoConsoleCoreImp core;
        core.m_settings["USB_Burn_Area"] = c.value;
        core.ApplyBurnAreaSetting();
        EXPECT_EQ(core.m_doAreaEntire, c.entire) << c.value;
        EXPECT_EQ(core.m_doAreaOther, !c.entire) << c.value;
        EXPECT_TRUE(core.m_chkFirmware) << c.value;
        EXPECT_EQ(core.m_chkPrivate, c.privateArea) << c.value;
        EXPECT_EQ(core.m_chkCustomized, c.customized) << c.value;
    }
}

TEST_F(CoreTest, BurnAreaFlagsAreNeverCleared) {
    core_.m_settings["USB_Burn_Area"] = "4";
    core_.ApplyBurnAreaSetting();
    core_.m_settings["USB_Burn_Area"] = "1";
    core_.ApplyBurnAreaSetting();
    EXPECT_TRUE(core_.m_chkPrivate);
    EXPECT_TRUE(core_.m_chkCustomized);
    EXPECT_TRUE(core_.m_doAreaOther);
}

namespace {
struct SeenRecord {
    std::string message;
    uint64_t value = 0;
    bool otherFieldsEmpty = false;
};
std::vector<SeenRecord> g_seen;
void RecordState(DeviceStateInfo* info) {
    g_seen.push_back({info->message != nullptr ? info->message : "<null>", info->value,
                      info->text0 == nullptr && info->text1 == nullptr && info->text4 == nullptr});
}
}  // namespace

TEST_F(CoreTest, DeviceStateEventCarriesMessageAndValue) {
    g_seen.clear();
    core_.NotifyDeviceState("no callback yet");  // nobody listens: nothing happens
    ASSERT_EQ(core_.OpenDeviceStateCallback(RecordState), 1);
    core_.NotifyDeviceState("[Set_GPIO_LED] Not valid device");
    core_.NotifyDeviceState(nullptr, 3);
    ASSERT_EQ(g_seen.size(), 2u);
    EXPECT_EQ(g_seen[0].message, "[Set_GPIO_LED] Not valid device");
    EXPECT_EQ(g_seen[0].value, 0u);
    EXPECT_TRUE(g_seen[0].otherFieldsEmpty);
    EXPECT_EQ(g_seen[1].message, "<null>");
    EXPECT_EQ(g_seen[1].value, 3u);
}

TEST_F(CoreTest, CheckMcuOnBoardClearsTheProbeFlag) {
    core_.m_initialized = true;
    core_.m_selected = true;
    core_.CheckMcuOnBoard();
    EXPECT_FALSE(core_.m_probeInProgress);
}

TEST_F(CoreTest, UnknownDeviceBackendFallsBackAndSaysSo) {
    WriteSettings("EnableLocalLogging=0\nDeviceBackend=carrier-pigeon\n");
    ASSERT_TRUE(core_.Initialize("setting.cfg"));
    ASSERT_NE(core_.Hid(), nullptr);
    const std::string platform = VideoConsoleCore::hid::CreatePlatformHidBackend()->Name();
    EXPECT_EQ(MessageLog::All(), "DeviceBackend=carrier-pigeon is not available; using the " +
                                     platform + " backend\nInitialization successful!\n");
}
