// A small host for the virtual device tests: builds reports the way the
// library lays them out (report ID, length byte, command, little-endian
// parameters; flash data from byte 4; input requests with the command in
// bits 8..15 of the length) and hands them to the backend as raw bytes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "virtual/device/virtual_bridge.h"
#include "virtual/device/virtual_hid_backend.h"

namespace vdev_test {

using namespace VideoConsoleCore::virtualdev;
namespace hid = VideoConsoleCore::hid;

inline void PutLe32(std::vector<uint8_t>& r, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) r[at + static_cast<size_t>(i)] = static_cast<uint8_t>(v >> (8 * i));
}
inline uint32_t Le32(const std::vector<uint8_t>& r, size_t at = 0) {
    return uint32_t{r[at]} | uint32_t{r[at + 1]} << 8 | uint32_t{r[at + 2]} << 16 |
           uint32_t{r[at + 3]} << 24;
}

class Host {
public:
    Host(VirtualHidBackend& backend, size_t device = 0)
        : backend_(backend), config_(backend.Config(device)) {
        handle_ = backend.Open(backend.HidPath(device));
    }
    ~Host() { backend_.Close(handle_); }

    hid::HidHandle Handle() const { return handle_; }

    // An output report of `kind` with the command header and parameters at
    // byte 3 on.
    std::vector<uint8_t> OutReport(int kind, uint8_t command, uint8_t lengthByte,
                                   const std::vector<uint8_t>& params = {}) const {
        std::vector<uint8_t> r(config_.output[static_cast<size_t>(kind)].Length(), 0);
        r[0] = config_.output[static_cast<size_t>(kind)].id;
        r[1] = lengthByte;
        r[2] = command;
        for (size_t i = 0; i < params.size() && 3 + i < r.size(); ++i) r[3 + i] = params[i];
        return r;
    }
    bool Send(std::vector<uint8_t> r) {
        return backend_.SetOutputReport(handle_, r.data(), static_cast<uint32_t>(r.size()));
    }
    bool Command(uint8_t command, uint8_t lengthByte, const std::vector<uint8_t>& params = {}) {
        return Send(OutReport(kCommandReport, command, lengthByte, params));
    }
    // An input request; `ok` tells whether the transfer succeeded.
    std::vector<uint8_t> Request(int kind, uint8_t command, bool* ok = nullptr) {
        const ReportShape& shape = config_.input[static_cast<size_t>(kind)];
        std::vector<uint8_t> r(shape.Length(), 0xEE);
        r[0] = shape.id;
        uint32_t word = shape.Length();
        if (command < 0x10) word |= uint32_t{command} << 8;
        const bool done = backend_.GetInputReport(handle_, r.data(), word);
        if (ok) *ok = done;
        return r;
    }

    bool WriteRegister(uint32_t address, uint32_t value) {
        std::vector<uint8_t> p(8);
        PutLe32(p, 0, address);
        PutLe32(p, 4, value);
        return Command(bridge_cmd::kRegisterWrite, 0x0A, p);
    }
    bool ReadRegister(uint32_t address, uint32_t& value) {
        std::vector<uint8_t> p(4);
        PutLe32(p, 0, address);
        if (!Command(bridge_cmd::kRegisterReadRequest, 0x06, p)) return false;
        bool ok = false;
        const auto r = Request(kCommandReport, bridge_cmd::kRegisterReadReply, &ok);
        value = Le32(r);
        return ok;
    }
    bool FlashSetup(uint8_t mode, uint32_t address, uint32_t length) {
        std::vector<uint8_t> a(5);
        a[0] = mode;
        PutLe32(a, 1, address);
        std::vector<uint8_t> l(4);
        PutLe32(l, 0, length);
        return Command(bridge_cmd::kFlashAccessMode, 0x07, a) &&
               Command(bridge_cmd::kFlashSetLength, 0x06, l);
    }
    // Burst write of `data` in data-report chunks; the number of reports
    // sent, or -1 on a failed transfer.
    int BurstWrite(const std::vector<uint8_t>& data) {
        const size_t chunk = config_.OutputChunk();
        int reports = 0;
        for (size_t off = 0; off < data.size(); off += chunk) {
            std::vector<uint8_t> r(config_.output[kDataReport].Length(), 0);
            r[0] = config_.output[kDataReport].id;
            const size_t n = std::min(chunk, data.size() - off);
            std::copy(data.begin() + static_cast<long>(off), data.begin() + static_cast<long>(off + n),
                      r.begin() + 4);
            if (!Send(r)) return -1;
            ++reports;
        }
        return reports;
    }
    bool BurstRead(size_t length, std::vector<uint8_t>& out) {
        const size_t chunk = config_.InputChunk();
        out.clear();
        while (out.size() < length) {
            bool ok = false;
            const auto r = Request(kDataReport, 0x11, &ok);
            if (!ok) return false;
            const size_t n = std::min(chunk, length - out.size());
            out.insert(out.end(), r.begin(), r.begin() + static_cast<long>(n));
        }
        return true;
    }
    // I2C through the IIC report: the status byte, and for a read the bytes.
    uint8_t IicWrite(uint8_t address, const std::vector<uint8_t>& data) {
        std::vector<uint8_t> p{address, static_cast<uint8_t>(data.size())};
        p.insert(p.end(), data.begin(), data.end());
        if (!Send(OutReport(kIicReport, bridge_cmd::kIicWrite,
                            static_cast<uint8_t>(0x04 + data.size()), p))) {
            return 0xEE;
        }
        bool ok = false;
        const auto r = Request(kIicReport, bridge_cmd::kIicWrite, &ok);
        return ok ? r[0] : 0xEE;
    }
    uint8_t IicRead(uint8_t address, const std::vector<uint8_t>& write, uint8_t count,
                    std::vector<uint8_t>& out) {
        std::vector<uint8_t> p{address, static_cast<uint8_t>(write.size())};
        p.insert(p.end(), write.begin(), write.end());
        p.push_back(count);
        if (!Send(OutReport(kIicReport, bridge_cmd::kIicRead,
                            static_cast<uint8_t>(0x05 + write.size()), p))) {
            return 0xEE;
        }
        bool ok = false;
        const auto r = Request(kIicReport, bridge_cmd::kIicRead, &ok);
        if (!ok) return 0xEE;
        out.assign(r.begin() + 1, r.begin() + 1 + count);
        return r[0];
    }

private:
    VirtualHidBackend& backend_;
    VirtualDeviceConfig config_;
    hid::HidHandle handle_;
};

// A backend with one device of the given settings (Virtual0_...).
inline std::unique_ptr<VirtualHidBackend> MakeBackend(
    const VideoConsoleCore::SettingsTable& settings = {}) {
    return std::make_unique<VirtualHidBackend>(ReadVirtualDeviceConfigs(settings));
}

}  // namespace vdev_test
