// The stand-in kernel of the umockdev sessions where the sessions cannot
// look: a device that goes away leaves sysfs and /dev as the kernel leaves
// them, and a node the user may not open is named once, with the fix.
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

    std::unique_ptr<virtualdev::VirtualHidBackend> model;
    std::unique_ptr<korvsdk_test::VirtualHidrawDevices> devices;  // goes before the model
    hid::LinuxHidrawBackend backend{"/sys", "/dev"};
};

const std::vector<std::string> kTwoDevices = {
    "VirtualDeviceCount=2",          "Virtual0_Version=0213",
    "Virtual1_PID=0C02",             "Virtual1_Serial=VC00000002",
    "Virtual1_Description=Second capture", "Virtual1_PortLevel=2"};

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
