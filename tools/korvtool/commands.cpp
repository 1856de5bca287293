#include "commands.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>
#include <thread>

#include "VideoConsoleCore.h"

#include "device_reports.h"
#include "errors.h"
#include "safe_text.h"

namespace korvtool {

using nlohmann::ordered_json;

namespace {

constexpr size_t kLabelWidth = 18;

std::string Row(const std::string& label, const std::string& value) {
    std::string line = "  " + label;
    line.append(label.size() < kLabelWidth ? kLabelWidth - label.size() : 1, ' ');
    return line + value + "\n";
}

std::string Pad(const std::string& text, size_t width) {
    return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

// The device's own texts as shown to a person: escaped (see safe_text.h).
std::string Describe(const DeviceInfo& device) {
    return device.description.empty() ? "(no description)" : Printable(device.description);
}

std::string VidPid(const DeviceInfo& device) { return Printable(device.vid + ":" + device.pid); }

ordered_json DeviceJson(size_t index, const DeviceInfo& device) {
    return {{"index", index},
            {"description", device.description},
            {"vid", device.vid},
            {"pid", device.pid},
            {"serial", device.serial}};
}

// Selects the device and starts the result with a line naming it.
CommandResult StartOnDevice(Session& session, const DeviceChoice& choice) {
    const size_t index = session.Select(choice);
    const DeviceInfo& device = session.Devices()[index];
    CommandResult result;
    result.json["device"] = DeviceJson(index, device);
    result.text = "Device " + std::to_string(index) + ": " + Describe(device) + " (" +
                  VidPid(device) + ", serial " + Printable(device.serial) + ")\n";
    return result;
}

const char* BootModeName(int mode) {
    switch (mode) {
        case 0: return "application";
        case 1: return "bootloader";
        default: return "unknown";
    }
}

std::string BootModeText(int mode) {
    switch (mode) {
        case 0: return "no (the application runs)";
        case 1: return "yes (the bootloader runs)";
        default: return "unknown (work mode " + std::to_string(mode) + ")";
    }
}

// A failed operation of the microcontroller (audio, saving): when the device
// has none, that is the reason to give.
ToolError McuOperationFailure(Session& session, const std::string& failed,
                              const std::string& advice) {
    const std::string words = session.LastWords();
    session.BeginCall();
    if (!KORVSDK_Check_Is_MCU_OnBoard()) {
        return Failure(failed + ": this device has no microcontroller, which it needs for that "
                                "('korvtool info' shows what the device carries)");
    }
    return Failure(failed + Quote(words) + "; " + advice);
}

uint8_t ReadControl(Session& session, const char* name, KORVSDK_BOOL (*get)(uint8_t*)) {
    uint8_t value = 0;
    session.BeginCall();
    if (!get(&value)) {
        throw McuOperationFailure(session, std::string("reading ") + name + " failed",
                                  "the device did not answer: re-plug it and try again");
    }
    return value;
}

// Runs one device operation of the library; a refusal ends the command with
// `failed`, what the library said about it, and `advice`.
void Require(Session& session, KORVSDK_BOOL (*operation)(), const std::string& failed,
             const std::string& advice) {
    session.BeginCall();
    if (!operation()) throw Failure(failed + Quote(session.LastWords()) + "; " + advice);
}

template <typename T>
struct Found {
    std::string message;
    T value;
};

// The first posted message that `parse` accepts, with what it made of it.
template <typename T>
std::optional<Found<T>> FindMessage(const std::vector<std::string>& messages,
                                    std::optional<T> (*parse)(const std::string&)) {
    for (const std::string& message : messages) {
        if (std::optional<T> value = parse(message)) return Found<T>{message, std::move(*value)};
    }
    return std::nullopt;
}

std::string AllMessages(const std::vector<std::string>& messages) {
    std::string text;
    for (const std::string& message : messages) text += Printable(message) + "\n";
    return text;
}

// The device's firmware must answer a query through the device-state
// callback; a query that succeeds without a message cannot be shown.
[[noreturn]] void ThrowNoAnswer(const std::string& what, const Session& session) {
    throw Failure("the device reported success but sent no " + what +
                  Quote(session.LastWords()) + "; run again with --verbose for details");
}

}  // namespace

const std::vector<AudioControl>& AudioControls() {
    static const std::vector<AudioControl> controls = {
        {"hp-out-volume", "headphone output volume", ControlKind::kVolume,
         KORVSDK_Audio_Get_HP_Out_Volume, KORVSDK_Audio_Set_HP_Out_Volume},
        {"mic-in-volume", "microphone input volume", ControlKind::kVolume,
         KORVSDK_Audio_Get_MIC_In_Volume, KORVSDK_Audio_Set_MIC_In_Volume},
        {"aux-in-volume", "AUX (line) input volume, also the HDMI side-tone", ControlKind::kVolume,
         KORVSDK_Audio_Get_AUX_In_Volume, KORVSDK_Audio_Set_AUX_In_Volume},
        {"hp-out-mute", "headphone output mute", ControlKind::kMute,
         KORVSDK_Audio_Get_HP_Out_Mute, KORVSDK_Audio_Set_HP_Out_Mute},
        {"mic-in-mute", "microphone input mute", ControlKind::kMute,
         KORVSDK_Audio_Get_MIC_In_Mute, KORVSDK_Audio_Set_MIC_In_Mute},
        {"aux-in-mute", "AUX (line) input mute, also the HDMI side-tone", ControlKind::kMute,
         KORVSDK_Audio_Get_AUX_In_Mute, KORVSDK_Audio_Set_AUX_In_Mute},
    };
    return controls;
}

const std::vector<AudioState>& AudioStates() {
    static const std::vector<AudioState> states = {
        {"video-locked", "the HDMI input video is locked", KORVSDK_Get_HDMI_Video_Locked},
        {"hp-mic-plugged", "a headset (headphone and microphone) is plugged in",
         KORVSDK_Get_HP_Mic_PlugIn},
        {"line-in-plugged", "a line-in cable is plugged in", KORVSDK_Get_Line_In_PlugIn},
    };
    return states;
}

const AudioControl* FindAudioControl(const std::string& name) {
    for (const AudioControl& control : AudioControls())
        if (name == control.name) return &control;
    return nullptr;
}

CommandResult ListDevices(Session& session) {
    const std::vector<DeviceInfo>& devices = session.Scan();
    CommandResult result;
    result.json["devices"] = ordered_json::array();
    for (size_t i = 0; i < devices.size(); ++i) {
        ordered_json entry = DeviceJson(i, devices[i]);
        entry["location"] = devices[i].location;
        result.json["devices"].push_back(std::move(entry));
    }

    if (devices.empty()) {
        result.text = "No capture device found. Check that it is plugged in and that the "
                      "DevIDNum and DevDrvID<n> entries of " + session.SettingsName() +
                      " accept its VID and PID.\n";
        return result;
    }
    size_t descriptionWidth = std::string("Description").size();
    size_t serialWidth = std::string("Serial").size();
    for (const DeviceInfo& device : devices) {
        descriptionWidth = std::max(descriptionWidth, Describe(device).size());
        serialWidth = std::max(serialWidth, Printable(device.serial).size());
    }
    result.text = "Found " + std::to_string(devices.size()) + " capture device" +
                  (devices.size() == 1 ? "" : "s") + ":\n";
    result.text += "  #  " + Pad("Description", descriptionWidth) + "  VID:PID    " +
                   Pad("Serial", serialWidth) + "  Location\n";
    for (size_t i = 0; i < devices.size(); ++i) {
        const DeviceInfo& device = devices[i];
        // A location the system does not tell shows as "-".
        const std::string location =
            device.location.empty() ? std::string("-") : Printable(device.location);
        result.text += "  " + Pad(std::to_string(i), 3) + Pad(Describe(device), descriptionWidth) +
                       "  " + Pad(VidPid(device), 9) + "  " +
                       Pad(Printable(device.serial), serialWidth) + "  " + location + "\n";
    }
    return result;
}

CommandResult ShowInfo(Session& session, const DeviceChoice& choice) {
    CommandResult result = StartOnDevice(session, choice);
    ordered_json& json = result.json;

    session.BeginCall();
    const uint8_t usbType = KORVSDK_Get_Device_USBType();
    if (usbType == 0)
        throw Failure("the USB type could not be read" + Quote(session.LastWords()));
    session.BeginCall();
    const std::string usbFirmware = TakeText(KORVSDK_Get_USB_FW_Ver());
    if (usbFirmware.empty()) {
        throw Failure("the USB firmware version could not be read" + Quote(session.LastWords()) +
                      "; re-plug the device and try again");
    }
    json["usb_type"] = usbType;
    json["usb_firmware"] = usbFirmware;
    result.text += Row("USB type", std::to_string(usbType) +
                                       (usbType == 3 ? " (on a USB 3 port)" : " (on a USB 2 port)"));
    result.text += Row("USB firmware", Printable(usbFirmware));

    session.BeginCall();
    const bool mcuOnBoard = KORVSDK_Check_Is_MCU_OnBoard() != 0;
    json["mcu_on_board"] = mcuOnBoard;
    result.text += Row("Microcontroller", mcuOnBoard ? "present" : "absent");
    if (mcuOnBoard) {
        session.BeginCall();
        const int bootMode = KORVSDK_Check_Is_Boot_Mode();
        session.BeginCall();
        const std::string mcuFirmware = TakeText(KORVSDK_Get_MCU_FW_Ver());
        // The bootloader does not answer the version registers.
        if (mcuFirmware.empty() && bootMode != 1) {
            throw Failure("the microcontroller's firmware version could not be read" +
                          Quote(session.LastWords()) + "; re-plug the device and try again");
        }
        // "tt.vv.cc", as update, make-image and the history name it; the
        // further board-variant bytes of the library's text apart.
        const std::optional<McuVersion> split = SplitMcuVersion(mcuFirmware);
        const std::string shown = split ? split->version : mcuFirmware;
        json["mcu_firmware"] = mcuFirmware.empty() ? ordered_json() : ordered_json(shown);
        json["mcu_board_bytes"] =
            split && !split->detail.empty() ? ordered_json(split->detail) : ordered_json();
        json["boot_mode"] = BootModeName(bootMode);
        result.text += Row("MCU firmware", mcuFirmware.empty() ? "-" : Printable(shown));
        if (split && !split->detail.empty()) result.text += Row("MCU board bytes", split->detail);
        result.text += Row("Boot mode", BootModeText(bootMode));
    } else {
        json["mcu_firmware"] = nullptr;
        json["mcu_board_bytes"] = nullptr;
        json["boot_mode"] = nullptr;
    }

    session.BeginCall();
    const bool audioChip = KORVSDK_Check_Is_AudioIC_OnBoard() != 0;
    json["audio_chip_on_board"] = audioChip;
    result.text += Row("Audio chip", audioChip ? "present" : "absent");
    return result;
}

CommandResult ShowAudio(Session& session, const DeviceChoice& choice) {
    CommandResult result = StartOnDevice(session, choice);
    ordered_json controls = ordered_json::object();
    result.text += "Audio controls (change one with 'korvtool audio set NAME VALUE'):\n";
    for (const AudioControl& control : AudioControls()) {
        const uint8_t value = ReadControl(session, control.name, control.get);
        if (control.kind == ControlKind::kMute)
            controls[control.name] = value != 0;
        else
            controls[control.name] = value;
        result.text += Row(control.name, FormatControlValue(control.kind, value));
    }
    ordered_json states = ordered_json::object();
    result.text += "States:\n";
    for (const AudioState& state : AudioStates()) {
        const uint8_t value = ReadControl(session, state.name, state.get);
        states[state.name] = value != 0;
        result.text += Row(state.name, value != 0 ? "yes" : "no");
    }
    result.json["controls"] = std::move(controls);
    result.json["states"] = std::move(states);
    return result;
}

CommandResult SetAudio(Session& session, const DeviceChoice& choice, const AudioControl& control,
                       uint8_t value) {
    CommandResult result = StartOnDevice(session, choice);
    const std::string shown = FormatControlValue(control.kind, value);
    session.BeginCall();
    if (!control.set(value)) {
        throw McuOperationFailure(session,
                                  std::string("setting ") + control.name + " to " + shown + " failed",
                                  "the device did not take it: re-plug it and try again");
    }
    const uint8_t now = ReadControl(session, control.name, control.get);
    const bool kept = control.kind == ControlKind::kMute ? (now != 0) == (value != 0) : now == value;
    if (!kept) {
        throw Failure(std::string("the device reads back ") + control.name + " as " +
                      FormatControlValue(control.kind, now) + " instead of " + shown +
                      ": its firmware did not accept the value");
    }
    result.json["control"] = control.name;
    if (control.kind == ControlKind::kMute)
        result.json["value"] = now != 0;
    else
        result.json["value"] = now;
    result.text += std::string(control.name) + " is now " + FormatControlValue(control.kind, now) +
                   " (read back from the device). 'korvtool save' keeps it over a re-plug.\n";
    return result;
}

CommandResult ShowHdmiInfo(Session& session, const DeviceChoice& choice) {
    CommandResult result = StartOnDevice(session, choice);
    Require(session, KORVSDK_Get_HDMI_Info, "the HDMI information query failed",
            "re-plug the device and try again");
    const auto found = FindMessage(session.Messages(), ParseHdmiInfo);
    if (!found) ThrowNoAnswer("HDMI information", session);
    const std::vector<uint8_t>& bytes = found->value;
    result.json["message"] = found->message;
    result.json["bytes"] = bytes;
    result.text += "HDMI status block (" + std::to_string(bytes.size()) +
                   " bytes, hexadecimal, as the device's firmware reports it):\n";
    for (size_t at = 0; at < bytes.size(); at += 12) {
        const std::vector<uint8_t> line(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                                        bytes.begin() + static_cast<std::ptrdiff_t>(
                                                            std::min(at + 12, bytes.size())));
        result.text += "  " + HexBytes(line) + "\n";
    }
    return result;
}

CommandResult ShowUsbInfo(Session& session, const DeviceChoice& choice) {
    CommandResult result = StartOnDevice(session, choice);
    Require(session, KORVSDK_Get_USB_APP_Info, "the USB stream information query failed",
            "the device's USB firmware may be too old to report it (see 'korvtool info')");
    const auto found = FindMessage(session.Messages(), ParseUsbInfo);
    if (!found) ThrowNoAnswer("USB stream information", session);
    const UsbStreamInfo& info = found->value;
    result.json["message"] = found->message;
    result.json["width"] = info.width;
    result.json["height"] = info.height;
    result.json["frame_rate"] = info.frameRate;
    result.json["color_format"] =
        info.colorFormat.empty() ? ordered_json() : ordered_json(info.colorFormat);
    result.text += Row("Resolution", std::to_string(info.width) + "x" + std::to_string(info.height));
    result.text += Row("Frame rate", std::to_string(info.frameRate) + " fps");
    result.text += Row("Color format", info.colorFormat.empty() ? "unknown" : info.colorFormat);
    return result;
}

CommandResult ShowMcuInfo(Session& session, const DeviceChoice& choice) {
    CommandResult result = StartOnDevice(session, choice);
    Require(session, KORVSDK_Get_MCU_Info, "the microcontroller information query failed",
            "'korvtool info' shows whether the device has a microcontroller");
    const auto found = FindMessage(session.Messages(), ParseMcuInfo);
    if (!found) {
        // A summary of another form is still worth showing as it came.
        if (session.Messages().empty()) ThrowNoAnswer("microcontroller information", session);
        result.json["message"] = session.Messages().front();
        result.text += AllMessages(session.Messages());
        return result;
    }
    const McuInfo& info = found->value;
    result.json["message"] = found->message;
    ordered_json registers = ordered_json::object();
    result.text += "Microcontroller registers (register=value, hexadecimal):\n";
    std::string line;
    for (size_t i = 0; i < info.registers.size(); ++i) {
        const std::string pair = HexBytes({info.registers[i].first}) + "=" +
                                 HexBytes({info.registers[i].second});
        registers[HexBytes({info.registers[i].first})] = info.registers[i].second;
        line += "  " + pair;
        if ((i + 1) % 7 == 0 || i + 1 == info.registers.size()) {
            result.text += line + "\n";
            line.clear();
        }
    }
    result.json["registers"] = std::move(registers);
    result.json["edid"] = {{"verdict", EdidVerdictName(info.edid)}, {"bytes", info.edidBytes}};
    std::string edid = EdidVerdictName(info.edid);
    if (info.edid == EdidVerdict::kTimeout) edid = "not read (the splitter did not answer in time)";
    if (!info.edidBytes.empty()) edid += ", first bytes " + HexBytes(info.edidBytes);
    result.text += "HDMI splitter EDID (TX port 1): " + edid + "\n";
    return result;
}

CommandResult SaveParameters(Session& session, const DeviceChoice& choice) {
    CommandResult result = StartOnDevice(session, choice);
    session.BeginCall();
    if (!KORVSDK_Save_Audio_HDCP_Parameters()) {
        throw McuOperationFailure(session, "saving the parameters failed",
                                  "try again, and re-plug the device if it keeps failing");
    }
    result.json["saved"] = true;
    result.text += "Saved the device's current parameters (audio settings): it keeps them when "
                   "it is unplugged.\n";
    return result;
}

CommandResult CheckBootMode(Session& session, const DeviceChoice& choice) {
    CommandResult result = StartOnDevice(session, choice);
    Require(session, KORVSDK_Check_Is_MCU_OnBoard, "this device has no microcontroller",
            "without one there is no boot mode");
    session.BeginCall();
    const int mode = KORVSDK_Check_Is_Boot_Mode();
    result.json["boot_mode"] = BootModeName(mode);
    result.json["value"] = mode;
    result.text += Row("Boot mode", BootModeText(mode));
    return result;
}

CommandResult EnterBootMode(Session& session, const DeviceChoice& choice) {
    CommandResult result = StartOnDevice(session, choice);
    Require(session, KORVSDK_Enter_Boot_Mode, "the microcontroller did not enter boot mode",
            "'korvtool info' shows whether the device has a microcontroller");
    result.json["boot_mode"] = "bootloader";
    result.text += "The microcontroller is in boot mode now: its bootloader runs and waits for a "
                   "firmware update.\n";
    return result;
}

}  // namespace korvtool

namespace korvtool {

// ---- LEDs -------------------------------------------------------------------

CommandResult SetLedPattern(Session& session, const DeviceChoice& choice, uint8_t pattern) {
    CommandResult result = StartOnDevice(session, choice);
    session.BeginCall();
    if (!KORVSDK_Set_GPIO_LED(pattern)) {
        throw Failure("the LED pattern could not be set" + Quote(session.LastWords()) +
                      " - only boards with a GPIO LED have one");
    }
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", pattern);
    result.json["led_pattern"] = text;
    result.text += Row("LED pattern", text);
    return result;
}

// ---- Log dump -----------------------------------------------------------------

namespace {

std::set<std::string> DumpFiles(const std::filesystem::path& folder) {
    std::set<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind("Dump_Log_", 0) == 0) names.insert(name);
    }
    return names;
}

}  // namespace

CommandResult DumpLog(Session& session, const DeviceChoice& choice, const std::string& folder) {
    if (session.Setting("EnableLocalLogging").value_or("0") != "1") {
        throw Failure("local logging is off, so there is no log to dump: set "
                      "EnableLocalLogging=1 in " + session.SettingsName() +
                      ", run the steps that went wrong again, then dump the log");
    }
    std::error_code error;
    const std::filesystem::path target =
        folder.empty() ? std::filesystem::current_path(error) : std::filesystem::path(folder);
    if (!std::filesystem::is_directory(target, error))
        throw Failure("the folder '" + target.string() + "' does not exist: create it or give another");
    // The log says more with the device selected; a dump is wanted all the
    // more when there is none.
    try {
        session.Select(choice);
    } catch (const ToolError&) {
    }
    const std::set<std::string> before = DumpFiles(target);

    // The dump is the class face's diagnostic command. Its controller takes
    // commands once its start-up worker has run, a moment after start().
    std::unique_ptr<VideoConsoleCore::ToolCoreInterface> controller(VideoConsoleCore::createToolCore());
    controller->init();
    controller->start();
    VideoConsoleCore::DiagnosticRequest request;
    request.dumpLog = true;
    request.dumpFolder = target.wstring();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    std::string made;
    while (made.empty()) {
        session.BeginCall();
        controller->runCommand(VideoConsoleCore::kCommandDiagnostic, &request, nullptr);
        for (const std::string& name : DumpFiles(target))
            if (before.count(name) == 0) made = name;
        if (!made.empty()) break;
        const std::string words = session.LastWords();
        if (words.find("[Dump_Log]") != std::string::npos || std::chrono::steady_clock::now() > deadline) {
            controller->exit();
            throw Failure("the log could not be dumped" + Quote(words));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    controller->exit();
    const std::string path = (target / made).string();
    CommandResult result;
    result.json["file"] = path;
    result.text = "The log was dumped to " + path + "\n";
    return result;
}

}  // namespace korvtool
