// The interrupted-update sweep: a USB update is cut off (the device
// unplugged) after each single report transfer in turn. Whatever the cut,
// the library must end with its failure record and state 2, and the device,
// plugged in again, must run either its original or the new firmware,
// never a half-written one, and take a second update that then runs.
//
// The updater's own waits are shortened here (m_updateWaitDivisor) so that
// several hundred updates fit in a test; the benchmark keeps the real ones.
// Large data reports keep the number of transfers of an 8 MiB image small.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "firmware/update_rig.h"

using namespace VideoConsoleCore;
using korvsdk_test::g_states;
using korvsdk_test::Rig;
namespace layout = virtualdev::flash_layout;

namespace {

struct Mode {
    const char* name;
    const char* settings;
    bool wholeImage;
    bool partialBootsAllowed;  // the plain whole-image order may leave some
};

class UsbSweep : public ::testing::TestWithParam<Mode> {};

}  // namespace

TEST_P(UsbSweep, EveryCutLeavesADeviceThatBootsAndUpdates) {
    const Mode mode = GetParam();
    // The updating blink, which every board gets, is held steady and marked
    // written before each start, so that it adds no transfer and every cut
    // falls on a transfer of the update itself. (The finish lights of the
    // update before clear the mark; each selection has ended them.)
    Rig rig(std::string(mode.settings) +
            "Virtual0_OutDataCount=65534\nVirtual0_InDataCount=65534\nVirtual0_ModelCode=5\n");
    ASSERT_TRUE(rig.ok()) << korvsdk_test::MessageLog::All();
    rig.core_.m_updateWaitDivisor = 1000;
    rig.core_.m_ledPeriod[0] = 0;
    rig.core_.m_patternWrittenOnce = 1;
    // A firmware of 2 MiB, so that a good share of the cuts falls inside it.
    virtualdev::UsbImageOptions options;
    options.versionText = "02.00.00.00.0000";
    options.bootSize = 0x200000 - options.headerLength;
    const std::vector<uint8_t> image = virtualdev::BuildUsbImage(options);
    const std::string path = rig.Write(image);
    constexpr uint32_t kFirmware = 0x200000;
    const std::vector<uint8_t> factoryFirmware = rig.Flash(layout::kFirmwareStart, kFirmware);
    const std::vector<uint8_t> newFirmware(image.begin() + layout::kFirmwareStart,
                                           image.begin() + layout::kFirmwareStart + kFirmware);
    const std::string newVersion = mode.wholeImage ? "02.00.00.00.0000" : "01.00.01.09.0000";

    // A whole update, to count its transfers.
    uint32_t before = rig.Device().Transfers(0);
    ASSERT_TRUE(rig.Update(path));
    ASSERT_EQ(g_states.back(), "UpdateCompleted");
    const uint32_t total = rig.Device().Transfers(0) - before;

    // Every cut near the start (the erase and the set-up) and near the end
    // (the compare's last chunks, the other areas, the boot configuration
    // word); between them the bursts' chunks repeat one another, and every
    // fourth stands for them (every ninth under the slow sanitizers).
#if defined(KORVSDK_SANITIZER_BUILD)
    const uint32_t stride = 9, edge = 4;
#else
    const uint32_t stride = 4, edge = 24;
#endif
    const auto next = [&](uint32_t k) {
        return k < edge || k + edge >= total ? k + 1 : std::min(k + stride, total - edge);
    };
    int failed = 0, completed = 0, original = 0, updated = 0, partial = 0;
    for (uint32_t k = 1; k <= total; k = next(k)) {
        SCOPED_TRACE("cut after transfer " + std::to_string(k) + " of " + std::to_string(total));
        korvsdk_test::MessageLog::Clear();
        rig.Device().RestoreFactoryFlash(0);
        rig.Device().Replug(0);
        ASSERT_TRUE(rig.Reselect());
        ASSERT_TRUE(rig.core_.SetFirmwareFile(path.c_str(), kFirmwareUsbHex));
        rig.core_.m_patternWrittenOnce = 1;
        rig.Device().Faults(0).unplugAfterTransfers = rig.Device().Transfers(0) + k;
        g_states.clear();
        const bool started = rig.core_.StartUsbFwUpdate();
        firmware::JoinUpdateThread(rig.core_);
        EXPECT_EQ(rig.core_.m_deviceState, kDeviceStateSelected);
        ASSERT_FALSE(g_states.empty());
        if (g_states.back() == "UpdateCompleted") {
            ++completed;
        } else {
            EXPECT_EQ(g_states.back(), "UpdateFailed") << started;
            ++failed;
        }

        // Plugged in again: the original firmware, or the new one whole.
        rig.Device().Faults(0).unplugAfterTransfers = 0;
        rig.Device().Replug(0);
        if (rig.Device().Bridge(0).FoundPartialFirmware()) {
            ++partial;
        }
        if (rig.Device().Bridge(0).RunningUpdatedFirmware()) {
            // Whole: the factory's firmware (0x10100 bytes) or the new one.
            const std::vector<uint8_t> firmware = rig.Flash(layout::kFirmwareStart, kFirmware);
            EXPECT_TRUE(firmware == newFirmware ||
                        std::equal(factoryFirmware.begin(), factoryFirmware.begin() + 0x10100,
                                   firmware.begin()));
            ++updated;
        } else {
            ++original;
        }

        // It takes the update again, and then runs it.
        ASSERT_TRUE(rig.Reselect());
        ASSERT_TRUE(rig.Update(path));
        EXPECT_EQ(g_states.back(), "UpdateCompleted");
        rig.Device().Replug(0);
        EXPECT_TRUE(rig.Device().Bridge(0).RunningUpdatedFirmware());
        ASSERT_TRUE(rig.Reselect());
        EXPECT_EQ(rig.core_.m_usbFwVersion, newVersion);
        EXPECT_TRUE(rig.Flash(layout::kFirmwareStart, kFirmware) == newFirmware);
        if (k == total) break;
    }
    std::printf("sweep %s: %u transfers per update, %d cuts (each of the first and last %u, "
                "every %u between); update failed %d, completed %d; after re-plug: original "
                "firmware %d, flash firmware %d; half-written firmware marked bootable %d\n",
                mode.name, total, failed + completed, edge, stride, failed, completed, original,
                updated, partial);
    if (!mode.partialBootsAllowed) {
        EXPECT_EQ(partial, 0);
    }
    EXPECT_EQ(completed, 1);  // only the cut after the very last transfer
}

INSTANTIATE_TEST_SUITE_P(
    Modes, UsbSweep,
    ::testing::Values(Mode{"firmware-area", "USB_Burn_Area=1\n", false, false},
                      Mode{"whole-image", "", true, true},
                      Mode{"whole-image-valid-last", "USB_Entire_Valid_Last=1\n", true, false}),
    [](const auto& param) {
        std::string name = param.param.name;
        for (char& c : name) c = c == '-' ? '_' : c;
        return name;
    });
