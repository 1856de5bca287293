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
};

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
                        ProgressDisplay& display);

}  // namespace korvtool
