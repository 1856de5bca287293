// The numbered HID function layer over a scripted backend: which call each
// operation number makes, how the status record is filled, what the layer
// allocates, and the packing of value arrays.
#include <gtest/gtest.h>

#include <cstdlib>

#include "hid/call_hid_function.h"
#include "support/fake_hid_backend.h"

using namespace VideoConsoleCore::hid;
using korvsdk_test::FakeHidBackend;

namespace {

class HidLayerTest : public ::testing::Test {
protected:
    void TearDown() override {
        std::free(params.resultBuffer);
        std::free(params.resultBuffer2);
    }
    int Call(uint32_t operation) {
        status.failed = 0xDEAD;  // must be cleared by every call
        return CallHidFunction(backend, operation, &params, &status);
    }

    FakeHidBackend backend;
    HidCallParameters params;
    HidCallStatus status;
};

}  // namespace

TEST_F(HidLayerTest, OutOfRangeAndUnassignedOperationsAreRefused) {
    for (uint32_t operation : {0u, 2u, 3u, 4u, 45u, 49u, 52u, 53u, 0xFFFFFFFFu}) {
        EXPECT_EQ(Call(operation), 0) << operation;
        EXPECT_EQ(status.failed, 0u) << operation;
    }
    EXPECT_TRUE(backend.calls.empty());
}

TEST_F(HidLayerTest, NullRecordsAreRefused) {
    EXPECT_EQ(CallHidFunction(backend, 10, &params, nullptr), 0);
    status.failed = 1;
    EXPECT_EQ(CallHidFunction(backend, 10, nullptr, &status), 0);
    EXPECT_EQ(status.failed, 0u);
    EXPECT_TRUE(backend.calls.empty());
}

TEST_F(HidLayerTest, AliasesRunTheSameCall) {
    const std::pair<uint32_t, uint32_t> aliases[] = {{22, 31}, {23, 32}, {39, 42}, {41, 43}, {46, 47}};
    for (const auto& [first, second] : aliases) {
        backend.calls.clear();
        ASSERT_EQ(Call(first), 1);
        std::free(params.resultBuffer);
        params.resultBuffer = nullptr;
        const auto firstCalls = backend.calls;
        backend.calls.clear();
        ASSERT_EQ(Call(second), 1);
        std::free(params.resultBuffer);
        params.resultBuffer = nullptr;
        EXPECT_EQ(backend.calls, firstCalls) << first << "/" << second;
    }
}

TEST_F(HidLayerTest, HidDResultsSetTheFirstStatusWord) {
    uint8_t report[64] = {};
    params.dataBuffer = report;
    params.dataLength = sizeof report;
    ASSERT_EQ(Call(10), 1);
    EXPECT_EQ(status.failed, 0u);
    EXPECT_EQ(backend.calls.back(), "SetOutputReport");
    EXPECT_EQ(backend.lastLength, sizeof report);

    backend.hidDResult = false;
    ASSERT_EQ(Call(9), 1);
    EXPECT_EQ(status.failed, 1u);
    EXPECT_EQ(backend.calls.back(), "GetInputReport");
}

TEST_F(HidLayerTest, FailingReadStillRunsAndReportsFailure) {
    backend.hidDResult = false;
    uint8_t buffer[8];
    params.dataBuffer = buffer;
    params.dataLength = sizeof buffer;
    EXPECT_EQ(Call(19), 1);
    EXPECT_EQ(status.failed, 1u);

    backend.hidDResult = true;
    backend.readBytes = 5;
    EXPECT_EQ(Call(19), 1);
    EXPECT_EQ(status.failed, 0u);
    EXPECT_EQ(params.listLength, 5u);
}

TEST_F(HidLayerTest, HidPResultsSetBothStatusWords) {
    ASSERT_EQ(Call(24), 1);
    EXPECT_EQ(status.hidpStatus, kHidpStatusSuccess);
    EXPECT_EQ(status.failed, 0u);
    ASSERT_NE(params.resultBuffer, nullptr);
    EXPECT_EQ(static_cast<HidpCaps*>(params.resultBuffer)->NumberOutputValueCaps, 3);
    std::free(params.resultBuffer);
    params.resultBuffer = nullptr;

    backend.hidPResult = kHidpStatusIncompatibleReportId;
    params.value = 7;
    ASSERT_EQ(Call(41), 1);
    EXPECT_EQ(status.hidpStatus, kHidpStatusIncompatibleReportId);
    EXPECT_EQ(status.failed, 1u);
    EXPECT_EQ(backend.lastValue, 7u);
}

TEST_F(HidLayerTest, AllocatingOperationsHandTheBufferToTheCaller) {
    ASSERT_EQ(Call(1), 1);
    ASSERT_NE(params.resultBuffer, nullptr);
    EXPECT_EQ(static_cast<Guid*>(params.resultBuffer)->data1, 0x4D1E55B2u);
    std::free(params.resultBuffer);
    params.resultBuffer = nullptr;

    ASSERT_EQ(Call(6), 1);
    ASSERT_NE(params.resultBuffer, nullptr);
    EXPECT_EQ(static_cast<HiddAttributes*>(params.resultBuffer)->VendorID, 0xFFF0);
    EXPECT_EQ(static_cast<HiddAttributes*>(params.resultBuffer)->Size, sizeof(HiddAttributes));
    std::free(params.resultBuffer);
    params.resultBuffer = nullptr;

    // A failing string getter keeps its buffer with the caller.
    backend.hidDResult = false;
    params.stringIndex = 4;
    ASSERT_EQ(Call(16), 1);
    EXPECT_EQ(status.failed, 1u);
    EXPECT_NE(params.resultBuffer, nullptr);
    EXPECT_EQ(params.listLength, kHidStringBufferBytes);
    EXPECT_EQ(backend.lastValue, 4u);
}

TEST_F(HidLayerTest, UsageListsAreSizedByTheMaximum) {
    backend.maxListLength = 9;
    ASSERT_EQ(Call(22), 1);
    EXPECT_EQ(backend.calls, (std::vector<std::string>{"MaxUsageListLength", "GetUsages"}));
    EXPECT_EQ(backend.lastLength, 9u);
    std::free(params.resultBuffer);
    params.resultBuffer = nullptr;

    backend.calls.clear();
    ASSERT_EQ(Call(25), 1);
    EXPECT_EQ(backend.calls, (std::vector<std::string>{"MaxDataListLength", "GetData"}));
    EXPECT_EQ(backend.lastLength, 9u);

    ASSERT_EQ(Call(38), 1);
    EXPECT_EQ(params.listLength, 9u);
}

TEST_F(HidLayerTest, CapabilityListsUseTheCallersCount) {
    params.listLength = 4;
    ASSERT_EQ(Call(35), 1);
    EXPECT_EQ(backend.lastCapsLength, 4);
    EXPECT_EQ(params.listLength, 1u) << "the count comes back as the backend set it";
    EXPECT_EQ(static_cast<HidpValueCaps*>(params.resultBuffer)->BitSize, 8);
}

TEST_F(HidLayerTest, ValueArraysAreSizedFromTheValueCapability) {
    backend.specificValueCaps.BitSize = 12;
    backend.specificValueCaps.ReportCount = 3;  // 36 bits: 5 bytes
    ASSERT_EQ(Call(34), 1);
    EXPECT_EQ(params.listLength, 5u);
    EXPECT_EQ(backend.lastLength, 5u);
    EXPECT_EQ(static_cast<uint8_t*>(params.resultBuffer)[0], 0xAB);
    EXPECT_EQ(status.failed, 0u);
}

TEST_F(HidLayerTest, ValueArrayWithoutCapabilityFails) {
    backend.haveSpecificValueCaps = false;
    const uint32_t values[] = {1, 2};
    params.values = values;
    params.valueCount = 2;
    EXPECT_EQ(Call(44), 1);
    EXPECT_EQ(status.failed, 1u);
    EXPECT_EQ(status.hidpStatus, kHidpStatusUsageNotFound);
    EXPECT_EQ(params.resultBuffer, nullptr);
}

TEST_F(HidLayerTest, SetValueArrayPacksBeforeWriting) {
    backend.specificValueCaps.BitSize = 4;
    backend.specificValueCaps.ReportCount = 4;
    const uint32_t values[] = {0x1, 0x2, 0x3, 0x4, 0x5};
    params.values = values;
    params.valueCount = 5;
    ASSERT_EQ(Call(44), 1);
    EXPECT_EQ(backend.lastArray, (std::vector<uint8_t>{0x21, 0x43}));
    EXPECT_EQ(params.listLength, 2u);
}

TEST(PackUsageValues, FiveNibblesIntoFourSlots) {
    const uint32_t values[] = {0xA, 0xB, 0xC, 0xD, 0xE};
    uint32_t size = 0;
    uint8_t* packed = PackUsageValues(values, 5, 4, 4, &size);
    ASSERT_NE(packed, nullptr);
    ASSERT_EQ(size, 2u);
    EXPECT_EQ(packed[0], 0xBA);
    EXPECT_EQ(packed[1], 0xDC);
    std::free(packed);
}

TEST(PackUsageValues, FieldsCrossByteBoundariesAndAreMasked) {
    // Three 12-bit fields: 0xFFF masks 0x1ABC to 0xABC.
    const uint32_t values[] = {0x1ABC, 0x123, 0x456};
    uint32_t size = 0;
    uint8_t* packed = PackUsageValues(values, 3, 12, 3, &size);
    ASSERT_NE(packed, nullptr);
    ASSERT_EQ(size, 5u);  // 36 bits
    const uint8_t expected[] = {0xBC, 0x3A, 0x12, 0x56, 0x04};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(packed[i], expected[i]) << i;
    std::free(packed);
}

TEST(PackUsageValues, WideAndOddSizes) {
    uint32_t size = 0;
    const uint32_t full[] = {0xFFFFFFFF, 0x80000001};
    uint8_t* packed = PackUsageValues(full, 2, 32, 2, &size);
    ASSERT_EQ(size, 8u);
    EXPECT_EQ(packed[3], 0xFF);
    EXPECT_EQ(packed[4], 0x01);
    EXPECT_EQ(packed[7], 0x80);
    std::free(packed);

    // Fewer values than slots leave the rest zero; 1-bit fields.
    const uint32_t bits[] = {1, 0, 1};
    packed = PackUsageValues(bits, 3, 1, 10, &size);
    ASSERT_EQ(size, 2u);
    EXPECT_EQ(packed[0], 0x05);
    EXPECT_EQ(packed[1], 0x00);
    std::free(packed);

    // No values at all.
    packed = PackUsageValues(nullptr, 4, 8, 2, &size);
    ASSERT_NE(packed, nullptr);
    EXPECT_EQ(size, 2u);
    EXPECT_EQ(packed[0] | packed[1], 0);
    std::free(packed);
}
