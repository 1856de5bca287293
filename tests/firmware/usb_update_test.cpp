// The USB updater against the virtual device's flash: what each burn-area
// setting writes, and how each failure ends (its message, the state back
// to 2, what the flash is left holding).
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "firmware/update_rig.h"

using namespace VideoConsoleCore;
using korvsdk_test::MessageLog;
using korvsdk_test::Rig;
using korvsdk_test::g_messages;
using korvsdk_test::g_states;
namespace layout = virtualdev::flash_layout;

namespace {

// An image that differs from the factory's in every area: another version
// text (Private), firmware body (it follows the version) and slot-3 string
// (Customized).
std::vector<uint8_t> NewImage() {
    virtualdev::UsbImageOptions options;
    options.versionText = "02.00.00.00.0000";
    options.slot3Text = "NEWSTRING";
    return virtualdev::BuildUsbImage(options);
}

std::vector<uint8_t> Slice(const std::vector<uint8_t>& image, uint32_t at, uint32_t length) {
    return {image.begin() + at, image.begin() + at + length};
}

std::vector<uint8_t> FileBytes(const std::string& path) {
    const std::string text = korvsdk_test::ReadFile(path);
    return {text.begin(), text.end()};
}

// Whether a part file of a backup to `target` ("<target>.part-xxxxxx") is
// still there.
bool PartFileLeft(const std::string& target) {
    const std::filesystem::path path(target);
    const std::string part = path.filename().string() + ".part";
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(path.parent_path(), error))
        if (entry.path().filename().string().rfind(part, 0) == 0) return true;
    return false;
}

}  // namespace

TEST(UsbUpdate, EachBurnAreaWritesWhatItNames) {
    const std::vector<uint8_t> image = NewImage();
    // The firmware area as far as header + boot size, rounded to the
    // 64 KiB erase unit: 0x100 + 0x10000 -> 0x20000.
    constexpr uint32_t kFirmwareWritten = 0x20000;
    struct Row {
        const char* setting;
        bool firmware, privateArea, customized, whole;
    };
    const Row rows[] = {{"USB_Burn_Area=1\n", true, false, false, false},
                        {"USB_Burn_Area=2\n", true, false, true, false},
                        {"USB_Burn_Area=3\n", true, true, false, false},
                        {"USB_Burn_Area=4\n", true, true, true, false},
                        {"USB_Burn_Area=5\n", true, true, true, true},
                        {"", true, true, true, true}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.setting);
        Rig rig(row.setting);
        ASSERT_TRUE(rig.ok());
        const std::vector<uint8_t> factory = rig.Flash(0, 0x800000);
        ASSERT_TRUE(rig.Update(rig.Write(image)));
        ASSERT_EQ(g_states.back(), "UpdateCompleted");
        if (row.whole) {
            // The whole image, its own slot-3 string included.
            EXPECT_TRUE(rig.Flash(0, 0x800000) == image);
            continue;
        }
        const auto area = [&](uint32_t at, uint32_t length, bool written) {
            return rig.Flash(at, length) == Slice(written ? image : factory, at, length);
        };
        EXPECT_TRUE(area(layout::kFirmwareStart, kFirmwareWritten, true));
        EXPECT_TRUE(area(layout::kFirmwareStart + kFirmwareWritten, 0x10000, false));
        EXPECT_TRUE(area(layout::kPrivateStart, layout::kPrivateLength, row.privateArea));
        EXPECT_EQ(rig.Device().Flash(0).ReadLe32(layout::kConfigBlock), 1u);
        if (!row.customized) {
            EXPECT_TRUE(area(layout::kCustomizedStart, layout::kCustomizedLength, false));
            continue;
        }
        // The Customized area, with the device's own string in slot 3: a
        // 128-byte block, descriptor length 34 and type 3, the 16 kept
        // characters as UTF-16LE, zeros after.
        std::vector<uint8_t> expected = Slice(image, layout::kCustomizedStart, layout::kCustomizedLength);
        uint8_t* slot = expected.data() + (layout::kSlot3At - layout::kCustomizedStart);
        std::fill(slot, slot + 128, 0);
        slot[0] = 34;
        slot[1] = 3;
        for (int i = 0; i < 16; ++i) slot[2 + 2 * i] = factory[layout::kSlot3At + 2 + 2 * i];
        EXPECT_EQ(slot[2], 'V');  // the factory serial, VC00000001
        EXPECT_TRUE(rig.Flash(layout::kCustomizedStart, layout::kCustomizedLength) == expected);
        std::string labels = "- Firmware Area\n";
        if (row.privateArea) labels += "- Private Area\n";
        labels += "- Customized Area\n\n has updated, please replug-in device!";
        EXPECT_EQ(MessageLog::Count(labels), 1) << MessageLog::All();
    }
}

TEST(UsbUpdate, FailuresEndWithTheirMessage) {
    struct Row {
        const char* name;
        const char* settings;
        bool started;
        const char* said;
        uint32_t validWordAfter;  // the boot configuration word left behind
    };
    const Row rows[] = {
        {"compare", "USB_Burn_Area=1\nVirtual0_CorruptFlashAt=180100\n", true,
         "FlashWrite -- Compare failed", 0},
        {"compare, whole", "Virtual0_CorruptFlashAt=300000\n", true, "FlashWrite -- Compare failed", 1},
        {"no erase unit", "USB_Burn_Area=1\nVirtual0_FlashIndex=1\n", true,
         "FlashWrite -- The flash part's erase unit is unknown; the firmware area cannot be "
         "written.\n",
         1},
        {"unplugged", "", false, "Please execute Get ID function !", 1},
        {"deleted", "", false, "Please select the burn file !", 1},
        {"changed", "", false, "The selected file has changed since it was set; please set it again.\n", 1},
        {"header past the area", "USB_Burn_Area=1\n", true,
         "FlashWrite -- Header_len + Boot_Size (0x410000) do not fit the file or the firmware "
         "area; nothing was written.\n",
         1},
        {"failed write", "USB_Burn_Area=1\nVirtual0_FailCall=SetOutputReport:40\n", true,
         "FlashWrite -- Transfer to the flash failed.\n", 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Rig rig(row.settings + std::string("msg_usb_update_fail=Failed, see the log.\n"));
        ASSERT_TRUE(rig.ok());
        virtualdev::UsbImageOptions options;
        options.versionText = "02.00.00.00.0000";
        if (std::string(row.name) == "header past the area") options.headerLength = 0x400000;
        const std::vector<uint8_t> image = virtualdev::BuildUsbImage(options);
        const std::string path = rig.Write(image);
        ASSERT_TRUE(rig.core_.SetFirmwareFile(path.c_str(), kFirmwareUsbHex));
        const std::string name = row.name;
        if (name == "unplugged") rig.Device().Unplug(0);
        if (name == "deleted") std::filesystem::remove(path);
        if (name == "changed") rig.Write(virtualdev::BuildUsbImage({}));
        const std::vector<uint8_t> firmwareBefore = rig.Flash(layout::kFirmwareStart, 0x20000);
        MessageLog::Clear();

        EXPECT_EQ(rig.core_.StartUsbFwUpdate(), row.started);
        firmware::JoinUpdateThread(rig.core_);
        EXPECT_EQ(rig.core_.m_deviceState, kDeviceStateSelected);
        EXPECT_EQ(MessageLog::Count(row.said), 1) << MessageLog::All();
        ASSERT_FALSE(g_states.empty());
        EXPECT_EQ(g_states.back(), "UpdateFailed");
        if (row.started) {
            EXPECT_EQ(g_messages.back(), "Failed, see the log.");
        }
        EXPECT_EQ(rig.Device().Flash(0).ReadLe32(layout::kConfigBlock), row.validWordAfter);
        if (!row.started || name == "no erase unit" || name == "header past the area") {
            EXPECT_TRUE(rig.Flash(layout::kFirmwareStart, 0x20000) == firmwareBefore);
        }
    }
}

// A backup holds the whole flash and puts the device back as it was after
// another image was written; a failed backup leaves no file and keeps an
// earlier one at the same path.
TEST(UsbBackup, RestoresTheFlashAndFailsWithoutAFile) {
    Rig rig("");
    ASSERT_TRUE(rig.ok());
    const uint32_t size = rig.Device().Flash(0).Size();
    const std::vector<uint8_t> before = rig.Flash(0, size);
    const std::string backup = rig.Write({1, 2, 3}, "backup.hex");  // an older file to replace

    ASSERT_TRUE(rig.core_.ReadUsbFlash(backup.c_str())) << MessageLog::All();
    EXPECT_EQ(rig.core_.m_deviceState, kDeviceStateSelected);
    EXPECT_EQ(g_states.front(), "Reading");
    EXPECT_EQ(g_states.back(), "ReadCompleted");
    EXPECT_GT(g_states.size(), 50u);  // a record for every percent or so
    EXPECT_FALSE(PartFileLeft(backup));
    EXPECT_TRUE(FileBytes(backup) == before);

    ASSERT_TRUE(rig.Update(rig.Write(NewImage())));
    ASSERT_NE(rig.Flash(0, size), before);
    ASSERT_TRUE(rig.Update(backup));
    EXPECT_EQ(g_states.back(), "UpdateCompleted");
    EXPECT_TRUE(rig.Flash(0, size) == before);

    struct Row {
        const char* name;
        std::string path;
        const char* said;
    };
    const Row rows[] = {
        {"updating", backup, "You are already updating!\n"},
        {"no path", "", "Please give the file to save the USB flash in!\n"},
        {"no such folder", backup + ".d/x.hex", "Cannot create "},
        {"unplugged mid-way", backup, "Reading the flash failed; no backup was written."},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string name = row.name;
        g_states.clear();
        MessageLog::Clear();
        if (name == "unplugged mid-way") rig.Device().Faults(0).unplugAfterTransfers = rig.Device().Transfers(0) + 500;
        if (name == "updating") rig.core_.m_deviceState = kDeviceStateUpdating;
        EXPECT_FALSE(rig.core_.ReadUsbFlash(row.path.c_str()));
        EXPECT_NE(MessageLog::All().find(row.said), std::string::npos) << MessageLog::All();
        if (name == "updating") {
            EXPECT_EQ(rig.core_.m_deviceState, kDeviceStateUpdating);
            rig.core_.m_deviceState = kDeviceStateSelected;
            continue;
        }
        EXPECT_EQ(rig.core_.m_deviceState, kDeviceStateSelected);
        if (name == "no path") continue;
        EXPECT_EQ(g_states.back(), "ReadFailed");
        EXPECT_FALSE(PartFileLeft(row.path));
        EXPECT_TRUE(FileBytes(backup) == before);  // the earlier backup is kept
    }
}
