#include "hid/backend/backend_factory.h"

#include "virtual/device/virtual_device_config.h"
#include "virtual/device/virtual_hid_backend.h"

namespace VideoConsoleCore::hid {

std::unique_ptr<HidBackend> CreateHidBackend(const std::string& choice,
                                             const SettingsTable& settings, std::string& note) {
    note.clear();
    if (choice == "virtual") {
        const auto presence = settings.find("VirtualPresenceFile");
        return std::make_unique<virtualdev::VirtualHidBackend>(
            virtualdev::ReadVirtualDeviceConfigs(settings),
            presence == settings.end() ? std::string() : presence->second);
    }
    std::unique_ptr<HidBackend> backend = CreatePlatformHidBackend();
    if (!choice.empty()) {
        note = "DeviceBackend=" + choice + " is not available; using the " +
               std::string(backend->Name()) + " backend";
    }
    return backend;
}

}  // namespace VideoConsoleCore::hid
