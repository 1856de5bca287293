// Fake hidraw devices for testing the Linux backend against a synthetic
// sysfs (see support/linux/umockdev_testbed.h). FakeHidDevice answers the
// descriptor and device-information ioctls and read() the way the kernel
// does; the report requests are left to the umockdev sessions.
#pragma once

#include <cstdint>
#include <deque>
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

struct FakeHidDevice {
    std::vector<uint8_t> descriptor;
    uint16_t vendorId = 0;  // what HIDIOCGRAWINFO reports
    uint16_t productId = 0;

    // Everything below is shared with umockdev's worker thread.
    std::mutex mutex;
    std::deque<std::vector<uint8_t>> inputQueue;  // what read() hands out, one report each
    bool unplugged = false;                        // every call then fails as on a removed device
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
