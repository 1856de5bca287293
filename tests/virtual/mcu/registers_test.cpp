// The application's register map as the library reaches it: version and
// detection registers, the audio controls with their separate write and
// read registers, status registers, the parameter save and the LED.
#include <gtest/gtest.h>

#include "virtual/mcu/mcu_test_helpers.h"

namespace VideoConsoleCore::virtualdev {
namespace {

using testing::ReadReg;
using testing::ReadRegs;
using testing::SaveParameters;
using testing::WriteBytes;
using testing::WriteReg;

TEST(McuVersionRegisters, ReportTheIdentityOfTheRunningImage) {
    VirtualMcuConfig config;
    config.deviceType = 0x0B;
    config.firmwareVersion = 0x21;
    config.boardVariant = 0x02;
    config.configBytes = {0x04, 0x05, 0x06};
    VirtualMcu mcu(config);
    EXPECT_EQ(ReadReg(mcu, 0xA0), 0x0B);
    EXPECT_EQ(ReadReg(mcu, 0xA1), 0x21);
    // The library reads four bytes from 0xA2: variant, then the configuration bytes.
    EXPECT_EQ(ReadRegs(mcu, 0xA2, 4), (std::vector<uint8_t>{0x02, 0x04, 0x05, 0x06}));
    EXPECT_EQ(ReadReg(mcu, 0xE0), 0x01);
    EXPECT_EQ(mcu.Mode(), McuMode::Application);
}

TEST(McuVersionRegisters, DetectionProbesAnswerBelow0xFFInTheApplication) {
    VirtualMcuConfig config;
    config.bootloaderVersion = 0x07;
    VirtualMcu mcu(config);
    EXPECT_LT(*ReadReg(mcu, 0xA0), 0xFF);
    EXPECT_LT(*ReadReg(mcu, 0xA1), 0xFF);
    EXPECT_EQ(ReadReg(mcu, 0xFD), 0x07);
}

TEST(McuVersionRegisters, ABlankMicrocontrollerAnswersOnlyTheBootloaderVersion) {
    VirtualMcuConfig config;
    config.programMemoryErased = true;
    config.bootloaderVersion = 0x05;
    VirtualMcu mcu(config);
    EXPECT_EQ(mcu.Mode(), McuMode::Bootloader);
    EXPECT_EQ(ReadReg(mcu, 0xA0), 0xFF);
    EXPECT_EQ(ReadReg(mcu, 0xA1), 0xFF);
    EXPECT_EQ(ReadReg(mcu, 0xFD), 0x05);
    EXPECT_EQ(ReadReg(mcu, 0xE0), 0x00);
}

TEST(McuAudio, AnyNonZeroMuteValueMutes) {
    VirtualMcu mcu;
    ASSERT_TRUE(WriteReg(mcu, 0x19, 0x80));
    EXPECT_EQ(ReadReg(mcu, 0x14), 0x01);
}

TEST(McuAudio, VolumesAreReadWhereTheyAreWrittenAndClampedAt100) {
    VirtualMcu mcu;
    ASSERT_TRUE(WriteReg(mcu, 0x10, 33));
    ASSERT_TRUE(WriteReg(mcu, 0x11, 0));
    ASSERT_TRUE(WriteReg(mcu, 0x12, 250));
    EXPECT_EQ(ReadReg(mcu, 0x10), 33);
    EXPECT_EQ(ReadReg(mcu, 0x11), 0);
    EXPECT_EQ(ReadReg(mcu, 0x12), 100);
    ASSERT_TRUE(WriteReg(mcu, 0x12, 100));
    EXPECT_EQ(ReadReg(mcu, 0x12), 100);
}

TEST(McuAudio, InitialValuesComeFromTheConfiguration) {
    VirtualMcuConfig config;
    config.hpOutVolume = 11;
    config.micInVolume = 22;
    config.auxInVolume = 33;
    config.micInMute = 1;
    VirtualMcu mcu(config);
    EXPECT_EQ(ReadRegs(mcu, 0x10, 6), (std::vector<uint8_t>{11, 22, 33, 0, 1, 0}));
}

TEST(McuRegisters, UnknownRegistersReadFFAndRefuseWrites) {
    VirtualMcu mcu;
    EXPECT_EQ(ReadReg(mcu, 0x50), 0xFF);
    EXPECT_FALSE(WriteReg(mcu, 0x50, 0x00));
    EXPECT_FALSE(WriteReg(mcu, 0xA0, 0x01));  // the version is the image's
    EXPECT_EQ(ReadReg(mcu, 0xA0), 0x0D);
}

TEST(McuRegisters, APointerWriteSelectsTheRegisterOfAPlainRead) {
    VirtualMcu mcu;
    ASSERT_TRUE(WriteReg(mcu, 0x11, 44));
    const uint8_t reg = 0x11;
    ASSERT_TRUE(mcu.Write(&reg, 1));
    uint8_t value = 0;
    ASSERT_TRUE(mcu.Read(nullptr, 0, &value, 1));
    EXPECT_EQ(value, 44);
    // Register numbers are one byte: a two-byte address is not acknowledged.
    const uint8_t wide[2] = {0x00, 0x11};
    EXPECT_FALSE(mcu.Read(wide, 2, &value, 1));
}

TEST(McuRegisters, ConsecutiveWritesAdvanceTheRegister) {
    VirtualMcu mcu;
    ASSERT_TRUE(WriteBytes(mcu, {0x10, 5, 6, 7}));
    EXPECT_EQ(ReadRegs(mcu, 0x10, 3), (std::vector<uint8_t>{5, 6, 7}));
    // A run that reaches a read-only register stops there, not acknowledged.
    EXPECT_FALSE(WriteBytes(mcu, {0x12, 9, 1}));
    EXPECT_EQ(ReadReg(mcu, 0x12), 9);
}

TEST(McuRegisters, HdcpSettingIsReadWrite) {
    VirtualMcu mcu;
    EXPECT_EQ(ReadReg(mcu, 0x0E), 1);
    ASSERT_TRUE(WriteReg(mcu, 0x0E, 0));
    EXPECT_EQ(ReadReg(mcu, 0x0E), 0);
}

TEST(McuLed, PatternRegisterTakesOnlyTheFourPatterns) {
    VirtualMcu mcu;
    EXPECT_EQ(ReadReg(mcu, 0xC8), 0x80);
    ASSERT_TRUE(WriteReg(mcu, 0xC8, 0x83));
    EXPECT_EQ(ReadReg(mcu, 0xC8), 0x83);
    EXPECT_EQ(mcu.LedPattern(), 0x83);
    EXPECT_FALSE(WriteReg(mcu, 0xC8, 0x84));
    EXPECT_FALSE(WriteReg(mcu, 0xC8, 0x7F));
    EXPECT_EQ(ReadReg(mcu, 0xC8), 0x83);
    // The library's pattern read: write 0xC8, read one byte after the status.
    ASSERT_TRUE(WriteReg(mcu, 0xC8, 0x81));
    EXPECT_EQ(ReadReg(mcu, 0xC8), 0x81);
}

TEST(McuSave, ReportsBusyUntilItsTimeHasPassed) {
    VirtualMcuConfig config;
    config.timings.saveMs = 250;
    VirtualMcu mcu(config);
    ASSERT_TRUE(WriteReg(mcu, 0xBC, 0x01));
    EXPECT_EQ(ReadReg(mcu, 0xBC), 0x01);
    mcu.Advance(249);
    EXPECT_EQ(ReadReg(mcu, 0xBC), 0x01);
    EXPECT_FALSE(mcu.HasSavedParameters());
    EXPECT_FALSE(WriteReg(mcu, 0xBC, 0x01));  // one save at a time
    mcu.Advance(1);
    EXPECT_EQ(ReadReg(mcu, 0xBC), 0x00);
    EXPECT_TRUE(mcu.HasSavedParameters());
}

TEST(McuSave, SavedParametersSurviveAPowerCycle) {
    VirtualMcu mcu;
    ASSERT_TRUE(WriteReg(mcu, 0x10, 12));
    ASSERT_TRUE(WriteReg(mcu, 0x18, 1));
    ASSERT_TRUE(WriteReg(mcu, 0x0E, 0));
    ASSERT_EQ(SaveParameters(mcu), 0x00);
    ASSERT_TRUE(WriteReg(mcu, 0x10, 90));  // changed after the save: lost
    mcu.PowerCycle();
    EXPECT_EQ(ReadReg(mcu, 0x10), 12);
    EXPECT_EQ(ReadReg(mcu, 0x13), 1);
    EXPECT_EQ(ReadReg(mcu, 0x0E), 0);
    EXPECT_EQ(ReadReg(mcu, 0xC6), 0x01);
}

TEST(McuSave, UnsavedChangesAreLostOnAPowerCycle) {
    VirtualMcu mcu;
    ASSERT_TRUE(WriteReg(mcu, 0x11, 3));
    mcu.PowerCycle();
    EXPECT_EQ(ReadReg(mcu, 0x11), VirtualMcuConfig{}.micInVolume);
    EXPECT_EQ(ReadReg(mcu, 0xC6), 0x00);
}

TEST(McuSave, InjectedErrorsEndTheSequenceAndKeepNothing) {
    for (uint8_t error : {uint8_t(0x10), uint8_t(0x20), uint8_t(0x40), uint8_t(0x08)}) {
        VirtualMcuConfig config;
        config.timings.saveMs = 100;
        VirtualMcu mcu(config);
        mcu.Faults().saveResult = error;
        ASSERT_TRUE(WriteReg(mcu, 0xBC, 0x01));
        EXPECT_EQ(ReadReg(mcu, 0xBC), 0x01);  // busy first, the error at the end
        mcu.Advance(100);
        EXPECT_EQ(ReadReg(mcu, 0xBC), error);
        EXPECT_FALSE(mcu.HasSavedParameters());
    }
}

TEST(McuSave, MalformedSaveCommandsAreRefused) {
    VirtualMcu mcu;
    EXPECT_FALSE(WriteReg(mcu, 0xBC, 0x03));
    EXPECT_FALSE(WriteBytes(mcu, {0xBC, 0x01, 0x00}));
    EXPECT_FALSE(WriteBytes(mcu, {0xBC, 0x02, 0, 0, 0, 0, 1, 2}));  // LED block too short
    EXPECT_FALSE(mcu.HasSavedParameters());
}

TEST(McuSave, LedParameterBlockIsSavedWithItsOwnBusyBit) {
    VirtualMcuConfig config;
    config.timings.saveMs = 100;
    VirtualMcu mcu(config);
    std::vector<uint8_t> frame{0xBC, 0x02, 0, 0, 0, 0};
    for (int i = 0; i < 80; ++i) frame.push_back(uint8_t(i * 3));
    ASSERT_TRUE(WriteBytes(mcu, frame));
    EXPECT_EQ(ReadReg(mcu, 0xBC), 0x02);
    mcu.Advance(100);
    EXPECT_EQ(ReadReg(mcu, 0xBC), 0x00);
    ASSERT_TRUE(mcu.SavedLedParameters().has_value());
    EXPECT_TRUE(std::equal(frame.begin() + 6, frame.end(), mcu.SavedLedParameters()->begin()));
    EXPECT_FALSE(mcu.HasSavedParameters());  // the audio block is another
}

TEST(McuFaults, NackAtAChosenRegisterOnly) {
    VirtualMcu mcu;
    mcu.Faults().nackRegister = 0xA1;
    EXPECT_FALSE(ReadReg(mcu, 0xA1).has_value());
    EXPECT_FALSE(WriteReg(mcu, 0xA1, 0));
    EXPECT_TRUE(ReadReg(mcu, 0xA0).has_value());
    EXPECT_TRUE(WriteReg(mcu, 0x10, 1));
    // The read's output stays untouched on a NACK.
    uint8_t reg = 0xA1, value = 0x5A;
    EXPECT_FALSE(mcu.Read(&reg, 1, &value, 1));
    EXPECT_EQ(value, 0x5A);
    mcu.Faults().nackRegister.reset();
    EXPECT_EQ(ReadReg(mcu, 0xA1), 0x17);
}

TEST(McuFaults, AnAbsentMicrocontrollerAnswersNothing) {
    VirtualMcu mcu;
    mcu.Faults().nackAll = true;
    for (uint8_t reg : {0xA0, 0xA1, 0xFD}) EXPECT_FALSE(ReadReg(mcu, reg).has_value());
    EXPECT_FALSE(WriteReg(mcu, 0xC8, 0x80));
}

}  // namespace
}  // namespace VideoConsoleCore::virtualdev
