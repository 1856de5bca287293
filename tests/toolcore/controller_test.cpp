// The controller's own rules on the virtual device: its state and refusals,
// which audio writes reach the microcontroller, what the RGB light gets for
// an effect, and the diagnostic files.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <functional>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "diagnostics/diagnostics.h"
#include "support/virtual_session.h"
#include "toolcore/tool_core_controller.h"
#include "firmware/update_common.h"
#include "virtual/device/usb_image.h"
#include "virtual/mcu/behind_mcu_chips.h"
#include "virtual/mcu/mcu_image.h"

using namespace VideoConsoleCore;
namespace fs = std::filesystem;

namespace {

std::vector<AudioControl> g_audio;
bool OnAudio(void* record) {
    g_audio.push_back(*static_cast<AudioControl*>(record));
    return true;
}

class Controller : public korvsdk_test::VirtualSession {
protected:
    void Run() {
        ASSERT_EQ(tool_.init(), 0);
        tool_.start();
        for (int i = 0; i < 400 && tool_.State() != 1; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ASSERT_EQ(tool_.State(), 1);
    }
    std::vector<fs::path> FilesIn(const fs::path& folder) {
        std::vector<fs::path> files;
        for (const auto& e : fs::directory_iterator(folder)) files.push_back(e.path().filename());
        return files;
    }
    ToolCoreControllerImp tool_;
};

}  // namespace

TEST_F(Controller, StateRules) {
    ASSERT_NO_FATAL_FAILURE(Init());
    ASSERT_EQ(tool_.init(), 0);
    DiagnosticRequest request;
    struct Row {
        int command;
        void* record;
        bool expected;
    };
    // Before start, without a device: refused; then selected: accepted and
    // nothing done.
    EXPECT_FALSE(tool_.runCommand(kCommandAudio, nullptr, nullptr));
    ASSERT_TRUE(core_.SelectDevice(&list_[0]));
    EXPECT_TRUE(tool_.runCommand(99, nullptr, nullptr));
    ASSERT_NO_FATAL_FAILURE(Run());
    const Row running[] = {{kCommandAudio, nullptr, true},   {kCommandLight, nullptr, true},
                           {kCommandFirmwareUpdate, nullptr, true},
                           {kCommandDiagnostic, &request, true},
                           {kCommandSelectDevice, nullptr, true}, {5, nullptr, false},
                           {-1, nullptr, false}};
    for (const Row& r : running) EXPECT_EQ(tool_.runCommand(r.command, r.record, nullptr), r.expected) << r.command;
    EXPECT_EQ(tool_.exit(), 1);
    EXPECT_TRUE(tool_.runCommand(5, nullptr, nullptr));
    EXPECT_EQ(tool_.dumpDiagnosticLog(), 1);
    EXPECT_FALSE(tool_.clearOldDeviceBuffer());
}

TEST_F(Controller, OnlyChangedAudioSettingsAreWritten) {
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_NO_FATAL_FAILURE(Run());
    g_audio.clear();
    ASSERT_EQ(tool_.CB_RegisterAudioInfo(OnAudio), 1);
    AudioControl query;
    query.query = 1;
    ASSERT_TRUE(tool_.runCommand(kCommandAudio, &query, nullptr));
    ASSERT_EQ(g_audio.size(), 1u);

    AudioControl change = g_audio[0];
    change.query = 0;
    change.hpOutVolume = static_cast<uint8_t>(change.hpOutVolume + 1);
    change.micInMute ^= 1;
    auto& mcu = Device().Mcu(0);
    const uint8_t registers[] = {0x1A, 0x18, 0x19, 0x12, 0x10, 0x11};  // in the record's order
    std::vector<uint64_t> before;
    for (uint8_t reg : registers) before.push_back(mcu.WritesOf(reg));
    ASSERT_TRUE(tool_.runCommand(kCommandAudio, &change, nullptr));
    const std::vector<uint64_t> expected = {0, 0, 1, 0, 1, 0};
    for (size_t i = 0; i < std::size(registers); ++i)
        EXPECT_EQ(mcu.WritesOf(registers[i]) - before[i], expected[i]) << int(registers[i]);
    EXPECT_EQ(core_.AudioCache().hpOutVolume, change.hpOutVolume);
    EXPECT_EQ(g_audio.size(), 1u);  // no report-back asked

    // The same record again writes nothing.
    ASSERT_TRUE(tool_.runCommand(kCommandAudio, &change, nullptr));
    EXPECT_EQ(mcu.WritesOf(0x10) - before[4], 1u);
}

TEST_F(Controller, LightEffectsOnTheRgbChip) {
    ASSERT_NO_FATAL_FAILURE(Start("Virtual0_ModelCode=6\n"));
    ASSERT_NO_FATAL_FAILURE(Run());
    auto* chip = Device().Mcu(0).RgbLight();
    ASSERT_NE(chip, nullptr);
    LightControlCommand light;
    light.selector = 2;
    light.first = 0x11, light.second = 0x22, light.third = 0x33;
    struct Row {
        uint8_t effect;
        bool colour;
    };
    for (const Row row : {Row{4, false}, Row{1, true}, Row{7, true}, Row{13, false}}) {
        const size_t from = chip->Writes().size();
        light.effect = row.effect;
        core_.StopLightPreview();  // the last preview need not run out
        ASSERT_TRUE(tool_.runCommand(kCommandLight, &light, nullptr));
        std::vector<std::vector<uint8_t>> writes(chip->Writes().begin() + from, chip->Writes().end());
        bool colourSeen = false, effectSeen = false;
        for (const auto& w : writes) {
            if (w.size() == 17 && w[0] == 0x03 && w[1] == 0x0F) {
                colourSeen = true;
                EXPECT_EQ(std::vector<uint8_t>(w.begin() + 2, w.begin() + 5),
                          (std::vector<uint8_t>{0x11, 0x33, 0x22}));  // first, third, second
            }
            if (w == std::vector<uint8_t>{0x03, 0x01, row.effect}) effectSeen = true;
        }
        EXPECT_EQ(colourSeen, row.colour) << int(row.effect);
        EXPECT_TRUE(effectSeen) << int(row.effect);
    }
}

// A preview that is not saved runs out (the light off, then its steady
// effect) before the next effect's preview starts; a save ends it at once.
TEST_F(Controller, APreviewRunsOutUnlessItIsSaved) {
    ASSERT_NO_FATAL_FAILURE(Start("Virtual0_ModelCode=6\n"));
    ASSERT_NO_FATAL_FAILURE(Run());
    auto* chip = Device().Mcu(0).RgbLight();
    ASSERT_NE(chip, nullptr);
    const size_t from = chip->Writes().size();
    LightControlCommand light;
    light.selector = 2;
    for (const uint8_t effect : {4, 5}) {
        light.effect = effect;
        ASSERT_TRUE(tool_.runCommand(kCommandLight, &light, nullptr));
    }
    LightControlCommand save;
    save.selector = 1;
    ASSERT_TRUE(tool_.runCommand(kCommandLight, &save, nullptr));
    light.effect = 6;
    ASSERT_TRUE(tool_.runCommand(kCommandLight, &light, nullptr));
    // The effect register (0x21) is chosen, then written.
    std::vector<int> effects;
    for (auto w = chip->Writes().begin() + from; w + 1 < chip->Writes().end(); ++w)
        if (w->back() == 0x21 && (w + 1)->size() == 3) effects.push_back((*(w + 1))[2]);
    EXPECT_EQ(effects, (std::vector<int>{4, 5, 0, 1, 6}));
}

namespace {
std::mutex g_fwMutex;  // the firmware callback runs on the update's thread
std::vector<std::string> g_fwRecords;  // state|message
ToolCoreControllerImp* g_tool = nullptr;
int g_secondStart = 0;
uint8_t g_model = 0;
bool OnFirmwareInfo(void* record) {
    auto* info = static_cast<DeviceFirmwareupdateInfo_export*>(record);
    const std::string state = info->GetState();
    // A second start while the first runs, from inside its progress.
    if (state == "Updating" && g_secondStart == 0) g_secondStart = g_tool->updateFirmwareUpdate();
    std::lock_guard lock(g_fwMutex);
    g_fwRecords.push_back(state + "|" + info->GetMessage());
    g_model = info->GetModel();
    return true;
}
bool Recorded(const std::string& record) {
    std::lock_guard lock(g_fwMutex);
    return std::find(g_fwRecords.begin(), g_fwRecords.end(), record) != g_fwRecords.end();
}
}  // namespace

// The tool core's update starts: updateFirmwareUpdate takes the working
// folder's images, the microcontroller's first, and answers 1 whatever it
// started; command 2 without the query flag starts the target's update.
TEST_F(Controller, FirmwareUpdateStarts) {
    ASSERT_NO_FATAL_FAILURE(Start("FW_Overwrite=0\n"));
    ASSERT_NO_FATAL_FAILURE(Run());
    ASSERT_EQ(tool_.CB_RegisterFirmwareUpdateInfo(OnFirmwareInfo), 1);
    g_tool = &tool_;
    core_.m_updateWaitDivisor = 50;
    virtualdev::UsbImageOptions usb;
    usb.versionText = "01.00.02.00.0000";
    virtualdev::McuImageOptions mcu;
    mcu.version = 0x18;
    const struct {
        const char* name;
        bool hex, bin;
        const char* updating;  // the first progress message; null: nothing starts
    } rows[] = {
        {"both kinds", true, true, "MCU firmware is updating.."},
        {"a flash image", true, false, "USB firmware is updating.."},
        {"no image", false, false, nullptr},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        fs::remove("new.hex"), fs::remove("new.bin");
        if (r.hex) {
            ASSERT_TRUE(virtualdev::WriteUsbImageFile("new.hex", BuildUsbImage(usb)));
        }
        if (r.bin) {
            ASSERT_TRUE(virtualdev::WriteMcuImageFile("new.bin", BuildMcuImage(mcu)));
        }
        g_fwRecords.clear();
        g_secondStart = 0;
        korvsdk_test::MessageLog::Clear();
        EXPECT_EQ(tool_.updateFirmwareUpdate(), 1);
        firmware::JoinUpdateThread(core_);
        EXPECT_EQ(Recorded(std::string("Updating|") + (r.updating ? r.updating : "")),
                  r.updating != nullptr);
        if (r.updating == nullptr) continue;
        EXPECT_EQ(g_secondStart, 1);
        EXPECT_TRUE(Said("An update is running; updateFirmwareUpdate starts no second one.\n"));
        EXPECT_EQ(g_model, 13);
    }
    // The folder is empty now: nothing is armed, yet the core still holds
    // the version text of the last flash image it took.
    EXPECT_EQ(tool_.readFirmwareUpdate(), "01.00.02.00.0000");

    ASSERT_TRUE(virtualdev::WriteMcuImageFile("new.bin", BuildMcuImage(mcu)));
    FwUpdateCommand query;
    query.query = 1;
    ASSERT_TRUE(tool_.runCommand(kCommandFirmwareUpdate, &query, nullptr));
    ASSERT_EQ(core_.m_mcuFileValid, 1);
    g_fwRecords.clear();
    FwUpdateCommand start;  // neither flag set
    start.target = 1;
    ASSERT_TRUE(tool_.runCommand(kCommandFirmwareUpdate, &start, nullptr));
    firmware::JoinUpdateThread(core_);
    EXPECT_TRUE(Recorded("Updating|MCU firmware is updating.."));
}

// Command 4 selects a device of the last scan by its three identity texts
// (the ids in any case) and scans nothing itself.
TEST_F(Controller, SelectionTakesTheDeviceFromTheLastScan) {
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_NO_FATAL_FAILURE(Run());
    static int scans = 0;
    ASSERT_EQ(core_.OpenScanListCallback([](DeviceEntry*, uint16_t) { ++scans; }), 1);
    const struct {
        DeviceIdentity identity;
        bool selects;
    } rows[] = {
        {{"fff0", "0c01", list_[0].instance}, true},
        {{"FFF0", "0C01", "VC00000009"}, false},
        {{"FFF0", "0C02", list_[0].instance}, false},
    };
    for (const auto& r : rows) {
        korvsdk_test::MessageLog::Clear();
        EXPECT_TRUE(tool_.runCommand(kCommandSelectDevice, const_cast<DeviceIdentity*>(&r.identity),
                                     nullptr));
        EXPECT_EQ(Said("HidDevices Got it!! and index: 0\n"), r.selects) << r.identity.instance;
    }
    EXPECT_EQ(scans, 0);
}

TEST_F(Controller, DiagnosticFiles) {
    ASSERT_NO_FATAL_FAILURE(Init("EnableLocalLogging=1\n"));
    fs::create_directories("Diagnostic/tmp");
    // No device: the tagged copy says so, with the tag in front when given.
    DiagnosticRequest request;
    request.collectInfo = true;
    diagnostics::HandleRequest(core_, request);
    request.email = "user@example.com";
    request.describeContent = L"Bild bleibt schwarz \u00fc";
    request.isAllowPrivacyToSendLog = true;
    diagnostics::HandleRequest(core_, request);
    std::vector<std::string> names;
    for (const auto& f : FilesIn("Diagnostic/tmp")) names.push_back(f.string());
    ASSERT_EQ(names.size(), 2u);
    std::sort(names.begin(), names.end());
    EXPECT_TRUE(std::regex_match(names[0], std::regex(R"(NoDevice,\d{4}-.*s\.txt)"))) << names[0];
    EXPECT_TRUE(std::regex_match(names[1], std::regex(R"(user@example\.com,NoDevice,.*\.txt)")))
        << names[1];
    const std::string copy = korvsdk_test::ReadFile(fs::path("Diagnostic/tmp") / names[1]);
    EXPECT_NE(copy.find("Email: user@example.com"), std::string::npos);
    EXPECT_NE(copy.find("Bild bleibt schwarz \xC3\xBC"), std::string::npos);
    EXPECT_NE(copy.find("isAllowPrivacyToSendLog: TRUE"), std::string::npos);
    EXPECT_TRUE(korvsdk_test::MessageLog::All().find("Email:") == std::string::npos);  // file only

    struct Model {
        bool selected;
        uint8_t model;
        const char* prefix;
    };
    for (const Model m : {Model{true, 6, "TARNA,"}, Model{true, 16, "VELIS,"},
                          Model{true, 14, "OSKA,"}, Model{true, 13, "PIRU,"},
                          Model{true, 7, "NoDevice,"}, Model{false, 13, "NoDevice,"}})
        EXPECT_STREQ(diagnostics::ModelPrefix(m.selected, m.model), m.prefix);

    EXPECT_EQ(diagnostics::SummaryOf("Sound Devices\nx\n"), "");
    EXPECT_EQ(diagnostics::SummaryOf("a\r\nb\nSound Devices\nc\n"), "a\nb\n");
    EXPECT_EQ(diagnostics::SummaryOf("a\nSound Devices:\n"), "a\nSound Devices:\n");
}

TEST_F(Controller, DiagnosticBadInput) {
    ASSERT_NO_FATAL_FAILURE(Init("EnableLocalLogging=1\n"));
    fs::create_directories("Diagnostic/tmp");
    fs::create_directories("dumps");
    korvsdk_test::WriteFile("plain.txt", "a file, not a folder");
    // A tag with separators and far too long a name, a long description.
    DiagnosticRequest request;
    request.collectInfo = true;
    request.email = "../up/" + std::string(5000, 'x');
    request.describeContent = std::wstring(20000, L'\u00e9');
    diagnostics::HandleRequest(core_, request);
    const auto copies = FilesIn("Diagnostic/tmp");
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_EQ(copies[0].string().rfind(".._up_xxx", 0), 0u) << copies[0];
    EXPECT_LT(copies[0].string().size(), 200u);
    EXPECT_FALSE(fs::exists("Diagnostic/up"));

    // Dump folders that are missing or cannot be made: nothing written, no
    // crash; a log that cannot be opened: an empty dump.
    struct Row {
        const wchar_t* folder;
        const char* logPath;
        const char* made;  // the folder expected to hold one empty dump, or null
    };
    const std::string log = core_.LogFilePath();
    for (const Row& r : {Row{L"missing/folder", nullptr, nullptr},
                         Row{L"plain.txt/sub", nullptr, nullptr},
                         Row{L"dumps", "no/such.log", "dumps"}}) {
        DiagnosticRequest dump;
        dump.dumpLog = true;
        dump.dumpFolder = r.folder;
        core_.m_logFilePath = r.logPath ? r.logPath : log;
        diagnostics::HandleRequest(core_, dump);
        EXPECT_FALSE(fs::exists("missing"));
        if (r.made == nullptr) continue;
        const auto made = FilesIn(r.made);
        ASSERT_EQ(made.size(), 1u);
        EXPECT_EQ(fs::file_size(fs::path(r.made) / made[0]), 0u);
    }
    core_.m_logFilePath = log;
}

TEST_F(Controller, LogDumpWithLoggingOffReportsIt) {
    ASSERT_NO_FATAL_FAILURE(Start());  // EnableLocalLogging=0
    EXPECT_FALSE(diagnostics::DumpLog(core_));
    ASSERT_EQ(korvsdk_test::StateRecords().size(), 1u);
    EXPECT_EQ(korvsdk_test::StateRecords()[0].message,
              "[Dump_Log] ERROR: You have not Enable Local Logging...");
}

// The class face's extension reaches the core's report: the summary is the
// report up to its "Sound Devices" line.
TEST_F(Controller, SystemReportThroughTheClassFace) {
#ifdef _WIN32
    GTEST_SKIP() << "the report comes from the system's diagnostic tool, not run here";
#endif
    ASSERT_NO_FATAL_FAILURE(Init());
    EXPECT_EQ(VideoConsoleCore::SaveSystemReport(), 1);
    for (int i = 0; i < 400 && core_.m_systemReportBusy; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_FALSE(core_.m_systemReportBusy);
    const std::string full = korvsdk_test::ReadFile("dxdiagData_full.txt");
    const size_t sound = full.find("\nSound Devices\n");
    ASSERT_NE(sound, std::string::npos) << full;
    const std::string summary = korvsdk_test::ReadFile("dxdiagData.txt");
    EXPECT_EQ(summary, full.substr(0, sound + 1));
    EXPECT_NE(summary.find("\nUSB Devices\n"), std::string::npos) << summary;
}

// A report that cannot be written (its folder lies below a plain file) is
// waited for all the same: the summary says so first and ends with the
// time-out text. A second request while the first waits changes nothing.
TEST_F(Controller, SystemReportThatNeverComesEndsInTheTimeOutText) {
#ifdef _WIN32
    GTEST_SKIP() << "the report comes from the system's diagnostic tool, not run here";
#endif
    ASSERT_NO_FATAL_FAILURE(Init("CurrentFolderName=plain.txt/reports\n"));
    korvsdk_test::WriteFile("plain.txt", "a file, not a folder");
    fs::create_directory("dumps");
    core_.SetDumpFolder("dumps");
    core_.m_systemReportWaitDivisor = 10;  // 10 ms between looks: about 2 s in all
    const fs::path summary = fs::path("dumps") / "dxdiagData.txt";

    EXPECT_EQ(core_.SaveSystemReport(), 1);
    EXPECT_EQ(korvsdk_test::ReadFile(summary), "Wait system write Dxdiag...\n");
    for (int i = 0; i < 2000 && core_.m_systemReportCountdown == 200; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const uint16_t left = core_.m_systemReportCountdown;
    ASSERT_LT(left, 200);
    korvsdk_test::WriteFile(summary, "untouched");
    EXPECT_EQ(core_.SaveSystemReport(), 1);
    EXPECT_LE(core_.m_systemReportCountdown, left);  // not wound back to 200
    EXPECT_EQ(korvsdk_test::ReadFile(summary), "untouched");

    for (int i = 0; i < 1000 && core_.m_systemReportBusy; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_FALSE(core_.m_systemReportBusy);
    EXPECT_EQ(korvsdk_test::ReadFile(summary), "Wait WriteDxdiag time out!\n");
    EXPECT_EQ(korvsdk_test::MessageLog::Count("Wait WriteDxdiag time out!\n"), 1);
}

#ifndef _WIN32
namespace {

// The stamps of the library's file names for this second and the next two.
std::vector<std::string> StampsFromNow() {
    std::vector<std::string> stamps;
    const std::time_t now = std::time(nullptr);
    for (int ahead = 0; ahead < 3; ++ahead) {
        const std::time_t then = now + ahead;
        std::tm t{};
        localtime_r(&then, &t);
        char text[64];
        std::snprintf(text, sizeof text, "%04d-%02d-%02d %dh %dm %ds", t.tm_year + 1900,
                      t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
        stamps.push_back(text);
    }
    return stamps;
}

}  // namespace
#endif

// Another user of a shared working folder plants symbolic links at the
// names the library is about to create (and at the old fixed ".part" names),
// pointing at a file of the user's own. That file keeps its bytes: copies,
// reports and backups land as files of their own in the link's place, and
// the log refuses to append through a link and says so. Files holding the
// user's data are readable by their owner only. The working folder's name
// has blanks and characters outside ASCII.
TEST_F(Controller, CreatedFilesNeverFollowPlantedLinks) {
#ifdef _WIN32
    GTEST_SKIP() << "planting a link takes a privilege on Windows";
#else
    const fs::path here = folder_.path() / fs::path(u8"Prüfung Ordner 日本");
    fs::create_directory(here);
    korvsdk_test::WorkingFolder inside(here);
    // A 256 KB flash part, so that the backup is quick.
    const std::string logging = "EnableLocalLogging=1\nVirtual0_FlashIndex=34\n";
    korvsdk_test::WriteFile("setting.cfg", korvsdk_test::kOneVirtualDevice + logging);
    ASSERT_NO_FATAL_FAILURE(Start(logging));
    ASSERT_TRUE(core_.m_localLogging);
    constexpr fs::perms kOthers = fs::perms::group_all | fs::perms::others_all;
    EXPECT_EQ(fs::status(core_.LogFilePath()).permissions() & kOthers, fs::perms::none);
    fs::create_directories("Diagnostic/tmp");
    const fs::path victim = folder_.path() / "victim.txt";
    const std::string kept = "the user's own file\n";
    korvsdk_test::WriteFile(victim, kept);

    VideoConsoleCoreImp other;  // a second start in this folder, for the log
    other.SetDebugOutputHandler(korvsdk_test::MessageLog::Collect);
    const std::string tagged = std::string("Diagnostic/tmp/user@example.com,") +
                               diagnostics::ModelPrefix(core_.m_selected, core_.m_deviceModel) +
                               "*.txt";
    struct Row {
        const char* kind;
        std::vector<std::string> names;  // '*' stands for a time stamp
        std::function<std::string()> run;  // the path it used, when it refuses
        const char* refusal;  // what the library says; null: it writes its file
        bool ownerOnly;
    };
    const Row rows[] = {
        {"log dump copy", {"Dump_Log_*.txt"}, [&] { diagnostics::DumpLog(core_); return ""; },
         nullptr, true},
        {"device-tagged copy", {tagged},
         [&] { diagnostics::CopyLogTagged(core_, "user@example.com"); return ""; }, nullptr, true},
        {"system report", {"dxdiagData_full.txt", "dxdiagData_full.txt.part", "dxdiagData.txt"},
         [&] {
             core_.SaveSystemReport();
             for (int i = 0; i < 400 && core_.m_systemReportBusy; ++i)
                 std::this_thread::sleep_for(std::chrono::milliseconds(10));
             return "";
         },
         nullptr, false},
        {"backup", {"backup.hex", "backup.hex.part"},
         [&] { core_.ReadUsbFlash("backup.hex"); return ""; }, nullptr, true},
        // Last: its links replace the session's own log.
        {"log append", {"Device_Log_*.txt"},
         [&] { other.StartLogger(); return other.LogFilePath(); },
         "is a symbolic link", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.kind);
        korvsdk_test::MessageLog::Clear();
        std::vector<fs::path> planted;
        for (const std::string& name : row.names) {
            const size_t star = name.find('*');
            const std::vector<std::string> stamps =
                star == std::string::npos ? std::vector<std::string>{""} : StampsFromNow();
            for (const std::string& stamp : stamps) {
                std::string at = name;
                if (star != std::string::npos) at.replace(star, 1, stamp);
                planted.push_back(fs::u8path(at));
                fs::remove(planted.back());
                fs::create_symlink(victim, planted.back());
            }
        }
        const std::string used = row.run();
        EXPECT_TRUE(korvsdk_test::ReadFile(victim) == kept) << "the victim was written";
        int written = 0;
        for (const fs::path& name : planted) {
            const fs::file_status status = fs::symlink_status(name);
            if (fs::is_symlink(status) || !fs::exists(status)) continue;  // left or moved away
            ++written;
            ASSERT_TRUE(fs::is_regular_file(status)) << name;
            EXPECT_GT(fs::file_size(name), 0u) << name;
            if (row.ownerOnly) {
                EXPECT_EQ(status.permissions() & kOthers, fs::perms::none) << name;
            }
        }
        for (const auto& entry : fs::recursive_directory_iterator("."))
            EXPECT_EQ(entry.path().string().find(".part-"), std::string::npos) << entry.path();
        if (row.refusal == nullptr) {
            EXPECT_GE(written, 1) << "none of the planted names was written";
            continue;
        }
        EXPECT_EQ(written, 0);
        EXPECT_NE(korvsdk_test::MessageLog::All().find(row.refusal), std::string::npos)
            << korvsdk_test::MessageLog::All();
        const fs::path name = fs::u8path(used).filename();
        EXPECT_TRUE(std::count(planted.begin(), planted.end(), name)) << "not planted: " << name;
    }
#endif
}

// A quotation mark in the report's folder would end the path's argument on
// the Windows tool's command line and pass the rest on as options: the
// request is refused with a line, and nothing is started or written.
TEST_F(Controller, SystemReportRefusesAFolderWithAQuotationMark) {
    const std::string folder = "reports\" /s \"x";
    ASSERT_NO_FATAL_FAILURE(Init("CurrentFolderName=" + folder + "\n"));
    EXPECT_EQ(core_.SaveSystemReport(), 1);
    EXPECT_FALSE(core_.m_systemReportBusy);
    EXPECT_EQ(korvsdk_test::MessageLog::Count("The system report's folder name contains a "
                                              "quotation mark (\"); no report was started.\n"),
              1);
    for (const fs::path& file : {fs::u8path(folder) / "dxdiagData_full.txt",
                                fs::u8path(folder) / "dxdiagData.txt"})
        EXPECT_FALSE(fs::exists(file)) << file;
}
