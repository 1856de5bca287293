// The microcontroller's I2C master (0xCD command, 0xCF status, 0xCE data)
// towards the HDMI splitter and the audio codec.
#include <gtest/gtest.h>

#include "virtual/mcu/edid.h"
#include "virtual/mcu/mcu_test_helpers.h"

namespace VideoConsoleCore::virtualdev {
namespace {

using testing::BridgeFrame;
using testing::BridgeRead;
using testing::BridgeWrite;
using testing::PollBridge;
using testing::ReadReg;
using testing::ReadRegs;
using testing::ReadTxEdid;
using testing::WriteBytes;

// A chip that records what reaches it and answers reads with a fixed byte
// pattern.
class RecordingTarget : public I2cTarget {
public:
    bool Write(const uint8_t* data, size_t count) override {
        writes.emplace_back(data, data + count);
        return true;
    }
    bool Read(const uint8_t* w, size_t wc, uint8_t* out, size_t rc) override {
        reads.emplace_back(w, w + wc);
        for (size_t i = 0; i < rc; ++i) out[i] = uint8_t(0x40 + i);
        return true;
    }
    std::vector<std::vector<uint8_t>> writes, reads;
};

TEST(McuBridgeEdid, AWholeBlockReadInFourChunksIsTheMonitorsEdid) {
    VirtualMcuConfig config;
    std::vector<uint8_t> edid = BuildDefaultEdid();
    edid[0x48] ^= 0x5A;  // a block of our own, so the test does not pass on defaults
    edid[127] = EdidChecksum(edid.data());
    config.txEdid = edid;
    VirtualMcu mcu(config);
    std::vector<uint8_t> got;
    for (uint8_t offset = 0; offset < 128; offset += 32) {
        const auto chunk = ReadTxEdid(mcu, offset, 32);
        ASSERT_TRUE(chunk.has_value()) << int(offset);
        got.insert(got.end(), chunk->begin(), chunk->end());
    }
    EXPECT_EQ(got, edid);
    EXPECT_TRUE(EdidBlockValid(got.data()));
}

TEST(McuBridgeEdid, TheSplitterSeesTheRegisterWritesOfTheRead) {
    VirtualMcu mcu;
    ASSERT_TRUE(ReadTxEdid(mcu, 0x20, 0x10).has_value());
    EXPECT_EQ(mcu.Splitter().Register(0x29), 0xA0);
    EXPECT_EQ(mcu.Splitter().Register(0x2A), 0x20);
    EXPECT_EQ(mcu.Splitter().Register(0x2B), 0x10);
    EXPECT_EQ(mcu.Splitter().Register(0x2E), 0x03);
    EXPECT_EQ(mcu.Splitter().Register(0x2F), 0x01);  // done, acknowledged
}

TEST(McuBridgeEdid, NoMonitorOrAnotherPortGivesAnEmptyFifo) {
    VirtualMcuConfig config;
    config.txEdid.clear();
    VirtualMcu noMonitor(config);
    const auto empty = ReadTxEdid(noMonitor, 0, 32);
    ASSERT_TRUE(empty.has_value());
    EXPECT_EQ(*empty, std::vector<uint8_t>(32, 0x00));
    EXPECT_EQ(noMonitor.Splitter().Register(0x2F), 0x09);

    VirtualMcu mcu;
    ASSERT_TRUE(BridgeWrite(mcu, 0, 0x6A, 0x2D, 1, {0x01}));  // TX port 2
    ASSERT_TRUE(BridgeWrite(mcu, 0, 0x6A, 0x2E, 1, {0x03}));
    EXPECT_EQ(mcu.Splitter().Register(0x2F), 0x09);
}

TEST(McuBridgeEdid, AReadPastTheEndOfTheEdidIsNotAnswered) {
    VirtualMcu mcu;
    ASSERT_TRUE(ReadTxEdid(mcu, 0x70, 0x20).has_value());  // 0x70 + 32 > 128
    EXPECT_EQ(mcu.Splitter().Register(0x2F), 0x09);
}

struct ProbeCase {
    uint8_t variant;
    std::optional<CodecKind> fitted;   // override of the variant's codec
    std::optional<uint8_t> fittedAt;
};

// The library's codec probe per board variant: two bytes of a one-byte
// register through bus 1.
bool LibraryProbe(VirtualMcu& mcu, uint8_t variant) {
    auto probe = [&mcu](uint8_t device, uint8_t reg, uint8_t b0, uint8_t b1) {
        const auto got = BridgeRead(mcu, 1, device, reg, 1, 2);
        return got && (*got)[0] == b0 && (*got)[1] == b1;
    };
    switch (variant) {
        case 0: return probe(0x34, 0xFE, 0x10, 0xEC);
        case 1: return probe(0x36, 0xFE, 0x10, 0xEC) || probe(0x34, 0x7E, 0x00, 0x1A);
        case 2: return probe(0x34, 0x7E, 0x00, 0x1A);
        case 3: return false;
        case 4: return probe(0x38, 0xFE, 0x10, 0xEC);
        default: return probe(0x34, 0xFE, 0x10, 0xEC);
    }
}

TEST(McuBridgeCodec, VariantOneWithTheOtherCodecAnswersTheSecondProbe) {
    VirtualMcuConfig config;
    config.boardVariant = 1;
    config.codecKind = CodecKind::IdAt7E;
    config.codecAddress = 0x34;
    VirtualMcu mcu(config);
    EXPECT_FALSE(BridgeRead(mcu, 1, 0x36, 0xFE, 1, 2).has_value());
    EXPECT_TRUE(LibraryProbe(mcu, 1));
}

TEST(McuBridgeCodec, AVariantsProbeFailsOnAnotherVariantsCodec) {
    VirtualMcuConfig config;
    config.boardVariant = 2;  // codec answering at 0x7E
    VirtualMcu mcu(config);
    EXPECT_FALSE(LibraryProbe(mcu, 0));
    EXPECT_FALSE(LibraryProbe(mcu, 4));
}

TEST(McuBridgeCodec, NoCodecMeansTheBridgeReportsNoAcknowledge) {
    VirtualMcuConfig config;
    config.codecPresent = false;
    VirtualMcu mcu(config);
    EXPECT_EQ(mcu.Codec(), nullptr);
    ASSERT_TRUE(WriteBytes(mcu, BridgeFrame(true, 1, 0x34, 0xFE, 1, 2)));
    EXPECT_EQ(ReadReg(mcu, 0xCF), VirtualMcu::kBridgeNoAck);
    EXPECT_FALSE(PollBridge(mcu));
    VirtualMcuConfig variant3;
    variant3.boardVariant = 3;
    VirtualMcu board3(variant3);
    EXPECT_EQ(board3.Codec(), nullptr);
}

TEST(McuBridgeCodec, WritesReachTheCodecButNotItsIdRegisters) {
    VirtualMcu mcu;
    ASSERT_NE(mcu.Codec(), nullptr);
    ASSERT_TRUE(BridgeWrite(mcu, 1, 0x34, 0x20, 1, {0xAB, 0xCD}));
    EXPECT_EQ(mcu.Codec()->Register(0x20), 0xAB);
    EXPECT_EQ(mcu.Codec()->Register(0x21), 0xCD);
    ASSERT_TRUE(BridgeWrite(mcu, 1, 0x34, 0xFE, 1, {0x00}));
    EXPECT_EQ(BridgeRead(mcu, 1, 0x34, 0xFE, 1, 2), (std::vector<uint8_t>{0x10, 0xEC}));
}

TEST(McuBridge, AddressesGoOutBigEndianInTheirLength) {
    VirtualMcu mcu;
    RecordingTarget chip;
    mcu.AttachBusTarget(2, 0x50, &chip);
    ASSERT_TRUE(BridgeRead(mcu, 2, 0x50, 0x1234, 2, 3).has_value());
    ASSERT_TRUE(BridgeRead(mcu, 2, 0x50, 0x123456, 3, 1).has_value());
    ASSERT_TRUE(BridgeRead(mcu, 2, 0x50, 0x12345678, 4, 1).has_value());
    ASSERT_TRUE(BridgeRead(mcu, 2, 0x50, 0x12345678, 0, 1).has_value());  // other lengths: low byte
    ASSERT_TRUE(BridgeRead(mcu, 2, 0x50, 0x12345678, 7, 1).has_value());
    ASSERT_EQ(chip.reads.size(), 5u);
    EXPECT_EQ(chip.reads[0], (std::vector<uint8_t>{0x12, 0x34}));
    EXPECT_EQ(chip.reads[1], (std::vector<uint8_t>{0x12, 0x34, 0x56}));
    EXPECT_EQ(chip.reads[2], (std::vector<uint8_t>{0x12, 0x34, 0x56, 0x78}));
    EXPECT_EQ(chip.reads[3], (std::vector<uint8_t>{0x78}));
    EXPECT_EQ(chip.reads[4], (std::vector<uint8_t>{0x78}));
    ASSERT_TRUE(BridgeWrite(mcu, 2, 0x50, 0xBEEF, 2, {1, 2, 3}));
    EXPECT_EQ(chip.writes.back(), (std::vector<uint8_t>{0xBE, 0xEF, 1, 2, 3}));
}

TEST(McuBridge, ReadDataStreamsFromItsStartOnEveryRead) {
    VirtualMcu mcu;
    RecordingTarget chip;
    mcu.AttachBusTarget(3, 0x10, &chip);
    ASSERT_TRUE(BridgeRead(mcu, 3, 0x10, 0, 1, 4).has_value());
    EXPECT_EQ(ReadRegs(mcu, 0xCE, 4), (std::vector<uint8_t>{0x40, 0x41, 0x42, 0x43}));
    EXPECT_EQ(ReadRegs(mcu, 0xCE, 2), (std::vector<uint8_t>{0x40, 0x41}));
}

TEST(McuBridge, ABusyTransactionHoldsTheStatusAndRefusesANewOne) {
    VirtualMcuConfig config;
    config.timings.bridgeMs = 250;
    VirtualMcu mcu(config);
    ASSERT_TRUE(WriteBytes(mcu, BridgeFrame(true, 1, 0x34, 0xFE, 1, 2)));
    EXPECT_EQ(ReadReg(mcu, 0xCF), VirtualMcu::kBridgeBusy);
    EXPECT_FALSE(WriteBytes(mcu, BridgeFrame(true, 1, 0x34, 0xFE, 1, 2)));
    mcu.Advance(200);
    EXPECT_EQ(ReadReg(mcu, 0xCF), VirtualMcu::kBridgeBusy);
    mcu.Advance(50);
    EXPECT_EQ(ReadReg(mcu, 0xCF), 0x00);
    EXPECT_EQ(ReadRegs(mcu, 0xCE, 2), (std::vector<uint8_t>{0x10, 0xEC}));
}

TEST(McuBridge, MalformedFramesAreNotAcknowledged) {
    VirtualMcu mcu;
    EXPECT_FALSE(WriteBytes(mcu, {0xCD, 0x80, 0x6A, 0x01, 0x30}));              // no count
    EXPECT_FALSE(WriteBytes(mcu, {0xCD, 0x00, 0x6A, 0x01, 0x2E, 0x02, 0x03}));  // one data byte short
    EXPECT_FALSE(WriteBytes(mcu, {0xCD, 0x80, 0x6A, 0x02, 0x30, 0x20}));        // address short
}

}  // namespace
}  // namespace VideoConsoleCore::virtualdev
