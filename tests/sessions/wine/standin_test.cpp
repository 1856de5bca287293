// The stand-in system libraries against what Windows promises callers
// where the Wine sessions do not look: a device that goes away, and the hub
// driver's answers to the walk. Each test
// describes the machine in setting.cfg and calls the stand-ins through this
// program's own imports.
#include "hid/backend/windows/usb_port_map.h"
#include "hid/backend/windows/windows_hid_backend.h"
#include "standin_route.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

extern "C" {
#include <hidsdi.h>
#include <hidpi.h>
}

#include <map>
#include <string>
#include <vector>

namespace {

namespace hid = VideoConsoleCore::hid;
namespace win = VideoConsoleCore::hid::win;

class StandIns : public ::testing::Test {
protected:
    StandIns() : cwd_(folder_.path()) {}
    void TearDown() override {
        for (HANDLE handle : open_) CloseHandle(handle);
    }
    // The machine's devices; before anything asks the stand-ins.
    void Plug(const std::string& keys) {
        korvsdk_test::WriteFile(folder_.path() / "setting.cfg", keys);
        korvsdk_test::RouteToStandIns(GetModuleHandleW(nullptr));
    }
    HANDLE Open(const std::wstring& path) {
        HANDLE handle = CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_EXISTING, 0, nullptr);
        if (handle != INVALID_HANDLE_VALUE) open_.push_back(handle);
        return handle;
    }
    static std::vector<std::wstring> HidPaths() {
        GUID hidClass;
        HidD_GetHidGuid(&hidClass);
        std::vector<std::wstring> paths;
        win::ForEachPresentInterface(hidClass, [&](const win::PresentInterface& item) {
            paths.push_back(item.path);
            return true;
        });
        return paths;
    }

    korvsdk_test::TempFolder folder_;
    korvsdk_test::WorkingFolder cwd_;
    std::vector<HANDLE> open_;
};

TEST_F(StandIns, UnpluggedDeviceFailsAndLeavesEveryList) {
    Plug("Virtual0_UnplugAfter=1\n");
    hid::WindowsHidBackend backend;
    const std::wstring path = HidPaths().at(0);
    HANDLE device = Open(path);
    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0C01", "VC00000001"), 3);
    unsigned char report[65] = {2};
    HidD_GetInputReport(device, report, sizeof report);  // the one transfer it makes

    HIDD_ATTRIBUTES attributes{};
    EXPECT_FALSE(HidD_GetAttributes(device, &attributes));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DEVICE_NOT_CONNECTED));
    EXPECT_TRUE(HidPaths().empty());
    std::vector<hid::UsbDeviceInfo> nodes;
    ASSERT_TRUE(backend.EnumerateUsbDevices(nodes));
    EXPECT_TRUE(nodes.empty());
    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0C01", "VC00000001"), -1);
    // The file stays, as a stale path would on Windows; the device does not.
    HANDLE late = Open(path);
    ASSERT_NE(late, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(HidD_GetAttributes(late, &attributes));
}

// ---- The hub tree ------------------------------------------------------------

TEST_F(StandIns, WalkFindsEachDeviceOnAPortOfItsLevel) {
    Plug("VirtualDeviceCount=3\nVirtual1_PortLevel=2\n");
    const std::unique_ptr<win::UsbHubIo> io = win::CreateSystemUsbHubIo();
    const win::UsbPortMap map = win::BuildUsbPortMap(*io);
    // The root hub: two USB 3 devices, the USB 2 hub, a free port.
    ASSERT_EQ(map.hubs.size(), 2u);
    EXPECT_EQ(map.hubs[0].name, L"RootHub");
    EXPECT_EQ(map.hubs[0].portCount, 4u);
    EXPECT_EQ(map.hubs[1].depth, 1);
    EXPECT_EQ(map.hubs[1].portCount, 1u);
    ASSERT_EQ(map.devices.size(), 3u);
    EXPECT_EQ(map.devices[2].hub, 1u);  // the USB 2 device, met last
    EXPECT_EQ(map.devices[2].level, 2);

    hid::WindowsHidBackend backend;
    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0C01", "VC00000001"), 3);
    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0C01", "VC00000002"), 2);
    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0C01", "VC00000003"), 3);
    EXPECT_EQ(backend.UsbPortLevel("FFF0", "0C01", "VC00000009"), -1);

    // Locations: root-hub ports 1 and 2, port 1 of the hub on root port 3.
    const char* const locations[] = {"1-1", "1-2", "1-3.1"};  // in walk order
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(map.devices[i].location, locations[i]) << i;
    std::vector<hid::UsbDeviceInfo> nodes;
    ASSERT_TRUE(backend.EnumerateUsbDevices(nodes));
    std::map<std::string, std::string> byId;
    for (const hid::UsbDeviceInfo& node : nodes) byId[node.instanceId] = node.location;
    EXPECT_EQ(byId["USB\\VID_FFF0&PID_0C01\\VC00000002"], "1-3.1");
    EXPECT_EQ(byId["USB\\VID_FFF0&PID_0C01\\VC00000003"], "1-2");
    // A HID interface leads up to its USB device's port.
    const std::vector<std::wstring> paths = HidPaths();
    ASSERT_EQ(paths.size(), 3u);
    EXPECT_EQ(backend.HidInterfaceLocation(win::WideToUtf8(paths[1])), "1-3.1");
    EXPECT_EQ(backend.HidInterfaceLocation("\\\\?\\hid#nothing"), "");
}

}  // namespace
