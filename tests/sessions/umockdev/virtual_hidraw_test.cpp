// The hidraw backend on the umockdev sessions' stand-in kernel where the
// sessions cannot look: a node the user may not open is named once, with
// the fix.
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/VideoConsoleCoreImp.h"
#include "discovery/device_list.h"
#include "sessions/umockdev/virtual_hidraw.h"
#include "settings/settings_file.h"
#include "support/test_support.h"
#include "virtual/device/virtual_device_config.h"

namespace {

using namespace VideoConsoleCore;

class VirtualHidraw : public ::testing::Test {
protected:
    void Build(const std::vector<std::string>& lines) {
        SettingsTable keys;
        for (const std::string& line : lines) ParseSettingsLine(line, keys);
        model = std::make_unique<virtualdev::VirtualHidBackend>(virtualdev::ReadVirtualDeviceConfigs(keys));
        devices = std::make_unique<korvsdk_test::VirtualHidrawDevices>(*model);
    }

    std::unique_ptr<virtualdev::VirtualHidBackend> model;
    std::unique_ptr<korvsdk_test::VirtualHidrawDevices> devices;  // goes before the model
};

const std::vector<std::string> kTwoDevices = {
    "VirtualDeviceCount=2",          "Virtual0_Version=0213",
    "Virtual1_PID=0C02",             "Virtual1_Serial=VC00000002",
    "Virtual1_Description=Second capture", "Virtual1_PortLevel=2"};

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
