// The microcontroller behind the bridge: the presence probes, the way into
// its bootloader, the boot-mode answer and each end of the parameter save,
// with their exact texts, on a selected virtual device.
#include <gtest/gtest.h>

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

TEST_F(Mcu, PresenceProbeSaysItsAnswerOthersProbeSilently) {
    ASSERT_TRUE(core_.CheckMcuOnBoard());
    EXPECT_EQ(LastState(), "[Check_MCU] 0xA0:true");

    // Other callers probe silently.
    Faults().nackAll = true;
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

TEST_F(Mcu, SaveReportsEachEndStatus) {
    ASSERT_TRUE(core_.SaveParameters());
    EXPECT_EQ(MessageLog::All(), "Save Parameters Complete!");
    EXPECT_TRUE(Device().Mcu(0).HasSavedParameters());

    const struct {
        uint8_t status;
        const char* text;
    } failures[] = {{0x10, "Save Parameters Erase Error!"},
                    {0x40, "Save Parameters Error!"},
                    {0x06, "Save Parameters Unknown Error!"}};
    for (const auto& f : failures) {
        Faults().saveResult = f.status;
        MessageLog::Clear();
        EXPECT_FALSE(core_.SaveParameters()) << f.text;
        EXPECT_EQ(MessageLog::All(), f.text);
    }

    core_.m_deviceState = kDeviceStateUpdating;
    MessageLog::Clear();
    EXPECT_FALSE(core_.SaveParameters());
    EXPECT_EQ(MessageLog::All(), std::string(kRefuseSaveParameters));
}
