// The Linux HID backend against a synthetic sysfs and fake hidraw devices
// (see fake_hidraw.h); no hardware involved.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>

#include "hid/backend/linux/descriptor_outline.h"
#include "hid/backend/linux/linux_hidraw_backend.h"
#include "platform_hid/linux/fake_hidraw.h"
#include "support/test_support.h"

// Found by argument lookup, so beside the record.
namespace VideoConsoleCore::hid {
bool operator==(const UsbDeviceInfo& a, const UsbDeviceInfo& b) {
    return a.instanceId == b.instanceId && a.busReportedDescription == b.busReportedDescription &&
           a.location == b.location;
}
void PrintTo(const UsbDeviceInfo& info, std::ostream* out) {
    *out << "{" << info.instanceId << ", \"" << info.busReportedDescription << "\", "
         << info.location << "}";
}
}  // namespace VideoConsoleCore::hid

namespace {

using namespace VideoConsoleCore::hid;
using korvsdk_test::Attributes;
using korvsdk_test::FakeHidDevice;
using korvsdk_test::kFakeDevRoot;

constexpr auto kReadTimeout = std::chrono::milliseconds(50);

// Vendor collection with report IDs: input 1, output 2, feature 3.
const std::vector<uint8_t> kNumberedDescriptor = {
    0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01,              // vendor page, Collection (Application)
    0x15, 0x00, 0x26, 0xFF, 0x00, 0x75, 0x08, 0x95, 0x3F,  // 0..255, 8 bits, 63 of them
    0x85, 0x01, 0x09, 0x01, 0x81, 0x02,                    // Report ID 1, Input
    0x85, 0x02, 0x09, 0x02, 0x91, 0x02,                    // Report ID 2, Output
    0x85, 0x03, 0x09, 0x03, 0xB1, 0x02,                    // Report ID 3, Feature
    0xC0};
// The same without report IDs.
const std::vector<uint8_t> kUnnumberedDescriptor = {
    0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01, 0x15, 0x00, 0x26, 0xFF, 0x00,
    0x75, 0x08, 0x95, 0x3F, 0x09, 0x01, 0x81, 0x02, 0xC0};
// Two top-level collections, the first with a nested one.
const std::vector<uint8_t> kTwoCollectionDescriptor = {
    0x05, 0x01, 0x09, 0x06, 0xA1, 0x01,                    // keyboard, Collection (Application)
    0xA1, 0x00, 0x75, 0x08, 0x95, 0x01, 0x81, 0x03, 0xC0,  //   Collection (Physical) ... End
    0xC0,                                                  // End Collection
    0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01,              // vendor, Collection (Application)
    0x85, 0x05, 0x75, 0x08, 0x95, 0x07, 0x09, 0x01, 0xB1, 0x02, 0xC0};

std::shared_ptr<FakeHidDevice> MakeDevice(const std::vector<uint8_t>& descriptor,
                                          uint16_t vid = 0xFFF0, uint16_t pid = 0x0001) {
    auto device = std::make_shared<FakeHidDevice>();
    device->descriptor = descriptor;
    device->vendorId = vid;
    device->productId = pid;
    return device;
}

class LinuxHidraw : public ::testing::Test {
protected:
    // A capture device on port 1-2 with one HID interface; returns its node.
    std::string AddCaptureDevice(const std::vector<uint8_t>& descriptor, Attributes attributes = {}) {
        Attributes all = {{"idVendor", "fff0"}, {"idProduct", "0001"}, {"serial", "SN0042"},
                          {"bcdDevice", "0213"}, {"speed", "480"}};
        all.insert(all.end(), attributes.begin(), attributes.end());
        usbDevice = sysfs.AddUsb("1-2", all);
        usbInterface = sysfs.AddUsb("1-2:1.0", {{"bInterfaceNumber", "00"}}, usbDevice);
        device = MakeDevice(descriptor);
        return sysfs.AddHidraw(usbInterface, "hidraw0", device);
    }

    HidHandle OpenCaptureDevice(const std::vector<uint8_t>& descriptor = kNumberedDescriptor,
                                Attributes attributes = {}) {
        const HidHandle handle = backend.Open(AddCaptureDevice(descriptor, std::move(attributes)));
        EXPECT_NE(handle, kInvalidHidHandle);
        return handle;
    }

    std::vector<UsbDeviceInfo> UsbDevices() {
        std::vector<UsbDeviceInfo> found;
        EXPECT_TRUE(backend.EnumerateUsbDevices(found));
        return found;
    }

    korvsdk_test::FakeSysfs sysfs;  // before the backend: it outlives every open node
    LinuxHidrawBackend backend{"/sys", kFakeDevRoot, kReadTimeout};
    std::shared_ptr<FakeHidDevice> device;
    std::string usbDevice, usbInterface;
};

using Entries = std::vector<UsbDeviceInfo>;

// ---- USB enumeration ----------------------------------------------------------

TEST_F(LinuxHidraw, SerialStandInAndBadAttributes) {
    // Serials Windows would not use in an instance ID give way to the sysfs name.
    sysfs.AddUsb("1-4", {{"idVendor", "0001"}, {"idProduct", "0002"}});
    sysfs.AddUsb("1-5", {{"idVendor", "0001"}, {"idProduct", "0003"}, {"serial", "AB,12"}});
    sysfs.AddUsb("1-6", {{"idVendor", "0001"}, {"idProduct", "0004"}, {"serial", ""}});
    // IDs that cannot be read drop the device.
    sysfs.AddUsb("1-7", {{"idVendor", "zzzz"}, {"idProduct", "0001"}});
    sysfs.AddUsb("1-8", {{"idVendor", "0001"}, {"idProduct", ""}});
    sysfs.AddUsb("1-9", {{"idVendor", "12345"}, {"idProduct", "0001"}});
    sysfs.AddUsb("1-10", {{"idProduct", "0001"}});
    // An unreadable serial gives the stand-in, a missing product "".
    const auto unreadable = sysfs.AddUsb("1-11", {{"idVendor", "0001"}, {"idProduct", "0005"}});
    sysfs.MakeUnreadable(unreadable, "serial");
    // Interface numbers that cannot be read come from the interface's name.
    const auto composite = sysfs.AddUsb("1-12", {{"idVendor", "0001"}, {"idProduct", "0006"}});
    sysfs.AddUsb("1-12:1.0", {{"bInterfaceNumber", "xy"}}, composite);
    sysfs.AddUsb("1-12:1.1", {}, composite);

    EXPECT_EQ(UsbDevices(), (Entries{{"USB\\VID_0001&PID_0005\\1-11", "", "1-11"},
                                     {"USB\\VID_0001&PID_0006\\1-12", "", "1-12"},
                                     {"USB\\VID_0001&PID_0006&MI_00\\1-12:1.0", "", "1-12"},
                                     {"USB\\VID_0001&PID_0006&MI_01\\1-12:1.1", "", "1-12"},
                                     {"USB\\VID_0001&PID_0002\\1-4", "", "1-4"},
                                     {"USB\\VID_0001&PID_0003\\1-5", "", "1-5"},
                                     {"USB\\VID_0001&PID_0004\\1-6", "", "1-6"}}));
}

// umockdev always shows the program a /sys; a missing or empty sysfs needs a
// plain folder as the sysfs root instead (the preload leaves /tmp alone).
TEST(LinuxHidrawWithoutUmockdev, MissingSysfsFailsSysfsWithoutUsbIsEmpty) {
    korvsdk_test::TempFolder folder;
    std::vector<UsbDeviceInfo> devices{{"stale", "", ""}};
    std::vector<std::string> paths{"stale"};

    LinuxHidrawBackend none((folder.path() / "sys").string(), "/dev");
    EXPECT_FALSE(none.EnumerateUsbDevices(devices));
    EXPECT_FALSE(none.EnumerateHidInterfaces(paths));
    EXPECT_EQ(none.UsbPortLevel("fff0", "0001", "SN0042"), -1);

    std::filesystem::create_directories(folder.path() / "sys" / "devices");
    LinuxHidrawBackend bare((folder.path() / "sys").string(), "/dev");
    EXPECT_TRUE(bare.EnumerateUsbDevices(devices));
    EXPECT_TRUE(devices.empty());
    EXPECT_TRUE(bare.EnumerateHidInterfaces(paths));
    EXPECT_TRUE(paths.empty());
}

// ---- Port level -------------------------------------------------------------

TEST_F(LinuxHidraw, PortLevelFromSpeedOrUsb3Peer) {
    sysfs.AddUsb("2-1", {{"idVendor", "fff0"}, {"idProduct", "0001"}, {"serial", "A"}, {"speed", "5000"}});
    const auto paired = sysfs.AddUsb(
        "1-2", {{"idVendor", "fff0"}, {"idProduct", "0001"}, {"serial", "B"}, {"speed", "480"}});
    sysfs.SetLink(paired, "port/peer", "../../../usb2/2-0:1.0/usb2-port2");
    sysfs.AddUsb("1-3", {{"idVendor", "fff0"}, {"idProduct", "0001"}, {"serial", "C"}, {"speed", "480"}});
    sysfs.AddUsb("1-4", {{"idVendor", "fff0"}, {"idProduct", "0001"}, {"serial", "D"}, {"speed", "1.5"}});
    sysfs.AddUsb("1-5", {{"idVendor", "fff0"}, {"idProduct", "0001"}, {"speed", "fast"}});

    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0001", "A"), 3);
    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0001", "B"), 3);
    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0001", "C"), 2);
    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0001", "D"), 2);
    // Found by its stand-in serial, with an unreadable speed.
    EXPECT_EQ(backend.UsbPortLevel("fff0", "0001", "1-5"), 2);
    // Instance IDs ignore case; different IDs or serial are another device.
    EXPECT_EQ(backend.UsbPortLevel("fff0", "0001", "c"), 2);
    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0002", "A"), -1);
    EXPECT_EQ(backend.UsbPortLevel("FFF1", "0001", "A"), -1);
    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0001", "E"), -1);
    EXPECT_EQ(backend.UsbPortLevel("VID", "0001", "A"), -1);
}

// ---- Location -----------------------------------------------------------------

TEST_F(LinuxHidraw, LocationIsTheUsbPortPath) {
    // A capture device behind two hubs, and one on a root-hub port.
    const Attributes hub = {{"idVendor", "05e3"}, {"idProduct", "0610"}, {"bDeviceClass", "09"}};
    const auto outer = sysfs.AddUsb("3-1", hub);
    const auto inner = sysfs.AddUsb("3-1.4", hub, outer);
    const auto unit = sysfs.AddUsb(
        "3-1.4.2", {{"idVendor", "fff0"}, {"idProduct", "0001"}, {"serial", "SN7"}}, inner);
    const auto unitInterface = sysfs.AddUsb("3-1.4.2:1.0", {{"bInterfaceNumber", "00"}}, unit);
    sysfs.AddHidraw(unitInterface, "hidraw3", MakeDevice(kTwoCollectionDescriptor));
    sysfs.AddUsb("1-2", {{"idVendor", "fff0"}, {"idProduct", "0001"}, {"serial", "SN8"}});

    std::map<std::string, std::string> locations;
    for (const UsbDeviceInfo& info : UsbDevices()) locations[info.instanceId] = info.location;
    EXPECT_EQ(locations["USB\\VID_FFF0&PID_0001\\SN7"], "3-1.4.2");
    EXPECT_EQ(locations["USB\\VID_FFF0&PID_0001\\SN8"], "1-2");
    EXPECT_EQ(locations["USB\\VID_05E3&PID_0610\\3-1.4"], "3-1.4");

    // Every collection path of the node names the device's port.
    std::vector<std::string> paths;
    ASSERT_TRUE(backend.EnumerateHidInterfaces(paths));
    ASSERT_EQ(paths.size(), 2u);
    for (const std::string& path : paths) EXPECT_EQ(backend.HidInterfaceLocation(path), "3-1.4.2") << path;
    EXPECT_EQ(backend.HidInterfaceLocation(std::string(kFakeDevRoot) + "/hidraw9"), "");
}

// ---- HID interfaces, open and close -----------------------------------------

TEST_F(LinuxHidraw, OnePathPerTopLevelCollection) {
    const auto usb = sysfs.AddUsb("1-2", {{"idVendor", "fff0"}, {"idProduct", "0001"}});
    const auto first = sysfs.AddUsb("1-2:1.0", {{"bInterfaceNumber", "00"}}, usb);
    const auto second = sysfs.AddUsb("1-2:1.1", {{"bInterfaceNumber", "01"}}, usb);
    const auto third = sysfs.AddUsb("1-2:1.2", {{"bInterfaceNumber", "02"}}, usb);
    sysfs.AddHidraw(first, "hidraw10", MakeDevice(kNumberedDescriptor));
    sysfs.AddHidraw(second, "hidraw0", MakeDevice(kTwoCollectionDescriptor));
    sysfs.AddHidraw(third, "hidraw9", MakeDevice(kUnnumberedDescriptor));

    std::vector<std::string> paths;
    ASSERT_TRUE(backend.EnumerateHidInterfaces(paths));
    const std::string dev = kFakeDevRoot;
    ASSERT_EQ(paths, (std::vector<std::string>{dev + "/hidraw0", dev + "/hidraw0&col02",
                                               dev + "/hidraw9", dev + "/hidraw10"}));

    // Both paths of hidraw0 read its whole descriptor and tell the
    // collection, so that the preparsed data describes that collection only.
    const Usage pages[] = {0x0001, 0xFF00};
    for (int index : {0, 1}) {
        const HidHandle handle = backend.Open(paths[index]);
        ASSERT_NE(handle, kInvalidHidHandle);
        std::vector<uint8_t> descriptor;
        int collection = -1;
        ASSERT_TRUE(backend.ReadReportDescriptor(handle, descriptor, collection));
        EXPECT_EQ(descriptor, kTwoCollectionDescriptor);
        EXPECT_EQ(collection, index);

        PreparsedData data = nullptr;
        ASSERT_TRUE(backend.GetPreparsedData(handle, data));
        HidpCaps caps{};
        EXPECT_EQ(backend.GetCaps(data, caps), kHidpStatusSuccess);
        EXPECT_EQ(caps.UsagePage, pages[index]);
        backend.FreePreparsedData(data);
        backend.Close(handle);
    }
}

TEST_F(LinuxHidraw, NodeGoneBeforeOpenOrWhileOpen) {
    const std::string node = AddCaptureDevice(kNumberedDescriptor);
    const HidHandle before = backend.Open(node);
    ASSERT_NE(before, kInvalidHidHandle);
    std::vector<std::string> paths;
    ASSERT_TRUE(backend.EnumerateHidInterfaces(paths));
    ASSERT_EQ(paths, std::vector<std::string>{node});

    {
        std::lock_guard lock(device->mutex);
        device->unplugged = true;
    }
    sysfs.Remove(usbDevice, node);
    EXPECT_EQ(backend.Open(paths[0]), kInvalidHidHandle);
    EXPECT_EQ(backend.Open(std::string(kFakeDevRoot) + "/hidraw77"), kInvalidHidHandle);

    // The handle opened before the unplug fails cleanly, then closes.
    uint8_t report[8] = {1};
    uint32_t done = 0;
    HiddAttributes attributes{};
    EXPECT_FALSE(backend.GetInputReport(before, report, sizeof report));
    EXPECT_FALSE(backend.Read(before, report, sizeof report, done));
    EXPECT_FALSE(backend.GetAttributes(before, attributes));
    backend.Close(before);

    // A closed or never-opened handle is refused, not followed.
    EXPECT_FALSE(backend.SetOutputReport(before, report, sizeof report));
    EXPECT_FALSE(backend.Write(kInvalidHidHandle, report, sizeof report, done));
    backend.Close(before);
    backend.Close(kInvalidHidHandle);
}

// ---- Reports ----------------------------------------------------------------

TEST_F(LinuxHidraw, UnnumberedInputReportsGetReportIdZero) {
    const HidHandle handle = OpenCaptureDevice(kUnnumberedDescriptor);
    {
        std::lock_guard lock(device->mutex);
        device->inputQueue = {{0x41, 0x42}};
    }
    uint8_t in[8] = {0xFF, 0xFF, 0xFF, 0xFF};
    uint32_t done = 0;
    ASSERT_TRUE(backend.Read(handle, in, sizeof in, done));
    EXPECT_EQ(done, 3u);
    EXPECT_EQ(in[0], 0);
    EXPECT_EQ(in[1], 0x41);
    EXPECT_EQ(in[2], 0x42);
    backend.Close(handle);
}

// ---- Attributes, strings, buffers -------------------------------------------

// ---- Descriptor outline -----------------------------------------------------

TEST(DescriptorOutline, CountsTopLevelCollectionsAndReportIds) {
    const auto two = OutlineReportDescriptor(kTwoCollectionDescriptor.data(), kTwoCollectionDescriptor.size());
    EXPECT_EQ(two.topLevelCollections, 2);  // the nested one does not count
    EXPECT_TRUE(two.numberedReports);
    const auto plain = OutlineReportDescriptor(kUnnumberedDescriptor.data(), kUnnumberedDescriptor.size());
    EXPECT_EQ(plain.topLevelCollections, 1);
    EXPECT_FALSE(plain.numberedReports);

    // A long item's data is skipped whole, even when it looks like items.
    const std::vector<uint8_t> longItem = {0xFE, 0x04, 0xF0, 0xA1, 0x01, 0x85, 0x01,
                                           0xA1, 0x01, 0xC0};
    const auto skipped = OutlineReportDescriptor(longItem.data(), longItem.size());
    EXPECT_EQ(skipped.topLevelCollections, 1);
    EXPECT_FALSE(skipped.numberedReports);

    // A long item cut off before its size byte ends the walk; what came
    // before it still counts (the sanitizer build checks the bounds).
    const std::vector<uint8_t> cut = {0xA1, 0x01, 0xC0, 0xFE};
    EXPECT_EQ(OutlineReportDescriptor(cut.data(), cut.size()).topLevelCollections, 1);
}

}  // namespace
