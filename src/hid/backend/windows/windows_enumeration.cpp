// Finding devices on Windows: present USB devices (SetupAPI, configuration
// manager), HID interface paths, and the USB port level of one device.
#include "hid/backend/windows/windows_hid_backend.h"

#include "hid/backend/windows/system_functions.h"
#include "hid/backend/windows/usb_port_map.h"
#include "hid/backend/windows/win_util.h"

#include <devpropdef.h>

#include <memory>
#include <string>
#include <vector>

namespace VideoConsoleCore::hid {

namespace {

// DEVPKEY_Device_BusReportedDeviceDesc: the product string the device gave
// during enumeration. devpkey.h only declares it (no INITGUID here).
constexpr DEVPROPKEY kBusReportedDeviceDesc = {
    {0x540b947e, 0x8b40, 0x45bc, {0xa8, 0xa2, 0x6a, 0x0b, 0x89, 0x4c, 0xbd, 0xa2}}, 4};

// A string device property, "" when absent or not a string. Size query
// first, then a buffer of the reported size. SetupDiGetDevicePropertyW is
// missing before Vista: the descriptions are then all "".
std::wstring StringProperty(HDEVINFO set, SP_DEVINFO_DATA& device, const DEVPROPKEY& key) {
    const auto getProperty = win::System().SetupDiGetDevicePropertyW;
    if (getProperty == nullptr) return std::wstring();
    DEVPROPTYPE type = 0;
    DWORD required = 0;
    getProperty(set, &device, &key, &type, nullptr, 0, &required, 0);
    if (GetLastError() != ERROR_INSUFFICIENT_BUFFER || required == 0 ||
        type != DEVPROP_TYPE_STRING) {
        return std::wstring();
    }
    std::vector<BYTE> buffer(required, 0);
    DWORD written = 0;
    if (!getProperty(set, &device, &key, &type, buffer.data(), required, &written, 0) ||
        type != DEVPROP_TYPE_STRING) {
        return std::wstring();
    }
    return win::WideFromBuffer(buffer.data(), written < required ? written : required);
}

// SPDRP_DRIVER: the device's driver key, the name the hub driver also
// reports for the port the device sits on.
std::wstring DriverKey(HDEVINFO set, SP_DEVINFO_DATA& device) {
    const auto getProperty = win::System().SetupDiGetDeviceRegistryPropertyW;
    if (getProperty == nullptr) return std::wstring();
    DWORD type = 0;
    DWORD required = 0;
    getProperty(set, &device, SPDRP_DRIVER, &type, nullptr, 0, &required);
    if (GetLastError() != ERROR_INSUFFICIENT_BUFFER || required == 0) return std::wstring();
    std::vector<BYTE> buffer(required, 0);
    DWORD written = 0;
    if (!getProperty(set, &device, SPDRP_DRIVER, &type, buffer.data(), required, &written) ||
        type != REG_SZ) {
        return std::wstring();
    }
    return win::WideFromBuffer(buffer.data(), written < required ? written : required);
}

// CM_DRP_DRIVER of a device node: the same driver key as SPDRP_DRIVER,
// for a node reached by its parent link rather than through a device set.
std::wstring NodeDriverKey(DEVINST node) {
    const auto getProperty = win::System().CM_Get_DevNode_Registry_PropertyW;
    if (getProperty == nullptr) return std::wstring();
    ULONG type = 0;
    ULONG bytes = 0;
    getProperty(node, CM_DRP_DRIVER, &type, nullptr, &bytes, 0);
    if (bytes == 0 || bytes > 4096) return std::wstring();
    std::vector<BYTE> buffer(bytes, 0);
    ULONG written = bytes;
    if (getProperty(node, CM_DRP_DRIVER, &type, buffer.data(), &written, 0) != CR_SUCCESS ||
        type != REG_SZ) {
        return std::wstring();
    }
    return win::WideFromBuffer(buffer.data(), written < bytes ? written : bytes);
}

// The USB device a device node belongs to: the node itself or its nearest
// ancestor whose instance ID starts with "USB\" and names no interface
// ("&MI_"); 0 when there is none within a few levels.
DEVINST UsbDeviceAbove(DEVINST node) {
    const auto getParent = win::System().CM_Get_Parent;
    for (int level = 0; node != 0 && level < 8; ++level) {
        const std::string id = win::AsciiUpper(win::WideToUtf8(win::DeviceInstanceId(node)));
        if (id.rfind("USB\\", 0) == 0 && id.find("&MI_") == std::string::npos) return node;
        DEVINST parent = 0;
        if (getParent == nullptr || getParent(&parent, node, 0) != CR_SUCCESS) return 0;
        node = parent;
    }
    return 0;
}

}  // namespace

bool WindowsHidBackend::EnumerateUsbDevices(std::vector<UsbDeviceInfo>& devices) {
    // Every present device node of the USB enumerator, whatever its class:
    // whole devices and the interface nodes of composite devices.
    const win::SystemFunctions& system = win::System();
    if (system.SetupDiGetClassDevsW == nullptr || system.SetupDiEnumDeviceInfo == nullptr ||
        system.SetupDiDestroyDeviceInfoList == nullptr) {
        return false;
    }
    win::ScopedDevInfo set(
        system.SetupDiGetClassDevsW(nullptr, L"USB", nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES));
    if (!set.Valid()) return false;

    // Where each device is plugged: one walk of the hub tree per scan.
    const std::unique_ptr<win::UsbHubIo> io = win::CreateSystemUsbHubIo();
    const win::UsbPortMap map = win::BuildUsbPortMap(*io);

    std::vector<UsbDeviceInfo> found;
    for (DWORD index = 0;; ++index) {
        SP_DEVINFO_DATA device{};
        device.cbSize = sizeof(device);
        if (!system.SetupDiEnumDeviceInfo(set.Get(), index, &device)) break;
        UsbDeviceInfo info;
        info.instanceId = win::WideToUtf8(win::DeviceInstanceId(device.DevInst));
        if (info.instanceId.empty()) continue;
        info.busReportedDescription =
            win::WideToUtf8(StringProperty(set.Get(), device, kBusReportedDeviceDesc));
        // Interface nodes of a composite device sit on no port of their own.
        info.location = win::LookUpLocation(map, DriverKey(set.Get(), device));
        found.push_back(std::move(info));
    }
    devices = std::move(found);
    return true;
}

bool WindowsHidBackend::EnumerateHidInterfaces(std::vector<std::string>& paths) {
    const auto getHidGuid = win::System().HidD_GetHidGuid;
    if (getHidGuid == nullptr) return false;
    GUID hidClass{};
    getHidGuid(&hidClass);
    std::vector<std::string> found;
    const win::InterfaceWalk walk =
        win::ForEachPresentInterface(hidClass, [&](const win::PresentInterface& item) {
            std::string path = win::WideToUtf8(item.path);
            if (!path.empty()) found.push_back(std::move(path));
            return true;
        });
    if (walk == win::InterfaceWalk::kFailed) return false;
    paths = std::move(found);
    return true;
}

std::string WindowsHidBackend::HidInterfaceLocation(const std::string& path) {
    const auto getHidGuid = win::System().HidD_GetHidGuid;
    const std::wstring wanted = win::AsciiUpper(win::Utf8ToWide(path));
    if (getHidGuid == nullptr || wanted.empty()) return std::string();

    std::lock_guard lock(locationMutex_);
    const auto now = std::chrono::steady_clock::now();
    auto found = hidLocations_.find(wanted);
    if (found != hidLocations_.end() && now - locationsMade_ < std::chrono::seconds(1))
        return found->second;

    hidLocations_.clear();
    locationsMade_ = now;
    const std::unique_ptr<win::UsbHubIo> io = win::CreateSystemUsbHubIo();
    const win::UsbPortMap map = win::BuildUsbPortMap(*io);
    GUID hidClass{};
    getHidGuid(&hidClass);
    win::ForEachPresentInterface(hidClass, [&](const win::PresentInterface& item) {
        const DEVINST usb = UsbDeviceAbove(item.device->DevInst);
        const std::wstring key = usb != 0 ? NodeDriverKey(usb) : std::wstring();
        hidLocations_[win::AsciiUpper(item.path)] = win::LookUpLocation(map, key);
        return true;
    });
    found = hidLocations_.find(wanted);
    return found != hidLocations_.end() ? found->second : std::string();
}

int WindowsHidBackend::UsbPortLevelAt(const std::string& /*vid*/, const std::string& /*pid*/,
                                      const std::string& location) {
    if (location.empty()) return -1;
    const std::unique_ptr<win::UsbHubIo> io = win::CreateSystemUsbHubIo();
    for (const win::UsbPortRecord& device : win::BuildUsbPortMap(*io).devices) {
        if (device.location == location) return win::PortLevelAnswer(device.level);
    }
    return -1;
}

int WindowsHidBackend::UsbPortLevel(const std::string& vid, const std::string& pid,
                                    const std::string& serial) {
    const std::unique_ptr<win::UsbHubIo> io = win::CreateSystemUsbHubIo();
    const win::UsbPortMap map = win::BuildUsbPortMap(*io);

    int level = -1;
    win::ForEachPresentInterface(win::kUsbDeviceInterface, [&](const win::PresentInterface& item) {
        // Each examined interface is opened (read/write, overlapped) and
        // closed again at once. The outcome does not decide the answer: a
        // device that another program holds exclusively still sits on a port.
        win::ScopedHandle touch(CreateFileW(item.path.c_str(), GENERIC_READ | GENERIC_WRITE,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                            OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
        touch.Reset();

        const std::string id = win::WideToUtf8(win::DeviceInstanceId(item.device->DevInst));
        if (!win::InstanceIdMatches(id, vid, pid, serial)) return true;
        level = win::LookUpPortLevel(map, DriverKey(item.set, *item.device));
        return false;  // the first matching device decides
    });
    return win::PortLevelAnswer(level);
}

}  // namespace VideoConsoleCore::hid
