#include "platform_hid/linux/fake_hidraw.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "hid/backend/linux/hidraw_ioctl.h"

namespace korvsdk_test {

namespace {

std::vector<gchar*> PairList(const Attributes& pairs) {
    std::vector<gchar*> list;
    for (const auto& [name, value] : pairs) {
        list.push_back(const_cast<gchar*>(name.c_str()));
        list.push_back(const_cast<gchar*>(value.c_str()));
    }
    list.push_back(nullptr);
    return list;
}

void Finish(UMockdevIoctlClient* client, long result, int error = 0) {
    umockdev_ioctl_client_complete(client, result, error);
}

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
    const unsigned long request = umockdev_ioctl_client_get_request(client);
    std::lock_guard lock(device.mutex);
    if (device.unplugged) {
        Finish(client, -1, ENODEV);
        return TRUE;
    }
    if (_IOC_TYPE(request) != 'H') {
        Finish(client, -1, ENOTTY);
        return TRUE;
    }
    // The argument is a pointer to _IOC_SIZE bytes of the caller's memory.
    const size_t size = _IOC_SIZE(request);
    UMockdevIoctlData* memory =
        umockdev_ioctl_data_resolve(umockdev_ioctl_client_get_arg(client), 0, size, nullptr);
    if (memory == nullptr) {
        Finish(client, -1, EFAULT);
        return TRUE;
    }
    long result = 0;
    if (request == HIDIOCGRDESCSIZE) {
        const int descriptorSize = static_cast<int>(device.descriptor.size());
        std::memcpy(memory->data, &descriptorSize, sizeof descriptorSize);
    } else if (request == HIDIOCGRDESC) {
        hidraw_report_descriptor raw;
        std::memcpy(&raw, memory->data, sizeof raw);
        if (raw.size > device.descriptor.size()) {
            result = -EINVAL;
        } else {
            std::memcpy(raw.value, device.descriptor.data(), raw.size);
            std::memcpy(memory->data, &raw, sizeof raw);
        }
    } else if (request == HIDIOCGRAWINFO) {
        const hidraw_devinfo info{3 /* BUS_USB */, static_cast<__s16>(device.vendorId),
                                  static_cast<__s16>(device.productId)};
        std::memcpy(memory->data, &info, sizeof info);
    } else {
        result = AnswerReport(device, _IOC_NR(request), memory->data, size);
    }
    if (result < 0)
        Finish(client, -1, static_cast<int>(-result));
    else
        Finish(client, result);
    g_object_unref(memory);
    return TRUE;
}

// read() on a hidraw node: one queued report, EAGAIN when none (the backend
// opens the node non-blocking), EIO once the device is gone.
gboolean HandleRead(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
    auto& device = *static_cast<FakeHidDevice*>(user);
    UMockdevIoctlData* buffer = umockdev_ioctl_client_get_arg(client);
    std::lock_guard lock(device.mutex);
    if (device.unplugged) {
        Finish(client, -1, EIO);
    } else if (device.inputQueue.empty()) {
        Finish(client, -1, EAGAIN);
    } else {
        const std::vector<uint8_t> report = std::move(device.inputQueue.front());
        device.inputQueue.pop_front();
        // hidraw hands out at most the caller's length and drops the rest.
        const size_t copied = std::min(report.size(), static_cast<size_t>(buffer->data_len));
        std::memcpy(buffer->data, report.data(), copied);
        Finish(client, static_cast<long>(copied));
    }
    return TRUE;
}

gboolean HandleWrite(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer user) {
    auto& device = *static_cast<FakeHidDevice*>(user);
    UMockdevIoctlData* buffer = umockdev_ioctl_client_get_arg(client);
    std::lock_guard lock(device.mutex);
    if (device.unplugged) {
        Finish(client, -1, EIO);
        return TRUE;
    }
    device.written.emplace_back(buffer->data, buffer->data + buffer->data_len);
    Finish(client, buffer->data_len);
    return TRUE;
}

}  // namespace

FakeSysfs::FakeSysfs() {
    // umockdev_in_mock_environment() answers false under umockdev-wrapper
    // here, so look for the preload itself.
    const char* preload = std::getenv("LD_PRELOAD");
    if (preload == nullptr || std::strstr(preload, "umockdev-preload") == nullptr)
        throw std::runtime_error("this test needs umockdev: run it under umockdev-wrapper (ctest does)");
    testbed_ = umockdev_testbed_new();
    gchar* root = umockdev_testbed_get_root_dir(testbed_);
    root_ = root;
    g_free(root);
    ::mkdir(Outside("/dev").c_str(), 0755);
    ::mkdir(Outside(kFakeDevRoot).c_str(), 0755);
}

FakeSysfs::~FakeSysfs() {
    // The testbed first: it stops the worker thread that calls the handlers.
    g_object_unref(testbed_);
    for (UMockdevIoctlBase* handler : handlers_) g_object_unref(handler);
}

std::string FakeSysfs::Outside(const std::string& path) const { return root_ + path; }

std::string FakeSysfs::AddUsb(const std::string& name, const Attributes& attributes,
                              const std::string& parent) {
    auto list = PairList(attributes);
    gchar* noProperties[] = {nullptr};
    gchar* path = umockdev_testbed_add_devicev(testbed_, "usb", name.c_str(),
                                               parent.empty() ? nullptr : parent.c_str(),
                                               list.data(), noProperties);
    std::string result = path;
    g_free(path);
    return result;
}

std::string FakeSysfs::AddHidraw(const std::string& usbInterface, const std::string& node,
                                 std::shared_ptr<FakeHidDevice> device) {
    char hidName[32];
    std::snprintf(hidName, sizeof hidName, "0003:%04X:%04X.%04X", device->vendorId,
                  device->productId, ++hidCount_);
    gchar* noPairs[] = {nullptr};
    gchar* hidPath = umockdev_testbed_add_devicev(testbed_, "hid", hidName, usbInterface.c_str(),
                                                  noPairs, noPairs);
    const std::string hid = hidPath;
    g_free(hidPath);
    umockdev_testbed_set_attribute_binary(testbed_, hid.c_str(), "report_descriptor",
                                          device->descriptor.data(),
                                          static_cast<gint>(device->descriptor.size()));

    // The node's folder sits in "<hid>/hidraw/<node>" as in the kernel's
    // tree; add_from_string keeps that extra level, add_device would not.
    const std::string devicePath = std::string(kFakeDevRoot) + "/" + node;
    const std::string record = "P: " + hid.substr(std::strlen("/sys")) + "/hidraw/" + node +
                               "\nE: SUBSYSTEM=hidraw\nE: DEVNAME=" + devicePath +
                               "\nA: dev=247:" + std::to_string(hidCount_) + "\n";
    GError* error = nullptr;
    if (!umockdev_testbed_add_from_string(testbed_, record.c_str(), &error)) {
        const std::string message = error->message;
        g_error_free(error);
        throw std::runtime_error("umockdev: " + message);
    }

    // A plain file as the node; everything done on it goes to the handler.
    if (FILE* file = std::fopen(Outside(devicePath).c_str(), "w")) std::fclose(file);
    UMockdevIoctlBase* handler = umockdev_ioctl_base_new();
    g_signal_connect(handler, "handle-ioctl", G_CALLBACK(HandleIoctl), device.get());
    g_signal_connect(handler, "handle-read", G_CALLBACK(HandleRead), device.get());
    g_signal_connect(handler, "handle-write", G_CALLBACK(HandleWrite), device.get());
    if (!umockdev_testbed_attach_ioctl(testbed_, devicePath.c_str(), handler, &error)) {
        const std::string message = error->message;
        g_error_free(error);
        throw std::runtime_error("umockdev: " + message);
    }
    handlers_.push_back(handler);
    devices_.push_back(std::move(device));
    return devicePath;
}

void FakeSysfs::SetLink(const std::string& sysPath, const std::string& name,
                        const std::string& target) {
    umockdev_testbed_set_attribute_link(testbed_, sysPath.c_str(), name.c_str(), target.c_str());
}

void FakeSysfs::MakeUnreadable(const std::string& sysPath, const std::string& name) {
    const std::string path = Outside(sysPath + "/" + name);
    ::unlink(path.c_str());
    ::mkdir(path.c_str(), 0755);
}

void FakeSysfs::Remove(const std::string& sysPath, const std::string& node) {
    umockdev_testbed_remove_device(testbed_, sysPath.c_str());
    ::unlink(Outside(node).c_str());
}

}  // namespace korvsdk_test
