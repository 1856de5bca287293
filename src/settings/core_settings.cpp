// The core's own settings table: filled once by initialisation from the file
// given to KORVSDK_Init, looked up again at each use.
//
// After initialisation the table is only ever read. Worker threads (the
// updaters, the lights) look keys up while the caller's thread may too, so a
// lookup never inserts: an absent key simply reads as "".
#include "core/VideoConsoleCoreImp.h"
#include "settings/settings_file.h"

namespace VideoConsoleCore {

void VideoConsoleCoreImp::ReadSettings() {
    if (!ReadSettingsFile(m_settingsPath, m_settings)) {
        m_settingsPath = "setting.cfg";
        ReadSettingsFile(m_settingsPath, m_settings);  // a missing file leaves the table empty
    }
}

std::string VideoConsoleCoreImp::Setting(const std::string& key) const {
    const auto found = m_settings.find(key);
    return found == m_settings.end() ? std::string() : found->second;
}

std::optional<int> VideoConsoleCoreImp::IntegerSetting(const std::string& key, int base) const {
    const auto found = m_settings.find(key);
    if (found == m_settings.end() || found->second.empty()) return std::nullopt;
    return ParseIntegerSetting(found->second, base);
}

void VideoConsoleCoreImp::ApplyBurnAreaSetting() {
    // USB_Burn_Area picks what a USB firmware update writes. 1: the firmware
    // area; 2: firmware and customized; 3: firmware and private; 4: all
    // three; 0, nothing, or anything else: the whole flash image. The item
    // flags are only ever set here, never cleared, so a value that falls
    // back to the whole image keeps the items an earlier start chose.
    m_doAreaOther = true;
    m_doAreaEntire = false;
    m_chkFirmware = true;
    switch (IntegerSetting("USB_Burn_Area", 0).value_or(0)) {
        case 1:
            break;
        case 2:
            m_chkCustomized = true;
            break;
        case 3:
            m_chkPrivate = true;
            break;
        case 4:
            m_chkPrivate = true;
            m_chkCustomized = true;
            break;
        default:
            m_doAreaEntire = true;
            m_doAreaOther = false;
            break;
    }
}

}  // namespace VideoConsoleCore
