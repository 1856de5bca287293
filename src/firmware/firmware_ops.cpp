// The caller's light controls.
#include <string>

#include "core/VideoConsoleCoreImp.h"
#include "firmware/lights.h"

namespace VideoConsoleCore {


bool VideoConsoleCoreImp::SetGpioLed(uint8_t value) {
    if (!RequireDevice()) return false;
    if (!firmware::HasGpioLed(m_deviceModel)) {
        DebugOut("[Set_GPIO_LED] No valid device found.\n");
        NotifyDeviceState("[Set_GPIO_LED] Not valid device");
        return false;
    }
    if (value < 0x80 || value > 0x83) {
        Report("input Set_GPIO_LED value is wrong!\n");
        return false;
    }
    return firmware::WriteLedPattern(*this, value);
}

bool VideoConsoleCoreImp::SetUpdateGpioLedLights(uint8_t phase, uint8_t value, uint16_t period) {
    if (!RequireDevice()) return false;
    // 0 keeps the pattern steady; a blink is at least 100 ms and at most
    // 3.2 s long.
    if (period > 3200) period = 3200;
    if (period > 0 && period < 100) period = 100;
    const auto noDevice = [this] {
        DebugOut("[Set_Update_GPIO_LED_Lights] No valid device found.\n");
        NotifyDeviceState("[Set_Update_GPIO_LED_Lights] Not valid device");
        return false;
    };
    if (!firmware::HasGpioLed(m_deviceModel)) return noDevice();
    if (value < 0x80 || value > 0x83) {
        Report("[Set_Update_GPIO_LED_Lights] No valid input value\n");
        NotifyDeviceState("[Set_Update_GPIO_LED_Lights] No valid input value");
        return false;
    }
    // A phase the device does not know is answered like a device without
    // the LED.
    if (phase > 2) return noDevice();
    m_ledPattern[phase] = value;
    m_ledPeriod[phase] = period;
    m_patternWrittenOnce = 0;
    return true;
}

}  // namespace VideoConsoleCore
