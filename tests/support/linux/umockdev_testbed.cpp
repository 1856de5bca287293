#include "support/linux/umockdev_testbed.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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

[[noreturn]] void Fail(GError* error) {
    const std::string message = error->message;
    g_error_free(error);
    throw std::runtime_error("umockdev: " + message);
}

}  // namespace

void CompleteCall(UMockdevIoctlClient* client, long result) {
    if (result < 0)
        umockdev_ioctl_client_complete(client, -1, static_cast<int>(-result));
    else
        umockdev_ioctl_client_complete(client, result, 0);
}

void AnswerHidrawIoctl(UMockdevIoctlClient* client,
                       const std::function<long(unsigned long, uint8_t*, size_t)>& answer) {
    const unsigned long request = umockdev_ioctl_client_get_request(client);
    if (_IOC_TYPE(request) != 'H') {
        CompleteCall(client, -ENOTTY);
        return;
    }
    const size_t size = _IOC_SIZE(request);
    UMockdevIoctlData* memory =
        umockdev_ioctl_data_resolve(umockdev_ioctl_client_get_arg(client), 0, size, nullptr);
    if (memory == nullptr) {
        CompleteCall(client, -EFAULT);
        return;
    }
    CompleteCall(client, answer(request, memory->data, size));
    g_object_unref(memory);
}

long AnswerDescriptorRequest(const std::vector<uint8_t>& descriptor, unsigned long request,
                             uint8_t* data) {
    if (request == HIDIOCGRDESCSIZE) {
        const int size = static_cast<int>(descriptor.size());
        std::memcpy(data, &size, sizeof size);
        return 0;
    }
    hidraw_report_descriptor raw;
    std::memcpy(&raw, data, sizeof raw);
    if (raw.size > descriptor.size()) return -EINVAL;
    std::memcpy(raw.value, descriptor.data(), raw.size);
    std::memcpy(data, &raw, sizeof raw);
    return 0;
}

UmockdevTestbed::UmockdevTestbed() {
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
}

UmockdevTestbed::~UmockdevTestbed() {
    // The testbed first: it stops the worker thread that calls the handlers.
    g_object_unref(testbed_);
    for (UMockdevIoctlBase* handler : handlers_) g_object_unref(handler);
    handlerState_.clear();
}

std::string UmockdevTestbed::Outside(const std::string& path) const { return root_ + path; }

std::string UmockdevTestbed::AddUsb(const std::string& name, const Attributes& attributes,
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

std::string UmockdevTestbed::AddHidraw(const std::string& usbInterface, uint16_t vendorId,
                                       uint16_t productId, const std::vector<uint8_t>& descriptor,
                                       const std::string& nodePath, UMockdevIoctlBase* handler,
                                       std::shared_ptr<void> state) {
    handlers_.push_back(handler);
    handlerState_.push_back(std::move(state));

    char hidName[32];
    std::snprintf(hidName, sizeof hidName, "0003:%04X:%04X.%04X", vendorId, productId, ++hidCount_);
    gchar* noPairs[] = {nullptr};
    gchar* hidPath = umockdev_testbed_add_devicev(testbed_, "hid", hidName, usbInterface.c_str(),
                                                  noPairs, noPairs);
    const std::string hid = hidPath;
    g_free(hidPath);
    std::vector<uint8_t> bytes = descriptor;
    umockdev_testbed_set_attribute_binary(testbed_, hid.c_str(), "report_descriptor", bytes.data(),
                                          static_cast<gint>(bytes.size()));

    // The node's folder sits in "<hid>/hidraw/<node>" as in the kernel's
    // tree; add_from_string keeps that extra level, add_device would not.
    const std::string node = std::filesystem::path(nodePath).filename().string();
    const std::string record = "P: " + hid.substr(std::strlen("/sys")) + "/hidraw/" + node +
                               "\nE: SUBSYSTEM=hidraw\nE: DEVNAME=" + nodePath +
                               "\nA: dev=247:" + std::to_string(hidCount_) + "\n";
    GError* error = nullptr;
    if (!umockdev_testbed_add_from_string(testbed_, record.c_str(), &error)) Fail(error);

    // A plain file as the node; everything done on it goes to the handler.
    std::filesystem::create_directories(std::filesystem::path(Outside(nodePath)).parent_path());
    if (FILE* file = std::fopen(Outside(nodePath).c_str(), "w")) std::fclose(file);
    if (!umockdev_testbed_attach_ioctl(testbed_, nodePath.c_str(), handler, &error)) Fail(error);
    return hid;
}

void UmockdevTestbed::SetLink(const std::string& sysPath, const std::string& name,
                              const std::string& target) {
    umockdev_testbed_set_attribute_link(testbed_, sysPath.c_str(), name.c_str(), target.c_str());
}

void UmockdevTestbed::MakeUnreadable(const std::string& sysPath, const std::string& name) {
    const std::string path = Outside(sysPath + "/" + name);
    ::unlink(path.c_str());
    ::mkdir(path.c_str(), 0755);
}

void UmockdevTestbed::Remove(const std::string& sysPath, const std::string& nodePath) {
    // Each device below goes on its own, deepest first, so that its class
    // and bus links (/sys/class/hidraw/..., /sys/bus/usb/devices/...) go
    // with it; removing the top folder alone would leave them dangling.
    namespace fs = std::filesystem;
    std::vector<std::string> below;
    std::error_code error;
    for (fs::recursive_directory_iterator it(Outside(sysPath), error), end; !error && it != end;
         it.increment(error)) {
        if (it->is_directory() && !it->is_symlink() && fs::is_symlink(it->path() / "subsystem"))
            below.push_back(it->path().string().substr(root_.size()));
    }
    std::sort(below.begin(), below.end(),
              [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
    for (const std::string& device : below) umockdev_testbed_remove_device(testbed_, device.c_str());
    umockdev_testbed_remove_device(testbed_, sysPath.c_str());
    ::unlink(Outside(nodePath).c_str());
}

}  // namespace korvsdk_test
