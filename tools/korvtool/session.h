// One run's use of the library: initialisation with a settings file, the
// device scan and selection, and what the library says on the way. The
// library reports its reasons only as texts (the debugger output and the
// device-state callback); the session collects them per call, shows the
// debugger texts on standard error with --verbose, and lends them to error
// lines.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KORVSDKDeviceTool.h"
#include "choices.h"
#include "device_lock.h"

namespace korvtool {

struct SettingsSource {
    std::optional<std::string> configPath;  // --config
    bool useVirtual = false;                // --virtual
    // "Key=Value" lines that replace those keys for this run only.
    std::vector<std::string> overrides;
    // "Key=Value" lines for keys the settings leave unset (absent, or only
    // with an empty value, which the library ignores), for this run only.
    std::vector<std::string> defaults;
};

class Session {
public:
    explicit Session(bool verbose);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Initialises the library. Throws a UsageError when no settings file can
    // be found, a Failure when the library refuses.
    void Open(const SettingsSource& source);

    // Scans for devices; the list stays valid until the next scan.
    const std::vector<DeviceInfo>& Scan();

    // Scans, picks the device that `choice` names (see ChooseDevice) and
    // selects it. Returns its index in the scan.
    size_t Select(const std::optional<std::string>& choice);

    const std::vector<DeviceInfo>& Devices() const { return devices_; }
    // The settings file as named in hints: its path, or the built-in ones.
    const std::string& SettingsName() const { return settingsName_; }

    // The value of a key in the settings the library was given, read as the
    // library reads it: the last line with a value counts; an empty value
    // counts as none.
    std::optional<std::string> Setting(const std::string& key) const;

    // With --verbose, the library's texts go to `printer` (one line each)
    // instead of straight to standard error; empty restores that. They may
    // come from the library's threads.
    void SetLinePrinter(std::function<void(const std::string&)> printer);

    // Starts a fresh record of what the library says: the texts of the call
    // that follows.
    void BeginCall();
    // Messages posted to the device-state callback since BeginCall.
    const std::vector<std::string>& Messages() const;
    // What the library said since BeginCall, for an error line: its posted
    // messages, else its last debugger text; empty when it said nothing.
    std::string LastWords() const;
    // Whether a debugger text since BeginCall contains `words`.
    bool Said(const std::string& words) const;
    // The running USB firmware version of the last version record since
    // BeginCall (KORVSDK_Get_USB_FW_Ver posts it); empty when none came.
    std::string RunningUsbVersion() const;

private:
    // Holds the device for this run (see DeviceLock); throws a Failure when
    // another korvtool holds it.
    void LockDevice(const DeviceInfo& device);

    std::unique_ptr<DeviceLock> lock_;
    std::string lockKey_;
    std::string settingsName_;  // how the settings are named in hints
    std::string settingsText_;  // what the library was given
    DeviceEntry* list_ = nullptr;
    uint16_t count_ = 0;
    std::vector<DeviceInfo> devices_;
};

// A text from one of the library's string getters, released.
std::string TakeText(char* text);

// " (the library says: WORDS)" for a non-empty text, else "".
std::string Quote(const std::string& words);

}  // namespace korvtool
