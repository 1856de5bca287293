// Virtual devices plugged in and out by the presence file that every process
// of a test bench reads (VirtualPresenceFile).
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <thread>
#include <vector>

#include "support/test_support.h"
#include "virtual/device/presence_file.h"
#include "virtual/device/virtual_hid_backend.h"

namespace {

using namespace VideoConsoleCore;
using namespace VideoConsoleCore::virtualdev;
namespace fs = std::filesystem;

TEST(PresenceList, OneLocationALineCommentsAndBlanksIgnored) {
    const std::pair<const char*, std::set<std::string>> rows[] = {
        {"", {}},
        {"\n\n", {}},
        {"1-1\n1-2\n", {"1-1", "1-2"}},
        {"# bench A\n\n  1-3.4 \r\n#1-4\n1-5", {"1-3.4", "1-5"}},
    };
    for (const auto& [text, expected] : rows) EXPECT_EQ(ParsePresenceList(text), expected) << text;
}

class Presence : public ::testing::Test {
protected:
    // Three devices at 1-1, 1-2, 1-3; the middle one is re-plugged 1 ms
    // after an update's last data report.
    Presence()
        : backend_(ReadVirtualDeviceConfigs(
                       {{"VirtualDeviceCount", "3"}, {"Virtual1_ReplugAfterUpdateMs", "1"}}),
                   Utf8(file_)) {}

    static std::string Utf8(const fs::path& path) {
        const std::u8string text = path.u8string();
        return std::string(text.begin(), text.end());
    }

    // Replaces the file as a writer must: a temporary, then a rename.
    void List(const std::string& text) {
        korvsdk_test::WriteFile(folder_.path() / "plugged.tmp", text);
        fs::rename(folder_.path() / "plugged.tmp", file_);
    }

    std::vector<std::string> Plugged() {
        std::vector<hid::UsbDeviceInfo> devices;
        EXPECT_TRUE(backend_.EnumerateUsbDevices(devices));
        std::vector<std::string> locations;
        for (const auto& device : devices)
            if (device.instanceId.find("MI_") == std::string::npos) locations.push_back(device.location);
        return locations;
    }

    // A flash data report to device 1 (what an update sends).
    bool SendData(hid::HidHandle handle) {
        std::vector<uint8_t> report(backend_.Config(1).output[kDataReport].Length(), 0);
        report[0] = backend_.Config(1).output[kDataReport].id;
        backend_.SetOutputReport(handle, report.data(), static_cast<uint32_t>(report.size()));
        return backend_.Transfers(1) > 0;
    }

    korvsdk_test::TempFolder folder_;
    fs::path file_ = folder_.path() / "plugged";
    VirtualHidBackend backend_;
};

TEST_F(Presence, UnplugFailsOpenHandlesAndRelistingBootsTheDeviceAfresh) {
    using Locations = std::vector<std::string>;
    EXPECT_EQ(Plugged(), (Locations{"1-1", "1-2", "1-3"})) << "no file: all plugged in";
    const hid::HidHandle handle = backend_.Open(backend_.HidPath(1));
    ASSERT_NE(handle, hid::kInvalidHidHandle);
    ASSERT_TRUE(SendData(handle));

    List("1-1\n1-3\n");
    hid::HiddAttributes attributes{};
    EXPECT_FALSE(backend_.GetAttributes(handle, attributes)) << "the next call fails";
    EXPECT_EQ(Plugged(), (Locations{"1-1", "1-3"}));
    EXPECT_EQ(backend_.Open(backend_.HidPath(1)), hid::kInvalidHidHandle);

    List("# all back\n1-1\n1-2\n1-3\n");
    EXPECT_EQ(Plugged(), (Locations{"1-1", "1-2", "1-3"}));
    EXPECT_EQ(backend_.Transfers(1), 0u) << "booted afresh";
    EXPECT_FALSE(backend_.GetAttributes(handle, attributes)) << "old handles stay dead";
    const hid::HidHandle fresh = backend_.Open(backend_.HidPath(1));
    EXPECT_TRUE(backend_.GetAttributes(fresh, attributes));

    List("1-1\n");
    EXPECT_EQ(Plugged(), (Locations{"1-1"}));
    fs::remove(file_);
    EXPECT_EQ(Plugged(), (Locations{"1-1", "1-2", "1-3"})) << "file gone: all plugged in";
    backend_.Close(handle);
    backend_.Close(fresh);
}

TEST_F(Presence, UnitTakenOffTheBenchIsNotReplugedAfterItsUpdate) {
    const hid::HidHandle handle = backend_.Open(backend_.HidPath(1));
    ASSERT_TRUE(SendData(handle));
    List("1-1\n1-3\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // past the re-plug's time
    EXPECT_EQ(Plugged(), (std::vector<std::string>{"1-1", "1-3"}));
    EXPECT_FALSE(backend_.Present(1));
    List("1-2\n");
    EXPECT_EQ(Plugged(), (std::vector<std::string>{"1-2"}));
    backend_.Close(handle);
}

}  // namespace
