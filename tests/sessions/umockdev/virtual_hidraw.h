// The virtual capture devices as the Linux kernel would show them, so that
// the library's hidraw backend, unmodified, reaches the device model: a
// synthetic sysfs tree (USB device, interfaces, HID device, hidraw class
// entry) and a node per device whose opens, ioctls, reads and writes are
// answered by the model (see support/linux/umockdev_testbed.h).
//
// Layout, for device n of the model (port p = n + 1):
//   /sys/devices/usb1                     USB 2 root hub
//   /sys/devices/usb1/1-p                 the device: idVendor, idProduct,
//                                         bcdDevice, serial, product,
//                                         manufacturer, speed 480
//   /sys/devices/usb1/1-p/1-p:1.0         video interface
//   /sys/devices/usb1/1-p/1-p:1.4         HID interface
//     .../0003:VVVV:PPPP.000k             HID device with report_descriptor
//     .../hidraw/hidraw<64+n>             node /dev/hidraw<64+n>
// A device on a USB 3 capable port (PortLevel 3) has port/peer linking its
// port to the SuperSpeed half below /sys/devices/usb2, as the kernel shows a
// port whose connector has both halves; a PortLevel 2 device has no peer.
// The devices keep the model's order: the backend lists them by sysfs name.
//
// Node numbers start at 64, one past the last minor hidraw hands out: the
// preload falls back to the real /dev for a node the testbed lacks (one an
// unplug removed), and no real hidraw node can have such a number.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "support/linux/umockdev_testbed.h"
#include "virtual/device/virtual_hid_backend.h"

namespace korvsdk_test {

class VirtualHidrawDevices {
public:
    static constexpr int kFirstNode = 64;

    // Builds the tree for every device of `model`, which must outlive this
    // object. Throws when not running under umockdev.
    explicit VirtualHidrawDevices(VideoConsoleCore::virtualdev::VirtualHidBackend& model);
    ~VirtualHidrawDevices();
    VirtualHidrawDevices(const VirtualHidrawDevices&) = delete;
    VirtualHidrawDevices& operator=(const VirtualHidrawDevices&) = delete;

    std::string NodePath(size_t device) const;     // "/dev/hidraw64"
    // The real file behind NodePath(device), whose mode a test may change.
    std::string NodeFile(size_t device) const { return testbed_.Outside(NodePath(device)); }

private:
    UmockdevTestbed testbed_;
};

}  // namespace korvsdk_test
