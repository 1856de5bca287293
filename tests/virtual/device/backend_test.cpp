// The virtual backend as the library meets it: enumeration, handles,
// attributes and strings, the descriptor's capabilities, the planned
// faults, and its choice through DeviceBackend.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>

#include "core/VideoConsoleCoreImp.h"
#include "hid/backend/backend_factory.h"
#include "hid/call_hid_function.h"
#include "host.h"
#include "support/test_support.h"

using namespace vdev_test;

namespace {

const VideoConsoleCore::SettingsTable kTwoDevices = {
    {"VirtualDeviceCount", "2"},
    {"Virtual1_VID", "1234"},
    {"Virtual1_PID", "abcd"},
    {"Virtual1_Serial", "SECOND"},
    {"Virtual1_PortLevel", "2"},
};

std::string Narrow(const std::vector<uint8_t>& utf16) {
    std::string s;
    for (size_t i = 0; i + 1 < utf16.size() && (utf16[i] || utf16[i + 1]); i += 2) {
        s += static_cast<char>(utf16[i]);
    }
    return s;
}

}  // namespace

// ---- Enumeration --------------------------------------------------------

TEST(VirtualBackend, EnumeratesEachDeviceWithItsCompositeChildren) {
    auto backend = MakeBackend(kTwoDevices);
    std::vector<hid::UsbDeviceInfo> usb;
    ASSERT_TRUE(backend->EnumerateUsbDevices(usb));
    std::vector<std::string> parents;
    int children = 0;
    for (const auto& d : usb) {
        ASSERT_EQ(d.instanceId.rfind("USB\\VID_", 0), 0u) << d.instanceId;
        if (d.instanceId.find("MI_") != std::string::npos) ++children;
        else parents.push_back(d.instanceId);
    }
    EXPECT_EQ(parents, (std::vector<std::string>{"USB\\VID_FFF0&PID_0C01\\VC00000001",
                                                 "USB\\VID_1234&PID_ABCD\\SECOND"}));
    EXPECT_EQ(children, 4);
    EXPECT_EQ(usb[0].busReportedDescription, "Virtual HDMI Capture");

    std::vector<std::string> paths;
    ASSERT_TRUE(backend->EnumerateHidInterfaces(paths));
    EXPECT_EQ(paths, (std::vector<std::string>{"virtual://hid/VC00000001", "virtual://hid/SECOND"}));
    EXPECT_EQ(backend->UsbPortLevel("fff0", "0C01", "vc00000001"), 3);
    EXPECT_EQ(backend->UsbPortLevel("1234", "ABCD", "SECOND"), 2);
    EXPECT_EQ(backend->UsbPortLevel("1234", "ABCD", "OTHER"), -1);
}

TEST(VirtualBackend, OpenGivesAttributesAndStrings) {
    auto backend = MakeBackend(kTwoDevices);
    EXPECT_EQ(backend->Open("virtual://hid/NOPE"), hid::kInvalidHidHandle);
    const hid::HidHandle h = backend->Open("virtual://hid/SECOND");
    ASSERT_NE(h, hid::kInvalidHidHandle);
    hid::HiddAttributes a{};
    ASSERT_TRUE(backend->GetAttributes(h, a));
    EXPECT_EQ(a.VendorID, 0x1234);
    EXPECT_EQ(a.ProductID, 0xABCD);
    EXPECT_EQ(a.Size, sizeof a);

    std::vector<uint8_t> text(64, 0xCC);
    ASSERT_TRUE(backend->GetSerialNumberString(h, text.data(), 64));
    EXPECT_EQ(Narrow(text), "SECOND");
    ASSERT_TRUE(backend->GetProductString(h, text.data(), 64));
    EXPECT_EQ(Narrow(text), "Virtual HDMI Capture");
    ASSERT_TRUE(backend->GetIndexedString(h, 1, text.data(), 64));
    EXPECT_EQ(Narrow(text), backend->Config(1).manufacturer);
    EXPECT_FALSE(backend->GetIndexedString(h, 4, text.data(), 64));
    // A small buffer gets a cut, terminated text and nothing beyond it.
    std::vector<uint8_t> small(8, 0xCC);
    ASSERT_TRUE(backend->GetSerialNumberString(h, small.data(), 6));
    EXPECT_EQ(Narrow(small), "SE");
    EXPECT_EQ(small[6], 0xCC);

    uint8_t feature[65] = {2};
    EXPECT_FALSE(backend->GetFeature(h, feature, sizeof feature));
    EXPECT_FALSE(backend->SetFeature(h, feature, sizeof feature));
    uint32_t done = 7;
    EXPECT_FALSE(backend->Read(h, feature, sizeof feature, done));
    EXPECT_EQ(done, 0u);
    backend->Close(h);
    EXPECT_FALSE(backend->GetAttributes(h, a));
}

// ---- Descriptor -> capabilities ---------------------------------------

namespace {

struct Caps {
    hid::HidpCaps caps{};
    std::vector<hid::HidpValueCaps> out, in;
};

Caps ReadCaps(VirtualHidBackend& backend, hid::HidHandle h) {
    Caps c;
    hid::PreparsedData pp = nullptr;
    EXPECT_TRUE(backend.GetPreparsedData(h, pp));
    if (!pp) return c;
    EXPECT_EQ(backend.GetCaps(pp, c.caps), hid::kHidpStatusSuccess);
    for (auto [type, list] : {std::pair{hid::kOutputReport, &c.out}, std::pair{hid::kInputReport, &c.in}}) {
        uint16_t n = type == hid::kOutputReport ? c.caps.NumberOutputValueCaps
                                                : c.caps.NumberInputValueCaps;
        list->resize(n);
        if (n) {
            EXPECT_EQ(backend.GetValueCaps(type, list->data(), n, pp), hid::kHidpStatusSuccess);
        }
        list->resize(n);
    }
    backend.FreePreparsedData(pp);
    return c;
}

}  // namespace

TEST(VirtualBackend, ValueCapsFollowTheKindOrder) {
    // IDs deliberately not ascending, so that only the descriptor order can
    // put them where the library looks.
    auto backend = MakeBackend({{"Virtual0_OutDataId", "7"}, {"Virtual0_OutCmdId", "3"},
                                {"Virtual0_OutIicId", "5"}, {"Virtual0_InDataId", "9"},
                                {"Virtual0_InCmdId", "2"}, {"Virtual0_InIicId", "4"},
                                {"Virtual0_InCmdCount", "100"}});
    Host host(*backend);
    const Caps c = ReadCaps(*backend, host.Handle());
    EXPECT_EQ(c.caps.UsagePage, 0xFF00);
    ASSERT_EQ(c.out.size(), 3u);
    ASSERT_EQ(c.in.size(), 3u);
    const VirtualDeviceConfig& cfg = backend->Config(0);
    for (size_t k = 0; k < 3; ++k) {
        EXPECT_EQ(c.out[k].ReportID, cfg.output[k].id) << k;
        EXPECT_EQ(c.out[k].ReportCount, cfg.output[k].count) << k;
        EXPECT_EQ(c.out[k].BitSize, 8);
        EXPECT_EQ(c.in[k].ReportID, cfg.input[k].id) << k;
        EXPECT_EQ(c.in[k].ReportCount, cfg.input[k].count) << k;
    }
    EXPECT_EQ(c.caps.OutputReportByteLength, 4100);
    EXPECT_EQ(c.caps.InputReportByteLength, 4100);
}

TEST(VirtualBackend, FewerValueReportsFault) {
    auto backend = MakeBackend({{"Virtual0_ValueReports", "1"}});
    Host host(*backend);
    const Caps c = ReadCaps(*backend, host.Handle());
    EXPECT_EQ(c.caps.NumberOutputValueCaps, 1);
    EXPECT_EQ(c.caps.NumberInputValueCaps, 1);
    // The missing reports do not exist on the device either.
    EXPECT_FALSE(host.Command(bridge_cmd::kRegisterWrite, 0x0A, {0, 0, 0, 0, 1, 0, 0, 0}));
    backend->Faults(0).valueReports = 3;
    EXPECT_EQ(ReadCaps(*backend, host.Handle()).caps.NumberOutputValueCaps, 3);
}

// ---- Through the HID function layer -----------------------------------

TEST(VirtualBackend, CallHidFunctionReachesTheBridge) {
    auto backend = MakeBackend();
    Host host(*backend);
    hid::HidCallParameters p;
    hid::HidCallStatus s;
    p.deviceHandle = host.Handle();
    // Operation 9 with the flash-ID command packed into the length word.
    std::vector<uint8_t> buffer(65, 0);
    buffer[0] = backend->Config(0).input[kCommandReport].id;
    p.dataBuffer = buffer.data();
    p.dataLength = 65 | (bridge_cmd::kFlashGetId << 8);
    ASSERT_EQ(hid::CallHidFunction(*backend, 9, &p, &s), 1);
    EXPECT_EQ(s.failed, 0u);
    EXPECT_EQ(buffer[0], 26);
    // Operation 6: attributes in a result buffer.
    hid::HidCallParameters a;
    a.deviceHandle = host.Handle();
    ASSERT_EQ(hid::CallHidFunction(*backend, 6, &a, &s), 1);
    ASSERT_NE(a.resultBuffer, nullptr);
    EXPECT_EQ(static_cast<hid::HiddAttributes*>(a.resultBuffer)->VendorID, 0xFFF0);
    std::free(a.resultBuffer);
    // Operation 7 (feature) fails at the layer's status.
    p.dataLength = 65;
    ASSERT_EQ(hid::CallHidFunction(*backend, 7, &p, &s), 1);
    EXPECT_EQ(s.failed, 1u);
}

// ---- Faults -------------------------------------------------------------

TEST(VirtualFaults, NthCallOfAKindFailsOnce) {
    auto backend = MakeBackend({{"Virtual0_FailCall", "GetInputReport:2"}});
    Host host(*backend);
    bool ok = false;
    host.Request(kCommandReport, bridge_cmd::kFlashGetId, &ok);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(host.Command(bridge_cmd::kGpioRead, 0x03, {0}));  // other kinds do not count
    host.Request(kCommandReport, bridge_cmd::kFlashGetId, &ok);
    EXPECT_FALSE(ok);
    host.Request(kCommandReport, bridge_cmd::kFlashGetId, &ok);
    EXPECT_TRUE(ok);
}

TEST(VirtualFaults, EachCallKindCanFail) {
    const std::pair<HidCall, std::function<bool(VirtualHidBackend&)>> cases[] = {
        {HidCall::kOpen, [](VirtualHidBackend& b) {
             const auto h = b.Open(b.HidPath(0));
             b.Close(h);
             return h != hid::kInvalidHidHandle;
         }},
        {HidCall::kEnumerateHidInterfaces, [](VirtualHidBackend& b) {
             std::vector<std::string> p;
             return b.EnumerateHidInterfaces(p);
         }},
        {HidCall::kEnumerateUsbDevices, [](VirtualHidBackend& b) {
             std::vector<hid::UsbDeviceInfo> d;
             return b.EnumerateUsbDevices(d);
         }},
        {HidCall::kGetAttributes, [](VirtualHidBackend& b) {
             Host h(b);
             hid::HiddAttributes a{};
             return b.GetAttributes(h.Handle(), a);
         }},
        {HidCall::kGetPreparsedData, [](VirtualHidBackend& b) {
             Host h(b);
             hid::PreparsedData pp = nullptr;
             const bool ok = b.GetPreparsedData(h.Handle(), pp);
             if (ok) b.FreePreparsedData(pp);
             return ok;
         }},
        {HidCall::kSetOutputReport, [](VirtualHidBackend& b) {
             Host h(b);
             return h.Command(bridge_cmd::kGpioRead, 0x03, {0});
         }},
        {HidCall::kGetSerialNumberString, [](VirtualHidBackend& b) {
             Host h(b);
             uint8_t t[64];
             return b.GetSerialNumberString(h.Handle(), t, sizeof t);
         }},
        {HidCall::kGetProductString, [](VirtualHidBackend& b) {
             Host h(b);
             uint8_t t[64];
             return b.GetProductString(h.Handle(), t, sizeof t);
         }},
    };
    for (const auto& [call, run] : cases) {
        auto backend = MakeBackend();
        backend->Faults(0).failCall = call;
        backend->Faults(0).failAt = 1;
        EXPECT_FALSE(run(*backend)) << static_cast<int>(call);
        EXPECT_TRUE(run(*backend)) << static_cast<int>(call);
    }
}

TEST(VirtualFaults, UnplugAfterTransfers) {
    auto backend = MakeBackend({{"Virtual0_UnplugAfter", "3"}});
    Host host(*backend);
    uint32_t v = 0;
    EXPECT_TRUE(host.ReadRegister(0x54, v));  // transfers 1, 2
    EXPECT_TRUE(host.Command(bridge_cmd::kGpioRead, 0x03, {0}));  // 3: the last one
    EXPECT_FALSE(backend->Present(0));
    EXPECT_FALSE(host.Command(bridge_cmd::kGpioRead, 0x03, {0}));
    hid::HiddAttributes a{};
    EXPECT_FALSE(backend->GetAttributes(host.Handle(), a));
    std::vector<std::string> paths;
    ASSERT_TRUE(backend->EnumerateHidInterfaces(paths));
    EXPECT_TRUE(paths.empty());
    std::vector<hid::UsbDeviceInfo> usb;
    ASSERT_TRUE(backend->EnumerateUsbDevices(usb));
    EXPECT_TRUE(usb.empty());
    EXPECT_EQ(backend->Open(backend->HidPath(0)), hid::kInvalidHidHandle);

    // Plugged in again: the old handle stays dead, a new one works.
    backend->Replug(0);
    EXPECT_FALSE(backend->GetAttributes(host.Handle(), a));
    Host again(*backend);
    EXPECT_TRUE(again.ReadRegister(0x54, v));
}

TEST(VirtualFaults, IicNeverFinishes) {
    auto backend = MakeBackend({{"Virtual0_IicNeverFinishes", "1"}});
    Host host(*backend);
    int calls = 0;
    struct Counting : I2cTarget {
        int* n;
        explicit Counting(int* c) : n(c) {}
        bool Write(const uint8_t*, size_t) override { return ++*n, true; }
        bool Read(const uint8_t*, size_t, uint8_t*, size_t) override { return ++*n, true; }
    } chip(&calls);
    backend->Bridge(0).AttachI2cTarget(0x1A, &chip);
    EXPECT_EQ(host.IicWrite(0x1A, {0xC8, 0x80}), kIicBusy);
    std::vector<uint8_t> out;
    EXPECT_EQ(host.IicRead(0x1A, {0xE0}, 1, out), kIicBusy);
    EXPECT_EQ(calls, 0);
    backend->Faults(0).iicNeverFinishes = false;
    EXPECT_EQ(host.IicWrite(0x1A, {0xC8, 0x80}), kIicAck);
    EXPECT_EQ(calls, 1);
}

TEST(VirtualBackend, LatencyPerTransfer) {
    auto backend = MakeBackend({{"Virtual0_LatencyMs", "20"}});
    Host host(*backend);
    const auto start = std::chrono::steady_clock::now();
    uint32_t v = 0;
    ASSERT_TRUE(host.ReadRegister(0x54, v));  // two transfers
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
}

// ---- Choice through DeviceBackend ---------------------------------------

TEST(VirtualBackendChoice, FactoryBuildsItFromTheSettings) {
    std::string note = "stale";
    auto backend = hid::CreateHidBackend("virtual", kTwoDevices, note);
    EXPECT_TRUE(note.empty());
    EXPECT_STREQ(backend->Name(), "virtual");
    std::vector<std::string> paths;
    ASSERT_TRUE(backend->EnumerateHidInterfaces(paths));
    EXPECT_EQ(paths.size(), 2u);
}

TEST(VirtualBackendChoice, InitWithDeviceBackendVirtual) {
    korvsdk_test::TempFolder folder;
    korvsdk_test::WorkingFolder cwd(folder.path());
    korvsdk_test::WriteFile(folder.path() / "setting.cfg",
                            "EnableLocalLogging=0\nDeviceBackend=virtual\nVirtualDeviceCount=1\n");
    VideoConsoleCore::VideoConsoleCoreImp core;
    core.SetDebugOutputHandler(korvsdk_test::MessageLog::Collect);
    ASSERT_TRUE(core.Initialize("setting.cfg"));
    ASSERT_NE(core.Hid(), nullptr);
    EXPECT_STREQ(core.Hid()->Name(), "virtual");
    std::vector<hid::UsbDeviceInfo> usb;
    ASSERT_TRUE(core.Hid()->EnumerateUsbDevices(usb));
    ASSERT_FALSE(usb.empty());
    EXPECT_EQ(usb[0].instanceId, "USB\\VID_FFF0&PID_0C01\\VC00000001");
}
