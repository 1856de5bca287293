// The Windows backend against the system's own hid.dll, without the capture
// device: what the Wine sessions (with the stand-in hid.dll) cannot show,
// the failures of paths that name nothing, of handles that are no handles,
// of functions the system lacks and of preparsed data without a header.
#include "hid/backend/windows/windows_hid_backend.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdint>

namespace {

using namespace VideoConsoleCore::hid;

TEST(WindowsBackendOpen, FailsForPathsThatNameNothing) {
    WindowsHidBackend backend;
    EXPECT_EQ(backend.Open(""), kInvalidHidHandle);
    EXPECT_EQ(backend.Open("\\\\?\\hid#vid_f00d&pid_beef#0&0000&0&0#"
                           "{4d1e55b2-f16f-11cf-88cb-001111000030}"),
              kInvalidHidHandle);
    EXPECT_EQ(backend.Open("C:\\no-such-folder-7781\\device"), kInvalidHidHandle);
}

// Every HidD_ request on a handle that is no handle fails and leaves the
// caller's outputs alone.
TEST(WindowsBackendHidD, FailsCleanlyOnInvalidHandles) {
    WindowsHidBackend backend;
    for (const HidHandle handle : {kInvalidHidHandle, static_cast<HidHandle>(nullptr)}) {
        SCOPED_TRACE(handle == nullptr ? "null handle" : "invalid handle");
        HiddAttributes attributes{};
        attributes.Size = sizeof(attributes);
        attributes.VendorID = 0x1234;
        EXPECT_FALSE(backend.GetAttributes(handle, attributes));
        EXPECT_EQ(attributes.VendorID, 0x1234);

        PreparsedData data = reinterpret_cast<PreparsedData>(static_cast<intptr_t>(0x5150));
        EXPECT_FALSE(backend.GetPreparsedData(handle, data));
        EXPECT_EQ(data, reinterpret_cast<PreparsedData>(static_cast<intptr_t>(0x5150)));

        uint32_t count = 77;
        EXPECT_FALSE(backend.GetNumInputBuffers(handle, count));
        EXPECT_EQ(count, 77u);
        EXPECT_FALSE(backend.SetNumInputBuffers(handle, 8));
        EXPECT_FALSE(backend.FlushQueue(handle));

        unsigned char report[65] = {0x00, 0x5A};
        EXPECT_FALSE(backend.SetFeature(handle, report, sizeof(report)));
        EXPECT_FALSE(backend.GetFeature(handle, report, sizeof(report)));
        EXPECT_FALSE(backend.GetInputReport(handle, report, sizeof(report)));
        EXPECT_FALSE(backend.SetOutputReport(handle, report, sizeof(report)));

        wchar_t text[128] = {};
        EXPECT_FALSE(backend.GetManufacturerString(handle, text, sizeof(text)));
        EXPECT_FALSE(backend.GetProductString(handle, text, sizeof(text)));
        EXPECT_FALSE(backend.GetSerialNumberString(handle, text, sizeof(text)));
        EXPECT_FALSE(backend.GetIndexedString(handle, 1, text, sizeof(text)));
        EXPECT_FALSE(backend.GetPhysicalDescriptor(handle, text, sizeof(text)));
        // (HidD_GetMsGenreDescriptor is left out: Wine 8 has only a stub
        // that aborts the process.)

        uint32_t done = 5;
        EXPECT_FALSE(backend.Read(handle, report, sizeof(report), done));
        EXPECT_EQ(done, 0u);
    }
    backend.Close(kInvalidHidHandle);
    backend.Close(nullptr);
    EXPECT_FALSE(backend.FreePreparsedData(nullptr));
}

// ---- Run-time functions --------------------------------------------------------

TEST(WindowsBackendRuntime, MissingFunctionsAnswerNotImplemented) {
    // kernel32 loads but has neither function; the other module does not exist.
    for (const wchar_t* module : {L"kernel32.dll", L"no-such-hid-7781.dll"}) {
        WindowsHidBackend backend(module);
        EXPECT_FALSE(backend.ResolveRuntimeHidFunctions());
        alignas(8) unsigned char preparsed[256] = {};
        char report[16] = {};
        EXPECT_EQ(backend.InitializeReportForID(kFeatureReport, 1, preparsed, report,
                                                sizeof(report)),
                  kHidpStatusNotImplemented);
        alignas(8) unsigned char attributes[64] = {};
        uint32_t length = sizeof(attributes);
        EXPECT_EQ(backend.GetExtendedAttributes(kInputReport, 0, preparsed,
                                                reinterpret_cast<HidpExtendedAttributes*>(attributes),
                                                length),
                  kHidpStatusNotImplemented);
    }
}

// ---- HidP_ without a device ---------------------------------------------------

// Wine's hid.dll checks the preparsed data's header before anything else:
// a zero-filled block (no header) and a null pointer are both refused.
class WindowsBackendHidP : public ::testing::Test {
protected:
    alignas(16) unsigned char zeroes_[4096] = {};
    WindowsHidBackend backend_;
};

TEST_F(WindowsBackendHidP, RefusesPreparsedDataWithoutHeader) {
    for (PreparsedData data : {static_cast<PreparsedData>(zeroes_), static_cast<PreparsedData>(nullptr)}) {
        SCOPED_TRACE(data == nullptr ? "null" : "zero-filled");
        HidpCaps caps{};
        EXPECT_EQ(backend_.GetCaps(data, caps), kHidpStatusInvalidPreparsedData);

        HidpButtonCaps buttons[4] = {};
        uint16_t buttonCount = 4;
        EXPECT_EQ(backend_.GetButtonCaps(kInputReport, buttons, buttonCount, data),
                  kHidpStatusInvalidPreparsedData);
        HidpValueCaps values[4] = {};
        uint16_t valueCount = 4;
        EXPECT_EQ(backend_.GetSpecificValueCaps(kFeatureReport, 0xFF00, 0, 1, values, valueCount,
                                                data),
                  kHidpStatusInvalidPreparsedData);

        char report[16] = {};
        uint32_t value = 0;
        EXPECT_EQ(backend_.GetUsageValue(kInputReport, 1, 0, 0x30, value, data, report,
                                         sizeof(report)),
                  kHidpStatusInvalidPreparsedData);
        EXPECT_EQ(backend_.SetUsageValue(kOutputReport, 1, 0, 0x30, 5, data, report,
                                         sizeof(report)),
                  kHidpStatusInvalidPreparsedData);
        Usage usages[4] = {};
        uint32_t usageCount = 4;
        EXPECT_EQ(backend_.GetUsages(kInputReport, 9, 0, usages, usageCount, data, report,
                                     sizeof(report)),
                  kHidpStatusInvalidPreparsedData);
        EXPECT_EQ(backend_.MaxDataListLength(kInputReport, data), 0u);
        EXPECT_EQ(backend_.MaxUsageListLength(kInputReport, 9, data), 0u);
    }
}

}  // namespace
