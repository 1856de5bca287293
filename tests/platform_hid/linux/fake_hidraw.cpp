#include "platform_hid/linux/fake_hidraw.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "hid/backend/linux/hidraw_ioctl.h"

namespace korvsdk_test {

namespace {

// HID report ioctls: buffer[0] is the report ID, as hidraw has it.
long AnswerReport(FakeHidDevice& device, unsigned number, uint8_t* data, size_t length) {
    device.requests.push_back({number, length, std::vector<uint8_t>(data, data + length)});
    const uint8_t reportId = data[0];
    switch (number) {
        case 0x06:  // set feature
            device.features[reportId].assign(data + 1, data + length);
            return static_cast<long>(length);
        case 0x07: {  // get feature: a report the device does not have stalls
            const auto found = device.features.find(reportId);
            if (found == device.features.end()) return -EPIPE;
            const size_t copied = std::min(length - 1, found->second.size());
            std::memcpy(data + 1, found->second.data(), copied);
            return static_cast<long>(copied + 1);
        }
        case 0x0A:  // get input: the device fills as much as was asked for
            for (size_t at = 1; at < length; ++at) data[at] = InputPattern(reportId, at);
            return static_cast<long>(length);
        case 0x0B:  // set output
            return static_cast<long>(length);
        default:
            return -ENOTTY;
    }
}

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
        return AnswerReport(device, _IOC_NR(request), data, size);
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

gboolean HandleWrite(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
    auto& device = *static_cast<FakeHidDevice*>(user);
    UMockdevIoctlData* buffer = umockdev_ioctl_client_get_arg(client);
    std::lock_guard lock(device.mutex);
    if (device.unplugged) {
        CompleteCall(client, -EIO);
        return TRUE;
    }
    device.written.emplace_back(buffer->data, buffer->data + buffer->data_len);
    CompleteCall(client, buffer->data_len);
    return TRUE;
}

}  // namespace

FakeSysfs::FakeSysfs() { ::mkdir(Outside(kFakeDevRoot).c_str(), 0755); }

std::string FakeSysfs::AddHidraw(const std::string& usbInterface, const std::string& node,
                                 std::shared_ptr<FakeHidDevice> device) {
    UMockdevIoctlBase* handler = umockdev_ioctl_base_new();
    g_signal_connect(handler, "handle-ioctl", G_CALLBACK(HandleIoctl), device.get());
    g_signal_connect(handler, "handle-read", G_CALLBACK(HandleRead), device.get());
    g_signal_connect(handler, "handle-write", G_CALLBACK(HandleWrite), device.get());
    const std::string devicePath = std::string(kFakeDevRoot) + "/" + node;
    const uint16_t vendorId = device->vendorId;
    const uint16_t productId = device->productId;
    const std::vector<uint8_t> descriptor = device->descriptor;
    AddHidraw(usbInterface, vendorId, productId, descriptor, devicePath, handler, std::move(device));
    return devicePath;
}

}  // namespace korvsdk_test
