// The hub walk against a made-up USB topology. The fake answers the hub
// IOCTLs the way the hub driver does (two-step name records, connection
// records, the V2 protocol query), counts open handles and notes every call
// that a real hub would refuse.
#include "hid/backend/windows/usb_port_map.h"

#include <gtest/gtest.h>

#include <winioctl.h>
#include <usbioctl.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <set>

namespace {

using namespace VideoConsoleCore::hid::win;

constexpr ULONG kUsb1 = 1, kUsb2 = 2, kUsb3 = 4;

struct FakePort {
    USB_CONNECTION_STATUS status = DeviceConnected;
    UCHAR speed = UsbHighSpeed;
    UCHAR deviceClass = 0;
    std::optional<ULONG> protocols;  // nullopt: the V2 query fails
    std::wstring driverKey;
    std::wstring hubName;  // the next hub, for a hub port (class 9)
};

struct FakeHub {
    std::vector<FakePort> ports;
    bool nodeInformationFails = false;
};

// Names as the hub driver returns them: how the record for a name is
// written. kHonest: ActualLength counts name and terminator. kNoTerminator:
// no terminator. kTrailingJunk: ActualLength promises more than the name,
// the buffer holds junk after it, and the returned byte count stops at the
// name. kHugeLength / kTinyLength: a broken ActualLength.
enum class NameStyle { kHonest, kNoTerminator, kTrailingJunk, kHugeLength, kTinyLength };

class FakeTopology : public UsbHubIo {
public:
    std::vector<std::wstring> controllers;
    std::map<std::wstring, std::wstring> rootHubOf;  // controller path -> root hub name
    std::map<std::wstring, FakeHub> hubs;            // "\\?\" + name -> hub
    std::set<std::wstring> unopenable;
    NameStyle nameStyle = NameStyle::kHonest;

    int refused = 0;  // calls a real hub driver would have failed
    std::vector<std::wstring> openedPaths;
    std::map<ULONG, ULONG> protocolMaskAsked;  // port -> protocols the caller offered

    size_t OpenHandles() const { return open_.size(); }

    std::vector<std::wstring> HostControllerPaths() override { return controllers; }

    HANDLE Open(const std::wstring& path) override {
        openedPaths.push_back(path);
        const bool known = hubs.count(path) != 0 ||
                           std::find(controllers.begin(), controllers.end(), path) !=
                               controllers.end();
        if (!known || unopenable.count(path) != 0) return INVALID_HANDLE_VALUE;
        HANDLE handle = reinterpret_cast<HANDLE>(static_cast<intptr_t>(0x1000 + next_++));
        open_[handle] = path;
        return handle;
    }

    void Close(HANDLE device) override {
        if (open_.erase(device) == 0) ++refused;  // closing what is not open
    }

    bool Control(HANDLE device, DWORD code, const void* in, DWORD inBytes, void* out,
                 DWORD outBytes, DWORD& returned) override {
        returned = 0;
        const auto handle = open_.find(device);
        if (handle == open_.end()) return Refuse();
        const std::wstring& path = handle->second;

        // A host controller answers only the root hub name. (Its code is
        // the same number as IOCTL_USB_GET_NODE_INFORMATION: the device
        // that receives it tells them apart.)
        const auto root = rootHubOf.find(path);
        if (root != rootHubOf.end()) {
            if (code != IOCTL_USB_GET_ROOT_HUB_NAME) return Refuse();
            return WriteName(out, outBytes, 0, 4, root->second, returned);
        }

        const auto hub = hubs.find(path);
        if (hub == hubs.end()) return Refuse();
        const std::vector<FakePort>& ports = hub->second.ports;

        if (code == IOCTL_USB_GET_NODE_INFORMATION) {
            if (hub->second.nodeInformationFails) return false;
            if (outBytes < sizeof(USB_NODE_INFORMATION)) return Refuse();
            USB_NODE_INFORMATION node{};
            node.NodeType = UsbHub;
            node.u.HubInformation.HubDescriptor.bNumberOfPorts = static_cast<UCHAR>(ports.size());
            std::memcpy(out, &node, sizeof(node));
            returned = sizeof(node);
            return true;
        }

        // Every other request starts with a 1-based connection index.
        if (inBytes < sizeof(ULONG)) return Refuse();
        ULONG index = 0;
        std::memcpy(&index, in, sizeof(index));
        if (index == 0 || index > ports.size()) return Refuse();
        const FakePort& port = ports[index - 1];

        switch (code) {
        case IOCTL_USB_GET_NODE_CONNECTION_INFORMATION_EX: {
            constexpr DWORD kFixed = offsetof(USB_NODE_CONNECTION_INFORMATION_EX, PipeList);
            if (outBytes < kFixed) return Refuse();
            USB_NODE_CONNECTION_INFORMATION_EX info{};
            info.ConnectionIndex = index;
            info.ConnectionStatus = port.status;
            if (port.status == DeviceConnected) {
                info.Speed = port.speed;
                info.DeviceDescriptor.bDeviceClass = port.deviceClass;
                info.DeviceIsHub = port.deviceClass == 9;
            }
            std::memcpy(out, &info, kFixed);
            returned = kFixed;
            return true;
        }
        case IOCTL_USB_GET_NODE_CONNECTION_INFORMATION_EX_V2: {
            USB_NODE_CONNECTION_INFORMATION_EX_V2 v2{};
            if (inBytes < sizeof(v2) || outBytes < sizeof(v2)) return Refuse();
            std::memcpy(&v2, in, sizeof(v2));
            if (v2.Length != sizeof(v2)) return Refuse();
            protocolMaskAsked[index] = v2.SupportedUsbProtocols.ul;
            if (!port.protocols) return false;
            // The port answers with the protocols it supports among those
            // the caller said it understands.
            v2.SupportedUsbProtocols.ul &= *port.protocols;
            std::memcpy(out, &v2, sizeof(v2));
            returned = sizeof(v2);
            return true;
        }
        case IOCTL_USB_GET_NODE_CONNECTION_DRIVERKEY_NAME:
            if (port.status != DeviceConnected || port.driverKey.empty()) return false;
            return WriteName(out, outBytes, 4, 8, port.driverKey, returned, index);
        case IOCTL_USB_GET_NODE_CONNECTION_NAME:
            if (port.status != DeviceConnected || port.deviceClass != 9) return false;
            return WriteName(out, outBytes, 4, 8, port.hubName, returned, index);
        default:
            return Refuse();
        }
    }

private:
    bool Refuse() {
        ++refused;
        return false;
    }

    // [ConnectionIndex] ActualLength Name: the hub driver fills what fits
    // and always reports the full record size in ActualLength.
    bool WriteName(void* out, DWORD outBytes, size_t lengthOffset, size_t nameOffset,
                   const std::wstring& name, DWORD& returned, ULONG index = 0) {
        if (outBytes < nameOffset + sizeof(WCHAR)) return Refuse();
        std::wstring content = name;
        if (nameStyle == NameStyle::kHonest) content.push_back(L'\0');
        if (nameStyle == NameStyle::kTrailingJunk) content += L"JUNK";
        ULONG actual = static_cast<ULONG>(nameOffset + content.size() * sizeof(WCHAR));
        if (nameStyle == NameStyle::kHugeLength) actual = 0xFFFFFFF0u;
        if (nameStyle == NameStyle::kTinyLength) actual = static_cast<ULONG>(nameOffset);

        auto* bytes = static_cast<unsigned char*>(out);
        if (lengthOffset == 4) std::memcpy(bytes, &index, sizeof(index));
        std::memcpy(bytes + lengthOffset, &actual, sizeof(actual));
        const size_t room = outBytes - nameOffset;
        const size_t nameBytes = content.size() * sizeof(WCHAR);
        std::memcpy(bytes + nameOffset, content.data(), nameBytes < room ? nameBytes : room);
        size_t reported = nameOffset + (nameBytes < room ? nameBytes : room);
        if (nameStyle == NameStyle::kTrailingJunk && nameBytes <= room) {
            reported = nameOffset + name.size() * sizeof(WCHAR);
        }
        returned = static_cast<DWORD>(reported);
        return true;
    }

    std::map<HANDLE, std::wstring> open_;
    int next_ = 0;
};

FakePort Device(const std::wstring& key, UCHAR speed, std::optional<ULONG> protocols) {
    FakePort port;
    port.driverKey = key;
    port.speed = speed;
    port.protocols = protocols;
    return port;
}

FakePort Hub(const std::wstring& name, std::optional<ULONG> protocols = kUsb1 | kUsb2) {
    FakePort port;
    port.deviceClass = 9;
    port.hubName = name;
    port.protocols = protocols;
    port.driverKey = L"{hub-driver-key}\\0001";  // a hub has one; it is not a device record
    return port;
}

FakePort Empty() {
    FakePort port;
    port.status = NoDeviceConnected;
    return port;
}

const std::wstring kController = L"\\\\?\\pci#ven_8086&dev_a36d#3&11583659&0&a0#{3abf6f2d}";
const std::wstring kRootName = L"USB#ROOT_HUB30#4&2b4a5c1e&0#{f18a0e88-c30c-11d0-8815-00a0c906bed8}";
const std::wstring kRootPath = L"\\\\?\\" + kRootName;

// Every walk must leave nothing open and ask nothing a hub would refuse.
class HubWalk : public ::testing::Test {
protected:
    void TearDown() override {
        EXPECT_EQ(fake.OpenHandles(), 0u) << "a handle was left open";
        EXPECT_EQ(fake.refused, 0) << "a request a real hub would refuse";
    }

    void OneRootHub(std::vector<FakePort> ports) {
        fake.controllers = {kController};
        fake.rootHubOf[kController] = kRootName;
        fake.hubs[kRootPath].ports = std::move(ports);
    }

    const UsbPortRecord* Find(const UsbPortMap& map, const std::wstring& key) {
        for (const UsbPortRecord& record : map.devices) {
            if (record.driverKey == key) return &record;
        }
        return nullptr;
    }
    // The level recorded for `key`; -99 when there is no record.
    int LevelOf(const UsbPortMap& map, const std::wstring& key) {
        const UsbPortRecord* record = Find(map, key);
        return record ? record->level : -99;
    }

    FakeTopology fake;
};

TEST_F(HubWalk, RecordsEachConnectedDeviceWithThePortsLevel) {
    OneRootHub({
        Device(L"{usb}\\0001", UsbSuperSpeed, kUsb1 | kUsb2 | kUsb3),
        // A USB 2 device on a USB 3 port: the port's level, not the speed.
        Device(L"{usb}\\0002", UsbHighSpeed, kUsb1 | kUsb2 | kUsb3),
        Device(L"{usb}\\0003", UsbFullSpeed, kUsb1 | kUsb2),
        Empty(),
    });
    const UsbPortMap map = BuildUsbPortMap(fake);

    ASSERT_EQ(map.hubs.size(), 1u);
    EXPECT_EQ(map.hubs[0].name, L"RootHub");
    EXPECT_EQ(map.hubs[0].path, kRootPath);
    EXPECT_EQ(map.hubs[0].portCount, 4u);
    EXPECT_EQ(map.hubs[0].depth, 0);

    ASSERT_EQ(map.devices.size(), 3u);
    EXPECT_EQ(LevelOf(map, L"{usb}\\0001"), 3);
    EXPECT_EQ(LevelOf(map, L"{usb}\\0002"), 3);
    EXPECT_EQ(LevelOf(map, L"{usb}\\0003"), 2);
    ASSERT_NE(Find(map, L"{usb}\\0003"), nullptr);
    EXPECT_EQ(Find(map, L"{usb}\\0003")->port, 3u);
    // The walk offers every protocol it understands, or a USB 3 port could
    // not say so.
    EXPECT_EQ(fake.protocolMaskAsked[1] & kUsb3, kUsb3);
}

TEST_F(HubWalk, ReportedSpeedStandsWithoutAProtocolAnswer) {
    OneRootHub({
        Device(L"{usb}\\0001", UsbFullSpeed, std::nullopt),  // V2 query fails
        Device(L"{usb}\\0002", UsbLowSpeed, kUsb1),          // neither USB 2 nor 3
        Device(L"{usb}\\0003", UsbHighSpeed, std::nullopt),
    });
    const UsbPortMap map = BuildUsbPortMap(fake);

    ASSERT_EQ(map.devices.size(), 3u);
    EXPECT_EQ(LevelOf(map, L"{usb}\\0001"), UsbFullSpeed);
    EXPECT_EQ(LevelOf(map, L"{usb}\\0002"), UsbLowSpeed);
    EXPECT_EQ(LevelOf(map, L"{usb}\\0003"), UsbHighSpeed);
}

TEST_F(HubWalk, FollowsExternalHubsThroughTheirConnectionNames) {
    const std::wstring hubName = L"USB#VID_05E3&PID_0610#5&1a2b3c&0&2#{f18a0e88}";
    const std::wstring innerName = L"USB#VID_05E3&PID_0610#6&77&0&1#{f18a0e88}";
    OneRootHub({Empty(), Hub(hubName, kUsb1 | kUsb2 | kUsb3)});
    fake.hubs[L"\\\\?\\" + hubName].ports = {
        Hub(innerName, kUsb1 | kUsb2),
        Device(L"{usb}\\0010", UsbSuperSpeed, kUsb1 | kUsb2 | kUsb3),
    };
    fake.hubs[L"\\\\?\\" + innerName].ports = {Device(L"{usb}\\0020", UsbHighSpeed, kUsb1 | kUsb2)};

    const UsbPortMap map = BuildUsbPortMap(fake);

    ASSERT_EQ(map.hubs.size(), 3u);
    EXPECT_EQ(map.hubs[1].name, L"Standard-USB-Hub");
    EXPECT_EQ(map.hubs[1].path, L"\\\\?\\" + hubName);
    EXPECT_EQ(map.hubs[1].depth, 1);
    EXPECT_EQ(map.hubs[2].path, L"\\\\?\\" + innerName);
    EXPECT_EQ(map.hubs[2].depth, 2);

    // Hubs are followed, not recorded as devices.
    ASSERT_EQ(map.devices.size(), 2u);
    const UsbPortRecord* deep = Find(map, L"{usb}\\0020");
    ASSERT_NE(deep, nullptr);
    EXPECT_EQ(deep->level, 2);
    EXPECT_EQ(map.hubs[deep->hub].path, L"\\\\?\\" + innerName);
    const UsbPortRecord* middle = Find(map, L"{usb}\\0010");
    ASSERT_NE(middle, nullptr);
    EXPECT_EQ(middle->level, 3);
    EXPECT_EQ(middle->port, 2u);
}

TEST_F(HubWalk, GoesOnPastControllersAndHubsThatFail) {
    const std::wstring deadController = L"\\\\?\\pci#dead";
    const std::wstring quietController = L"\\\\?\\pci#quiet";
    const std::wstring brokenHub = L"USB#BROKEN";
    fake.controllers = {deadController, quietController, kController};
    fake.unopenable.insert(deadController);
    fake.rootHubOf[quietController] = L"USB#QUIET_ROOT";
    fake.hubs[L"\\\\?\\USB#QUIET_ROOT"].nodeInformationFails = true;
    fake.rootHubOf[kController] = kRootName;
    fake.hubs[kRootPath].ports = {Hub(brokenHub), Device(L"{usb}\\0001", UsbHighSpeed, kUsb2)};
    fake.hubs[L"\\\\?\\" + brokenHub].nodeInformationFails = true;

    const UsbPortMap map = BuildUsbPortMap(fake);

    ASSERT_EQ(map.devices.size(), 1u);
    EXPECT_EQ(map.devices[0].level, 2);
    ASSERT_EQ(map.hubs.size(), 1u);
    EXPECT_EQ(map.hubs[0].path, kRootPath);
}

TEST_F(HubWalk, ReadsNamesOnlyAsFarAsTheReturnedLength) {
    OneRootHub({Device(L"{usb}\\0001", UsbHighSpeed, kUsb2)});
    fake.nameStyle = NameStyle::kTrailingJunk;
    const UsbPortMap map = BuildUsbPortMap(fake);
    ASSERT_EQ(map.devices.size(), 1u);
    EXPECT_EQ(map.devices[0].driverKey, L"{usb}\\0001");
    EXPECT_EQ(fake.openedPaths.back(), kRootPath);  // the root hub name came through whole
}

TEST_F(HubWalk, TakesANameWithoutTerminatorWhole) {
    OneRootHub({Device(L"{usb}\\0001", UsbHighSpeed, kUsb2)});
    fake.nameStyle = NameStyle::kNoTerminator;
    const UsbPortMap map = BuildUsbPortMap(fake);
    ASSERT_EQ(map.devices.size(), 1u);
    EXPECT_EQ(map.devices[0].driverKey, L"{usb}\\0001");
}

TEST_F(HubWalk, RefusesBrokenNameLengths) {
    for (const NameStyle style : {NameStyle::kHugeLength, NameStyle::kTinyLength}) {
        FakeTopology topology;
        topology.controllers = {kController};
        topology.rootHubOf[kController] = kRootName;
        topology.hubs[kRootPath].ports = {Device(L"{usb}\\0001", UsbHighSpeed, kUsb2)};
        topology.nameStyle = style;
        const UsbPortMap map = BuildUsbPortMap(topology);
        // Not even the root hub's name is believed, so nothing is walked.
        EXPECT_TRUE(map.hubs.empty());
        EXPECT_TRUE(map.devices.empty());
        EXPECT_EQ(topology.OpenHandles(), 0u);
        EXPECT_EQ(topology.refused, 0);
    }
}

TEST_F(HubWalk, StopsAHubThatNamesItself) {
    // A hub whose port leads back to itself: a broken answer, walked only
    // down to the deepest level USB allows.
    OneRootHub({Hub(kRootName), Device(L"{usb}\\0001", UsbHighSpeed, kUsb2)});
    const UsbPortMap map = BuildUsbPortMap(fake);
    EXPECT_EQ(map.hubs.size(), static_cast<size_t>(kMaxHubDepth + 1));
    EXPECT_EQ(map.devices.size(), static_cast<size_t>(kMaxHubDepth + 1));
}

// ---- Deciding from the map ---------------------------------------------------

TEST(PortLevel, FromProtocolsThenSpeed) {
    EXPECT_EQ(PortLevelFromConnection(UsbHighSpeed, true, kUsb1 | kUsb2 | kUsb3), 3);
    EXPECT_EQ(PortLevelFromConnection(UsbLowSpeed, true, kUsb3), 3);
    EXPECT_EQ(PortLevelFromConnection(UsbSuperSpeed, true, kUsb1 | kUsb2), 2);
    EXPECT_EQ(PortLevelFromConnection(UsbFullSpeed, true, kUsb1), UsbFullSpeed);
    EXPECT_EQ(PortLevelFromConnection(UsbSuperSpeed, false, kUsb2), UsbSuperSpeed);
    EXPECT_EQ(PortLevelFromConnection(UsbLowSpeed, false, kUsb3), UsbLowSpeed);
    // What UsbPortLevel answers: a found device below level 3 counts as 2.
    EXPECT_EQ(PortLevelAnswer(3), 3);
    EXPECT_EQ(PortLevelAnswer(UsbFullSpeed), 2);
    EXPECT_EQ(PortLevelAnswer(-1), -1);
}

TEST(PortLevel, LookUpByDriverKeyIgnoresCaseAndTakesTheFirst) {
    UsbPortMap map;
    map.devices.push_back({L"{36FC9E60-C465-11CF-8056-444553540000}\\0007", 2, 0, 1});
    map.devices.push_back({L"{36fc9e60-c465-11cf-8056-444553540000}\\0007", 3, 0, 2});
    map.devices.push_back({L"{36fc9e60-c465-11cf-8056-444553540000}\\0012", 3, 0, 3});
    EXPECT_EQ(LookUpPortLevel(map, L"{36fc9e60-c465-11cf-8056-444553540000}\\0007"), 2);
    EXPECT_EQ(LookUpPortLevel(map, L"{36FC9E60-C465-11CF-8056-444553540000}\\0012"), 3);
    EXPECT_EQ(LookUpPortLevel(map, L"{36fc9e60-c465-11cf-8056-444553540000}\\001"), -1);
    EXPECT_EQ(LookUpPortLevel(map, L""), -1);
    EXPECT_EQ(LookUpPortLevel(UsbPortMap{}, L"{x}\\0001"), -1);
}

TEST(PortLevel, InstanceIdMatchIgnoresCase) {
    const std::string id = "USB\\VID_2B89&PID_5A1C\\SN0042ab";
    EXPECT_TRUE(InstanceIdMatches(id, "2b89", "5a1c", "sn0042AB"));
    EXPECT_TRUE(InstanceIdMatches(id, "2B89", "5A1C", ""));
    EXPECT_FALSE(InstanceIdMatches(id, "2B89", "5A1D", "SN0042AB"));
    EXPECT_FALSE(InstanceIdMatches(id, "2B88", "5A1C", "SN0042AB"));
    EXPECT_FALSE(InstanceIdMatches(id, "2B89", "5A1C", "SN0043"));
    EXPECT_FALSE(InstanceIdMatches("", "", "", ""));
}

}  // namespace
