// Firmware-file operations at the core: the start-up scan of the working
// folder, and the version rules on their own.
#include <gtest/gtest.h>

#include "firmware/firmware_file.h"
#include "firmware/version_rules.h"
#include "support/virtual_session.h"
#include "virtual/device/usb_image.h"
#include "virtual/mcu/mcu_image.h"

using namespace VideoConsoleCore;
using korvsdk_test::MessageLog;

namespace {
using FirmwareCore = korvsdk_test::VirtualSession;
}  // namespace

// The scan takes the first image of each kind with its path and version,
// but arms only one whose identity fits the selected device: a stray image
// of another model must never be written by the tool core's update start.
TEST_F(FirmwareCore, StartupScanArmsOnlyImagesOfThisDevice) {
    ASSERT_NO_FATAL_FAILURE(Start());
    core_.ScanWorkingFolderForFirmware();
    EXPECT_EQ(core_.m_usbFileValid, 0);
    EXPECT_EQ(core_.m_mcuFileValid, 0);

    const struct {
        const char* name;
        uint16_t pid;
        uint8_t deviceType, codec;
        bool usbArmed, mcuArmed;
    } rows[] = {
        {"both of this device", 0x0C01, 0x0D, 0x00, true, true},
        {"type + 128 is this board too", 0x0C01, 0x8D, 0x00, true, true},
        {"flash image of another PID", 0x1234, 0x0D, 0x00, false, true},
        {"program image of another type", 0x0C01, 0x0E, 0x00, true, false},
        {"program image of another codec", 0x0C01, 0x0D, 0x01, true, false},
    };
    for (const auto& r : rows) {
        MessageLog::Clear();
        virtualdev::UsbImageOptions usb;
        usb.versionText = "01.00.00.00.0001";
        usb.pid = r.pid;
        ASSERT_TRUE(virtualdev::WriteUsbImageFile("x.hex", virtualdev::BuildUsbImage(usb)));
        virtualdev::McuImageOptions mcu;
        mcu.version = 0x05;
        mcu.deviceType = r.deviceType;
        mcu.codec = r.codec;
        ASSERT_TRUE(virtualdev::WriteMcuImageFile("y.bin", virtualdev::BuildMcuImage(mcu)));
        core_.ScanWorkingFolderForFirmware();
        EXPECT_EQ(core_.m_usbFileValid, r.usbArmed ? 1 : 0) << r.name;
        EXPECT_EQ(core_.m_mcuFileValid, r.mcuArmed ? 1 : 0) << r.name;
        EXPECT_EQ(core_.m_usbFileVersion, "01.00.00.00.0001") << r.name;
        EXPECT_EQ(std::filesystem::path(core_.m_usbFilePath).filename(), "x.hex") << r.name;
        EXPECT_EQ(core_.m_mcuFileVersion.substr(2), ".05.0" + std::to_string(r.codec)) << r.name;
        const std::string said = MessageLog::All();
        int refusals = 0;
        for (size_t at = said.find("Not taking "); at != std::string::npos;
             at = said.find("Not taking ", at + 1))
            ++refusals;
        EXPECT_EQ(refusals, (r.usbArmed ? 0 : 1) + (r.mcuArmed ? 0 : 1)) << r.name << said;
    }

    // Too short to be an image: not taken.
    korvsdk_test::WriteFile(folder_.path() / "x.hex", "short");
    core_.ScanWorkingFolderForFirmware();
    EXPECT_EQ(core_.m_usbFileValid, 0);
    EXPECT_EQ(g_FileString, nullptr);
}

TEST(VersionRules, UsbVersionsWeighCharacterByCharacter) {
    struct Row {
        const char* mode;
        const char* device;
        const char* file;
        bool accepted;
    };
    const Row rows[] = {
        {"0", "01.00.01.09.0000", "01.00.01.09.0000", true},
        {"0", "01.00.01.09.0000", "01.00.01.0A.0000", true},
        {"0", "01.00.01.0a.0000", "01.00.01.0:.0000", true},   // ':' = 10 = 'a'
        {"0", "01.00.01.0b.0000", "01.00.01.0:.0000", false},
        {"0", "01.00.01.09.0001", "01.00.01.09.0000", false},
        {"0", "01.00.01.09.0000", "01.00.01.09.000", false},   // too short
        {"0", "01.00.01.09", "01.00.01.09.0000", false},
        {"0", "01.00.01.09.00f0", "01.00.01.09.00x0", true},  // 'x' weighs its code
        {"0", "02.00.00.00.0000", "01.ff.ff.ff.ffff", false},
        {"1", "09.00.00.00.0000", "01.00.00.00.0000", true},
        {"2", "", "", true},
        {"", "01.00.00.00.0000", "02.00.00.00.0000", false},
        {"99", "01.00.00.00.0000", "02.00.00.00.0000", false},  // force mode never asks
    };
    for (const Row& r : rows)
        EXPECT_EQ(firmware::UsbVersionAccepted(r.mode, r.device, r.file), r.accepted)
            << r.mode << " " << r.device << " " << r.file;
}

TEST(VersionRules, McuIdentityAndVersion) {
    using firmware::McuIdentity;
    struct Row {
        const char* device;
        const char* file;
        uint8_t model;
        McuIdentity identity;
    };
    const Row rows[] = {
        {"0d.17.00.010000", "0d.18.00", 13, McuIdentity::Match},
        {"0d.17.00.010000", "8d.18.00", 13, McuIdentity::Match},
        {"0d.17.00.010000", "0e.18.00", 13, McuIdentity::Wrong},
        {"0d.17.00.010000", "0d.18.00", 14, McuIdentity::Wrong},
        {"0d.17.00.010000", "0d.18.00", 4, McuIdentity::Wrong},   // model outside 5..17
        {"11.17.00.010000", "11.18.00", 17, McuIdentity::Match},
        {"0d.17.ff.010000", "0d.18.00", 13, McuIdentity::Match},  // FF reads as 00
        {"0d.17.FF.010000", "0d.18.ff", 13, McuIdentity::CodecDiffers},
        {"0d.17.0a.010000", "0d.18.0a", 13, McuIdentity::CodecDiffers},  // lowercase never matches
        {"0d.17.01.010000", "0d.18.00", 13, McuIdentity::CodecDiffers},
    };
    for (const Row& r : rows)
        EXPECT_EQ(firmware::CheckMcuIdentity(r.device, r.file, r.model), r.identity)
            << r.device << " " << r.file << " " << int(r.model);

    struct Version {
        const char* mode;
        const char* device;
        const char* file;
        bool accepted;
    };
    const Version versions[] = {
        {"0", "0d.17.00", "0d.17.00", true},  {"0", "0d.17.00", "0d.16.00", false},
        {"2", "0d.1a.00", "0d.1:.00", true},  {"2", "0d.1b.00", "0d.1:.00", false},
        {"1", "0d.ff.00", "0d.00.00", true},  {"", "0d.00.00", "0d.ff.00", false},
        {"99", "0d.00.00", "0d.ff.00", false},
    };
    for (const Version& v : versions)
        EXPECT_EQ(firmware::McuVersionAccepted(v.mode, v.device, v.file), v.accepted)
            << v.mode << " " << v.device << " " << v.file;
}
