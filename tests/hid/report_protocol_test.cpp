// The bridge chip's report protocol as bytes on the wire: report layouts,
// the command in the input length word, the I2C tunnel, flash bursts and
// the identification block, over a scripted backend.
#include <gtest/gtest.h>

#include <memory>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "core/VideoConsoleCoreImp.h"
#include "hid/report_protocol.h"
#include "support/fake_hid_backend.h"
#include "support/test_support.h"

using namespace VideoConsoleCore;
using korvsdk_test::FakeHidBackend;
using korvsdk_test::MessageLog;

namespace {

hid::HidpValueCaps Caps(uint8_t reportId, uint16_t count) {
    hid::HidpValueCaps caps{};
    caps.ReportID = reportId;
    caps.ReportCount = count;
    caps.BitSize = 8;
    caps.UsagePage = 0xFF00;
    return caps;
}

class ProtocolTest : public ::testing::Test {
protected:
    // Data reports of 12 bytes (8 data bytes a chunk), command and IIC
    // reports of 65 bytes.
    void SetUp() override {
        auto fake = std::make_unique<FakeHidBackend>();
        backend = fake.get();
        core.UseHidBackend(std::move(fake));
        core.SetDebugOutputHandler(MessageLog::Collect);
        SetReports(11, 64, 64);
        MessageLog::Clear();
    }
    void SetReports(uint16_t data, uint16_t command, uint16_t iic) {
        core.m_outputValueCaps = {Caps(1, data), Caps(2, command), Caps(3, iic)};
        core.m_inputValueCaps = {Caps(4, data), Caps(5, command), Caps(6, iic)};
    }
    // Serves flash reads from `flash` in order, one chunk per request.
    void ServeFlash(const std::vector<uint8_t>& flash, size_t chunk) {
        auto at = std::make_shared<size_t>(0);
        backend->answerInput = [flash, chunk, at](uint8_t* buffer, uint32_t length) {
            for (size_t i = 0; i < chunk && i < length && *at < flash.size(); ++i)
                buffer[i] = flash[(*at)++];
        };
    }

    VideoConsoleCoreImp core;
    FakeHidBackend* backend = nullptr;
};

}  // namespace

TEST_F(ProtocolTest, InputLengthWordCarriesTheCommand) {
    uint8_t value = 0;
    backend->answerInput = [](uint8_t* buffer, uint32_t length) {
        ASSERT_GE(length, 0x0A41u);
        buffer[0] = 1;
    };
    ASSERT_EQ(AccessGpio(core, kGpioReadOp, 7, &value), 1u);
    EXPECT_EQ(value, 1);
    ASSERT_EQ(backend->inputLengths.size(), 1u);
    EXPECT_EQ(backend->inputLengths[0], 0x0A41u);  // (64 + 1) | 0x0A << 8
    ASSERT_EQ(backend->outputReports.size(), 1u);
    const auto& request = backend->outputReports[0];
    EXPECT_EQ(request.size(), 65u);
    EXPECT_EQ((std::vector<uint8_t>(request.begin(), request.begin() + 4)),
              (std::vector<uint8_t>{2, 0x03, 0x0A, 7}));
}

TEST_F(ProtocolTest, ChipRegisterWriteAndReadAreLittleEndian) {
    uint32_t value = 0x11223344;
    ASSERT_EQ(AccessChipRegister(core, kChipRegisterWriteOp, 0x54, &value), 1u);
    const std::vector<uint8_t> head(backend->outputReports[0].begin(),
                                    backend->outputReports[0].begin() + 12);
    EXPECT_EQ(head, (std::vector<uint8_t>{2, 0x0A, 0x00, 0x54, 0, 0, 0, 0x44, 0x33, 0x22, 0x11, 0}));

    backend->answerInput = [](uint8_t* buffer, uint32_t) {
        buffer[0] = 0x78, buffer[1] = 0x56, buffer[2] = 0x34, buffer[3] = 0x12;
    };
    ASSERT_EQ(AccessChipRegister(core, kChipRegisterReadOp, 0x58, &value), 1u);
    EXPECT_EQ(value, 0x12345678u);
    EXPECT_EQ(backend->outputReports[1][1], 0x06);
    EXPECT_EQ(backend->outputReports[1][2], 0x01);
    EXPECT_EQ(backend->inputLengths.back(), (65u | 0x0200u));
}

TEST_F(ProtocolTest, IicReadReturnsStatusThenTheBytes) {
    backend->answerInput = [](uint8_t* buffer, uint32_t) {
        buffer[0] = 0;  // acknowledged
        buffer[1] = 0xA5;
        buffer[2] = 0x5A;
    };
    uint8_t data[3] = {0x80, 0, 0};  // register 0x80, then room for status + 2
    ASSERT_EQ(AccessIicData(core, kIicRead, 0x1A, 1, data, 2), 1u);
    EXPECT_EQ(data[0], 0);
    EXPECT_EQ(data[1], 0xA5);
    EXPECT_EQ(data[2], 0x5A);
    const auto& out = backend->outputReports[0];
    EXPECT_EQ((std::vector<uint8_t>(out.begin(), out.begin() + 7)),
              (std::vector<uint8_t>{3, 0x04 + 1 + 1, 0x07, 0x1A, 1, 0x80, 2}));
    EXPECT_EQ(backend->inputLengths[0], 65u | 0x0700u);
}

TEST_F(ProtocolTest, IicWriteCopiesOnlyTheStatus) {
    backend->answerInput = [](uint8_t* buffer, uint32_t) { buffer[0] = 1, buffer[1] = 9; };
    uint8_t data[2] = {0xC8, 0x03};
    ASSERT_EQ(AccessIicData(core, kIicWrite, 0x1A, 2, data, 0), 1u);
    EXPECT_EQ(data[0], 1) << "a NACK status comes back in data[0]";
    EXPECT_EQ(data[1], 0x03);
    EXPECT_EQ(backend->outputReports[0][1], 0x04 + 2);
    EXPECT_EQ(backend->outputReports[0][2], 0x06);
}

TEST_F(ProtocolTest, IicRequestLargerThanTheReportIsRefused) {
    SetReports(11, 64, 8);  // IIC report of 9 bytes
    std::vector<uint8_t> data(16, 0xEE);
    EXPECT_EQ(AccessIicData(core, kIicWrite, 0x1A, 10, data.data(), 0), 0u);
    EXPECT_TRUE(backend->outputReports.empty());
    EXPECT_EQ(MessageLog::All(),
              "AccessIicData: the request does not fit the I2C report; nothing was sent.\n");
}

TEST_F(ProtocolTest, MissingCapabilityNamesTheReport) {
    core.m_inputValueCaps.resize(1);  // no command or IIC input report
    uint8_t value = 0;
    EXPECT_EQ(AccessGpio(core, kGpioReadOp, 1, &value), 0u);
    EXPECT_EQ(MessageLog::All(),
              "Unknown error: Couldn't execute REPORT_GPIO_READ(INPUT) function\n");
    uint32_t reg = 0;
    MessageLog::Clear();
    EXPECT_EQ(AccessChipRegister(core, kChipRegisterReadOp, 0x54, &reg), 0u);
    EXPECT_TRUE(MessageLog::Texts().empty()) << "chip register access says nothing";
}

TEST_F(ProtocolTest, FlashSetUpThenSingleWriteWithDataAtByteFour) {
    uint8_t data[5] = {1, 2, 3, 4, 5};
    ASSERT_EQ(AccessFlashData(core, kFlashOpWrite, 2, 0x70000, 5, data), 1u);
    ASSERT_EQ(backend->outputReports.size(), 3u);
    const auto& mode = backend->outputReports[0];
    EXPECT_EQ((std::vector<uint8_t>(mode.begin(), mode.begin() + 8)),
              (std::vector<uint8_t>{2, 0x07, 0x03, 2, 0x00, 0x00, 0x07, 0x00}));
    const auto& length = backend->outputReports[1];
    EXPECT_EQ((std::vector<uint8_t>(length.begin(), length.begin() + 7)),
              (std::vector<uint8_t>{2, 0x06, 0x05, 5, 0, 0, 0}));
    const auto& write = backend->outputReports[2];
    EXPECT_EQ(write, (std::vector<uint8_t>{1, 0, 0, 0, 1, 2, 3, 4, 5, 0, 0, 0}));

    std::vector<uint8_t> tooLong(9);
    EXPECT_EQ(AccessFlashData(core, kFlashOpWrite, 2, 0, 9, tooLong.data()), 0u);
    EXPECT_EQ(backend->outputReports.size(), 3u) << "nothing is sent for a write that cannot fit";
    EXPECT_NE(MessageLog::All().find("AccessFlashData: one data report cannot carry 0x9 bytes at "
                                     "0x0 refused; nothing was sent.\n"),
              std::string::npos)
        << MessageLog::All();
}

TEST_F(ProtocolTest, BurstSplitsIntoChunks) {
    std::vector<uint8_t> source(20);
    std::iota(source.begin(), source.end(), 0);
    std::vector<uint32_t> progress;
    ASSERT_EQ(BurstFlashAccess(core, kFlashOpWrite, 20, source.data(), source.size(), 0,
                               [&](int, uint32_t done, uint32_t) { progress.push_back(done); }),
              1u);
    ASSERT_EQ(backend->outputReports.size(), 3u);  // 8 + 8 + 4
    EXPECT_EQ(backend->outputReports[1][4], 8);
    EXPECT_EQ(backend->outputReports[2][7], 19);
    EXPECT_EQ(backend->outputReports[2][8], 0) << "the rest of the last chunk is cleared";
    EXPECT_EQ(progress, (std::vector<uint32_t>{8, 16, 20}));

    backend->outputReports.clear();
    EXPECT_EQ(BurstFlashAccess(core, kFlashOpWrite, 8, source.data(), source.size(), 0), 1u);
    EXPECT_EQ(backend->outputReports.size(), 1u);
    EXPECT_EQ(BurstFlashAccess(core, kFlashOpWrite, 0, source.data(), source.size(), 0), 1u);
    EXPECT_EQ(backend->outputReports.size(), 1u);
}

TEST_F(ProtocolTest, BurstReadsIntoMemoryAtTheOffset) {
    std::vector<uint8_t> flash(20);
    std::iota(flash.begin(), flash.end(), 100);
    ServeFlash(flash, 8);
    std::vector<uint8_t> target(24, 0);
    ASSERT_EQ(BurstFlashAccess(core, kFlashOpToMemory, 20, target.data(), target.size(), 4), 1u);
    EXPECT_EQ(target[3], 0);
    EXPECT_EQ(target[4], 100);
    EXPECT_EQ(target[23], 119);
    EXPECT_EQ(backend->inputLengths[0], 12u) << "data reports carry no command";

    // One byte past the buffer: refused before any report.
    const size_t reports = backend->inputLengths.size();
    EXPECT_EQ(BurstFlashAccess(core, kFlashOpToMemory, 21, target.data(), target.size(), 4), 0u);
    EXPECT_EQ(backend->inputLengths.size(), reports);
}

TEST_F(ProtocolTest, VerifyMismatchNamesTheFailingChunk) {
    std::vector<uint8_t> source(20, 0x5A);
    std::vector<uint8_t> flash = source;
    flash[11] = 0x00;  // in the second chunk
    ServeFlash(flash, 8);
    EXPECT_EQ(BurstFlashAccess(core, kFlashOpRead, 20, source.data(), source.size(), 0), 0u);
    EXPECT_EQ(MessageLog::All(), "FlashWrite -- Compare data fail, data(0x00000008~0x00000010) \n");
}

TEST_F(ProtocolTest, UpdatingAnnouncesWriteAndVerifyOnce) {
    core.m_deviceState = kDeviceStateUpdating;
    std::vector<uint8_t> source(20, 1);
    EXPECT_EQ(BurstFlashAccess(core, kFlashOpWrite, 20, source.data(), source.size(), 0), 1u);
    EXPECT_EQ(MessageLog::All(), "USB firmware is updating..\n");
    MessageLog::Clear();
    core.m_progressSilenced = true;
    EXPECT_EQ(BurstFlashAccess(core, kFlashOpWrite, 20, source.data(), source.size(), 0), 1u);
    EXPECT_TRUE(MessageLog::Texts().empty());
}

TEST_F(ProtocolTest, IdentificationBlockGivesTypesAndText) {
    SetReports(4099, 64, 64);  // 4096-byte chunks
    core.m_flashBaseAddress = 0x180000;
    std::vector<uint8_t> block(0x10000, 0xFF);
    block[384] = 13;  // chip type
    block[385] = 2;   // flash type
    const std::string version = "V1.2.3-capture!!";
    for (size_t i = 0; i < 16; ++i) {
        block[386 + 2 * i] = static_cast<uint8_t>(version[i]);
        block[387 + 2 * i] = 0;
    }
    ServeFlash(block, 4096);
    char text[18];
    std::memset(text, '#', sizeof text);
    ASSERT_EQ(ReadFlashInfoBlock(core, text), 1u);
    EXPECT_EQ(core.m_chipType, 13);
    EXPECT_EQ(core.m_flashType, 2);
    EXPECT_EQ(std::string(text, 16), version);
    EXPECT_EQ(text[16], '#') << "left as it was";
    EXPECT_EQ(text[17], '\0');
    // Set-up at base + 0x20000 for 64 KiB, then 16 reads.
    const auto& mode = backend->outputReports[0];
    EXPECT_EQ((std::vector<uint8_t>(mode.begin() + 3, mode.begin() + 8)),
              (std::vector<uint8_t>{3, 0x00, 0x00, 0x1A, 0x00}));
    EXPECT_EQ(backend->inputLengths.size(), 16u);
}
