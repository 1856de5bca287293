// The update lights on the virtual board, watched at the microcontroller's
// LED register and at the RGB light chip: what the caller's controls write,
// the finish-light threads, the RGB programming of models 6 and 8, and the
// LED parameter save.
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <thread>
#include <vector>

#include "firmware/lights.h"
#include "support/virtual_session.h"

using namespace VideoConsoleCore;
using korvsdk_test::MessageLog;
using korvsdk_test::StateRecords;
using Clock = std::chrono::steady_clock;

namespace {

class Lights : public korvsdk_test::VirtualSession {
protected:
    virtualdev::VirtualMcu& Mcu() { return Device().Mcu(0); }
    std::vector<virtualdev::VirtualMcu::LedWrite> WritesSince(size_t from) {
        const auto& all = Mcu().LedTimeline();
        return {all.begin() + static_cast<std::ptrdiff_t>(from), all.end()};
    }
};

// Toggles: pattern on even counts, dark on odd ones, starting with the
// pattern.
void ExpectAlternating(const std::vector<virtualdev::VirtualMcu::LedWrite>& writes,
                       uint8_t pattern) {
    for (size_t i = 0; i < writes.size(); ++i)
        EXPECT_EQ(writes[i].pattern, i % 2 == 0 ? pattern : firmware::kLedDark) << i;
}

}  // namespace

TEST_F(Lights, CallerControlsOnAGpioLedBoard) {
    ASSERT_NO_FATAL_FAILURE(Start());
    struct Row {
        uint8_t value;
        bool ok;
        const char* said;
    };
    const Row rows[] = {{0x81, true, nullptr},
                        {0x83, true, nullptr},
                        {0x7F, false, "input Set_GPIO_LED value is wrong!\n"},
                        {0x84, false, "input Set_GPIO_LED value is wrong!\n"}};
    for (const Row& row : rows) {
        MessageLog::Clear();
        const uint8_t before = Mcu().LedPattern();
        EXPECT_EQ(core_.SetGpioLed(row.value), row.ok) << int(row.value);
        EXPECT_EQ(Mcu().LedPattern(), row.ok ? row.value : before);
        if (row.said) {
            EXPECT_EQ(MessageLog::Count(row.said), 1) << MessageLog::All();
        }
    }
    uint8_t shown = 0;
    ASSERT_TRUE(firmware::ReadLedPattern(core_, shown));
    EXPECT_EQ(shown, 0x83);

    // Phase settings: the period is clamped; a bad value or phase is said.
    struct Phase {
        uint8_t phase, value;
        uint16_t period, stored;
        bool ok;
        const char* said;
    };
    const Phase phases[] = {
        {0, 0x81, 50, 100, true, nullptr},   {1, 0x80, 5000, 3200, true, nullptr},
        {2, 0x82, 0, 0, true, nullptr},      {0, 0x82, 1, 100, true, nullptr},
        {1, 0x80, 3200, 3200, true, nullptr},
        {0, 0x84, 200, 0, false, "[Set_Update_GPIO_LED_Lights] No valid input value\n"},
        {3, 0x80, 200, 0, false, "[Set_Update_GPIO_LED_Lights] No valid device found.\n"},
    };
    for (const Phase& p : phases) {
        MessageLog::Clear();
        StateRecords().clear();
        EXPECT_EQ(core_.SetUpdateGpioLedLights(p.phase, p.value, p.period), p.ok) << int(p.phase);
        if (p.ok) {
            EXPECT_EQ(core_.m_ledPattern[p.phase], p.value);
            EXPECT_EQ(core_.m_ledPeriod[p.phase], p.stored) << p.period;
        } else {
            EXPECT_EQ(MessageLog::Count(p.said), 1) << MessageLog::All();
            ASSERT_EQ(StateRecords().size(), 1u);
            EXPECT_EQ(StateRecords()[0].message,
                      p.phase == 3 ? "[Set_Update_GPIO_LED_Lights] Not valid device"
                                   : "[Set_Update_GPIO_LED_Lights] No valid input value");
        }
    }
}

TEST_F(Lights, BoardsWithoutGpioLedRefuse) {
    ASSERT_NO_FATAL_FAILURE(Start("Virtual0_ModelCode=6\n"));
    EXPECT_FALSE(core_.SetGpioLed(0x80));
    EXPECT_FALSE(core_.SetUpdateGpioLedLights(0, 0x80, 100));
    EXPECT_EQ(MessageLog::Count("[Set_GPIO_LED] No valid device found.\n"), 1);
    EXPECT_EQ(MessageLog::Count("[Set_Update_GPIO_LED_Lights] No valid device found.\n"), 1);
    ASSERT_EQ(StateRecords().size(), 2u);
    EXPECT_EQ(StateRecords()[0].message, "[Set_GPIO_LED] Not valid device");
    EXPECT_TRUE(Mcu().LedTimeline().empty());
}

// The finish lights blink the outcome's phase until the next update start,
// then say that they end; a steady phase is written once and ends at once.
TEST_F(Lights, FinishLightsRunUntilTheNextUpdateStarts) {
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_TRUE(core_.SetUpdateGpioLedLights(1, 0x80, 100));
    ASSERT_TRUE(core_.SetUpdateGpioLedLights(2, 0x82, 0));
    for (const bool success : {true, false}) {
        const size_t from = Mcu().LedTimeline().size();
        MessageLog::Clear();
        core_.m_updateFinished = true;
        firmware::StartFinishLights(core_, success);
        std::this_thread::sleep_for(std::chrono::milliseconds(1000));
        firmware::EndFinishLights(core_);
        firmware::StopLightThreads(core_);
        const auto writes = WritesSince(from);
        if (success) {
            EXPECT_GE(writes.size(), 9u);
            EXPECT_LE(writes.size(), 11u);
            ExpectAlternating(writes, 0x80);
        } else {
            ASSERT_EQ(writes.size(), 1u);  // steady: written once
            EXPECT_EQ(writes[0].pattern, 0x82);
        }
        EXPECT_EQ(MessageLog::Count("Call Exit_UpdateFinish_Lights_Thread_0.\n"), 1);
        EXPECT_EQ(MessageLog::Count("Call Exit_UpdateFinish_Lights_Thread_1.\n"), 1);
    }
}

// Models 6 and 8: six writes to the RGB light chip through the
// microcontroller, byte for byte, 500 ms and then 10 ms apart.
TEST_F(Lights, RgbPhaseProgrammedByteForByte) {
    ASSERT_NO_FATAL_FAILURE(Start("Virtual0_ModelCode=6\n"));
    virtualdev::VirtualRgbLight* light = Mcu().RgbLight();
    ASSERT_NE(light, nullptr);
    const auto started = Clock::now();
    ASSERT_TRUE(firmware::SetRgbPhase(core_, firmware::kPhaseFailed));
    EXPECT_GE(Clock::now() - started, std::chrono::milliseconds(550));

    const uint8_t* c = core_.m_rgbColour[firmware::kPhaseFailed];
    std::vector<uint8_t> colours = {0x03, 0x0F};
    for (int i = 0; i < 5; ++i) colours.insert(colours.end(), c, c + 3);
    const std::vector<std::vector<uint8_t>> expected = {
        {0x00, 0x81, 0x60}, colours, {0x00, 0x80, 0x21},
        {0x03, 0x01, core_.m_rgbMode[firmware::kPhaseFailed]}, {0x00, 0x80, 0x2F},
        {0x03, 0x01, 0x01}};
    EXPECT_EQ(light->Writes(), expected);
    // Failed is red, with mode byte 2 (see the design notes).
    EXPECT_EQ(std::vector<uint8_t>(light->Writes()[1].begin() + 2, light->Writes()[1].begin() + 5),
              (std::vector<uint8_t>{0xFF, 0x00, 0x00}));
    EXPECT_EQ(light->Writes()[3][2], 0x02);

    // A write the microcontroller refuses stops the sequence there.
    Mcu().Faults().nackRegister = 0xCD;
    const size_t before = light->Writes().size();
    EXPECT_FALSE(firmware::SetRgbPhase(core_, firmware::kPhaseSucceeded));
    EXPECT_EQ(light->Writes().size(), before);
}

TEST_F(Lights, LedParameterSaveSaysTheOutcome) {
    ASSERT_NO_FATAL_FAILURE(Start());
    uint8_t block[80];
    for (int i = 0; i < 80; ++i) block[i] = static_cast<uint8_t>(i);
    struct Row {
        std::optional<uint8_t> status;
        bool ok;
        const char* said;
    };
    const Row rows[] = {{std::nullopt, true, "Save Led Parameters Complete!"},
                        {0x10, false, "Save Led Parameters Erase Error!"},
                        {0x20, false, "Save Led Parameters Write Error!"},
                        {0x40, false, "Save Led Parameters Error!"},
                        {0x99, false, "Save Led Parameters Unknown Error!"}};
    for (const Row& row : rows) {
        MessageLog::Clear();
        Mcu().Faults().saveResult = row.status;
        EXPECT_EQ(firmware::SaveLedParameters(core_, block), row.ok);
        EXPECT_EQ(MessageLog::Count(row.said), 1) << MessageLog::All();
    }
    ASSERT_TRUE(Mcu().SavedLedParameters().has_value());
    EXPECT_EQ((*Mcu().SavedLedParameters())[79], 79);

    Mcu().Faults().nackAll = true;
    MessageLog::Clear();
    EXPECT_FALSE(firmware::SaveLedParameters(core_, block));
    EXPECT_EQ(MessageLog::Count("Iic Access Fail!"), 1);
}
