// Entry into the bootloader, its command set (busy byte, erase, blank check,
// program, verify) and the start of the newly written application.
#include <gtest/gtest.h>

#include "virtual/mcu/mcu_image.h"
#include "virtual/mcu/mcu_test_helpers.h"

namespace VideoConsoleCore::virtualdev {
namespace {

using testing::BlPageCommand;
using testing::BlRangeCommand;
using testing::EnterBootModeByRegister;
using testing::ProgramImage;
using testing::ReadReg;
using testing::ReadRegs;
using testing::WaitBusy;
using testing::WriteBytes;
using testing::WriteReg;

VirtualMcu& InBootloader(VirtualMcu& mcu) {
    mcu.EnterBootloaderLine();
    return mcu;
}

std::vector<uint8_t> Restart() { return BlRangeCommand('r', 0); }

TEST(McuBootEntry, ByTheJumpRegister) {
    VirtualMcuConfig config;
    config.bootloaderVersion = 0x09;
    VirtualMcu mcu(config);
    EXPECT_EQ(EnterBootModeByRegister(mcu), 0x09);
    EXPECT_EQ(mcu.Mode(), McuMode::Bootloader);
    EXPECT_EQ(ReadReg(mcu, 0xE0), 0x00);
}

TEST(McuBootEntry, ByTheBootLineWithoutTheJumpRegister) {
    VirtualMcu mcu;
    mcu.Faults().nackRegister = 0xEE;  // a write of 0xEE would fail the entry
    mcu.EnterBootloaderLine();
    EXPECT_EQ(EnterBootModeByRegister(mcu), VirtualMcuConfig{}.bootloaderVersion);
}

TEST(McuBootEntry, OnlyValueOneJumps) {
    VirtualMcu mcu;
    EXPECT_FALSE(WriteReg(mcu, 0xEE, 0x02));
    EXPECT_EQ(ReadReg(mcu, 0xE0), 0x01);
}

TEST(McuBootEntry, TheJumpTakesItsTimeAndReadsAsRestarting) {
    VirtualMcuConfig config;
    config.timings.bootJumpMs = 40;
    VirtualMcu mcu(config);
    ASSERT_TRUE(WriteReg(mcu, 0xEE, 0x01));
    EXPECT_EQ(ReadReg(mcu, 0xE0), 0x02);
    EXPECT_FALSE(WriteReg(mcu, 0x10, 1));
    mcu.Advance(39);
    EXPECT_EQ(ReadReg(mcu, 0xE0), 0x02);
    mcu.Advance(1);
    EXPECT_EQ(ReadReg(mcu, 0xE0), 0x00);
    // The library's loop copes with the restarting value.
    VirtualMcu other(config);
    EXPECT_EQ(EnterBootModeByRegister(other), config.bootloaderVersion);
}

TEST(McuBootloader, AnswersOnlyItsOwnRegisters) {
    VirtualMcu mcu;
    InBootloader(mcu);
    EXPECT_EQ(ReadReg(mcu, 0xA0), 0xFF);
    EXPECT_EQ(ReadReg(mcu, 0x10), 0xFF);
    EXPECT_EQ(ReadReg(mcu, 0xE1), 0x00);
    EXPECT_FALSE(WriteReg(mcu, 0x10, 1));
    EXPECT_FALSE(WriteReg(mcu, 0xBC, 0x01));
    // The update's lights are still driven through 0xC8.
    EXPECT_TRUE(WriteReg(mcu, 0xC8, 0x83));
    EXPECT_EQ(mcu.LedPattern(), 0x83);
    EXPECT_FALSE(WriteReg(mcu, 0xC8, 0x10));
}

TEST(McuBootloader, ProgrammingAndRestartBringUpTheNewVersion) {
    VirtualMcu mcu;
    ASSERT_EQ(ReadReg(mcu, 0xA1), 0x17);
    McuImageOptions options;
    options.size = 5000;
    options.deviceType = 0x0E;
    options.version = 0x22;
    options.codec = 0x04;
    options.config = {0x09, 0x08, 0x07};
    const auto image = BuildMcuImage(options);
    InBootloader(mcu);
    ASSERT_TRUE(ProgramImage(mcu, image));
    EXPECT_TRUE(std::equal(image.begin(), image.end(), mcu.ProgramMemory().begin()));
    ASSERT_TRUE(WriteBytes(mcu, Restart()));
    EXPECT_EQ(mcu.Mode(), McuMode::Application);
    EXPECT_EQ(ReadReg(mcu, 0xE0), 0x01);
    EXPECT_EQ(ReadReg(mcu, 0xA0), 0x0E);
    EXPECT_EQ(ReadReg(mcu, 0xA1), 0x22);
    EXPECT_EQ(ReadRegs(mcu, 0xA2, 4), (std::vector<uint8_t>{0x04, 0x09, 0x08, 0x07}));
}

TEST(McuBootloader, ARePlugAfterTheUpdateStartsTheNewApplicationToo) {
    VirtualMcu mcu;
    McuImageOptions options;
    options.version = 0x30;
    InBootloader(mcu);
    ASSERT_TRUE(ProgramImage(mcu, BuildMcuImage(options)));
    mcu.PowerCycle();
    EXPECT_EQ(ReadReg(mcu, 0xA1), 0x30);
}

TEST(McuBootloader, TheLastPartialPageKeepsTheFillOfThePacket) {
    VirtualMcu mcu;
    McuImageOptions options;
    options.size = 0x881;  // one byte into its last page
    const auto image = BuildMcuImage(options);
    InBootloader(mcu);
    ASSERT_TRUE(ProgramImage(mcu, image));
    const auto& memory = mcu.ProgramMemory();
    EXPECT_EQ(memory[0x880], image[0x880]);
    EXPECT_TRUE(std::all_of(memory.begin() + 0x881, memory.begin() + 0x900,
                            [](uint8_t b) { return b == 0xFF; }));
}

TEST(McuBootloader, AnErasedApplicationIsNotStarted) {
    VirtualMcu mcu;
    InBootloader(mcu);
    ASSERT_TRUE(WriteBytes(mcu, BlRangeCommand('e', 4)));
    ASSERT_TRUE(WaitBusy(mcu));
    ASSERT_TRUE(WriteBytes(mcu, Restart()));
    EXPECT_EQ(mcu.Mode(), McuMode::Bootloader);
    EXPECT_EQ(ReadReg(mcu, 0xE1), VirtualMcu::kBlStatusNoApplication);
    mcu.PowerCycle();
    EXPECT_EQ(mcu.Mode(), McuMode::Bootloader);
    EXPECT_EQ(ReadReg(mcu, 0xA0), 0xFF);
    EXPECT_EQ(ReadReg(mcu, 0xFD), VirtualMcuConfig{}.bootloaderVersion);
}

TEST(McuBootloader, AnImageWithoutAVectorTableIsNotStarted) {
    VirtualMcu mcu;
    McuImageOptions options;
    options.validVectors = false;
    InBootloader(mcu);
    ASSERT_TRUE(ProgramImage(mcu, BuildMcuImage(options)));
    ASSERT_TRUE(WriteBytes(mcu, Restart()));
    EXPECT_EQ(mcu.Mode(), McuMode::Bootloader);
}

TEST(McuBootloader, BlankCheckFailsOnWrittenMemory) {
    VirtualMcu mcu;  // the factory application occupies the first pages
    InBootloader(mcu);
    ASSERT_TRUE(WriteBytes(mcu, BlRangeCommand('b', 2)));
    EXPECT_EQ(ReadReg(mcu, 0xE1), VirtualMcu::kBlStatusBlankFail);
    EXPECT_FALSE(WaitBusy(mcu));  // the library sees a busy byte that never clears
    ASSERT_TRUE(WriteBytes(mcu, BlRangeCommand('e', 2)));  // a new command clears the error
    ASSERT_TRUE(WaitBusy(mcu));
    ASSERT_TRUE(WriteBytes(mcu, BlRangeCommand('b', 2)));
    EXPECT_TRUE(WaitBusy(mcu));
}

TEST(McuBootloader, ProgrammingWithoutEraseFailsTheVerify) {
    VirtualMcu mcu;
    InBootloader(mcu);
    uint8_t page[128];
    std::fill(std::begin(page), std::end(page), uint8_t(0x5A));
    ASSERT_TRUE(WriteBytes(mcu, BlPageCommand('w', 0x1000, page)));
    ASSERT_TRUE(WaitBusy(mcu));
    ASSERT_TRUE(WriteBytes(mcu, BlPageCommand('v', 0x1000, page)));
    EXPECT_EQ(ReadReg(mcu, 0xE1), VirtualMcu::kBlStatusVerifyFail);
}

TEST(McuBootloader, VerifyComparesWithMemory) {
    VirtualMcu mcu;
    InBootloader(mcu);
    ASSERT_TRUE(WriteBytes(mcu, BlRangeCommand('e', 1)));
    ASSERT_TRUE(WaitBusy(mcu));
    uint8_t page[128];
    for (int i = 0; i < 128; ++i) page[i] = uint8_t(i);
    ASSERT_TRUE(WriteBytes(mcu, BlPageCommand('w', 0x1000, page)));
    ASSERT_TRUE(WaitBusy(mcu));
    ASSERT_TRUE(WriteBytes(mcu, BlPageCommand('v', 0x1000, page)));
    EXPECT_TRUE(WaitBusy(mcu));
    page[127] ^= 1;
    ASSERT_TRUE(WriteBytes(mcu, BlPageCommand('v', 0x1000, page)));
    EXPECT_FALSE(WaitBusy(mcu));
}

TEST(McuBootloader, WholeProgramMemoryAndNoMore) {
    VirtualMcu mcu;
    InBootloader(mcu);
    ASSERT_TRUE(WriteBytes(mcu, BlRangeCommand('e', 896)));
    ASSERT_TRUE(WaitBusy(mcu));
    ASSERT_TRUE(WriteBytes(mcu, BlRangeCommand('b', 896)));
    EXPECT_TRUE(WaitBusy(mcu));
    EXPECT_FALSE(WriteBytes(mcu, BlRangeCommand('e', 897)));
    uint8_t page[128] = {};
    EXPECT_TRUE(WriteBytes(mcu, BlPageCommand('w', 0x1CF80, page)));
    ASSERT_TRUE(WaitBusy(mcu));
    EXPECT_FALSE(WriteBytes(mcu, BlPageCommand('w', 0x1D000, page)));
    EXPECT_FALSE(WriteBytes(mcu, BlPageCommand('w', 0x0F80, page)));  // the bootloader's own
    EXPECT_FALSE(WriteBytes(mcu, BlPageCommand('w', 0x1040, page)));  // not on a page
}

TEST(McuBootloader, MalformedCommandsAreNotAcknowledged) {
    VirtualMcu mcu;
    InBootloader(mcu);
    auto erase = BlRangeCommand('e', 1);
    erase.push_back(0);
    EXPECT_FALSE(WriteBytes(mcu, erase));
    EXPECT_FALSE(WriteBytes(mcu, BlRangeCommand('x', 1)));
    uint8_t page[128] = {};
    auto program = BlPageCommand('w', 0x1000, page);
    program[8] = 2;  // one page per packet
    EXPECT_FALSE(WriteBytes(mcu, program));
    program = BlPageCommand('w', 0x1000, page);
    program.pop_back();
    EXPECT_FALSE(WriteBytes(mcu, program));
}

TEST(McuBootloaderTiming, BusyForTheConfiguredTimePerPage) {
    VirtualMcuConfig config;
    config.timings.eraseMsPerPage = 5;
    config.timings.programPageMs = 3;
    VirtualMcu mcu(config);
    InBootloader(mcu);
    ASSERT_TRUE(WriteBytes(mcu, BlRangeCommand('e', 10)));
    EXPECT_EQ(ReadReg(mcu, 0xE1), VirtualMcu::kBlStatusBusy);
    EXPECT_FALSE(WriteBytes(mcu, BlRangeCommand('b', 10)));  // busy: not taken
    mcu.Advance(49);
    EXPECT_EQ(ReadReg(mcu, 0xE1), VirtualMcu::kBlStatusBusy);
    EXPECT_EQ(mcu.ProgramMemory()[0], BuildMcuImage({})[0]);  // erased only at the end
    mcu.Advance(1);
    EXPECT_EQ(ReadReg(mcu, 0xE1), 0x00);
    EXPECT_EQ(mcu.ProgramMemory()[0], 0xFF);
    uint8_t page[128] = {};
    ASSERT_TRUE(WriteBytes(mcu, BlPageCommand('w', 0x1000, page)));
    EXPECT_EQ(ReadReg(mcu, 0xE1), VirtualMcu::kBlStatusBusy);
    EXPECT_TRUE(WaitBusy(mcu));
}

TEST(McuBootloaderTiming, ALongEraseOutlastsTheLibrarysThreeSeconds) {
    VirtualMcuConfig config;
    config.timings.eraseMsPerPage = 4;
    VirtualMcu mcu(config);
    InBootloader(mcu);
    ASSERT_TRUE(WriteBytes(mcu, BlRangeCommand('e', 750)));  // exactly 300 polls of 10 ms
    EXPECT_TRUE(WaitBusy(mcu));
    ASSERT_TRUE(WriteBytes(mcu, BlRangeCommand('e', 751)));
    EXPECT_FALSE(WaitBusy(mcu));
}

TEST(McuBootloaderTiming, RestartTakesItsTime) {
    VirtualMcuConfig config;
    config.timings.restartMs = 20;
    VirtualMcu mcu(config);
    InBootloader(mcu);
    ASSERT_TRUE(WriteBytes(mcu, Restart()));
    EXPECT_EQ(mcu.Mode(), McuMode::Restarting);
    EXPECT_EQ(ReadReg(mcu, 0xA0), 0xFF);
    mcu.Advance(20);
    EXPECT_EQ(mcu.Mode(), McuMode::Application);
    EXPECT_EQ(ReadReg(mcu, 0xA0), 0x0D);
}

TEST(McuFaults, ABootloaderThatStaysBusy) {
    VirtualMcu mcu;
    InBootloader(mcu);
    mcu.Faults().bootloaderStaysBusy = true;
    ASSERT_TRUE(WriteBytes(mcu, BlRangeCommand('e', 1)));
    EXPECT_FALSE(WaitBusy(mcu));
    EXPECT_FALSE(WriteBytes(mcu, BlRangeCommand('b', 1)));
    mcu.Advance(100000);
    EXPECT_EQ(ReadReg(mcu, 0xE1), VirtualMcu::kBlStatusBusy);
}

TEST(McuFaults, AVerifyMismatchAtOneAddressFailsOnlyItsPage) {
    VirtualMcu mcu;
    const auto image = BuildMcuImage({});
    InBootloader(mcu);
    ASSERT_TRUE(ProgramImage(mcu, image, false));
    mcu.Faults().verifyMismatchAddress = 0x1000 + 3 * 128 + 17;
    for (uint32_t n = 0; n < 6; ++n) {
        ASSERT_TRUE(WriteBytes(mcu, BlPageCommand('v', 0x1000 + 128 * n, &image[128 * n])));
        EXPECT_EQ(WaitBusy(mcu), n != 3) << "page " << n;
    }
}

TEST(McuFaults, NackInTheBootloader) {
    VirtualMcu mcu;
    InBootloader(mcu);
    mcu.Faults().nackRegister = 0xE1;
    EXPECT_FALSE(ReadReg(mcu, 0xE1).has_value());
    EXPECT_TRUE(ReadReg(mcu, 0xFD).has_value());
    mcu.Faults().nackRegister = 0xE2;
    EXPECT_FALSE(WriteBytes(mcu, BlRangeCommand('e', 1)));
}

}  // namespace
}  // namespace VideoConsoleCore::virtualdev
