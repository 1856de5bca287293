#include "hid/backend/windows/usb_port_map.h"

#include <winioctl.h>
#include <usbioctl.h>
#include <usbspec.h>

#include <cstddef>
#include <cstring>
#include <optional>

namespace VideoConsoleCore::hid::win {

namespace {

// ---- The records the hub driver fills (usbioctl.h, packed to 1) ----------
static_assert(offsetof(USB_ROOT_HUB_NAME, ActualLength) == 0);
static_assert(offsetof(USB_ROOT_HUB_NAME, RootHubName) == 4);
static_assert(offsetof(USB_NODE_CONNECTION_NAME, ActualLength) == 4);
static_assert(offsetof(USB_NODE_CONNECTION_NAME, NodeName) == 8);
static_assert(offsetof(USB_NODE_CONNECTION_DRIVERKEY_NAME, ActualLength) == 4);
static_assert(offsetof(USB_NODE_CONNECTION_DRIVERKEY_NAME, DriverKeyName) == 8);
static_assert(offsetof(USB_NODE_CONNECTION_INFORMATION_EX, PipeList) == 35);
static_assert(sizeof(USB_NODE_CONNECTION_INFORMATION_EX_V2) == 16);

constexpr ULONG kUsb110 = 1, kUsb200 = 2, kUsb300 = 4;

// The "\\?\" prefix the hub driver leaves off the names it returns.
const std::wstring kDevicePathPrefix = L"\\\\?\\";

// Room for the pipe list after the fixed part of the connection record; the
// hub driver fills as many pipes as fit, and only the fixed part is read.
constexpr size_t kPipeRoom = 32;

class HubHandle {
public:
    HubHandle(UsbHubIo& io, const std::wstring& path) : io_(io), handle_(io.Open(path)) {}
    ~HubHandle() {
        if (Valid()) io_.Close(handle_);
    }
    HubHandle(const HubHandle&) = delete;
    HubHandle& operator=(const HubHandle&) = delete;
    bool Valid() const { return handle_ != INVALID_HANDLE_VALUE && handle_ != nullptr; }
    HANDLE Get() const { return handle_; }

private:
    UsbHubIo& io_;
    HANDLE handle_;
};

// A name IOCTL whose record is [ConnectionIndex] ActualLength Name[]: first
// with the fixed record to learn ActualLength (the whole record's size, name
// and terminator included), then with a buffer of exactly that size. Only
// the bytes the driver says it returned are read.
std::wstring QueryName(UsbHubIo& io, HANDLE device, DWORD code, std::optional<ULONG> connection,
                       size_t lengthOffset, size_t nameOffset) {
    std::vector<unsigned char> record(nameOffset + sizeof(WCHAR), 0);
    if (connection) std::memcpy(record.data(), &*connection, sizeof(ULONG));
    DWORD returned = 0;
    if (!io.Control(device, code, record.data(), static_cast<DWORD>(record.size()), record.data(),
                    static_cast<DWORD>(record.size()), returned) ||
        returned < lengthOffset + sizeof(ULONG)) {
        return std::wstring();
    }
    ULONG actual = 0;
    std::memcpy(&actual, record.data() + lengthOffset, sizeof(actual));
    if (actual <= nameOffset || actual > kMaxNameRecordBytes) return std::wstring();

    record.assign(actual, 0);
    if (connection) std::memcpy(record.data(), &*connection, sizeof(ULONG));
    returned = 0;
    if (!io.Control(device, code, record.data(), actual, record.data(), actual, returned)) {
        return std::wstring();
    }
    const size_t valid = returned < actual ? returned : actual;
    if (valid <= nameOffset) return std::wstring();
    return WideFromBuffer(record.data() + nameOffset, valid - nameOffset);
}

// `prefix` is what the location of a device on this hub's ports starts
// with: "<controller>-" on a root hub, "<hub's location>." below it.
void WalkHub(UsbHubIo& io, const std::wstring& path, bool root, int depth,
             const std::string& prefix, UsbPortMap& map) {
    if (depth > kMaxHubDepth) return;
    HubHandle hub(io, path);
    if (!hub.Valid()) return;

    USB_NODE_INFORMATION node{};
    node.NodeType = UsbHub;
    DWORD returned = 0;
    constexpr size_t kPortsEnd =
        offsetof(USB_NODE_INFORMATION, u.HubInformation.HubDescriptor.bNumberOfPorts) + 1;
    if (!io.Control(hub.Get(), IOCTL_USB_GET_NODE_INFORMATION, &node, sizeof(node), &node,
                    sizeof(node), returned) ||
        returned < kPortsEnd) {
        return;
    }

    Usb_Hub record;
    if (root) record.name = L"RootHub";
    record.path = path;
    record.portCount = node.u.HubInformation.HubDescriptor.bNumberOfPorts;
    record.depth = depth;
    const size_t hubIndex = map.hubs.size();
    map.hubs.push_back(record);

    const unsigned portCount = record.portCount;
    for (ULONG port = 1; port <= portCount; ++port) {
        // USB_NODE_CONNECTION_INFORMATION_EX ends in a pipe list; give it
        // room in a ULONG-aligned buffer.
        constexpr size_t kBytes =
            sizeof(USB_NODE_CONNECTION_INFORMATION_EX) + kPipeRoom * sizeof(USB_PIPE_INFO);
        std::vector<ULONG> storage((kBytes + sizeof(ULONG) - 1) / sizeof(ULONG), 0);
        auto* connection = reinterpret_cast<USB_NODE_CONNECTION_INFORMATION_EX*>(storage.data());
        connection->ConnectionIndex = port;
        returned = 0;
        if (!io.Control(hub.Get(), IOCTL_USB_GET_NODE_CONNECTION_INFORMATION_EX, connection,
                        static_cast<DWORD>(kBytes), connection, static_cast<DWORD>(kBytes),
                        returned) ||
            returned < offsetof(USB_NODE_CONNECTION_INFORMATION_EX, PipeList) ||
            connection->ConnectionStatus != DeviceConnected) {
            continue;
        }

        // The reported speed is the device's, not the port's: a USB 3 port
        // runs a USB 2 device at high speed. The V2 query tells the
        // protocols the port itself supports; the caller states those it
        // understands on input.
        USB_NODE_CONNECTION_INFORMATION_EX_V2 v2{};
        v2.ConnectionIndex = port;
        v2.Length = sizeof(v2);
        v2.SupportedUsbProtocols.ul = kUsb110 | kUsb200 | kUsb300;
        DWORD v2Returned = 0;
        const bool protocolsKnown =
            io.Control(hub.Get(), IOCTL_USB_GET_NODE_CONNECTION_INFORMATION_EX_V2, &v2,
                       sizeof(v2), &v2, sizeof(v2), v2Returned) &&
            v2Returned >= offsetof(USB_NODE_CONNECTION_INFORMATION_EX_V2, Flags);
        const int level =
            PortLevelFromConnection(connection->Speed, protocolsKnown, v2.SupportedUsbProtocols.ul);

        if (connection->DeviceDescriptor.bDeviceClass != USB_DEVICE_CLASS_HUB) {
            std::wstring key = QueryName(io, hub.Get(), IOCTL_USB_GET_NODE_CONNECTION_DRIVERKEY_NAME,
                                         port, offsetof(USB_NODE_CONNECTION_DRIVERKEY_NAME, ActualLength),
                                         offsetof(USB_NODE_CONNECTION_DRIVERKEY_NAME, DriverKeyName));
            if (!key.empty())
                map.devices.push_back(
                    {std::move(key), level, hubIndex, port, prefix + std::to_string(port)});
        } else {
            const std::wstring child =
                QueryName(io, hub.Get(), IOCTL_USB_GET_NODE_CONNECTION_NAME, port,
                          offsetof(USB_NODE_CONNECTION_NAME, ActualLength),
                          offsetof(USB_NODE_CONNECTION_NAME, NodeName));
            if (!child.empty())
                WalkHub(io, kDevicePathPrefix + child, false, depth + 1,
                        prefix + std::to_string(port) + ".", map);
        }
    }
}

class SystemUsbHubIo : public UsbHubIo {
public:
    std::vector<std::wstring> HostControllerPaths() override {
        std::vector<std::wstring> paths;
        ForEachPresentInterface(kUsbHostControllerInterface, [&](const PresentInterface& item) {
            paths.push_back(item.path);
            return true;
        });
        return paths;
    }
    HANDLE Open(const std::wstring& path) override {
        return CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                           0, nullptr);
    }
    bool Control(HANDLE device, DWORD code, const void* in, DWORD inBytes, void* out,
                 DWORD outBytes, DWORD& returned) override {
        returned = 0;
        return DeviceIoControl(device, code, const_cast<void*>(in), inBytes, out, outBytes,
                               &returned, nullptr) != FALSE;
    }
    void Close(HANDLE device) override { CloseHandle(device); }
};

}  // namespace

std::unique_ptr<UsbHubIo> CreateSystemUsbHubIo() { return std::make_unique<SystemUsbHubIo>(); }

UsbPortMap BuildUsbPortMap(UsbHubIo& io) {
    UsbPortMap map;
    unsigned controllerNumber = 0;
    for (const std::wstring& controllerPath : io.HostControllerPaths()) {
        ++controllerNumber;
        std::wstring rootHub;
        {
            HubHandle controller(io, controllerPath);
            if (!controller.Valid()) continue;
            rootHub = QueryName(io, controller.Get(), IOCTL_USB_GET_ROOT_HUB_NAME, std::nullopt,
                                offsetof(USB_ROOT_HUB_NAME, ActualLength),
                                offsetof(USB_ROOT_HUB_NAME, RootHubName));
        }
        if (!rootHub.empty())
            WalkHub(io, kDevicePathPrefix + rootHub, true, 0,
                    std::to_string(controllerNumber) + "-", map);
    }
    return map;
}

int PortLevelFromConnection(int reportedSpeed, bool protocolsKnown, unsigned long protocols) {
    if (protocolsKnown) {
        if (protocols & kUsb300) return 3;
        if (protocols & kUsb200) return 2;
    }
    return reportedSpeed;
}

int LookUpPortLevel(const UsbPortMap& map, const std::wstring& driverKey) {
    if (driverKey.empty()) return -1;
    const std::wstring wanted = AsciiUpper(driverKey);
    for (const UsbPortRecord& device : map.devices) {
        if (AsciiUpper(device.driverKey) == wanted) return device.level;
    }
    return -1;
}

std::string LookUpLocation(const UsbPortMap& map, const std::wstring& driverKey) {
    if (driverKey.empty()) return {};
    const std::wstring wanted = AsciiUpper(driverKey);
    for (const UsbPortRecord& device : map.devices) {
        if (AsciiUpper(device.driverKey) == wanted) return device.location;
    }
    return {};
}

bool InstanceIdMatches(const std::string& instanceId, const std::string& vid,
                       const std::string& pid, const std::string& serial) {
    if (instanceId.empty()) return false;  // an ID that could not be read names nothing
    const std::string id = AsciiUpper(instanceId);
    return id.find(AsciiUpper(vid)) != std::string::npos &&
           id.find(AsciiUpper(pid)) != std::string::npos &&
           id.find(AsciiUpper(serial)) != std::string::npos;
}

int PortLevelAnswer(int level) {
    if (level == 3) return 3;
    return level < 0 ? -1 : 2;
}

}  // namespace VideoConsoleCore::hid::win
