// Bad input on every export, seen as a careless or busy application would
// give it: null pointers, every export called from a second thread while an
// update runs (refused by the state guard or answered, never a crash, and the
// update still completes), callbacks registered and released meanwhile, and
// callbacks that call back into the library.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "KORVSDKDeviceTool.h"
#include "VideoConsoleCore.h"
#include "robustness/allocation_failure.h"
#include "support/test_support.h"
#include "virtual/device/usb_image.h"
#include "virtual/mcu/mcu_image.h"

using korvsdk_test::MessageLog;
namespace vd = VideoConsoleCore::virtualdev;
namespace vc = VideoConsoleCore;

namespace {

std::string Take(char* text) {
    std::string copy = text != nullptr ? text : "<null>";
    KORVSDK_Free_PeCHAR(&text);
    return copy;
}

std::atomic<int> g_callbacks{0};
void CountScan(DeviceEntry*, uint16_t) { ++g_callbacks; }
void CountDeviceState(DeviceStateInfo*) { ++g_callbacks; }
void CountFwState(DevFwUpdateStateInfo*) { ++g_callbacks; }

struct Export {
    const char* name;
    std::function<void()> call;
};

// Every export, called as an application would while the library is busy;
// the callback slots are registered and released round after round.
std::vector<Export> EveryExport(DeviceEntry* entry, const std::string& hex,
                                const std::string& bin, const std::string& backup) {
    auto get = [](KORVSDK_BOOL (*f)(uint8_t*)) { return [f] { uint8_t x = 0; f(&x); }; };
    auto set = [](KORVSDK_BOOL (*f)(uint8_t), uint8_t x) { return [f, x] { f(x); }; };
    return {
        {"KORVSDK_Init", [] { KORVSDK_Init("setting.cfg"); }},
        {"KORVSDK_Scan_DeviceList",
         [] {
             DeviceEntry* list = nullptr;
             uint16_t count = 0;
             KORVSDK_Scan_DeviceList(&list, &count);
             KORVSDK_Free_DeviceList(&list, &count);
         }},
        {"KORVSDK_Select_Device", [entry] { KORVSDK_Select_Device(entry); }},
        {"KORVSDK_Get_Device_USBType", [] { KORVSDK_Get_Device_USBType(); }},
        {"KORVSDK_Get_USB_FW_Ver", [] { Take(KORVSDK_Get_USB_FW_Ver()); }},
        {"KORVSDK_Get_MCU_FW_Ver", [] { Take(KORVSDK_Get_MCU_FW_Ver()); }},
        {"KORVSDK_Set_USB_HexFile", [hex] { KORVSDK_Set_USB_HexFile(hex.c_str()); }},
        {"KORVSDK_Set_MCU_BinFile", [bin] { KORVSDK_Set_MCU_BinFile(bin.c_str()); }},
        {"KORVSDK_Get_USB_HexFile_Ver", [] { Take(KORVSDK_Get_USB_HexFile_Ver()); }},
        {"KORVSDK_Get_MCU_BinFile_Ver", [] { Take(KORVSDK_Get_MCU_BinFile_Ver()); }},
        {"KORVSDK_Start_USB_FwUpdate", [] { KORVSDK_Start_USB_FwUpdate(); }},
        {"KORVSDK_Start_MCU_FwUpdate", [] { KORVSDK_Start_MCU_FwUpdate(); }},
        {"KORVSDK_Check_IsFirmwareUpdating", [] { KORVSDK_Check_IsFirmwareUpdating(); }},
        {"KORVSDK_Open_CB_Scan_DeviceList", [] { KORVSDK_Open_CB_Scan_DeviceList(CountScan); }},
        {"KORVSDK_Open_CB_Device_StateInfo",
         [] { KORVSDK_Open_CB_Device_StateInfo(CountDeviceState); }},
        {"KORVSDK_Close_CB_DevFwUpdate_StateInfo", [] { KORVSDK_Close_CB_DevFwUpdate_StateInfo(); }},
        {"KORVSDK_Open_CB_DevFwUpdate_StateInfo",
         [] { KORVSDK_Open_CB_DevFwUpdate_StateInfo(CountFwState); }},
        {"KORVSDK_Close_CB_Scan_DeviceList", [] { KORVSDK_Close_CB_Scan_DeviceList(); }},
        {"KORVSDK_Close_CB_Device_StateInfo", [] { KORVSDK_Close_CB_Device_StateInfo(); }},
        {"KORVSDK_Get_HDMI_Info", [] { KORVSDK_Get_HDMI_Info(); }},
        {"KORVSDK_Get_MCU_Info", [] { KORVSDK_Get_MCU_Info(); }},
        {"KORVSDK_Get_USB_APP_Info", [] { KORVSDK_Get_USB_APP_Info(); }},
        {"KORVSDK_Set_GPIO_LED", [] { KORVSDK_Set_GPIO_LED(0x81); }},
        {"KORVSDK_Set_Update_GPIO_LED_Lights",
         [] { KORVSDK_Set_Update_GPIO_LED_Lights(0x82, 0x83, 200); }},
        {"KORVSDK_Check_Is_MCU_OnBoard", [] { KORVSDK_Check_Is_MCU_OnBoard(); }},
        {"KORVSDK_Check_Is_AudioIC_OnBoard", [] { KORVSDK_Check_Is_AudioIC_OnBoard(); }},
        {"KORVSDK_Save_Audio_HDCP_Parameters", [] { KORVSDK_Save_Audio_HDCP_Parameters(); }},
        {"KORVSDK_Enter_Boot_Mode", [] { KORVSDK_Enter_Boot_Mode(); }},
        {"KORVSDK_Check_Is_Boot_Mode", [] { KORVSDK_Check_Is_Boot_Mode(); }},
        {"KORVSDK_Audio_Get_AUX_In_Mute", get(KORVSDK_Audio_Get_AUX_In_Mute)},
        {"KORVSDK_Audio_Set_AUX_In_Mute", set(KORVSDK_Audio_Set_AUX_In_Mute, 1)},
        {"KORVSDK_Audio_Get_HP_Out_Mute", get(KORVSDK_Audio_Get_HP_Out_Mute)},
        {"KORVSDK_Audio_Set_HP_Out_Mute", set(KORVSDK_Audio_Set_HP_Out_Mute, 0)},
        {"KORVSDK_Audio_Get_MIC_In_Mute", get(KORVSDK_Audio_Get_MIC_In_Mute)},
        {"KORVSDK_Audio_Set_MIC_In_Mute", set(KORVSDK_Audio_Set_MIC_In_Mute, 1)},
        {"KORVSDK_Audio_Get_AUX_In_Volume", get(KORVSDK_Audio_Get_AUX_In_Volume)},
        {"KORVSDK_Audio_Set_AUX_In_Volume", set(KORVSDK_Audio_Set_AUX_In_Volume, 7)},
        {"KORVSDK_Audio_Get_HP_Out_Volume", get(KORVSDK_Audio_Get_HP_Out_Volume)},
        {"KORVSDK_Audio_Set_HP_Out_Volume", set(KORVSDK_Audio_Set_HP_Out_Volume, 9)},
        {"KORVSDK_Audio_Get_MIC_In_Volume", get(KORVSDK_Audio_Get_MIC_In_Volume)},
        {"KORVSDK_Audio_Set_MIC_In_Volume", set(KORVSDK_Audio_Set_MIC_In_Volume, 3)},
        {"KORVSDK_Audio_Get_HDMI_SideTone_Mute", get(KORVSDK_Audio_Get_HDMI_SideTone_Mute)},
        {"KORVSDK_Audio_Set_HDMI_SideTone_Mute", set(KORVSDK_Audio_Set_HDMI_SideTone_Mute, 1)},
        {"KORVSDK_Audio_Get_HDMI_SideTone_Volume", get(KORVSDK_Audio_Get_HDMI_SideTone_Volume)},
        {"KORVSDK_Audio_Set_HDMI_SideTone_Volume",
         set(KORVSDK_Audio_Set_HDMI_SideTone_Volume, 5)},
        {"KORVSDK_Get_HDMI_Video_Locked", get(KORVSDK_Get_HDMI_Video_Locked)},
        {"KORVSDK_Get_HP_Mic_PlugIn", get(KORVSDK_Get_HP_Mic_PlugIn)},
        {"KORVSDK_Get_Line_In_PlugIn", get(KORVSDK_Get_Line_In_PlugIn)},
        {"KORVSDK_Switch_Console_Logging_Mode", [] { KORVSDK_Switch_Console_Logging_Mode(true); }},
        {"KORVSDK_Free_DeviceList",
         [] {
             DeviceEntry* none = nullptr;
             uint16_t count = 0;
             KORVSDK_Free_DeviceList(&none, &count);
         }},
        {"KORVSDK_Free_PeCHAR", [] { Take(KORVSDK_Get_MCU_BinFile_Ver()); }},
        {"KORVSDK_Set_Debug_Output_Handler",
         [] { KORVSDK_Set_Debug_Output_Handler(MessageLog::Collect); }},
        {"KORVSDK_Read_USB_Flash", [backup] { KORVSDK_Read_USB_Flash(backup.c_str()); }},
        {"KORVSDK_Get_Device_Location", [entry] { Take(KORVSDK_Get_Device_Location(entry)); }},
    };
}

class BadInput : public ::testing::Test {
protected:
    BadInput() : cwd_(folder_.path()) {}
    void SetUp() override {
        korvsdk_test::WriteFile(folder_.path() / "setting.cfg",
                                "EnableLocalLogging=0\nDeviceBackend=virtual\nDevIDNum=1\n"
                                "DevDrvID0=USB\\VID_FFF0&PID_0C01\nFW_Overwrite=0\n"
                                // Re-plugged after an update, past its longest pause.
                                "Virtual0_ReplugAfterUpdateMs=2000\n"
                                // Each job outlasts a round of every call.
                                "Virtual0_LatencyMs=1\nVirtual0_McuProgramDump=program.bin\n");
        ASSERT_EQ(KORVSDK_Init("setting.cfg"), 1);
        ASSERT_EQ(KORVSDK_Scan_DeviceList(&list_, &count_), 1);
        ASSERT_EQ(count_, 1);
        ASSERT_EQ(KORVSDK_Select_Device(&list_[0]), 1);
        KORVSDK_Set_Debug_Output_Handler(MessageLog::Collect);
        MessageLog::Clear();
    }
    void TearDown() override {
        KORVSDK_Free_DeviceList(&list_, &count_);
        // An update's last lines come from its thread just after the state
        // went back; once this returns, MessageLog is no longer written.
        KORVSDK_Set_Debug_Output_Handler(nullptr);
    }
    std::string Path(const char* name) const { return (folder_.path() / name).string(); }
    std::string UsbImage() const {
        vd::UsbImageOptions image;
        image.versionText = "01.00.02.00.0000";
        const std::string path = Path("new.hex");
        EXPECT_TRUE(vd::WriteUsbImageFile(path, vd::BuildUsbImage(image)));
        return path;
    }
    std::string McuImage() const {
        vd::McuImageOptions image;
        image.version = 0x18;
        const std::string path = Path("new.bin");
        EXPECT_TRUE(vd::WriteMcuImageFile(path, vd::BuildMcuImage(image)));
        return path;
    }
    static bool WaitUntilIdle() {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(90);
        while (KORVSDK_Check_IsFirmwareUpdating() == 1) {
            if (std::chrono::steady_clock::now() > end) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }

    korvsdk_test::TempFolder folder_;
    korvsdk_test::WorkingFolder cwd_;
    DeviceEntry* list_ = nullptr;
    uint16_t count_ = 0;
};

}  // namespace

TEST_F(BadInput, NullPointersAreRefusedOrIgnored) {
    DeviceEntry* noList = nullptr;
    uint16_t noCount = 0;
    DeviceEntry hollow{};  // an entry whose texts are all null
    const struct {
        const char* name;
        std::function<int()> call;
        int result;
    } cases[] = {
        {"Scan with no out pointers", [] { return KORVSDK_Scan_DeviceList(nullptr, nullptr); }, 1},
        {"Select null", [] { return KORVSDK_Select_Device(nullptr); }, 0},
        {"Select an entry of null texts", [&] { return KORVSDK_Select_Device(&hollow); }, 0},
        {"Set_USB_HexFile null", [] { return KORVSDK_Set_USB_HexFile(nullptr); }, 0},
        {"Set_MCU_BinFile null", [] { return KORVSDK_Set_MCU_BinFile(nullptr); }, 0},
        {"Read_USB_Flash null", [] { return KORVSDK_Read_USB_Flash(nullptr); }, 0},
        {"Audio getter null", [] { return KORVSDK_Audio_Get_HP_Out_Volume(nullptr); }, 0},
        {"Mute getter null", [] { return KORVSDK_Audio_Get_MIC_In_Mute(nullptr); }, 0},
        {"Side-tone getter null", [] { return KORVSDK_Audio_Get_HDMI_SideTone_Volume(nullptr); }, 0},
        {"Video-locked null", [] { return KORVSDK_Get_HDMI_Video_Locked(nullptr); }, 0},
        {"Plug state null", [] { return KORVSDK_Get_Line_In_PlugIn(nullptr); }, 0},
        {"Free_DeviceList nulls", [] { return KORVSDK_Free_DeviceList(nullptr, nullptr); }, 1},
        {"Free_DeviceList of nothing", [&] { return KORVSDK_Free_DeviceList(&noList, &noCount); }, 1},
        {"Free_PeCHAR null", [] { return KORVSDK_Free_PeCHAR(nullptr); }, 1},
        {"Get_Device_Location null",
         [] { return KORVSDK_Get_Device_Location(nullptr) == nullptr ? 1 : 0; }, 1},
        {"Open_CB null", [] { return KORVSDK_Open_CB_Device_StateInfo(nullptr); }, 1},
        {"Close_CB after a null was taken", [] { return KORVSDK_Close_CB_Device_StateInfo(); }, 0},
    };
    for (const auto& c : cases) EXPECT_EQ(c.call(), c.result) << c.name;
    // The device is still selected and answers.
    EXPECT_EQ(Take(KORVSDK_Get_USB_FW_Ver()), "01.00.01.09.0000");
    EXPECT_EQ(KORVSDK_Check_IsFirmwareUpdating(), 0);
}

// The class face's every operation, as a desktop tool beside the flat API
// might call it while a job runs: commands of every kind (a light effect is
// saved at once, so that its preview does not hold up the next round), the
// start-up scan through each path that reaches it, the callback slots, and
// exit and start again.
bool CountRecord(void*) {
    ++g_callbacks;
    return true;
}
std::vector<Export> EveryClassFaceCall(vc::ToolCoreInterface& tool, DeviceEntry* entry,
                                       const std::string& hex, const std::string& bin) {
    auto run = [&tool](int command, auto record) {
        return [&tool, command, record]() mutable { tool.runCommand(command, &record, nullptr); };
    };
    vc::AudioControl audioQuery, audioChange;
    audioQuery.query = 1;
    audioChange.hpOutVolume = 9;
    vc::LightControlCommand lightQuery, pattern, effect, save;
    lightQuery.query = 1;
    pattern.effect = 0x81;
    effect.selector = 2;
    effect.effect = 4;
    save.selector = 1;
    vc::FwUpdateCommand scan, files, startUsb, startMcu;
    scan.query = 1;
    files.query = 1;
    const std::wstring wideHex(hex.begin(), hex.end()), wideBin(bin.begin(), bin.end());
    files.SetUsbFilePath(wideHex.c_str());
    files.SetMcuFilePath(wideBin.c_str());
    startUsb.start = 1;
    startMcu.start = 1;
    startMcu.target = 1;
    vc::DiagnosticRequest context, dump;
    context.collectInfo = true;
    context.email = "bench@example.com";
    dump.dumpLog = true;
    const vc::DeviceIdentity identity{entry->vid, entry->pid, entry->instance};
    return {
        {"init", [&tool] { tool.init(); }},
        {"start", [&tool] { tool.start(); }},
        {"audio query", run(vc::kCommandAudio, audioQuery)},
        {"audio change", run(vc::kCommandAudio, audioChange)},
        {"light query", run(vc::kCommandLight, lightQuery)},
        {"light pattern", run(vc::kCommandLight, pattern)},
        {"light effect", run(vc::kCommandLight, effect)},
        {"light save", run(vc::kCommandLight, save)},
        {"firmware scan", run(vc::kCommandFirmwareUpdate, scan)},
        {"firmware files", run(vc::kCommandFirmwareUpdate, files)},
        {"firmware start USB", run(vc::kCommandFirmwareUpdate, startUsb)},
        {"firmware start MCU", run(vc::kCommandFirmwareUpdate, startMcu)},
        {"diagnostic context", run(vc::kCommandDiagnostic, context)},
        {"diagnostic dump", run(vc::kCommandDiagnostic, dump)},
        {"select", run(vc::kCommandSelectDevice, identity)},
        {"readFirmwareUpdate", [&tool] { tool.readFirmwareUpdate(); }},
        {"updateFirmwareUpdate", [&tool] { tool.updateFirmwareUpdate(); }},
        {"dumpDiagnosticLog", [&tool] { tool.dumpDiagnosticLog(); }},
        {"CB_RegisterDeviceInfo", [&tool] { tool.CB_RegisterDeviceInfo(CountRecord); }},
        {"CB_RegisterDiagnosticInfo", [&tool] { tool.CB_RegisterDiagnosticInfo(CountRecord); }},
        {"CB_RegisterAudioInfo", [&tool] { tool.CB_RegisterAudioInfo(CountRecord); }},
        {"CB_RegisterLightInfo", [&tool] { tool.CB_RegisterLightInfo(CountRecord); }},
        {"CB_RegisterFirmwareUpdateInfo",
         [&tool] { tool.CB_RegisterFirmwareUpdateInfo(CountRecord); }},
        {"SaveSystemReport", [] { vc::SaveSystemReport(); }},
        {"exit", [&tool] { tool.exit(); }},
    };
}

// A job runs (a USB update, an MCU update, a backup) while a second thread
// calls every export and every operation of the class face in turn, round
// after round, with a flash image and a program image in the working folder
// for the start-up scan to find. Every call returns; afterwards the device
// holds the image byte for byte, read back through the virtual device: the
// flash by a backup, the microcontroller's program memory by the dump it
// writes when it is re-plugged; a backup equals a second, undisturbed one.
enum class Job { kUsbUpdate, kMcuUpdate, kBackup };
class EveryCallDuringAJob : public BadInput, public ::testing::WithParamInterface<Job> {};

TEST_P(EveryCallDuringAJob, LeavesTheJobItsImage) {
    const Job job = GetParam();
    const std::string hex = UsbImage(), bin = McuImage();
    const std::string backup = Path("job.hex"), again = Path("again.hex");
    if (job == Job::kUsbUpdate) {
        ASSERT_EQ(KORVSDK_Set_USB_HexFile(hex.c_str()), 1);
    }
    if (job == Job::kMcuUpdate) {
        ASSERT_EQ(KORVSDK_Set_MCU_BinFile(bin.c_str()), 1);
    }
    std::vector<Export> calls = EveryExport(&list_[0], hex, bin, Path("backup.hex"));
    std::set<std::string> names;
    for (const Export& e : calls) names.insert(e.name);
    const std::set<std::string> exported = {
#include "export_names.h"
    };
    EXPECT_EQ(names, exported) << "the table must call every export once";
    std::unique_ptr<vc::ToolCoreInterface> tool(vc::createToolCore());
    for (Export& e : EveryClassFaceCall(*tool, &list_[0], hex, bin)) calls.push_back(std::move(e));

    std::atomic<bool> jobDone{false};
    std::atomic<int> made{0};
    std::thread caller([&] {
        // Each call only while the job runs: a file set or a backup started
        // after its end would be a new job, not bad input.
        while (!jobDone && KORVSDK_Check_IsFirmwareUpdating() != 1) std::this_thread::yield();
        while (KORVSDK_Check_IsFirmwareUpdating() == 1) {
            for (const Export& e : calls) {
                if (KORVSDK_Check_IsFirmwareUpdating() != 1) break;
                e.call();
                ++made;
            }
        }
    });
    switch (job) {
        case Job::kUsbUpdate: ASSERT_EQ(KORVSDK_Start_USB_FwUpdate(), 1); break;
        case Job::kMcuUpdate: ASSERT_EQ(KORVSDK_Start_MCU_FwUpdate(), 1); break;
        case Job::kBackup: EXPECT_EQ(KORVSDK_Read_USB_Flash(backup.c_str()), 1); break;
    }
    ASSERT_TRUE(WaitUntilIdle());
    jobDone = true;
    caller.join();
    tool.reset();
    EXPECT_GE(made.load(), static_cast<int>(calls.size()));

    const auto bytes = [](const std::string& path) {
        const std::string text = korvsdk_test::ReadFile(path);
        return std::vector<uint8_t>(text.begin(), text.end());
    };
    if (job == Job::kBackup) {
        ASSERT_EQ(KORVSDK_Read_USB_Flash(again.c_str()), 1);
        EXPECT_TRUE(bytes(backup) == bytes(again));
        return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2300));  // the re-plug
    KORVSDK_Free_DeviceList(&list_, &count_);
    ASSERT_EQ(KORVSDK_Scan_DeviceList(&list_, &count_), 1);
    ASSERT_EQ(KORVSDK_Select_Device(&list_[0]), 1);
    const bool mcu = job == Job::kMcuUpdate;
    EXPECT_EQ(Take(mcu ? KORVSDK_Get_MCU_FW_Ver() : KORVSDK_Get_USB_FW_Ver()),
              mcu ? "0d.18.00.010000" : "01.00.02.00.0000");
    const std::vector<uint8_t> image = bytes(mcu ? bin : hex);
    std::vector<uint8_t> device;
    if (mcu) {
        device = bytes(Path("program.bin"));
    } else {
        ASSERT_EQ(KORVSDK_Read_USB_Flash(again.c_str()), 1);
        device = bytes(again);
    }
    ASSERT_GE(device.size(), image.size() + 128);
    EXPECT_TRUE(std::equal(image.begin(), image.end(), device.begin()));
    if (mcu) {  // the rest of the last page, and the pages after it, erased
        const auto tail = device.begin() + static_cast<long>(image.size());
        EXPECT_TRUE(std::all_of(tail, tail + 128 - image.size() % 128,
                                [](uint8_t b) { return b == 0xFF; }));
    }
}

void PrintTo(Job job, std::ostream* out) { *out << static_cast<int>(job); }
std::string JobName(const ::testing::TestParamInfo<Job>& info) {
    switch (info.param) {
        case Job::kUsbUpdate: return "UsbUpdate";
        case Job::kMcuUpdate: return "McuUpdate";
        case Job::kBackup: break;
    }
    return "Backup";
}
INSTANTIATE_TEST_SUITE_P(Kind, EveryCallDuringAJob,
                         ::testing::Values(Job::kUsbUpdate, Job::kMcuUpdate, Job::kBackup),
                         JobName);

namespace {
std::vector<std::string> g_inside;
void FwStateAsksTheLibrary(DevFwUpdateStateInfo* info) {
    g_inside.push_back(std::string(info->state ? info->state : "") + ": updating " +
                       std::to_string(KORVSDK_Check_IsFirmwareUpdating()) + ", version '" +
                       Take(KORVSDK_Get_USB_FW_Ver()) + "'");
    // Releases itself from inside, at the end.
    if (info->state != nullptr && std::string(info->state) == "UpdateCompleted")
        KORVSDK_Close_CB_DevFwUpdate_StateInfo();
}
int g_versionsInside = 0;
void DeviceStateAsksForTheVersion(DeviceStateInfo*) {
    // Asking for the version raises the device-state callback again; that
    // inner raise is skipped instead of recursing.
    ++g_versionsInside;
    Take(KORVSDK_Get_USB_FW_Ver());
}
int g_scansInside = 0;
void ScanListScansAgain(DeviceEntry*, uint16_t count) {
    ++g_scansInside;
    DeviceEntry* list = nullptr;
    uint16_t again = 0;
    EXPECT_EQ(KORVSDK_Scan_DeviceList(&list, &again), 1);
    EXPECT_EQ(again, count);
    KORVSDK_Free_DeviceList(&list, &again);
}
}  // namespace

TEST_F(BadInput, CallbacksThatCallTheLibrary) {
    ASSERT_EQ(KORVSDK_Open_CB_Device_StateInfo(DeviceStateAsksForTheVersion), 1);
    EXPECT_EQ(Take(KORVSDK_Get_USB_FW_Ver()), "01.00.01.09.0000");
    EXPECT_EQ(g_versionsInside, 1);

    ASSERT_EQ(KORVSDK_Open_CB_Scan_DeviceList(ScanListScansAgain), 1);
    DeviceEntry* list = nullptr;
    uint16_t count = 0;
    EXPECT_EQ(KORVSDK_Scan_DeviceList(&list, &count), 1);
    KORVSDK_Free_DeviceList(&list, &count);
    EXPECT_EQ(g_scansInside, 1);

    ASSERT_EQ(KORVSDK_Set_USB_HexFile(UsbImage().c_str()), 1);
    ASSERT_EQ(KORVSDK_Open_CB_DevFwUpdate_StateInfo(FwStateAsksTheLibrary), 1);
    ASSERT_EQ(KORVSDK_Start_USB_FwUpdate(), 1);
    ASSERT_TRUE(WaitUntilIdle());
    ASSERT_GE(g_inside.size(), 3u);
    EXPECT_EQ(g_inside.front(), "Updating initialization: updating 1, version ''");
    EXPECT_EQ(g_inside.back().rfind("UpdateCompleted: updating ", 0), 0u) << g_inside.back();
    // The callback released its slot from inside: it is free again.
    EXPECT_EQ(KORVSDK_Close_CB_DevFwUpdate_StateInfo(), 0);
}

namespace {
// Held on the update's worker at the first "Updating" record until the test
// lets it go: 1 inside, 2 let go, 3 left.
std::atomic<int> g_held{0};
void HeldOnTheWorker(DevFwUpdateStateInfo* info) {
    if (g_held != 0 || info->state == nullptr || std::string(info->state) != "Updating") return;
    g_held = 1;
    while (g_held != 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    g_held = 3;
}
// The worker's callback replaces the debug-output handler while the test's
// thread, inside that handler, closes the worker's callback: each waits for
// the other's call, unless a waiting thread's own calls do not count.
std::thread::id g_testThread;
int g_closedInHandler = -1;
int g_heldWhenClosed = -1;
void HandlerClosesTheUpdateCallback(const char*) {
    if (std::this_thread::get_id() != g_testThread || g_held != 1) return;
    g_held = 2;
    g_closedInHandler = KORVSDK_Close_CB_DevFwUpdate_StateInfo();
    g_heldWhenClosed = g_held;
}
void UpdateCallbackReplacesTheHandler(DevFwUpdateStateInfo* info) {
    if (g_held != 0 || info->state == nullptr || std::string(info->state) != "Updating") return;
    g_held = 1;
    while (g_held != 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    KORVSDK_Set_Debug_Output_Handler(MessageLog::Collect);
    g_held = 3;
}
bool WaitUntilHeld() {
    for (int i = 0; i < 30000 && g_held != 1; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return g_held == 1;
}
}  // namespace

// A close from another thread returns only once the callback has left, so
// that the host may unload its code.
TEST_F(BadInput, CloseWaitsForTheCallbackOnTheWorker) {
    ASSERT_EQ(KORVSDK_Set_USB_HexFile(UsbImage().c_str()), 1);
    ASSERT_EQ(KORVSDK_Open_CB_DevFwUpdate_StateInfo(HeldOnTheWorker), 1);
    ASSERT_EQ(KORVSDK_Start_USB_FwUpdate(), 1);
    ASSERT_TRUE(WaitUntilHeld());
    int closed = -1, heldWhenClosed = -1;
    std::thread host([&] {
        closed = KORVSDK_Close_CB_DevFwUpdate_StateInfo();
        heldWhenClosed = g_held;
    });
    // The close is under way while the callback is still held.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    g_held = 2;
    host.join();
    EXPECT_EQ(closed, 1);
    EXPECT_EQ(heldWhenClosed, 3) << "the close returned while the callback was inside";
    ASSERT_TRUE(WaitUntilIdle());
}

// Two threads that close, from inside their own function, the one the other
// is in: neither waits for the other for ever.
TEST_F(BadInput, ClosesFromInsideEachOthersCallbacksEnd) {
    g_testThread = std::this_thread::get_id();
    ASSERT_EQ(KORVSDK_Set_USB_HexFile(UsbImage().c_str()), 1);
    ASSERT_EQ(KORVSDK_Open_CB_DevFwUpdate_StateInfo(UpdateCallbackReplacesTheHandler), 1);
    KORVSDK_Set_Debug_Output_Handler(HandlerClosesTheUpdateCallback);
    ASSERT_EQ(KORVSDK_Start_USB_FwUpdate(), 1);
    ASSERT_TRUE(WaitUntilHeld());
    // Refused during the update, with a debugger text from this thread.
    EXPECT_EQ(Take(KORVSDK_Get_USB_FW_Ver()), "");
    EXPECT_EQ(g_closedInHandler, 1);
    EXPECT_EQ(g_heldWhenClosed, 3);
    ASSERT_TRUE(WaitUntilIdle());
}

#if KORVSDK_ALLOCATION_FAILURES
// Each export fails at its first allocation, then its second, and so on
// until it needs no more than it is given: every failure is a result (0, or
// an empty text, never null) with "Error allocating memory!", and the
// library keeps working afterwards.
TEST_F(BadInput, AnAllocationFailureAnywhereIsAResult) {
    const struct {
        const char* name;
        std::function<bool()> call;  // true: the export succeeded
    } cases[] = {
        {"Get_USB_FW_Ver",
         [] {
             char* text = KORVSDK_Get_USB_FW_Ver();
             EXPECT_NE(text, nullptr);
             const bool ok = text != nullptr && text[0] != '\0';
             KORVSDK_Free_PeCHAR(&text);
             return ok;
         }},
        {"Get_HDMI_Info", [] { return KORVSDK_Get_HDMI_Info() == 1; }},
        {"Scan_DeviceList",
         [] {
             DeviceEntry* list = nullptr;
             uint16_t count = 0;
             const bool ok = KORVSDK_Scan_DeviceList(&list, &count) == 1 && count == 1;
             KORVSDK_Free_DeviceList(&list, &count);
             return ok;
         }},
        {"Select_Device", [this] { return KORVSDK_Select_Device(&list_[0]) == 1; }},
    };
    for (const auto& c : cases) {
        int failures = 0;
        for (int allowed = 0; allowed < 10000; ++allowed) {
            MessageLog::Clear();
            g_allocationsBeforeFailure = allowed;
            const bool ok = c.call();
            const bool failed = g_allocationsBeforeFailure.exchange(-1) == -1;
            if (!failed) {
                EXPECT_TRUE(ok) << c.name << " with every allocation granted";
                break;
            }
            ++failures;
            EXPECT_FALSE(ok && MessageLog::Count("Error allocating memory!\n") > 0) << c.name;
        }
        EXPECT_GT(failures, 0) << c.name << " allocates nothing?";
        MessageLog::Clear();
        EXPECT_EQ(Take(KORVSDK_Get_USB_FW_Ver()), "01.00.01.09.0000") << "after " << c.name;
        EXPECT_EQ(KORVSDK_Check_IsFirmwareUpdating(), 0);
    }
}
#endif
