#include "platform_hid/linux/fake_hidraw.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "hid/backend/linux/hidraw_ioctl.h"

namespace korvsdk_test {

namespace {

gboolean HandleIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
    auto& device = *static_cast<FakeHidDevice*>(user);
    AnswerHidrawIoctl(client, [&](unsigned long request, uint8_t* data, size_t size) -> long {
        std::lock_guard lock(device.mutex);
        if (device.unplugged) return -ENODEV;
        if (request == HIDIOCGRDESCSIZE || request == HIDIOCGRDESC)
            return AnswerDescriptorRequest(device.descriptor, request, data);
        if (request == HIDIOCGRAWINFO) {
            const hidraw_devinfo info{3 /* BUS_USB */, static_cast<__s16>(device.vendorId),
                                      static_cast<__s16>(device.productId)};
            std::memcpy(data, &info, sizeof info);
            return 0;
        }
        return -ENOTTY;  // the report requests are the sessions' to test
    });
    return TRUE;
}

// read() on a hidraw node: one queued report, EAGAIN when none (the backend
// opens the node non-blocking), EIO once the device is gone.
gboolean HandleRead(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
    auto& device = *static_cast<FakeHidDevice*>(user);
    UMockdevIoctlData* buffer = umockdev_ioctl_client_get_arg(client);
    std::lock_guard lock(device.mutex);
    if (device.unplugged) {
        CompleteCall(client, -EIO);
    } else if (device.inputQueue.empty()) {
        CompleteCall(client, -EAGAIN);
    } else {
        const std::vector<uint8_t> report = std::move(device.inputQueue.front());
        device.inputQueue.pop_front();
        // hidraw hands out at most the caller's length and drops the rest.
        const size_t copied = std::min(report.size(), static_cast<size_t>(buffer->data_len));
        std::memcpy(buffer->data, report.data(), copied);
        CompleteCall(client, static_cast<long>(copied));
    }
    return TRUE;
}

}  // namespace

FakeSysfs::FakeSysfs() { ::mkdir(Outside(kFakeDevRoot).c_str(), 0755); }

std::string FakeSysfs::AddHidraw(const std::string& usbInterface, const std::string& node,
                                 std::shared_ptr<FakeHidDevice> device) {
    UMockdevIoctlBase* handler = umockdev_ioctl_base_new();
    g_signal_connect(handler, "handle-ioctl", G_CALLBACK(HandleIoctl), device.get());
    g_signal_connect(handler, "handle-read", G_CALLBACK(HandleRead), device.get());
    const std::string devicePath = std::string(kFakeDevRoot) + "/" + node;
    const uint16_t vendorId = device->vendorId;
    const uint16_t productId = device->productId;
    const std::vector<uint8_t> descriptor = device->descriptor;
    AddHidraw(usbInterface, vendorId, productId, descriptor, devicePath, handler, std::move(device));
    return devicePath;
}

}  // namespace korvsdk_test
