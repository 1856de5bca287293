// The sessions on the library's Linux backend: the library reads sysfs and
// talks to hidraw nodes exactly as on a real machine, and umockdev puts the
// virtual device model (living in this test program) behind them.
#include <memory>
#include <sstream>

#include "sessions/session_harness.h"
#include "sessions/umockdev/virtual_hidraw.h"
#include "settings/settings_file.h"
#include "virtual/device/virtual_device_config.h"
#include "virtual/device/virtual_hid_backend.h"

namespace korvsdk_test {

namespace {

// Both stay for the whole process, as a device stays plugged in; the
// devices go first, stopping umockdev's thread that calls the model.
struct Bench {
    std::unique_ptr<VideoConsoleCore::virtualdev::VirtualHidBackend> model;
    std::unique_ptr<VirtualHidrawDevices> devices;
};

Bench& TheBench() {
    static Bench bench;
    return bench;
}

}  // namespace

std::string PrepareSessionBackend(const std::string& deviceKeys) {
    VideoConsoleCore::SettingsTable keys;
    std::istringstream lines(deviceKeys);
    for (std::string line; std::getline(lines, line);) VideoConsoleCore::ParseSettingsLine(line, keys);

    Bench& bench = TheBench();
    bench.devices.reset();
    bench.model = std::make_unique<VideoConsoleCore::virtualdev::VirtualHidBackend>(
        VideoConsoleCore::virtualdev::ReadVirtualDeviceConfigs(keys));
    bench.devices = std::make_unique<VirtualHidrawDevices>(*bench.model);
    // No DeviceBackend key: the library takes the platform's own backend.
    // The device keys mean nothing to it; the session's other settings
    // (CheckAudioViaMCUI2C, ...) do.
    return deviceKeys;
}

const char* SessionBackendName() { return "linux-hidraw under umockdev"; }

}  // namespace korvsdk_test
