#include "standin_system.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cwchar>

#include "settings/settings_file.h"
#include "virtual/device/virtual_device_config.h"

namespace korvsdk_standin {

namespace {

std::atomic<StandInSystem*> g_made{nullptr};

constexpr const wchar_t* kFolderPrefix = L"korvsdk-standin-";
// The USB device class, the part of every USB driver key before the number.
constexpr const wchar_t* kUsbClassKey = L"{36fc9e60-c465-11cf-8056-444553540000}\\";
constexpr unsigned long kUsb110 = 1, kUsb200 = 2, kUsb300 = 4;

// The stand-ins have no caller to report a broken set-up to: say why and stop.
[[noreturn]] void Fail(const char* what, const std::wstring& detail) {
    std::fprintf(stderr, "stand-in system: %s: %ls (error %lu)\n", what, detail.c_str(),
                 GetLastError());
    std::fflush(stderr);
    std::abort();
}

std::wstring FinalPath(HANDLE handle) {
    std::vector<wchar_t> buffer(MAX_PATH + 1);
    for (;;) {
        const DWORD length =
            GetFinalPathNameByHandleW(handle, buffer.data(), static_cast<DWORD>(buffer.size()),
                                      FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
        if (length == 0) return std::wstring();
        if (length < buffer.size()) return std::wstring(buffer.data(), length);
        buffer.resize(length + 1);  // too small: `length` counts the terminator
    }
}

std::wstring Hex4(uint16_t value) {
    wchar_t text[8];
    std::swprintf(text, 8, L"%04X", static_cast<unsigned>(value));
    return text;
}

bool ProcessAlive(DWORD pid) {
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, pid);
    if (process == nullptr) return false;
    const bool alive = WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
    CloseHandle(process);
    return alive;
}

// Removes the files of a folder (no subfolders are made) and the folder.
void RemoveFolder(const std::wstring& folder) {
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
                DeleteFileW((folder + L"\\" + found.cFileName).c_str());
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }
    RemoveDirectoryW(folder.c_str());
}

// A process whose library still held a device file open when it ended
// leaves its folder behind; the next process clears folders of processes
// that are gone.
void RemoveFoldersOfEndedProcesses(const std::wstring& temp) {
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW((temp + kFolderPrefix + L"*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return;
    do {
        if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) continue;
        const DWORD pid = std::wcstoul(found.cFileName + std::wcslen(kFolderPrefix), nullptr, 10);
        if (pid != GetCurrentProcessId() && !ProcessAlive(pid))
            RemoveFolder(temp + found.cFileName);
    } while (FindNextFileW(search, &found));
    FindClose(search);
}

}  // namespace

std::wstring UpperAscii(std::wstring text) {
    for (wchar_t& c : text) {
        if (c >= L'a' && c <= L'z') c = static_cast<wchar_t>(c - L'a' + L'A');
    }
    return text;
}

std::wstring Widen(const std::string& ascii) {
    std::wstring wide;
    for (const char c : ascii) wide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
    return wide;
}

StandInSystem& StandInSystem::Get() {
    static StandInSystem system;
    return system;
}

StandInSystem* StandInSystem::IfMade() { return g_made.load(); }

StandInSystem::StandInSystem() {
    // Without a setting.cfg the machine has nothing plugged in.
    VideoConsoleCore::SettingsTable settings;
    std::vector<virtualdev::VirtualDeviceConfig> configs;
    if (VideoConsoleCore::ReadSettingsFile("setting.cfg", settings))
        configs = virtualdev::ReadVirtualDeviceConfigs(settings);
    model_ = std::make_unique<virtualdev::VirtualHidBackend>(std::move(configs));

    MakeFolder();
    for (size_t device = 0; device < model_->DeviceCount(); ++device) {
        const std::wstring number = std::to_wstring(device);
        hidPaths_.push_back(MakeFile(L"hid-" + number, {FileKind::kHidInterface, device}));
        usbPaths_.push_back(MakeFile(L"usb-" + number, {FileKind::kUsbDevice, device}));
    }
    controllerPath_ = MakeFile(L"host-controller", {FileKind::kHostController, 0});
    BuildNodes();
    BuildHubTree();
    g_made = this;
}

// Runs as the process ends, after the program and the library are gone
// (this DLL is loaded for the whole life of the process). The library keeps
// its device handle to the end; handles still on a device file are closed
// so that the file can go. What cannot be removed (a handle nobody used
// with a HID call) a later process removes.
StandInSystem::~StandInSystem() {
    g_made = nullptr;
    for (const auto& [win32, open] : modelHandles_) {
        model_->Close(open.handle);
        if (RoleOf(win32)) CloseHandle(win32);
    }
    modelHandles_.clear();
    for (const std::wstring& file : files_) DeleteFileW(file.c_str());
    RemoveDirectoryW(folder_.c_str());
}

void StandInSystem::MakeFolder() {
    wchar_t temp[MAX_PATH + 1];
    const DWORD length = GetTempPathW(MAX_PATH + 1, temp);
    if (length == 0 || length > MAX_PATH) Fail("no temporary folder", L"");
    RemoveFoldersOfEndedProcesses(temp);
    folder_ = std::wstring(temp) + kFolderPrefix + std::to_wstring(GetCurrentProcessId());
    if (!CreateDirectoryW(folder_.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS)
        Fail("cannot create the device folder", folder_);
}

std::wstring StandInSystem::MakeFile(const std::wstring& name, FileRole role) {
    const std::wstring path = folder_ + L"\\" + name;
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) Fail("cannot create a device file", path);
    // The name Windows gives back for a handle on the file is the one
    // handed out, so that every handle opened on it is recognised.
    const std::wstring canonical = FinalPath(file);
    CloseHandle(file);
    if (canonical.empty()) Fail("no final path for a device file", path);
    files_.push_back(path);
    roles_[UpperAscii(canonical)] = role;
    return canonical;
}

std::wstring StandInSystem::UsbInstanceId(size_t device) const {
    const virtualdev::VirtualDeviceConfig& config = model_->Config(device);
    return L"USB\\VID_" + Hex4(config.vid) + L"&PID_" + Hex4(config.pid) + L"\\" +
           Widen(config.serial);
}

std::wstring StandInSystem::DeviceDriverKey(size_t device) const {
    wchar_t number[16];
    std::swprintf(number, 16, L"%04u", static_cast<unsigned>(device + 1));
    return kUsbClassKey + std::wstring(number);
}

void StandInSystem::BuildNodes() {
    for (size_t device = 0; device < model_->DeviceCount(); ++device) {
        const virtualdev::VirtualDeviceConfig& config = model_->Config(device);
        const DWORD usb = NodeFor(UsbInstanceId(device), Widen(config.description));
        nodes_[usb - 1].driverKey = DeviceDriverKey(device);
        usbNodes_.push_back(usb);
        hidNodes_.push_back(NodeFor(L"HID\\VID_" + Hex4(config.vid) + L"&PID_" + Hex4(config.pid) +
                                        L"&MI_04\\7&" + Widen(config.serial) + L"&0&0000",
                                    L""));
        nodes_[hidNodes_.back() - 1].parent = usb;
    }
    controllerNode_ = NodeFor(L"PCI\\VEN_FFF0&DEV_0001\\3&5A0D1E&0&A0", L"USB host controller");
}

// Devices on USB 3 ports sit on the root hub; devices on USB 2 ports sit
// behind a USB 2 hub plugged into the root hub, so that the walk also goes
// down a level. The root hub keeps one port free.
void StandInSystem::BuildHubTree() {
    Hub root;
    root.usb3 = true;
    Hub usb2;
    usb2.driverKey = kUsbClassKey + std::wstring(L"0100");
    for (size_t device = 0; device < model_->DeviceCount(); ++device) {
        if (model_->Config(device).portLevel == 3) {
            root.ports.push_back({HubPort::Holds::kDevice, device, kUsb110 | kUsb200 | kUsb300});
        } else {
            usb2.ports.push_back({HubPort::Holds::kDevice, device, kUsb110 | kUsb200});
        }
    }
    if (!usb2.ports.empty())
        root.ports.push_back({HubPort::Holds::kHub, 1, kUsb110 | kUsb200 | kUsb300});
    root.ports.push_back({HubPort::Holds::kNothing, 0, kUsb110 | kUsb200 | kUsb300});

    root.path = MakeFile(L"root-hub", {FileKind::kHub, 0});
    hubs_.push_back(std::move(root));
    if (!usb2.ports.empty()) {
        usb2.path = MakeFile(L"usb2-hub", {FileKind::kHub, 1});
        hubs_.push_back(std::move(usb2));
    }
}

DWORD StandInSystem::NodeFor(const std::wstring& instanceId, const std::wstring& description) {
    std::lock_guard lock(mutex_);
    const std::wstring wanted = UpperAscii(instanceId);
    for (DeviceNode& node : nodes_) {
        if (UpperAscii(node.instanceId) != wanted) continue;
        if (!description.empty()) node.description = description;
        return node.devInst;
    }
    DeviceNode node;
    node.devInst = static_cast<DWORD>(nodes_.size() + 1);
    node.instanceId = instanceId;
    node.description = description;
    nodes_.push_back(node);
    return node.devInst;
}

std::optional<DeviceNode> StandInSystem::Node(DWORD devInst) const {
    std::lock_guard lock(mutex_);
    if (devInst == 0 || devInst > nodes_.size()) return std::nullopt;
    return nodes_[devInst - 1];
}

std::optional<FileRole> StandInSystem::RoleOf(HANDLE handle) const {
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return std::nullopt;
    const std::wstring path = FinalPath(handle);
    if (path.empty()) return std::nullopt;
    const auto found = roles_.find(UpperAscii(path));
    if (found == roles_.end()) return std::nullopt;
    return found->second;
}

std::optional<size_t> StandInSystem::DeviceOfModelPath(const std::string& path) const {
    for (size_t device = 0; device < model_->DeviceCount(); ++device) {
        if (model_->HidPath(device) == path) return device;
    }
    return std::nullopt;
}

std::optional<StandInSystem::OpenInterface> StandInSystem::Interface(HANDLE handle) {
    const std::optional<FileRole> role = RoleOf(handle);
    if (!role || role->kind != FileKind::kHidInterface) {
        SetLastError(ERROR_INVALID_HANDLE);
        return std::nullopt;
    }
    const size_t device = role->index;
    std::lock_guard lock(mutex_);
    // Windows may hand out a closed handle's value again, for this file or
    // another; the value only stands for the model handle of the same file.
    const auto known = modelHandles_.find(handle);
    if (known != modelHandles_.end()) {
        if (known->second.device == device) return OpenInterface{known->second.handle, device};
        model_->Close(known->second.handle);
        modelHandles_.erase(known);
    }
    const hid::HidHandle opened = model_->Open(model_->HidPath(device));
    if (opened == hid::kInvalidHidHandle) {
        SetRefusalError(device);
        return std::nullopt;
    }
    modelHandles_[handle] = ModelHandle{device, opened};
    return OpenInterface{opened, device};
}

void StandInSystem::SetRefusalError(size_t device) const {
    SetLastError(model_->Present(device) ? ERROR_GEN_FAILURE : ERROR_DEVICE_NOT_CONNECTED);
}

}  // namespace korvsdk_standin
