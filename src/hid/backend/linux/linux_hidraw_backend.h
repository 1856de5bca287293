// The Linux HID backend: hidraw device nodes for the reports, sysfs for
// enumeration, the USB strings and the port.
//
// Device paths are the hidraw nodes, "<dev>/hidrawN". An interface whose
// report descriptor has several top-level collections gets one path per
// collection, as on Windows: the node itself for the first and
// "<dev>/hidrawN&colNN" (NN = 1-based number, two hex digits) for the
// others. All paths of a node open the same node; the suffix only tells
// ReadReportDescriptor which collection the handle stands for.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "hid/backend/descriptor_backend.h"

namespace VideoConsoleCore::hid {

class LinuxHidrawBackend : public DescriptorHidBackend {
public:
    // How long Read waits for an input report before it gives up.
    static constexpr std::chrono::milliseconds kDefaultReadTimeout{1000};

    explicit LinuxHidrawBackend(std::string sysRoot = "/sys", std::string devRoot = "/dev",
                                std::chrono::milliseconds readTimeout = kDefaultReadTimeout);
    ~LinuxHidrawBackend() override;
    LinuxHidrawBackend(const LinuxHidrawBackend&) = delete;
    LinuxHidrawBackend& operator=(const LinuxHidrawBackend&) = delete;

    const char* Name() const override { return "linux-hidraw"; }

    bool EnumerateUsbDevices(std::vector<UsbDeviceInfo>& devices) override;
    bool EnumerateHidInterfaces(std::vector<std::string>& paths) override;
    int UsbPortLevel(const std::string& vid, const std::string& pid,
                     const std::string& serial) override;
    int UsbPortLevelAt(const std::string& vid, const std::string& pid,
                       const std::string& location) override;
    std::string HidInterfaceLocation(const std::string& path) override;

    HidHandle Open(const std::string& path) override;
    void Close(HidHandle handle) override;
    std::string OpenFailureAdvice(const std::string& path, uint16_t vid, uint16_t pid) override;

    bool FlushQueue(HidHandle handle) override;
    bool GetAttributes(HidHandle handle, HiddAttributes& attributes) override;
    bool SetFeature(HidHandle handle, void* buffer, uint32_t length) override;
    bool GetFeature(HidHandle handle, void* buffer, uint32_t length) override;
    bool GetInputReport(HidHandle handle, void* buffer, uint32_t length) override;
    bool SetOutputReport(HidHandle handle, void* buffer, uint32_t length) override;
    bool GetNumInputBuffers(HidHandle handle, uint32_t& count) override;
    bool SetNumInputBuffers(HidHandle handle, uint32_t count) override;
    bool GetPhysicalDescriptor(HidHandle handle, void* buffer, uint32_t length) override;
    bool GetManufacturerString(HidHandle handle, void* buffer, uint32_t length) override;
    bool GetProductString(HidHandle handle, void* buffer, uint32_t length) override;
    bool GetIndexedString(HidHandle handle, uint32_t index, void* buffer,
                          uint32_t length) override;
    bool GetSerialNumberString(HidHandle handle, void* buffer, uint32_t length) override;
    bool GetMsGenreDescriptor(HidHandle handle, void* buffer, uint32_t length) override;

    bool Read(HidHandle handle, void* buffer, uint32_t length, uint32_t& done) override;
    bool Write(HidHandle handle, const void* buffer, uint32_t length, uint32_t& done) override;

    bool ReadReportDescriptor(HidHandle handle, std::vector<uint8_t>& descriptor,
                              int& collectionIndex) override;

private:
    struct OpenNode;

    std::shared_ptr<OpenNode> Find(HidHandle handle) const;
    bool UsbString(HidHandle handle, const char* attribute, void* buffer, uint32_t length);

    std::string sysRoot_;
    std::string devRoot_;
    std::chrono::milliseconds readTimeout_;

    // Every open handle, so that a stale or foreign handle is refused
    // instead of followed, and a Close racing a report call cannot free the
    // record under it (the call holds its own reference).
    mutable std::mutex mutex_;
    std::unordered_map<HidHandle, std::shared_ptr<OpenNode>> open_;
};

}  // namespace VideoConsoleCore::hid
