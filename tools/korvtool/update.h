// korvtool update usb|mcu FILE: the file check, the update with its
// progress, and the end, through the library's exported calls.
#pragma once

#include <optional>
#include <cstdint>
#include <string>
#include <vector>

#include "commands.h"
#include "progress.h"
#include "session.h"

namespace korvtool {

// The LED pattern and blink period (ms) an update shows in one phase:
// 0 updating, 1 succeeded, 2 failed.
struct LedPhase {
    uint8_t phase;
    uint8_t pattern;
    uint16_t period;
};

struct UpdateRequest {
    bool mcu = false;   // the microcontroller's program, else the bridge's flash
    std::string file;   // *.hex (USB) or *.bin (MCU)
    bool force = false; // FW_Overwrite=99 was set for this run
    std::string backupFile;  // USB: read the flash into this file first
    // Wait this long for the device to come back after the re-plug and
    // check the version it runs; none: ask for the re-plug and end.
    std::optional<int> waitReplugSeconds;
    std::vector<LedPhase> ledPhases;  // set on the device before the start
    // Add the update (and its backup) to the history; a station records
    // each unit once, with all its steps, instead.
    bool recordHistory = true;
};

// What the library's file check made of an image for the selected device.
struct ImageCheck {
    std::string fileVersion;  // the image's version, in korvtool's form
    std::string before;       // the version the device has, in the same form
    bool upToDate = false;    // the device already runs the image's version
};

// Selects the chosen device and runs the library's file check on
// `request.file` without writing anything. Throws a Failure when the file is
// missing or refused (the reason and what to do).
ImageCheck CheckImage(Session& session, const DeviceChoice& device, const UpdateRequest& request);

// After a completed update of `device`: waits up to
// request.waitReplugSeconds for its re-plug and checks that it runs
// `fileVersion`. Returns the version it runs; throws a Failure otherwise.
std::string ConfirmAfterReplug(Session& session, const DeviceInfo& device,
                               const DeviceChoice& choice, const UpdateRequest& request,
                               const std::string& fileVersion, const std::string& before,
                               ProgressDisplay& display);

// The version the selected device runs of that kind, as CheckImage's
// `before`, read afresh.
std::string InstalledVersion(Session& session, bool mcu);

// Checks and writes the file into the chosen device, showing the progress
// on `display`. Returns when the update has ended and the library's update
// thread is gone; throws a Failure when the file is refused or the update
// does not complete. Ctrl-C does not stop it: the device's write must end.
CommandResult RunUpdate(Session& session, const DeviceChoice& device, const UpdateRequest& request,
                        ProgressDisplay& display);

// Reads the chosen device's whole USB flash into `file` (a *.hex image that
// update usb takes back), showing the progress on `display`. Throws a
// Failure when the backup could not be made; no file is left then.
CommandResult RunBackup(Session& session, const DeviceChoice& device, const std::string& file,
                        ProgressDisplay& display, bool recordHistory = true);

}  // namespace korvtool
