// The call guards of the exported API, seen as a caller sees them: results
// and the exact texts on the debugger output. ctest runs every test in a
// process of its own, so each one meets an uninitialised library.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "KORVSDKDeviceTool.h"
#include "support/test_support.h"

using korvsdk_test::MessageLog;

namespace {

const std::string kInitFirst = "Please Initialization First!  ->  KORVSDK_Init()\n";
const std::string kSelectFirst = "Please Select Device First!   ->  KORVSDK_Select_Device()\n";
const std::string kScanFirst = "Please Scan Device First!     ->  KORVSDK_Scan_DeviceList()\n";

// One guarded export, called with harmless arguments; `ok` is its success.
struct GuardedCall {
    const char* name;
    std::function<bool()> call;
};

bool TextCall(char* (*getter)()) {
    char* text = getter();
    const bool ok = text != nullptr && text[0] != '\0';
    EXPECT_NE(text, nullptr) << "a string getter must never return null";
    if (text != nullptr) {
        EXPECT_STREQ(text, "");
    }
    KORVSDK_Free_PeCHAR(&text);
    return ok;
}

// Every export that needs a selected device.
std::vector<GuardedCall> DeviceCalls() {
    return {
        {"Get_Device_USBType", [] { return KORVSDK_Get_Device_USBType() != 0; }},
        {"Get_USB_FW_Ver", [] { return TextCall(KORVSDK_Get_USB_FW_Ver); }},
        {"Get_MCU_FW_Ver", [] { return TextCall(KORVSDK_Get_MCU_FW_Ver); }},
        {"Set_USB_HexFile", [] { return KORVSDK_Set_USB_HexFile("fw.hex") != 0; }},
        {"Set_MCU_BinFile", [] { return KORVSDK_Set_MCU_BinFile("fw.bin") != 0; }},
        {"Get_USB_HexFile_Ver", [] { return TextCall(KORVSDK_Get_USB_HexFile_Ver); }},
        {"Get_MCU_BinFile_Ver", [] { return TextCall(KORVSDK_Get_MCU_BinFile_Ver); }},
        {"Start_USB_FwUpdate", [] { return KORVSDK_Start_USB_FwUpdate() != 0; }},
        {"Start_MCU_FwUpdate", [] { return KORVSDK_Start_MCU_FwUpdate() != 0; }},
        {"Read_USB_Flash", [] { return KORVSDK_Read_USB_Flash("backup.hex") != 0; }},
        {"Get_HDMI_Info", [] { return KORVSDK_Get_HDMI_Info() != 0; }},
        {"Get_MCU_Info", [] { return KORVSDK_Get_MCU_Info() != 0; }},
        {"Get_USB_APP_Info", [] { return KORVSDK_Get_USB_APP_Info() != 0; }},
        {"Set_GPIO_LED", [] { return KORVSDK_Set_GPIO_LED(1) != 0; }},
        {"Set_Update_GPIO_LED_Lights",
         [] { return KORVSDK_Set_Update_GPIO_LED_Lights(1, 2, 300) != 0; }},
        {"Check_Is_MCU_OnBoard", [] { return KORVSDK_Check_Is_MCU_OnBoard() != 0; }},
        {"Check_Is_AudioIC_OnBoard", [] { return KORVSDK_Check_Is_AudioIC_OnBoard() != 0; }},
        {"Save_Audio_HDCP_Parameters",
         [] { return KORVSDK_Save_Audio_HDCP_Parameters() != 0; }},
        {"Enter_Boot_Mode", [] { return KORVSDK_Enter_Boot_Mode() != 0; }},
        {"Check_Is_Boot_Mode", [] { return KORVSDK_Check_Is_Boot_Mode() != 0; }},
    };
}

// Initialises the library in a scratch folder without a log file.
class InitializedLibrary {
public:
    InitializedLibrary() : cwd_(folder_.path()) {
        korvsdk_test::WriteFile(folder_.path() / "setting.cfg", "EnableLocalLogging=0\n");
        EXPECT_EQ(KORVSDK_Init("setting.cfg"), 1);
        MessageLog::Clear();
    }

private:
    korvsdk_test::TempFolder folder_;
    korvsdk_test::WorkingFolder cwd_;
};

class GuardTest : public ::testing::Test {
protected:
    void SetUp() override {
        MessageLog::Clear();
        KORVSDK_Set_Debug_Output_Handler(MessageLog::Collect);
    }
    void TearDown() override { KORVSDK_Set_Debug_Output_Handler(nullptr); }
};

}  // namespace

TEST_F(GuardTest, StringGetterBeforeInitGivesEmptyHeapTextAndInitMessage) {
    char* version = KORVSDK_Get_USB_FW_Ver();
    ASSERT_NE(version, nullptr);
    EXPECT_STREQ(version, "");
    EXPECT_EQ(KORVSDK_Free_PeCHAR(&version), 1);
    EXPECT_EQ(version, nullptr);
    ASSERT_EQ(MessageLog::Texts().size(), 1u);
    EXPECT_EQ(MessageLog::Texts()[0], kInitFirst);
}

TEST_F(GuardTest, EveryDeviceCallBeforeInitAsksForInitOnce) {
    for (const GuardedCall& guarded : DeviceCalls()) {
        MessageLog::Clear();
        EXPECT_FALSE(guarded.call()) << guarded.name;
        EXPECT_EQ(MessageLog::All(), kInitFirst) << guarded.name;
    }
    MessageLog::Clear();
    DeviceEntry* list = nullptr;
    uint16_t count = 0;
    EXPECT_EQ(KORVSDK_Scan_DeviceList(&list, &count), 0);
    EXPECT_EQ(MessageLog::All(), kInitFirst);

    MessageLog::Clear();
    DeviceEntry entry{};
    EXPECT_EQ(KORVSDK_Select_Device(&entry), 0);
    EXPECT_EQ(MessageLog::All(), kInitFirst);
}

TEST_F(GuardTest, AfterInitDeviceCallsAskForSelection) {
    InitializedLibrary library;
    for (const GuardedCall& guarded : DeviceCalls()) {
        MessageLog::Clear();
        EXPECT_FALSE(guarded.call()) << guarded.name;
        EXPECT_EQ(MessageLog::All(), kSelectFirst) << guarded.name;
    }
}

TEST_F(GuardTest, SelectionBeforeAnyScanAsksForScan) {
    InitializedLibrary library;
    DeviceEntry entry{};
    EXPECT_EQ(KORVSDK_Select_Device(&entry), 0);
    EXPECT_EQ(MessageLog::All(), kScanFirst);
}

TEST_F(GuardTest, ConsoleLoggingOffSilencesGuardsButKeepsResults) {
    EXPECT_EQ(KORVSDK_Switch_Console_Logging_Mode(false), 1);
    for (const GuardedCall& guarded : DeviceCalls()) {
        EXPECT_FALSE(guarded.call()) << guarded.name;
    }
    EXPECT_TRUE(MessageLog::Texts().empty()) << MessageLog::All();

    EXPECT_EQ(KORVSDK_Switch_Console_Logging_Mode(true), 1);
    EXPECT_FALSE(KORVSDK_Enter_Boot_Mode());
    EXPECT_EQ(MessageLog::All(), kInitFirst);
}

TEST_F(GuardTest, AudioAndStateCallsHaveNoGuardMessage) {
    // They talk to the device directly; without one they fail quietly.
    uint8_t value = 0x5A;
    EXPECT_EQ(KORVSDK_Audio_Get_AUX_In_Mute(&value), 0);
    EXPECT_EQ(KORVSDK_Audio_Set_HP_Out_Volume(3), 0);
    EXPECT_EQ(KORVSDK_Audio_Get_HDMI_SideTone_Volume(&value), 0);
    EXPECT_EQ(KORVSDK_Get_HDMI_Video_Locked(&value), 0);
    EXPECT_EQ(KORVSDK_Get_HP_Mic_PlugIn(&value), 0);
    EXPECT_EQ(KORVSDK_Get_Line_In_PlugIn(&value), 0);
    EXPECT_TRUE(MessageLog::Texts().empty()) << MessageLog::All();
}

TEST_F(GuardTest, FirmwareUpdatingQueryNeedsNoInit) {
    EXPECT_EQ(KORVSDK_Check_IsFirmwareUpdating(), 0);
    EXPECT_TRUE(MessageLog::Texts().empty());
}

TEST_F(GuardTest, SecondInitIsRefused) {
    InitializedLibrary library;
    EXPECT_EQ(KORVSDK_Init("setting.cfg"), 0);
    EXPECT_EQ(MessageLog::All(), "Already initialized!\n");
}

TEST_F(GuardTest, InitReportsSuccessOnTheDebuggerChannel) {
    korvsdk_test::TempFolder folder;
    korvsdk_test::WorkingFolder cwd(folder.path());
    korvsdk_test::WriteFile(folder.path() / "setting.cfg", "EnableLocalLogging=0\n");
    EXPECT_EQ(KORVSDK_Init(nullptr), 1);
    EXPECT_EQ(MessageLog::All(), "Initialization successful!\n");
}

TEST_F(GuardTest, NullHandlerRestoresThePlatformChannel) {
    KORVSDK_Set_Debug_Output_Handler(nullptr);
    if (korvsdk_test::DebuggerChannelCanBeStderr()) {
        // The system log unless a developer asks for standard error.
        const struct {
            const char* value;  // of KORVSDK_DEBUG_STDERR; null: unset
            std::string onStderr;
        } cases[] = {{nullptr, ""}, {"0", ""}, {"yes", ""}, {"1", kInitFirst}};
        for (const auto& c : cases) {
            if (c.value != nullptr) {
                korvsdk_test::SetEnvironment("KORVSDK_DEBUG_STDERR", c.value);
            } else {
                korvsdk_test::UnsetEnvironment("KORVSDK_DEBUG_STDERR");
            }
            testing::internal::CaptureStderr();
            EXPECT_EQ(KORVSDK_Check_Is_Boot_Mode(), 0);
            EXPECT_EQ(testing::internal::GetCapturedStderr(), c.onStderr)
                << "KORVSDK_DEBUG_STDERR=" << (c.value != nullptr ? c.value : "(unset)");
        }
        korvsdk_test::UnsetEnvironment("KORVSDK_DEBUG_STDERR");
    } else {
        EXPECT_EQ(KORVSDK_Check_Is_Boot_Mode(), 0);
    }
    EXPECT_TRUE(MessageLog::Texts().empty());
}
