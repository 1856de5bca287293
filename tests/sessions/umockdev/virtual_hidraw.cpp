#include "sessions/umockdev/virtual_hidraw.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "hid/backend/linux/hidraw_ioctl.h"
#include "virtual/device/report_descriptor_builder.h"

namespace korvsdk_test {

using VideoConsoleCore::hid::HidHandle;
using VideoConsoleCore::hid::kInvalidHidHandle;
using VideoConsoleCore::virtualdev::VirtualHidBackend;

namespace {

// A report request without its length, which the variable-length hidraw
// requests carry in the size field.
constexpr unsigned long WithoutLength(unsigned long request) {
    return request & ~(static_cast<unsigned long>(_IOC_SIZEMASK) << _IOC_SIZESHIFT);
}

std::string Hex4(uint16_t value) {
    char text[8];
    std::snprintf(text, sizeof text, "%04x", value);
    return text;
}

// One node: every open file of it is a handle of the model's device, opened
// when the file is and closed with it. All of this runs on umockdev's worker
// thread, one call at a time; a program's ioctl waits for its answer, so the
// sysfs tree changes while nothing of the program's looks at it.
struct Node {
    VirtualHidBackend& model;
    size_t device;
    std::function<void()> unplugged;  // takes the device out of sysfs
    bool removed = false;
    std::map<UMockdevIoctlClient*, HidHandle> handles;

    Node(VirtualHidBackend& m, size_t d, std::function<void()> gone)
        : model(m), device(d), unplugged(std::move(gone)) {}

    HidHandle HandleOf(UMockdevIoctlClient* client) const {
        const auto found = handles.find(client);
        return found == handles.end() ? kInvalidHidHandle : found->second;
    }

    // A model call that failed, as the kernel reports it: ENODEV once the
    // device is gone, EIO for a transfer the device did not complete.
    long Failure() const { return model.Present(device) ? -EIO : -ENODEV; }

    // After each call: a device the model has let go of leaves sysfs and
    // /dev, as the kernel removes a disconnected device.
    void NoticeUnplug() {
        if (removed || model.Present(device)) return;
        removed = true;
        unplugged();
    }

    long Ioctl(HidHandle handle, unsigned long request, uint8_t* data, size_t size) {
        if (request == HIDIOCGRDESCSIZE || request == HIDIOCGRDESC) {
            std::vector<uint8_t> descriptor;
            int collection = 0;
            if (!model.ReadReportDescriptor(handle, descriptor, collection)) return Failure();
            return AnswerDescriptorRequest(descriptor, request, data);
        }
        if (request == HIDIOCGRAWINFO) {
            VideoConsoleCore::hid::HiddAttributes attributes{};
            if (!model.GetAttributes(handle, attributes)) return Failure();
            const hidraw_devinfo info{3 /* BUS_USB */, static_cast<__s16>(attributes.VendorID),
                                      static_cast<__s16>(attributes.ProductID)};
            std::memcpy(data, &info, sizeof info);
            return 0;
        }
        // Report requests: the buffer is as long as the request says, and
        // that length goes to the device as it came. For an input report
        // the device reads a command from its high byte.
        const auto length = static_cast<uint32_t>(size);
        bool done = false;
        switch (WithoutLength(request)) {
            case WithoutLength(HIDIOCGINPUT(0)):
                done = model.GetInputReport(handle, data, length);
                break;
            case WithoutLength(HIDIOCSOUTPUT(0)):
                done = model.SetOutputReport(handle, data, length);
                break;
            case WithoutLength(HIDIOCGFEATURE(0)):
                done = model.GetFeature(handle, data, length);
                break;
            case WithoutLength(HIDIOCSFEATURE(0)):
                done = model.SetFeature(handle, data, length);
                break;
            default:
                return -ENOTTY;
        }
        return done ? static_cast<long>(length) : Failure();
    }
};

void OnOpen(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
    auto& node = *static_cast<Node*>(user);
    // A planned failure of Open, or a device already gone, leaves the file
    // without a model handle: every call on it then fails. (umockdev has no
    // way to fail the open() itself.)
    node.handles[client] = node.model.Open(node.model.HidPath(node.device));
}

void OnClose(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
    auto& node = *static_cast<Node*>(user);
    const auto found = node.handles.find(client);
    if (found == node.handles.end()) return;
    node.model.Close(found->second);
    node.handles.erase(found);
}

gboolean OnIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
    auto& node = *static_cast<Node*>(user);
    AnswerHidrawIoctl(client, [&](unsigned long request, uint8_t* data, size_t size) {
        const long result = node.Ioctl(node.HandleOf(client), request, data, size);
        node.NoticeUnplug();
        return result;
    });
    return TRUE;
}

// read(): the model's interrupt IN reports. It sends none, so a present
// device has nothing queued (EAGAIN on the non-blocking node); a removed
// one answers EIO, as hidraw does.
gboolean OnRead(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
    auto& node = *static_cast<Node*>(user);
    UMockdevIoctlData* buffer = umockdev_ioctl_client_get_arg(client);
    uint32_t done = 0;
    if (node.model.Read(node.HandleOf(client), buffer->data, static_cast<uint32_t>(buffer->data_len),
                        done))
        CompleteCall(client, done);
    else
        CompleteCall(client, node.model.Present(node.device) ? -EAGAIN : -EIO);
    return TRUE;
}

gboolean OnWrite(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
    auto& node = *static_cast<Node*>(user);
    UMockdevIoctlData* buffer = umockdev_ioctl_client_get_arg(client);
    uint32_t done = 0;
    if (node.model.Write(node.HandleOf(client), buffer->data,
                         static_cast<uint32_t>(buffer->data_len), done))
        CompleteCall(client, done);
    else
        CompleteCall(client, node.Failure());
    return TRUE;
}

}  // namespace

VirtualHidrawDevices::VirtualHidrawDevices(VirtualHidBackend& model) {
    const std::string rootHub =
        testbed_.AddUsb("usb1", {{"idVendor", "1d6b\n"}, {"idProduct", "0002\n"}, {"speed", "480\n"},
                                 {"product", "xHCI Host Controller\n"}});
    std::string superSpeedInterface;  // "2-0:1.0" below usb2, made when a device needs it

    for (size_t n = 0; n < model.DeviceCount(); ++n) {
        const auto& config = model.Config(n);
        const std::string port = std::to_string(n + 1);
        const std::string name = "1-" + port;
        const std::string usb = testbed_.AddUsb(
            name,
            {{"idVendor", Hex4(config.vid) + "\n"},
             {"idProduct", Hex4(config.pid) + "\n"},
             {"bcdDevice", Hex4(config.versionNumber) + "\n"},
             {"serial", config.serial + "\n"},
             {"product", config.description + "\n"},
             {"manufacturer", config.manufacturer + "\n"},
             {"speed", "480\n"}},
            rootHub);
        if (config.portLevel == 3) {
            if (superSpeedInterface.empty()) {
                const std::string hub = testbed_.AddUsb(
                    "usb2", {{"idVendor", "1d6b\n"}, {"idProduct", "0003\n"}, {"speed", "5000\n"},
                             {"product", "xHCI Host Controller\n"}});
                superSpeedInterface = testbed_.AddUsb("2-0:1.0", {{"bInterfaceNumber", "00\n"}}, hub);
            }
            const std::string peer = superSpeedInterface + "/usb2-port" + port;
            std::filesystem::create_directories(testbed_.Outside(peer));
            // From <usb>/port/peer up to /sys/devices.
            testbed_.SetLink(usb, "port/peer", "../../../usb2/2-0:1.0/usb2-port" + port);
        }
        testbed_.AddUsb(name + ":1.0", {{"bInterfaceNumber", "00\n"}, {"bInterfaceClass", "0e\n"}},
                        usb);
        const std::string hidInterface = testbed_.AddUsb(
            name + ":1.4", {{"bInterfaceNumber", "04\n"}, {"bInterfaceClass", "03\n"}}, usb);

        const std::string nodePath = NodePath(n);
        auto node = std::make_shared<Node>(model, n, [this, usb, nodePath] {
            testbed_.Remove(usb, nodePath);
        });
        UMockdevIoctlBase* handler = umockdev_ioctl_base_new();
        g_signal_connect(handler, "client-connected", G_CALLBACK(OnOpen), node.get());
        g_signal_connect(handler, "client-vanished", G_CALLBACK(OnClose), node.get());
        g_signal_connect(handler, "handle-ioctl", G_CALLBACK(OnIoctl), node.get());
        g_signal_connect(handler, "handle-read", G_CALLBACK(OnRead), node.get());
        g_signal_connect(handler, "handle-write", G_CALLBACK(OnWrite), node.get());
        testbed_.AddHidraw(hidInterface, config.vid, config.pid,
                           VideoConsoleCore::virtualdev::BuildReportDescriptor(config), nodePath,
                           handler, std::move(node));
    }
}

VirtualHidrawDevices::~VirtualHidrawDevices() = default;

std::string VirtualHidrawDevices::NodePath(size_t device) const {
    return "/dev/hidraw" + std::to_string(kFirstNode + device);
}

}  // namespace korvsdk_test
