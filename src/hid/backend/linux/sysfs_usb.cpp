#include "hid/backend/linux/sysfs_usb.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>

namespace VideoConsoleCore::hid::sysfs {

namespace {

// sysfs attributes are at most a page; binary ones (report_descriptor) at
// most the 4096 bytes a HID descriptor may have. Anything larger is not an
// attribute we want.
constexpr size_t kMaxAttributeSize = 64 * 1024;

std::string_view Trim(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return text;
}

bool StartsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

// The interface number from an interface's sysfs name "<device>:<config>.<n>",
// where the kernel writes n in decimal.
std::optional<uint8_t> InterfaceNumberFromName(std::string_view name) {
    const auto dot = name.rfind('.');
    if (dot == std::string_view::npos || dot + 1 >= name.size()) return std::nullopt;
    unsigned value = 0;
    const char* first = name.data() + dot + 1;
    const char* last = name.data() + name.size();
    const auto [end, ec] = std::from_chars(first, last, value, 10);
    if (ec != std::errc{} || end != last || value > 0xFF) return std::nullopt;
    return static_cast<uint8_t>(value);
}

}  // namespace

std::optional<std::string> ReadAttribute(const std::string& dir, const char* name) {
    const std::string path = dir + "/" + name;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string content;
    char chunk[4096];
    for (;;) {
        const ssize_t got = ::read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0 || content.size() + static_cast<size_t>(got) > kMaxAttributeSize) {
            ::close(fd);
            return std::nullopt;
        }
        if (got == 0) break;
        content.append(chunk, static_cast<size_t>(got));
    }
    ::close(fd);
    return content;
}

std::optional<std::string> ReadTextAttribute(const std::string& dir, const char* name) {
    auto text = ReadAttribute(dir, name);
    if (text && !text->empty() && text->back() == '\n') text->pop_back();
    return text;
}

std::optional<uint16_t> ParseHex16(std::string_view text) {
    text = Trim(text);
    if (text.empty() || text.size() > 4) return std::nullopt;
    unsigned value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (ec != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return static_cast<uint16_t>(value);
}

std::optional<std::vector<std::string>> ListFolder(const std::string& dir) {
    DIR* folder = ::opendir(dir.c_str());
    if (folder == nullptr) return std::nullopt;
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(folder)) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
    }
    ::closedir(folder);
    std::sort(names.begin(), names.end());
    return names;
}

bool Exists(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

bool LinkOrFileExists(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

std::string ResolvedPath(const std::string& path) {
    char* resolved = ::realpath(path.c_str(), nullptr);
    if (resolved == nullptr) return {};
    std::string result = resolved;
    std::free(resolved);
    return result;
}

std::string FindAncestorWith(const std::string& deviceDir, const char* marker) {
    std::string dir = deviceDir;
    while (!dir.empty() && dir != "/") {
        if (Exists(dir + "/" + marker)) return dir;
        const auto slash = dir.rfind('/');
        if (slash == std::string::npos) break;
        dir.resize(slash);
    }
    return {};
}

std::string InstanceIdentity(const std::optional<std::string>& serial, const std::string& name) {
    // Windows builds a USB device's instance ID from its serial number only
    // when every character is printable ASCII other than blank and comma;
    // otherwise it makes one up from the port. We use the sysfs name, which
    // also follows the port.
    const auto usable = [](unsigned char c) { return c > 0x20 && c < 0x7F && c != ','; };
    if (serial && !serial->empty() && std::all_of(serial->begin(), serial->end(), usable))
        return *serial;
    return name;
}

std::optional<std::vector<UsbDevice>> ListUsbDevices(const std::string& sysRoot) {
    // Without <sys>/devices there is no sysfs to look at: enumeration failed.
    // A sysfs without a USB bus simply has no USB devices.
    if (!Exists(sysRoot + "/devices")) return std::nullopt;
    const std::string busDir = sysRoot + "/bus/usb/devices";
    const auto names = ListFolder(busDir);
    std::vector<UsbDevice> devices;
    if (!names) return devices;

    for (const std::string& name : *names) {
        // "1-2:1.0" is an interface, taken with its device below; "usb1" is a
        // root hub, which Windows lists without vendor and product IDs and
        // which the scan never wants.
        if (name.find(':') != std::string::npos || StartsWith(name, "usb")) continue;

        UsbDevice device;
        device.name = name;
        device.dir = busDir + "/" + name;
        // The IDs make up every instance ID: a device whose idVendor or
        // idProduct is missing or not hexadecimal (one the kernel is still
        // setting up or tearing down) is left out altogether.
        const auto vid = ParseHex16(ReadAttribute(device.dir, "idVendor").value_or(""));
        const auto pid = ParseHex16(ReadAttribute(device.dir, "idProduct").value_or(""));
        if (!vid || !pid) continue;
        device.vendorId = *vid;
        device.productId = *pid;
        // A missing or unreadable serial gives the stand-in identity, a
        // missing product an empty description; neither drops the device.
        device.identity = InstanceIdentity(ReadTextAttribute(device.dir, "serial"), name);
        device.product = ReadTextAttribute(device.dir, "product").value_or("");

        const std::string interfacePrefix = name + ":";
        for (const std::string& other : *names) {
            if (!StartsWith(other, interfacePrefix)) continue;
            const std::string dir = busDir + "/" + other;
            UsbInterface usbInterface;
            usbInterface.name = other;
            // bInterfaceNumber, else the number the kernel put in the name;
            // an interface with neither is left out.
            auto number = ParseHex16(ReadAttribute(dir, "bInterfaceNumber").value_or(""));
            if (!number || *number > 0xFF) {
                const auto fromName = InterfaceNumberFromName(other);
                if (!fromName) continue;
                number = *fromName;
            }
            usbInterface.number = static_cast<uint8_t>(*number);
            // Windows shows an interface's own string when it has one.
            usbInterface.description = ReadTextAttribute(dir, "interface").value_or("");
            if (usbInterface.description.empty()) usbInterface.description = device.product;
            device.interfaces.push_back(std::move(usbInterface));
        }
        std::sort(device.interfaces.begin(), device.interfaces.end(),
                  [](const UsbInterface& a, const UsbInterface& b) { return a.number < b.number; });
        devices.push_back(std::move(device));
    }
    return devices;
}

}  // namespace VideoConsoleCore::hid::sysfs
