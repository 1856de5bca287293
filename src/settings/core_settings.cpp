// The core's own settings table: filled once by initialisation from the file
// given to KORVSDK_Init, looked up again at each use.
#include "core/VideoConsoleCoreImp.h"
#include "settings/settings_file.h"

namespace VideoConsoleCore {

void VideoConsoleCoreImp::ReadSettings() {
    if (!ReadSettingsFile(m_settingsPath, m_settings)) {
        m_settingsPath = "setting.cfg";
        ReadSettingsFile(m_settingsPath, m_settings);  // a missing file leaves the table empty
    }
}

std::string VideoConsoleCoreImp::Setting(const std::string& key) { return m_settings[key]; }

std::optional<int> VideoConsoleCoreImp::IntegerSetting(const std::string& key, int base) {
    const std::string& value = m_settings[key];
    if (value.empty()) return std::nullopt;
    return ParseIntegerSetting(value, base);
}

void VideoConsoleCoreImp::ApplyBurnAreaSetting() {
    // USB_Burn_Area picks the flash areas that a USB firmware update writes:
    // 1 = area 1, 2 = areas 1+2, 3 = areas 1+3, 4 = areas 1+2+3; anything
    // else, or nothing, writes the whole flash. Area flags are only ever set
    // here, never cleared.
    m_doAreaPartial = true;
    m_doAreaEntire = false;
    m_doArea[0] = true;
    const std::optional<int> area = IntegerSetting("USB_Burn_Area", 0);
    switch (area.value_or(0)) {
        case 1:
            break;
        case 2:
            m_doArea[1] = true;
            break;
        case 3:
            m_doArea[2] = true;
            break;
        case 4:
            m_doArea[1] = true;
            m_doArea[2] = true;
            break;
        default:
            m_doAreaEntire = true;
            m_doAreaPartial = false;
            break;
    }
}

}  // namespace VideoConsoleCore
