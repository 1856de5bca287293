// The table of operations behind which each platform's HID services sit.
//
// The HID function layer (CallHidFunction), the scan and the selection reach
// the device only through a HidBackend; nothing above it calls an operating
// system's HID or device-enumeration function. Three backends implement it:
// Windows (hid.dll, SetupAPI, configuration manager, hub IOCTLs), Linux
// (hidraw and sysfs) and the virtual capture device.
//
// Each operation mirrors one HidD_/HidP_ call of Windows, with the same
// arguments and results, so that the layer above behaves identically on
// every backend. Strings are UTF-16 code units, as Windows returns them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "hid/hid_types.h"

namespace VideoConsoleCore::hid {

// One present USB device (not interface), as the scan sees it.
struct UsbDeviceInfo {
    // Windows-form instance ID: "USB\VID_xxxx&PID_xxxx\<serial>", or for an
    // interface of a composite device "USB\VID_xxxx&PID_xxxx&MI_nn\<...>".
    std::string instanceId;
    // The description the device reports on the bus; "" when unknown.
    std::string busReportedDescription;
    // Where the device is plugged: its USB port path, the bus (or host
    // controller) number, "-", then the port on each hub from the root hub
    // down, joined by "." ("1-2.4.1"). The same port gives the same text
    // after a re-plug. "" when the backend cannot tell.
    std::string location;
};

class HidBackend {
public:
    virtual ~HidBackend() = default;

    // Short name for messages: "windows", "linux-hidraw", "virtual".
    virtual const char* Name() const = 0;

    // ---- Enumeration --------------------------------------------------
    // Present USB devices and composite-device interfaces; false when the
    // platform's enumeration itself failed (an empty list is success).
    virtual bool EnumerateUsbDevices(std::vector<UsbDeviceInfo>& devices) = 0;
    // Device paths of the present HID interfaces, in enumeration order;
    // false when enumeration failed.
    virtual bool EnumerateHidInterfaces(std::vector<std::string>& paths) = 0;
    // The level of the USB port that the device with these IDs and serial
    // sits on: 3 when the port supports USB 3, 2 when it does not, -1 when
    // the device is not found. vid/pid are four hexadecimal digits.
    virtual int UsbPortLevel(const std::string& vid, const std::string& pid,
                             const std::string& serial) = 0;
    // UsbPortLevel for the device with these IDs at `location` (as in
    // UsbDeviceInfo), which tells apart devices that share a serial number;
    // -1 when there is none or the backend cannot tell (the caller then
    // asks UsbPortLevel).
    virtual int UsbPortLevelAt(const std::string& /*vid*/, const std::string& /*pid*/,
                               const std::string& /*location*/) {
        return -1;
    }
    // The location (as in UsbDeviceInfo) of the USB device that the HID
    // interface `path` belongs to; "" when unknown. The selection uses it to
    // tell apart devices that share a serial number.
    virtual std::string HidInterfaceLocation(const std::string& /*path*/) { return {}; }
    // Whether HidP_GetExtendedAttributes and HidP_InitializeReportForID can
    // be used (Windows resolves them from HID.DLL at run time).
    virtual bool ResolveRuntimeHidFunctions() = 0;

    // ---- Handles ------------------------------------------------------
    // Opens a HID interface by path without asking for read or write access
    // (sharing both); kInvalidHidHandle on failure.
    virtual HidHandle Open(const std::string& path) = 0;
    // Closes a handle from Open; an invalid handle is ignored.
    virtual void Close(HidHandle handle) = 0;
    // After Open(path) failed: what the user can do about it, when the
    // interface belongs to the USB device vid:pid and the cause is one the
    // user can put right (on Linux: no permission on the hidraw node). One
    // line ending in "\n"; "" otherwise, and on platforms where Open does
    // not fail that way.
    virtual std::string OpenFailureAdvice(const std::string& /*path*/, uint16_t /*vid*/,
                                          uint16_t /*pid*/) {
        return {};
    }

    // ---- HidD_ (true = success) ---------------------------------------
    virtual void GetHidGuid(Guid& guid) = 0;
    virtual bool FlushQueue(HidHandle handle) = 0;
    virtual bool GetAttributes(HidHandle handle, HiddAttributes& attributes) = 0;
    // Reports: buffer[0] is the report ID; length is the buffer's size.
    virtual bool SetFeature(HidHandle handle, void* buffer, uint32_t length) = 0;
    virtual bool GetFeature(HidHandle handle, void* buffer, uint32_t length) = 0;
    virtual bool GetInputReport(HidHandle handle, void* buffer, uint32_t length) = 0;
    virtual bool SetOutputReport(HidHandle handle, void* buffer, uint32_t length) = 0;
    virtual bool GetNumInputBuffers(HidHandle handle, uint32_t& count) = 0;
    virtual bool SetNumInputBuffers(HidHandle handle, uint32_t count) = 0;
    virtual bool GetPhysicalDescriptor(HidHandle handle, void* buffer, uint32_t length) = 0;
    // String getters fill `buffer` (length in bytes) with zero-terminated
    // UTF-16.
    virtual bool GetManufacturerString(HidHandle handle, void* buffer, uint32_t length) = 0;
    virtual bool GetProductString(HidHandle handle, void* buffer, uint32_t length) = 0;
    virtual bool GetIndexedString(HidHandle handle, uint32_t index, void* buffer,
                                  uint32_t length) = 0;
    virtual bool GetSerialNumberString(HidHandle handle, void* buffer, uint32_t length) = 0;
    virtual bool GetMsGenreDescriptor(HidHandle handle, void* buffer, uint32_t length) = 0;
    virtual bool GetPreparsedData(HidHandle handle, PreparsedData& data) = 0;
    virtual bool FreePreparsedData(PreparsedData data) = 0;

    // ---- ReadFile / WriteFile on the handle ----------------------------
    virtual bool Read(HidHandle handle, void* buffer, uint32_t length, uint32_t& done) = 0;
    virtual bool Write(HidHandle handle, const void* buffer, uint32_t length, uint32_t& done) = 0;

    // ---- HidP_ (HIDP_STATUS_* results) --------------------------------
    virtual NtStatus GetCaps(PreparsedData data, HidpCaps& caps) = 0;
    virtual NtStatus GetButtonCaps(int32_t type, HidpButtonCaps* caps, uint16_t& length,
                                   PreparsedData data) = 0;
    virtual NtStatus GetSpecificButtonCaps(int32_t type, Usage page, uint16_t link, Usage usage,
                                           HidpButtonCaps* caps, uint16_t& length,
                                           PreparsedData data) = 0;
    virtual NtStatus GetValueCaps(int32_t type, HidpValueCaps* caps, uint16_t& length,
                                  PreparsedData data) = 0;
    virtual NtStatus GetSpecificValueCaps(int32_t type, Usage page, uint16_t link, Usage usage,
                                          HidpValueCaps* caps, uint16_t& length,
                                          PreparsedData data) = 0;
    virtual NtStatus GetLinkCollectionNodes(HidpLinkCollectionNode* nodes, uint32_t& length,
                                            PreparsedData data) = 0;
    virtual NtStatus GetExtendedAttributes(int32_t type, uint16_t dataIndex, PreparsedData data,
                                           HidpExtendedAttributes* attributes,
                                           uint32_t& length) = 0;
    virtual NtStatus InitializeReportForID(int32_t type, uint8_t reportId, PreparsedData data,
                                           void* report, uint32_t length) = 0;
    virtual uint32_t MaxDataListLength(int32_t type, PreparsedData data) = 0;
    virtual uint32_t MaxUsageListLength(int32_t type, Usage page, PreparsedData data) = 0;
    virtual NtStatus GetData(int32_t type, HidpData* list, uint32_t& length, PreparsedData data,
                             void* report, uint32_t reportLength) = 0;
    virtual NtStatus SetData(int32_t type, HidpData* list, uint32_t& length, PreparsedData data,
                             void* report, uint32_t reportLength) = 0;
    virtual NtStatus GetUsages(int32_t type, Usage page, uint16_t link, Usage* list,
                               uint32_t& length, PreparsedData data, void* report,
                               uint32_t reportLength) = 0;
    virtual NtStatus GetUsagesEx(int32_t type, uint16_t link, UsageAndPage* list,
                                 uint32_t& length, PreparsedData data, void* report,
                                 uint32_t reportLength) = 0;
    virtual NtStatus SetUsages(int32_t type, Usage page, uint16_t link, Usage* list,
                               uint32_t& length, PreparsedData data, void* report,
                               uint32_t reportLength) = 0;
    virtual NtStatus UnsetUsages(int32_t type, Usage page, uint16_t link, Usage* list,
                                 uint32_t& length, PreparsedData data, void* report,
                                 uint32_t reportLength) = 0;
    virtual NtStatus UsageListDifference(const Usage* previous, const Usage* current,
                                         Usage* breaks, Usage* makes, uint32_t length) = 0;
    virtual NtStatus GetUsageValue(int32_t type, Usage page, uint16_t link, Usage usage,
                                   uint32_t& value, PreparsedData data, void* report,
                                   uint32_t reportLength) = 0;
    virtual NtStatus GetScaledUsageValue(int32_t type, Usage page, uint16_t link, Usage usage,
                                         int32_t& value, PreparsedData data, void* report,
                                         uint32_t reportLength) = 0;
    virtual NtStatus SetUsageValue(int32_t type, Usage page, uint16_t link, Usage usage,
                                   uint32_t value, PreparsedData data, void* report,
                                   uint32_t reportLength) = 0;
    virtual NtStatus GetUsageValueArray(int32_t type, Usage page, uint16_t link, Usage usage,
                                        void* values, uint16_t valuesLength, PreparsedData data,
                                        void* report, uint32_t reportLength) = 0;
    virtual NtStatus SetUsageValueArray(int32_t type, Usage page, uint16_t link, Usage usage,
                                        void* values, uint16_t valuesLength, PreparsedData data,
                                        void* report, uint32_t reportLength) = 0;
};

// The platform's own backend: Windows on Windows, hidraw on Linux.
std::unique_ptr<HidBackend> CreatePlatformHidBackend();

}  // namespace VideoConsoleCore::hid
