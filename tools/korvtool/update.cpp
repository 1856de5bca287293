#include "update.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>

#include "errors.h"

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

}  // namespace

CommandResult RunUpdate(Session& session, const DeviceChoice& choice, const UpdateRequest& request,
                        ProgressDisplay& display) {
    const char* kind = request.mcu ? "MCU" : "USB";
    std::error_code error;
    if (!std::filesystem::is_regular_file(request.file, error)) {
        throw UsageError("the image '" + request.file + "' does not exist: give the path of a " +
                         (request.mcu ? "*.bin program image" : "*.hex flash image"));
    }
    const uintmax_t fileSize = std::filesystem::file_size(request.file, error);

    const size_t index = session.Select(choice);
    const DeviceInfo& device = session.Devices()[index];
    const std::string before =
        TakeText(request.mcu ? KORVSDK_Get_MCU_FW_Ver() : KORVSDK_Get_USB_FW_Ver());

    FirmwareCallback callback(request.mcu);
    session.BeginCall();
    const bool set = (request.mcu ? KORVSDK_Set_MCU_BinFile(request.file.c_str())
                                  : KORVSDK_Set_USB_HexFile(request.file.c_str())) != 0;
    std::string reason;
    for (const Record& record : callback.Drain())
        if (!record.fileText.empty()) reason = record.fileText;
    const std::string libraryWords = session.LastWords();
    const std::string version =
        TakeText(request.mcu ? KORVSDK_Get_MCU_BinFile_Ver() : KORVSDK_Get_USB_HexFile_Ver());
    callback.Drain();  // the getter repeats the version
    if (!set || version.empty()) {
        if (reason.empty()) reason = libraryWords.empty() ? "it is not an image" : libraryWords;
        throw Failure("'" + request.file + "' was refused: " + reason + " - " +
                      Advice(session, reason, request.mcu));
    }

    const std::string deviceName = device.vid + ":" + device.pid + " serial " + device.serial;
    display.Start({{"kind", request.mcu ? "mcu" : "usb"},
                   {"device", deviceName},
                   {"file", request.file},
                   {"file_version", version},
                   {"version_before", before},
                   {"force", request.force}});

    InterruptGuard interrupts;
    session.BeginCall();
    if ((request.mcu ? KORVSDK_Start_MCU_FwUpdate() : KORVSDK_Start_USB_FwUpdate()) == 0) {
        throw Failure(std::string("the ") + kind + " update did not start" +
                      Quote(session.LastWords()) + ": re-plug the device and try again");
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
        throw Failure(std::string("the ") + kind + " update failed: " +
                      (message.empty() ? "the library gave no reason" : message) +
                      (stepError.empty() || stepError == message ? "" : " (" + stepError + ")") +
                      " - re-plug the device and run the update again; it still takes one");
    }
    CommandResult result;
    result.json = {{"kind", request.mcu ? "mcu" : "usb"}, {"device", deviceName},
                   {"file", request.file},  {"file_version", version},
                   {"version_before", before}, {"state", state}, {"message", message}};
    result.text = std::string("Update completed: ") + kind + " firmware " + version +
                  " written to " + deviceName + " (it had " + before +
                  ").\nRe-plug the device to run the new firmware.\n";
    return result;
}

}  // namespace korvtool
