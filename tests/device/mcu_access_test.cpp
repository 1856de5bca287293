// The microcontroller behind the bridge: registers, its I2C master, the
// presence probes, the way into its bootloader, the boot-mode answer and
// the parameter save, on a selected virtual device.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "device/mcu_access.h"
#include "support/virtual_session.h"

using korvsdk_test::MessageLog;
using korvsdk_test::StateRecords;
using korvsdk_test::VirtualSession;
using namespace VideoConsoleCore;

namespace {

class Mcu : public VirtualSession {
protected:
    void SetUp() override {
        VirtualSession::SetUp();
        Start();
    }
    virtualdev::VirtualMcuFaults& Faults() { return Device().Mcu(0).Faults(); }
    std::string LastState() const {
        return StateRecords().empty() ? "" : StateRecords().back().message;
    }
};

}  // namespace

TEST_F(Mcu, RegistersReadBackWhatWasWritten) {
    ASSERT_EQ(WriteMcuRegister(core_, 0x10, 42), 1u);
    uint8_t value = 0;
    ASSERT_EQ(ReadMcuRegister(core_, 0x10, &value), 1u);
    EXPECT_EQ(value, 42);
    // A register the microcontroller does not take is a failed transfer.
    EXPECT_EQ(WriteMcuRegister(core_, 0x13, 1), 0u);
    Faults().nackRegister = 0x10;
    EXPECT_EQ(ReadMcuRegister(core_, 0x10, &value), 0u);
}

TEST_F(Mcu, BridgeReachesTheCodecBehindTheMicrocontroller) {
    // Board variant 0: the codec on bus 1 at 0x34 with its ID at 0xFE.
    uint8_t id[2] = {};
    ASSERT_TRUE(BridgeI2cRead(core_, 1, 0x34, 0xFE, 1, id, 2));
    EXPECT_EQ(id[0], 0x10);
    EXPECT_EQ(id[1], 0xEC);

    const uint8_t gain[2] = {0x5A, 0xA5};
    ASSERT_TRUE(BridgeI2cWrite(core_, 1, 0x34, 0x20, 1, gain, 2));
    uint8_t back[2] = {};
    ASSERT_TRUE(BridgeI2cRead(core_, 1, 0x34, 0x20, 1, back, 2));
    EXPECT_EQ(back[0], 0x5A);
    EXPECT_EQ(back[1], 0xA5);
}

// Slow: ten polls, 100 ms apart.
TEST_F(Mcu, BridgeThatNeverFinishesGivesUpAfterTenPolls) {
    Faults().bridgeNeverCompletes = true;
    uint8_t out[2] = {0xEE, 0xEE};
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(BridgeI2cRead(core_, 1, 0x34, 0xFE, 1, out, 2));
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - start)
                        .count();
    EXPECT_GE(ms, 900);
    EXPECT_LT(ms, 1500);
    EXPECT_EQ(out[0], 0xEE) << "nothing is copied out of a failed read";
}

TEST_F(Mcu, PresenceProbesAnswerInOrder) {
    ASSERT_TRUE(core_.CheckMcuOnBoard());
    EXPECT_EQ(LastState(), "[Check_MCU] 0xA0:true");

    Faults().nackRegister = 0xA0;
    ASSERT_TRUE(core_.CheckMcuOnBoard());
    EXPECT_EQ(LastState(), "[Check_MCU] 0xA0:false, 0xA1:true");

    Faults().nackAll = true;
    EXPECT_FALSE(core_.CheckMcuOnBoard());
    EXPECT_EQ(LastState(), "[Check_MCU] 0xA0:false, 0xA1:false, 0xFD:false");

    // Other callers probe silently.
    const size_t records = StateRecords().size();
    EXPECT_FALSE(CheckMcu(core_));
    EXPECT_EQ(StateRecords().size(), records);
}

TEST_F(Mcu, BootloaderAloneStillCountsAsPresent) {
    ASSERT_TRUE(core_.EnterBootMode());
    EXPECT_TRUE(Said("M0_Enter_Boot_Mode\n"));
    EXPECT_EQ(Device().Mcu(0).Mode(), virtualdev::McuMode::Bootloader);
    EXPECT_EQ(core_.m_boardVariant, 0xFF);
    EXPECT_EQ(core_.CheckBootMode(), 1);
    // The bootloader answers 0xFF at 0xA0 and 0xA1, and its version at 0xFD.
    ASSERT_TRUE(core_.CheckMcuOnBoard());
    EXPECT_EQ(LastState(), "[Check_MCU] 0xA0:false, 0xA1:false, 0xFD:true");
}

TEST_F(Mcu, BootModeAnswer) {
    EXPECT_EQ(core_.CheckBootMode(), 0);  // the application runs
    core_.m_settings["Check_boot_mode"] = "0";
    EXPECT_EQ(core_.CheckBootMode(), 1);
    Faults().nackRegister = mcu_reg::kWorkMode;
    EXPECT_EQ(core_.CheckBootMode(), 0);
}

TEST_F(Mcu, NoBootModeWithoutMicrocontroller) {
    Faults().nackAll = true;
    EXPECT_FALSE(core_.EnterBootMode());
    EXPECT_EQ(LastState(), "[MCU_Info] ERROR: No MCU detected");
    EXPECT_EQ(Device().Mcu(0).Mode(), virtualdev::McuMode::Application);
}

TEST_F(Mcu, SaveReportsEachEndStatus) {
    ASSERT_TRUE(core_.SaveParameters());
    EXPECT_EQ(MessageLog::All(), "Save Parameters Complete!");
    EXPECT_TRUE(Device().Mcu(0).HasSavedParameters());

    const struct {
        uint8_t status;
        const char* text;
    } failures[] = {{0x10, "Save Parameters Erase Error!"},
                    {0x20, "Save Parameters Write Error!"},
                    {0x40, "Save Parameters Error!"},
                    {0x06, "Save Parameters Unknown Error!"}};
    for (const auto& f : failures) {
        Faults().saveResult = f.status;
        MessageLog::Clear();
        EXPECT_FALSE(core_.SaveParameters()) << f.text;
        EXPECT_EQ(MessageLog::All(), f.text);
    }

    Faults().nackRegister = mcu_reg::kSave;
    MessageLog::Clear();
    EXPECT_FALSE(core_.SaveParameters());
    EXPECT_EQ(MessageLog::All(), "Iic Access Fail!");

    core_.m_deviceState = kDeviceStateUpdating;
    MessageLog::Clear();
    EXPECT_FALSE(core_.SaveParameters());
    EXPECT_EQ(MessageLog::All(), std::string(kRefuseSaveParameters));
}

namespace {
class McuTiming : public VirtualSession {};
}  // namespace

// Slow: 300 looks at the work mode, 10 ms apart.
TEST_F(McuTiming, WorkModeStuckBetweenTheTwoTimesOut) {
    // The jump to the bootloader takes far longer than the library waits:
    // the work mode reads 2 all along.
    Start("Virtual0_McuBootJumpMs=60000\n");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(EnterMcuBootloader(core_), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_EQ(MessageLog::All(), "set boot mode time out!\n");
}

TEST_F(McuTiming, SaveBusyThenComplete) {
    // Busy at the first look (100 ms after the command), done at the second.
    Start("Virtual0_McuSaveMs=150\n");
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(core_.SaveParameters());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    EXPECT_EQ(MessageLog::All(), "Save Parameters Complete!");
    EXPECT_TRUE(Device().Mcu(0).HasSavedParameters());
}
