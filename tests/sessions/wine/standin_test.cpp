// The stand-in system libraries against what Windows promises callers:
// the two-step size protocol of SetupAPI, device IDs cut to the buffer,
// handles that lead to their own device whatever value Windows gives them,
// a device that goes away, and the hub driver's answers to the walk and to
// malformed queries. Each test describes the machine in setting.cfg and
// calls the stand-ins through this program's own imports.
#include "hid/backend/windows/usb_port_map.h"
#include "hid/backend/windows/windows_hid_backend.h"
#include "standin_route.h"
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <cfgmgr32.h>
#include <devpropdef.h>
#include <usbioctl.h>
#include <winioctl.h>

extern "C" {
#include <hidsdi.h>
#include <hidpi.h>
}

#include <cstddef>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

namespace hid = VideoConsoleCore::hid;
namespace win = VideoConsoleCore::hid::win;

using HubControlFunction = int(WINAPI*)(HANDLE, DWORD, void*, DWORD, void*, DWORD, DWORD*);

// The bus-reported description, and another property of the same set.
constexpr DEVPROPKEY kBusReportedDescription = {
    {0x540b947e, 0x8b40, 0x45bc, {0xa8, 0xa2, 0x6a, 0x0b, 0x89, 0x4c, 0xbd, 0xa2}}, 4};
constexpr DEVPROPKEY kOtherProperty = {kBusReportedDescription.fmtid, 9};

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
    HANDLE Open(const std::wstring& path, DWORD access = 0) {
        HANDLE handle = CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_EXISTING, 0, nullptr);
        if (handle != INVALID_HANDLE_VALUE) open_.push_back(handle);
        return handle;
    }
    static std::vector<std::wstring> Paths(const GUID& interfaceClass) {
        std::vector<std::wstring> paths;
        win::ForEachPresentInterface(interfaceClass, [&](const win::PresentInterface& item) {
            paths.push_back(item.path);
            return true;
        });
        return paths;
    }
    static std::vector<std::wstring> HidPaths() {
        GUID hidClass;
        HidD_GetHidGuid(&hidClass);
        return Paths(hidClass);
    }
    static std::wstring Serial(HANDLE device) {
        wchar_t text[64] = {};
        if (!HidD_GetSerialNumberString(device, text, sizeof text)) return L"<failed>";
        return text;
    }
    static std::wstring DeviceId(DWORD devInst) {
        wchar_t id[260] = {};
        return CM_Get_Device_IDW(devInst, id, 259, 0) == CR_SUCCESS ? id : L"<failed>";
    }

    korvsdk_test::TempFolder folder_;
    korvsdk_test::WorkingFolder cwd_;
    std::vector<HANDLE> open_;
};

// ---- SetupAPI and the configuration manager --------------------------------

TEST_F(StandIns, InterfaceDetailAsksForItsSizeFirst) {
    Plug("VirtualDeviceCount=2\n");
    GUID hidClass;
    HidD_GetHidGuid(&hidClass);
    HDEVINFO set =
        SetupDiGetClassDevsW(&hidClass, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    ASSERT_NE(set, INVALID_HANDLE_VALUE);

    SP_DEVICE_INTERFACE_DATA data{};
    data.cbSize = sizeof data;
    ASSERT_TRUE(SetupDiEnumDeviceInterfaces(set, nullptr, &hidClass, 1, &data));
    SP_DEVICE_INTERFACE_DATA beyond{};
    beyond.cbSize = sizeof beyond;
    EXPECT_FALSE(SetupDiEnumDeviceInterfaces(set, nullptr, &hidClass, 2, &beyond));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_ITEMS));

    DWORD required = 0;
    EXPECT_FALSE(SetupDiGetDeviceInterfaceDetailW(set, &data, nullptr, 0, &required, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    ASSERT_GT(required, offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath));
    std::vector<DWORD> storage(required / sizeof(DWORD) + 1);
    auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(storage.data());
    detail->cbSize = required;  // the buffer's size instead of the record's
    EXPECT_FALSE(SetupDiGetDeviceInterfaceDetailW(set, &data, detail, required, nullptr, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_USER_BUFFER));
    detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
    EXPECT_FALSE(
        SetupDiGetDeviceInterfaceDetailW(set, &data, detail, required - 2, nullptr, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));

    SP_DEVINFO_DATA device{};
    device.cbSize = sizeof device;
    ASSERT_TRUE(SetupDiGetDeviceInterfaceDetailW(set, &data, detail, required, nullptr, &device));
    EXPECT_EQ(DeviceId(device.DevInst).rfind(L"HID\\VID_FFF0&PID_0C01&MI_04\\", 0), 0u);
    // The path is a real file that leads to the second device.
    HANDLE second = Open(detail->DevicePath);
    ASSERT_NE(second, INVALID_HANDLE_VALUE);
    EXPECT_EQ(Serial(second), L"VC00000002");

    EXPECT_TRUE(SetupDiDestroyDeviceInfoList(set));
    EXPECT_FALSE(SetupDiEnumDeviceInterfaces(set, nullptr, &hidClass, 0, &data));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_FALSE(SetupDiDestroyDeviceInfoList(set));
}

TEST_F(StandIns, DeviceNodesWithIdsAndProperties) {
    Plug("Virtual0_Description=Capture One\n");
    HDEVINFO set = SetupDiGetClassDevsW(nullptr, L"USB", nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES);
    ASSERT_NE(set, INVALID_HANDLE_VALUE);
    std::vector<std::wstring> ids;
    SP_DEVINFO_DATA whole{};
    for (DWORD index = 0;; ++index) {
        SP_DEVINFO_DATA device{};
        device.cbSize = sizeof device;
        if (!SetupDiEnumDeviceInfo(set, index, &device)) break;
        ids.push_back(DeviceId(device.DevInst));
        if (ids.back().find(L"MI_") == std::wstring::npos) whole = device;
    }
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
    ASSERT_EQ(ids.size(), 3u);  // the device and its video and HID interfaces
    const std::wstring id = L"USB\\VID_FFF0&PID_0C01\\VC00000001";
    ASSERT_EQ(DeviceId(whole.DevInst), id);

    // Exactly the ID's length: no room for the terminator, which is left off.
    std::vector<wchar_t> buffer(id.size() + 1, L'#');
    EXPECT_EQ(CM_Get_Device_IDW(whole.DevInst, buffer.data(), static_cast<ULONG>(id.size()), 0),
              static_cast<CONFIGRET>(CR_SUCCESS));
    EXPECT_EQ(std::wstring(buffer.data(), id.size()), id);
    EXPECT_EQ(buffer[id.size()], L'#');
    std::fill(buffer.begin(), buffer.end(), L'#');
    EXPECT_EQ(CM_Get_Device_IDW(whole.DevInst, buffer.data(), 4, 0),
              static_cast<CONFIGRET>(CR_BUFFER_SMALL));
    EXPECT_EQ(std::wstring(buffer.data(), 5), L"USB\\#");
    EXPECT_EQ(CM_Get_Device_IDW(0, buffer.data(), 100, 0),
              static_cast<CONFIGRET>(CR_INVALID_DEVNODE));

    DEVPROPTYPE type = 0;
    DWORD required = 0;
    EXPECT_FALSE(SetupDiGetDevicePropertyW(set, &whole, &kBusReportedDescription, &type, nullptr, 0,
                                           &required, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(type, static_cast<DEVPROPTYPE>(DEVPROP_TYPE_STRING));
    std::vector<wchar_t> text(required / sizeof(wchar_t));
    ASSERT_TRUE(SetupDiGetDevicePropertyW(set, &whole, &kBusReportedDescription, &type,
                                          reinterpret_cast<PBYTE>(text.data()), required, nullptr,
                                          0));
    EXPECT_STREQ(text.data(), L"Capture One");
    EXPECT_FALSE(
        SetupDiGetDevicePropertyW(set, &whole, &kOtherProperty, &type, nullptr, 0, &required, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_FOUND));

    DWORD regType = 0;
    EXPECT_FALSE(SetupDiGetDeviceRegistryPropertyW(set, &whole, SPDRP_DRIVER, &regType, nullptr, 0,
                                                   &required));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    text.assign(required / sizeof(wchar_t), L'\0');
    ASSERT_TRUE(SetupDiGetDeviceRegistryPropertyW(set, &whole, SPDRP_DRIVER, &regType,
                                                  reinterpret_cast<PBYTE>(text.data()), required,
                                                  nullptr));
    EXPECT_EQ(regType, static_cast<DWORD>(REG_SZ));
    EXPECT_EQ(std::wstring(text.data()).rfind(L"{36fc9e60-c465-11cf-8056-444553540000}\\", 0), 0u);
    EXPECT_FALSE(SetupDiGetDeviceRegistryPropertyW(set, &whole, SPDRP_FRIENDLYNAME, &regType,
                                                   nullptr, 0, &required));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_DATA));

    SP_DEVINFO_DATA stranger = whole;
    stranger.DevInst = 999;
    EXPECT_FALSE(SetupDiGetDeviceRegistryPropertyW(set, &stranger, SPDRP_DRIVER, &regType, nullptr,
                                                   0, &required));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    SetupDiDestroyDeviceInfoList(set);
}

// ---- Handles and HidD_/HidP_ -----------------------------------------------

TEST_F(StandIns, EachHandleReachesItsOwnDevice) {
    Plug("VirtualDeviceCount=2\nVirtual1_PID=0C02\n");
    const std::vector<std::wstring> paths = HidPaths();
    ASSERT_EQ(paths.size(), 2u);
    HANDLE first = Open(paths[0]);
    HANDLE second = Open(paths[1]);
    ASSERT_NE(first, INVALID_HANDLE_VALUE);
    ASSERT_NE(second, INVALID_HANDLE_VALUE);
    HIDD_ATTRIBUTES attributes{};
    attributes.Size = sizeof attributes;
    ASSERT_TRUE(HidD_GetAttributes(first, &attributes));
    EXPECT_EQ(attributes.ProductID, 0x0C01);
    ASSERT_TRUE(HidD_GetAttributes(second, &attributes));
    EXPECT_EQ(attributes.ProductID, 0x0C02);

    // A closed handle's value usually comes back for the next file opened;
    // it then stands for that file's device, not the old one.
    CloseHandle(first);
    open_.erase(open_.begin());
    HANDLE again = Open(paths[1]);
    ASSERT_NE(again, INVALID_HANDLE_VALUE);
    EXPECT_EQ(Serial(again), L"VC00000002") << (again == first ? "reused value" : "new value");

    HANDLE ordinary = Open(folder_.path().wstring() + L"\\setting.cfg", GENERIC_READ);
    ASSERT_NE(ordinary, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(HidD_GetAttributes(ordinary, &attributes));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_FALSE(HidD_GetAttributes(INVALID_HANDLE_VALUE, &attributes));
}

TEST_F(StandIns, PreparsedDataServesTheHidPCalls) {
    Plug("Virtual0_OutCmdCount=100\n");
    HANDLE device = Open(HidPaths().at(0));
    PHIDP_PREPARSED_DATA data = nullptr;
    ASSERT_TRUE(HidD_GetPreparsedData(device, &data));
    HIDP_CAPS caps{};
    ASSERT_EQ(HidP_GetCaps(data, &caps), HIDP_STATUS_SUCCESS);
    EXPECT_EQ(caps.OutputReportByteLength, 4100);  // the largest output report, ID included
    USHORT count = caps.NumberOutputValueCaps;
    ASSERT_EQ(count, 3);
    std::vector<HIDP_VALUE_CAPS> values(count);
    ASSERT_EQ(HidP_GetValueCaps(HidP_Output, values.data(), &count, data), HIDP_STATUS_SUCCESS);
    EXPECT_EQ(values[1].ReportCount, 100);
    EXPECT_TRUE(HidD_FreePreparsedData(data));

    // What the library looks up at run time is the stand-ins' too.
    HMODULE standIn = GetModuleHandleW(L"hid.dll");
    for (const auto& [dll, function] : {std::pair{L"HID.DLL", "HidP_InitializeReportForID"},
                                        std::pair{L"HID.DLL", "HidP_GetExtendedAttributes"},
                                        std::pair{L"Setupapi.dll", "SetupDiGetDevicePropertyW"}}) {
        const auto address = reinterpret_cast<LPCWSTR>(GetProcAddress(LoadLibraryW(dll), function));
        HMODULE owner = nullptr;
        ASSERT_TRUE(GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            address, &owner))
            << function;
        EXPECT_EQ(owner, standIn) << function;
    }
}

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
}

TEST_F(StandIns, MachineWithoutSettingsHasNothingPluggedIn) {
    korvsdk_test::RouteToStandIns(GetModuleHandleW(nullptr));
    EXPECT_TRUE(HidPaths().empty());
    const std::unique_ptr<win::UsbHubIo> io = win::CreateSystemUsbHubIo();
    const win::UsbPortMap map = win::BuildUsbPortMap(*io);
    ASSERT_EQ(map.hubs.size(), 1u);
    EXPECT_EQ(map.hubs[0].portCount, 1u);
    EXPECT_TRUE(map.devices.empty());
}

TEST_F(StandIns, HubRefusesWhatTheHubDriverRefuses) {
    Plug("VirtualDeviceCount=1\n");
    const std::unique_ptr<win::UsbHubIo> io = win::CreateSystemUsbHubIo();
    const win::UsbPortMap map = win::BuildUsbPortMap(*io);
    ASSERT_EQ(map.hubs.size(), 1u);
    HANDLE hub = Open(map.hubs[0].path, GENERIC_WRITE);
    ASSERT_NE(hub, INVALID_HANDLE_VALUE);
    DWORD returned = 0;

    std::vector<ULONG> storage(64, 0);
    auto* connection = reinterpret_cast<USB_NODE_CONNECTION_INFORMATION_EX*>(storage.data());
    const DWORD bytes = static_cast<DWORD>(storage.size() * sizeof(ULONG));
    for (const ULONG port : {0ul, 3ul}) {  // the hub has ports 1 and 2
        connection->ConnectionIndex = port;
        EXPECT_FALSE(DeviceIoControl(hub, IOCTL_USB_GET_NODE_CONNECTION_INFORMATION_EX, connection,
                                     bytes, connection, bytes, &returned, nullptr));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER)) << port;
    }
    connection->ConnectionIndex = 2;  // the free port
    ASSERT_TRUE(DeviceIoControl(hub, IOCTL_USB_GET_NODE_CONNECTION_INFORMATION_EX, connection,
                                bytes, connection, bytes, &returned, nullptr));
    EXPECT_EQ(connection->ConnectionStatus, NoDeviceConnected);
    USB_NODE_CONNECTION_DRIVERKEY_NAME key{};
    key.ConnectionIndex = 2;
    EXPECT_FALSE(DeviceIoControl(hub, IOCTL_USB_GET_NODE_CONNECTION_DRIVERKEY_NAME, &key,
                                 sizeof key, &key, sizeof key, &returned, nullptr));

    // The fixed record tells the size of the whole name.
    key.ConnectionIndex = 1;
    ASSERT_TRUE(DeviceIoControl(hub, IOCTL_USB_GET_NODE_CONNECTION_DRIVERKEY_NAME, &key, sizeof key,
                                &key, sizeof key, &returned, nullptr));
    EXPECT_EQ(returned, sizeof key);
    EXPECT_GT(key.ActualLength, sizeof key);

    // Only the protocols the caller knows come back; a short record fails.
    USB_NODE_CONNECTION_INFORMATION_EX_V2 v2{};
    v2.ConnectionIndex = 1;
    v2.Length = sizeof v2;
    v2.SupportedUsbProtocols.ul = 2;  // USB 2 only
    ASSERT_TRUE(DeviceIoControl(hub, IOCTL_USB_GET_NODE_CONNECTION_INFORMATION_EX_V2, &v2,
                                sizeof v2, &v2, sizeof v2, &returned, nullptr));
    EXPECT_EQ(v2.SupportedUsbProtocols.ul, 2ul);
    v2.Length = sizeof v2 - 1;
    EXPECT_FALSE(DeviceIoControl(hub, IOCTL_USB_GET_NODE_CONNECTION_INFORMATION_EX_V2, &v2,
                                 sizeof v2, &v2, sizeof v2, &returned, nullptr));
    EXPECT_FALSE(DeviceIoControl(hub, IOCTL_USB_GET_HUB_CAPABILITIES_EX, storage.data(), bytes,
                                 storage.data(), bytes, &returned, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_FUNCTION));

    // Handles on anything but a controller or hub are not the stand-in's to answer.
    const auto hubControl = reinterpret_cast<HubControlFunction>(reinterpret_cast<void (*)()>(
        GetProcAddress(GetModuleHandleW(L"hid.dll"), "StandIn_HubDeviceIoControl")));
    ASSERT_NE(hubControl, nullptr);
    HANDLE device = Open(HidPaths().at(0));
    EXPECT_EQ(hubControl(device, IOCTL_USB_GET_NODE_INFORMATION, storage.data(), bytes,
                         storage.data(), bytes, &returned),
              -1);
    EXPECT_EQ(hubControl(INVALID_HANDLE_VALUE, IOCTL_USB_GET_NODE_INFORMATION, storage.data(),
                         bytes, storage.data(), bytes, &returned),
              -1);
}

}  // namespace
