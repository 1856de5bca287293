// The Windows HID backend: each operation is the hid.dll call of the same
// name, enumeration is SetupAPI and the configuration manager, and the port
// level comes from the USB hub driver's IOCTLs (usb_port_map.h).
#pragma once

#include "hid/backend/hid_backend.h"

#include <chrono>
#include <map>
#include <mutex>
#include <string>

namespace VideoConsoleCore::hid {

class WindowsHidBackend : public HidBackend {
public:
    // `runtimeHidModule` is the DLL that ResolveRuntimeHidFunctions loads
    // from the system folder: "HID.DLL" in the library; a test names another
    // module to see the behaviour when the two functions are missing.
    explicit WindowsHidBackend(std::wstring runtimeHidModule = L"HID.DLL");

    const char* Name() const override { return "windows"; }

    bool EnumerateUsbDevices(std::vector<UsbDeviceInfo>& devices) override;
    bool EnumerateHidInterfaces(std::vector<std::string>& paths) override;
    int UsbPortLevel(const std::string& vid, const std::string& pid,
                     const std::string& serial) override;
    // The HID interface's device node, up its parents to the USB device
    // (the first "USB\" node that is no interface of a composite device),
    // that device's driver key, and the port the hub walk found it on.
    std::string HidInterfaceLocation(const std::string& path) override;
    // The port at `location` in the hub walk; the IDs are not compared
    // there (the walk knows driver keys only), a port holds one device.
    int UsbPortLevelAt(const std::string& vid, const std::string& pid,
                       const std::string& location) override;
    bool ResolveRuntimeHidFunctions() override;

    HidHandle Open(const std::string& path) override;
    void Close(HidHandle handle) override;

    void GetHidGuid(Guid& guid) override;
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
    bool GetPreparsedData(HidHandle handle, PreparsedData& data) override;
    bool FreePreparsedData(PreparsedData data) override;

    bool Read(HidHandle handle, void* buffer, uint32_t length, uint32_t& done) override;
    bool Write(HidHandle handle, const void* buffer, uint32_t length, uint32_t& done) override;

    NtStatus GetCaps(PreparsedData data, HidpCaps& caps) override;
    NtStatus GetButtonCaps(int32_t type, HidpButtonCaps* caps, uint16_t& length,
                           PreparsedData data) override;
    NtStatus GetSpecificButtonCaps(int32_t type, Usage page, uint16_t link, Usage usage,
                                   HidpButtonCaps* caps, uint16_t& length,
                                   PreparsedData data) override;
    NtStatus GetValueCaps(int32_t type, HidpValueCaps* caps, uint16_t& length,
                          PreparsedData data) override;
    NtStatus GetSpecificValueCaps(int32_t type, Usage page, uint16_t link, Usage usage,
                                  HidpValueCaps* caps, uint16_t& length,
                                  PreparsedData data) override;
    NtStatus GetLinkCollectionNodes(HidpLinkCollectionNode* nodes, uint32_t& length,
                                    PreparsedData data) override;
    NtStatus GetExtendedAttributes(int32_t type, uint16_t dataIndex, PreparsedData data,
                                   HidpExtendedAttributes* attributes,
                                   uint32_t& length) override;
    NtStatus InitializeReportForID(int32_t type, uint8_t reportId, PreparsedData data,
                                   void* report, uint32_t length) override;
    uint32_t MaxDataListLength(int32_t type, PreparsedData data) override;
    uint32_t MaxUsageListLength(int32_t type, Usage page, PreparsedData data) override;
    NtStatus GetData(int32_t type, HidpData* list, uint32_t& length, PreparsedData data,
                     void* report, uint32_t reportLength) override;
    NtStatus SetData(int32_t type, HidpData* list, uint32_t& length, PreparsedData data,
                     void* report, uint32_t reportLength) override;
    NtStatus GetUsages(int32_t type, Usage page, uint16_t link, Usage* list, uint32_t& length,
                       PreparsedData data, void* report, uint32_t reportLength) override;
    NtStatus GetUsagesEx(int32_t type, uint16_t link, UsageAndPage* list, uint32_t& length,
                         PreparsedData data, void* report, uint32_t reportLength) override;
    NtStatus SetUsages(int32_t type, Usage page, uint16_t link, Usage* list, uint32_t& length,
                       PreparsedData data, void* report, uint32_t reportLength) override;
    NtStatus UnsetUsages(int32_t type, Usage page, uint16_t link, Usage* list, uint32_t& length,
                         PreparsedData data, void* report, uint32_t reportLength) override;
    NtStatus UsageListDifference(const Usage* previous, const Usage* current, Usage* breaks,
                                 Usage* makes, uint32_t length) override;
    NtStatus GetUsageValue(int32_t type, Usage page, uint16_t link, Usage usage, uint32_t& value,
                           PreparsedData data, void* report, uint32_t reportLength) override;
    NtStatus GetScaledUsageValue(int32_t type, Usage page, uint16_t link, Usage usage,
                                 int32_t& value, PreparsedData data, void* report,
                                 uint32_t reportLength) override;
    NtStatus SetUsageValue(int32_t type, Usage page, uint16_t link, Usage usage, uint32_t value,
                           PreparsedData data, void* report, uint32_t reportLength) override;
    NtStatus GetUsageValueArray(int32_t type, Usage page, uint16_t link, Usage usage,
                                void* values, uint16_t valuesLength, PreparsedData data,
                                void* report, uint32_t reportLength) override;
    NtStatus SetUsageValueArray(int32_t type, Usage page, uint16_t link, Usage usage,
                                void* values, uint16_t valuesLength, PreparsedData data,
                                void* report, uint32_t reportLength) override;

private:
    // HidP_GetExtendedAttributes and HidP_InitializeReportForID as found by
    // GetProcAddress (null when missing), kept untyped here so that this
    // header needs no Windows header; the .cpp casts them to hidpi.h's
    // exact signatures.
    using RawFunction = void (*)();
    void ResolveOnce();

    std::wstring runtimeHidModule_;
    std::once_flag resolveOnce_;
    RawFunction getExtendedAttributes_ = nullptr;
    RawFunction initializeReportForId_ = nullptr;

    // The locations of the present HID interfaces (upper-cased path ->
    // location), made in one pass (one hub walk) when a path is asked for
    // that is not there or the table is older than a second: a selection
    // asks for each interface in turn.
    std::mutex locationMutex_;
    std::chrono::steady_clock::time_point locationsMade_{};
    std::map<std::wstring, std::string> hidLocations_;
};

}  // namespace VideoConsoleCore::hid
