// HidP_ answers of a backend that has only the raw report descriptor, seen
// through the numbered HID function layer as the library uses it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "hid/backend/descriptor_backend.h"
#include "hid/call_hid_function.h"

using namespace VideoConsoleCore::hid;

namespace {

// Two top-level collections on the vendor page: the first shaped like the
// capture device's (63-byte output reports 1 and 2, input report 1), the
// second one signed value with a physical range.
const std::vector<uint8_t> kDescriptor = {
    0x06, 0x00, 0xFF,        // Usage Page (vendor 0xFF00)
    0x09, 0x01,              // Usage (1)
    0xA1, 0x01,              // Collection (Application)
    0x15, 0x00,              //   Logical Minimum (0)
    0x26, 0xFF, 0x00,        //   Logical Maximum (255)
    0x75, 0x08,              //   Report Size (8)
    0x95, 0x3F,              //   Report Count (63)
    0x85, 0x01, 0x09, 0x02, 0x91, 0x02,  // Report 1: Usage 2, Output (Data,Var,Abs)
    0x85, 0x02, 0x09, 0x03, 0x91, 0x02,  // Report 2: Usage 3, Output
    0x85, 0x01, 0x09, 0x04, 0x81, 0x02,  // Report 1: Usage 4, Input
    0xC0,                    // End Collection
    0x09, 0x05,              // Usage (5)
    0xA1, 0x01,              // Collection (Application)
    0x85, 0x03,              //   Report ID (3)
    0x15, 0x9C,              //   Logical Minimum (-100)
    0x25, 0x64,              //   Logical Maximum (100)
    0x35, 0x00,              //   Physical Minimum (0)
    0x46, 0xE8, 0x03,        //   Physical Maximum (1000)
    0x75, 0x08, 0x95, 0x01,  //   Report Size (8), Report Count (1)
    0x09, 0x06, 0x81, 0x02,  //   Usage 6, Input
    0xC0,
};

// A backend whose every handle reads the same descriptor; the handle's
// value is the collection it stands for.
class DescriptorOnlyBackend : public DescriptorHidBackend {
public:
    std::vector<uint8_t> descriptor = kDescriptor;
    bool readable = true;

    bool ReadReportDescriptor(HidHandle handle, std::vector<uint8_t>& out,
                              int& collection) override {
        out = descriptor;
        collection = static_cast<int>(reinterpret_cast<intptr_t>(handle));
        return readable;
    }
    const char* Name() const override { return "descriptor-only"; }
    bool EnumerateUsbDevices(std::vector<UsbDeviceInfo>&) override { return true; }
    bool EnumerateHidInterfaces(std::vector<std::string>&) override { return true; }
    int UsbPortLevel(const std::string&, const std::string&, const std::string&) override { return -1; }
    HidHandle Open(const std::string&) override { return kInvalidHidHandle; }
    void Close(HidHandle) override {}
    bool FlushQueue(HidHandle) override { return true; }
    bool GetAttributes(HidHandle, HiddAttributes&) override { return false; }
    bool SetFeature(HidHandle, void*, uint32_t) override { return false; }
    bool GetFeature(HidHandle, void*, uint32_t) override { return false; }
    bool GetInputReport(HidHandle, void*, uint32_t) override { return false; }
    bool SetOutputReport(HidHandle, void*, uint32_t) override { return false; }
    bool GetNumInputBuffers(HidHandle, uint32_t&) override { return false; }
    bool SetNumInputBuffers(HidHandle, uint32_t) override { return false; }
    bool GetPhysicalDescriptor(HidHandle, void*, uint32_t) override { return false; }
    bool GetManufacturerString(HidHandle, void*, uint32_t) override { return false; }
    bool GetProductString(HidHandle, void*, uint32_t) override { return false; }
    bool GetIndexedString(HidHandle, uint32_t, void*, uint32_t) override { return false; }
    bool GetSerialNumberString(HidHandle, void*, uint32_t) override { return false; }
    bool GetMsGenreDescriptor(HidHandle, void*, uint32_t) override { return false; }
    bool Read(HidHandle, void*, uint32_t, uint32_t&) override { return false; }
    bool Write(HidHandle, const void*, uint32_t, uint32_t&) override { return false; }
};

HidHandle CollectionHandle(int index) { return reinterpret_cast<HidHandle>(intptr_t{index}); }

class DescriptorBackendTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(backend.GetPreparsedData(CollectionHandle(0), data)); }
    void TearDown() override {
        if (data != nullptr) backend.FreePreparsedData(data);
    }
    // Runs an operation and keeps its result buffer for the test to read.
    int Call(uint32_t operation, HidCallParameters& p) {
        p.preparsedData = data;
        const int ran = CallHidFunction(backend, operation, &p, &status);
        owned.push_back(p.resultBuffer);
        return ran;
    }
    ~DescriptorBackendTest() override {
        for (void* buffer : owned) std::free(buffer);
    }

    DescriptorOnlyBackend backend;
    PreparsedData data = nullptr;
    HidCallStatus status;
    std::vector<void*> owned;
};

}  // namespace

TEST_F(DescriptorBackendTest, CapsCountTheReportIdByte) {
    HidCallParameters p;
    ASSERT_EQ(Call(24, p), 1);
    ASSERT_EQ(status.failed, 0u);
    const auto* caps = static_cast<HidpCaps*>(p.resultBuffer);
    EXPECT_EQ(caps->UsagePage, 0xFF00);
    EXPECT_EQ(caps->Usage_, 0x0001);
    EXPECT_EQ(caps->OutputReportByteLength, 64);
    EXPECT_EQ(caps->InputReportByteLength, 64);
    EXPECT_EQ(caps->FeatureReportByteLength, 0);
    EXPECT_EQ(caps->NumberOutputValueCaps, 2);
    EXPECT_EQ(caps->NumberInputValueCaps, 1);
    EXPECT_EQ(caps->NumberLinkCollectionNodes, 1);
}

TEST_F(DescriptorBackendTest, ValueCapsComeInWindowsLayout) {
    HidCallParameters p;
    p.reportType = kOutputReport;
    p.listLength = 2;
    ASSERT_EQ(Call(35, p), 1);
    ASSERT_EQ(status.failed, 0u);
    ASSERT_EQ(p.listLength, 2u);
    const auto* caps = static_cast<HidpValueCaps*>(p.resultBuffer);
    EXPECT_EQ(caps[0].ReportID, 1);
    EXPECT_EQ(caps[0].NotRange.Usage_, 2);
    EXPECT_EQ(caps[1].ReportID, 2);
    EXPECT_EQ(caps[1].NotRange.Usage_, 3);
    EXPECT_EQ(caps[1].BitSize, 8);
    EXPECT_EQ(caps[1].ReportCount, 63);
    EXPECT_EQ(caps[1].LogicalMax, 255);
    EXPECT_EQ(caps[1].UsagePage, 0xFF00);

    // Asking for one record where there are two fills one and says so.
    HidCallParameters small;
    small.reportType = kOutputReport;
    small.listLength = 1;
    ASSERT_EQ(Call(35, small), 1);
    EXPECT_EQ(status.hidpStatus, kHidpStatusBufferTooSmall);
    EXPECT_EQ(small.listLength, 1u);
}

TEST_F(DescriptorBackendTest, ReportRoundTripThroughValueArrays) {
    uint8_t report[64];
    HidCallParameters init;
    init.reportType = kOutputReport;
    init.reportId = 2;
    init.dataBuffer = report;
    init.dataLength = sizeof report;
    ASSERT_EQ(Call(36, init), 1);
    ASSERT_EQ(status.failed, 0u);
    EXPECT_EQ(report[0], 2);

    const uint32_t values[] = {0x11, 0x22, 0x1FF};  // the last is masked to 8 bits
    HidCallParameters set;
    set.reportType = kOutputReport;
    set.usagePage = 0xFF00;
    set.usage = 3;
    set.values = values;
    set.valueCount = 3;
    set.dataBuffer = report;
    set.dataLength = sizeof report;
    ASSERT_EQ(Call(44, set), 1);
    ASSERT_EQ(status.failed, 0u) << std::hex << status.hidpStatus;
    EXPECT_EQ(report[1], 0x11);
    EXPECT_EQ(report[2], 0x22);
    EXPECT_EQ(report[3], 0xFF);
    EXPECT_EQ(report[4], 0x00);

    HidCallParameters get = set;
    get.values = nullptr;
    ASSERT_EQ(Call(34, get), 1);
    ASSERT_EQ(status.failed, 0u);
    ASSERT_EQ(get.listLength, 63u);
    EXPECT_EQ(static_cast<uint8_t*>(get.resultBuffer)[1], 0x22);
}

TEST_F(DescriptorBackendTest, WrongReportIdOrLengthIsRefused) {
    uint8_t report[64] = {1};  // report 1 does not carry usage 3
    const uint32_t values[] = {5};
    HidCallParameters set;
    set.reportType = kOutputReport;
    set.usagePage = 0xFF00;
    set.usage = 3;
    set.values = values;
    set.valueCount = 1;
    set.dataBuffer = report;
    set.dataLength = sizeof report;
    ASSERT_EQ(Call(44, set), 1);
    EXPECT_EQ(status.hidpStatus, kHidpStatusIncompatibleReportId);

    report[0] = 2;
    set.dataLength = 63;
    ASSERT_EQ(Call(44, set), 1);
    EXPECT_EQ(status.hidpStatus, kHidpStatusInvalidReportLength);
}

TEST_F(DescriptorBackendTest, ScaledValueUsesThePhysicalRange) {
    PreparsedData second = nullptr;
    ASSERT_TRUE(backend.GetPreparsedData(CollectionHandle(1), second));
    uint8_t report[2] = {3, static_cast<uint8_t>(-50)};
    int32_t scaled = 0;
    EXPECT_EQ(backend.GetScaledUsageValue(kInputReport, 0xFF00, 0, 6, scaled, second, report, 2),
              kHidpStatusSuccess);
    EXPECT_EQ(scaled, 250);
    report[1] = static_cast<uint8_t>(120);  // outside the logical range
    EXPECT_EQ(backend.GetScaledUsageValue(kInputReport, 0xFF00, 0, 6, scaled, second, report, 2),
              kHidpStatusValueOutOfRange);
    EXPECT_TRUE(backend.FreePreparsedData(second));
}

TEST_F(DescriptorBackendTest, PreparsedDataIsCheckedAndFreedOnce) {
    PreparsedData missing = nullptr;
    EXPECT_FALSE(backend.GetPreparsedData(CollectionHandle(2), missing));  // no third collection
    backend.readable = false;
    EXPECT_FALSE(backend.GetPreparsedData(CollectionHandle(0), missing));
    backend.readable = true;
    backend.descriptor = {0x06, 0x00};  // truncated item
    EXPECT_FALSE(backend.GetPreparsedData(CollectionHandle(0), missing));

    HidpCaps caps{};
    int notOurs = 0;
    EXPECT_EQ(backend.GetCaps(&notOurs, caps), kHidpStatusInvalidPreparsedData);
    EXPECT_EQ(backend.GetCaps(nullptr, caps), kHidpStatusInvalidPreparsedData);
    EXPECT_FALSE(backend.FreePreparsedData(nullptr));

    uint16_t length = 1;
    HidpValueCaps one{};
    EXPECT_EQ(backend.GetValueCaps(7, &one, length, data), kHidpStatusInvalidReportType);
}

TEST_F(DescriptorBackendTest, ExtendedAttributesAndUnmodelledButtons) {
    HidpValueCaps caps{};
    uint16_t length = 1;
    ASSERT_EQ(backend.GetValueCaps(kInputReport, &caps, length, data), kHidpStatusSuccess);
    HidpExtendedAttributes attributes{};
    uint32_t size = sizeof attributes;
    EXPECT_EQ(backend.GetExtendedAttributes(kInputReport, caps.NotRange.DataIndex, data,
                                            &attributes, size),
              kHidpStatusSuccess);
    EXPECT_EQ(attributes.NumGlobalUnknowns, 0);
    EXPECT_EQ(backend.GetExtendedAttributes(kInputReport, 999, data, &attributes, size),
              kHidpStatusDataIndexNotFound);

    uint32_t count = 4;
    Usage usages[4];
    EXPECT_EQ(backend.GetUsages(kInputReport, 0xFF00, 0, usages, count, data, nullptr, 0),
              kHidpStatusNotImplemented);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(backend.MaxUsageListLength(kInputReport, 0, data), 0u);
}

TEST(UsageListDifference, BreaksAndMakes) {
    DescriptorOnlyBackend backend;
    const Usage previous[] = {4, 5, 6, 0};
    const Usage current[] = {5, 7, 0, 0};
    Usage breaks[4], makes[4];
    ASSERT_EQ(backend.UsageListDifference(previous, current, breaks, makes, 4), kHidpStatusSuccess);
    EXPECT_EQ(std::vector<Usage>(breaks, breaks + 4), (std::vector<Usage>{4, 6, 0, 0}));
    EXPECT_EQ(std::vector<Usage>(makes, makes + 4), (std::vector<Usage>{7, 0, 0, 0}));
    EXPECT_EQ(backend.UsageListDifference(nullptr, current, breaks, makes, 4), kHidpStatusNull);
}
