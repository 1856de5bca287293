#include "choices.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "errors.h"

namespace korvtool {

namespace {

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool AllDigits(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

// A whole number in `text`, or nothing when it is not one or does not fit.
std::optional<unsigned long long> WholeNumber(const std::string& text) {
    if (!AllDigits(text)) return std::nullopt;
    unsigned long long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

}  // namespace

size_t ChooseDevice(const std::vector<DeviceInfo>& devices,
                    const std::optional<std::string>& choice) {
    if (devices.empty()) throw Failure("no capture device found");
    const size_t count = devices.size();
    if (!choice) {
        if (count == 1) return 0;
        throw Failure(std::to_string(count) +
                      " devices found: choose one with --device INDEX, --device SERIAL or "
                      "--device LOCATION ('korvtool list' shows them)");
    }
    // A port names one device whatever it carries.
    for (size_t i = 0; i < count; ++i) {
        if (!devices[i].location.empty() && devices[i].location == *choice) return i;
    }
    // A serial number wins over an index, so that a serial made of digits
    // still names its device; units that share a serial are told apart by
    // their ports only.
    const std::string wanted = Lower(*choice);
    std::vector<size_t> matches;
    for (size_t i = 0; i < count; ++i) {
        if (!devices[i].serial.empty() && Lower(devices[i].serial) == wanted) matches.push_back(i);
    }
    if (matches.size() == 1) return matches[0];
    if (matches.size() > 1) {
        std::string places;
        for (size_t k = 0; k < matches.size(); ++k) {
            const DeviceInfo& device = devices[matches[k]];
            places += k == 0 ? "" : k + 1 == matches.size() ? " and " : ", ";
            places += device.location.empty() ? "index " + std::to_string(matches[k])
                                              : device.location;
        }
        throw Failure(std::to_string(matches.size()) + " devices have the serial number '" +
                      *choice + "', at " + places +
                      ": choose one by its location with --device LOCATION");
    }
    if (AllDigits(*choice)) {
        const std::optional<unsigned long long> index = WholeNumber(*choice);
        if (index && *index < count) return static_cast<size_t>(*index);
        const std::string range =
            count == 1 ? "it has index 0" : "they have indexes 0 to " + std::to_string(count - 1);
        throw Failure("there is no device " + *choice + ": " + std::to_string(count) +
                      (count == 1 ? " device was" : " devices were") + " found and " + range +
                      " ('korvtool list' shows them)");
    }
    throw Failure("no device has the serial number '" + *choice +
                  "': run 'korvtool list' to see the serial numbers");
}

uint8_t ParseControlValue(const std::string& control, ControlKind kind, const std::string& text) {
    if (kind == ControlKind::kMute) {
        const std::string word = Lower(text);
        if (word == "on" || word == "1" || word == "true" || word == "yes") return 1;
        if (word == "off" || word == "0" || word == "false" || word == "no") return 0;
        throw UsageError("'" + text + "' is not a value for " + control +
                         ": give on (muted) or off (also 1/0, true/false, yes/no)");
    }
    const std::optional<unsigned long long> value = WholeNumber(text);
    if (!value || *value > kVolumeMax) {
        throw UsageError("'" + text + "' is not a value for " + control +
                         ": give a whole number from 0 to " + std::to_string(kVolumeMax));
    }
    return static_cast<uint8_t>(*value);
}

std::string FormatControlValue(ControlKind kind, uint8_t value) {
    if (kind == ControlKind::kMute) return value != 0 ? "on" : "off";
    return std::to_string(value);
}

}  // namespace korvtool
