// setupapi.dll and the configuration manager: device information sets over
// the stand-in machine's device nodes and interfaces.
//
// A set is a list of members, each a device node and, for an interface
// set, the interface's class and path. What a set holds is fixed when it
// is made, as with Windows.
#define _SETUPAPI_
#define _CFGMGR32_
#include "standin_system.h"

#include <setupapi.h>
#include <cfgmgr32.h>
#include <devguid.h>
#include <devpkey.h>
#include <usbiodef.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <set>

using korvsdk_standin::StandInSystem;
using korvsdk_standin::UpperAscii;
using korvsdk_standin::Widen;

namespace {

struct Member {
    DWORD devInst;
    GUID deviceClass;
    GUID interfaceClass;  // for an interface
    std::wstring path;    // "" for a device node without interface
};

struct DeviceSet {
    std::vector<Member> members;
};

std::mutex g_setsMutex;
std::set<DeviceSet*> g_sets;

DeviceSet* SetOf(HDEVINFO handle) {
    auto* set = static_cast<DeviceSet*>(handle);
    std::lock_guard lock(g_setsMutex);
    return g_sets.count(set) != 0 ? set : nullptr;
}

BOOL Refuse(DWORD error) {
    SetLastError(error);
    return FALSE;
}

bool Same(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }

// The member a caller's SP_DEVINFO_DATA names; null (last error set) when
// the record is malformed or its node is not in the set.
const Member* MemberOf(const DeviceSet& set, const SP_DEVINFO_DATA* device) {
    if (device == nullptr || device->cbSize != sizeof(SP_DEVINFO_DATA)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    for (const Member& member : set.members) {
        if (member.devInst == device->DevInst) return &member;
    }
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
}

void Describe(const Member& member, SP_DEVINFO_DATA& device) {
    device.ClassGuid = member.deviceClass;
    device.DevInst = member.devInst;
    device.Reserved = 0;
}

// A string property into the caller's buffer: the size query (no buffer)
// and a short buffer fail with ERROR_INSUFFICIENT_BUFFER and the size.
BOOL PutString(const std::wstring& value, PBYTE buffer, DWORD size, PDWORD required) {
    const DWORD bytes = static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t));
    if (required != nullptr) *required = bytes;
    if (buffer == nullptr && size != 0) return Refuse(ERROR_INVALID_USER_BUFFER);
    if (size < bytes) return Refuse(ERROR_INSUFFICIENT_BUFFER);
    std::memcpy(buffer, value.c_str(), bytes);
    return TRUE;
}

GUID HidInterfaceClass(StandInSystem& system) {
    GUID guid{};
    system.Model().GetHidGuid(reinterpret_cast<VideoConsoleCore::hid::Guid&>(guid));
    return guid;
}

// The interfaces of one class; false when the model's enumeration fails.
bool AddInterfaces(StandInSystem& system, const GUID& interfaceClass, DeviceSet& set) {
    if (Same(interfaceClass, HidInterfaceClass(system))) {
        std::vector<std::string> paths;
        if (!system.Model().EnumerateHidInterfaces(paths)) return false;
        for (const std::string& path : paths) {
            if (const auto device = system.DeviceOfModelPath(path)) {
                set.members.push_back({system.HidNode(*device), GUID_DEVCLASS_HIDCLASS,
                                       interfaceClass, system.HidInterfacePath(*device)});
            }
        }
    } else if (Same(interfaceClass, GUID_DEVINTERFACE_USB_DEVICE)) {
        for (size_t device = 0; device < system.DeviceCount(); ++device) {
            if (!system.Model().Present(device)) continue;
            set.members.push_back({system.UsbDeviceNode(device), GUID_DEVCLASS_USB, interfaceClass,
                                   system.UsbDevicePath(device)});
        }
    } else if (Same(interfaceClass, GUID_DEVINTERFACE_USB_HOST_CONTROLLER)) {
        set.members.push_back(
            {system.ControllerNode(), GUID_DEVCLASS_USB, interfaceClass, system.ControllerPath()});
    }
    return true;
}

// Every device node of the USB enumerator: whole devices and the
// interfaces of composite devices; false when the model's enumeration fails.
bool AddUsbNodes(StandInSystem& system, DeviceSet& set) {
    std::vector<VideoConsoleCore::hid::UsbDeviceInfo> devices;
    if (!system.Model().EnumerateUsbDevices(devices)) return false;
    for (const auto& device : devices) {
        const DWORD devInst =
            system.NodeFor(Widen(device.instanceId), Widen(device.busReportedDescription));
        set.members.push_back({devInst, GUID_DEVCLASS_USB, GUID{}, std::wstring()});
    }
    return true;
}

}  // namespace

extern "C" {

HDEVINFO WINAPI SetupDiGetClassDevsW(const GUID* classGuid, PCWSTR enumerator, HWND parent,
                                     DWORD flags) {
    StandInSystem& system = StandInSystem::Get();
    auto set = std::make_unique<DeviceSet>();
    bool listed = true;
    if (flags & DIGCF_DEVICEINTERFACE) {
        if (classGuid == nullptr) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return INVALID_HANDLE_VALUE;
        }
        listed = AddInterfaces(system, *classGuid, *set);
    } else if (flags & DIGCF_ALLCLASSES) {
        // Only the USB enumerator has devices here.
        if (enumerator != nullptr && UpperAscii(enumerator) == L"USB")
            listed = AddUsbNodes(system, *set);
    } else if (classGuid == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    if (!listed) {
        SetLastError(ERROR_GEN_FAILURE);
        return INVALID_HANDLE_VALUE;
    }
    std::lock_guard lock(g_setsMutex);
    g_sets.insert(set.get());
    return set.release();
}

BOOL WINAPI SetupDiDestroyDeviceInfoList(HDEVINFO handle) {
    auto* set = static_cast<DeviceSet*>(handle);
    {
        std::lock_guard lock(g_setsMutex);
        if (g_sets.erase(set) == 0) return Refuse(ERROR_INVALID_HANDLE);
    }
    delete set;
    return TRUE;
}

BOOL WINAPI SetupDiEnumDeviceInfo(HDEVINFO handle, DWORD index, PSP_DEVINFO_DATA device) {
    DeviceSet* set = SetOf(handle);
    if (set == nullptr) return Refuse(ERROR_INVALID_HANDLE);
    if (device == nullptr || device->cbSize != sizeof(SP_DEVINFO_DATA))
        return Refuse(ERROR_INVALID_USER_BUFFER);
    if (index >= set->members.size()) return Refuse(ERROR_NO_MORE_ITEMS);
    Describe(set->members[index], *device);
    return TRUE;
}

BOOL WINAPI SetupDiEnumDeviceInterfaces(HDEVINFO handle, PSP_DEVINFO_DATA device,
                                        const GUID* interfaceClass, DWORD index,
                                        PSP_DEVICE_INTERFACE_DATA interfaceData) {
    DeviceSet* set = SetOf(handle);
    if (set == nullptr) return Refuse(ERROR_INVALID_HANDLE);
    if (interfaceClass == nullptr) return Refuse(ERROR_INVALID_PARAMETER);
    if (interfaceData == nullptr || interfaceData->cbSize != sizeof(SP_DEVICE_INTERFACE_DATA))
        return Refuse(ERROR_INVALID_USER_BUFFER);
    DWORD seen = 0;
    for (size_t i = 0; i < set->members.size(); ++i) {
        const Member& member = set->members[i];
        if (member.path.empty() || !Same(member.interfaceClass, *interfaceClass)) continue;
        if (device != nullptr && device->DevInst != member.devInst) continue;
        if (seen++ != index) continue;
        interfaceData->InterfaceClassGuid = member.interfaceClass;
        interfaceData->Flags = SPINT_ACTIVE;
        interfaceData->Reserved = i + 1;  // which member, for the detail call
        return TRUE;
    }
    return Refuse(ERROR_NO_MORE_ITEMS);
}

BOOL WINAPI SetupDiGetDeviceInterfaceDetailW(HDEVINFO handle,
                                             PSP_DEVICE_INTERFACE_DATA interfaceData,
                                             PSP_DEVICE_INTERFACE_DETAIL_DATA_W detail, DWORD size,
                                             PDWORD required, PSP_DEVINFO_DATA device) {
    DeviceSet* set = SetOf(handle);
    if (set == nullptr) return Refuse(ERROR_INVALID_HANDLE);
    if (interfaceData == nullptr || interfaceData->cbSize != sizeof(SP_DEVICE_INTERFACE_DATA) ||
        interfaceData->Reserved == 0 || interfaceData->Reserved > set->members.size()) {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    const Member& member = set->members[interfaceData->Reserved - 1];
    const DWORD needed =
        static_cast<DWORD>(offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath) +
                           (member.path.size() + 1) * sizeof(wchar_t));
    if (required != nullptr) *required = needed;
    if (detail == nullptr) {
        return Refuse(size == 0 ? ERROR_INSUFFICIENT_BUFFER : ERROR_INVALID_USER_BUFFER);
    }
    // cbSize is that of the fixed record, whatever the buffer's size.
    if (detail->cbSize != sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W))
        return Refuse(ERROR_INVALID_USER_BUFFER);
    if (size < needed) return Refuse(ERROR_INSUFFICIENT_BUFFER);
    if (device != nullptr && device->cbSize != sizeof(SP_DEVINFO_DATA))
        return Refuse(ERROR_INVALID_USER_BUFFER);
    std::memcpy(detail->DevicePath, member.path.c_str(),
                (member.path.size() + 1) * sizeof(wchar_t));
    if (device != nullptr) Describe(member, *device);
    return TRUE;
}

BOOL WINAPI SetupDiGetDeviceRegistryPropertyW(HDEVINFO handle, PSP_DEVINFO_DATA device,
                                              DWORD property, PDWORD type, PBYTE buffer, DWORD size,
                                              PDWORD required) {
    DeviceSet* set = SetOf(handle);
    if (set == nullptr) return Refuse(ERROR_INVALID_HANDLE);
    const Member* member = MemberOf(*set, device);
    if (member == nullptr) return FALSE;
    const auto node = StandInSystem::Get().Node(member->devInst);
    std::wstring value;
    if (node && property == SPDRP_DRIVER) value = node->driverKey;
    if (value.empty()) return Refuse(ERROR_INVALID_DATA);  // no such property
    if (type != nullptr) *type = REG_SZ;
    return PutString(value, buffer, size, required);
}

BOOL WINAPI SetupDiGetDevicePropertyW(HDEVINFO handle, PSP_DEVINFO_DATA device,
                                      const DEVPROPKEY* key, DEVPROPTYPE* type, PBYTE buffer,
                                      DWORD size, PDWORD required, DWORD flags) {
    DeviceSet* set = SetOf(handle);
    if (set == nullptr) return Refuse(ERROR_INVALID_HANDLE);
    if (flags != 0) return Refuse(ERROR_INVALID_FLAGS);
    if (key == nullptr || type == nullptr) return Refuse(ERROR_INVALID_PARAMETER);
    const Member* member = MemberOf(*set, device);
    if (member == nullptr) return FALSE;
    const auto node = StandInSystem::Get().Node(member->devInst);
    const bool description = Same(key->fmtid, DEVPKEY_Device_BusReportedDeviceDesc.fmtid) &&
                             key->pid == DEVPKEY_Device_BusReportedDeviceDesc.pid;
    if (!node || !description || node->description.empty()) return Refuse(ERROR_NOT_FOUND);
    *type = DEVPROP_TYPE_STRING;
    return PutString(node->description, buffer, size, required);
}

// The ID and its terminator when both fit; the ID alone when only it fits;
// as much as fits, with CR_BUFFER_SMALL, otherwise.
CONFIGRET WINAPI CM_Get_Device_IDW(DEVINST devInst, PWSTR buffer, ULONG length, ULONG flags) {
    if (buffer == nullptr) return CR_INVALID_POINTER;
    if (flags != 0) return CR_INVALID_FLAG;
    const auto node = StandInSystem::Get().Node(devInst);
    if (!node) return CR_INVALID_DEVNODE;
    const std::wstring& id = node->instanceId;
    const size_t copied = id.size() < length ? id.size() : length;
    std::memcpy(buffer, id.c_str(), copied * sizeof(wchar_t));
    if (copied < length) buffer[copied] = L'\0';
    return copied < id.size() ? CR_BUFFER_SMALL : CR_SUCCESS;
}

CONFIGRET WINAPI CM_Get_Parent(PDEVINST parent, DEVINST devInst, ULONG flags) {
    if (parent == nullptr) return CR_INVALID_POINTER;
    if (flags != 0) return CR_INVALID_FLAG;
    const auto node = StandInSystem::Get().Node(devInst);
    if (!node) return CR_INVALID_DEVNODE;
    if (node->parent == 0) return CR_NO_SUCH_DEVNODE;
    *parent = node->parent;
    return CR_SUCCESS;
}

// CM_DRP_DRIVER only; the size in bytes, terminator included.
CONFIGRET WINAPI CM_Get_DevNode_Registry_PropertyW(DEVINST devInst, ULONG property, PULONG type,
                                                   PVOID buffer, PULONG length, ULONG flags) {
    if (length == nullptr) return CR_INVALID_POINTER;
    if (flags != 0) return CR_INVALID_FLAG;
    const auto node = StandInSystem::Get().Node(devInst);
    if (!node) return CR_INVALID_DEVNODE;
    if (property != CM_DRP_DRIVER || node->driverKey.empty()) return CR_NO_SUCH_VALUE;
    const ULONG bytes = static_cast<ULONG>((node->driverKey.size() + 1) * sizeof(wchar_t));
    if (type != nullptr) *type = REG_SZ;
    if (buffer == nullptr || *length < bytes) {
        *length = bytes;
        return CR_BUFFER_SMALL;
    }
    std::memcpy(buffer, node->driverKey.c_str(), bytes);
    *length = bytes;
    return CR_SUCCESS;
}

}  // extern "C"
