// The parts of korvtool that read its own arguments and the library's
// answer texts, tested without a device.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <sstream>

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "choices.h"
#include "device_lock.h"
#include "device_reports.h"
#include "errors.h"
#include "safe_text.h"

namespace korvtool {
namespace {

std::vector<DeviceInfo> TwoDevices() {
    return {{"Virtual HDMI Capture", "FFF0", "0C01", "VC00000001", "1-1"},
            {"Virtual HDMI Capture", "FFF0", "0C02", "VC00000002", "1-2"}};
}

// The status and the text of the ToolError `call` throws.
template <typename Call>
std::pair<ExitStatus, std::string> ErrorOf(Call call) {
    try {
        call();
    } catch (const ToolError& e) {
        return {e.status(), e.what()};
    }
    ADD_FAILURE() << "no ToolError thrown";
    return {kExitSuccess, ""};
}

TEST(ChooseDevice, ASerialMadeOfDigitsWinsOverTheIndex) {
    std::vector<DeviceInfo> devices = TwoDevices();
    devices[1].serial = "0";
    EXPECT_EQ(ChooseDevice(devices, std::string("0")), 1u);
}

TEST(ChooseDevice, LocationsNameOneUnitWhereSerialsRepeat) {
    const std::vector<DeviceInfo> bench = {{"A", "FFF0", "0C01", "SAME", "1-2"},
                                           {"B", "FFF0", "0C01", "SAME", "1-3.4"},
                                           {"C", "FFF0", "0C01", "1-2", "2-1"},
                                           {"D", "FFF0", "0C01", "VC7", ""}};
    const std::pair<const char*, size_t> rows[] = {
        {"1-3.4", 1}, {"1-2", 0},  // a location before a serial that reads like one
        {"2-1", 2},   {"vc7", 3},  {"3", 3},
    };
    for (const auto& [choice, index] : rows) EXPECT_EQ(ChooseDevice(bench, std::string(choice)), index) << choice;

    // A location is matched exactly; a shared serial names both places.
    for (const char* choice : {"1-3", "1-3.4.1", " 1-2"})
        EXPECT_EQ(ErrorOf([&] { ChooseDevice(bench, std::string(choice)); }).first, kExitFailure) << choice;
    const auto [status, text] = ErrorOf([&] { ChooseDevice(bench, std::string("same")); });
    EXPECT_EQ(status, kExitFailure);
    EXPECT_NE(text.find("at 1-2 and 1-3.4"), std::string::npos) << text;
    EXPECT_NE(text.find("--device LOCATION"), std::string::npos) << text;
}

TEST(ChooseDevice, RefusesIndexesPastTheEndAndUnknownSerials) {
    auto [status, text] = ErrorOf([] { ChooseDevice(TwoDevices(), std::string("2")); });
    EXPECT_EQ(status, kExitFailure);
    EXPECT_NE(text.find("there is no device 2"), std::string::npos) << text;
    EXPECT_NE(text.find("0 to 1"), std::string::npos) << text;

    // Too large for any integer type: still an index that does not exist.
    std::tie(status, text) =
        ErrorOf([] { ChooseDevice(TwoDevices(), std::string("99999999999999999999999")); });
    EXPECT_EQ(status, kExitFailure);
    EXPECT_NE(text.find("there is no device"), std::string::npos) << text;

    std::tie(status, text) = ErrorOf([] { ChooseDevice(TwoDevices(), std::string("VC9")); });
    EXPECT_EQ(status, kExitFailure);
    EXPECT_NE(text.find("no device has the serial number 'VC9'"), std::string::npos) << text;

    // "-1" and "" are neither an index nor a serial.
    EXPECT_EQ(ErrorOf([] { ChooseDevice(TwoDevices(), std::string("-1")); }).first, kExitFailure);
    EXPECT_EQ(ErrorOf([] { ChooseDevice(TwoDevices(), std::string("")); }).first, kExitFailure);
    EXPECT_EQ(ErrorOf([] { ChooseDevice({}, std::nullopt); }).first, kExitFailure);
}

TEST(ControlValue, VolumesRunFromZeroToTheMaximum) {
    EXPECT_EQ(ParseControlValue("hp-out-volume", ControlKind::kVolume, "0"), 0);
    EXPECT_EQ(ParseControlValue("hp-out-volume", ControlKind::kVolume, "7"), 7);
    EXPECT_EQ(ParseControlValue("hp-out-volume", ControlKind::kVolume, "100"), 100);
    for (const char* bad : {"101", "256", "-1", "", "7x", "1e2", " 7", "on", "18446744073709551617"}) {
        const auto [status, text] =
            ErrorOf([bad] { ParseControlValue("hp-out-volume", ControlKind::kVolume, bad); });
        EXPECT_EQ(status, kExitUsage) << bad;
        EXPECT_NE(text.find("0 to 100"), std::string::npos) << text;
        EXPECT_NE(text.find("hp-out-volume"), std::string::npos) << text;
    }
}

TEST(ControlValue, MutesTakeOnOffAndTheirSynonyms) {
    for (const char* on : {"on", "ON", "1", "true", "yes"})
        EXPECT_EQ(ParseControlValue("mic-in-mute", ControlKind::kMute, on), 1) << on;
    for (const char* off : {"off", "Off", "0", "false", "no"})
        EXPECT_EQ(ParseControlValue("mic-in-mute", ControlKind::kMute, off), 0) << off;
    for (const char* bad : {"2", "maybe", "", "onn"}) {
        EXPECT_EQ(ErrorOf([bad] { ParseControlValue("mic-in-mute", ControlKind::kMute, bad); })
                      .first,
                  kExitUsage)
            << bad;
    }
    EXPECT_EQ(FormatControlValue(ControlKind::kMute, 1), "on");
    EXPECT_EQ(FormatControlValue(ControlKind::kMute, 0), "off");
    EXPECT_EQ(FormatControlValue(ControlKind::kVolume, 42), "42");
}

TEST(HdmiInfoText, RefusesOtherTexts) {
    EXPECT_FALSE(ParseHdmiInfo("HDMI info: "));
    EXPECT_FALSE(ParseHdmiInfo("HDMI info: 01 0 02"));
    EXPECT_FALSE(ParseHdmiInfo("HDMI info: 01 zz"));
    EXPECT_FALSE(ParseHdmiInfo("USB FW current version: 01.00.01.09"));
}

TEST(UsbInfoText, RefusesOtherTexts) {
    EXPECT_FALSE(ParseUsbInfo("[APP_info] ERROR: Firmware version too low"));
    EXPECT_FALSE(ParseUsbInfo("Resolution=1920 FrameRate=60 ColorFormat=YUYV"));
    EXPECT_FALSE(ParseUsbInfo("Resolution=1920x1080 ColorFormat=YUYV"));
    EXPECT_FALSE(ParseUsbInfo("Resolution=1920x1080 FrameRate=60 ColorFormat=Y U"));
}

const char kMcuSummary[] =
    "[MCU_Info] a0=0d a2=00 02=01 0c=01 0e=00 10=50 11=3c 12=46 13=00 14=00 15=00 16=00 "
    "17=00 c6=00 EDID: true, 00 ff ff ff ff ff ff 00 1e 6d 01 00";

TEST(McuInfoText, KnowsTheOtherEdidOutcomes) {
    const auto invalid = ParseMcuInfo("[MCU_Info] a0=0d EDID: false, 01 02");
    ASSERT_TRUE(invalid);
    EXPECT_EQ(invalid->edid, EdidVerdict::kInvalid);
    EXPECT_EQ(invalid->edidBytes.size(), 2u);

    const auto timeout = ParseMcuInfo("[MCU_Info] a0=0d a2=00 TX_EDID: Iic Timeout!");
    ASSERT_TRUE(timeout);
    EXPECT_EQ(timeout->edid, EdidVerdict::kTimeout);
    EXPECT_EQ(timeout->registers.size(), 2u);

    // A bridge write that failed leaves the summary without an EDID part.
    const auto unread = ParseMcuInfo("[MCU_Info] a0=0d a2=00 ");
    ASSERT_TRUE(unread);
    EXPECT_EQ(unread->edid, EdidVerdict::kNotRead);
    EXPECT_STREQ(EdidVerdictName(unread->edid), "not read");
}

TEST(McuInfoText, RefusesOtherTexts) {
    EXPECT_FALSE(ParseMcuInfo("[MCU_Info] ERROR: No MCU detected"));
    EXPECT_FALSE(ParseMcuInfo("a0=0d a2=00"));
    EXPECT_FALSE(ParseMcuInfo("[MCU_Info] a0=0d EDID: maybe"));
    EXPECT_FALSE(ParseMcuInfo("[MCU_Info] a0=0d EDID: true, 00 f"));
}

// A second holder is refused while the first lives, not after.
TEST(DeviceLock, OneHolderAtATime) {
    const std::string key = "FFF0-0C01-LOCKTEST";
    auto first = std::make_unique<DeviceLock>(key);
    ASSERT_TRUE(first->Held()) << first->Problem();
    {
        const DeviceLock second(key);
        EXPECT_FALSE(second.Held());
        EXPECT_EQ(second.Problem(), "");
        EXPECT_TRUE(DeviceLock(key + "-other").Held());
    }
    first.reset();
    EXPECT_TRUE(DeviceLock(key).Held());
}


// What a device or a file says, as korvtool prints it: control characters
// (C0, DEL, C1 as UTF-8) and bytes that are not UTF-8 escaped, the rest
// kept; as JSON, valid with the same characters, bytes that are not UTF-8
// The microcontroller's version texts, as the library gives them for an
// image and for the device, split into korvtool's "tt.vv.cc" and the rest.
TEST(McuVersionText, SplitsTypeAndVersionFromTheRest) {
    const std::pair<const char*, const char*> good[] = {
        {"0d.18.00", "0d.18.00 "}, {"05.17.01.010000", "05.17.01 010000"}, {"0A.ff.0b", "0A.ff.0b "}};
    for (const auto& [text, expected] : good) {
        const auto split = SplitMcuVersion(text);
        ASSERT_TRUE(split) << text;
        EXPECT_EQ(split->version + " " + split->detail, expected);
    }
    for (const char* text : {"", "0d.18", "0d.18-00", "0d.18.00.", "0d.18.0g", "0d.18.00.01x0", "MCU Firmware read failed"})
        EXPECT_FALSE(SplitMcuVersion(text)) << text;
}

// replaced, and no raw DEL or C1 in the text.
TEST(SafeText, EscapesControlsAndBytesThatAreNotUtf8) {
    const std::string replacement = "\xef\xbf\xbd";
    struct Row {
        std::string text, printable, inJson;
    };
    const Row rows[] = {
        {"Caf\xc3\xa9 \xc2\xa0\xf0\x9f\x93\xb7 a\\b", "Caf\xc3\xa9 \xc2\xa0\xf0\x9f\x93\xb7 a\\b",
         "Caf\xc3\xa9 \xc2\xa0\xf0\x9f\x93\xb7 a\\b"},
        {"A\x1b[2JB\x07\n\t", "A\\x1b[2JB\\x07\\x0a\\x09", "A\x1b[2JB\x07\n\t"},
        {"\x7f\xc2\x9b" "31m\xc2\x80", "\\x7f\\u009b31m\\u0080", "\x7f\xc2\x9b" "31m\xc2\x80"},
        {"x\xff\xc3", "x\\xff\\xc3", "x" + replacement + replacement},
        // An overlong slash, a surrogate, a code point past U+10FFFF.
        {"\xc0\xaf\xed\xa0\x80\xf4\x90\x80\x80", "\\xc0\\xaf\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(Printable(row.text));
        EXPECT_EQ(Printable(row.text), row.printable);
        const std::string json = JsonText({{"text", row.text}}, 2);
        for (size_t i = 0; i < json.size(); ++i) {
            const auto byte = static_cast<unsigned char>(json[i]);
            const bool c1 = byte == 0xC2 && i + 1 < json.size() &&
                            static_cast<unsigned char>(json[i + 1]) <= 0x9F;
            EXPECT_TRUE((byte >= 0x20 || byte == '\n') && byte != 0x7F && !c1) << json;
        }
        const auto parsed = nlohmann::json::parse(json, nullptr, false);
        ASSERT_TRUE(parsed.is_object()) << json;
        if (!row.inJson.empty()) {
            EXPECT_EQ(parsed["text"], row.inJson);
        }
    }
    EXPECT_EQ(PrintableLines("a\nb\x1b\n"), "a\nb\\x1b\n");
}

#ifndef _WIN32

// A fresh folder under the temporary folder, removed with what it holds.
class ScratchFolder {
public:
    ScratchFolder() {
        std::random_device random;
        path_ = std::filesystem::temp_directory_path() /
                ("korvtool-test-" + std::to_string(random()));
        std::filesystem::create_directory(path_);
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

// An environment variable set (or unset, for null) for a scope.
class ScopedVariable {
public:
    ScopedVariable(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        if (value != nullptr) {
            setenv(name, value, 1);
        } else {
            unsetenv(name);
        }
    }
    ~ScopedVariable() {
        if (old_) {
            setenv(name_, old_->c_str(), 1);
        } else {
            unsetenv(name_);
        }
    }

private:
    const char* name_;
    std::optional<std::string> old_;
};

std::string Contents(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Another user's id (the tests run as root, who may give files away).
constexpr uid_t kOtherUser = 65534;

// Where another user could hold the lock, or swap it for a link, korvtool
// has no lock: refused, with the file or folder and why; a link's target
// stays as it was.
TEST(DeviceLock, RefusesALockAnotherUserCouldHoldOrReplace) {
    if (geteuid() != 0) GTEST_SKIP() << "giving files to another user needs root";
    const ScratchFolder scratch;
    const std::filesystem::path temp = scratch.path() / "tmp";
    const std::filesystem::path victim = scratch.path() / "victim";
    const std::filesystem::path victimFolder = scratch.path() / "victim-folder";
    std::filesystem::create_directory(temp);
    std::filesystem::create_directory(victimFolder);
    std::ofstream(victim) << "victim\n";
    const ScopedVariable runtime("XDG_RUNTIME_DIR", nullptr);
    const ScopedVariable tmpdir("TMPDIR", temp.c_str());
    const std::string key = "FFF0-0C01-PLANTED";
    std::filesystem::path file;
    {
        const DeviceLock probe(key);
        ASSERT_TRUE(probe.Held()) << probe.Problem();
        file = probe.Name();
    }
    const std::filesystem::path folder = file.parent_path();
    struct Row {
        const char* name;
        std::function<int()> plant;
        bool aboutFile;
        const char* why;
    };
    const Row rows[] = {
        {"folder of another user", [&] { return chown(folder.c_str(), kOtherUser, kOtherUser); },
         false, "belongs to user 65534"},
        {"folder others may write", [&] { return chmod(folder.c_str(), 0777); }, false,
         "other users may write"},
        {"folder is a link",
         [&] {
             std::filesystem::remove_all(folder);
             return symlink(victimFolder.c_str(), folder.c_str());
         },
         false, "symbolic link"},
        {"file of another user",
         [&] {
             std::ofstream(file) << "";
             return chown(file.c_str(), kOtherUser, kOtherUser);
         },
         true, "belongs to user 65534"},
        {"file is a link", [&] { return symlink(victim.c_str(), file.c_str()); }, true,
         "symbolic link"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        // A private folder without the file first.
        if (std::filesystem::is_symlink(folder)) std::filesystem::remove(folder);
        std::filesystem::create_directories(folder);
        ASSERT_EQ(chown(folder.c_str(), geteuid(), getegid()) | chmod(folder.c_str(), 0700), 0);
        std::filesystem::remove(file);
        ASSERT_EQ(row.plant(), 0);
        const DeviceLock lock(key);
        EXPECT_FALSE(lock.Held());
        const std::string& problem = lock.Problem();
        EXPECT_EQ(problem.rfind((row.aboutFile ? file : folder).string() + ": ", 0), 0u) << problem;
        EXPECT_NE(problem.find(row.why), std::string::npos) << problem;
        EXPECT_EQ(Contents(victim), "victim\n");
        EXPECT_TRUE(std::filesystem::is_empty(victimFolder));
    }
}

#endif  // _WIN32

}  // namespace
}  // namespace korvtool
