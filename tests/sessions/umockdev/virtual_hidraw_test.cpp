// The stand-in kernel of the umockdev sessions: what the hidraw backend
// finds in the synthetic sysfs compared with what the virtual backend
// reports for the same devices, and how the nodes pass calls to the device
// model and its failures back as errno values.
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/VideoConsoleCoreImp.h"
#include "discovery/device_list.h"
#include "hid/backend/linux/hidraw_ioctl.h"
#include "hid/backend/linux/linux_hidraw_backend.h"
#include "sessions/umockdev/virtual_hidraw.h"
#include "settings/settings_file.h"
#include "support/test_support.h"
#include "virtual/device/report_descriptor_builder.h"
#include "virtual/device/virtual_bridge.h"
#include "virtual/device/virtual_device_config.h"

namespace {

using namespace VideoConsoleCore;
using virtualdev::kCommandReport;

class Fd {
public:
    explicit Fd(const std::string& path) : fd_(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)) {}
    ~Fd() {
        if (fd_ >= 0) ::close(fd_);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

// The errno of a call that should fail; 0 when it succeeded.
int ErrorOf(long result) { return result < 0 ? errno : 0; }

class VirtualHidraw : public ::testing::Test {
protected:
    void Build(const std::vector<std::string>& lines) {
        SettingsTable keys;
        for (const std::string& line : lines) ParseSettingsLine(line, keys);
        model = std::make_unique<virtualdev::VirtualHidBackend>(virtualdev::ReadVirtualDeviceConfigs(keys));
        devices = std::make_unique<korvsdk_test::VirtualHidrawDevices>(*model);
    }

    // A command-report input request as the library makes it: a buffer as
    // long as the length word, the command in the word's high byte.
    long InputRequest(int fd, uint8_t command, std::vector<uint8_t>& reply) {
        const auto& shape = model->Config(0).input[kCommandReport];
        const uint32_t lengthWord = (uint32_t{command} << 8) | shape.Length();
        reply.assign(lengthWord, 0);
        reply[0] = shape.id;
        return ::ioctl(fd, HIDIOCGINPUT(lengthWord), reply.data());
    }

    long CommandReport(int fd, uint8_t command, uint32_t first, uint32_t second = 0) {
        const auto& shape = model->Config(0).output[kCommandReport];
        std::vector<uint8_t> report(shape.Length(), 0);
        report[0] = shape.id;
        report[2] = command;
        for (int k = 0; k < 4; ++k) {
            report[3 + k] = static_cast<uint8_t>(first >> (8 * k));
            report[7 + k] = static_cast<uint8_t>(second >> (8 * k));
        }
        return ::ioctl(fd, HIDIOCSOUTPUT(report.size()), report.data());
    }

    std::unique_ptr<virtualdev::VirtualHidBackend> model;
    std::unique_ptr<korvsdk_test::VirtualHidrawDevices> devices;  // goes before the model
    hid::LinuxHidrawBackend backend{"/sys", "/dev"};
};

const std::vector<std::string> kTwoDevices = {
    "VirtualDeviceCount=2",          "Virtual0_Version=0213",
    "Virtual1_PID=0C02",             "Virtual1_Serial=VC00000002",
    "Virtual1_Description=Second capture", "Virtual1_PortLevel=2"};

TEST_F(VirtualHidraw, BackendSeesWhatTheVirtualBackendReports) {
    Build(kTwoDevices);
    // The device entries the scan takes, in the same order; the interface
    // entries differ in their instance part only (sysfs names here).
    std::vector<hid::UsbDeviceInfo> found, expected;
    ASSERT_TRUE(backend.EnumerateUsbDevices(found));
    ASSERT_TRUE(model->EnumerateUsbDevices(expected));
    const auto devicesOf = [](const std::vector<hid::UsbDeviceInfo>& all) {
        std::vector<std::string> list;
        for (const auto& entry : all) {
            const auto mi = entry.instanceId.find("&MI_");
            list.push_back(mi == std::string::npos
                               ? entry.instanceId + " " + entry.busReportedDescription
                               : entry.instanceId.substr(0, entry.instanceId.find('\\', mi)));
        }
        return list;
    };
    EXPECT_EQ(devicesOf(found), devicesOf(expected));

    std::vector<std::string> paths;
    ASSERT_TRUE(backend.EnumerateHidInterfaces(paths));
    EXPECT_EQ(paths, (std::vector<std::string>{"/dev/hidraw64", "/dev/hidraw65"}));

    // The port level comes from the backend's own reading of sysfs.
    for (const auto& [pid, serial] : {std::pair{"0C01", "VC00000001"}, std::pair{"0C02", "VC00000002"}}) {
        EXPECT_EQ(backend.UsbPortLevel("FFF0", pid, serial), model->UsbPortLevel("FFF0", pid, serial))
            << serial;
    }
    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0C01", "VC00000001"), 3);
    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0C02", "VC00000002"), 2);

    const hid::HidHandle handle = backend.Open(paths[0]);
    ASSERT_NE(handle, hid::kInvalidHidHandle);
    hid::HiddAttributes attributes{};
    ASSERT_TRUE(backend.GetAttributes(handle, attributes));
    EXPECT_EQ(attributes.VendorID, 0xFFF0);
    EXPECT_EQ(attributes.ProductID, 0x0C01);
    EXPECT_EQ(attributes.VersionNumber, 0x0213);
    std::vector<uint8_t> descriptor;
    int collection = -1;
    ASSERT_TRUE(backend.ReadReportDescriptor(handle, descriptor, collection));
    EXPECT_EQ(descriptor, virtualdev::BuildReportDescriptor(model->Config(0)));
    char16_t text[64] = {};
    ASSERT_TRUE(backend.GetManufacturerString(handle, text, sizeof text));
    EXPECT_EQ(std::u16string(text), u"Virtual Capture Devices");
    backend.Close(handle);
}

TEST_F(VirtualHidraw, ReportsReachTheModelUnchanged) {
    Build({"Virtual0_FlashIndex=4660"});
    Fd node(devices->NodePath(0));
    ASSERT_GE(node.get(), 0);

    std::vector<uint8_t> reply;
    ASSERT_GE(InputRequest(node.get(), virtualdev::bridge_cmd::kFlashGetId, reply), 0) << errno;
    EXPECT_EQ(reply[0], 0x34);
    EXPECT_EQ(reply[1], 0x12);

    // A register written through an output report reads back.
    ASSERT_GE(CommandReport(node.get(), virtualdev::bridge_cmd::kRegisterWrite, 0x1230, 0xA5B6C7D8), 0);
    ASSERT_GE(CommandReport(node.get(), virtualdev::bridge_cmd::kRegisterReadRequest, 0x1230), 0);
    ASSERT_GE(InputRequest(node.get(), virtualdev::bridge_cmd::kRegisterReadReply, reply), 0);
    EXPECT_EQ(reply[0], 0xD8);
    EXPECT_EQ(reply[3], 0xA5);

    // A request the bridge refuses fails as a transfer error; the device
    // stays. Each report ioctl was one transfer of the model.
    EXPECT_EQ(ErrorOf(InputRequest(node.get(), 0x0C, reply)), EIO);
    EXPECT_EQ(model->Transfers(0), 5u);
    EXPECT_TRUE(model->Present(0));
}

TEST_F(VirtualHidraw, PlannedFailuresHitTheirCallOnly) {
    Build({"Virtual0_FailCall=GetInputReport:1"});
    Fd node(devices->NodePath(0));
    std::vector<uint8_t> reply;
    EXPECT_EQ(ErrorOf(InputRequest(node.get(), virtualdev::bridge_cmd::kFlashGetId, reply)), EIO);
    EXPECT_EQ(ErrorOf(InputRequest(node.get(), virtualdev::bridge_cmd::kFlashGetId, reply)), 0);
}

TEST_F(VirtualHidraw, EachOpenFileIsAModelHandle) {
    // The first open of the device fails in the model: that file is dead,
    // the next one works, and closing either leaves the other alone.
    Build({"Virtual0_FailCall=Open:1"});
    hidraw_devinfo info{};
    auto first = std::make_unique<Fd>(devices->NodePath(0));
    Fd second(devices->NodePath(0));
    EXPECT_EQ(ErrorOf(::ioctl(first->get(), HIDIOCGRAWINFO, &info)), EIO);
    ASSERT_EQ(ErrorOf(::ioctl(second.get(), HIDIOCGRAWINFO, &info)), 0);
    EXPECT_EQ(info.bustype, 3u);
    EXPECT_EQ(static_cast<uint16_t>(info.vendor), 0xFFF0);
    first.reset();
    EXPECT_EQ(ErrorOf(::ioctl(second.get(), HIDIOCGRAWINFO, &info)), 0);
}

TEST_F(VirtualHidraw, UnpluggedDeviceLeavesSysfsAndDev) {
    Build({"VirtualDeviceCount=2", "Virtual0_UnplugAfter=2"});
    Fd node(devices->NodePath(0));
    uint8_t buffer[80];
    EXPECT_EQ(ErrorOf(::read(node.get(), buffer, sizeof buffer)), EAGAIN);  // nothing queued

    std::vector<uint8_t> reply;
    ASSERT_GE(InputRequest(node.get(), virtualdev::bridge_cmd::kFlashGetId, reply), 0);
    ASSERT_GE(InputRequest(node.get(), virtualdev::bridge_cmd::kFlashGetId, reply), 0);
    ASSERT_FALSE(model->Present(0));

    // The open file stays, and fails as on a disconnected device.
    hidraw_devinfo info{};
    EXPECT_EQ(ErrorOf(InputRequest(node.get(), virtualdev::bridge_cmd::kFlashGetId, reply)), ENODEV);
    EXPECT_EQ(ErrorOf(::ioctl(node.get(), HIDIOCGRAWINFO, &info)), ENODEV);
    EXPECT_EQ(ErrorOf(::read(node.get(), buffer, sizeof buffer)), EIO);

    struct stat status {};
    EXPECT_EQ(ErrorOf(::stat(devices->NodePath(0).c_str(), &status)), ENOENT);
    EXPECT_EQ(ErrorOf(::stat(devices->UsbDevicePath(0).c_str(), &status)), ENOENT);
    EXPECT_EQ(ErrorOf(::stat(devices->NodePath(1).c_str(), &status)), 0);
    std::vector<std::string> paths;
    ASSERT_TRUE(backend.EnumerateHidInterfaces(paths));
    EXPECT_EQ(paths, std::vector<std::string>{devices->NodePath(1)});
    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0C01", "VC00000001"), -1);
    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0C01", "VC00000002"), 3);
}

TEST_F(VirtualHidraw, RequestsTheDeviceHasNoAnswerFor) {
    Build({});
    Fd node(devices->NodePath(0));
    char name[64];
    EXPECT_EQ(ErrorOf(::ioctl(node.get(), HIDIOCGRAWNAME(sizeof name), name)), ENOTTY);
    int notHid = 0;
    EXPECT_EQ(ErrorOf(::ioctl(node.get(), _IOR('T', 0x01, int), &notHid)), ENOTTY);
    // The model has neither feature reports nor an interrupt OUT endpoint.
    uint8_t report[16] = {3};
    EXPECT_EQ(ErrorOf(::ioctl(node.get(), HIDIOCGFEATURE(sizeof report), report)), EIO);
    EXPECT_EQ(ErrorOf(::write(node.get(), report, sizeof report)), EIO);
}

// Takes from the calling thread, while it lives, root's power to open any
// file whatever its mode, so that a node's mode counts as it does for a user
// at the desk. Nothing changes for a test run by an ordinary user.
class AsOrdinaryUser {
public:
    AsOrdinaryUser() {
        header_.version = _LINUX_CAPABILITY_VERSION_3;
        header_.pid = 0;  // the calling thread
        if (::syscall(SYS_capget, &header_, saved_) != 0) return;
        __user_cap_data_struct reduced[2];
        std::memcpy(reduced, saved_, sizeof reduced);
        reduced[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
        changed_ = ::syscall(SYS_capset, &header_, reduced) == 0;
    }
    ~AsOrdinaryUser() {
        if (changed_) ::syscall(SYS_capset, &header_, saved_);
    }
    AsOrdinaryUser(const AsOrdinaryUser&) = delete;
    AsOrdinaryUser& operator=(const AsOrdinaryUser&) = delete;

private:
    __user_cap_header_struct header_{};
    __user_cap_data_struct saved_[2]{};
    bool changed_ = false;
};

TEST_F(VirtualHidraw, NodeWithoutPermissionIsNamedOnceWithTheFix) {
    using korvsdk_test::MessageLog;
    Build(kTwoDevices);
    korvsdk_test::TempFolder folder;
    korvsdk_test::WorkingFolder cwd(folder.path());
    korvsdk_test::WriteFile(folder.path() / "setting.cfg",
                            "EnableLocalLogging=0\nDevIDNum=2\n"
                            "DevDrvID0=USB\\VID_FFF0&PID_0C01\nDevDrvID1=USB\\VID_FFF0&PID_0C02\n");
    VideoConsoleCoreImp core;  // with the platform's backend: hidraw
    core.SetDebugOutputHandler(MessageLog::Collect);
    ASSERT_TRUE(core.Initialize("setting.cfg"));
    DeviceEntry* list = nullptr;
    uint16_t count = 0;
    ASSERT_TRUE(core.ScanDeviceList(&list, &count));  // sysfs alone: no node is opened
    ASSERT_EQ(count, 2);

    const auto permissionTexts = [] {
        const auto& texts = MessageLog::Texts();
        return std::count_if(texts.begin(), texts.end(), [](const std::string& text) {
            return text.find("permission denied") != std::string::npos;
        });
    };
    // Nodes no one may open. The first device's node is refused as well,
    // but it is not the device being selected, as a keyboard's would not be.
    for (size_t n : {0u, 1u}) ASSERT_EQ(::chmod(devices->NodeFile(n).c_str(), 0), 0);
    MessageLog::Clear();
    {
        AsOrdinaryUser user;
        EXPECT_FALSE(core.SelectDevice(&list[1]));
    }
    ASSERT_FALSE(MessageLog::Texts().empty());
    const std::string& last = MessageLog::Texts().back();
    EXPECT_EQ(last.rfind("Cannot open " + devices->NodePath(1) + ": permission denied.", 0), 0u)
        << MessageLog::All();
    EXPECT_NE(last.find("70-korvsdk-devices.rules"), std::string::npos) << last;
    EXPECT_EQ(permissionTexts(), 1) << MessageLog::All();

    // With access the same selection works and says nothing of the kind.
    ASSERT_EQ(::chmod(devices->NodeFile(1).c_str(), 0600), 0);
    MessageLog::Clear();
    {
        AsOrdinaryUser user;
        EXPECT_TRUE(core.SelectDevice(&list[1])) << MessageLog::All();
    }
    EXPECT_EQ(permissionTexts(), 0) << MessageLog::All();
    FreeDeviceEntries(list, count);
}

}  // namespace
