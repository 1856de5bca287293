// The parts of korvtool that read its own arguments and the library's
// answer texts, tested without a device.
#include <gtest/gtest.h>

#include <memory>

#include "choices.h"
#include "device_lock.h"
#include "device_reports.h"
#include "errors.h"

namespace korvtool {
namespace {

std::vector<DeviceInfo> TwoDevices() {
    return {{"Virtual HDMI Capture", "FFF0", "0C01", "VC00000001"},
            {"Virtual HDMI Capture", "FFF0", "0C02", "VC00000002"}};
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

}  // namespace
}  // namespace korvtool
