#include "session.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string_view>
#include <system_error>

#include "errors.h"
#include "safe_text.h"
#include "virtual_settings.h"

namespace korvtool {

namespace {

// The library calls plain C functions; they reach the one session of the
// process through this record. An update's texts come from the library's
// own thread, hence the lock.
struct Channel {
    std::mutex mutex;
    bool verbose = false;
    std::function<void(const std::string&)> printer;
    std::vector<std::string> debugTexts;
    std::vector<std::string> messages;
    std::string runningUsbVersion;  // of the last version record
};
Channel g_channel;

void OnDebugText(const char* text) {
    if (text == nullptr) return;
    std::string copy(text);
    std::lock_guard lock(g_channel.mutex);
    if (g_channel.verbose) {
        // One "[library]" line per line of the text, whether or not the
        // library ended it with a newline.
        size_t start = 0;
        while (start < copy.size()) {
            size_t end = copy.find('\n', start);
            if (end == std::string::npos) end = copy.size();
            // The library's texts quote what the device sent: escaped.
            std::string_view part(copy.data() + start, end - start);
            if (!part.empty() && part.back() == '\r') part.remove_suffix(1);
            const std::string line = "[library] " + Printable(part);
            if (g_channel.printer) {
                g_channel.printer(line);
            } else {
                std::fprintf(stderr, "%s\n", line.c_str());
            }
            start = end + 1;
        }
        std::fflush(stderr);
    }
    g_channel.debugTexts.push_back(std::move(copy));
}

void OnDeviceState(DeviceStateInfo* info) {
    // The record belongs to the library: keep a copy of the text only.
    if (info == nullptr || info->message == nullptr || info->message[0] == '\0') return;
    std::lock_guard lock(g_channel.mutex);
    g_channel.messages.emplace_back(info->message);
    // The USB version record carries the stored version first and the
    // running one second.
    if (std::string_view(info->message).rfind("USB FW current version", 0) == 0)
        g_channel.runningUsbVersion = info->text1 != nullptr ? info->text1 : "";
}

// `text` with the lines of the keys that `overrides` set replaced by them.
std::string WithOverrides(const std::string& text, const std::vector<std::string>& overrides) {
    std::istringstream in(text);
    std::string out;
    for (std::string line; std::getline(in, line);) {
        bool replaced = false;
        for (const std::string& o : overrides)
            replaced = replaced || line.compare(0, o.find('=') + 1, o, 0, o.find('=') + 1) == 0;
        if (!replaced) out += line + "\n";
    }
    for (const std::string& o : overrides) out += o + "\n";
    return out;
}

std::string ReadWhole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string TrimLines(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
        text.pop_back();
    size_t begin = 0;
    while (begin < text.size() && (text[begin] == '\n' || text[begin] == ' ')) ++begin;
    text.erase(0, begin);
    for (char& c : text)
        if (c == '\n' || c == '\r') c = ' ';
    return text;
}

std::string SafeText(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

std::string TakeText(char* text) {
    std::string copy = text != nullptr ? text : "";
    KORVSDK_Free_PeCHAR(&text);
    return copy;
}

std::string Quote(const std::string& words) {
    return words.empty() ? "" : " (the library says: " + words + ")";
}

Session::Session(bool verbose) {
    g_channel.verbose = verbose;
    // Installed whatever the verbosity: without it the library writes its
    // texts to standard error on its own.
    KORVSDK_Set_Debug_Output_Handler(OnDebugText);
    KORVSDK_Open_CB_Device_StateInfo(OnDeviceState);
}

// After the session the library still says goodbye as it unloads (the
// update lights' threads end then); korvtool's output is finished, and its
// own objects may be gone by that time.
static void Quiet(const char*) {}

Session::~Session() {
    KORVSDK_Free_DeviceList(&list_, &count_);
    KORVSDK_Close_CB_Device_StateInfo();
    KORVSDK_Set_Debug_Output_Handler(Quiet);
}

void Session::Open(const SettingsSource& source) {
    BeginCall();
    std::string path;  // the user's file, handed on as it is when nothing is added
    if (source.useVirtual) {
        settingsName_ = "the built-in virtual settings";
        settingsText_ = BuiltInVirtualSettings();
    } else {
        // The library falls back to setting.cfg in the working folder when
        // its path cannot be opened; the tool rather says what is missing.
        path = source.configPath.value_or("setting.cfg");
        std::error_code error;
        if (!std::filesystem::is_regular_file(path, error)) {
            if (source.configPath) {
                throw UsageError("the settings file '" + path +
                                 "' does not exist: give the path of a setting.cfg");
            }
            throw UsageError("there is no setting.cfg in the working folder: give one with "
                             "--config PATH, or try the virtual device with --virtual");
        }
        settingsName_ = path;
        settingsText_ = ReadWhole(path);
    }
    bool changed = !source.overrides.empty();
    if (changed) settingsText_ = WithOverrides(settingsText_, source.overrides);
    for (const std::string& line : source.defaults) {
        if (Setting(line.substr(0, line.find('=')))) continue;
        if (!settingsText_.empty() && settingsText_.back() != '\n') settingsText_ += '\n';
        settingsText_ += line + "\n";
        changed = true;
    }
    bool initialised = false;
    if (source.useVirtual || changed) {
        // A copy: the user's file stays as it is.
        const TemporarySettingsFile file(settingsText_);
        initialised = KORVSDK_Init(file.Path().c_str()) != 0;
    } else {
        initialised = KORVSDK_Init(path.c_str()) != 0;
    }
    if (!initialised) {
        throw Failure("the library could not be initialised" + Quote(LastWords()));
    }
}

const std::vector<DeviceInfo>& Session::Scan() {
    KORVSDK_Free_DeviceList(&list_, &count_);
    devices_.clear();
    BeginCall();
    if (!KORVSDK_Scan_DeviceList(&list_, &count_)) {
        throw Failure("the device scan failed: the system's device list could not be read" +
                      Quote(LastWords()) + "; run again with --verbose for details");
    }
    for (uint16_t i = 0; i < count_; ++i) {
        const DeviceEntry& entry = list_[i];
        char* location = KORVSDK_Get_Device_Location(&entry);
        const std::string place = location != nullptr ? SafeText(location) : std::string();
        KORVSDK_Free_PeCHAR(&location);
        devices_.push_back({SafeText(entry.description), SafeText(entry.vid),
                            SafeText(entry.pid), SafeText(entry.instance), place});
    }
    return devices_;
}

size_t Session::Select(const std::optional<std::string>& choice) {
    if (Scan().empty()) {
        throw Failure("no capture device found: check that it is plugged in and that the "
                      "DevIDNum and DevDrvID<n> entries of " + settingsName_ +
                      " accept its VID and PID");
    }
    const size_t index = ChooseDevice(devices_, choice);
    LockDevice(devices_[index]);
    BeginCall();
    if (!KORVSDK_Select_Device(&list_[index])) {
        const DeviceInfo& device = devices_[index];
        // When the user may not open the device's node (Linux without the
        // udev rules), the library's last words name the node and the fix;
        // re-plugging alone would not help.
        const std::string words = LastWords();
        const bool noPermission = words.find(": permission denied.") != std::string::npos;
        throw Failure("device " + std::to_string(index) + " (serial " + device.serial +
                      ") could not be opened" + Quote(words) +
                      (noPermission ? std::string()
                                    : ": re-plug it and try again, --verbose shows the "
                                      "library's messages"));
    }
    return index;
}

void Session::LockDevice(const DeviceInfo& device) {
    // A virtual device lives in this process alone.
    if (Setting("DeviceBackend") == "virtual") return;
    const std::string key = device.vid + "-" + device.pid + "-" + device.serial;
    if (lock_ && lockKey_ == key) return;
    auto lock = std::make_unique<DeviceLock>(key);
    if (!lock->Held() && lock->Problem().empty()) {
        throw Failure("the device (serial " + device.serial + ") is in use by another korvtool (" +
                      lock->Name() + "): wait until it has finished, then try again");
    }
    // Without the lock nothing keeps a second korvtool off the device, and
    // a lock another user can hold or replace is none: refused, not warned.
    if (!lock->Held()) {
#ifdef _WIN32
        const char* advice = "end the program that holds that name, then try again";
#else
        const char* advice = "remove what is in the way, or set XDG_RUNTIME_DIR to a private "
                             "folder of your own";
#endif
        throw Failure("the device lock cannot be taken (" + lock->Problem() +
                      "): korvtool uses no device without it - " + advice);
    }
    lock_ = std::move(lock);
    lockKey_ = key;
}

std::optional<std::string> Session::Setting(const std::string& key) const {
    std::istringstream in(settingsText_);
    std::optional<std::string> value;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.size() > key.size() + 1 && line.compare(0, key.size(), key) == 0 &&
            line[key.size()] == '=')
            value = line.substr(key.size() + 1);
    }
    return value;
}

void Session::SetLinePrinter(std::function<void(const std::string&)> printer) {
    std::lock_guard lock(g_channel.mutex);
    g_channel.printer = std::move(printer);
}

void Session::BeginCall() {
    std::lock_guard lock(g_channel.mutex);
    g_channel.debugTexts.clear();
    g_channel.messages.clear();
    g_channel.runningUsbVersion.clear();
}

bool Session::Said(const std::string& words) const {
    std::lock_guard lock(g_channel.mutex);
    for (const std::string& text : g_channel.debugTexts)
        if (text.find(words) != std::string::npos) return true;
    return false;
}

std::string Session::RunningUsbVersion() const {
    std::lock_guard lock(g_channel.mutex);
    return g_channel.runningUsbVersion;
}

const std::vector<std::string>& Session::Messages() const { return g_channel.messages; }

std::string Session::LastWords() const {
    std::lock_guard lock(g_channel.mutex);
    std::string words;
    for (const std::string& message : g_channel.messages) {
        if (!words.empty()) words += "; ";
        words += TrimLines(message);
    }
    if (!words.empty()) return words;
    for (auto it = g_channel.debugTexts.rbegin(); it != g_channel.debugTexts.rend(); ++it) {
        std::string text = TrimLines(*it);
        if (!text.empty()) return text;
    }
    return "";
}

}  // namespace korvtool
