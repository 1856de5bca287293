#include "hid/backend/linux/linux_hidraw_backend.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "hid/backend/linux/descriptor_outline.h"
#include "hid/backend/linux/hidraw_ioctl.h"
#include "hid/backend/linux/sysfs_usb.h"

namespace VideoConsoleCore::hid {

namespace {

constexpr uint32_t kDefaultInputBuffers = 32;  // what Windows starts a HID handle with
constexpr uint32_t kMinInputBuffers = 2;
constexpr uint32_t kMaxInputBuffers = 512;

// Upper bound on reports FlushQueue discards, so that a device streaming
// input faster than we read cannot keep it looping.
constexpr int kMaxFlushedReports = 1024;

// "&colNN" after a node path names the NN-th (1-based, hex) top-level
// collection of that node.
constexpr std::string_view kCollectionSuffix = "&col";

std::string CollectionPath(const std::string& nodePath, int index) {
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, "&col%02x", static_cast<unsigned>(index + 1));
    return nodePath + suffix;
}

// Splits "<node>&colNN" into the node path and the 0-based collection index;
// a path without the suffix is collection 0.
std::pair<std::string, int> SplitCollectionPath(const std::string& path) {
    const auto at = path.rfind(kCollectionSuffix);
    if (at != std::string::npos && path.size() == at + kCollectionSuffix.size() + 2) {
        unsigned number = 0;
        const char* first = path.data() + at + kCollectionSuffix.size();
        const auto [end, ec] = std::from_chars(first, first + 2, number, 16);
        if (ec == std::errc{} && end == first + 2 && number >= 1)
            return {path.substr(0, at), static_cast<int>(number - 1)};
    }
    return {path, 0};
}

std::string BaseName(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

template <typename... Args>
int RetryIoctl(int fd, unsigned long request, Args... args) {
    int result;
    do {
        result = ::ioctl(fd, request, args...);
    } while (result < 0 && errno == EINTR);
    return result;
}

bool ReadDescriptorFromNode(int fd, std::vector<uint8_t>& descriptor) {
    int size = 0;
    if (RetryIoctl(fd, HIDIOCGRDESCSIZE, &size) < 0 || size < 0 || size > HID_MAX_DESCRIPTOR_SIZE)
        return false;
    hidraw_report_descriptor raw{};
    raw.size = static_cast<uint32_t>(size);
    if (RetryIoctl(fd, HIDIOCGRDESC, &raw) < 0) return false;
    descriptor.assign(raw.value, raw.value + size);
    return true;
}

// The report descriptor of a hidraw node from sysfs (the HID device above
// the node publishes it), else through the node itself; empty when neither
// can be read.
std::vector<uint8_t> NodeDescriptor(const std::string& sysRoot, const std::string& nodePath) {
    const std::string sysDir = sysfs::ResolvedPath(sysRoot + "/class/hidraw/" + BaseName(nodePath));
    const std::string hidDir = sysfs::FindAncestorWith(sysDir, "report_descriptor");
    if (!hidDir.empty()) {
        if (auto bytes = sysfs::ReadAttribute(hidDir, "report_descriptor"); bytes && !bytes->empty())
            return {bytes->begin(), bytes->end()};
    }
    std::vector<uint8_t> descriptor;
    const int fd = ::open(nodePath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) {
        ReadDescriptorFromNode(fd, descriptor);
        ::close(fd);
    }
    return descriptor;
}

// UTF-8 as the kernel writes USB strings into sysfs, to UTF-16 as Windows
// returns them; a malformed byte becomes U+FFFD.
std::u16string Utf8ToUtf16(std::string_view text) {
    static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    std::u16string out;
    size_t at = 0;
    while (at < text.size()) {
        const auto lead = static_cast<unsigned char>(text[at]);
        size_t length = 0;
        char32_t code = 0;
        if (lead < 0x80) { length = 1; code = lead; }
        else if ((lead & 0xE0) == 0xC0) { length = 2; code = lead & 0x1F; }
        else if ((lead & 0xF0) == 0xE0) { length = 3; code = lead & 0x0F; }
        else if ((lead & 0xF8) == 0xF0) { length = 4; code = lead & 0x07; }
        bool valid = length != 0 && at + length <= text.size();
        for (size_t k = 1; valid && k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[at + k]);
            valid = (next & 0xC0) == 0x80;
            code = (code << 6) | (next & 0x3F);
        }
        if (!valid || code < kSmallest[length] || code > 0x10FFFF ||
            (code >= 0xD800 && code <= 0xDFFF)) {
            out.push_back(u'\uFFFD');
            ++at;
            continue;
        }
        if (code >= 0x10000) {
            code -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (code >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (code & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(code));
        }
        at += length;
    }
    return out;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
               return lower(x) == lower(y);
           });
}

enum class ReportRequest { kSetFeature, kGetFeature, kGetInput, kSetOutput };

unsigned long RequestFor(ReportRequest request, uint32_t length) {
    switch (request) {
        case ReportRequest::kSetFeature: return HIDIOCSFEATURE(length);
        case ReportRequest::kGetFeature: return HIDIOCGFEATURE(length);
        case ReportRequest::kGetInput: return HIDIOCGINPUT(length);
        case ReportRequest::kSetOutput: return HIDIOCSOUTPUT(length);
    }
    return 0;
}

// One report ioctl. A length the request number cannot carry would spill
// into its direction bits; it is refused rather than sent as a different
// request.
bool ReportIoctl(int fd, ReportRequest request, void* buffer, uint32_t length) {
    if (buffer == nullptr || length == 0 || length > kMaxHidrawIoctlLength) return false;
    return RetryIoctl(fd, RequestFor(request, length), buffer) >= 0;
}

}  // namespace

struct LinuxHidrawBackend::OpenNode {
    int fd = -1;
    std::string usbDir;  // the USB device above the node; "" when not on USB
    int collectionIndex = 0;
    // hidraw's read() puts a report ID before the data only when the device
    // numbers its reports; Windows always does (0 for unnumbered ones).
    bool numberedReports = true;
    // Windows' input-buffer count; hidraw's queue has a fixed length, so the
    // value is only kept and reported back.
    std::atomic<uint32_t> inputBuffers{kDefaultInputBuffers};

    ~OpenNode() {
        if (fd >= 0) ::close(fd);
    }
};

LinuxHidrawBackend::LinuxHidrawBackend(std::string sysRoot, std::string devRoot,
                                       std::chrono::milliseconds readTimeout)
    : sysRoot_(std::move(sysRoot)), devRoot_(std::move(devRoot)), readTimeout_(readTimeout) {}

LinuxHidrawBackend::~LinuxHidrawBackend() = default;

std::shared_ptr<LinuxHidrawBackend::OpenNode> LinuxHidrawBackend::Find(HidHandle handle) const {
    std::lock_guard lock(mutex_);
    const auto found = open_.find(handle);
    return found == open_.end() ? nullptr : found->second;
}

// ---- Enumeration ------------------------------------------------------------

bool LinuxHidrawBackend::EnumerateUsbDevices(std::vector<UsbDeviceInfo>& devices) {
    devices.clear();
    const auto found = sysfs::ListUsbDevices(sysRoot_);
    if (!found) return false;
    for (const sysfs::UsbDevice& device : *found) {
        char ids[32];
        std::snprintf(ids, sizeof ids, "USB\\VID_%04X&PID_%04X", device.vendorId, device.productId);
        // The sysfs name of a USB device is its port path ("1-2.4.1").
        devices.push_back({std::string(ids) + "\\" + device.identity, device.product, device.name});
        // Windows gives each interface of a composite device an entry of its
        // own; a single-interface device has none.
        if (device.interfaces.size() < 2) continue;
        for (const sysfs::UsbInterface& usbInterface : device.interfaces) {
            char mi[16];
            std::snprintf(mi, sizeof mi, "&MI_%02X\\", usbInterface.number);
            devices.push_back({ids + (mi + usbInterface.name), usbInterface.description, device.name});
        }
    }
    return true;
}

bool LinuxHidrawBackend::EnumerateHidInterfaces(std::vector<std::string>& paths) {
    paths.clear();
    if (!sysfs::Exists(sysRoot_ + "/devices")) return false;
    // No hidraw class folder: the hidraw module is not loaded, so there are
    // no HID interfaces to offer.
    const auto names = sysfs::ListFolder(sysRoot_ + "/class/hidraw");
    if (!names) return true;

    std::vector<std::pair<unsigned, std::string>> nodes;  // hidraw10 after hidraw9
    for (const std::string& name : *names) {
        constexpr std::string_view kPrefix = "hidraw";
        if (name.size() <= kPrefix.size() || name.compare(0, kPrefix.size(), kPrefix) != 0) continue;
        unsigned number = 0;
        const auto [end, ec] =
            std::from_chars(name.data() + kPrefix.size(), name.data() + name.size(), number);
        if (ec == std::errc{} && end == name.data() + name.size()) nodes.emplace_back(number, name);
    }
    std::sort(nodes.begin(), nodes.end());

    for (const auto& [number, name] : nodes) {
        const std::string nodePath = devRoot_ + "/" + name;
        const std::vector<uint8_t> descriptor = NodeDescriptor(sysRoot_, nodePath);
        const int collections =
            std::max(1, OutlineReportDescriptor(descriptor.data(), descriptor.size()).topLevelCollections);
        paths.push_back(nodePath);
        for (int index = 1; index < collections; ++index) paths.push_back(CollectionPath(nodePath, index));
    }
    return true;
}

namespace {

// The first USB device with these IDs that `wanted` accepts; null when none.
template <typename Wanted>
std::optional<sysfs::UsbDevice> FindUsbDevice(const std::string& sysRoot, const std::string& vid,
                                              const std::string& pid, Wanted wanted) {
    const auto vendorId = sysfs::ParseHex16(vid);
    const auto productId = sysfs::ParseHex16(pid);
    if (!vendorId || !productId) return std::nullopt;
    const auto devices = sysfs::ListUsbDevices(sysRoot);
    if (!devices) return std::nullopt;
    for (const sysfs::UsbDevice& device : *devices) {
        if (device.vendorId == *vendorId && device.productId == *productId && wanted(device))
            return device;
    }
    return std::nullopt;
}

// UsbPortLevel's answer for a device found in sysfs.
int PortLevelOf(const std::optional<sysfs::UsbDevice>& found) {
    if (!found) return -1;
    // speed is in Mb/s: 1.5, 12, 480, 5000, 10000, 20000.
    const std::string speed = sysfs::ReadTextAttribute(found->dir, "speed").value_or("");
    char* end = nullptr;
    const double megabits = std::strtod(speed.c_str(), &end);
    if (end != speed.c_str() && megabits >= 5000) return 3;
    // A port whose connector also has a SuperSpeed half links to that half
    // as its peer: the device runs at 480 but sits on a USB 3 port.
    return sysfs::LinkOrFileExists(found->dir + "/port/peer") ? 3 : 2;
}

}  // namespace

int LinuxHidrawBackend::UsbPortLevel(const std::string& vid, const std::string& pid,
                                     const std::string& serial) {
    // The serial is the last part of the instance ID the scan was given,
    // which may be the stand-in; instance IDs ignore case.
    return PortLevelOf(FindUsbDevice(sysRoot_, vid, pid, [&](const sysfs::UsbDevice& device) {
        return EqualsIgnoringCase(device.identity, serial);
    }));
}

int LinuxHidrawBackend::UsbPortLevelAt(const std::string& vid, const std::string& pid,
                                       const std::string& location) {
    return PortLevelOf(FindUsbDevice(sysRoot_, vid, pid, [&](const sysfs::UsbDevice& device) {
        return !location.empty() && device.name == location;
    }));
}

std::string LinuxHidrawBackend::HidInterfaceLocation(const std::string& path) {
    const std::string nodePath = SplitCollectionPath(path).first;
    const std::string usbDir = sysfs::FindUsbDeviceFolder(
        sysfs::ResolvedPath(sysRoot_ + "/class/hidraw/" + BaseName(nodePath)));
    return usbDir.empty() ? std::string() : BaseName(usbDir);
}

// ---- Handles ----------------------------------------------------------------

HidHandle LinuxHidrawBackend::Open(const std::string& path) {
    const auto [nodePath, collectionIndex] = SplitCollectionPath(path);
    // Windows opens a HID interface without asking for read or write access;
    // hidraw needs a descriptor for its ioctls, and read/write access for
    // Read and Write. Without write permission the node is opened read-only:
    // everything but Write still works. O_NONBLOCK lets Read wait with a
    // timeout.
    int fd = ::open(nodePath.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0 && (errno == EACCES || errno == EPERM))
        fd = ::open(nodePath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return kInvalidHidHandle;  // includes a node that vanished since enumeration

    auto node = std::make_shared<OpenNode>();
    node->fd = fd;
    node->collectionIndex = collectionIndex;
    node->usbDir = sysfs::FindUsbDeviceFolder(
        sysfs::ResolvedPath(sysRoot_ + "/class/hidraw/" + BaseName(nodePath)));
    std::vector<uint8_t> descriptor;
    if (ReadDescriptorFromNode(fd, descriptor))
        node->numberedReports = OutlineReportDescriptor(descriptor.data(), descriptor.size()).numberedReports;

    const HidHandle handle = node.get();
    std::lock_guard lock(mutex_);
    open_.emplace(handle, std::move(node));
    return handle;
}

std::string LinuxHidrawBackend::OpenFailureAdvice(const std::string& path, uint16_t vid,
                                                  uint16_t pid) {
    // Nodes of other devices (keyboards, mice) are root's alone on most
    // systems; only the device being looked for is worth a word.
    const std::string nodePath = SplitCollectionPath(path).first;
    const std::string usbDir = sysfs::FindUsbDeviceFolder(
        sysfs::ResolvedPath(sysRoot_ + "/class/hidraw/" + BaseName(nodePath)));
    if (usbDir.empty() ||
        sysfs::ParseHex16(sysfs::ReadAttribute(usbDir, "idVendor").value_or("")) != vid ||
        sysfs::ParseHex16(sysfs::ReadAttribute(usbDir, "idProduct").value_or("")) != pid)
        return "";
    // Open tried read-only as well; if that is refused, the user lacks
    // read permission, which the rules file gives.
    const int fd = ::open(nodePath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) {
        ::close(fd);
        return "";
    }
    if (errno != EACCES && errno != EPERM) return "";
    return "Cannot open " + nodePath +
           ": permission denied. Install the udev rules file 70-korvsdk-devices.rules (from the "
           "SDK's lib/udev/rules.d) in /etc/udev/rules.d or /usr/lib/udev/rules.d and re-plug "
           "the device, or run as root.\n";
}

void LinuxHidrawBackend::Close(HidHandle handle) {
    std::shared_ptr<OpenNode> closing;
    {
        std::lock_guard lock(mutex_);
        const auto found = open_.find(handle);
        if (found == open_.end()) return;
        closing = std::move(found->second);
        open_.erase(found);
    }
    // The descriptor closes when the last call still using it returns.
}

// ---- HidD_ ------------------------------------------------------------------

bool LinuxHidrawBackend::FlushQueue(HidHandle handle) {
    const auto node = Find(handle);
    if (!node) return false;
    std::array<uint8_t, 4096> discard;
    // Each read() takes one whole report off hidraw's queue, however small
    // the buffer; the node is non-blocking, so an empty queue says EAGAIN.
    for (int count = 0; count < kMaxFlushedReports; ++count) {
        const ssize_t got = ::read(node->fd, discard.data(), discard.size());
        if (got > 0) continue;
        if (got < 0 && errno == EINTR) continue;
        return got == 0 || errno == EAGAIN;
    }
    return true;
}

bool LinuxHidrawBackend::GetAttributes(HidHandle handle, HiddAttributes& attributes) {
    const auto node = Find(handle);
    if (!node) return false;
    hidraw_devinfo info{};
    if (RetryIoctl(node->fd, HIDIOCGRAWINFO, &info) < 0) return false;
    attributes.Size = sizeof(HiddAttributes);
    attributes.VendorID = static_cast<uint16_t>(info.vendor);
    attributes.ProductID = static_cast<uint16_t>(info.product);
    // hidraw does not report the release number; the USB device's bcdDevice
    // is what Windows reports. 0 when the node is not on USB.
    attributes.VersionNumber = node->usbDir.empty()
                                   ? 0
                                   : sysfs::ParseHex16(sysfs::ReadAttribute(node->usbDir, "bcdDevice")
                                                           .value_or(""))
                                         .value_or(0);
    return true;
}

bool LinuxHidrawBackend::SetFeature(HidHandle handle, void* buffer, uint32_t length) {
    const auto node = Find(handle);
    return node && ReportIoctl(node->fd, ReportRequest::kSetFeature, buffer, length);
}

bool LinuxHidrawBackend::GetFeature(HidHandle handle, void* buffer, uint32_t length) {
    const auto node = Find(handle);
    return node && ReportIoctl(node->fd, ReportRequest::kGetFeature, buffer, length);
}

bool LinuxHidrawBackend::GetInputReport(HidHandle handle, void* buffer, uint32_t length) {
    // The ioctl's length becomes the wLength of the GET_REPORT request, and
    // the kernel may write that many bytes back. The device reads a command
    // from the high byte of that length, and the library sizes the buffer to
    // match: so the length sent is exactly the caller's buffer size, never
    // more.
    const auto node = Find(handle);
    return node && ReportIoctl(node->fd, ReportRequest::kGetInput, buffer, length);
}

bool LinuxHidrawBackend::SetOutputReport(HidHandle handle, void* buffer, uint32_t length) {
    // A SET_REPORT control transfer, as HidD_SetOutputReport makes; write()
    // would use the interrupt OUT endpoint instead.
    const auto node = Find(handle);
    return node && ReportIoctl(node->fd, ReportRequest::kSetOutput, buffer, length);
}

bool LinuxHidrawBackend::GetNumInputBuffers(HidHandle handle, uint32_t& count) {
    const auto node = Find(handle);
    if (!node) return false;
    count = node->inputBuffers;
    return true;
}

bool LinuxHidrawBackend::SetNumInputBuffers(HidHandle handle, uint32_t count) {
    const auto node = Find(handle);
    if (!node || count < kMinInputBuffers || count > kMaxInputBuffers) return false;
    node->inputBuffers = count;
    return true;
}

// hidraw passes reports only: it has no request for a string descriptor by
// index, nor for physical or genre descriptors.
bool LinuxHidrawBackend::GetPhysicalDescriptor(HidHandle, void*, uint32_t) { return false; }
bool LinuxHidrawBackend::GetIndexedString(HidHandle, uint32_t, void*, uint32_t) { return false; }
bool LinuxHidrawBackend::GetMsGenreDescriptor(HidHandle, void*, uint32_t) { return false; }

bool LinuxHidrawBackend::UsbString(HidHandle handle, const char* attribute, void* buffer,
                                   uint32_t length) {
    const auto node = Find(handle);
    if (!node || node->usbDir.empty() || buffer == nullptr) return false;
    // The kernel has already read the USB string descriptors and offers them
    // in sysfs as UTF-8; an attribute is missing when the device has no
    // such string.
    const auto text = sysfs::ReadTextAttribute(node->usbDir, attribute);
    if (!text) return false;
    std::u16string wide = Utf8ToUtf16(*text);
    wide.push_back(u'\0');
    const size_t bytes = wide.size() * sizeof(char16_t);
    if (bytes > length) return false;
    std::memcpy(buffer, wide.data(), bytes);
    return true;
}

bool LinuxHidrawBackend::GetManufacturerString(HidHandle handle, void* buffer, uint32_t length) {
    return UsbString(handle, "manufacturer", buffer, length);
}

bool LinuxHidrawBackend::GetProductString(HidHandle handle, void* buffer, uint32_t length) {
    return UsbString(handle, "product", buffer, length);
}

bool LinuxHidrawBackend::GetSerialNumberString(HidHandle handle, void* buffer, uint32_t length) {
    return UsbString(handle, "serial", buffer, length);
}

// ---- ReadFile / WriteFile ---------------------------------------------------

bool LinuxHidrawBackend::Read(HidHandle handle, void* buffer, uint32_t length, uint32_t& done) {
    done = 0;
    const auto node = Find(handle);
    if (!node || buffer == nullptr || length == 0) return false;
    auto* bytes = static_cast<uint8_t*>(buffer);
    // Unnumbered reports come without an ID byte; give them Windows' 0.
    const uint32_t offset = node->numberedReports ? 0 : 1;
    if (length <= offset) return false;
    if (offset) bytes[0] = 0;

    // ReadFile on a Windows HID handle waits for a report; here the wait is
    // bounded by the read timeout, after which Read fails with nothing read.
    const auto deadline = std::chrono::steady_clock::now() + readTimeout_;
    for (;;) {
        const ssize_t got = ::read(node->fd, bytes + offset, length - offset);
        if (got > 0) {
            done = static_cast<uint32_t>(got) + offset;
            return true;
        }
        if (got < 0 && errno == EINTR) continue;
        if (got < 0 && errno != EAGAIN) return false;  // EIO: the device is gone
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) return false;
        // Rounded up: poll() would otherwise be asked to wait 0 ms for the
        // last fraction of a millisecond, and Read would give up early.
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
        pollfd wait{node->fd, POLLIN, 0};
        if (::poll(&wait, 1, static_cast<int>(left.count())) < 0 && errno != EINTR) return false;
    }
}

bool LinuxHidrawBackend::Write(HidHandle handle, const void* buffer, uint32_t length,
                               uint32_t& done) {
    done = 0;
    const auto node = Find(handle);
    if (!node || buffer == nullptr || length == 0) return false;
    ssize_t written;
    do {
        written = ::write(node->fd, buffer, length);
    } while (written < 0 && errno == EINTR);
    if (written < 0) return false;
    done = static_cast<uint32_t>(written);
    return true;
}

bool LinuxHidrawBackend::ReadReportDescriptor(HidHandle handle, std::vector<uint8_t>& descriptor,
                                              int& collectionIndex) {
    const auto node = Find(handle);
    if (!node || !ReadDescriptorFromNode(node->fd, descriptor)) return false;
    collectionIndex = node->collectionIndex;
    return true;
}

std::unique_ptr<HidBackend> CreatePlatformHidBackend() {
    return std::make_unique<LinuxHidrawBackend>("/sys", "/dev");
}

}  // namespace VideoConsoleCore::hid
