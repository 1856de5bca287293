// The virtual capture devices behind the HidBackend table
// (DeviceBackend=virtual): each configured device is a bridge chip with its
// SPI flash, seen as one USB device with a composite child per interface
// and one HID interface whose path is "virtual://hid/<location>": devices
// may share a serial number, never a port.
//
// With a presence file (see presence_file.h) a device is plugged in only
// while the file lists its location. The backend looks at the file at each
// enumeration, open and HID call: a device whose location left the list is
// unplugged (its handles fail from the next call on, mid-update too), one
// whose location came back is plugged in again and boots afresh from its
// flash. A device that the file keeps unplugged is not re-plugged by its
// ReplugAfterUpdateMs either.
//
// Reports travel as control transfers only (SetOutputReport and
// GetInputReport); the device has no interrupt endpoint traffic, so Read
// and Write are refused, as are feature reports.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "hid/backend/descriptor_backend.h"
#include "virtual/device/presence_file.h"
#include "virtual/device/virtual_bridge.h"
#include "virtual/device/virtual_device_config.h"
#include "virtual/device/virtual_flash.h"
#include "virtual/mcu/virtual_mcu.h"

namespace VideoConsoleCore::virtualdev {

inline constexpr const char* kHidPathPrefix = "virtual://hid/";

class VirtualHidBackend : public hid::DescriptorHidBackend {
public:
    // `presenceFile` "" = no presence file: every device starts plugged in.
    explicit VirtualHidBackend(std::vector<VirtualDeviceConfig> configs,
                               std::string presenceFile = {});
    ~VirtualHidBackend() override;
    VirtualHidBackend(const VirtualHidBackend&) = delete;
    VirtualHidBackend& operator=(const VirtualHidBackend&) = delete;

    const char* Name() const override { return "virtual"; }

    // ---- The devices, for tests and the other board models ------------
    size_t DeviceCount() const { return devices_.size(); }
    VirtualBridge& Bridge(size_t device) { return *devices_.at(device)->bridge; }
    VirtualFlash& Flash(size_t device) { return *devices_.at(device)->flash; }
    VirtualMcu& Mcu(size_t device) { return *devices_.at(device)->mcu; }
    const VirtualDeviceConfig& Config(size_t device) const { return devices_.at(device)->config; }
    // The fault plan may be changed at any time; counts start at the
    // device's creation or last replug.
    FaultPlan& Faults(size_t device) { return devices_.at(device)->config.faults; }
    std::string HidPath(size_t device) const;
    bool Present(size_t device) const;
    // Pulls the device out: handles fail, enumeration leaves it out.
    void Unplug(size_t device);
    // Plugs it in again: the bridge boots afresh from its flash, call and
    // transfer counts restart, handles from before stay dead.
    void Replug(size_t device);
    // Report transfers since the last (re)plug.
    uint32_t Transfers(size_t device) const;
    // Calls of one kind since the last (re)plug (what a planned failure's
    // count compares with).
    uint32_t Calls(size_t device, HidCall call) const;
    // A new device in the old one's place, built from the configuration it
    // was created with: factory flash, a powered-up microcontroller with its
    // factory program, no faults; handles from before stay dead.
    void Reset(size_t device);
    // Handles open on any device (a client that forgets to close shows here).
    size_t OpenHandles() const;
    // Puts the factory image back into the flash (the device as it left the
    // factory at its next replug).
    void RestoreFactoryFlash(size_t device);

    // ---- HidBackend ----------------------------------------------------
    bool EnumerateUsbDevices(std::vector<hid::UsbDeviceInfo>& devices) override;
    bool EnumerateHidInterfaces(std::vector<std::string>& paths) override;
    int UsbPortLevel(const std::string& vid, const std::string& pid,
                     const std::string& serial) override;
    int UsbPortLevelAt(const std::string& vid, const std::string& pid,
                       const std::string& location) override;
    std::string HidInterfaceLocation(const std::string& path) override;

    hid::HidHandle Open(const std::string& path) override;
    void Close(hid::HidHandle handle) override;

    bool FlushQueue(hid::HidHandle handle) override;
    bool GetAttributes(hid::HidHandle handle, hid::HiddAttributes& attributes) override;
    bool SetFeature(hid::HidHandle handle, void* buffer, uint32_t length) override;
    bool GetFeature(hid::HidHandle handle, void* buffer, uint32_t length) override;
    bool GetInputReport(hid::HidHandle handle, void* buffer, uint32_t length) override;
    bool SetOutputReport(hid::HidHandle handle, void* buffer, uint32_t length) override;
    bool GetNumInputBuffers(hid::HidHandle handle, uint32_t& count) override;
    bool SetNumInputBuffers(hid::HidHandle handle, uint32_t count) override;
    bool GetPhysicalDescriptor(hid::HidHandle handle, void* buffer, uint32_t length) override;
    bool GetManufacturerString(hid::HidHandle handle, void* buffer, uint32_t length) override;
    bool GetProductString(hid::HidHandle handle, void* buffer, uint32_t length) override;
    bool GetIndexedString(hid::HidHandle handle, uint32_t index, void* buffer,
                          uint32_t length) override;
    bool GetSerialNumberString(hid::HidHandle handle, void* buffer, uint32_t length) override;
    bool GetMsGenreDescriptor(hid::HidHandle handle, void* buffer, uint32_t length) override;
    bool GetPreparsedData(hid::HidHandle handle, hid::PreparsedData& data) override;

    bool Read(hid::HidHandle handle, void* buffer, uint32_t length, uint32_t& done) override;
    bool Write(hid::HidHandle handle, const void* buffer, uint32_t length,
               uint32_t& done) override;

    bool ReadReportDescriptor(hid::HidHandle handle, std::vector<uint8_t>& descriptor,
                              int& collectionIndex) override;

private:
    struct Device {
        VirtualDeviceConfig initial;  // as created, for Reset
        VirtualDeviceConfig config;
        std::unique_ptr<VirtualFlash> flash;
        std::unique_ptr<VirtualBridge> bridge;
        std::unique_ptr<VirtualMcu> mcu;              // on the bridge's I2C bus
        std::unique_ptr<BootloaderLine> bootRequest;  // GPIO pin 1 to the MCU
        bool present = true;
        bool onBench = true;      // plugged in by the presence file (or none)
        uint32_t generation = 0;  // bumped by each replug
        uint32_t transfers = 0;
        uint32_t calls[16] = {};  // per HidCall, for the planned failure
        // An update wrote something since the plug-in (a flash data report,
        // a bootloader command), and when it last did.
        bool flashWritten = false;
        std::chrono::steady_clock::time_point lastData{};
        uint64_t seenBootloaderCommands = 0;
    };
    struct OpenHandle {
        size_t device;
        uint32_t generation;
        uint32_t inputBuffers = 32;
    };

    static std::unique_ptr<Device> MakeDevice(const VirtualDeviceConfig& config);
    // The device behind `handle` when it is open and present, after
    // counting the call and applying a planned failure; null otherwise.
    Device* Use(hid::HidHandle handle, HidCall call, OpenHandle** open = nullptr);
    static bool PlannedFailure(Device& device, HidCall call);
    void CountTransfer(Device& device);
    // Notes a flash data report or bootloader command, and re-plugs a
    // device whose update has been quiet for ReplugAfterUpdateMs.
    void NoteDataReport(Device& device, bool write);
    void ReplugIfDue(Device& device);
    void ReplugLocked(Device& device);
    // Follows a change of the presence file: unplugs and re-plugs devices.
    void ApplyPresence();
    void Wait(hid::HidHandle handle);
    bool String(hid::HidHandle handle, HidCall call, int which, void* buffer, uint32_t length);

    mutable std::recursive_mutex mutex_;
    std::vector<std::unique_ptr<Device>> devices_;
    std::unordered_map<uintptr_t, OpenHandle> open_;
    uintptr_t nextHandle_ = 0x5600;
    std::unique_ptr<PresenceFile> presence_;
};

}  // namespace VideoConsoleCore::virtualdev
