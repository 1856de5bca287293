// The library's own report protocol against the virtual capture device:
// the bytes the command functions send are the ones the bridge, its flash
// and the microcontroller behind it understand.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "core/VideoConsoleCoreImp.h"
#include "hid/call_hid_function.h"
#include "hid/flash_identification.h"
#include "hid/report_protocol.h"
#include "support/test_support.h"
#include "virtual/device/virtual_hid_backend.h"

using namespace VideoConsoleCore;
using virtualdev::VirtualHidBackend;

namespace {

// Opens the first virtual device the way selection does: handle, preparsed
// data, and the value capabilities of both directions by report kind.
class LibrarySession : public ::testing::Test {
protected:
    void SetUp() override {
        auto backend = std::make_unique<VirtualHidBackend>(
            virtualdev::ReadVirtualDeviceConfigs(SettingsTable{}));
        device = backend.get();
        core.UseHidBackend(std::move(backend));
        core.SetDebugOutputHandler(korvsdk_test::MessageLog::Collect);

        core.m_deviceHandle = device->Open(device->HidPath(0));
        ASSERT_NE(core.m_deviceHandle, hid::kInvalidHidHandle);
        ASSERT_TRUE(device->GetPreparsedData(core.m_deviceHandle, core.m_preparsedData));
        for (int32_t type : {hid::kOutputReport, hid::kInputReport}) {
            std::vector<hid::HidpValueCaps> caps(8);
            uint16_t count = static_cast<uint16_t>(caps.size());
            ASSERT_EQ(device->GetValueCaps(type, caps.data(), count, core.m_preparsedData),
                      hid::kHidpStatusSuccess);
            ASSERT_GE(count, 3);
            caps.resize(count);
            (type == hid::kOutputReport ? core.m_outputValueCaps : core.m_inputValueCaps) = caps;
        }
        core.m_deviceOpen = true;  // from here on the core owns the interface
    }

    // One register of the microcontroller at 0x1A: write its number, read a byte.
    int McuRegister(uint8_t reg) {
        uint8_t data[2] = {reg, 0};
        if (!AccessIicData(core, kIicRead, 0x1A, 1, data, 1) || data[0] != 0) return -1;
        return data[1];
    }

    VideoConsoleCoreImp core;
    VirtualHidBackend* device = nullptr;
};

}  // namespace

TEST_F(LibrarySession, FlashWriteReadVerifyRoundTrip) {
    // A region of the Private area, longer than one 4096-byte chunk.
    constexpr uint32_t kAddress = 0x4F8000;
    std::vector<uint8_t> pattern(6000);
    for (size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<uint8_t>(i * 7 + 1);
    ASSERT_EQ(AccessFlashData(core, kFlashOpSetUp, 2, kAddress, 6000, nullptr), 1u);
    ASSERT_EQ(BurstFlashAccess(core, kFlashOpWrite, 6000, pattern.data(), pattern.size(), 0), 1u);
    ASSERT_EQ(AccessFlashData(core, kFlashOpSetUp, 2, kAddress, 6000, nullptr), 1u);
    EXPECT_EQ(BurstFlashAccess(core, kFlashOpRead, 6000, pattern.data(), pattern.size(), 0), 1u);

    std::vector<uint8_t> back(6000, 0);
    ASSERT_EQ(AccessFlashData(core, kFlashOpSetUp, 3, kAddress, 6000, nullptr), 1u);
    ASSERT_EQ(BurstFlashAccess(core, kFlashOpToMemory, 6000, back.data(), back.size(), 0), 1u);
    EXPECT_EQ(back, pattern);

    pattern[5000] ^= 0xFF;
    ASSERT_EQ(AccessFlashData(core, kFlashOpSetUp, 2, kAddress, 6000, nullptr), 1u);
    EXPECT_EQ(BurstFlashAccess(core, kFlashOpRead, 6000, pattern.data(), pattern.size(), 0), 0u);
}

