#include "virtual/mcu/mcu_test_helpers.h"

#include <algorithm>

#include "virtual/mcu/mcu_image.h"

namespace VideoConsoleCore::virtualdev::testing {

std::optional<uint8_t> ReadReg(I2cTarget& mcu, uint8_t reg) {
    uint8_t value = 0xDD;
    if (!mcu.Read(&reg, 1, &value, 1)) return std::nullopt;
    return value;
}

std::optional<std::vector<uint8_t>> ReadRegs(I2cTarget& mcu, uint8_t reg, size_t count) {
    std::vector<uint8_t> out(count, 0xDD);
    if (!mcu.Read(&reg, 1, out.data(), count)) return std::nullopt;
    return out;
}

bool WriteReg(I2cTarget& mcu, uint8_t reg, uint8_t value) {
    const uint8_t bytes[2] = {reg, value};
    return mcu.Write(bytes, 2);
}

bool WriteBytes(I2cTarget& mcu, const std::vector<uint8_t>& bytes) {
    return mcu.Write(bytes.data(), bytes.size());
}

std::vector<uint8_t> BridgeFrame(bool read, uint8_t bus, uint8_t device, uint32_t address,
                                 uint8_t addressLength, uint8_t count,
                                 const std::vector<uint8_t>& data) {
    std::vector<uint8_t> f{0xCD, uint8_t((bus & 3) | (read ? 0x80 : 0x00)), device, addressLength};
    if (addressLength >= 2 && addressLength <= 4) {
        for (int i = addressLength - 1; i >= 0; --i) f.push_back(uint8_t(address >> (8 * i)));
    } else {
        f.push_back(uint8_t(address));
    }
    f.push_back(count);
    f.insert(f.end(), data.begin(), data.end());
    return f;
}

bool PollBridge(VirtualMcu& mcu) {
    for (int poll = 0; poll < 10; ++poll) {
        if (poll > 0) mcu.Advance(100);
        const auto status = ReadReg(mcu, 0xCF);
        if (!status) return false;
        if (*status == 0) return true;
    }
    return false;
}

std::optional<std::vector<uint8_t>> BridgeRead(VirtualMcu& mcu, uint8_t bus, uint8_t device,
                                               uint32_t address, uint8_t addressLength,
                                               uint8_t count) {
    if (!WriteBytes(mcu, BridgeFrame(true, bus, device, address, addressLength, count)))
        return std::nullopt;
    if (!PollBridge(mcu)) return std::nullopt;
    return ReadRegs(mcu, 0xCE, count);
}

bool BridgeWrite(VirtualMcu& mcu, uint8_t bus, uint8_t device, uint32_t address,
                 uint8_t addressLength, const std::vector<uint8_t>& data) {
    if (!WriteBytes(mcu, BridgeFrame(false, bus, device, address, addressLength,
                                     uint8_t(data.size()), data)))
        return false;
    return PollBridge(mcu);
}

std::optional<std::vector<uint8_t>> ReadTxEdid(VirtualMcu& mcu, uint8_t offset, uint8_t chunk) {
    const uint8_t setup[][2] = {{0x2E, 0x09}, {0x29, 0xA0}, {0x2A, offset},
                                {0x2B, chunk}, {0x2C, 0x00}, {0x2D, 0x00}};
    for (const auto& w : setup)
        if (!WriteBytes(mcu, {0xCD, 0x00, 0x6A, 0x01, w[0], 0x01, w[1]})) return std::nullopt;
    mcu.Advance(100);
    if (!WriteBytes(mcu, {0xCD, 0x00, 0x6A, 0x01, 0x2E, 0x01, 0x03})) return std::nullopt;
    mcu.Advance(100);
    if (!WriteBytes(mcu, {0xCD, 0x80, 0x6A, 0x01, 0x30, chunk})) return std::nullopt;
    if (!PollBridge(mcu)) return std::nullopt;
    return ReadRegs(mcu, 0xCE, chunk);
}

uint8_t EnterBootModeByRegister(VirtualMcu& mcu) {
    bool inBootloader = false;
    for (int pass = 0; pass < 300 && !inBootloader; ++pass) {
        mcu.Advance(10);
        const auto mode = ReadReg(mcu, 0xE0);
        if (!mode) return 0;
        if (*mode == 0) inBootloader = true;
        else if (*mode == 1) {
            mcu.Advance(1);
            if (!WriteReg(mcu, 0xEE, 0x01)) return 0;
        }
    }
    if (!inBootloader) return 0;
    uint8_t version = 0;
    for (int i = 0; i < 10; ++i) {
        mcu.Advance(1);
        const auto v = ReadReg(mcu, 0xFD);
        if (!v) return 0;
        version = *v;
        if (version >= 1 && version <= 254) break;
    }
    return version;
}

std::vector<uint8_t> BlRangeCommand(char command, uint16_t pages) {
    return {0xE2, uint8_t(command), 0x00, 0x00, 0x00, 0x10, 0x00, uint8_t(pages >> 8), uint8_t(pages)};
}

std::vector<uint8_t> BlPageCommand(char command, uint32_t address, const uint8_t* page128) {
    std::vector<uint8_t> f(9 + 128);
    const uint8_t head[9] = {0xE2, uint8_t(command), 0x00, uint8_t(address >> 24), uint8_t(address >> 16),
                             uint8_t(address >> 8), uint8_t(address), 0x00, 0x01};
    std::copy(head, head + 9, f.begin());
    std::copy(page128, page128 + 128, f.begin() + 9);
    return f;
}

bool WaitBusy(VirtualMcu& mcu) {
    for (int round = 0; round < 300; ++round) {
        mcu.Advance(10);
        const auto busy = ReadReg(mcu, 0xE1);
        if (!busy) return false;
        if (*busy == 0) return true;
    }
    return false;
}

bool ProgramImage(VirtualMcu& mcu, const std::vector<uint8_t>& image, bool verify) {
    const uint16_t pages = uint16_t((image.size() + 127) / 128);
    if (!WriteBytes(mcu, BlRangeCommand('e', pages)) || !WaitBusy(mcu)) return false;
    if (!WriteBytes(mcu, BlRangeCommand('b', pages)) || !WaitBusy(mcu)) return false;
    for (char command : verify ? std::vector<char>{'w', 'v'} : std::vector<char>{'w'}) {
        for (uint16_t n = 0; n < pages; ++n) {
            uint8_t page[128];
            std::fill(std::begin(page), std::end(page), uint8_t(0xFF));
            const size_t at = size_t(n) * 128;
            std::copy(image.begin() + std::ptrdiff_t(at),
                      image.begin() + std::ptrdiff_t(std::min(image.size(), at + 128)), page);
            if (!WriteBytes(mcu, BlPageCommand(command, kProgramBase + 128u * n, page))) return false;
            if (!WaitBusy(mcu)) return false;
        }
    }
    return true;
}

std::optional<uint8_t> SaveParameters(VirtualMcu& mcu) {
    if (!WriteReg(mcu, 0xBC, 0x01)) return std::nullopt;
    mcu.Advance(100);
    uint8_t status = 0x01;
    for (int poll = 0; poll < 30; ++poll) {
        const auto s = ReadReg(mcu, 0xBC);
        if (!s) return std::nullopt;
        status = *s;
        if ((status & 1) == 0) break;
        mcu.Advance(100);
    }
    return status;
}

}  // namespace VideoConsoleCore::virtualdev::testing
