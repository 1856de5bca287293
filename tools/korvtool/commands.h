// The commands of korvtool. Each runs against an opened session and returns
// its result twice: as text for a person and as JSON. A command that cannot
// finish throws a ToolError.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "choices.h"
#include "session.h"

namespace korvtool {

struct CommandResult {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    std::string text;  // lines ending in '\n'
    bool jsonStreamed = false;  // with --json the command printed its own events
    int status = 0;             // the exit status of a command that printed its own output
};

struct AudioControl {
    const char* name;
    const char* label;
    ControlKind kind;
    KORVSDK_BOOL (*get)(uint8_t*);
    KORVSDK_BOOL (*set)(uint8_t);
};

struct AudioState {
    const char* name;
    const char* label;
    KORVSDK_BOOL (*get)(uint8_t*);
};

const std::vector<AudioControl>& AudioControls();
const std::vector<AudioState>& AudioStates();
// The control of that name, or null.
const AudioControl* FindAudioControl(const std::string& name);

using DeviceChoice = std::optional<std::string>;

CommandResult ListDevices(Session& session);
CommandResult ShowInfo(Session& session, const DeviceChoice& device);
CommandResult ShowAudio(Session& session, const DeviceChoice& device);
CommandResult SetAudio(Session& session, const DeviceChoice& device, const AudioControl& control,
                       uint8_t value);
CommandResult ShowHdmiInfo(Session& session, const DeviceChoice& device);
CommandResult ShowUsbInfo(Session& session, const DeviceChoice& device);
CommandResult ShowMcuInfo(Session& session, const DeviceChoice& device);
CommandResult SaveParameters(Session& session, const DeviceChoice& device);
CommandResult CheckBootMode(Session& session, const DeviceChoice& device);
CommandResult EnterBootMode(Session& session, const DeviceChoice& device);
// Writes an LED pattern (0x80..0x83) now, on boards with a GPIO LED.
CommandResult SetLedPattern(Session& session, const DeviceChoice& device, uint8_t pattern);
// Dumps the library's log file into `folder` (the working folder when
// empty) and names the file made.
CommandResult DumpLog(Session& session, const DeviceChoice& device, const std::string& folder);

}  // namespace korvtool
