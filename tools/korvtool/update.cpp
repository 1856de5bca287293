#include "update.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>

#include "device_reports.h"
#include "errors.h"
#include "history.h"
#include "safe_text.h"

namespace korvtool {

using nlohmann::ordered_json;

namespace {

// ---- Records of the firmware-update callback --------------------------------

struct Record {
    std::string fileText;  // the USB or MCU file text
    std::string state;
    std::string message;
    double percent = 0;
};

// The callback runs on the caller's thread during the file check and on the
// library's update thread afterwards; the main thread takes the records.
struct RecordQueue {
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<Record> records;
    bool mcu = false;
};
RecordQueue g_queue;

std::string Text(const char* text) { return text != nullptr ? text : ""; }

void OnFirmwareRecord(DevFwUpdateStateInfo* info) {
    if (info == nullptr) return;
    Record record;
    record.fileText = Text(g_queue.mcu ? info->mcuFileText : info->usbFileText);
    record.state = Text(info->state);
    record.message = Text(info->message);
    record.percent = info->percent;
    {
        std::lock_guard lock(g_queue.mutex);
        g_queue.records.push_back(std::move(record));
    }
    g_queue.ready.notify_one();
}

// Registered for the length of one update.
class FirmwareCallback {
public:
    explicit FirmwareCallback(bool mcu) {
        std::lock_guard lock(g_queue.mutex);
        g_queue.records.clear();
        g_queue.mcu = mcu;
        KORVSDK_Open_CB_DevFwUpdate_StateInfo(OnFirmwareRecord);
    }
    ~FirmwareCallback() { KORVSDK_Close_CB_DevFwUpdate_StateInfo(); }
    FirmwareCallback(const FirmwareCallback&) = delete;
    FirmwareCallback& operator=(const FirmwareCallback&) = delete;

    std::optional<Record> Next(std::chrono::milliseconds wait) {
        std::unique_lock lock(g_queue.mutex);
        if (!g_queue.ready.wait_for(lock, wait, [] { return !g_queue.records.empty(); }))
            return std::nullopt;
        Record record = std::move(g_queue.records.front());
        g_queue.records.pop_front();
        return record;
    }
    std::vector<Record> Drain() {
        std::lock_guard lock(g_queue.mutex);
        std::vector<Record> all(g_queue.records.begin(), g_queue.records.end());
        g_queue.records.clear();
        return all;
    }
};

// ---- Ctrl-C -------------------------------------------------------------------

// Lock-free, so safe in a signal handler; on Windows the handler runs on a
// thread of its own.
std::atomic<int> g_interrupts{0};
static_assert(std::atomic<int>::is_always_lock_free);
extern "C" void OnInterrupt(int) {
    ++g_interrupts;
    std::signal(SIGINT, OnInterrupt);  // some C libraries reset the handler
}

// Ctrl-C is caught while the device is written: a killed korvtool would end
// the library's write in the middle.
class InterruptGuard {
public:
    InterruptGuard() {
        g_interrupts = 0;
        previous_ = std::signal(SIGINT, OnInterrupt);
    }
    ~InterruptGuard() { std::signal(SIGINT, previous_ == SIG_ERR ? SIG_DFL : previous_); }
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

private:
    void (*previous_)(int) = SIG_DFL;
};

// ---- The file check -----------------------------------------------------------

// What to do about a refused file, after the library's reason.
std::string Advice(const Session& session, const std::string& reason, bool mcu) {
    if (reason.find("lower") != std::string::npos) {
        if (!session.Setting("FW_Overwrite"))
            return session.SettingsName() + " has no FW_Overwrite, which refuses every file: "
                   "add FW_Overwrite=0 to accept images newer than the device's";
        return "use an image with a newer version, or add --force to write it anyway";
    }
    if (reason.find("Audio Codec") != std::string::npos)
        return "use the image made for this board's audio codec";
    if (reason.find("not match") != std::string::npos)
        return std::string("this image is made for another device: use the ") +
               (mcu ? "*.bin" : "*.hex") + " made for this one ('korvtool info' shows it)";
    return std::string("check that it is a ") +
           (mcu ? "microcontroller program image (*.bin)" : "USB flash image (*.hex)");
}

// How many bytes a phase moves, when korvtool can know it: the whole image
// is written in whole-image mode; the microcontroller gets every page of
// the file.
std::optional<double> PhaseBytes(const Session& session, const UpdateRequest& request,
                                 uintmax_t fileSize, const std::string& phase) {
    if (request.mcu) return static_cast<double>((fileSize + 127) / 128 * 128);
    const std::optional<std::string> area = session.Setting("USB_Burn_Area");
    const long mode = area ? std::strtol(area->c_str(), nullptr, 10) : 0;
    if (phase == "Writing" && (mode < 1 || mode > 4)) return static_cast<double>(fileSize);
    return std::nullopt;
}

std::string DeviceName(const DeviceInfo& device) {
    return device.vid + ":" + device.pid + " serial " + device.serial;
}

// One line of the update history per update or backup, whatever its end.
class HistoryLine {
public:
    HistoryLine(const DeviceInfo& device, const char* kind, const std::string& file, bool record)
        : record_(record), entry_({{"time", UtcTimeNow()},
                  {"serial", device.serial},
                  {"vid_pid", device.vid + ":" + device.pid},
                  {"kind", kind},
                  {"file", file}}) {}
    ordered_json& operator[](const char* key) { return entry_[key]; }
    void Write(ProgressDisplay& display, const std::string& result, const std::string& message) {
        if (!record_) return;
        entry_["result"] = result;
        entry_["message"] = message;
        std::string problem;
        if (!AppendHistory(HistoryPath(), entry_, problem))
            display.Note("korvtool: warning: " + problem);
    }

private:
    bool record_;
    ordered_json entry_;
};

// Reads the selected device's flash into `file`; the library's final
// message, or a Failure.
std::string ReadFlashInto(Session& session, FirmwareCallback& callback, const std::string& file,
                          ProgressDisplay& display) {
    std::atomic<bool> done{false};
    bool read = false;
    session.BeginCall();
    std::thread reader([&] {
        read = KORVSDK_Read_USB_Flash(file.c_str()) != 0;
        done = true;
    });
    std::string state, message;
    for (;;) {
        const bool finished = done;  // before the wait: no record can come after it
        const std::optional<Record> record = callback.Next(std::chrono::milliseconds(100));
        if (record) {
            const std::string phase = PhaseOf(record->state, record->message, false);
            if (!phase.empty()) display.Progress(phase, record->percent, std::nullopt);
            if (record->state == "ReadCompleted" || record->state == "ReadFailed") {
                state = record->state;
                message = record->message;
            }
            continue;
        }
        if (finished) break;
    }
    reader.join();
    const bool ok = read && state == "ReadCompleted";
    display.End(ok, state.empty() ? "ReadFailed" : state, message);
    if (!ok) {
        if (message.empty()) message = session.LastWords();
        while (!message.empty() && (message.back() == '.' || message.back() == '\n'))
            message.pop_back();
        throw Failure("the backup failed" + (message.empty() ? std::string() : ": " + message) +
                      " - nothing was written to '" + file + "'");
    }
    return message;
}

// A backup of the selected device as korvtool runs it: announced on the
// display, read, and kept in the history whatever its end.
std::string BackUp(Session& session, FirmwareCallback& callback, const DeviceInfo& device,
                   const std::string& versionBefore, const std::string& file,
                   ProgressDisplay& display, bool record) {
    display.Start({{"kind", "backup"}, {"device", DeviceName(device)}, {"file", file}});
    HistoryLine history(device, "backup", file, record);
    history["version_before"] = versionBefore;
    try {
        const std::string message = ReadFlashInto(session, callback, file, display);
        history.Write(display, "completed", message);
        return message;
    } catch (const ToolError& e) {
        history.Write(display, "failed", e.what());
        throw;
    }
}

// A firmware version the library gave, in korvtool's one form for its
// kind: USB the 16-character text a flash image carries and the device
// keeps in its flash, as it comes; MCU "tt.vv.cc" (SplitMcuVersion). A text of
// another shape is kept as it came.
std::string VersionForm(const std::string& text, bool mcu) {
    if (!mcu) return text;
    const std::optional<McuVersion> split = SplitMcuVersion(text);
    return split ? split->version : text;
}

// The version the device runs, for comparing with the image's: USB
// "xx.xx.xx.xx" (the bridge's running-version registers, which the image's
// text begins with), MCU "tt.vv.cc".
std::string RunningVersion(Session& session, bool mcu) {
    session.BeginCall();
    const std::string text = TakeText(mcu ? KORVSDK_Get_MCU_FW_Ver() : KORVSDK_Get_USB_FW_Ver());
    return mcu ? VersionForm(text, true) : session.RunningUsbVersion();
}

bool RunsVersion(const std::string& running, const std::string& fileVersion, bool mcu) {
    const auto lower = [](std::string text) {
        for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return text;
    };
    if (mcu) return running.size() >= 5 && fileVersion.size() >= 5 &&
                    running.substr(3, 2) == lower(fileVersion.substr(3, 2));
    return !running.empty() && lower(fileVersion).rfind(running, 0) == 0;
}

}  // namespace

// After a completed update: waits for the device to be re-plugged (gone
// from the scan, or its open handle dead: a quick re-plug can slip between
// two scans) and to come back with the same serial number, then checks that
// it runs the image's version. Returns that version; throws a Failure when
// the time is up. The checks while waiting move no flash data, so that they
// cost the device nothing.
std::string ConfirmAfterReplug(Session& session, const DeviceInfo& device, const DeviceChoice& choice,
                               const UpdateRequest& request, const std::string& fileVersion,
                               const std::string& before, ProgressDisplay& display) {
    const int seconds = *request.waitReplugSeconds;
    display.Event({{"event", "replug"}, {"serial", device.serial}, {"seconds", seconds}},
                  "Re-plug the device now: waiting up to " + std::to_string(seconds) +
                      " s for serial " + device.serial + " to come back...");
    const DeviceChoice same = device.serial.empty() ? choice : DeviceChoice(device.serial);
    const auto present = [&] {
        for (const DeviceInfo& found : session.Scan())
            if (same ? found.serial == *same : true) return true;
        return false;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    bool gone = false;
    std::string seen;  // the version it ran when it was back
    for (;; std::this_thread::sleep_for(std::chrono::milliseconds(250))) {
        const bool late = std::chrono::steady_clock::now() >= deadline;
        try {
            if (!present()) {
                gone = true;
            } else if (!gone) {
                session.BeginCall();
                // The query answers even when its transfer failed; the
                // library says so in its text.
                gone = KORVSDK_Get_HDMI_Info() == 0 || session.Said("Couldn't execute");
            } else {
                session.Select(same);
                seen = RunningVersion(session, request.mcu);
                if (RunsVersion(seen, fileVersion, request.mcu)) {
                    // Said as every other USB version: the text the device
                    // keeps in its flash, which it read again at selection.
                    if (!request.mcu) {
                        session.BeginCall();
                        const std::string stored = TakeText(KORVSDK_Get_USB_FW_Ver());
                        if (!stored.empty()) seen = stored;
                    }
                    display.Event({{"event", "confirmed"}, {"serial", device.serial}, {"version", seen}},
                                  "Confirmed: serial " + device.serial + " is back and runs " +
                                      seen + ".");
                    return seen;
                }
                if (!seen.empty()) break;
            }
        } catch (const ToolError&) {
            // Not there, or not ready to be opened yet: the next round.
        }
        if (late) break;
    }
    const std::string time = std::to_string(seconds) + " s";
    if (!gone) {
        throw Failure("the device (serial " + device.serial + ") was not re-plugged within " + time +
                      ": it runs the new firmware only after a re-plug - re-plug it and check "
                      "with 'korvtool info'");
    }
    if (seen.empty()) {
        throw Failure("the device (serial " + device.serial + ") did not come back within " + time +
                      ": plug it in again, then check with 'korvtool info'");
    }
    throw Failure("the device (serial " + device.serial + ") came back running " + seen +
                  (request.mcu ? "" : " (its running-version registers)") + ", not the image's " + fileVersion + " (it had " + before +
                  "): the new firmware did not start - run the update again");
}

std::string InstalledVersion(Session& session, bool mcu) {
    session.BeginCall();
    return VersionForm(TakeText(mcu ? KORVSDK_Get_MCU_FW_Ver() : KORVSDK_Get_USB_FW_Ver()), mcu);
}

namespace {

// A file to give the library, or a UsageError.
void RequireImageFile(const UpdateRequest& request) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(request.file, error)) {
        throw UsageError("the image '" + request.file + "' does not exist: give the path of a " +
                         (request.mcu ? "*.bin program image" : "*.hex flash image"));
    }
}

// Gives the library the image for the selected device: its version in
// korvtool's form, or "" with the library's reason for refusing it in
// `reason`.
std::string SetImage(Session& session, FirmwareCallback& callback, const UpdateRequest& request,
                     std::string& reason) {
    session.BeginCall();
    const bool set = (request.mcu ? KORVSDK_Set_MCU_BinFile(request.file.c_str())
                                  : KORVSDK_Set_USB_HexFile(request.file.c_str())) != 0;
    for (const Record& record : callback.Drain())
        if (!record.fileText.empty()) reason = record.fileText;
    const std::string libraryWords = session.LastWords();
    const std::string version = VersionForm(
        TakeText(request.mcu ? KORVSDK_Get_MCU_BinFile_Ver() : KORVSDK_Get_USB_HexFile_Ver()),
        request.mcu);
    callback.Drain();  // the getter repeats the version
    if (set && !version.empty()) return version;
    if (reason.empty()) reason = libraryWords.empty() ? "it is not an image" : libraryWords;
    return "";
}

}  // namespace

ImageCheck CheckImage(Session& session, const DeviceChoice& choice, const UpdateRequest& request) {
    RequireImageFile(request);
    session.Select(choice);
    ImageCheck check;
    check.before = InstalledVersion(session, request.mcu);
    FirmwareCallback callback(request.mcu);
    std::string reason;
    check.fileVersion = SetImage(session, callback, request, reason);
    if (check.fileVersion.empty()) {
        throw Failure("'" + request.file + "' was refused: " + reason + " - " +
                      Advice(session, reason, request.mcu));
    }
    check.upToDate = RunsVersion(RunningVersion(session, request.mcu), check.fileVersion, request.mcu);
    return check;
}

CommandResult RunUpdate(Session& session, const DeviceChoice& choice, const UpdateRequest& request,
                        ProgressDisplay& display) {
    const char* kind = request.mcu ? "MCU" : "USB";
    RequireImageFile(request);
    std::error_code error;
    const uintmax_t fileSize = std::filesystem::file_size(request.file, error);

    const size_t index = session.Select(choice);
    const DeviceInfo device = session.Devices()[index];
    const std::string before = VersionForm(
        TakeText(request.mcu ? KORVSDK_Get_MCU_FW_Ver() : KORVSDK_Get_USB_FW_Ver()), request.mcu);
    for (const LedPhase& led : request.ledPhases) {
        session.BeginCall();
        if (!KORVSDK_Set_Update_GPIO_LED_Lights(led.phase, led.pattern, led.period))
            throw Failure("the LED phase could not be set" + Quote(session.LastWords()) +
                          " - only boards with a GPIO LED have one");
    }
    HistoryLine history(device, request.mcu ? "mcu" : "usb", request.file, request.recordHistory);
    history["version_before"] = before;

    FirmwareCallback callback(request.mcu);
    std::string reason;
    const std::string version = SetImage(session, callback, request, reason);
    history["file_version"] = version;
    if (version.empty()) {
        history.Write(display, "refused", reason);
        throw Failure("'" + request.file + "' was refused: " + reason + " - " +
                      Advice(session, reason, request.mcu));
    }

    const std::string deviceName = DeviceName(device);
    if (!request.backupFile.empty()) {
        try {
            BackUp(session, callback, device, before, request.backupFile, display,
                   request.recordHistory);
        } catch (const ToolError& e) {
            throw Failure(std::string(e.what()) + "; the update was not started");
        }
    }

    display.Start({{"kind", request.mcu ? "mcu" : "usb"},
                   {"device", deviceName},
                   {"file", request.file},
                   {"file_version", version},
                   {"version_before", before},
                   {"force", request.force}});

    InterruptGuard interrupts;
    session.BeginCall();
    if ((request.mcu ? KORVSDK_Start_MCU_FwUpdate() : KORVSDK_Start_USB_FwUpdate()) == 0) {
        const std::string words = session.LastWords();
        history.Write(display, "failed", words.empty() ? "the update did not start" : words);
        throw Failure(std::string("the ") + kind + " update did not start" + Quote(words) +
                      ": re-plug the device and try again");
    }

    std::string state, message, stepError;
    int warned = 0;
    auto idleSince = std::chrono::steady_clock::now();
    for (;;) {
        if (g_interrupts != warned) {
            warned = g_interrupts.load();
            display.Note("korvtool: the device is being written and the update must finish: "
                         "stopping now could leave it unable to start. Waiting for the end...");
        }
        const std::optional<Record> record = callback.Next(std::chrono::milliseconds(100));
        if (record) {
            const std::string phase = PhaseOf(record->state, record->message, request.mcu);
            if (!phase.empty())
                display.Progress(phase, phase == "Preparing" ? 0.0 : record->percent,
                                 PhaseBytes(session, request, fileSize, phase));
            if (record->state.empty() && !record->message.empty()) stepError = record->message;
            if (record->state == "UpdateCompleted" || record->state == "UpdateFailed") {
                state = record->state;
                message = record->message;
            }
            continue;
        }
        // The end is the final record and the library's update thread gone.
        if (KORVSDK_Check_IsFirmwareUpdating() == 1) {
            idleSince = std::chrono::steady_clock::now();
            continue;
        }
        if (!state.empty()) break;
        if (std::chrono::steady_clock::now() - idleSince > std::chrono::seconds(5)) {
            state = "UpdateFailed";
            message = "the update ended without a result";
            break;
        }
    }

    const bool ok = state == "UpdateCompleted";
    if (!ok && message.empty()) message = stepError;
    display.End(ok, state, message);
    if (!ok) {
        history.Write(display, "failed", message);
        throw Failure(std::string("the ") + kind + " update failed: " +
                      (message.empty() ? "the library gave no reason" : message) +
                      (stepError.empty() || stepError == message ? "" : " (" + stepError + ")") +
                      " - re-plug the device and run the update again; it still takes one");
    }

    CommandResult result;
    result.json = {{"kind", request.mcu ? "mcu" : "usb"}, {"device", deviceName},
                   {"file", request.file},  {"file_version", version},
                   {"version_before", before}, {"state", state}, {"message", message}};
    if (!request.waitReplugSeconds) {
        history.Write(display, "completed", message);
        result.text = std::string("Update completed: ") + kind + " firmware " +
                      Printable(version) + " written to " + Printable(deviceName) + " (it had " +
                      Printable(before) + ").\nRe-plug the device to run the new firmware.\n";
        return result;
    }
    std::string after;
    try {
        after = ConfirmAfterReplug(session, device, choice, request, version, before, display);
    } catch (const ToolError& e) {
        history.Write(display, "not confirmed", e.what());
        throw;
    }
    history["version_after"] = after;
    history.Write(display, "confirmed", message);
    result.json["version_after"] = after;
    result.text = std::string("Update confirmed: ") + Printable(deviceName) + " runs " + kind +
                  " firmware " + Printable(after) + " (it had " + Printable(before) + ").\n";
    return result;
}

CommandResult RunBackup(Session& session, const DeviceChoice& choice, const std::string& file,
                        ProgressDisplay& display, bool recordHistory) {
    const size_t index = session.Select(choice);
    const DeviceInfo device = session.Devices()[index];
    const std::string deviceName = DeviceName(device);
    const std::string version = TakeText(KORVSDK_Get_USB_FW_Ver());
    FirmwareCallback callback(false);
    const std::string message =
        BackUp(session, callback, device, version, file, display, recordHistory);
    CommandResult result;
    result.json = {{"kind", "backup"}, {"device", deviceName}, {"file", file},
                   {"usb_firmware", version}, {"state", "ReadCompleted"}, {"message", message}};
    result.text = "Backup completed: the USB flash of " + Printable(deviceName) + " (firmware " +
                  Printable(version) + ") is in " + file + ".\nPut it back with: korvtool update usb " +
                  file + " --force\n";
    return result;
}

}  // namespace korvtool
