// The parts of a command line that need the device list or a control's kind
// to be understood: which device --device names, and the value given to an
// audio control. Pure functions, so that they are tested without a device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace korvtool {

struct DeviceInfo {
    std::string description;
    std::string vid;
    std::string pid;
    std::string serial;
    std::string location;  // USB port path ("1-2.4"); "" when unknown
};

// Picks the device that `choice` (the --device value) names: a location
// (matched exactly), else a serial number (compared without regard to case),
// else an index into `devices`. Without a choice the only device is taken.
// Throws a Failure that says how to choose when the choice names nothing,
// or several devices leave it open (among them a serial that two devices
// share: the Failure then names their locations).
size_t ChooseDevice(const std::vector<DeviceInfo>& devices,
                    const std::optional<std::string>& choice);

enum class ControlKind { kVolume, kMute };

constexpr unsigned kVolumeMax = 100;

// The value for `control` given on the command line: a volume from 0 to
// kVolumeMax, a mute as on/off, 1/0, true/false or yes/no. Throws a
// UsageError naming the accepted values.
uint8_t ParseControlValue(const std::string& control, ControlKind kind, const std::string& text);

// A control's value as shown to the user: the number for a volume, on or off
// for a mute (on: muted).
std::string FormatControlValue(ControlKind kind, uint8_t value);

}  // namespace korvtool
