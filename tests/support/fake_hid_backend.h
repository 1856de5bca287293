// A scripted HidBackend for tests of the layers above it: it records the
// reports it is sent, answers input requests as the test says, and every
// other call with hidDResult (or success).
#pragma once

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "hid/backend/hid_backend.h"

namespace korvsdk_test {

using namespace VideoConsoleCore::hid;

class FakeHidBackend : public HidBackend {
public:
    // What the fake answers.
    bool hidDResult = true;
    std::vector<UsbDeviceInfo> usbDevices;  // what EnumerateUsbDevices lists
    HidpValueCaps specificValueCaps{};  // what GetSpecificValueCaps returns

    // Answers an input request: fills the buffer (its whole length is
    // writable). Unset: the buffer is left as it is.
    std::function<void(uint8_t* buffer, uint32_t length)> answerInput;

    // What it saw.
    std::vector<std::vector<uint8_t>> outputReports;  // every SetOutputReport, whole
    std::vector<uint32_t> inputLengths;                // every GetInputReport length

    const char* Name() const override { return "fake"; }
    bool EnumerateUsbDevices(std::vector<UsbDeviceInfo>& out) override {
        out = usbDevices;
        return hidDResult;
    }
    bool EnumerateHidInterfaces(std::vector<std::string>&) override { return hidDResult; }
    int UsbPortLevel(const std::string&, const std::string&, const std::string&) override { return 2; }
    bool ResolveRuntimeHidFunctions() override { return hidDResult; }
    HidHandle Open(const std::string&) override { return kInvalidHidHandle; }
    void Close(HidHandle) override {}

    void GetHidGuid(Guid& guid) override { guid.data1 = 0x4D1E55B2; }
    bool FlushQueue(HidHandle) override { return D("FlushQueue"); }
    bool GetAttributes(HidHandle, HiddAttributes& a) override { a.VendorID = 0xFFF0; return D("GetAttributes"); }
    bool SetFeature(HidHandle, void*, uint32_t n) override { return D("SetFeature"); }
    bool GetFeature(HidHandle, void*, uint32_t n) override { return D("GetFeature"); }
    bool GetInputReport(HidHandle, void* b, uint32_t n) override {
        inputLengths.push_back(n);
        if (answerInput && b != nullptr) answerInput(static_cast<uint8_t*>(b), n);
        return D("GetInputReport");
    }
    bool SetOutputReport(HidHandle, void* b, uint32_t n) override {
        const auto* bytes = static_cast<const uint8_t*>(b);
        outputReports.emplace_back(bytes, bytes + (b != nullptr ? n : 0));
        return D("SetOutputReport");
    }
    bool GetNumInputBuffers(HidHandle, uint32_t& count) override { count = 32; return D("GetNumInputBuffers"); }
    bool SetNumInputBuffers(HidHandle, uint32_t count) override { return D("SetNumInputBuffers"); }
    bool GetPhysicalDescriptor(HidHandle, void*, uint32_t n) override { return D("GetPhysicalDescriptor"); }
    bool GetManufacturerString(HidHandle, void* b, uint32_t n) override { return Text(b, n), D("GetManufacturerString"); }
    bool GetProductString(HidHandle, void* b, uint32_t n) override { return Text(b, n), D("GetProductString"); }
    bool GetIndexedString(HidHandle, uint32_t index, void* b, uint32_t n) override { return Text(b, n), D("GetIndexedString"); }
    bool GetSerialNumberString(HidHandle, void* b, uint32_t n) override { return Text(b, n), D("GetSerialNumberString"); }
    bool GetMsGenreDescriptor(HidHandle, void*, uint32_t n) override { return D("GetMsGenreDescriptor"); }
    bool GetPreparsedData(HidHandle, PreparsedData& data) override { data = this; return D("GetPreparsedData"); }
    bool FreePreparsedData(PreparsedData) override { return D("FreePreparsedData"); }
    bool Read(HidHandle, void*, uint32_t n, uint32_t& done) override { done = 0; return D("Read"); }
    bool Write(HidHandle, const void*, uint32_t n, uint32_t& done) override { done = n; return D("Write"); }

    NtStatus GetCaps(PreparsedData, HidpCaps& caps) override { caps.NumberOutputValueCaps = 3; return P("GetCaps"); }
    NtStatus GetButtonCaps(int32_t, HidpButtonCaps*, uint16_t& n, PreparsedData) override { return P("GetButtonCaps"); }
    NtStatus GetSpecificButtonCaps(int32_t, Usage, uint16_t, Usage, HidpButtonCaps*, uint16_t& n, PreparsedData) override { return P("GetSpecificButtonCaps"); }
    NtStatus GetValueCaps(int32_t, HidpValueCaps* caps, uint16_t& n, PreparsedData) override {
        if (n > 0) caps[0].BitSize = 8;
        n = n > 0 ? 1 : 0;
        return P("GetValueCaps");
    }
    NtStatus GetSpecificValueCaps(int32_t, Usage, uint16_t, Usage, HidpValueCaps* caps, uint16_t& n, PreparsedData) override {
        if (n > 0) caps[0] = specificValueCaps;
        n = 1;
        return kHidpStatusSuccess;
    }
    NtStatus GetLinkCollectionNodes(HidpLinkCollectionNode*, uint32_t& n, PreparsedData) override { return P("GetLinkCollectionNodes"); }
    NtStatus GetExtendedAttributes(int32_t, uint16_t index, PreparsedData, HidpExtendedAttributes*, uint32_t& n) override { return P("GetExtendedAttributes"); }
    NtStatus InitializeReportForID(int32_t, uint8_t id, PreparsedData, void* r, uint32_t n) override {
        if (r != nullptr && n > 0) { std::memset(r, 0, n); static_cast<uint8_t*>(r)[0] = id; }
        return P("InitializeReportForID");
    }
    uint32_t MaxDataListLength(int32_t, PreparsedData) override { return 3; }
    uint32_t MaxUsageListLength(int32_t, Usage, PreparsedData) override { return 3; }
    NtStatus GetData(int32_t, HidpData*, uint32_t& n, PreparsedData, void*, uint32_t) override { return P("GetData"); }
    NtStatus SetData(int32_t, HidpData*, uint32_t& n, PreparsedData, void*, uint32_t) override { return P("SetData"); }
    NtStatus GetUsages(int32_t, Usage, uint16_t, Usage*, uint32_t& n, PreparsedData, void*, uint32_t) override { return P("GetUsages"); }
    NtStatus GetUsagesEx(int32_t, uint16_t, UsageAndPage*, uint32_t& n, PreparsedData, void*, uint32_t) override { return P("GetUsagesEx"); }
    NtStatus SetUsages(int32_t, Usage, uint16_t, Usage*, uint32_t& n, PreparsedData, void*, uint32_t) override { return P("SetUsages"); }
    NtStatus UnsetUsages(int32_t, Usage, uint16_t, Usage*, uint32_t& n, PreparsedData, void*, uint32_t) override { return P("UnsetUsages"); }
    NtStatus UsageListDifference(const Usage*, const Usage*, Usage*, Usage*, uint32_t n) override { return P("UsageListDifference"); }
    NtStatus GetUsageValue(int32_t, Usage, uint16_t, Usage, uint32_t& v, PreparsedData, void*, uint32_t) override { v = 0x1234; return P("GetUsageValue"); }
    NtStatus GetScaledUsageValue(int32_t, Usage, uint16_t, Usage, int32_t& v, PreparsedData, void*, uint32_t) override { v = -5; return P("GetScaledUsageValue"); }
    NtStatus SetUsageValue(int32_t, Usage, uint16_t, Usage, uint32_t v, PreparsedData, void*, uint32_t) override { return P("SetUsageValue"); }
    NtStatus GetUsageValueArray(int32_t, Usage, uint16_t, Usage, void* values, uint16_t n, PreparsedData, void*, uint32_t) override {
        if (n > 0) static_cast<uint8_t*>(values)[0] = 0xAB;
        return P("GetUsageValueArray");
    }
    NtStatus SetUsageValueArray(int32_t, Usage, uint16_t, Usage, void* values, uint16_t n, PreparsedData, void*, uint32_t) override {
        return P("SetUsageValueArray");
    }

private:
    bool D(const char*) const { return hidDResult; }
    static NtStatus P(const char*) { return kHidpStatusSuccess; }
    static void Text(void* buffer, uint32_t length) {
        if (length >= 4) { auto* units = static_cast<uint16_t*>(buffer); units[0] = 'S'; units[1] = 0; }
    }
};

}  // namespace korvsdk_test
