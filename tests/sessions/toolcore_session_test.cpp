// A desktop tool's whole session through the class face alone (after the
// C API's scan and selection): audio query and change with report-back, a
// light effect read back, a USB update started with command 2 and followed
// through the firmware-update callback, and a log dump. Built against the
// public headers and the shared library / DLL.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "KORVSDKDeviceTool.h"
#include "VideoConsoleCore.h"
#include "sessions/session_harness.h"
#include "support/test_support.h"
#include "virtual/device/usb_image.h"

namespace vc = VideoConsoleCore;
namespace vd = VideoConsoleCore::virtualdev;

namespace {

std::mutex g_mutex;  // the firmware callback runs on the update's thread
std::vector<std::string> g_fwStates;
std::string g_usbFileVersion;
std::vector<vc::AudioControl> g_audio;
std::vector<vc::DeviceLightControl> g_lights;

bool OnFirmware(void* record) {
    auto* info = static_cast<vc::DeviceFirmwareupdateInfo_export*>(record);
    std::lock_guard lock(g_mutex);
    g_fwStates.push_back(info->GetState());
    if (info->GetUsbFileVersion()[0] != '\0') g_usbFileVersion = info->GetUsbFileVersion();
    return true;
}
bool OnAudio(void* record) {
    g_audio.push_back(*static_cast<vc::AudioControl*>(record));
    return true;
}
bool OnLight(void* record) {
    g_lights.push_back(*static_cast<vc::DeviceLightControl*>(record));
    return true;
}
bool OnDiagnostic(void*) { return true; }

bool Completed() {
    std::lock_guard lock(g_mutex);
    return !g_fwStates.empty() &&
           (g_fwStates.back() == "UpdateCompleted" || g_fwStates.back() == "UpdateFailed");
}

}  // namespace

TEST(ToolCoreSession, DrivesTheDeviceThroughRunCommand) {
    korvsdk_test::TempFolder folder;
    korvsdk_test::WorkingFolder cwd(folder.path());
    korvsdk_test::WriteFile(folder.path() / "setting.cfg",
                            "EnableLocalLogging=1\nDevIDNum=1\nDevDrvID0=USB\\VID_FFF0&PID_0C01\n"
                            "FW_Overwrite=0\nUSB_Burn_Area=1\n" +
                                korvsdk_test::PrepareSessionBackend("Virtual0_McuWriteLog=mcu.txt\n"));
    std::unique_ptr<vc::ToolCoreInterface> tool(vc::createToolCore());
    ASSERT_EQ(tool->init(), 0);
    EXPECT_EQ(tool->CB_RegisterFirmwareUpdateInfo(OnFirmware), 1);
    EXPECT_EQ(tool->CB_RegisterAudioInfo(OnAudio), 1);
    EXPECT_EQ(tool->CB_RegisterLightInfo(OnLight), 1);
    EXPECT_EQ(tool->CB_RegisterDiagnosticInfo(OnDiagnostic), 1);
    EXPECT_EQ(tool->CB_RegisterAudioInfo(OnAudio), -1);  // once only

    // No device yet: every command is refused, whatever the state.
    vc::AudioControl query;
    query.query = 1;
    EXPECT_FALSE(tool->runCommand(vc::kCommandAudio, &query, nullptr));
    DeviceEntry* list = nullptr;
    uint16_t count = 0;
    ASSERT_EQ(KORVSDK_Scan_DeviceList(&list, &count), 1);
    ASSERT_EQ(KORVSDK_Select_Device(&list[0]), 1);
    // Selected but not started: accepted, nothing done.
    EXPECT_TRUE(tool->runCommand(vc::kCommandAudio, &query, nullptr));
    EXPECT_TRUE(g_audio.empty());

    EXPECT_EQ(tool->start(), -1);
    // Running once an unknown command is refused.
    for (int i = 0; i < 200 && tool->runCommand(99, nullptr, nullptr); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_FALSE(tool->runCommand(99, nullptr, nullptr));

    // Selection by identity; an unknown one is refused.
    vc::DeviceIdentity identity{list[0].vid, list[0].pid, list[0].instance};
    EXPECT_TRUE(tool->runCommand(vc::kCommandSelectDevice, &identity, nullptr));
    vc::DeviceIdentity unknown{"FFF0", "0C01", "no-such-serial"};
    EXPECT_TRUE(tool->runCommand(vc::kCommandSelectDevice, &unknown, nullptr));
    KORVSDK_Free_DeviceList(&list, &count);

    // Audio: the query reports the device's state; a change of two settings
    // with report-back shows them changed and the rest as it was.
    ASSERT_TRUE(tool->runCommand(vc::kCommandAudio, &query, nullptr));
    ASSERT_EQ(g_audio.size(), 1u);
    vc::AudioControl change = g_audio[0];
    change.query = 0;
    change.reportBack = 1;
    change.hpOutVolume = static_cast<uint8_t>(g_audio[0].hpOutVolume + 3);
    change.micInMute = g_audio[0].micInMute == 0 ? 1 : 0;
    const size_t logged = korvsdk_test::ReadFile(folder.path() / "mcu.txt").size();
    ASSERT_TRUE(tool->runCommand(vc::kCommandAudio, &change, nullptr));
    ASSERT_EQ(g_audio.size(), 2u);
    // Only the two changed settings reach the device (mic mute 0x19 before
    // headphone volume 0x10, in the record's order); the save (0xBC) follows.
    std::vector<std::string> audioWrites;
    std::istringstream writes(korvsdk_test::ReadFile(folder.path() / "mcu.txt").substr(logged));
    for (std::string line; std::getline(writes, line);) {
        const std::string reg = line.substr(0, 2);
        if (reg == "10" || reg == "11" || reg == "12" || reg == "18" || reg == "19" || reg == "1A")
            audioWrites.push_back(line);
    }
    char hp[8], mic[8];
    std::snprintf(hp, sizeof hp, "10 %02X", change.hpOutVolume);
    std::snprintf(mic, sizeof mic, "19 %02X", change.micInMute);
    EXPECT_EQ(audioWrites, (std::vector<std::string>{mic, hp}));
    EXPECT_EQ(g_audio[1].hpOutVolume, change.hpOutVolume);
    EXPECT_EQ(g_audio[1].micInMute, change.micInMute);
    EXPECT_EQ(g_audio[1].auxInVolume, g_audio[0].auxInVolume);
    EXPECT_EQ(g_audio[1].hpOutMute, g_audio[0].hpOutMute);

    // A light effect, then the bytes remembered under its key.
    vc::LightControlCommand light;
    light.selector = 2;
    light.key = 3;
    light.effect = 1;
    light.parameter = 9;
    light.first = 0x11, light.second = 0x22, light.third = 0x33;
    EXPECT_TRUE(tool->runCommand(vc::kCommandLight, &light, nullptr));
    vc::LightControlCommand lightQuery;
    lightQuery.query = 1;
    lightQuery.selector = 2;
    lightQuery.key = 3;
    EXPECT_TRUE(tool->runCommand(vc::kCommandLight, &lightQuery, nullptr));
    ASSERT_EQ(g_lights.size(), 1u);
    const uint8_t remembered[5] = {1, 0x11, 0x22, 0x33, 9};
    EXPECT_EQ(std::vector<uint8_t>(g_lights[0].light, g_lights[0].light + 5),
              std::vector<uint8_t>(remembered, remembered + 5));
    light.selector = 7;
    EXPECT_TRUE(tool->runCommand(vc::kCommandLight, &light, nullptr));  // handled, refused

    // A USB update: the file through the query, then the start.
    vd::UsbImageOptions image;
    image.versionText = "01.00.02.00.0000";
    const std::string path = (folder.path() / "new.hex").string();
    ASSERT_TRUE(vd::WriteUsbImageFile(path, vd::BuildUsbImage(image)));
    vc::FwUpdateCommand update;
    update.query = 1;
    const std::wstring widePath(path.begin(), path.end());
    update.SetUsbFilePath(widePath.c_str());
    ASSERT_TRUE(tool->runCommand(vc::kCommandFirmwareUpdate, &update, nullptr));
    EXPECT_EQ(g_usbFileVersion, "01.00.02.00.0000");
    update.query = 0;
    update.start = 1;
    ASSERT_TRUE(tool->runCommand(vc::kCommandFirmwareUpdate, &update, nullptr));
    for (int i = 0; i < 3000 && !Completed(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(Completed());
    while (KORVSDK_Check_IsFirmwareUpdating() == 1)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    {
        std::lock_guard lock(g_mutex);
        EXPECT_EQ(g_fwStates.back(), "UpdateCompleted");
        EXPECT_NE(std::find(g_fwStates.begin(), g_fwStates.end(), "Updating"), g_fwStates.end());
    }

    // A log dump into a folder of the tool's choice.
    const auto dumps = folder.path() / "dumps";
    std::filesystem::create_directory(dumps);
    vc::DiagnosticRequest dump;
    dump.dumpLog = true;
    const std::string dumpsText = dumps.string();
    dump.dumpFolder.assign(dumpsText.begin(), dumpsText.end());
    EXPECT_TRUE(tool->runCommand(vc::kCommandDiagnostic, &dump, nullptr));
    std::vector<std::filesystem::path> made;
    for (const auto& entry : std::filesystem::directory_iterator(dumps)) made.push_back(entry.path());
    ASSERT_EQ(made.size(), 1u);
    EXPECT_TRUE(std::regex_match(made[0].filename().string(),
                                 std::regex(R"(Dump_Log_\d{4}-\d\d-\d\d \d+h \d+m \d+s\.txt)")))
        << made[0];
    EXPECT_NE(korvsdk_test::ReadFile(made[0]).find("starting logger..."), std::string::npos);

    EXPECT_EQ(tool->exit(), 1);
    EXPECT_TRUE(tool->runCommand(vc::kCommandAudio, &query, nullptr));  // nothing done
    EXPECT_EQ(g_audio.size(), 2u);
}
