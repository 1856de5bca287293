#include "virtual/device/virtual_hid_backend.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <thread>

#include "platform/platform.h"
#include "virtual/device/report_descriptor_builder.h"

namespace VideoConsoleCore::virtualdev {

namespace {

std::string Hex4(uint16_t value) {
    char text[8];
    std::snprintf(text, sizeof text, "%04X", value);
    return text;
}

bool SameText(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        const auto x = static_cast<unsigned char>(a[i]);
        const auto y = static_cast<unsigned char>(b[i]);
        if (std::toupper(x) != std::toupper(y)) return false;
    }
    return true;
}

bool SameHex(const std::string& text, uint16_t value) {
    if (text.empty() || text.size() > 4) return false;
    uint32_t parsed = 0;
    for (const char c : text) {
        int digit;
        if (c >= '0' && c <= '9') digit = c - '0';
        else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
        else return false;
        parsed = parsed * 16 + static_cast<uint32_t>(digit);
    }
    return parsed == value;
}

// Zero-terminated UTF-16 of an ASCII/Latin-1 text into a byte buffer of
// `length` bytes; false when not even the terminator fits. A long text is
// cut, as the system's string calls do.
bool PutUtf16(const std::string& text, void* buffer, uint32_t length) {
    if (!buffer || length < 2) return false;
    const size_t units = std::min<size_t>(text.size(), length / 2 - 1);
    auto* out = static_cast<uint8_t*>(buffer);
    for (size_t i = 0; i < units; ++i) {
        out[2 * i] = static_cast<uint8_t>(text[i]);
        out[2 * i + 1] = 0;
    }
    out[2 * units] = out[2 * units + 1] = 0;
    return true;
}

// The bridge's GPIO pin 1 drives the microcontroller's boot request input.
class McuBootRequest : public BootloaderLine {
public:
    explicit McuBootRequest(VirtualMcu& mcu) : mcu_(mcu) {}
    void SetLevel(bool high) override {
        if (high) mcu_.EnterBootloaderLine();
    }

private:
    VirtualMcu& mcu_;
};

}  // namespace

std::unique_ptr<VirtualHidBackend::Device> VirtualHidBackend::MakeDevice(
    const VirtualDeviceConfig& config) {
    auto device = std::make_unique<Device>();
    device->initial = config;
    device->config = config;
    device->flash = std::make_unique<VirtualFlash>(FlashGeometryFor(device->config.flashIndex));
    device->flash->WriteFactoryImage(device->config);
    device->bridge = std::make_unique<VirtualBridge>(device->config, *device->flash);
    device->mcu = std::make_unique<VirtualMcu>(device->config.mcu);
    device->mcu->Faults() = device->config.mcuFaults;
    device->bootRequest = std::make_unique<McuBootRequest>(*device->mcu);
    device->bridge->AttachI2cTarget(device->mcu->Address(), device->mcu.get());
    device->bridge->SetBootloaderLine(device->bootRequest.get());
    return device;
}

VirtualHidBackend::VirtualHidBackend(std::vector<VirtualDeviceConfig> configs,
                                     std::string presenceFile) {
    for (const auto& config : configs) devices_.push_back(MakeDevice(config));
    if (!presenceFile.empty()) {
        presence_ = std::make_unique<PresenceFile>(std::move(presenceFile));
        ApplyPresence();
    }
}

void VirtualHidBackend::ApplyPresence() {
    if (!presence_ || !presence_->Refresh()) return;
    for (auto& device : devices_) {
        const bool listed = presence_->Plugged(device->config.location);
        if (device->onBench == listed) continue;
        device->onBench = listed;
        if (listed) {
            ReplugLocked(*device);
        } else {
            device->present = false;
        }
    }
}

void VirtualHidBackend::Reset(size_t index) {
    std::lock_guard lock(mutex_);
    std::unique_ptr<Device>& device = devices_.at(index);
    const uint32_t generation = device->generation + 1;
    const bool onBench = device->onBench;
    device = MakeDevice(device->initial);
    device->generation = generation;
    device->onBench = onBench;
    device->present = onBench;
}

uint32_t VirtualHidBackend::Calls(size_t device, HidCall call) const {
    std::lock_guard lock(mutex_);
    const auto index = static_cast<size_t>(call);
    const Device& d = *devices_.at(device);
    return index < std::size(d.calls) ? d.calls[index] : 0;
}

size_t VirtualHidBackend::OpenHandles() const {
    std::lock_guard lock(mutex_);
    return open_.size();
}

VirtualHidBackend::~VirtualHidBackend() = default;

std::string VirtualHidBackend::HidPath(size_t device) const {
    return kHidPathPrefix + devices_.at(device)->config.location;
}

bool VirtualHidBackend::Present(size_t device) const {
    std::lock_guard lock(mutex_);
    return devices_.at(device)->present;
}

void VirtualHidBackend::Unplug(size_t device) {
    std::lock_guard lock(mutex_);
    devices_.at(device)->present = false;
}

void VirtualHidBackend::RestoreFactoryFlash(size_t device) {
    std::lock_guard lock(mutex_);
    Device& d = *devices_.at(device);
    d.flash->WriteFactoryImage(d.config);
}

void VirtualHidBackend::Replug(size_t device) {
    std::lock_guard lock(mutex_);
    ReplugLocked(*devices_.at(device));
}

void VirtualHidBackend::NoteDataReport(Device& device, bool write) {
    device.lastData = std::chrono::steady_clock::now();
    if (write) device.flashWritten = true;
}

void VirtualHidBackend::ReplugIfDue(Device& device) {
    const uint32_t after = device.config.replugAfterUpdateMs;
    if (after == 0 || !device.flashWritten || !device.onBench) return;
    if (std::chrono::steady_clock::now() - device.lastData >= std::chrono::milliseconds(after))
        ReplugLocked(device);
}

void VirtualHidBackend::ReplugLocked(Device& d) {
    d.present = true;
    d.flashWritten = false;
    ++d.generation;
    d.transfers = 0;
    std::fill(std::begin(d.calls), std::end(d.calls), 0u);
    d.bridge->Config().faults = d.config.faults;
    d.bridge->Boot();
    d.mcu->PowerCycle();
}

uint32_t VirtualHidBackend::Transfers(size_t device) const {
    std::lock_guard lock(mutex_);
    return devices_.at(device)->transfers;
}

bool VirtualHidBackend::PlannedFailure(Device& device, HidCall call) {
    const auto index = static_cast<size_t>(call);
    if (index >= std::size(device.calls)) return false;
    ++device.calls[index];
    const FaultPlan& plan = device.config.faults;
    return plan.failCall == call && plan.failAt != 0 && device.calls[index] == plan.failAt;
}

VirtualHidBackend::Device* VirtualHidBackend::Use(hid::HidHandle handle, HidCall call,
                                                  OpenHandle** open) {
    const auto it = open_.find(reinterpret_cast<uintptr_t>(handle));
    if (it == open_.end()) return nullptr;
    ApplyPresence();
    Device& device = *devices_[it->second.device];
    ReplugIfDue(device);
    if (!device.present || device.generation != it->second.generation) return nullptr;
    if (call != HidCall::kNone && PlannedFailure(device, call)) return nullptr;
    if (open) *open = &it->second;
    // The bridge sees the fault plan as it stands now.
    device.bridge->Config().faults = device.config.faults;
    return &device;
}

void VirtualHidBackend::CountTransfer(Device& device) {
    ++device.transfers;
    const uint32_t limit = device.config.faults.unplugAfterTransfers;
    if (limit != 0 && device.transfers >= limit) device.present = false;
    if (device.transfers == device.config.faults.mcuPowerCutAfterTransfers) device.mcu->PowerCycle();
    if (device.transfers == device.config.faults.crashAfterTransfers) std::abort();
    if (device.transfers == device.config.faults.hangAfterTransfers)
        for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

void VirtualHidBackend::Wait(hid::HidHandle handle) {
    uint32_t latency = 0;
    {
        std::lock_guard lock(mutex_);
        const auto it = open_.find(reinterpret_cast<uintptr_t>(handle));
        if (it != open_.end()) latency = devices_[it->second.device]->config.latencyMs;
    }
    // A transfer takes `latency` ms, never less: the benchmark holds the
    // library's time against the sum of these. The library's own device
    // wait gives that without keeping a core busy for the whole time, which
    // matters when many devices (each in a process of its own) transfer at
    // once; see platform::SleepMilliseconds.
    if (latency != 0) platform::SleepMilliseconds(latency);
}

bool VirtualHidBackend::EnumerateUsbDevices(std::vector<hid::UsbDeviceInfo>& out) {
    std::lock_guard lock(mutex_);
    out.clear();
    ApplyPresence();
    for (auto& device : devices_) {
        ReplugIfDue(*device);
        if (PlannedFailure(*device, HidCall::kEnumerateUsbDevices)) return false;
    }
    for (auto& device : devices_) {
        if (!device->present) continue;
        const VirtualDeviceConfig& c = device->config;
        const std::string ids = "USB\\VID_" + Hex4(c.vid) + "&PID_" + Hex4(c.pid);
        out.push_back({ids + "\\" + c.serial, c.description, c.location});
        // The composite device's interfaces: video, then the HID interface.
        out.push_back({ids + "&MI_00\\" + c.serial + "&0000", "USB Video Device", c.location});
        out.push_back({ids + "&MI_04\\" + c.serial + "&0004", "USB Input Device", c.location});
    }
    return true;
}

bool VirtualHidBackend::EnumerateHidInterfaces(std::vector<std::string>& paths) {
    std::lock_guard lock(mutex_);
    paths.clear();
    ApplyPresence();
    for (auto& device : devices_) {
        ReplugIfDue(*device);
        if (PlannedFailure(*device, HidCall::kEnumerateHidInterfaces)) return false;
    }
    for (auto& device : devices_) {
        if (device->present) paths.push_back(kHidPathPrefix + device->config.location);
    }
    return true;
}

int VirtualHidBackend::UsbPortLevel(const std::string& vid, const std::string& pid,
                                    const std::string& serial) {
    std::lock_guard lock(mutex_);
    for (auto& device : devices_) {
        const VirtualDeviceConfig& c = device->config;
        if (device->present && SameHex(vid, c.vid) && SameHex(pid, c.pid) &&
            SameText(serial, c.serial)) {
            return c.portLevel;
        }
    }
    return -1;
}

int VirtualHidBackend::UsbPortLevelAt(const std::string& vid, const std::string& pid,
                                      const std::string& location) {
    std::lock_guard lock(mutex_);
    for (auto& device : devices_) {
        const VirtualDeviceConfig& c = device->config;
        if (device->present && SameHex(vid, c.vid) && SameHex(pid, c.pid) && c.location == location)
            return c.portLevel;
    }
    return -1;
}

std::string VirtualHidBackend::HidInterfaceLocation(const std::string& path) {
    std::lock_guard lock(mutex_);
    for (const auto& device : devices_) {
        if (path == kHidPathPrefix + device->config.location) return device->config.location;
    }
    return {};
}

hid::HidHandle VirtualHidBackend::Open(const std::string& path) {
    std::lock_guard lock(mutex_);
    ApplyPresence();
    for (size_t i = 0; i < devices_.size(); ++i) {
        Device& device = *devices_[i];
        if (!device.present || path != kHidPathPrefix + device.config.location) continue;
        if (PlannedFailure(device, HidCall::kOpen)) return hid::kInvalidHidHandle;
        const uintptr_t handle = nextHandle_;
        nextHandle_ += 4;
        open_[handle] = OpenHandle{i, device.generation};
        return reinterpret_cast<hid::HidHandle>(handle);
    }
    return hid::kInvalidHidHandle;
}

void VirtualHidBackend::Close(hid::HidHandle handle) {
    std::lock_guard lock(mutex_);
    open_.erase(reinterpret_cast<uintptr_t>(handle));
}

bool VirtualHidBackend::FlushQueue(hid::HidHandle handle) {
    std::lock_guard lock(mutex_);
    return Use(handle, HidCall::kNone) != nullptr;
}

bool VirtualHidBackend::GetAttributes(hid::HidHandle handle, hid::HiddAttributes& attributes) {
    std::lock_guard lock(mutex_);
    Device* device = Use(handle, HidCall::kGetAttributes);
    if (!device) return false;
    attributes.Size = sizeof(hid::HiddAttributes);
    attributes.VendorID = device->config.vid;
    attributes.ProductID = device->config.pid;
    attributes.VersionNumber = device->config.versionNumber;
    return true;
}

bool VirtualHidBackend::SetFeature(hid::HidHandle, void*, uint32_t) { return false; }
bool VirtualHidBackend::GetFeature(hid::HidHandle, void*, uint32_t) { return false; }

bool VirtualHidBackend::SetOutputReport(hid::HidHandle handle, void* buffer, uint32_t length) {
    Wait(handle);
    std::lock_guard lock(mutex_);
    Device* device = Use(handle, HidCall::kSetOutputReport);
    if (!device || !buffer) return false;
    const bool ok = device->bridge->OnOutputReport(static_cast<const uint8_t*>(buffer), length);
    if (static_cast<const uint8_t*>(buffer)[0] == device->config.output[kDataReport].id)
        NoteDataReport(*device, true);
    if (device->mcu->BootloaderCommands() != device->seenBootloaderCommands) {
        device->seenBootloaderCommands = device->mcu->BootloaderCommands();
        NoteDataReport(*device, true);
    }
    CountTransfer(*device);
    return ok;
}

bool VirtualHidBackend::GetInputReport(hid::HidHandle handle, void* buffer, uint32_t length) {
    Wait(handle);
    std::lock_guard lock(mutex_);
    Device* device = Use(handle, HidCall::kGetInputReport);
    if (!device || !buffer || length == 0) return false;
    const bool isData = static_cast<const uint8_t*>(buffer)[0] == device->config.input[kDataReport].id;
    const bool ok = device->bridge->OnInputRequest(static_cast<uint8_t*>(buffer), length);
    if (isData) NoteDataReport(*device, false);
    CountTransfer(*device);
    return ok;
}

bool VirtualHidBackend::GetNumInputBuffers(hid::HidHandle handle, uint32_t& count) {
    std::lock_guard lock(mutex_);
    OpenHandle* open = nullptr;
    if (!Use(handle, HidCall::kNone, &open)) return false;
    count = open->inputBuffers;
    return true;
}

bool VirtualHidBackend::SetNumInputBuffers(hid::HidHandle handle, uint32_t count) {
    std::lock_guard lock(mutex_);
    OpenHandle* open = nullptr;
    if (!Use(handle, HidCall::kNone, &open) || count < 2 || count > 512) return false;
    open->inputBuffers = count;
    return true;
}

bool VirtualHidBackend::GetPhysicalDescriptor(hid::HidHandle, void*, uint32_t) { return false; }
bool VirtualHidBackend::GetMsGenreDescriptor(hid::HidHandle, void*, uint32_t) { return false; }

bool VirtualHidBackend::String(hid::HidHandle handle, HidCall call, int which, void* buffer,
                               uint32_t length) {
    std::lock_guard lock(mutex_);
    Device* device = Use(handle, call);
    if (!device) return false;
    const VirtualDeviceConfig& c = device->config;
    switch (which) {
    case 1: return PutUtf16(c.manufacturer, buffer, length);
    case 2: return PutUtf16(c.description, buffer, length);
    case 3: return PutUtf16(c.serial, buffer, length);
    default: return false;
    }
}

bool VirtualHidBackend::GetManufacturerString(hid::HidHandle handle, void* buffer,
                                              uint32_t length) {
    return String(handle, HidCall::kNone, 1, buffer, length);
}

bool VirtualHidBackend::GetProductString(hid::HidHandle handle, void* buffer, uint32_t length) {
    return String(handle, HidCall::kGetProductString, 2, buffer, length);
}

bool VirtualHidBackend::GetIndexedString(hid::HidHandle handle, uint32_t index, void* buffer,
                                         uint32_t length) {
    // String descriptor indices of the device: 1 manufacturer, 2 product,
    // 3 serial number.
    if (index < 1 || index > 3) return false;
    return String(handle, HidCall::kNone, static_cast<int>(index), buffer, length);
}

bool VirtualHidBackend::GetSerialNumberString(hid::HidHandle handle, void* buffer,
                                              uint32_t length) {
    return String(handle, HidCall::kGetSerialNumberString, 3, buffer, length);
}

bool VirtualHidBackend::GetPreparsedData(hid::HidHandle handle, hid::PreparsedData& data) {
    {
        std::lock_guard lock(mutex_);
        if (!Use(handle, HidCall::kGetPreparsedData)) return false;
    }
    return DescriptorHidBackend::GetPreparsedData(handle, data);
}

bool VirtualHidBackend::Read(hid::HidHandle, void*, uint32_t, uint32_t& done) {
    done = 0;
    return false;
}

bool VirtualHidBackend::Write(hid::HidHandle, const void*, uint32_t, uint32_t& done) {
    done = 0;
    return false;
}

bool VirtualHidBackend::ReadReportDescriptor(hid::HidHandle handle,
                                             std::vector<uint8_t>& descriptor,
                                             int& collectionIndex) {
    std::lock_guard lock(mutex_);
    Device* device = Use(handle, HidCall::kNone);
    if (!device) return false;
    descriptor = BuildReportDescriptor(device->config);
    collectionIndex = 0;
    return true;
}

}  // namespace VideoConsoleCore::virtualdev
