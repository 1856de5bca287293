// The board's microcontroller as the host reaches it: through the bridge's
// IIC reports and GPIO pin 1, shaped by the Virtual<n>_ microcontroller keys.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "virtual/mcu/edid.h"
#include "virtual/mcu/mcu_image.h"
#include "virtual/mcu/mcu_test_helpers.h"
#include "host.h"

using namespace vdev_test;
using VideoConsoleCore::SettingsTable;
namespace mcu_test = VideoConsoleCore::virtualdev::testing;

namespace {

constexpr uint8_t kMcu = 0x1A;

// `count` registers from `reg` through the IIC reports; empty when the
// microcontroller does not acknowledge.
std::vector<uint8_t> McuRead(Host& host, uint8_t reg, uint8_t count = 1) {
    std::vector<uint8_t> out;
    if (host.IicRead(kMcu, {reg}, count, out) != kIicAck) return {};
    return out;
}
int McuReg(Host& host, uint8_t reg) {
    const auto v = McuRead(host, reg);
    return v.empty() ? -1 : v[0];
}

// The microcontroller's I2C master, as the library's codec probe drives it:
// the 0xCD command, the 0xCF status, then the data from 0xCE.
std::vector<uint8_t> ProbeBehindMcu(Host& host, uint8_t device, uint8_t reg) {
    if (host.IicWrite(kMcu, mcu_test::BridgeFrame(true, 1, device, reg, 1, 2)) != kIicAck) return {};
    if (McuReg(host, VirtualMcu::kRegBridgeStatus) != 0) return {};
    return McuRead(host, VirtualMcu::kRegBridgeData, 2);
}

// The bootloader's busy byte, polled every 10 ms up to 300 times as the
// updater does; true when it reads 0.
bool WaitIdle(Host& host) {
    for (int round = 0; round < 300; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const int busy = McuReg(host, VirtualMcu::kBlBusy);
        if (busy < 0) return false;
        if (busy == 0) return true;
    }
    return false;
}

struct Device {
    Device(std::initializer_list<SettingsTable::value_type> settings)
        : backend(MakeBackend(SettingsTable(settings))), host(*backend) {}
    std::unique_ptr<VirtualHidBackend> backend;
    Host host;
};

}  // namespace

// ---- Settings keys --------------------------------------------------------

TEST(McuSettings, IdentityFollowsTheModelCodeUnlessSet) {
    Device plain({{"Virtual0_ModelCode", "7"}});
    EXPECT_EQ(McuRead(plain.host, 0xA0, 6), (std::vector<uint8_t>{7, 0x17, 0, 1, 0, 0}));
    EXPECT_EQ(McuReg(plain.host, 0xFD), 3);

    Device set({{"Virtual0_ModelCode", "7"},       {"Virtual0_McuDeviceType", "0x87"},
                {"Virtual0_McuVersion", "33"},     {"Virtual0_BoardVariant", "0x04"},
                {"Virtual0_McuConfig", "0a 0b 0c"}, {"Virtual0_BootloaderVersion", "0xFE"}});
    EXPECT_EQ(McuRead(set.host, 0xA0, 6), (std::vector<uint8_t>{0x87, 33, 4, 0x0A, 0x0B, 0x0C}));
    EXPECT_EQ(McuReg(set.host, 0xFD), 0xFE);

    Device bad({{"Virtual0_McuDeviceType", "256"},  {"Virtual0_McuVersion", "v2"},
                {"Virtual0_BoardVariant", "-1"},    {"Virtual0_McuConfig", "01 02 03 04"},
                {"Virtual0_BootloaderVersion", "x"}});
    EXPECT_EQ(McuRead(bad.host, 0xA0, 6), (std::vector<uint8_t>{13, 0x17, 0, 1, 0, 0}));
    EXPECT_EQ(McuReg(bad.host, 0xFD), 3);
}

TEST(McuSettings, AnErasedMicrocontrollerWaitsInItsBootloader) {
    Device erased({{"Virtual0_McuErased", "1"}});
    EXPECT_EQ(McuReg(erased.host, VirtualMcu::kRegWorkMode), 0);
    EXPECT_EQ(McuReg(erased.host, 0xA0), 0xFF);
    Device bad({{"Virtual0_McuErased", "yes"}});
    EXPECT_EQ(McuReg(bad.host, VirtualMcu::kRegWorkMode), 1);
}

TEST(McuSettings, BoardVariantAndCodecPresenceDecideWhatTheProbeFinds) {
    Device variant2({{"Virtual0_BoardVariant", "2"}});
    EXPECT_EQ(ProbeBehindMcu(variant2.host, 0x34, 0x7E), (std::vector<uint8_t>{0x00, 0x1A}));
    EXPECT_NE(ProbeBehindMcu(variant2.host, 0x34, 0xFE), (std::vector<uint8_t>{0x10, 0xEC}));
    Device variant4({{"Virtual0_BoardVariant", "4"}});
    EXPECT_EQ(ProbeBehindMcu(variant4.host, 0x38, 0xFE), (std::vector<uint8_t>{0x10, 0xEC}));

    Device none({{"Virtual0_CodecPresent", "0"}});
    EXPECT_TRUE(ProbeBehindMcu(none.host, 0x34, 0xFE).empty());
    EXPECT_EQ(McuReg(none.host, VirtualMcu::kRegBridgeStatus), VirtualMcu::kBridgeNoAck);
    Device bad({{"Virtual0_CodecPresent", "2"}});
    EXPECT_EQ(ProbeBehindMcu(bad.host, 0x34, 0xFE), (std::vector<uint8_t>{0x10, 0xEC}));
}

TEST(McuSettings, EdidOfTheMonitorBehindTheSplitter) {
    std::vector<uint8_t> edid = BuildDefaultEdid();
    edid[0x60] ^= 0x3C;
    edid[127] = EdidChecksum(edid.data());
    std::string hex;
    for (const uint8_t b : edid) {
        char two[4];
        std::snprintf(two, sizeof two, "%02x ", b);
        hex += two;
    }
    Device own({{"Virtual0_Edid", hex}});
    const auto chunk = mcu_test::ReadTxEdid(own.backend->Mcu(0), 0x60, 32);
    EXPECT_EQ(chunk, std::vector<uint8_t>(edid.begin() + 0x60, edid.begin() + 0x80));

    Device noMonitor({{"Virtual0_Edid", "none"}});
    EXPECT_EQ(mcu_test::ReadTxEdid(noMonitor.backend->Mcu(0), 0, 32),
              std::vector<uint8_t>(32, 0x00));
    // Not a whole block: the default monitor stays.
    Device shortBlock({{"Virtual0_Edid", hex.substr(0, 127 * 3)}});
    const auto standard = BuildDefaultEdid();
    EXPECT_EQ(mcu_test::ReadTxEdid(shortBlock.backend->Mcu(0), 0x60, 32),
              std::vector<uint8_t>(standard.begin() + 0x60, standard.begin() + 0x80));
}

TEST(McuSettings, InputsAtPowerOn) {
    Device set({{"Virtual0_HpMicPlugged", "1"}, {"Virtual0_LineInPlugged", "1"},
                {"Virtual0_VideoLocked", "0"},  {"Virtual0_HdmiSource", "0"}});
    EXPECT_EQ(McuReg(set.host, VirtualMcu::kRegHpMicPlug), 1);
    EXPECT_EQ(McuReg(set.host, VirtualMcu::kRegLineInPlug), 1);
    EXPECT_EQ(McuReg(set.host, VirtualMcu::kRegVideoLocked), 0);
    EXPECT_EQ(McuReg(set.host, VirtualMcu::kRegHdmiInput), 0);
    Device bad({{"Virtual0_HpMicPlugged", "2"}, {"Virtual0_VideoLocked", "off"},
                {"Virtual0_HdmiSource", "-1"}});
    EXPECT_EQ(McuReg(bad.host, VirtualMcu::kRegHpMicPlug), 0);
    EXPECT_EQ(McuReg(bad.host, VirtualMcu::kRegHdmiInput), 0x03);  // source present, locked
}

TEST(McuSettings, BusyTimes) {
    const auto c = ReadVirtualDeviceConfig(
        {{"Virtual0_McuSaveMs", "1"},        {"Virtual0_McuBridgeMs", "2"},
         {"Virtual0_McuBootJumpMs", "3"},    {"Virtual0_McuRestartMs", "4"},
         {"Virtual0_McuErasePageMs", "5"},   {"Virtual0_McuBlankCheckPageMs", "6"},
         {"Virtual0_McuProgramPageMs", "7"}, {"Virtual0_McuVerifyPageMs", "60001"}},
        0);
    const McuTimings& t = c.mcu.timings;
    EXPECT_EQ((std::vector<uint32_t>{t.saveMs, t.bridgeMs, t.bootJumpMs, t.restartMs, t.eraseMsPerPage,
                                     t.blankCheckMsPerPage, t.programPageMs, t.verifyPageMs}),
              (std::vector<uint32_t>{1, 2, 3, 4, 5, 6, 7, 0}));  // above a minute: refused

    // A save of a minute is still running when the host asks straight after.
    Device slow({{"Virtual0_McuSaveMs", "60000"}});
    ASSERT_EQ(slow.host.IicWrite(kMcu, {VirtualMcu::kRegSave, 0x01}), kIicAck);
    EXPECT_EQ(McuReg(slow.host, VirtualMcu::kRegSave), VirtualMcu::kSaveBusy);
}

TEST(McuSettings, FaultsFromPowerOn) {
    Device nack({{"Virtual0_McuNackRegister", "0xA1"}, {"Virtual0_McuSaveResult", "0x20"}});
    EXPECT_EQ(McuReg(nack.host, 0xA0), 13);
    EXPECT_EQ(McuReg(nack.host, 0xA1), -1);
    ASSERT_EQ(nack.host.IicWrite(kMcu, {VirtualMcu::kRegSave, 0x01}), kIicAck);
    EXPECT_EQ(McuReg(nack.host, VirtualMcu::kRegSave), 0x20);

    Device silent({{"Virtual0_McuNoAnswer", "1"}});
    EXPECT_EQ(McuReg(silent.host, 0xFD), -1);
    // Run-time faults start from the keys and stay reachable.
    silent.backend->Mcu(0).Faults().nackAll = false;
    EXPECT_EQ(McuReg(silent.host, 0xFD), 3);

    const auto set = ReadVirtualDeviceConfig({{"Virtual0_BootloaderStaysBusy", "1"},
                                              {"Virtual0_BootloaderVerifyFailAt", "1c000"},
                                              {"Virtual0_McuBridgeNeverCompletes", "1"}},
                                             0);
    EXPECT_TRUE(set.mcuFaults.bootloaderStaysBusy);
    EXPECT_EQ(set.mcuFaults.verifyMismatchAddress, 0x1C000u);
    EXPECT_TRUE(set.mcuFaults.bridgeNeverCompletes);

    const auto bad = ReadVirtualDeviceConfig({{"Virtual0_McuNackRegister", "0x1A1"},
                                              {"Virtual0_BootloaderVerifyFailAt", "800"},
                                              {"Virtual0_McuSaveResult", "save"},
                                              {"Virtual0_McuNoAnswer", "2"}},
                                             0);
    EXPECT_FALSE(bad.mcuFaults.nackRegister.has_value());
    EXPECT_FALSE(bad.mcuFaults.verifyMismatchAddress.has_value());  // the bootloader's own memory
    EXPECT_FALSE(bad.mcuFaults.saveResult.has_value());
    EXPECT_FALSE(bad.mcuFaults.nackAll);
}

// ---- Bootloader, end to end ----------------------------------------------

TEST(McuOverReports, TheBootloaderProgramsAnImageThatTheRestartRuns) {
    // A program frame is 137 bytes: the IIC output report must hold it.
    // The restart answers at once here; the library rides out its NACKs elsewhere.
    Device d({{"Virtual0_OutIicCount", "160"}, {"Virtual0_McuErasePageMs", "20"},
              {"Virtual0_McuRestartNackMs", "0"}});
    Host& host = d.host;
    ASSERT_EQ(McuReg(host, VirtualMcu::kRegWorkMode), 1);

    // GPIO pin 1 is the microcontroller's boot request.
    ASSERT_TRUE(host.Command(bridge_cmd::kGpioSet, 0x04, {1, 1}));
    ASSERT_TRUE(host.Command(bridge_cmd::kGpioWrite, 0x04, {1, 1}));
    EXPECT_EQ(McuReg(host, VirtualMcu::kRegWorkMode), 0);
    EXPECT_EQ(McuReg(host, VirtualMcu::kRegBootloaderVersion), 3);

    McuImageOptions o;
    o.size = 0x850;  // 17 pages, the last one partly filled; identity at 0x800..0x80B
    o.deviceType = 0x8D;
    o.version = 0x42;
    o.codec = 0x02;
    o.config = {0x0A, 0x0B, 0x0C};
    const auto image = BuildMcuImage(o);
    const uint16_t pages = 17;

    ASSERT_EQ(host.IicWrite(kMcu, mcu_test::BlRangeCommand('e', pages)), kIicAck);
    EXPECT_EQ(McuReg(host, VirtualMcu::kBlBusy), VirtualMcu::kBlStatusBusy);  // 340 ms of erase
    ASSERT_TRUE(WaitIdle(host));
    ASSERT_EQ(host.IicWrite(kMcu, mcu_test::BlRangeCommand('b', pages)), kIicAck);
    ASSERT_TRUE(WaitIdle(host));
    for (const char command : {'w', 'v'}) {
        for (uint16_t n = 0; n < pages; ++n) {
            uint8_t page[128];
            std::fill(std::begin(page), std::end(page), uint8_t{0xFF});
            std::copy(image.begin() + n * 128, image.begin() + std::min<size_t>(image.size(), n * 128 + 128),
                      page);
            ASSERT_EQ(host.IicWrite(kMcu, mcu_test::BlPageCommand(command, kProgramBase + 128u * n, page)),
                      kIicAck)
                << command << n;
            ASSERT_TRUE(WaitIdle(host)) << command << n;
        }
    }
    const auto& memory = d.backend->Mcu(0).ProgramMemory();
    EXPECT_TRUE(std::equal(image.begin(), image.end(), memory.begin()));
    EXPECT_TRUE(std::all_of(memory.begin() + 0x850, memory.begin() + 0x880,
                            [](uint8_t b) { return b == 0xFF; }));

    ASSERT_EQ(host.IicWrite(kMcu, mcu_test::BlRangeCommand('r', 0)), kIicAck);
    EXPECT_EQ(McuReg(host, VirtualMcu::kRegWorkMode), 1);
    EXPECT_EQ(McuRead(host, 0xA0, 6), (std::vector<uint8_t>{0x8D, 0x42, 0x02, 0x0A, 0x0B, 0x0C}));

    // The program survives a re-plug.
    d.backend->Replug(0);
    Host after(*d.backend);
    EXPECT_EQ(McuRead(after, 0xA0, 3), (std::vector<uint8_t>{0x8D, 0x42, 0x02}));
}
