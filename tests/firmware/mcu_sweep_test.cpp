// The microcontroller update cut off at its transfers: the device unplugged
// after transfer k, or the microcontroller alone losing power. Whatever the
// cut, the library ends with the step's "MCU Error:" record and
// "UpdateFailed", state 2; the board, plugged in again, answers, can be
// selected, and takes a new update after which it runs the new version.
//
// The updater's own waits are shortened here (m_updateWaitDivisor); the
// benchmark keeps the real ones.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

#include "firmware/update_rig.h"

using namespace VideoConsoleCore;
using korvsdk_test::g_messages;
using korvsdk_test::g_states;
using korvsdk_test::Rig;

namespace {

constexpr uint32_t kTransfersPerPage = 4;  // the page's write and one busy poll, each out and in

struct Size {
    const char* name;
    size_t bytes;
    bool everyTransfer;
};

class McuSweep : public ::testing::TestWithParam<Size> {};

}  // namespace

TEST_P(McuSweep, EveryCutLeavesABoardThatTakesANewUpdate) {
    const Size size = GetParam();
    // The updating blink, which every board gets, is held steady and marked
    // written before each start, so that it adds no transfer and every cut
    // falls on a transfer of the update itself.
    Rig rig("Virtual0_ModelCode=5\n");
    ASSERT_TRUE(rig.ok()) << korvsdk_test::MessageLog::All();
    rig.core_.m_updateWaitDivisor = 1000;
    rig.core_.m_ledPeriod[0] = 0;
    rig.core_.m_patternWrittenOnce = 1;
    virtualdev::McuImageOptions image;
    image.size = size.bytes;
    image.deviceType = 5;
    image.version = 0x30;
    const std::string path = rig.WriteMcu(image);
    const uint32_t pages = static_cast<uint32_t>((size.bytes + 127) / 128);

    uint32_t before = rig.Device().Transfers(0);
    ASSERT_TRUE(rig.Update(path, kFirmwareMcuBin));
    ASSERT_EQ(g_states.back(), "UpdateCompleted");
    const uint32_t total = rig.Device().Transfers(0) - before;
    // Program and verify take the same transfers per page and come last.
    ASSERT_GT(total, 2 * kTransfersPerPage * pages);
    const uint32_t beforePages = total - 2 * kTransfersPerPage * pages;

    std::set<uint32_t> cuts;
    if (size.everyTransfer) {
        for (uint32_t k = 1; k <= total; ++k) cuts.insert(k);
    } else {
        // Every transfer before the pages; of program and verify the first
        // and last page and every 32nd between: its write and its poll.
        for (uint32_t k = 1; k <= beforePages; ++k) cuts.insert(k);
        for (uint32_t phase = 0; phase < 2; ++phase) {
            for (uint32_t page = 0; page < pages; ++page) {
                if (page != 0 && page + 1 != pages && page % 32 != 0) continue;
                const uint32_t at = beforePages + (phase * pages + page) * kTransfersPerPage;
                cuts.insert(at + 1);
                cuts.insert(at + 3);
            }
        }
    }
#if defined(KORVSDK_SANITIZER_BUILD)
    // The sanitizers are slow: every fifth cut.
    std::set<uint32_t> fewer;
    int n = 0;
    for (uint32_t k : cuts)
        if (n++ % 5 == 0) fewer.insert(k);
    cuts.swap(fewer);
#endif

    int failed = 0, inBootloader = 0, inApplication = 0;
    const auto takesANewUpdate = [&] {
        ASSERT_TRUE(rig.Reselect());
        ASSERT_TRUE(rig.Update(path, kFirmwareMcuBin));
        EXPECT_EQ(g_states.back(), "UpdateCompleted");
        rig.Device().Replug(0);
        ASSERT_TRUE(rig.Reselect());
        EXPECT_EQ(rig.core_.m_mcuFwVersion.substr(0, 5), "05.30");
    };
    for (const uint32_t k : cuts) {
        SCOPED_TRACE("cut after transfer " + std::to_string(k) + " of " + std::to_string(total));
        korvsdk_test::MessageLog::Clear();
        ASSERT_TRUE(rig.core_.SetFirmwareFile(path.c_str(), kFirmwareMcuBin));
        rig.core_.m_patternWrittenOnce = 1;  // the last update's finish lights cleared it
        rig.Device().Faults(0).unplugAfterTransfers = rig.Device().Transfers(0) + k;
        g_states.clear();
        g_messages.clear();
        ASSERT_TRUE(rig.core_.StartMcuFwUpdate());
        firmware::JoinUpdateThread(rig.core_);
        EXPECT_EQ(rig.core_.m_deviceState, kDeviceStateSelected);
        rig.Device().Faults(0).unplugAfterTransfers = 0;
        if (g_states.back() == "UpdateFailed") {
            ++failed;
            // The step's error first, unless the image never reached a step.
            ASSERT_GE(g_messages.size(), 2u);
            EXPECT_EQ(g_messages[g_messages.size() - 2].rfind("MCU Error:", 0), 0u)
                << g_messages[g_messages.size() - 2];
        } else {
            EXPECT_EQ(k, total);  // only a cut after the very last transfer lets it finish
        }
        rig.Device().Replug(0);
        (rig.Device().Mcu(0).Mode() == virtualdev::McuMode::Bootloader ? inBootloader : inApplication)++;
        ASSERT_NO_FATAL_FAILURE(takesANewUpdate());
    }

    // The microcontroller alone loses its power at a transfer of each step.
    // Early in the bootloader entry the library rides that out; later the
    // step fails.
    int powerCuts = 0, survived = 0;
    for (const uint32_t k : {2u, beforePages / 2, beforePages - 1, beforePages + pages * 2,
                             beforePages + pages * 6}) {
        SCOPED_TRACE("microcontroller power cut after transfer " + std::to_string(k));
        ASSERT_TRUE(rig.core_.SetFirmwareFile(path.c_str(), kFirmwareMcuBin));
        rig.core_.m_patternWrittenOnce = 1;
        rig.Device().Faults(0).mcuPowerCutAfterTransfers = rig.Device().Transfers(0) + k;
        g_states.clear();
        ASSERT_TRUE(rig.core_.StartMcuFwUpdate());
        firmware::JoinUpdateThread(rig.core_);
        rig.Device().Faults(0).mcuPowerCutAfterTransfers = 0;
        EXPECT_EQ(rig.core_.m_deviceState, kDeviceStateSelected);
        ++powerCuts;
        survived += g_states.back() == "UpdateCompleted";
        ASSERT_NO_FATAL_FAILURE(takesANewUpdate());
    }
    std::printf("sweep mcu %s: %u transfers per update (%u before the pages), %zu cuts: update "
                "failed %d; after re-plug in the bootloader %d, in an application %d; "
                "microcontroller power cuts %d (%d ridden out), each followed by a good update\n",
                size.name, total, beforePages, cuts.size(), failed, inBootloader, inApplication,
                powerCuts, survived);
}

INSTANTIATE_TEST_SUITE_P(Images, McuSweep,
                         ::testing::Values(Size{"small", 0x900, true},
                                           Size{"largest", 114688, false}),
                         [](const auto& param) { return std::string(param.param.name); });
