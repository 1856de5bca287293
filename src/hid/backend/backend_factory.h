// Chooses the HidBackend that the library talks through, from the
// DeviceBackend key of setting.cfg:
//   (absent)  the platform's own backend: hid.dll on Windows, hidraw on Linux
//   virtual   the virtual capture devices, shaped by the Virtual* keys and
//             plugged in as VirtualPresenceFile says (see presence_file.h)
#pragma once

#include <memory>
#include <string>

#include "hid/backend/hid_backend.h"
#include "settings/settings_file.h"

namespace VideoConsoleCore::hid {

// Never null: an unknown or unavailable choice falls back to the platform's
// backend, and `note` then says so (it stays empty otherwise). `settings`
// is the core's settings table, which the virtual backend reads its devices
// from.
std::unique_ptr<HidBackend> CreateHidBackend(const std::string& choice,
                                             const SettingsTable& settings, std::string& note);

}  // namespace VideoConsoleCore::hid
