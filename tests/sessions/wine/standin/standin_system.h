// The machine the stand-in system libraries pretend to be: the virtual
// capture devices of setting.cfg plugged into one USB host controller.
//
// Everything a program can reach of a device through Windows has a plain
// file of its own in a private temporary folder (each HID interface, each
// USB device interface, the host controller, each hub), so that the real
// CreateFileW opens it and a handle leads back to its device through
// GetFinalPathNameByHandleW. Device nodes (instance IDs, driver keys,
// descriptions) and the hub tree are tables here; the devices themselves
// are the virtual device model.
//
// One instance per process, made on first use from the setting.cfg of the
// working folder at that moment.
#pragma once

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "virtual/device/virtual_hid_backend.h"

namespace korvsdk_standin {

namespace hid = VideoConsoleCore::hid;
namespace virtualdev = VideoConsoleCore::virtualdev;

// What a stand-in file stands for.
enum class FileKind { kHidInterface, kUsbDevice, kHostController, kHub };

struct FileRole {
    FileKind kind;
    size_t index;  // device number, or hub number for kHub
};

// One device node of the configuration manager.
struct DeviceNode {
    DWORD devInst = 0;
    std::wstring instanceId;
    std::wstring description;  // bus-reported description, "" when none
    std::wstring driverKey;    // "" when the node has no driver key
    DWORD parent = 0;          // the node above, 0 for none
};

// A USB hub port: empty, one virtual device, or the next hub.
struct HubPort {
    enum class Holds { kNothing, kDevice, kHub } holds = Holds::kNothing;
    size_t index = 0;             // device or hub number
    unsigned long protocols = 0;  // USB_PROTOCOLS bits the port supports
};

struct Hub {
    std::wstring path;       // "\\?\..." as the walk opens it
    std::wstring driverKey;  // as the parent hub's port reports it
    bool usb3 = false;
    std::vector<HubPort> ports;
};

class StandInSystem {
public:
    // The one instance, made on first call.
    static StandInSystem& Get();
    // The instance if it has been made, else null (makes nothing).
    static StandInSystem* IfMade();

    ~StandInSystem();
    StandInSystem(const StandInSystem&) = delete;
    StandInSystem& operator=(const StandInSystem&) = delete;

    virtualdev::VirtualHidBackend& Model() { return *model_; }
    size_t DeviceCount() const { return model_->DeviceCount(); }

    // ---- Device nodes -------------------------------------------------
    // The node of an instance ID, added when new; its devInst.
    DWORD NodeFor(const std::wstring& instanceId, const std::wstring& description);
    std::optional<DeviceNode> Node(DWORD devInst) const;
    DWORD UsbDeviceNode(size_t device) const { return usbNodes_.at(device); }
    DWORD HidNode(size_t device) const { return hidNodes_.at(device); }
    DWORD ControllerNode() const { return controllerNode_; }
    // "USB\VID_xxxx&PID_xxxx\<serial>", as the model names the device.
    std::wstring UsbInstanceId(size_t device) const;

    // ---- Files ----------------------------------------------------------
    const std::wstring& HidInterfacePath(size_t device) const { return hidPaths_.at(device); }
    const std::wstring& UsbDevicePath(size_t device) const { return usbPaths_.at(device); }
    const std::wstring& ControllerPath() const { return controllerPath_; }
    // The stand-in file a handle was opened on; nullopt for anything else.
    std::optional<FileRole> RoleOf(HANDLE handle) const;
    // The device whose model path ("virtual://hid/<serial>") this is.
    std::optional<size_t> DeviceOfModelPath(const std::string& path) const;

    // ---- HID handles ----------------------------------------------------
    // The model's handle for a handle on a HID interface file, opened in
    // the model on first use. Sets the last error and returns nullopt when
    // the handle is not on a HID interface file or the model refuses.
    struct OpenInterface {
        hid::HidHandle handle;
        size_t device;
    };
    std::optional<OpenInterface> Interface(HANDLE handle);
    // The last error for a call the model refused on `device`.
    void SetRefusalError(size_t device) const;

    // ---- Hub tree -------------------------------------------------------
    const std::vector<Hub>& Hubs() const { return hubs_; }
    std::wstring DeviceDriverKey(size_t device) const;

private:
    StandInSystem();
    void MakeFolder();
    std::wstring MakeFile(const std::wstring& name, FileRole role);
    void BuildNodes();
    void BuildHubTree();

    std::unique_ptr<virtualdev::VirtualHidBackend> model_;

    std::wstring folder_;
    std::vector<std::wstring> files_;                   // what the destructor removes
    std::unordered_map<std::wstring, FileRole> roles_;  // upper-cased path -> role
    std::vector<std::wstring> hidPaths_, usbPaths_;
    std::wstring controllerPath_;

    mutable std::mutex mutex_;
    std::vector<DeviceNode> nodes_;  // devInst = index + 1
    std::vector<DWORD> usbNodes_, hidNodes_;
    DWORD controllerNode_ = 0;

    struct ModelHandle {
        size_t device;
        hid::HidHandle handle;
    };
    std::unordered_map<HANDLE, ModelHandle> modelHandles_;

    std::vector<Hub> hubs_;
};

// Upper-cases ASCII letters (paths and IDs compare without case).
std::wstring UpperAscii(std::wstring text);
std::wstring Widen(const std::string& ascii);

}  // namespace korvsdk_standin
