// The bridge chip at the report level: every command of the report table,
// flash bursts, the boot rule on replug, and requests that do not fit.
#include <gtest/gtest.h>

#include <map>
#include <numeric>

#include "virtual/device/flash_chip_table.h"
#include "virtual/device/virtual_flash.h"
#include "host.h"

using namespace vdev_test;
namespace layout = VideoConsoleCore::virtualdev::flash_layout;

namespace {

// An I2C chip with a register file: a write sets the register pointer from
// its first byte and stores the rest; a read starts at the pointer.
class RegisterChip : public I2cTarget {
public:
    bool Write(const uint8_t* data, size_t count) override {
        ++writes;
        if (count == 0) return true;
        pointer = data[0];
        for (size_t i = 1; i < count; ++i) regs[static_cast<uint8_t>(pointer + i - 1)] = data[i];
        return true;
    }
    bool Read(const uint8_t* w, size_t wc, uint8_t* out, size_t rc) override {
        if (nackReads) return false;
        if (wc > 0) pointer = w[0];
        for (size_t i = 0; i < rc; ++i) out[i] = regs[static_cast<uint8_t>(pointer + i)];
        return true;
    }
    void Advance(uint32_t) override { ++advances; }
    std::map<uint8_t, uint8_t> regs;
    uint8_t pointer = 0;
    int writes = 0;
    int advances = 0;
    bool nackReads = false;
};

class Line : public BootloaderLine {
public:
    void SetLevel(bool high) override { levels.push_back(high); }
    std::vector<bool> levels;
};

std::vector<uint8_t> Pattern(size_t n, uint8_t seed) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 7 + seed + (i >> 8));
    return v;
}

class BridgeTest : public ::testing::Test {
protected:
    std::unique_ptr<VirtualHidBackend> backend_ = MakeBackend();
    Host host_{*backend_};
};

}  // namespace

// ---- Chip registers ---------------------------------------------------

TEST_F(BridgeTest, RegisterWriteThenReadRoundTrips) {
    ASSERT_TRUE(host_.WriteRegister(0x1234, 0xA1B2C3D4));
    uint32_t value = 0;
    ASSERT_TRUE(host_.ReadRegister(0x1234, value));
    EXPECT_EQ(value, 0xA1B2C3D4u);
    ASSERT_TRUE(host_.ReadRegister(0x1238, value));
    EXPECT_EQ(value, 0u);  // never written
}

TEST_F(BridgeTest, VersionRegistersHoldTheRunningFirmware) {
    uint32_t v[4];
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(host_.ReadRegister(kVersionRegisters[i], v[i]));
    const auto& expected = backend_->Config(0).usbFwVersion;  // factory image runs
    for (int i = 0; i < 4; ++i) EXPECT_EQ(v[i], expected[static_cast<size_t>(i)]);
    EXPECT_TRUE(backend_->Bridge(0).RunningUpdatedFirmware());
}

TEST_F(BridgeTest, RegisterReplyCarriesTheValueFromByteZero) {
    ASSERT_TRUE(host_.WriteRegister(0x40, 0x01020304));
    std::vector<uint8_t> p(4);
    PutLe32(p, 0, 0x40);
    ASSERT_TRUE(host_.Command(bridge_cmd::kRegisterReadRequest, 0x06, p));
    const auto r = host_.Request(kCommandReport, bridge_cmd::kRegisterReadReply);
    EXPECT_EQ(r[0], 0x04);
    EXPECT_EQ(r[3], 0x01);
    EXPECT_EQ(r[4], 0x00);  // the rest of the report is cleared
}

// ---- Flash ------------------------------------------------------------

TEST_F(BridgeTest, FlashIdIsTheConfiguredIndexWithoutAnOutputReport) {
    bool ok = false;
    const auto r = host_.Request(kCommandReport, bridge_cmd::kFlashGetId, &ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(r[0] | r[1] << 8, 26);
}

TEST(BridgeFlashId, IndexBeyondTheTableIsReportedAsTold) {
    auto backend = MakeBackend({{"Virtual0_FlashIndex", "300"}});
    Host host(*backend);
    const auto r = host.Request(kCommandReport, bridge_cmd::kFlashGetId);
    EXPECT_EQ(r[0] | r[1] << 8, 300);
    // Its storage takes the default part's size.
    EXPECT_EQ(backend->Flash(0).Size(), TotalBytes(FlashGeometryFor(kDefaultFlashIndex)));
}

TEST(BridgeFlashId, FlashSizeFollowsTheChipTable) {
    auto backend = MakeBackend({{"Virtual0_FlashIndex", "32"}});
    EXPECT_EQ(backend->Flash(0).Size(), 16u << 20);
    EXPECT_EQ(backend->Flash(0).SectorSize(), 4096u);
    auto rowWithoutGeometry = MakeBackend({{"Virtual0_FlashIndex", "1"}});
    EXPECT_EQ(rowWithoutGeometry->Flash(0).Size(), 16u << 20);
}

TEST_F(BridgeTest, BurstWriteAndReadAcrossChunkBoundaries) {
    // 2.5 chunks, starting off a sector boundary.
    const auto data = Pattern(4096 * 2 + 2048, 3);
    const uint32_t at = 0x600100;
    ASSERT_TRUE(host_.FlashSetup(3, at, static_cast<uint32_t>(data.size())));
    EXPECT_EQ(host_.BurstWrite(data), 3);
    ASSERT_TRUE(host_.FlashSetup(3, at, static_cast<uint32_t>(data.size())));
    std::vector<uint8_t> back;
    ASSERT_TRUE(host_.BurstRead(data.size(), back));
    EXPECT_EQ(back, data);
    // Neighbours untouched (still erased).
    uint8_t edge[2];
    backend_->Flash(0).Read(at - 1, edge, 1);
    backend_->Flash(0).Read(at + static_cast<uint32_t>(data.size()), edge + 1, 1);
    EXPECT_EQ(edge[0], 0xFF);
    EXPECT_EQ(edge[1], 0xFF);
}

TEST_F(BridgeTest, LastReadChunkStopsAtTheWindowAndZeroFills) {
    backend_->Flash(0).Write(0x600000, Pattern(8, 1).data(), 8);
    ASSERT_TRUE(host_.FlashSetup(2, 0x600000, 5));
    const auto r = host_.Request(kDataReport, 0x11);
    EXPECT_EQ(std::vector<uint8_t>(r.begin(), r.begin() + 5), Pattern(5, 1));
    EXPECT_EQ(r[5], 0);  // beyond the window: zero, not flash content
    // The window is used up: a further read carries nothing.
    const auto again = host_.Request(kDataReport, 0x11);
    EXPECT_TRUE(std::all_of(again.begin(), again.end(), [](uint8_t b) { return b == 0; }));
}

TEST_F(BridgeTest, WritesBeyondTheWindowAreDropped) {
    ASSERT_TRUE(host_.FlashSetup(2, 0x600000, 10));
    const auto data = Pattern(4096, 9);
    EXPECT_EQ(host_.BurstWrite(data), 1);
    uint8_t b[11];
    backend_->Flash(0).Read(0x600000, b, 11);
    EXPECT_EQ(std::vector<uint8_t>(b, b + 10), std::vector<uint8_t>(data.begin(), data.begin() + 10));
    EXPECT_EQ(b[10], 0xFF);
}

TEST_F(BridgeTest, WindowPastTheAddressSpaceDoesNotWrapToZero) {
    // The second chunk would start at 0x1_0000_0800: it must not land at 0x800.
    VirtualFlash& flash = backend_->Flash(0);
    flash.Write(0x800, Pattern(16, 4).data(), 16);
    ASSERT_TRUE(host_.FlashSetup(3, 0xFFFFF800u, 8192));
    EXPECT_EQ(host_.BurstWrite(std::vector<uint8_t>(8192, 0x00)), 2);
    uint8_t after[16];
    flash.Read(0x800, after, 16);
    EXPECT_EQ(std::vector<uint8_t>(after, after + 16), Pattern(16, 4));
    ASSERT_TRUE(host_.FlashSetup(3, 0xFFFFF800u, 8192));
    std::vector<uint8_t> back;
    ASSERT_TRUE(host_.BurstRead(8192, back));
    EXPECT_TRUE(std::all_of(back.begin(), back.end(), [](uint8_t b) { return b == 0xFF; }));
}

TEST_F(BridgeTest, DataWithoutAWindowProgramsNothing) {
    const uint64_t erases = backend_->Flash(0).SectorErases();
    EXPECT_EQ(host_.BurstWrite(Pattern(100, 0)), 1);
    EXPECT_EQ(backend_->Flash(0).SectorErases(), erases);
}

TEST_F(BridgeTest, RewritingKeepsTheRestOfTheSector) {
    // Read-modify-write of the 4 KiB configuration block, as an updater
    // clears and sets the firmware-valid word.
    VirtualFlash& flash = backend_->Flash(0);
    flash.Write(layout::kConfigBlock + 0x1000, Pattern(16, 5).data(), 16);
    ASSERT_TRUE(host_.FlashSetup(2, layout::kConfigBlock, 4096));
    std::vector<uint8_t> block;
    ASSERT_TRUE(host_.BurstRead(4096, block));
    EXPECT_EQ(Le32(block), layout::kLoadUpdated);
    PutLe32(block, 0, 0);
    ASSERT_TRUE(host_.FlashSetup(2, layout::kConfigBlock, 4096));
    ASSERT_EQ(host_.BurstWrite(block), 1);
    EXPECT_EQ(flash.ReadLe32(layout::kConfigBlock), 0u);
    PutLe32(block, 0, 1);  // 0 -> 1 needs an erase: the bridge does it
    ASSERT_TRUE(host_.FlashSetup(2, layout::kConfigBlock, 4096));
    ASSERT_EQ(host_.BurstWrite(block), 1);
    EXPECT_EQ(flash.ReadLe32(layout::kConfigBlock), 1u);
    uint8_t after[16];
    flash.Read(layout::kConfigBlock + 0x1000, after, 16);
    EXPECT_EQ(std::vector<uint8_t>(after, after + 16), Pattern(16, 5));
}

TEST_F(BridgeTest, FactoryImageCarriesTheIdentificationBlock) {
    const VirtualDeviceConfig& c = backend_->Config(0);
    const uint32_t at = c.infoBase + 0x20000;
    ASSERT_TRUE(host_.FlashSetup(3, at, 0x10000));
    std::vector<uint8_t> block;
    ASSERT_TRUE(host_.BurstRead(0x10000, block));
    EXPECT_EQ(block[384], c.modelCode);
    EXPECT_EQ(block[385], c.flashType);
    std::string text;
    for (int i = 0; i < 16; ++i) text += static_cast<char>(block[386 + 2 * i]);
    EXPECT_EQ(text, StoredVersionText(c.usbFwVersion, c.usbFwBuild));
    EXPECT_EQ(block[387], 0);  // UTF-16LE high byte
    std::vector<uint8_t> ids;
    ASSERT_TRUE(host_.FlashSetup(3, layout::kVidAt, 4));
    ASSERT_TRUE(host_.BurstRead(4, ids));
    EXPECT_EQ(ids[0] | ids[1] << 8, c.vid);
    EXPECT_EQ(ids[2] | ids[3] << 8, c.pid);
}

// ---- Boot rule --------------------------------------------------------

namespace {
std::vector<uint8_t> VersionBlock(const char* text) {
    std::vector<uint8_t> b(16, 0);
    for (size_t i = 0; text[i]; ++i) b[i] = static_cast<uint8_t>(text[i]);
    return b;
}
uint32_t RunningVersionWord(Host& host, int i) {
    uint32_t v = 0xDEAD;
    host.ReadRegister(kVersionRegisters[i], v);
    return v;
}
}  // namespace

TEST_F(BridgeTest, ReplugAfterACompleteWriteRunsTheNewFirmware) {
    // What an updater does in firmware-area mode, then writes the image's
    // version text with the private area.
    ASSERT_TRUE(host_.FlashSetup(2, layout::kConfigBlock, 4));
    ASSERT_EQ(host_.BurstWrite({0, 0, 0, 0}), 1);
    // A header that claims 0x200 + 0x20000 bytes, and only the first
    // 0x20 of them written: marked bootable, yet not whole.
    std::vector<uint8_t> firmware(0x20200, 0x5A);
    firmware[0x0C] = firmware[0x0D] = firmware[0x0F] = 0;
    firmware[0x0E] = 0x02;  // header length 0x200
    firmware[0x10] = firmware[0x12] = firmware[0x13] = 0;
    firmware[0x11] = 0x02;  // boot size 0x20000
    ASSERT_TRUE(host_.FlashSetup(0, layout::kFirmwareStart, 0x20));
    ASSERT_EQ(host_.BurstWrite({firmware.begin(), firmware.begin() + 0x20}), 1);
    ASSERT_TRUE(host_.FlashSetup(3, layout::kPrivateStart, 16));
    ASSERT_EQ(host_.BurstWrite(VersionBlock("02.01.00.0a")), 1);
    ASSERT_TRUE(host_.FlashSetup(2, layout::kConfigBlock, 4));
    ASSERT_EQ(host_.BurstWrite({1, 0, 0, 0}), 1);
    backend_->Replug(0);
    EXPECT_FALSE(backend_->Bridge(0).RunningUpdatedFirmware());
    EXPECT_TRUE(backend_->Bridge(0).FoundPartialFirmware());

    // The whole firmware in one session.
    Host whole(*backend_);
    ASSERT_TRUE(whole.FlashSetup(0, layout::kFirmwareStart, 0x20200));
    for (size_t at = 0; at < firmware.size(); at += 4096) {
        const size_t n = std::min<size_t>(4096, firmware.size() - at);
        ASSERT_EQ(whole.BurstWrite({firmware.begin() + long(at), firmware.begin() + long(at + n)}), 1);
    }

    // Until the replug the old firmware runs on.
    EXPECT_EQ(RunningVersionWord(whole, 0), backend_->Config(0).originalFwVersion[0]);
    backend_->Replug(0);
    Host after(*backend_);
    EXPECT_FALSE(backend_->Bridge(0).FoundPartialFirmware());
    EXPECT_EQ(RunningVersionWord(after, 0), 2u);
    EXPECT_EQ(RunningVersionWord(after, 1), 1u);
    EXPECT_EQ(RunningVersionWord(after, 3), 0x0Au);
    EXPECT_TRUE(backend_->Bridge(0).RunningUpdatedFirmware());
}

TEST_F(BridgeTest, ReplugAfterAnInterruptedWriteFallsBackToTheOriginal) {
    // The valid word was cleared, the firmware half written, then the
    // transfers stopped.
    ASSERT_TRUE(host_.FlashSetup(2, layout::kConfigBlock, 4));
    ASSERT_EQ(host_.BurstWrite({0, 0, 0, 0}), 1);
    ASSERT_TRUE(host_.FlashSetup(0, layout::kFirmwareStart, 0x10000));
    ASSERT_EQ(host_.BurstWrite(Pattern(4096, 0)), 1);
    backend_->Replug(0);
    Host after(*backend_);
    const auto& original = backend_->Config(0).originalFwVersion;
    for (int i = 0; i < 4; ++i) EXPECT_EQ(RunningVersionWord(after, i), original[static_cast<size_t>(i)]);
    EXPECT_FALSE(backend_->Bridge(0).RunningUpdatedFirmware());
}

TEST(BootRule, UpdatedFirmwareNeedsASaneHeaderAndVersion) {
    VirtualDeviceConfig config;
    VirtualFlash flash(FlashGeometryFor(26));
    flash.WriteFactoryImage(config);
    EXPECT_TRUE(DecideBoot(flash, config.originalFwVersion).updated);

    VirtualFlash erasedHeader = flash;
    const uint8_t ff[4] = {0xFF, 0xFF, 0xFF, 0xFF};
    erasedHeader.Write(layout::kHeaderLengthAt, ff, 4);
    EXPECT_FALSE(DecideBoot(erasedHeader, config.originalFwVersion).updated);

    VirtualFlash tooLong = flash;
    const uint8_t big[4] = {0x00, 0x37, 0x00, 0x00};  // header alone fills the area
    tooLong.Write(layout::kHeaderLengthAt, big, 4);
    EXPECT_FALSE(DecideBoot(tooLong, config.originalFwVersion).updated);

    VirtualFlash badVersion = flash;
    const auto text = VersionBlock("not a version");
    badVersion.Write(layout::kPrivateStart, text.data(), 16);
    const BootChoice choice = DecideBoot(badVersion, config.originalFwVersion);
    EXPECT_FALSE(choice.updated);
    EXPECT_EQ(choice.version, config.originalFwVersion);

    VirtualFlash otherWord = flash;
    otherWord.WriteLe32(layout::kConfigBlock, 2);
    EXPECT_FALSE(DecideBoot(otherWord, config.originalFwVersion).updated);
}

// ---- GPIO -------------------------------------------------------------

TEST_F(BridgeTest, GpioWriteNeedsAnOutputPinAndReadsBack) {
    Line line;
    backend_->Bridge(0).SetBootloaderLine(&line);
    ASSERT_TRUE(host_.Command(bridge_cmd::kGpioWrite, 0x04, {1, 1}));  // still an input
    ASSERT_TRUE(host_.Command(bridge_cmd::kGpioRead, 0x03, {1}));
    EXPECT_EQ(host_.Request(kCommandReport, bridge_cmd::kGpioRead)[0], 0);
    EXPECT_TRUE(line.levels.empty());

    ASSERT_TRUE(host_.Command(bridge_cmd::kGpioSet, 0x04, {1, 1}));
    ASSERT_TRUE(host_.Command(bridge_cmd::kGpioWrite, 0x04, {1, 1}));
    ASSERT_TRUE(host_.Command(bridge_cmd::kGpioRead, 0x03, {1}));
    EXPECT_EQ(host_.Request(kCommandReport, bridge_cmd::kGpioRead)[0], 1);
    ASSERT_EQ(line.levels, std::vector<bool>{true});

    // Another pin does not touch the bootloader line.
    ASSERT_TRUE(host_.Command(bridge_cmd::kGpioSet, 0x04, {2, 1}));
    ASSERT_TRUE(host_.Command(bridge_cmd::kGpioWrite, 0x04, {2, 1}));
    ASSERT_TRUE(host_.Command(bridge_cmd::kGpioWrite, 0x04, {1, 0}));
    EXPECT_EQ(line.levels, (std::vector<bool>{true, false}));
    // A pin the chip does not have reads 0 and is otherwise ignored.
    ASSERT_TRUE(host_.Command(bridge_cmd::kGpioSet, 0x04, {200, 1}));
    ASSERT_TRUE(host_.Command(bridge_cmd::kGpioRead, 0x03, {200}));
    EXPECT_EQ(host_.Request(kCommandReport, bridge_cmd::kGpioRead)[0], 0);
}

// ---- Information replies ----------------------------------------------

TEST(BridgeInfo, HdmiAndUsbReplies) {
    auto backend = MakeBackend({{"Virtual0_HdmiInfo", "a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3b4b5b6b7"},
                                {"Virtual0_UsbWidth", "1920"}, {"Virtual0_UsbHeight", "1080"},
                                {"Virtual0_UsbFrameRate", "50"}, {"Virtual0_UsbColorFormat", "4"}});
    Host host(*backend);
    bool ok = false;
    const auto hdmi = host.Request(kIicReport, bridge_cmd::kHdmiInfo, &ok);
    ASSERT_TRUE(ok);
    for (int i = 0; i < 24; ++i) EXPECT_EQ(hdmi[static_cast<size_t>(i)], 0xA0 + i);
    EXPECT_EQ(hdmi[24], 0);
    const auto usb = host.Request(kIicReport, bridge_cmd::kUsbInfo, &ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(std::vector<uint8_t>(usb.begin(), usb.begin() + 7),
              (std::vector<uint8_t>{0x07, 0x80, 0x04, 0x38, 50, 4, 0}));
    const auto reserved = host.Request(kIicReport, bridge_cmd::kReserved0C, &ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(reserved[0], 0);
}

// ---- I2C ----------------------------------------------------------------

TEST_F(BridgeTest, IicRoutesByAddressAndNacksTheUnknown) {
    RegisterChip chip;
    backend_->Bridge(0).AttachI2cTarget(0x1A, &chip);
    EXPECT_EQ(host_.IicWrite(0x1A, {0xC8, 0x81, 0x82}), kIicAck);
    EXPECT_EQ(chip.regs[0xC8], 0x81);
    EXPECT_EQ(chip.regs[0xC9], 0x82);
    std::vector<uint8_t> out;
    EXPECT_EQ(host_.IicRead(0x1A, {0xC8}, 2, out), kIicAck);
    EXPECT_EQ(out, (std::vector<uint8_t>{0x81, 0x82}));
    EXPECT_GE(chip.advances, 2);

    EXPECT_EQ(host_.IicWrite(0x50, {1}), kIicNack);
    EXPECT_EQ(host_.IicRead(0x50, {1}, 1, out), kIicNack);
    EXPECT_EQ(host_.IicWrite(0x9A, {1}), kIicNack);  // not a 7-bit address
    chip.nackReads = true;
    EXPECT_EQ(host_.IicRead(0x1A, {0xC8}, 2, out), kIicNack);
    EXPECT_EQ(out, (std::vector<uint8_t>{0, 0}));
    backend_->Bridge(0).DetachI2cTarget(0x1A);
    EXPECT_EQ(host_.IicWrite(0x1A, {0xC8, 0x80}), kIicNack);
}

TEST_F(BridgeTest, IicCountsBeyondTheReportsAreRefusedNotFollowed) {
    RegisterChip chip;
    backend_->Bridge(0).AttachI2cTarget(0x1A, &chip);
    // Claims 200 data bytes in a 160-byte report.
    auto r = host_.OutReport(kIicReport, bridge_cmd::kIicWrite, 0x04, {0x1A, 200});
    ASSERT_TRUE(host_.Send(r));
    EXPECT_EQ(host_.Request(kIicReport, bridge_cmd::kIicWrite)[0], kIicBadRequest);
    EXPECT_EQ(chip.writes, 0);
    // Asks for more bytes than the input report can carry.
    std::vector<uint8_t> out;
    auto read = host_.OutReport(kIicReport, bridge_cmd::kIicRead, 0x05, {0x1A, 1, 0xC8, 161});
    ASSERT_TRUE(host_.Send(read));
    EXPECT_EQ(host_.Request(kIicReport, bridge_cmd::kIicRead)[0], kIicBadRequest);
    // 160 fits exactly (status + 160 in a 161-byte report).
    EXPECT_EQ(host_.IicRead(0x1A, {0xC8}, 160, out), kIicAck);
}

// ---- Malformed traffic ------------------------------------------------

TEST_F(BridgeTest, MalformedReportsAreRefusedWithoutOverrunning) {
    std::vector<uint8_t> wrongId(65, 0);
    wrongId[0] = 0x77;
    EXPECT_FALSE(host_.Send(wrongId));
    auto tooLong = host_.OutReport(kCommandReport, bridge_cmd::kRegisterWrite, 0x0A);
    tooLong.push_back(0);
    EXPECT_FALSE(host_.Send(tooLong));
    // A short report counts as zero-padded: the register address is 0.
    std::vector<uint8_t> shortWrite = {2, 0x0A, bridge_cmd::kRegisterWrite, 0x10};
    EXPECT_TRUE(host_.Send(shortWrite));
    uint32_t value = 1;
    ASSERT_TRUE(host_.ReadRegister(0x10, value));
    EXPECT_EQ(value, 0u);
    EXPECT_FALSE(host_.Command(0x3F, 0x02));  // unknown command stalls

    // Input: a buffer word shorter than the report, an unknown command, an
    // unknown ID.
    std::vector<uint8_t> buffer(65, 0);
    buffer[0] = 2;
    EXPECT_FALSE(backend_->GetInputReport(host_.Handle(), buffer.data(), 0x0400 | 64));
    EXPECT_FALSE(backend_->GetInputReport(host_.Handle(), buffer.data(), 0x0E00 | 65));
    buffer[0] = 9;
    EXPECT_FALSE(backend_->GetInputReport(host_.Handle(), buffer.data(), 0x0400 | 65));
    // A data request shorter than the data report.
    std::vector<uint8_t> data(4100, 0);
    data[0] = 1;
    EXPECT_FALSE(backend_->GetInputReport(host_.Handle(), data.data(), 4099));
    // The reply never runs past the report even when the word claims more.
    std::vector<uint8_t> guarded(65 + 16, 0xAB);
    guarded[0] = 2;
    EXPECT_TRUE(backend_->GetInputReport(host_.Handle(), guarded.data(), 0x04FF));
    EXPECT_TRUE(std::all_of(guarded.begin() + 65, guarded.end(), [](uint8_t b) { return b == 0xAB; }));
}
