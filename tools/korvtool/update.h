// korvtool update usb|mcu FILE: the file check, the update with its
// progress, and the end, through the library's exported calls.
#pragma once

#include <string>

#include "commands.h"
#include "progress.h"
#include "session.h"

namespace korvtool {

struct UpdateRequest {
    bool mcu = false;   // the microcontroller's program, else the bridge's flash
    std::string file;   // *.hex (USB) or *.bin (MCU)
    bool force = false; // FW_Overwrite=99 was set for this run
};

// Checks and writes the file into the chosen device, showing the progress
// on `display`. Returns when the update has ended and the library's update
// thread is gone; throws a Failure when the file is refused or the update
// does not complete. Ctrl-C does not stop it: the device's write must end.
CommandResult RunUpdate(Session& session, const DeviceChoice& device, const UpdateRequest& request,
                        ProgressDisplay& display);

}  // namespace korvtool
