// Fake hidraw devices for testing the Linux backend against a synthetic
// sysfs (see support/linux/umockdev_testbed.h). FakeHidDevice answers the
// hidraw ioctls the way the kernel and a simple device would.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/linux/umockdev_testbed.h"

namespace korvsdk_test {

// The preload falls back to the real /dev for a path the testbed lacks, so
// the fake nodes live in a folder no real system has: a node a test removes
// can then never be found as a real one.
inline constexpr const char* kFakeDevRoot = "/dev/korvsdk-test";

// The byte that the fake device puts at offset `at` of the input report
// `reportId` it answers with.
inline uint8_t InputPattern(uint8_t reportId, size_t at) {
    return static_cast<uint8_t>(reportId * 31u + at * 7u + 1u);
}

struct FakeHidDevice {
    std::vector<uint8_t> descriptor;
    uint16_t vendorId = 0;  // what HIDIOCGRAWINFO reports
    uint16_t productId = 0;

    // One report ioctl as the device received it.
    struct Request {
        unsigned number = 0;  // _IOC_NR: 0x06 set feature, 0x07 get feature, 0x0A get input, 0x0B set output
        size_t length = 0;    // the length the ioctl carried
        std::vector<uint8_t> bytes;  // the buffer as sent
    };

    // Everything below is shared with umockdev's worker thread.
    std::mutex mutex;
    std::map<uint8_t, std::vector<uint8_t>> features;  // report ID -> data after the ID
    std::deque<std::vector<uint8_t>> inputQueue;       // what read() hands out, one report each
    std::vector<Request> requests;
    std::vector<std::vector<uint8_t>> written;  // write() calls
    bool unplugged = false;                     // every call then fails as on a removed device

    std::vector<Request> Requests() {
        std::lock_guard lock(mutex);
        return requests;
    }
};

// The testbed with fake devices behind the nodes, which live in kFakeDevRoot.
class FakeSysfs : public UmockdevTestbed {
public:
    FakeSysfs();

    using UmockdevTestbed::AddHidraw;
    // A HID device below `usbInterface` and its node <kFakeDevRoot>/<node>,
    // answered by `device`. Returns the node's device path.
    std::string AddHidraw(const std::string& usbInterface, const std::string& node,
                          std::shared_ptr<FakeHidDevice> device);
};

}  // namespace korvsdk_test
