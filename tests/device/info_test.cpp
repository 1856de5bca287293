// The support snapshots: USB stream information, the HDMI status block and
// the microcontroller information with the splitter's EDID.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/virtual_session.h"

using korvsdk_test::MessageLog;
using korvsdk_test::StateRecords;
using korvsdk_test::VirtualSession;
using namespace VideoConsoleCore;

namespace {

class Info : public VirtualSession {
protected:
    std::string OnlyState() const {
        EXPECT_EQ(StateRecords().size(), 1u);
        return StateRecords().empty() ? "" : StateRecords().back().message;
    }
};

size_t Count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

}  // namespace

TEST_F(Info, UsbStreamInformation) {
    Start("Virtual0_UsbWidth=1920\nVirtual0_UsbHeight=1080\nVirtual0_UsbFrameRate=30\n"
          "Virtual0_UsbColorFormat=1\n");
    EXPECT_EQ(core_.GetUsbAppInfo(), 1);
    EXPECT_EQ(OnlyState(), "Resolution=1920x1080 FrameRate=30 ColorFormat=NV12");
    const uint64_t packed = 1920u | 1080u << 16 | uint64_t{30} << 32 | uint64_t{1} << 48;
    EXPECT_EQ(StateRecords()[0].value, packed);
    EXPECT_TRUE(Said("usb resolution (1920 x 1080) \n"));
    EXPECT_TRUE(Said("frame rate(30) \n"));
    EXPECT_TRUE(Said("color format(1) \n"));
}

TEST_F(Info, UnnamedColorFormatsShowAsZero) {
    Start("Virtual0_UsbColorFormat=5\n");
    EXPECT_EQ(core_.GetUsbAppInfo(), 1);
    EXPECT_EQ(OnlyState(), "Resolution=1920x1080 FrameRate=60 ColorFormat=0");
    EXPECT_TRUE(Said("color format(5) \n"));
}

TEST_F(Info, UsbStreamInformationNeedsRecentFirmware) {
    // 01.00.00.09: its digits add up to 10.
    Start("Virtual0_UsbFwVersion=01.00.00.09\n");
    EXPECT_EQ(core_.GetUsbAppInfo(), 0);
    EXPECT_EQ(OnlyState(), "[APP_info] ERROR: Firmware version too low");
}

TEST_F(Info, FailedUsbReadLogsItsTextWithItsLineFeed) {
    Start("EnableLocalLogging=1\n");
    Device().Unplug(0);
    EXPECT_EQ(core_.GetUsbAppInfo(), 1);  // the values of the cleared buffer
    std::string log;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path()))
        if (entry.path().filename().string().rfind("Device_Log_", 0) == 0)
            log = korvsdk_test::ReadFile(entry.path());
    const std::string line = "Unknown error: Couldn't execute REPORT_USB_INFO function\n";
    const size_t at = log.find(line);
    ASSERT_NE(at, std::string::npos) << log;
    // The text's own line feed, then the log's end of line: an empty line.
    const std::string after = log.substr(at + line.size(), 2);
    EXPECT_TRUE(after.rfind("\n", 0) == 0 || after == "\r\n") << log;
}

TEST_F(Info, HdmiInformationAsHexText) {
    Start("Virtual0_HdmiInfo=00 01 0A ff 10 20 30 40 50 60 70 80 90 A0 B0 C0 D0 E0 F0 11 22 33 "
          "44 55\n");
    EXPECT_TRUE(core_.GetHdmiInfo());
    const std::string hex =
        "00 01 0a ff 10 20 30 40 50 60 70 80 90 a0 b0 c0 d0 e0 f0 11 22 33 44 55";
    EXPECT_EQ(OnlyState(), "HDMI info: " + hex);
    EXPECT_TRUE(Said("HDMI info: " + hex + "\n"));
}

TEST_F(Info, FailedHdmiReadStillGivesAText) {
    Start("Virtual0_HdmiInfo=11 11 11 11 11 11 11 11 11 11 11 11 11 11 11 11 11 11 11 11 11 11 "
          "11 11\n");
    Device().Unplug(0);
    EXPECT_TRUE(core_.GetHdmiInfo());
    EXPECT_TRUE(Said("Unknown error: Couldn't execute REPORT_HDMI_INFO function\n"));
    const std::string text = OnlyState();
    EXPECT_EQ(text.size(), std::string("HDMI info: ").size() + 71);
    EXPECT_EQ(Count(text, "00"), 24u);
}

TEST_F(Info, McuInformationWithAValidEdid) {
    Start();
    ASSERT_TRUE(core_.GetMcuInfo());
    const std::string text = OnlyState();
    EXPECT_EQ(text.rfind("[MCU_Info] a0=0d a2=00 02=", 0), 0u) << text;
    EXPECT_EQ(Count(text, "="), 14u);
    EXPECT_NE(text.find("c6=00 EDID: true, 00 ff ff ff ff ff ff 00 "), std::string::npos) << text;
}

TEST_F(Info, McuInformationJudgesTheEdidAnswer) {
    Start();
    struct {
        std::vector<uint8_t> answer;
        const char* verdict;
    } cases[] = {
        // What an older microcontroller firmware answers.
        {{0x12, 0x34, 0x56, 0x78, 0xFF, 0, 0, 0, 0, 0, 0, 0}, "EDID: true, 12 34 56 78 ff 00"},
        {{0x12, 0x34, 0x56, 0x78, 0xFE, 0, 0, 0, 0, 0, 0, 0}, "EDID: false, 12 34 56 78 fe 00"},
        {{0x12, 0x34, 0x56, 0x78, 0xFF, 0, 0, 0, 0, 0, 0, 1}, "EDID: false, 12 34"},
    };
    for (auto& c : cases) {
        c.answer.resize(128, 0);
        Device().Mcu(0).Splitter().SetEdid(c.answer);
        StateRecords().clear();
        ASSERT_TRUE(core_.GetMcuInfo());
        EXPECT_NE(OnlyState().find(c.verdict), std::string::npos) << OnlyState();
    }
}

// A splitter that takes the DDC set-up but never answers a read: the
// microcontroller's bridge status then stays non-zero.
class MuteSplitter : public virtualdev::I2cTarget {
public:
    bool Write(const uint8_t*, size_t) override { return true; }
    bool Read(const uint8_t*, size_t, uint8_t*, size_t) override { return false; }
};

// Slow: the bridge is polled ten times.
TEST_F(Info, McuInformationWithABridgeTimeOut) {
    Start();
    MuteSplitter splitter;
    Device().Mcu(0).AttachBusTarget(0, 0x6A, &splitter);
    ASSERT_TRUE(core_.GetMcuInfo());
    const std::string text = OnlyState();
    EXPECT_EQ(text.substr(text.size() - 21), "TX_EDID: Iic Timeout!");
    EXPECT_TRUE(Said("Iic Timeout!\n"));
}

TEST_F(Info, McuInformationFailures) {
    Start();
    Device().Mcu(0).Faults().nackRegister = 0x0E;
    EXPECT_FALSE(core_.GetMcuInfo());
    EXPECT_TRUE(StateRecords().empty());

    Device().Mcu(0).Faults().nackAll = true;
    EXPECT_FALSE(core_.GetMcuInfo());
    EXPECT_EQ(OnlyState(), "[MCU_Info] ERROR: No MCU detected");

    core_.m_deviceState = kDeviceStateUpdating;
    MessageLog::Clear();
    EXPECT_FALSE(core_.GetMcuInfo());
    EXPECT_EQ(MessageLog::All(), std::string(kRefuseMcuInfo));
}
