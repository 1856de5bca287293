// Which USB port (its level and its path from the root hub) each present USB
// device sits on, found by walking the hub tree: host controller -> root hub
// -> ports -> external hubs -> ports.
//
// Windows tells a port's capabilities only through the hub driver's IOCTLs,
// and names devices there by driver key ("{36fc9e60-...}\0012"), the same
// key SetupAPI reports as SPDRP_DRIVER. The walk records every connected
// non-hub device with its driver key and port level; the device is later
// found through SetupAPI and looked up by that key.
//
// The calls the walk makes go through UsbHubIo, so that the walk itself can
// be run against a made-up topology; SystemUsbHubIo makes the real calls.
#pragma once

#include "hid/backend/windows/win_util.h"

#include <memory>
#include <string>
#include <vector>

namespace VideoConsoleCore::hid::win {

// GUID_DEVINTERFACE_USB_HOST_CONTROLLER and GUID_DEVINTERFACE_USB_DEVICE.
// usbiodef.h only declares them (DEFINE_GUID without INITGUID); spelt out
// here, they need neither INITGUID tricks nor libuuid.
inline constexpr GUID kUsbHostControllerInterface = {
    0x3abf6f2d, 0x71c4, 0x462a, {0x8a, 0x92, 0x1e, 0x68, 0x61, 0xe6, 0xaf, 0x27}};
inline constexpr GUID kUsbDeviceInterface = {
    0xa5dcbf10, 0x6530, 0x11d2, {0x90, 0x1f, 0x00, 0xc0, 0x4f, 0xb9, 0x51, 0xed}};

// The Windows calls of the walk.
class UsbHubIo {
public:
    virtual ~UsbHubIo() = default;
    // Device paths of the present host controller interfaces.
    virtual std::vector<std::wstring> HostControllerPaths() = 0;
    // CreateFileW(path, GENERIC_WRITE, FILE_SHARE_WRITE, OPEN_EXISTING);
    // INVALID_HANDLE_VALUE on failure.
    virtual HANDLE Open(const std::wstring& path) = 0;
    // DeviceIoControl; `returned` is the byte count written to `out`.
    virtual bool Control(HANDLE device, DWORD code, const void* in, DWORD inBytes, void* out,
                         DWORD outBytes, DWORD& returned) = 0;
    virtual void Close(HANDLE device) = 0;
};

std::unique_ptr<UsbHubIo> CreateSystemUsbHubIo();

// One hub met on the walk.
struct Usb_Hub {
    std::wstring name = L"Standard-USB-Hub";  // "RootHub" for a controller's root hub
    std::wstring path;                        // "\\?\..." as opened
    unsigned portCount = 0;
    int depth = 0;                            // 0 for a root hub
};

// One connected non-hub device.
struct UsbPortRecord {
    std::wstring driverKey;
    int level = -1;  // 3, 2, or the reported speed (0 low, 1 full, 2 high)
    size_t hub = 0;  // index into UsbPortMap::hubs
    unsigned port = 0;
    // The port path: the host controller's number (1 = the first the
    // system lists), "-", then the port on each hub from the root hub
    // down, joined by "." ("1-3.1").
    std::string location;
};

struct UsbPortMap {
    std::vector<Usb_Hub> hubs;
    std::vector<UsbPortRecord> devices;
};

// Hubs nest at most five deep below the root hub; a deeper chain can only
// come from a broken answer and is not followed.
inline constexpr int kMaxHubDepth = 6;

// Longest name record accepted from a hub (a driver key or hub name is a few
// hundred bytes; anything near this is a broken answer).
inline constexpr unsigned long kMaxNameRecordBytes = 64 * 1024;

// The walk over every host controller's hub tree. Handles it opens are
// closed before it returns, whatever the hubs answer.
UsbPortMap BuildUsbPortMap(UsbHubIo& io);

// A connected port's level: the USB 3 protocol bit (4) gives 3, else the
// USB 2 bit (2) gives 2, else (no protocol answer, or neither bit) the
// speed the hub reported stands.
int PortLevelFromConnection(int reportedSpeed, bool protocolsKnown, unsigned long protocols);

// The level recorded for `driverKey` (ASCII case ignored); -1 when none.
int LookUpPortLevel(const UsbPortMap& map, const std::wstring& driverKey);
// The location recorded for `driverKey` (ASCII case ignored); "" when none.
std::string LookUpLocation(const UsbPortMap& map, const std::wstring& driverKey);

// Whether an instance ID names the wanted device: its upper-cased text
// contains the upper-cased VID digits, PID digits and serial.
bool InstanceIdMatches(const std::string& instanceId, const std::string& vid,
                       const std::string& pid, const std::string& serial);

// HidBackend::UsbPortLevel's answer for a looked-up level: 3 stays 3, any
// other level of a found device is 2, -1 (not found) stays -1.
int PortLevelAnswer(int level);

}  // namespace VideoConsoleCore::hid::win
