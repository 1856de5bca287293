// korvtool: a console program over the library's exported C API. It lists
// the capture devices, shows their information and states, sets their audio
// controls, switches the microcontroller into boot mode, updates the
// firmware and makes images to try updates on the virtual device.
//
//   korvtool [--config PATH | --virtual] [--device N|SERIAL] [--json] [--verbose] COMMAND
//
// Exit status: 0 success, 1 device or library failure, 2 usage error.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <vector>
#include <cstring>
#include <functional>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "errors.h"
#include "history.h"
#include "make_image.h"
#include "platform/program_dll_search.h"
#include "safe_text.h"
#include "session.h"
#include "station/station.h"
#include "update.h"

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#define KORVTOOL_ISATTY(f) _isatty(_fileno(f))
#else
#include <unistd.h>
#define KORVTOOL_ISATTY(f) isatty(fileno(f))
#endif

namespace {

using nlohmann::ordered_json;
using korvtool::CommandResult;
using korvtool::DeviceChoice;
using korvtool::Session;

constexpr const char* kGlobalOptionsNote =
    "Global options (--config, --virtual, --device, --json, --verbose) may stand before or\n"
    "after the command; 'korvtool --help' describes them.";

std::string Column(std::string name) {
    name.resize(18, ' ');
    return "  " + name;
}

std::string AudioFooter() {
    std::string text = "Controls (korvtool audio set NAME VALUE):\n";
    for (const korvtool::AudioControl& control : korvtool::AudioControls()) {
        text += Column(control.name) + control.label +
                (control.kind == korvtool::ControlKind::kVolume
                     ? ", 0 to " + std::to_string(korvtool::kVolumeMax)
                     : std::string(", on (muted) or off")) +
                "\n";
    }
    text += "States (shown by korvtool audio):\n";
    for (const korvtool::AudioState& state : korvtool::AudioStates())
        text += Column(state.name) + state.label + "\n";
    return text + kGlobalOptionsNote;
}

// The command line: the global options, and one CLI::App per command.
struct CommandLine {
    CLI::App app{"korvtool - find, inspect and set up USB HDMI capture devices through the\n"
                 "KORVSDKDeviceTool library.",
                 "korvtool"};
    bool showVersion = false;
    std::string configPath;
    bool useVirtual = false;
    bool json = false;
    bool verbose = false;
    std::string device;
    std::string controlName;
    std::string valueText;
    std::string file;
    bool force = false;
    std::string backupFile;
    std::string waitReplugText;
    CLI::Option* waitReplugOption = nullptr;
    std::vector<std::string> ledPhases;
    std::string ledPattern;
    std::string folder;
    korvtool::HistoryFilter historyFilter;
    std::string historySince, historyUntil;
    bool historyCsv = false;
    korvtool::UsbImageRequest usbImage;
    korvtool::McuImageRequest mcuImage;
    CLI::Option* configOption = nullptr;
    CLI::Option* deviceOption = nullptr;
    CLI::Option* waitReplugMcu = nullptr;
    korvtool::station::StationOptions station;
    std::string stationWait;
    CLI::Option* stationWaitOption = nullptr;
    korvtool::station::UnitJob unitJob;
    int unitWait = 0;
    CLI::Option* unitWaitOption = nullptr;

    CommandLine();

    // The full name of the command given ("audio set"), "" when none.
    std::string Given() const {
        // A command comes after the one it belongs to: the last one parsed
        // is the most specific.
        for (auto it = commands_.rbegin(); it != commands_.rend(); ++it)
            if (it->second->parsed()) return it->first;
        return "";
    }

private:
    std::vector<std::pair<std::string, CLI::App*>> commands_;

    CLI::App* Command(CLI::App& parent, const char* name, const char* summary,
                      const std::string& footer) {
        CLI::App* command = parent.add_subcommand(name, summary);
        command->footer(footer);
        command->group("Commands");
        const std::string prefix = &parent == &app ? "" : parent.get_name() + " ";
        commands_.emplace_back(prefix + name, command);
        return command;
    }
};

CommandLine::CommandLine() {
    app.fallthrough();  // global options also after the command
    app.require_subcommand(0, 1);
    // Speak of commands and arguments; the commands share this formatter.
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.get_formatter()->label("Positionals", "Arguments");
    app.get_formatter()->label("TEXT", "");
    app.footer(
        "Settings: without --config or --virtual, korvtool reads setting.cfg in the working\n"
        "folder. Commands other than list act on one device: the only one found, or the one\n"
        "--device names by its index in 'korvtool list' or its serial number.\n"
        "Exit status: 0 success; 1 no device, or a device or library failure; 2 usage error.\n"
        "Examples:\n"
        "  korvtool --virtual list\n"
        "  korvtool --virtual info\n"
        "  korvtool --config setting.cfg --device VC00000002 audio set hp-out-volume 40\n"
        "  korvtool --virtual --json audio\n"
        "Run 'korvtool COMMAND --help' for a command's own help.");

    app.add_flag("--version", showVersion, "Print korvtool's version and exit");
    configOption = app.add_option("--config", configPath,
                                  "The setting.cfg to use (default: ./setting.cfg)")
                       ->type_name("PATH");
    app.add_flag("--virtual", useVirtual,
                 "Use the virtual capture device with built-in settings\n"
                 "(FFF0:0C01, serial VC00000001); nothing needs to exist on disk")
        ->excludes(configOption);
    deviceOption = app.add_option("-d,--device", device,
                                  "The device to act on: its index in 'korvtool list',\n"
                                  "its serial number or its location (USB port, such as\n"
                                  "1-2.4) (default: the only device)")
                       ->type_name("N|SERIAL|LOCATION");
    app.add_flag("--json", json, "Print the result, or the error, as one JSON document");
    app.add_flag("-v,--verbose", verbose,
                 "Show the library's messages on standard error, each\nline marked [library]");

    Command(app, "list", "List the devices found: index, description, VID:PID, serial",
                   std::string("Lists every device the settings accept (DevIDNum, DevDrvID<n>).\n") +
                       kGlobalOptionsNote);
    Command(app, "info",
                   "Show USB type, firmware versions, boot mode and which chips are on board",
                   std::string("USB type 3: the device sits on a port that supports USB 3; 2: a "
                               "USB 2 port.\n"
                               "Boot mode and the microcontroller's firmware are shown when the "
                               "device has a\nmicrocontroller.\n") +
                       kGlobalOptionsNote);

    CLI::App* audio = Command(app, "audio", "Show the audio controls and states, or set a control",
                    AudioFooter());
    audio->require_subcommand(0, 1);
    CLI::App* audioSet = Command(*audio, "set", "Set an audio control and show the value read back",
                       AudioFooter());
    audioSet->add_option("NAME", controlName, "The control: one of those listed below")
        ->required();
    audioSet->add_option("VALUE", valueText,
                         "A volume from 0 to " + std::to_string(korvtool::kVolumeMax) +
                             "; for a mute on (muted) or off\n(also 1/0, true/false, yes/no)")
        ->required();

    Command(app, "hdmi-info", "Show the HDMI status block the device's firmware reports",
                       std::string("The block has 24 bytes, shown in hexadecimal as the firmware "
                                   "sends them.\n") +
                           kGlobalOptionsNote);
    Command(app, "usb-info", "Show the USB stream: resolution, frame rate, color format",
                      std::string("Older USB firmware (such as 01.00.00.09) cannot report the "
                                  "stream; 'korvtool info'\nshows the version.\n") +
                          kGlobalOptionsNote);
    Command(app, "mcu-info",
                      "Show the microcontroller's registers and the HDMI splitter's EDID",
                      std::string("Fourteen registers of the microcontroller, and whether the EDID "
                                  "that the HDMI\nsplitter holds for its TX port 1 reads as "
                                  "valid, with its first bytes.\n") +
                          kGlobalOptionsNote);
    Command(app, "save", "Make the device keep its audio settings over a re-plug",
                   std::string("The microcontroller stores its current parameters (the audio "
                               "settings) in its\nown memory.\n") +
                       kGlobalOptionsNote);
    CLI::App* bootMode = Command(app, "boot-mode", "Check whether the microcontroller is in boot mode, or enter it",
                       kGlobalOptionsNote);
    bootMode->require_subcommand(0, 1);
    Command(*bootMode, "check",
                        "Show whether the microcontroller is in boot mode (its bootloader runs)",
                        kGlobalOptionsNote);
    Command(*bootMode, "enter",
                        "Switch the microcontroller into boot mode, ready for a firmware update",
                        kGlobalOptionsNote);

    const std::string updateText =
        "The file is checked against the device first (its VID/PID or device type and a "
        "version\nnot older than the device's); a refused file changes nothing. The progress "
        "shows the\nphase (Preparing, Writing or Programming, Verifying), a bar, the rate and "
        "the time left;\nwith --json one event per line (start, progress, end). Ctrl-C does "
        "not stop the write:\nthe update must finish. Re-plug the device afterwards to run the "
        "new firmware.\nExit status 0 only when the update completed.\n";
    const std::string usbText =
        "USB: a whole flash image is written with USB_Entire_Valid_Last=1 unless the settings\n"
        "set that key: the image's boot configuration word is written only after the compare\n"
        "passed, so that an update cut off never leaves a half-written firmware marked\n"
        "bootable.\n";
    CLI::App* update = Command(app, "update", "Write a firmware image into the device",
                               updateText + usbText + kGlobalOptionsNote);
    update->require_subcommand(0, 1);
    for (const bool mcu : {false, true}) {
        CLI::App* target =
            Command(*update, mcu ? "mcu" : "usb",
                    mcu ? "Program the board microcontroller with a *.bin program image"
                        : "Write a *.hex flash image into the USB bridge's flash",
                    updateText + (mcu ? "" : usbText) + kGlobalOptionsNote);
        target->add_option("FILE", file, mcu ? "The program image (*.bin)" : "The flash image (*.hex)")
            ->required();
        target->add_flag("--force", force,
                         "Write the file even if it is older or made for another device\n"
                         "(FW_Overwrite=99 for this run only)");
        if (!mcu) {
            target->add_option("--backup", backupFile,
                               "Read the whole USB flash into this *.hex file first\n"
                               "(the update starts only when the backup is complete)")
                ->type_name("FILE");
        }
        // One option object per command: CLI11 keeps a pointer per command.
        CLI::Option* wait =
            target->add_option("--wait-replug", waitReplugText,
                               "After the update, wait up to SECONDS (default 60) for the\n"
                               "re-plugged device and confirm the version it runs")
                ->expected(0, 1)
                ->type_name("[SECONDS]");
        if (mcu) {
            waitReplugMcu = wait;
        } else {
            waitReplugOption = wait;
        }
        target->add_option("--led-phase", ledPhases,
                           "PHASE:PATTERN[:PERIOD] - the LED pattern (0x80..0x83) of a\n"
                           "phase (updating, succeeded, failed) and its blink period\n"
                           "in ms (0 steady, 100..3200); may be repeated")
            ->type_name("SPEC");
    }

    Command(app, "backup", "Read the whole USB flash into a *.hex image",
            std::string("The image is what 'korvtool update usb FILE --force' writes back, to put "
                        "the device\nback as it was. It is written to a new file beside FILE "
                        "and renamed to FILE when complete.\n") +
                kGlobalOptionsNote)
        ->add_option("FILE", file, "Where to write the image (*.hex)")
        ->required();
    CLI::App* history = Command(
        app, "history", "Show the updates, backups and station units korvtool has recorded",
        std::string("Kept in an SQLite database in the user's data folder (KORVTOOL_HISTORY=PATH "
                    "names\nanother); the JSON-lines history of older versions beside it is "
                    "imported once.\nTimes are UTC: a date (2026-11-23) or a date and time "
                    "(2026-11-23T14:05:09Z),\nbounds included. --json prints the entries as they "
                    "were recorded, --csv a table\nfor a spreadsheet.\n") +
            "Database: " + korvtool::HistoryPath().string() + "\n" + kGlobalOptionsNote);
    history->add_option("--serial", historyFilter.serial, "Only the records of this serial number")
        ->type_name("SERIAL");
    history->add_option("--run", historyFilter.run, "Only the records of this station run")
        ->type_name("ID");
    history->add_option("--result", historyFilter.result,
                        "Only the records with this result (pass, fail, up to date,\n"
                        "completed, confirmed, failed, ...)")
        ->type_name("RESULT");
    history->add_option("--location", historyFilter.location,
                        "Only the records of the device at this USB location")
        ->type_name("LOCATION");
    history->add_option("--since", historySince, "Only the records from this time on")
        ->type_name("TIME");
    history->add_option("--until", historyUntil, "Only the records up to this time")
        ->type_name("TIME");
    history->add_option("--limit", historyFilter.limit, "Only the last N of the records")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    history->add_flag("--csv", historyCsv, "Print CSV (RFC 4180) with a header line");
    const std::string stationText =
        "Runs the recipe on every attached device the settings accept, all at once: each unit\n"
        "in a worker process of its own, selected by its USB location, so that one unit's\n"
        "fault, hang or crash never stops the others. A unit that already runs the image's\n"
        "versions is reported up to date and not written. Units with one serial number on\n"
        "two ports are refused (they cannot be told apart). A terminal shows a live table;\n"
        "otherwise a line per event, or with --json one JSON event per line. Each unit's\n"
        "result goes into the history ('korvtool history --run ID'); the run's folder keeps\n"
        "summary.csv, summary.json and each unit's logs. Ctrl-C starts no more units and\n"
        "lets the units being written finish.\n"
        "Exit status 0 when every unit passed or was up to date.\n"
        "Example:\n"
        "  korvtool --config bench.cfg station --usb fw.hex --mcu mcu.bin --wait-replug 60\n";
    CLI::App* stationCommand = Command(app, "station", "Update every attached device at once, with a record of each",
                                       stationText + kGlobalOptionsNote);
    stationCommand->add_option("--usb", station.recipe.usbFile, "The flash image (*.hex) for each unit")
        ->type_name("FILE");
    stationCommand->add_option("--mcu", station.recipe.mcuFile, "The program image (*.bin) for each unit")
        ->type_name("FILE");
    stationCommand->add_option("--backup-dir", station.recipe.backupDir,
                               "Read each written unit's USB flash into DIR first\n"
                               "(<serial>-<time>.hex)")
        ->type_name("DIR");
    stationWaitOption = stationCommand
                            ->add_option("--wait-replug", stationWait,
                                         "After the writes, wait up to SECONDS (default 60) for\n"
                                         "each unit's re-plug and confirm the versions it runs")
                            ->expected(0, 1)
                            ->type_name("[SECONDS]");
    stationCommand->add_option("--retries", station.retries,
                               "Run a failed unit again, up to N times, while it is still\n"
                               "plugged in (default 0)")
        ->type_name("N")
        ->check(CLI::Range(0, 10));
    stationCommand->add_flag("--watch", station.watch,
                             "Keep running: start the recipe on each unit as it is plugged\n"
                             "in; Ctrl-C ends");
    stationCommand->add_option("--station", station.stationName,
                               "The station's name in the records (default: the host name)")
        ->type_name("NAME");
    stationCommand->add_option("--report", station.reports,
                               "Also write the summary to FILE (*.csv or *.json); may be\n"
                               "repeated")
        ->type_name("FILE");
    stationCommand->add_option("--run-dir", station.runDir,
                               "The run's folder (default: runs/<run id> beside the history)")
        ->type_name("DIR");
    stationCommand->add_option("--unit-timeout", station.unitTimeoutSeconds,
                               "Stop a worker that reports nothing for SECONDS (default 120)")
        ->type_name("SECONDS")
        ->check(CLI::Range(5, 3600));
    // The station's worker: one unit, started by the station only.
    CLI::App* unit = app.add_subcommand("station-unit", "");
    unit->group("");
    commands_.emplace_back("station-unit", unit);
    unit->add_option("--usb", unitJob.recipe.usbFile);
    unit->add_option("--mcu", unitJob.recipe.mcuFile);
    unit->add_option("--backup-dir", unitJob.recipe.backupDir);
    unitWaitOption = unit->add_option("--wait-replug", unitWait);
    unit->add_option("--run", unitJob.run);
    unit->add_option("--station", unitJob.station);
    unit->add_option("--attempt", unitJob.attempt);

    Command(app, "dump-log", "Copy the library's log file for a problem report",
            std::string("Writes Dump_Log_<time>.txt into the folder; needs EnableLocalLogging=1 "
                        "in the settings.\n") +
                kGlobalOptionsNote)
        ->add_option("--folder", folder, "Where to put the copy (default: the working folder)")
        ->type_name("DIR");
    CLI::App* leds = Command(app, "leds", "Set the board's GPIO LED pattern", kGlobalOptionsNote);
    leds->require_subcommand(0, 1);
    Command(*leds, "set", "Write an LED pattern now (boards with a GPIO LED)",
            std::string("Patterns 0x80 to 0x83 (0x83: dark). The patterns an update shows are set "
                        "with\n'korvtool update ... --led-phase'.\n") +
                kGlobalOptionsNote)
        ->add_option("PATTERN", ledPattern, "0x80..0x83")
        ->required();

    const std::string imageFooter =
        std::string("Images for trying updates on the virtual device (korvtool --virtual update "
                    "...): by\ndefault newer than the virtual device's firmware and made for "
                    "it.\n") +
        kGlobalOptionsNote;
    CLI::App* makeImage =
        Command(app, "make-image", "Write a test firmware image for the virtual device", imageFooter);
    makeImage->require_subcommand(0, 1);
    // Every image option shows its default in the help.
    const auto option = [](CLI::App* command, const char* name, auto& field, const char* text) {
        command->add_option(name, field, text)->capture_default_str();
    };
    CLI::App* usbImageCommand =
        Command(*makeImage, "usb", "Write an 8 MiB USB flash image (*.hex)", imageFooter);
    usbImageCommand->add_option("FILE", usbImage.file, "Where to write it")->required();
    option(usbImageCommand, "--version", usbImage.version, "Version text");
    option(usbImageCommand, "--vid", usbImage.vid, "USB vendor ID (0x... for hex)");
    option(usbImageCommand, "--pid", usbImage.pid, "USB product ID (0x... for hex)");
    CLI::App* mcuImageCommand =
        Command(*makeImage, "mcu", "Write a microcontroller program image (*.bin)", imageFooter);
    mcuImageCommand->add_option("FILE", mcuImage.file, "Where to write it")->required();
    option(mcuImageCommand, "--version", mcuImage.version, "Firmware version number, 0 to 255");
    option(mcuImageCommand, "--device-type", mcuImage.deviceType, "Device type, 0 to 255");
    option(mcuImageCommand, "--codec", mcuImage.codec, "Codec / board variant, 0 to 255");
    option(mcuImageCommand, "--size", mcuImage.size, "Image size in bytes");
}

void PrintError(const std::string& command, const std::string& text, int status, bool json) {
    // Error texts quote the library and the device: shown escaped.
    std::fprintf(stderr, "korvtool: error: %s\n", korvtool::Printable(text).c_str());
    if (json) {
        const nlohmann::ordered_json doc = {
            {"command", command}, {"ok", false}, {"error", text}, {"exit_code", status}};
        // An update streams one event per line; its error is one more.
        if (command.rfind("update", 0) == 0 || command.rfind("station", 0) == 0) {
            nlohmann::ordered_json event = {{"event", "error"}};
            event.update(doc);
            std::printf("%s\n", korvtool::JsonText(event).c_str());
        } else {
            std::printf("%s\n", korvtool::JsonText(doc, 2).c_str());
        }
    }
}

bool ArgumentsAskForJson(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--json") == 0) return true;
    return false;
}

const korvtool::AudioControl& ControlNamed(const std::string& name) {
    if (const korvtool::AudioControl* control = korvtool::FindAudioControl(name)) return *control;
    std::string names;
    for (const korvtool::AudioControl& known : korvtool::AudioControls())
        names += std::string(names.empty() ? "" : ", ") + known.name;
    throw korvtool::UsageError("there is no audio control '" + name + "': the controls are " +
                               names);
}

korvtool::DisplayMode DisplayModeFor(bool json) {
    return json ? korvtool::DisplayMode::kJson
                : KORVTOOL_ISATTY(stdout) ? korvtool::DisplayMode::kTerminal
                                          : korvtool::DisplayMode::kLines;
}

// A whole number from `text` (decimal, or hexadecimal after 0x) within
// [low, high]; a UsageError naming `what` otherwise.
long NumberIn(const std::string& text, long low, long high, const std::string& what,
              bool hex = false) {
    char* end = nullptr;
    const long value = text.empty() ? -1 : std::strtol(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || value < low || value > high) {
        char range[64];
        std::snprintf(range, sizeof range, hex ? "0x%lX to 0x%lX" : "%ld to %ld", low, high);
        throw korvtool::UsageError(what + " must be a number from " + range + ", not '" + text + "'");
    }
    return value;
}

int ParseSeconds(const std::string& text) {
    return text.empty() ? 60 : static_cast<int>(NumberIn(text, 1, 3600, "--wait-replug SECONDS"));
}

uint8_t ParseLedPattern(const std::string& text) {
    return static_cast<uint8_t>(NumberIn(text, 0x80, 0x83, "the LED pattern", true));
}

// "updating:0x81:500" -> phase 0, pattern 0x81, period 500 ms.
korvtool::LedPhase ParseLedPhase(const std::string& spec) {
    const size_t first = spec.find(':');
    const size_t second = first == std::string::npos ? first : spec.find(':', first + 1);
    if (first == std::string::npos)
        throw korvtool::UsageError("--led-phase takes PHASE:PATTERN[:PERIOD], not '" + spec + "'");
    const std::string name = spec.substr(0, first);
    const char* const names[] = {"updating", "succeeded", "failed"};
    long phase = -1;
    for (long i = 0; i < 3; ++i)
        if (name == names[i] || name == std::to_string(i)) phase = i;
    if (phase < 0)
        throw korvtool::UsageError("the LED phase must be updating, succeeded or failed, not '" + name + "'");
    const std::string pattern = spec.substr(first + 1, second == std::string::npos ? std::string::npos : second - first - 1);
    const long period = second == std::string::npos
                            ? 0
                            : NumberIn(spec.substr(second + 1), 0, 3200, "the LED period (ms)");
    return {static_cast<uint8_t>(phase), ParseLedPattern(pattern), static_cast<uint16_t>(period)};
}

// How to run the command `name`. Arguments that can be judged without a
// device are judged here, before the library starts.
std::function<CommandResult(Session&)> PrepareCommand(const CommandLine& cli,
                                                      const std::string& name) {
    const DeviceChoice choice =
        cli.deviceOption->count() > 0 ? DeviceChoice(cli.device) : std::nullopt;
    auto onDevice = [choice](CommandResult (*command)(Session&, const DeviceChoice&)) {
        return std::function<CommandResult(Session&)>(
            [choice, command](Session& s) { return command(s, choice); });
    };
    if (name == "list") return [](Session& s) { return korvtool::ListDevices(s); };
    if (name == "info") return onDevice(korvtool::ShowInfo);
    if (name == "audio set") {
        const korvtool::AudioControl& control = ControlNamed(cli.controlName);
        const uint8_t value = korvtool::ParseControlValue(control.name, control.kind, cli.valueText);
        return [choice, &control, value](Session& s) {
            return korvtool::SetAudio(s, choice, control, value);
        };
    }
    if (name == "audio") return onDevice(korvtool::ShowAudio);
    if (name == "hdmi-info") return onDevice(korvtool::ShowHdmiInfo);
    if (name == "usb-info") return onDevice(korvtool::ShowUsbInfo);
    if (name == "mcu-info") return onDevice(korvtool::ShowMcuInfo);
    if (name == "save") return onDevice(korvtool::SaveParameters);
    if (name == "boot-mode check") return onDevice(korvtool::CheckBootMode);
    if (name == "boot-mode enter") return onDevice(korvtool::EnterBootMode);
    if (name == "boot-mode") {
        throw korvtool::UsageError(
            "boot-mode needs check or enter (run 'korvtool boot-mode --help')");
    }
    if (name == "leds set") {
        const uint8_t pattern = ParseLedPattern(cli.ledPattern);
        return [choice, pattern](Session& s) { return korvtool::SetLedPattern(s, choice, pattern); };
    }
    if (name == "leds") throw korvtool::UsageError("leds needs set PATTERN (run 'korvtool leds --help')");
    if (name == "dump-log") {
        const std::string folder = cli.folder;
        return [choice, folder](Session& s) { return korvtool::DumpLog(s, choice, folder); };
    }
    if (name == "backup") {
        const std::string file = cli.file;
        const bool json = cli.json;
        return [choice, file, json](Session& s) {
            korvtool::ProgressDisplay display(DisplayModeFor(json), stdout, stderr);
            korvtool::CommandResult result = korvtool::RunBackup(s, choice, file, display);
            result.jsonStreamed = json;
            return result;
        };
    }
    if (name == "update usb" || name == "update mcu") {
        korvtool::UpdateRequest request;
        request.mcu = name == "update mcu";
        request.file = cli.file;
        request.force = cli.force;
        request.backupFile = cli.backupFile;
        const CLI::Option* wait = request.mcu ? cli.waitReplugMcu : cli.waitReplugOption;
        if (wait->count() > 0) request.waitReplugSeconds = ParseSeconds(cli.waitReplugText);
        for (const std::string& spec : cli.ledPhases) request.ledPhases.push_back(ParseLedPhase(spec));
        const bool json = cli.json;
        return [choice, request, json](Session& s) {
            korvtool::ProgressDisplay display(DisplayModeFor(json), stdout, stderr);
            s.SetLinePrinter([&display](const std::string& line) { display.Note(line); });
            try {
                korvtool::CommandResult result = korvtool::RunUpdate(s, choice, request, display);
                s.SetLinePrinter(nullptr);
                result.jsonStreamed = json;
                return result;
            } catch (...) {
                s.SetLinePrinter(nullptr);
                throw;
            }
        };
    }
    if (name == "update")
        throw korvtool::UsageError("update needs usb FILE or mcu FILE (run 'korvtool update --help')");
    if (name == "station") {
        if (cli.deviceOption->count() > 0)
            throw korvtool::UsageError("station runs on every unit attached: leave out --device");
        korvtool::station::StationOptions options = cli.station;
        if (cli.stationWaitOption->count() > 0)
            options.recipe.waitReplugSeconds = ParseSeconds(cli.stationWait);
        options.verbose = cli.verbose;
        std::error_code error;
        if (cli.useVirtual) {
            options.settingsArguments = {"--virtual"};
        } else {
            const std::string config = cli.configOption->count() > 0 ? cli.configPath : "setting.cfg";
            const std::filesystem::path absolute = std::filesystem::absolute(config, error);
            options.settingsArguments = {"--config", error ? config : absolute.string()};
        }
        const korvtool::DisplayMode mode = DisplayModeFor(cli.json);
        return [options, mode](Session& s) {
            CommandResult result;
            result.jsonStreamed = true;
            result.status = korvtool::station::RunStation(s, options, mode);
            return result;
        };
    }
    if (name == "station-unit") {
        korvtool::station::UnitJob job = cli.unitJob;
        if (cli.deviceOption->count() == 0) throw korvtool::UsageError("station-unit needs --device LOCATION");
        job.location = cli.device;
        if (cli.unitWaitOption->count() > 0) job.recipe.waitReplugSeconds = cli.unitWait;
        return [job](Session& s) {
            CommandResult result;
            result.jsonStreamed = true;
            result.status = korvtool::station::RunStationUnit(s, job);
            return result;
        };
    }
    if (name == "make-image") {
        throw korvtool::UsageError(
            "make-image needs usb FILE or mcu FILE (run 'korvtool make-image --help')");
    }
    throw korvtool::UsageError("no command given: run 'korvtool --help' for the commands");
}

// korvtool history: the records the filters select, as a table, JSON or
// CSV. Needs neither the library nor a device.
int ShowHistory(const CommandLine& cli) {
    korvtool::HistoryFilter filter = cli.historyFilter;
    const std::pair<const std::string&, std::optional<std::string>*> times[] = {
        {cli.historySince, &filter.since}, {cli.historyUntil, &filter.until}};
    for (const auto& [text, bound] : times) {
        if (text.empty()) continue;
        *bound = korvtool::HistoryTimeBound(text, bound == &filter.until);
        if (!*bound)
            throw korvtool::UsageError("a time must be a UTC date (2026-11-23) or date and time "
                                       "(2026-11-23T14:05:09Z), not '" + text + "'");
    }
    if (cli.json && cli.historyCsv) throw korvtool::UsageError("--json and --csv exclude each other");
    const std::filesystem::path file = korvtool::HistoryPath();
    korvtool::HistoryDatabase database;
    std::vector<ordered_json> entries;
    std::string problem;
    if (!database.Open(file, problem) || !database.Read(filter, entries, problem))
        throw korvtool::Failure(problem);
    if (database.ImportSkipped() > 0)
        std::fprintf(stderr, "korvtool: warning: the old history file had %zu line(s) that were no "
                             "history entries; they were not imported\n", database.ImportSkipped());
    if (cli.json) {
        const ordered_json doc = {{"command", "history"}, {"ok", true},
                                  {"file", file.string()}, {"entries", entries}};
        std::printf("%s\n", korvtool::JsonText(doc, 2).c_str());
    } else if (cli.historyCsv) {
#ifdef _WIN32
        // The lines end in CR LF already.
        _setmode(_fileno(stdout), _O_BINARY);
#endif
        std::fputs(korvtool::HistoryCsv(entries).c_str(), stdout);
    } else if (entries.empty()) {
        const bool filtered = filter.serial || filter.run || filter.result || filter.location ||
                              filter.since || filter.until;
        std::printf("%s (%s).\n", filtered ? "No records match" : "No records yet",
                    korvtool::Printable(file.string()).c_str());
    } else {
        std::fputs(korvtool::HistoryTable(entries).c_str(), stdout);
    }
    return korvtool::kExitSuccess;
}

}  // namespace

int main(int argc, char** argv) {
    VideoConsoleCore::platform::RestrictProgramDllSearch();
    CommandLine cli;
    try {
        cli.app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return cli.app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return cli.app.exit(e);
    } catch (const CLI::ParseError& e) {
        PrintError("", std::string(e.what()) + " (run 'korvtool --help' or 'korvtool COMMAND --help')",
                   korvtool::kExitUsage, ArgumentsAskForJson(argc, argv));
        return korvtool::kExitUsage;
    }
    if (cli.showVersion) {
        std::printf("korvtool %s\n", KORVTOOL_VERSION);
        return korvtool::kExitSuccess;
    }

    const std::string command = cli.Given();
    try {
        // Image making needs neither the library nor a device.
        if (command == "make-image usb" || command == "make-image mcu") {
            const CommandResult result = command == "make-image usb"
                                             ? korvtool::MakeUsbImage(cli.usbImage)
                                             : korvtool::MakeMcuImage(cli.mcuImage);
            if (cli.json) {
                nlohmann::ordered_json doc = {{"command", command}, {"ok", true}};
                doc.update(result.json);
                std::printf("%s\n", korvtool::JsonText(doc, 2).c_str());
            } else {
                std::fputs(korvtool::PrintableLines(result.text).c_str(), stdout);
            }
            return korvtool::kExitSuccess;
        }
        if (command == "history") return ShowHistory(cli);
        const std::function<CommandResult(Session&)> run = PrepareCommand(cli, command);
        Session session(cli.verbose);
        korvtool::SettingsSource source;
        if (cli.configOption->count() > 0) source.configPath = cli.configPath;
        source.useVirtual = cli.useVirtual;
        if (cli.force) {
            source.overrides.push_back("FW_Overwrite=99");
            std::fprintf(stderr, "korvtool: warning: --force: the file is written even if it is "
                                 "older or made for another device (FW_Overwrite=99 for this "
                                 "run only)\n");
        }
        // korvtool's USB updates hold the boot configuration word back until
        // the compare, unless the settings say otherwise (the library's own
        // default is the device's classic order).
        if (command == "update usb" || command == "station-unit")
            source.defaults.push_back("USB_Entire_Valid_Last=1");
        // A station's worker keeps the library's log: in its working
        // folder, the unit's, whose setting.cfg says so.
        if (command == "station-unit") source.overrides.push_back("EnableLocalLogging=1");
        session.Open(source);
        const CommandResult result = run(session);
        if (result.jsonStreamed) return result.status;
        if (cli.json) {
            nlohmann::ordered_json doc = {{"command", command}, {"ok", true}};
            doc.update(result.json);
            std::printf("%s\n", korvtool::JsonText(doc, 2).c_str());
        } else {
            // The commands escape each device text they quote; this keeps
            // the lines themselves from carrying a control character.
            std::fputs(korvtool::PrintableLines(result.text).c_str(), stdout);
        }
        return korvtool::kExitSuccess;
    } catch (const korvtool::ToolError& e) {
        PrintError(command, e.what(), e.status(), cli.json);
        return e.status();
    } catch (const std::exception& e) {
        PrintError(command, std::string("unexpected failure: ") + e.what(), korvtool::kExitFailure,
                   cli.json);
        return korvtool::kExitFailure;
    }
}
