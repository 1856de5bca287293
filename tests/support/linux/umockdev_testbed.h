// A synthetic sysfs tree and hidraw nodes, built with umockdev, for running
// the Linux HID backend without hardware. The test program runs under
// umockdev-wrapper, whose preloaded library sends every access to /sys and
// /dev into the testbed, and passes ioctl(), read() and write() on a node
// with an attached handler to that handler (in this process, on umockdev's
// worker thread).
//
// What answers a node is up to the caller: a UMockdevIoctlBase with its
// signals connected, and the state those signal handlers use.
#pragma once

#include <umockdev.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace korvsdk_test {

using Attributes = std::vector<std::pair<std::string, std::string>>;

class UmockdevTestbed {
public:
    // Throws std::runtime_error when the program does not run under
    // umockdev-wrapper.
    UmockdevTestbed();
    ~UmockdevTestbed();
    UmockdevTestbed(const UmockdevTestbed&) = delete;
    UmockdevTestbed& operator=(const UmockdevTestbed&) = delete;

    // A USB device, or an interface when `parent` is its device's sysfs
    // path; returns the new sysfs path ("/sys/devices/...").
    std::string AddUsb(const std::string& name, const Attributes& attributes,
                       const std::string& parent = "");

    // A HID device below `usbInterface`, publishing `descriptor` as its
    // report_descriptor, with its hidraw node at `nodePath` (below /dev).
    // Every open, ioctl, read and write on the node goes to `handler`,
    // which the testbed takes over; `state` is whatever the handler's
    // signals use, kept until the handler can no longer be called. Returns
    // the HID device's sysfs path.
    std::string AddHidraw(const std::string& usbInterface, uint16_t vendorId, uint16_t productId,
                          const std::vector<uint8_t>& descriptor, const std::string& nodePath,
                          UMockdevIoctlBase* handler, std::shared_ptr<void> state);

    void SetLink(const std::string& sysPath, const std::string& name, const std::string& target);
    // Replaces an attribute with a folder, so that reading it fails.
    void MakeUnreadable(const std::string& sysPath, const std::string& name);
    // Unplugs: the node and the sysfs folders of `sysPath` and below go away.
    void Remove(const std::string& sysPath, const std::string& nodePath);

    // The real location of a testbed path, for plain file operations.
    std::string Outside(const std::string& path) const;

private:
    UMockdevTestbed* testbed_ = nullptr;
    std::string root_;
    int hidCount_ = 0;
    std::vector<UMockdevIoctlBase*> handlers_;
    std::vector<std::shared_ptr<void>> handlerState_;
};

// Completes the ioctl, read or write a handler is answering: `result` >= 0
// is what the call returns; a negative one fails it with errno -result.
void CompleteCall(UMockdevIoctlClient* client, long result);

// Answers an ioctl on a hidraw node: a request of another type than 'H'
// fails with ENOTTY; for the others `answer` gets the request and the
// _IOC_SIZE bytes its argument points to (what it changes there goes back
// to the caller) and returns the result for CompleteCall.
void AnswerHidrawIoctl(UMockdevIoctlClient* client,
                       const std::function<long(unsigned long request, uint8_t* data, size_t size)>& answer);

// HIDIOCGRDESCSIZE and HIDIOCGRDESC for a device with `descriptor`, into
// the ioctl's argument `data`; -EINVAL for more bytes than it has.
long AnswerDescriptorRequest(const std::vector<uint8_t>& descriptor, unsigned long request,
                             uint8_t* data);

}  // namespace korvsdk_test
