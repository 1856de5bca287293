// korvtool run as a separate process against the virtual capture device, the
// way a user or a script runs it: its output for people, its JSON, and its
// exit status (0 success, 1 device or library failure, 2 usage error).
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <tuple>

#include "KORVSDKDeviceTool.h"
#include "korvtool_fixture.h"

namespace {

using namespace korvtool_test;

// A failure: the exit status, nothing on standard output, and one line on
// standard error that names the problem.
void ExpectErrorLine(const ProcessResult& result, int status, const std::string& part) {
    EXPECT_EQ(result.exitCode, status) << result.err;
    EXPECT_EQ(result.out, "");
    const std::vector<std::string> lines = Lines(result.err);
    ASSERT_EQ(lines.size(), 1u) << result.err;
    EXPECT_EQ(lines[0].rfind("korvtool: error: ", 0), 0u) << lines[0];
    EXPECT_TRUE(Contains(lines[0], part)) << lines[0];
}

// ---- Help -----------------------------------------------------------------

using KorvtoolHelp = Korvtool;

TEST_F(KorvtoolHelp, ProgramHelpNamesEveryCommandAndGlobalOption) {
    const ProcessResult result = Run({"--help"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    for (const char* word : {"list", "info", "audio", "hdmi-info", "usb-info", "mcu-info", "save",
                             "boot-mode", "update", "make-image", "--config PATH", "--virtual", "--device N|SERIAL",
                             "--json", "--verbose", "Exit status: 0 success"})
        EXPECT_TRUE(Contains(result.out, word)) << word;
}

TEST_F(KorvtoolHelp, VersionIsTheLibraryHeaders) {
    const ProcessResult result = Run({"--version"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, std::string("korvtool ") + KORVSDK_VERSION_STRING + "\n");
}

// ---- Usage errors (exit 2) ------------------------------------------------

using KorvtoolUsage = Korvtool;

TEST_F(KorvtoolUsage, CommandLineMistakes) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{}, "no command given"},
        {{"--virtual"}, "no command given"},
        {{"--virtual", "frob"}, "frob"},
        {{"--virtual", "--frob", "list"}, "--frob"},
        {{"--virtual", "--config", "x.cfg", "list"}, "excludes"},
        {{"--virtual", "boot-mode"}, "check or enter"},
        {{"--virtual", "audio", "set", "hp-out-volume"}, "VALUE"},
        {{"--virtual", "leds", "set", "0x90"}, "0x80 to 0x83"},
        {{"--virtual", "update", "usb", "x.hex", "--wait-replug", "soon"}, "--wait-replug SECONDS"},
        {{"--virtual", "update", "usb", "x.hex", "--led-phase", "ending:0x80"}, "updating, succeeded or failed"},
        {{"--virtual", "audio", "set", "bass", "3"}, "there is no audio control 'bass'"},
        {{"--config", "nowhere.cfg", "list"}, "'nowhere.cfg' does not exist"},
        {{"list"}, "no setting.cfg in the working folder"},
        {{"history", "--since", "yesterday"}, "a time must be a UTC date"},
        {{"history", "--limit", "0"}, "--limit"},
    };
    for (const auto& [args, part] : cases) {
        SCOPED_TRACE(part);
        ExpectErrorLine(Run(args), 2, part);
    }
}

// ---- list -----------------------------------------------------------------

using KorvtoolList = Korvtool;

TEST_F(KorvtoolList, ShowsTheVirtualDevice) {
    const ProcessResult result = Run({"--virtual", "list"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "") << "library texts belong to --verbose";
    const std::vector<std::string> lines = Lines(result.out);
    ASSERT_EQ(lines.size(), 3u) << result.out;
    EXPECT_EQ(lines[0], "Found 1 capture device:");
    EXPECT_EQ(lines[1], "  #  Description           VID:PID    Serial      Location");
    EXPECT_EQ(lines[2], "  0  Virtual HDMI Capture  FFF0:0C01  VC00000001  1-1");
    EXPECT_TRUE(std::filesystem::is_empty(WorkFolder())) << "--virtual leaves no file behind";
}

TEST_F(KorvtoolList, JsonListsEveryFieldOfEveryDeviceInScanOrder) {
    const ProcessResult result = Run({"--config", Settings(kTwoDevices), "--json", "list"});
    EXPECT_EQ(result.exitCode, 0);
    const json doc = Json(result);
    EXPECT_EQ(doc.value("command", ""), "list");
    EXPECT_EQ(doc.value("ok", false), true);
    ASSERT_EQ(doc["devices"].size(), 2u) << result.out;
    EXPECT_EQ(doc["devices"][0],
              json({{"index", 0}, {"description", "Virtual HDMI Capture"}, {"vid", "FFF0"},
                    {"pid", "0C01"}, {"serial", "VC00000001"}, {"location", "1-1"}}));
    EXPECT_EQ(doc["devices"][1]["index"], 1);
    EXPECT_EQ(doc["devices"][1]["pid"], "0C02");
    EXPECT_EQ(doc["devices"][1]["serial"], "VC00000002");
    EXPECT_EQ(doc["devices"][1]["location"], "1-2");
}

TEST_F(KorvtoolList, PresenceFileSaysWhichUnitsArePlugged) {
    const std::string settings =
        Settings(kOneDevice + "VirtualDeviceCount=3\nVirtualPresenceFile=plugged.txt\n");
    korvsdk_test::WriteFile(WorkFolder() / "plugged.txt", "# bench\n1-3\n1-2\n");
    const ProcessResult result = Run({"--config", settings, "--json", "list"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const json doc = Json(result);
    std::vector<std::string> locations;
    for (const json& device : doc["devices"]) locations.push_back(device["location"]);
    EXPECT_EQ(locations, (std::vector<std::string>{"1-2", "1-3"}));
}

TEST_F(KorvtoolList, NoDeviceIsNotAnError) {
    ProcessResult result = Run({"--config", Settings(kNoDevice), "list"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(Contains(result.out, "No capture device found.")) << result.out;
    EXPECT_TRUE(Contains(result.out, "test.cfg")) << "the hint names the settings file";

    result = Run({"--config", Settings(kNoDevice), "--json", "list"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(Json(result)["devices"], json::array());
}

TEST_F(KorvtoolList, VerboseShowsTheLibraryTextsOnStandardError) {
    const ProcessResult result = Run({"--virtual", "--verbose", "--json", "list"});
    EXPECT_EQ(result.exitCode, 0);
    const std::vector<std::string> lines = Lines(result.err);
    EXPECT_NE(std::find(lines.begin(), lines.end(), "[library] Initialization successful!"),
              lines.end())
        << result.err;
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        "[library] Scan Device is completed, 1 device is found."),
              lines.end())
        << result.err;
    EXPECT_EQ(Json(result)["devices"].size(), 1u) << "standard output keeps only the JSON";
}

// A byte a terminal may act on: a C0 control other than the newline, DEL,
// a C1 control as UTF-8 (C2 80..C2 9F); false also for text that is not
// UTF-8 (nlohmann's dump refuses it).
bool HoldsRawControl(const std::string& text) {
    try {
        (void)json(text).dump();
    } catch (const json::exception&) {
        return true;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte < 0x20 && byte != '\n') || byte == 0x7F) return true;
        if (byte == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) <= 0x9F)
            return true;
    }
    return false;
}

// What a device or an image says reaches the terminal escaped, and the
// JSON valid: an ESC sequence, a C1 control (U+009B, CSI), DEL and a byte
// that is not UTF-8 in the device's description and serial number and in
// an image's version text.
TEST_F(KorvtoolList, DeviceAndImageTextsAreNeverPrintedRaw) {
    const std::string description = "Cap\x1b[2J\xc2\x9b" "1m\x7f\xffture";
    const std::string serial = "SN\x1b]0;x\x07" "1";
    const std::string version = "01.00.02.00\x1b[2J\xff";
    const std::string settings =
        Settings(kOneDevice + "FW_Overwrite=0\nVirtual0_Description=" + description +
                 "\nVirtual0_Serial=" + serial + "\n");
    const ProcessResult made = Run({"make-image", "usb", "v.hex", "--version", version});
    ASSERT_EQ(made.exitCode, 0) << made.err;
    const auto valid = [](std::string text) {  // as JSON carries it
        const size_t at = text.find('\xff');
        return at == std::string::npos ? text : text.replace(at, 1, "\xef\xbf\xbd");
    };
    struct Row {
        std::vector<std::string> args;
        std::string shown;      // in the text output
        const char* jsonField;  // in the JSON output: which field, as JSON Pointer
        std::string value;
    };
    const Row rows[] = {
        {{"list"}, "Cap\\x1b[2J\\u009b1m\\x7f\\xffture  FFF0:0C01  SN\\x1b]0;x\\x071", "", ""},
        {{"info"},
         "Device 0: Cap\\x1b[2J\\u009b1m\\x7f\\xffture (FFF0:0C01, serial SN\\x1b]0;x\\x071)", "",
         ""},
        {{"update", "usb", "v.hex"}, "(version 01.00.02.00\\x1b[2J\\xff)", "", ""},
        {{"--json", "list"}, "", "/devices/0/description", valid(description)},
        {{"--json", "info"}, "", "/device/serial", serial},
        {{"--json", "update", "usb", "v.hex"}, "", "/file_version", valid(version)},
    };
    for (const Row& row : rows) {
        std::vector<std::string> args = {"--config", settings};
        args.insert(args.end(), row.args.begin(), row.args.end());
        SCOPED_TRACE(args.back() + (row.jsonField[0] != 0 ? " --json" : ""));
        const ProcessResult result = Run(args);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_FALSE(HoldsRawControl(result.out)) << result.out;
        EXPECT_FALSE(HoldsRawControl(result.err)) << result.err;
        if (row.jsonField[0] == 0) {
            EXPECT_TRUE(Contains(result.out, row.shown)) << result.out;
            continue;
        }
        // An update writes one event per line: its first is the start.
        const std::string first = row.args[1] == "update" ? Lines(result.out)[0] : result.out;
        const json doc = json::parse(first, nullptr, false);
        ASSERT_FALSE(doc.is_discarded()) << result.out;
        EXPECT_EQ(doc.value(json::json_pointer(row.jsonField), std::string()), row.value);
    }
}

// ---- info and device choice -----------------------------------------------

using KorvtoolInfo = Korvtool;

TEST_F(KorvtoolInfo, ShowsTheVirtualDevice) {
    const ProcessResult result = Run({"--virtual", "info"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.err, "");
    const std::vector<std::string> lines = Lines(result.out);
    ASSERT_GE(lines.size(), 5u) << result.out;
    EXPECT_EQ(lines[0], "Device 0: Virtual HDMI Capture (FFF0:0C01, serial VC00000001)");
    EXPECT_EQ(lines[1], "  USB type          3 (on a USB 3 port)");
    // The stored version text, with the build number the library's
    // virtual device keeps behind it.
    EXPECT_EQ(lines[2].rfind("  USB firmware      01.00.01.09", 0), 0u) << lines[2];
    EXPECT_EQ(lines[3], "  Microcontroller   present");
    EXPECT_TRUE(Contains(result.out, "  Boot mode         no (the application runs)\n"))
        << result.out;
    EXPECT_TRUE(Contains(result.out, "  Audio chip        ")) << result.out;
}

TEST_F(KorvtoolInfo, Json) {
    const ProcessResult result = Run({"--virtual", "--json", "info"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const json doc = Json(result);
    EXPECT_EQ(doc.value("command", ""), "info");
    EXPECT_EQ(doc["device"]["serial"], "VC00000001");
    EXPECT_EQ(doc["usb_type"], 3);
    ASSERT_TRUE(doc["usb_firmware"].is_string()) << doc.dump();
    EXPECT_EQ(doc["usb_firmware"].get<std::string>().rfind("01.00.01.09", 0), 0u) << doc.dump();
    EXPECT_EQ(doc["mcu_on_board"], true);
    ASSERT_TRUE(doc["mcu_firmware"].is_string()) << doc.dump();
    EXPECT_FALSE(doc["mcu_firmware"].get<std::string>().empty());
    EXPECT_EQ(doc["boot_mode"], "application");
    EXPECT_TRUE(doc["audio_chip_on_board"].is_boolean()) << doc.dump();
}

TEST_F(KorvtoolInfo, PicksTheDeviceByIndexOrSerial) {
    const std::string settings = Settings(kTwoDevices);
    for (const char* device : {"1", "VC00000002", "vc00000002", "1-2"}) {
        const ProcessResult result = Run({"--config", settings, "info", "--device", device, "--json"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        const json doc = Json(result);
        EXPECT_EQ(doc["device"]["index"], 1) << device;
        EXPECT_EQ(doc["device"]["serial"], "VC00000002") << device;
        // What the second device reports, not the first.
        EXPECT_EQ(doc["usb_type"], 2) << device;
        EXPECT_EQ(doc["usb_firmware"], "01.00.00.09.0002") << device;
    }
    const ProcessResult first = Run({"--config", settings, "-d", "0", "--json", "info"});
    const json firstDoc = Json(first);
    EXPECT_EQ(firstDoc["device"]["serial"], "VC00000001");
    EXPECT_EQ(firstDoc["usb_type"], 3);
}

TEST_F(KorvtoolInfo, UnitsWithOneSerialArePickedByLocation) {
    const std::string settings =
        Settings(kTwoDevices + "Virtual1_PID=0C01\nVirtual1_Serial=VC00000001\n");
    // The second unit runs older firmware on a USB 2 port.
    const std::tuple<const char*, const char*, int> rows[] = {{"1-1", "01.00.01.09", 3},
                                                              {"1-2", "01.00.00.09", 2}};
    for (const auto& [location, firmware, usbType] : rows) {
        const ProcessResult result = Run({"--config", settings, "-d", location, "--json", "info"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        const json doc = Json(result);
        EXPECT_EQ(doc["usb_firmware"].get<std::string>().substr(0, 11), firmware) << location;
        EXPECT_EQ(doc["usb_type"], usbType) << location;
    }
    ExpectErrorLine(Run({"--config", settings, "-d", "VC00000001", "info"}), 1,
                    "2 devices have the serial number 'VC00000001', at 1-1 and 1-2");
}

TEST_F(KorvtoolInfo, FailsForADeviceThatIsNotThere) {
    ExpectErrorLine(Run({"--config", Settings(kNoDevice, "none.cfg"), "info"}), 1,
                    "no capture device found: check that it is plugged in");
    const std::string settings = Settings(kTwoDevices);
    ExpectErrorLine(Run({"--config", settings, "--device", "5", "info"}), 1,
                    "there is no device 5: 2 devices were found");
    ExpectErrorLine(Run({"--config", settings, "info"}), 1, "2 devices found: choose one");
}

// ---- boot mode and save ---------------------------------------------------

using KorvtoolMcu = Korvtool;

TEST_F(KorvtoolMcu, BootModeCheck) {
    ProcessResult result = Run({"--virtual", "boot-mode", "check"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(Contains(result.out, "Boot mode         no (the application runs)")) << result.out;

    result = Run({"--virtual", "--json", "boot-mode", "check"});
    const json doc = Json(result);
    EXPECT_EQ(doc.value("command", ""), "boot-mode check");
    EXPECT_EQ(doc["boot_mode"], "application");
    EXPECT_EQ(doc["value"], 0);
}

TEST_F(KorvtoolMcu, Save) {
    ProcessResult result = Run({"--virtual", "save"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(Contains(result.out, "Saved the device's current parameters")) << result.out;
    result = Run({"--virtual", "save", "--json"});
    EXPECT_EQ(Json(result)["saved"], true);
}

TEST_F(KorvtoolMcu, ASaveTheDeviceRefusesIsADeviceFailure) {
    ExpectErrorLine(Run({"--config", Settings(kOneDevice + "Virtual0_McuSaveResult=0x10\n"), "save"}),
                    1, "saving the parameters failed (the library says: Save Parameters Erase Error!)");
}

TEST_F(KorvtoolMcu, ADeviceWithoutAMicrocontroller) {
    const std::string settings = Settings(kOneDevice + "Virtual0_McuNoAnswer=1\n");
    const ProcessResult info = Run({"--config", settings, "--json", "info"});
    EXPECT_EQ(info.exitCode, 0) << info.err;
    const json doc = Json(info);
    EXPECT_EQ(doc["mcu_on_board"], false);
    EXPECT_TRUE(doc["mcu_firmware"].is_null()) << doc.dump();
    EXPECT_TRUE(doc["boot_mode"].is_null()) << doc.dump();

    // One command of each kind that needs the microcontroller (each run
    // waits out the silent microcontroller's probes, so only a few).
    ExpectErrorLine(Run({"--config", settings, "audio", "set", "mic-in-mute", "on"}), 1,
                    "setting mic-in-mute to on failed: this device has no microcontroller");
    ExpectErrorLine(Run({"--config", settings, "mcu-info"}), 1, "No MCU detected");
}

// ---- Audio and the information queries -----------------------------------

using KorvtoolAudio = Korvtool;

TEST_F(KorvtoolAudio, ShowsEveryControlAndState) {
    ProcessResult result = Run({"--virtual", "--json", "audio"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const json doc = Json(result);
    for (const char* volume : {"hp-out-volume", "mic-in-volume", "aux-in-volume"}) {
        ASSERT_TRUE(doc["controls"][volume].is_number_unsigned()) << volume;
        EXPECT_LE(doc["controls"][volume].get<int>(), 100) << volume;
    }
    for (const char* mute : {"hp-out-mute", "mic-in-mute", "aux-in-mute"})
        EXPECT_TRUE(doc["controls"][mute].is_boolean()) << mute;
    for (const char* state : {"video-locked", "hp-mic-plugged", "line-in-plugged"})
        EXPECT_TRUE(doc["states"][state].is_boolean()) << state;

    result = Run({"--virtual", "audio"});
    EXPECT_EQ(result.exitCode, 0);
    const std::string volume = std::to_string(doc["controls"]["mic-in-volume"].get<int>());
    EXPECT_TRUE(Contains(result.out, "\n  mic-in-volume     " + volume + "\n")) << result.out;
    const bool locked = doc["states"]["video-locked"].get<bool>();
    EXPECT_TRUE(Contains(result.out, std::string("\n  video-locked      ") +
                                         (locked ? "yes" : "no") + "\n"))
        << result.out;
}

TEST_F(KorvtoolAudio, ShowsTheStatesTheDeviceReports) {
    // Two boards whose states differ from each other's in every pair, so
    // that no state can stand in for another.
    const std::vector<std::pair<std::string, std::vector<bool>>> boards = {
        {"Virtual0_VideoLocked=0\nVirtual0_HpMicPlugged=1\nVirtual0_LineInPlugged=0\n",
         {false, true, false}},
        {"Virtual0_VideoLocked=1\nVirtual0_HpMicPlugged=0\nVirtual0_LineInPlugged=1\n",
         {true, false, true}},
    };
    for (const auto& [keys, expected] : boards) {
        SCOPED_TRACE(keys);
        const ProcessResult result = Run({"--config", Settings(kOneDevice + keys), "--json", "audio"});
        ASSERT_EQ(result.exitCode, 0) << result.err;
        const json states = Json(result)["states"];
        EXPECT_EQ(states["video-locked"], expected[0]);
        EXPECT_EQ(states["hp-mic-plugged"], expected[1]);
        EXPECT_EQ(states["line-in-plugged"], expected[2]);
    }
}

TEST_F(KorvtoolAudio, SetsEachControlAndReadsItBack) {
    const std::vector<std::tuple<std::string, std::string, json>> cases = {
        {"hp-out-volume", "7", 7},     {"mic-in-volume", "0", 0},  {"aux-in-volume", "100", 100},
        {"hp-out-mute", "on", true},   {"mic-in-mute", "1", true}, {"aux-in-mute", "yes", true},
    };
    for (const auto& [control, value, expected] : cases) {
        SCOPED_TRACE(control);
        const ProcessResult result = Run({"--virtual", "--json", "audio", "set", control, value});
        ASSERT_EQ(result.exitCode, 0) << result.err;
        const json doc = Json(result);
        EXPECT_EQ(doc["control"], control);
        EXPECT_EQ(doc["value"], expected);
    }
    const ProcessResult result = Run({"--virtual", "audio", "set", "hp-out-volume", "42"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(Contains(result.out, "hp-out-volume is now 42 (read back from the device)"))
        << result.out;
}

using KorvtoolQueries = Korvtool;

TEST_F(KorvtoolQueries, HdmiInfoShowsTheDevicesBytes) {
    ProcessResult result = Run({"--virtual", "hdmi-info"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::vector<std::string> lines = Lines(result.out);
    ASSERT_EQ(lines.size(), 4u) << result.out;
    EXPECT_EQ(lines[2], "  01 00 00 00 80 07 38 04 3c 00 00 00");
    EXPECT_EQ(lines[3], "  00 00 00 00 00 00 00 00 00 00 00 00");

    std::string bytes;
    std::vector<int> expected;
    for (int i = 0; i < 24; ++i) {
        char pair[4];
        std::snprintf(pair, sizeof pair, "%02x", 0xe0 + i);
        bytes += std::string(i ? " " : "") + pair;
        expected.push_back(0xe0 + i);
    }
    result = Run({"--config", Settings(kOneDevice + "Virtual0_HdmiInfo=" + bytes + "\n"), "--json",
                  "hdmi-info"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(Json(result)["bytes"], json(expected));
}

TEST_F(KorvtoolQueries, UsbInfoShowsTheStream) {
    const std::string settings = Settings(kOneDevice +
                                          "Virtual0_UsbWidth=1280\nVirtual0_UsbHeight=720\n"
                                          "Virtual0_UsbFrameRate=30\nVirtual0_UsbColorFormat=1\n");
    ProcessResult result = Run({"--config", settings, "usb-info"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(Contains(result.out, "  Resolution        1280x720\n")) << result.out;
    EXPECT_TRUE(Contains(result.out, "  Frame rate        30 fps\n")) << result.out;
    EXPECT_TRUE(Contains(result.out, "  Color format      NV12\n")) << result.out;

    result = Run({"--config", settings, "--json", "usb-info"});
    const json doc = Json(result);
    EXPECT_EQ(doc["width"], 1280);
    EXPECT_EQ(doc["height"], 720);
    EXPECT_EQ(doc["frame_rate"], 30);
    EXPECT_EQ(doc["color_format"], "NV12");
}

TEST_F(KorvtoolQueries, UsbInfoOnOldFirmwareIsADeviceFailure) {
    // The library refuses the query and says why through the callback.
    ExpectErrorLine(Run({"--config", Settings(kTwoDevices), "--device", "1", "usb-info"}), 1,
                    "Firmware version too low");
}

TEST_F(KorvtoolQueries, McuInfoShowsRegistersAndEdid) {
    ProcessResult result = Run({"--virtual", "--json", "mcu-info"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const json doc = Json(result);
    ASSERT_EQ(doc["registers"].size(), 14u) << doc.dump();
    EXPECT_EQ(doc["registers"].begin().key(), "a0");
    EXPECT_EQ(doc["edid"]["verdict"], "valid");

    result = Run({"--virtual", "mcu-info"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(Contains(result.out, "Microcontroller registers")) << result.out;
    EXPECT_TRUE(Contains(result.out, "HDMI splitter EDID (TX port 1): valid")) << result.out;
}

// ---- update and make-image ------------------------------------------------

class KorvtoolUpdate : public Korvtool {
protected:
    // An image from korvtool make-image in the working folder.
    void Make(const std::vector<std::string>& args) {
        std::vector<std::string> all = {"make-image"};
        all.insert(all.end(), args.begin(), args.end());
        const ProcessResult made = Run(all);
        ASSERT_EQ(made.exitCode, 0) << made.err;
    }
};

TEST_F(KorvtoolUpdate, WritesBothKindsWithProgressLines) {
    ASSERT_NO_FATAL_FAILURE(Make({"usb", "new.hex"}));
    ASSERT_NO_FATAL_FAILURE(Make({"mcu", "new.bin"}));
    struct Row {
        const char* kind;
        const char* file;
        const char* writing;
    };
    for (const Row row : {Row{"usb", "new.hex", "Writing"}, Row{"mcu", "new.bin", "Programming"}}) {
        const ProcessResult result = Run({"--virtual", "update", row.kind, row.file});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.err, "");
        // Standard output is no terminal here: plain lines, no carriage returns.
        EXPECT_FALSE(Contains(result.out, "\r"));
        for (const char* word : {"Preparing", row.writing, "Verifying", "Update completed",
                                 "Re-plug the device"})
            EXPECT_TRUE(Contains(result.out, word)) << row.kind << ": " << word;
    }
}

TEST_F(KorvtoolUpdate, RefusedFilesSayWhyAndChangeNothing) {
    ASSERT_NO_FATAL_FAILURE(Make({"usb", "old.hex", "--version", "01.00.00.01.0000"}));
    ASSERT_NO_FATAL_FAILURE(Make({"usb", "other.hex", "--pid", "0x0C02"}));
    ASSERT_NO_FATAL_FAILURE(Make({"mcu", "other.bin", "--device-type", "6"}));
    korvsdk_test::WriteFile(WorkFolder() / "text.hex", "not an image");
    struct Row {
        std::vector<std::string> args;
        int status;
        const char* part;
    };
    const Row rows[] = {
        {{"usb", "old.hex"}, 1, "add --force"},
        {{"usb", "other.hex"}, 1, "made for another device"},
        {{"mcu", "other.bin"}, 1, "made for another device"},
        {{"usb", "text.hex"}, 1, "was refused"},
        {{"usb", "missing.hex"}, 2, "'missing.hex' does not exist"},
    };
    for (const Row& row : rows) {
        std::vector<std::string> args = {"--virtual", "update"};
        args.insert(args.end(), row.args.begin(), row.args.end());
        SCOPED_TRACE(row.part);
        ExpectErrorLine(Run(args), row.status, row.part);
    }
    // Forced, the older image is written, with a warning.
    const ProcessResult forced = Run({"--virtual", "update", "usb", "old.hex", "--force"});
    EXPECT_EQ(forced.exitCode, 0) << forced.err;
    EXPECT_TRUE(Contains(forced.err, "warning: --force")) << forced.err;
}

// The field's routine on the virtual device, whose user re-plugs it two
// seconds after an update: a backup and an update confirmed after the
// re-plug, an MCU update likewise, an update nobody re-plugs, the backup
// written back; the history tells it all in order.
TEST_F(KorvtoolUpdate, BackupReplugConfirmationAndHistory) {
    ASSERT_NO_FATAL_FAILURE(Make({"usb", "new.hex"}));
    ASSERT_NO_FATAL_FAILURE(Make({"mcu", "new.bin"}));
    ProcessResult result = Run({"--virtual", "--json", "update", "usb", "new.hex", "--backup",
                                "backup.hex", "--wait-replug", "30"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    std::vector<std::string> steps;
    for (const std::string& line : Lines(result.out)) {
        const json event = json::parse(line);
        if (event["event"] == "progress") continue;
        steps.push_back(event["event"].get<std::string>() + " " +
                        event.value("kind", event.value("state", event.value("version", ""))));
    }
    EXPECT_EQ(steps, (std::vector<std::string>{"start backup", "end ReadCompleted", "start usb",
                                               "end UpdateCompleted", "replug ",
                                               "confirmed 01.00.02.00.0000"}));
    EXPECT_TRUE(std::filesystem::exists(WorkFolder() / "backup.hex"));
    for (const auto& entry : std::filesystem::directory_iterator(WorkFolder())) {
        EXPECT_EQ(entry.path().filename().string().rfind("backup.hex.part", 0), std::string::npos)
            << "a part file left behind";
    }

    result = Run({"--virtual", "update", "mcu", "new.bin", "--wait-replug", "30"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_TRUE(Contains(result.out, "Update confirmed")) << result.out;

    const std::string noReplug = Settings(kOneDevice + "FW_Overwrite=0\n");
    result = Run({"--config", noReplug, "update", "usb", "new.hex", "--wait-replug", "1"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(Contains(result.err, "was not re-plugged within 1 s")) << result.err;

    // A fresh virtual device runs the version of the backup: accepted as is.
    result = Run({"--virtual", "update", "usb", "backup.hex"});
    EXPECT_EQ(result.exitCode, 0) << result.err;

    result = Run({"--json", "history"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const json history = Json(result);
    std::vector<std::string> entries;
    for (const json& entry : history["entries"])
        entries.push_back(entry["kind"].get<std::string>() + " " + entry["result"].get<std::string>() +
                          " " + entry.value("version_after", "-"));
    EXPECT_EQ(entries, (std::vector<std::string>{"backup completed -",
                                                 "usb confirmed 01.00.02.00.0000",
                                                 "mcu confirmed 0d.18.00", "usb not confirmed -",
                                                 "usb completed -"}));
    // One form for each kind of version, in every field and in info.
    const std::regex form[] = {std::regex(R"(\d\d(\.\d\d){3}\.\d{4})"),
                               std::regex("[0-9a-f]{2}(\\.[0-9a-f]{2}){2}")};
    for (const json& entry : history["entries"]) {
        if (entry["kind"] == "backup") continue;
        for (const char* key : {"version_before", "file_version", "version_after"}) {
            if (!entry.contains(key)) continue;
            EXPECT_TRUE(std::regex_match(entry[key].get<std::string>(), form[entry["kind"] == "mcu"]))
                << key << " " << entry.dump();
        }
    }
    const json info = Json(Run({"--virtual", "--json", "info"}));
    EXPECT_TRUE(std::regex_match(info["usb_firmware"].get<std::string>(), form[0])) << info.dump();
    EXPECT_TRUE(std::regex_match(info["mcu_firmware"].get<std::string>(), form[1])) << info.dump();
    EXPECT_EQ(Json(Run({"--json", "make-image", "mcu", "other.bin"}))["version"], "0d.18.00");
    result = Run({"history"});
    EXPECT_EQ(Lines(result.out).size(), 6u) << result.out;
    EXPECT_EQ(result.out.rfind("TIME (UTC)", 0), 0u) << result.out;
}

// A whole-image USB update from korvtool writes the image's boot
// configuration word last, after the compare, unless the settings file sets
// USB_Entire_Valid_Last; the library says so when it does. The user's file
// is left as it was.
TEST_F(KorvtoolUpdate, UsbUpdateWritesTheBootWordLastUnlessTheSettingsSayOtherwise) {
    ASSERT_NO_FATAL_FAILURE(Make({"usb", "new.hex"}));
    struct Row {
        const char* setting;
        bool wordLast;
    };
    for (const Row row : {Row{"", true}, Row{"USB_Entire_Valid_Last=0\n", false}}) {
        SCOPED_TRACE(row.setting);
        const std::string text = kOneDevice + "FW_Overwrite=0\n" + row.setting;
        const std::string file = Settings(text);
        const ProcessResult result = Run({"--config", file, "--verbose", "update", "usb", "new.hex"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        const size_t image = result.err.find("[library] FlashWrite -- Transfer ");
        const size_t word = result.err.find(
            "[library] FlashWrite -- Boot configuration word 0x1 written after the compare.");
        ASSERT_NE(image, std::string::npos) << result.err;
        EXPECT_EQ(word != std::string::npos, row.wordLast) << result.err;
        if (row.wordLast) {
            EXPECT_GT(word, image);
        }
        EXPECT_EQ(korvsdk_test::ReadFile(WorkFolder() / file), text);
    }
}

#ifndef _WIN32
// make-image writes through a fresh name of its own: a link planted at a
// name it could be expected to use is not written through.
TEST_F(KorvtoolUpdate, MakeImageWritesThroughNoPlantedLink) {
    korvsdk_test::WriteFile(WorkFolder() / "victim", "victim\n");
    std::filesystem::create_symlink(WorkFolder() / "victim", WorkFolder() / "new.hex.part");
    ASSERT_NO_FATAL_FAILURE(Make({"usb", "new.hex"}));
    EXPECT_EQ(korvsdk_test::ReadFile(WorkFolder() / "victim"), "victim\n");
    EXPECT_TRUE(
        std::filesystem::is_regular_file(std::filesystem::symlink_status(WorkFolder() / "new.hex")));
    EXPECT_GT(std::filesystem::file_size(WorkFolder() / "new.hex"), 0u);
}
#endif

TEST_F(KorvtoolUpdate, BackupAndLogDumpFailuresLeaveNothing) {
    const std::string logging = Settings(kOneDevice + "EnableLocalLogging=1\n");
    std::filesystem::create_directory(WorkFolder() / "dumps");
    ProcessResult result = Run({"--config", logging, "dump-log", "--folder", "dumps"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_FALSE(std::filesystem::is_empty(WorkFolder() / "dumps"));

    ExpectErrorLine(Run({"--config", logging, "dump-log", "--folder", "nowhere"}), 1,
                    "'nowhere' does not exist");
    ExpectErrorLine(Run({"--virtual", "dump-log"}), 1, "EnableLocalLogging=1");
    result = Run({"--virtual", "backup", "nowhere/b.hex"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(Contains(result.err, "Cannot create")) << result.err;
    EXPECT_FALSE(std::filesystem::exists(WorkFolder() / "nowhere"));
}

// ---- history --------------------------------------------------------------

// korvtool history over the records of an older korvtool's JSON lines and a
// station's: the filters pick, each form shows them, and a device's text
// reaches the terminal escaped and a spreadsheet as text.
TEST_F(Korvtool, HistoryFiltersAndForms) {
    korvsdk_test::WriteFile(
        WorkFolder() / "history.jsonl",
        "{\"time\":\"2026-11-22T08:00:00Z\",\"serial\":\"S1\",\"kind\":\"usb\","
        "\"file\":\"/f/new.hex\",\"result\":\"completed\"}\n"
        "{\"time\":\"2026-11-23T14:05:09Z\",\"command\":\"station\",\"run\":\"R1\","
        "\"location\":\"1-4.2\",\"serial\":\"=S2\\u001b[2J\",\"usb_before\":\"1\","
        "\"usb_after\":\"2\",\"result\":\"pass\",\"message\":\"ok, done\"}\n");
    struct Row {
        std::vector<std::string> args;
        std::vector<std::string> lines;  // the output's, each a part of its line
    };
    const Row rows[] = {
        {{"history"}, {"COMMAND     RUN  LOCATION  SERIAL      BEFORE", "completed  new.hex",
                       "R1   1-4.2     =S2\\x1b[2J  1       2      pass"}},
        {{"history", "--serial", "S1"}, {"COMMAND     SERIAL  RESULT", "S1"}},
        {{"history", "--run", "R1", "--csv"},
         {"time,command,run,station,location,serial,",
          "2026-11-23T14:05:09Z,station,R1,,1-4.2,'=S2\\x1b[2J,,,pass,\"ok, done\",1,2,,,"}},
        {{"history", "--since", "2026-11-23", "--result", "completed"}, {"No records match"}},
        {{"history", "--until", "2026-11-22T08:00:00Z", "--limit", "1", "--csv"},
         {"time,", "2026-11-22T08:00:00Z,update usb,,,,S1,"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.args));
        const ProcessResult result = Run(row.args);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        const std::vector<std::string> lines = Lines(result.out);
        ASSERT_EQ(lines.size(), row.lines.size()) << result.out;
        for (size_t i = 0; i < lines.size(); ++i)
            EXPECT_TRUE(Contains(lines[i], row.lines[i])) << lines[i];
        EXPECT_EQ(result.out.find('\x1b'), std::string::npos);
    }
    const json doc = Json(Run({"--json", "history", "--location", "1-4.2"}));
    ASSERT_EQ(doc["entries"].size(), 1u) << doc.dump();
    EXPECT_EQ(doc["entries"][0]["serial"], "=S2\x1b[2J");
    EXPECT_EQ(doc["entries"][0]["message"], "ok, done");
}

}  // namespace
