// Reading the USB and hidraw parts of sysfs.
//
// Everything here goes through plain POSIX calls (open, read, opendir,
// realpath, lstat) on paths below a root given by the caller, so that a test
// can point the backend at a synthetic tree.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace VideoConsoleCore::hid::sysfs {

// The whole content of `dir`/`name`; nullopt when the file is missing or
// cannot be read (a directory in its place, no permission, I/O error).
std::optional<std::string> ReadAttribute(const std::string& dir, const char* name);

// A text attribute with the one line feed the kernel appends removed.
std::optional<std::string> ReadTextAttribute(const std::string& dir, const char* name);

// One to four hexadecimal digits (surrounding blanks allowed), as in
// idVendor, idProduct, bcdDevice, bInterfaceNumber; nullopt otherwise.
std::optional<uint16_t> ParseHex16(std::string_view text);

// The names in `dir`, without "." and "..", sorted; nullopt when the folder
// cannot be opened.
std::optional<std::vector<std::string>> ListFolder(const std::string& dir);

bool Exists(const std::string& path);       // follows links
bool LinkOrFileExists(const std::string& path);  // does not follow the last link

// The physical sysfs folder of `path` with every link resolved; "" when it
// does not exist.
std::string ResolvedPath(const std::string& path);

// The nearest folder, starting with `deviceDir` itself and going up, that
// holds `marker` (a file name); "" when none does. `deviceDir` should be a
// resolved path.
std::string FindAncestorWith(const std::string& deviceDir, const char* marker);

// The USB device (not interface) folder above a device, found by its
// idVendor file; "" when the device does not sit on USB.
inline std::string FindUsbDeviceFolder(const std::string& deviceDir) {
    return FindAncestorWith(deviceDir, "idVendor");
}

// The text that stands for a USB device in its Windows-form instance ID:
// the serial number when Windows would use it, else the sysfs name (such as
// "1-2.3", stable for as long as the device stays on the same port).
std::string InstanceIdentity(const std::optional<std::string>& serial, const std::string& name);

struct UsbInterface {
    std::string name;         // sysfs name, "1-2:1.0"
    uint8_t number = 0;       // bInterfaceNumber
    std::string description;  // interface string, else the device's product
};

struct UsbDevice {
    std::string name;  // sysfs name, "1-2.3"
    std::string dir;   // <sys>/bus/usb/devices/<name>
    uint16_t vendorId = 0;
    uint16_t productId = 0;
    std::string identity;  // InstanceIdentity()
    std::string product;   // "" when the device has none
    std::vector<UsbInterface> interfaces;  // of the active configuration
};

// The USB devices below `sysRoot`, root hubs left out, in sysfs-name order.
// nullopt when there is no sysfs at all; an empty list when sysfs has no
// USB bus.
std::optional<std::vector<UsbDevice>> ListUsbDevices(const std::string& sysRoot);

}  // namespace VideoConsoleCore::hid::sysfs
