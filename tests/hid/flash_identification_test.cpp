// Identification of the bridge's SPI flash from the index it reports.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "core/VideoConsoleCoreImp.h"
#include "hid/flash_chip_table.h"
#include "hid/flash_identification.h"
#include "support/fake_hid_backend.h"
#include "support/test_support.h"

using namespace VideoConsoleCore;
using korvsdk_test::FakeHidBackend;
using korvsdk_test::MessageLog;

namespace {

class FlashIdTest : public ::testing::Test {
protected:
    FlashIdTest() : cwd_(folder_.path()) {}
    void SetUp() override {
        auto fake = std::make_unique<FakeHidBackend>();
        backend = fake.get();
        core.UseHidBackend(std::move(fake));
        core.SetDebugOutputHandler(MessageLog::Collect);
        hid::HidpValueCaps caps{};
        caps.ReportCount = 64;
        caps.ReportID = 5;
        core.m_outputValueCaps = {caps, caps, caps};
        core.m_inputValueCaps = {caps, caps, caps};
        core.m_deviceOpen = true;
        MessageLog::Clear();
    }
    bool Identify(uint16_t id) {
        backend->answerInput = [id](uint8_t* buffer, uint32_t) {
            buffer[0] = static_cast<uint8_t>(id);
            buffer[1] = static_cast<uint8_t>(id >> 8);
        };
        return ReadFlashIdentification(core);
    }

    korvsdk_test::TempFolder folder_;
    korvsdk_test::WorkingFolder cwd_;
    VideoConsoleCoreImp core;
    FakeHidBackend* backend = nullptr;
};

}  // namespace

TEST(FlashChipTable, RowsAreIndexedByPosition) {
    for (int i = 0; i < kFlashChipCount; ++i) EXPECT_EQ(kFlashChips[i].index, i);
    EXPECT_STREQ(kFlashChips[kDefaultFlashChip].name, "MX_25L6445E");
    EXPECT_EQ(kFlashChips[0].jedecId, 0x30160037u);
    EXPECT_FALSE(kFlashChips[1].geometry.has_value());
}

TEST_F(FlashIdTest, OnlyTheInputRequestIsSent) {
    ASSERT_TRUE(Identify(22));
    EXPECT_TRUE(backend->outputReports.empty());
    ASSERT_EQ(backend->inputLengths.size(), 1u);
    EXPECT_EQ(backend->inputLengths[0], 65u | 0x0400u);
    EXPECT_EQ(MessageLog::All(), "Device ID: 22\n");
    EXPECT_EQ(core.m_bytesPerBlock, 65536u);
}

TEST_F(FlashIdTest, UnknownIndexFallsBackToTheDefaultPart) {
    for (uint16_t id : {uint16_t{44}, uint16_t{0xFFFF}}) {
        ASSERT_TRUE(Identify(id));
        EXPECT_EQ(core.m_flashDeviceId, kDefaultFlashChip);
        EXPECT_EQ(core.m_flashDevice.totalBlocks, 128);
        EXPECT_EQ(core.m_flashDevice.sectorSize, 65536u);
    }
    EXPECT_EQ(MessageLog::Count("Device ID: 65535\n"), 1);
}

TEST_F(FlashIdTest, FourByteAddressingStaysSet) {
    ASSERT_TRUE(Identify(27));
    EXPECT_EQ(core.m_flashDevice.fourByteAddressing, 1);
    ASSERT_TRUE(Identify(0));
    EXPECT_EQ(core.m_flashDevice.fourByteAddressing, 1);
    EXPECT_EQ(core.m_flashDevice.totalBlocks, 64);
}

TEST_F(FlashIdTest, SmallSectorPartAndItsLog) {
    korvsdk_test::WriteFile(folder_.path() / "setting.cfg", "");
    core.StartLogger();
    ASSERT_TRUE(Identify(32));
    EXPECT_EQ(core.m_flashDevice.sectorSize, 4096u);
    EXPECT_EQ(core.m_flashDevice.sectorsPerBlock, 16);
    EXPECT_EQ(core.m_flashDevice.secondSize, 16);
    EXPECT_EQ(core.m_bytesPerBlock, 4096u);
    const std::string log = korvsdk_test::ReadFile(core.LogFilePath());
    const char* lines[] = {"NOR(0, 0) init device",     "Name            : GD_GD25Q128C",
                           "Page Size       : 256 Bytes", "Sector Size     : 4096 Bytes",
                           "Total Blocks    : 256",       "Device ID       : 32",
                           "Pages per Sector: 16",        "Sector in Block : 16",
                           "Total Size      : 16 MB"};
    size_t at = 0;
    for (const char* line : lines) {
        const size_t found = log.find(line, at);
        ASSERT_NE(found, std::string::npos) << line << "\n" << log;
        at = found;
    }
}

TEST_F(FlashIdTest, PartWithoutGeometryOnAFreshRecordDoesNotDivideByZero) {
    ASSERT_TRUE(Identify(1));
    EXPECT_EQ(core.m_flashDevice.pageSize, 0);
    EXPECT_EQ(core.m_bytesPerBlock, 0u);
    ASSERT_TRUE(Identify(26));
    ASSERT_TRUE(Identify(1));
    EXPECT_EQ(core.m_flashDevice.totalBlocks, 256) << "the earlier geometry stays";
}

TEST_F(FlashIdTest, ClosedDeviceSaysSo) {
    core.m_deviceOpen = false;
    EXPECT_FALSE(Identify(3));
    EXPECT_EQ(MessageLog::All(), "Device not found !");
}
