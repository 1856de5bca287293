// The USB hub driver's answers for the stand-in host controller and hubs.
//
// DeviceIoControl is kernel32's and cannot be replaced by a DLL; a test
// routes the calls a program makes to StandIn_HubDeviceIoControl first (see
// the README beside the harness), which answers those on the stand-in's
// controller and hub files and leaves every other handle to Windows.
#include "standin_system.h"

#include <winioctl.h>
#include <usbioctl.h>
#include <usbspec.h>

#include <cstddef>
#include <cstring>

using korvsdk_standin::FileKind;
using korvsdk_standin::Hub;
using korvsdk_standin::HubPort;
using korvsdk_standin::StandInSystem;

namespace {

enum Answer : int { kNotOurs = -1, kFailed = 0, kAnswered = 1 };

Answer Refuse(DWORD error) {
    SetLastError(error);
    return kFailed;
}

// The name records: [ConnectionIndex] ActualLength Name[]. ActualLength is
// the size of the whole record with the name and its terminator; the name
// is cut to the caller's buffer, and `returned` counts what was written.
Answer PutName(void* out, DWORD outBytes, size_t lengthOffset, size_t nameOffset,
               const std::wstring& name, DWORD& returned) {
    const size_t fixed = nameOffset + sizeof(WCHAR);  // the record as declared
    if (out == nullptr || outBytes < fixed) return Refuse(ERROR_INSUFFICIENT_BUFFER);
    auto* bytes = static_cast<unsigned char*>(out);
    const ULONG actual = static_cast<ULONG>(nameOffset + (name.size() + 1) * sizeof(WCHAR));
    std::memcpy(bytes + lengthOffset, &actual, sizeof(actual));
    const size_t room = (outBytes - nameOffset) / sizeof(WCHAR);
    const size_t units = name.size() + 1 < room ? name.size() + 1 : room;
    const std::wstring terminated = name + L'\0';
    std::memcpy(bytes + nameOffset, terminated.c_str(), units * sizeof(WCHAR));
    returned = static_cast<DWORD>(nameOffset + units * sizeof(WCHAR));
    return kAnswered;
}

// The hub driver's names leave off the "\\?\" of a device path.
std::wstring WithoutDevicePrefix(const std::wstring& path) {
    return path.rfind(L"\\\\?\\", 0) == 0 ? path.substr(4) : path;
}

// The port a connection query names; null (last error set) when the index
// is not a port of the hub.
const HubPort* PortOf(const Hub& hub, const void* in, DWORD inBytes) {
    ULONG index = 0;
    if (in == nullptr || inBytes < sizeof(index)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    std::memcpy(&index, in, sizeof(index));
    if (index == 0 || index > hub.ports.size()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return &hub.ports[index - 1];
}

bool Connected(StandInSystem& system, const HubPort& port) {
    if (port.holds == HubPort::Holds::kHub) return true;
    return port.holds == HubPort::Holds::kDevice && system.Model().Present(port.index);
}

bool SuperSpeed(StandInSystem& system, const HubPort& port) {
    return port.holds == HubPort::Holds::kDevice &&
           system.Model().Config(port.index).portLevel == 3;
}

Answer NodeInformation(const Hub& hub, void* out, DWORD outBytes, DWORD& returned) {
    if (out == nullptr || outBytes < sizeof(USB_NODE_INFORMATION))
        return Refuse(ERROR_INSUFFICIENT_BUFFER);
    USB_NODE_INFORMATION node{};
    node.NodeType = UsbHub;
    USB_HUB_DESCRIPTOR& descriptor = node.u.HubInformation.HubDescriptor;
    descriptor.bDescriptorLength = 9;
    descriptor.bDescriptorType = hub.usb3 ? 0x2A : 0x29;
    descriptor.bNumberOfPorts = static_cast<UCHAR>(hub.ports.size());
    std::memcpy(out, &node, sizeof(node));
    returned = sizeof(node);
    return kAnswered;
}

Answer ConnectionInformation(StandInSystem& system, const Hub& hub, const void* in, DWORD inBytes,
                             void* out, DWORD outBytes, DWORD& returned) {
    const HubPort* port = PortOf(hub, in, inBytes);
    if (port == nullptr) return kFailed;
    if (out == nullptr || outBytes < sizeof(USB_NODE_CONNECTION_INFORMATION_EX))
        return Refuse(ERROR_INSUFFICIENT_BUFFER);
    USB_NODE_CONNECTION_INFORMATION_EX record{};
    std::memcpy(&record.ConnectionIndex, in, sizeof(ULONG));
    record.ConnectionStatus = Connected(system, *port) ? DeviceConnected : NoDeviceConnected;
    if (record.ConnectionStatus == DeviceConnected) {
        USB_DEVICE_DESCRIPTOR& descriptor = record.DeviceDescriptor;
        descriptor.bLength = sizeof(USB_DEVICE_DESCRIPTOR);
        descriptor.bDescriptorType = USB_DEVICE_DESCRIPTOR_TYPE;
        descriptor.bNumConfigurations = 1;
        record.CurrentConfigurationValue = 1;
        record.DeviceAddress = static_cast<USHORT>(port - hub.ports.data() + 1);
        if (port->holds == HubPort::Holds::kHub) {
            descriptor.bcdUSB = 0x0200;
            descriptor.bDeviceClass = USB_DEVICE_CLASS_HUB;
            record.DeviceIsHub = TRUE;
            record.Speed = UsbHighSpeed;
        } else {
            const auto& config = system.Model().Config(port->index);
            const bool super = SuperSpeed(system, *port);
            descriptor.bcdUSB = super ? 0x0320 : 0x0200;
            descriptor.bDeviceClass = 0xEF;  // miscellaneous: a composite device
            descriptor.idVendor = config.vid;
            descriptor.idProduct = config.pid;
            descriptor.bcdDevice = config.versionNumber;
            descriptor.iManufacturer = 1;
            descriptor.iProduct = 2;
            descriptor.iSerialNumber = 3;
            record.Speed = super ? UsbSuperSpeed : UsbHighSpeed;
        }
    }
    std::memcpy(out, &record, sizeof(record));  // no open pipes to list
    returned = sizeof(record);
    return kAnswered;
}

// The protocols the port supports, of those the caller says it knows.
Answer ConnectionInformationV2(StandInSystem& system, const Hub& hub, const void* in, DWORD inBytes,
                               void* out, DWORD outBytes, DWORD& returned) {
    USB_NODE_CONNECTION_INFORMATION_EX_V2 record{};
    if (in == nullptr || inBytes < sizeof(record) || out == nullptr || outBytes < sizeof(record))
        return Refuse(ERROR_INVALID_PARAMETER);
    std::memcpy(&record, in, sizeof(record));
    if (record.Length < sizeof(record)) return Refuse(ERROR_INVALID_PARAMETER);
    const HubPort* port = PortOf(hub, in, inBytes);
    if (port == nullptr) return kFailed;
    record.SupportedUsbProtocols.ul &= port->protocols;
    record.Flags.ul = 0;
    if (Connected(system, *port) && SuperSpeed(system, *port)) {
        record.Flags.DeviceIsOperatingAtSuperSpeedOrHigher = 1;
        record.Flags.DeviceIsSuperSpeedCapableOrHigher = 1;
    }
    std::memcpy(out, &record, sizeof(record));
    returned = sizeof(record);
    return kAnswered;
}

Answer ConnectionName(StandInSystem& system, const Hub& hub, const void* in, DWORD inBytes,
                      void* out, DWORD outBytes, DWORD& returned) {
    const HubPort* port = PortOf(hub, in, inBytes);
    if (port == nullptr) return kFailed;
    // A port without a hub has an empty name.
    const std::wstring name = port->holds == HubPort::Holds::kHub
                                  ? WithoutDevicePrefix(system.Hubs().at(port->index).path)
                                  : std::wstring();
    const Answer answer = PutName(out, outBytes, offsetof(USB_NODE_CONNECTION_NAME, ActualLength),
                                  offsetof(USB_NODE_CONNECTION_NAME, NodeName), name, returned);
    if (answer == kAnswered) std::memmove(out, in, sizeof(ULONG));
    return answer;
}

Answer DriverKeyName(StandInSystem& system, const Hub& hub, const void* in, DWORD inBytes,
                     void* out, DWORD outBytes, DWORD& returned) {
    const HubPort* port = PortOf(hub, in, inBytes);
    if (port == nullptr) return kFailed;
    if (!Connected(system, *port)) return Refuse(ERROR_DEVICE_NOT_CONNECTED);
    const std::wstring key = port->holds == HubPort::Holds::kHub
                                 ? system.Hubs().at(port->index).driverKey
                                 : system.DeviceDriverKey(port->index);
    const Answer answer =
        PutName(out, outBytes, offsetof(USB_NODE_CONNECTION_DRIVERKEY_NAME, ActualLength),
                offsetof(USB_NODE_CONNECTION_DRIVERKEY_NAME, DriverKeyName), key, returned);
    if (answer == kAnswered) std::memmove(out, in, sizeof(ULONG));
    return answer;
}

Answer HubControl(StandInSystem& system, const Hub& hub, DWORD code, const void* in, DWORD inBytes,
                  void* out, DWORD outBytes, DWORD& returned) {
    switch (code) {
    case IOCTL_USB_GET_NODE_INFORMATION:
        return NodeInformation(hub, out, outBytes, returned);
    case IOCTL_USB_GET_NODE_CONNECTION_INFORMATION_EX:
        return ConnectionInformation(system, hub, in, inBytes, out, outBytes, returned);
    case IOCTL_USB_GET_NODE_CONNECTION_INFORMATION_EX_V2:
        return ConnectionInformationV2(system, hub, in, inBytes, out, outBytes, returned);
    case IOCTL_USB_GET_NODE_CONNECTION_NAME:
        return ConnectionName(system, hub, in, inBytes, out, outBytes, returned);
    case IOCTL_USB_GET_NODE_CONNECTION_DRIVERKEY_NAME:
        return DriverKeyName(system, hub, in, inBytes, out, outBytes, returned);
    default:
        return Refuse(ERROR_INVALID_FUNCTION);
    }
}

}  // namespace

// -1: the handle is not on a stand-in controller or hub (nothing done);
// otherwise DeviceIoControl's result, with the last error set on failure.
// Calls on stand-in files complete at once, whatever `overlapped` says.
extern "C" int WINAPI StandIn_HubDeviceIoControl(HANDLE device, DWORD code, void* in, DWORD inBytes,
                                                 void* out, DWORD outBytes, DWORD* returned) {
    // Before anything asked for the stand-in machine there are no stand-in
    // files, and no reason to make the machine now.
    StandInSystem* system = StandInSystem::IfMade();
    if (system == nullptr) return kNotOurs;
    const auto role = system->RoleOf(device);
    if (!role || (role->kind != FileKind::kHostController && role->kind != FileKind::kHub))
        return kNotOurs;

    DWORD written = 0;
    Answer answer;
    if (role->kind == FileKind::kHostController) {
        answer = code == IOCTL_USB_GET_ROOT_HUB_NAME
                     ? PutName(out, outBytes, offsetof(USB_ROOT_HUB_NAME, ActualLength),
                               offsetof(USB_ROOT_HUB_NAME, RootHubName),
                               WithoutDevicePrefix(system->Hubs().at(0).path), written)
                     : Refuse(ERROR_INVALID_FUNCTION);
    } else {
        answer = HubControl(*system, system->Hubs().at(role->index), code, in, inBytes, out,
                            outBytes, written);
    }
    if (returned != nullptr) *returned = answer == kAnswered ? written : 0;
    return answer;
}
