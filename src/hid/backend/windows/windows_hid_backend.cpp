// hid.dll behind the HidBackend table: each operation calls the function
// of the system folder's hid.dll (system_functions.h). One the system lacks
// fails as a failed call would: HidD_ false with ERROR_PROC_NOT_FOUND,
// HidP_ HIDP_STATUS_NOT_IMPLEMENTED, a list length 0. Records cross by
// reinterpret_cast: hid_types.h lays them out as hidsdi.h / hidpi.h do,
// which the static asserts below hold to. Counts the interface passes as uint32_t& cross
// through a local ULONG: on Windows ULONG is `unsigned long`, a different
// type from uint32_t (`unsigned int`) even at the same size.
#include "hid/backend/windows/windows_hid_backend.h"

#include "hid/backend/windows/system_functions.h"
#include "hid/backend/windows/win_util.h"

#include <cstddef>
#include <type_traits>

namespace VideoConsoleCore::hid {

namespace {

// ---- hid_types.h against the mingw-w64 records ---------------------------
template <typename Ours, typename Theirs>
constexpr bool kSameShape = sizeof(Ours) == sizeof(Theirs) && alignof(Ours) == alignof(Theirs);

static_assert(kSameShape<Guid, GUID>);
static_assert(offsetof(Guid, data4) == offsetof(GUID, Data4));

static_assert(kSameShape<HiddAttributes, HIDD_ATTRIBUTES>);
static_assert(offsetof(HiddAttributes, VendorID) == offsetof(HIDD_ATTRIBUTES, VendorID));
static_assert(offsetof(HiddAttributes, ProductID) == offsetof(HIDD_ATTRIBUTES, ProductID));
static_assert(offsetof(HiddAttributes, VersionNumber) ==
              offsetof(HIDD_ATTRIBUTES, VersionNumber));

static_assert(kSameShape<HidpCaps, HIDP_CAPS>);
static_assert(offsetof(HidpCaps, UsagePage) == offsetof(HIDP_CAPS, UsagePage));
static_assert(offsetof(HidpCaps, InputReportByteLength) ==
              offsetof(HIDP_CAPS, InputReportByteLength));
static_assert(offsetof(HidpCaps, FeatureReportByteLength) ==
              offsetof(HIDP_CAPS, FeatureReportByteLength));
static_assert(offsetof(HidpCaps, NumberLinkCollectionNodes) ==
              offsetof(HIDP_CAPS, NumberLinkCollectionNodes));
static_assert(offsetof(HidpCaps, NumberFeatureDataIndices) ==
              offsetof(HIDP_CAPS, NumberFeatureDataIndices));

static_assert(kSameShape<HidpButtonCaps, HIDP_BUTTON_CAPS>);
static_assert(offsetof(HidpButtonCaps, ReportID) == offsetof(HIDP_BUTTON_CAPS, ReportID));
static_assert(offsetof(HidpButtonCaps, LinkCollection) ==
              offsetof(HIDP_BUTTON_CAPS, LinkCollection));
static_assert(offsetof(HidpButtonCaps, IsRange) == offsetof(HIDP_BUTTON_CAPS, IsRange));
static_assert(offsetof(HidpButtonCaps, IsAbsolute) == offsetof(HIDP_BUTTON_CAPS, IsAbsolute));
static_assert(offsetof(HidpButtonCaps, Range) == offsetof(HIDP_BUTTON_CAPS, Range));
static_assert(offsetof(HidpButtonCaps, NotRange.DataIndex) ==
              offsetof(HIDP_BUTTON_CAPS, NotRange.DataIndex));

static_assert(kSameShape<HidpValueCaps, HIDP_VALUE_CAPS>);
static_assert(offsetof(HidpValueCaps, HasNull) == offsetof(HIDP_VALUE_CAPS, HasNull));
static_assert(offsetof(HidpValueCaps, BitSize) == offsetof(HIDP_VALUE_CAPS, BitSize));
static_assert(offsetof(HidpValueCaps, ReportCount) == offsetof(HIDP_VALUE_CAPS, ReportCount));
static_assert(offsetof(HidpValueCaps, UnitsExp) == offsetof(HIDP_VALUE_CAPS, UnitsExp));
static_assert(offsetof(HidpValueCaps, LogicalMin) == offsetof(HIDP_VALUE_CAPS, LogicalMin));
static_assert(offsetof(HidpValueCaps, PhysicalMax) == offsetof(HIDP_VALUE_CAPS, PhysicalMax));
static_assert(offsetof(HidpValueCaps, Range) == offsetof(HIDP_VALUE_CAPS, Range));
static_assert(offsetof(HidpValueCaps, Range.DataIndexMax) ==
              offsetof(HIDP_VALUE_CAPS, Range.DataIndexMax));

static_assert(kSameShape<HidpLinkCollectionNode, HIDP_LINK_COLLECTION_NODE>);
static_assert(offsetof(HidpLinkCollectionNode, FirstChild) ==
              offsetof(HIDP_LINK_COLLECTION_NODE, FirstChild));
static_assert(offsetof(HidpLinkCollectionNode, UserContext) ==
              offsetof(HIDP_LINK_COLLECTION_NODE, UserContext));

static_assert(kSameShape<HidpData, HIDP_DATA>);
static_assert(offsetof(HidpData, RawValue) == offsetof(HIDP_DATA, RawValue));

static_assert(kSameShape<UsageAndPage, USAGE_AND_PAGE>);
static_assert(offsetof(UsageAndPage, UsagePage) == offsetof(USAGE_AND_PAGE, UsagePage));

static_assert(kSameShape<HidpExtendedAttributes, HIDP_EXTENDED_ATTRIBUTES>);
static_assert(offsetof(HidpExtendedAttributes, GlobalUnknowns) ==
              offsetof(HIDP_EXTENDED_ATTRIBUTES, GlobalUnknowns));
static_assert(offsetof(HidpExtendedAttributes, Data) == offsetof(HIDP_EXTENDED_ATTRIBUTES, Data));

static_assert(std::is_same_v<Usage, USAGE>);
static_assert(sizeof(ULONG) == sizeof(uint32_t) && sizeof(LONG) == sizeof(int32_t));
static_assert(int{kInputReport} == int{HidP_Input} && int{kOutputReport} == int{HidP_Output} &&
              int{kFeatureReport} == int{HidP_Feature});
static_assert(kHidpStatusSuccess == static_cast<NtStatus>(HIDP_STATUS_SUCCESS));
static_assert(kHidpStatusNotImplemented == static_cast<NtStatus>(HIDP_STATUS_NOT_IMPLEMENTED));

using GetExtendedAttributesFn = decltype(&HidP_GetExtendedAttributes);
using InitializeReportForIdFn = decltype(&HidP_InitializeReportForID);

HANDLE H(HidHandle handle) { return static_cast<HANDLE>(handle); }
PHIDP_PREPARSED_DATA P(PreparsedData data) { return static_cast<PHIDP_PREPARSED_DATA>(data); }
HIDP_REPORT_TYPE T(int32_t type) { return static_cast<HIDP_REPORT_TYPE>(type); }
PCHAR R(void* report) { return static_cast<PCHAR>(report); }
NtStatus S(NTSTATUS status) { return static_cast<NtStatus>(status); }

const win::SystemFunctions& Hid() { return win::System(); }

template <typename Function, typename... Args>
bool CallD(Function function, Args... args) {
    if (function == nullptr) {
        SetLastError(ERROR_PROC_NOT_FOUND);
        return false;
    }
    return function(args...) != FALSE;
}

template <typename Function, typename... Args>
NtStatus CallP(Function function, Args... args) {
    if (function == nullptr) return kHidpStatusNotImplemented;
    return S(function(args...));
}

}  // namespace

WindowsHidBackend::WindowsHidBackend(std::wstring runtimeHidModule)
    : runtimeHidModule_(std::move(runtimeHidModule)) {}

// ---- Run-time functions ---------------------------------------------------

// The two functions are looked up on their own, in the module the backend
// was made with (hid.dll of the system folder in the library): where they
// are missing the two operations answer HIDP_STATUS_NOT_IMPLEMENTED. A
// module that has them stays loaded for the process's life.
void WindowsHidBackend::ResolveOnce() {
    std::call_once(resolveOnce_, [this] {
        HMODULE module = win::LoadSystemLibrary(runtimeHidModule_.c_str());
        if (module == nullptr) return;
        getExtendedAttributes_ =
            reinterpret_cast<RawFunction>(GetProcAddress(module, "HidP_GetExtendedAttributes"));
        initializeReportForId_ =
            reinterpret_cast<RawFunction>(GetProcAddress(module, "HidP_InitializeReportForID"));
        if (getExtendedAttributes_ == nullptr && initializeReportForId_ == nullptr) {
            FreeLibrary(module);
        }
    });
}

bool WindowsHidBackend::ResolveRuntimeHidFunctions() {
    ResolveOnce();
    return getExtendedAttributes_ != nullptr && initializeReportForId_ != nullptr;
}

// ---- Handles ----------------------------------------------------------------

// Desired access 0: the handle can make HidD_ control requests (feature,
// input and output reports over the control pipe, attributes, strings,
// preparsed data) but not ReadFile / WriteFile. Asking for no access lets
// the open succeed even while another program holds the interface, and the
// device's protocol needs nothing more.
HidHandle WindowsHidBackend::Open(const std::string& path) {
    const std::wstring wide = win::Utf8ToWide(path);
    if (wide.empty()) return kInvalidHidHandle;
    HANDLE handle = CreateFileW(wide.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_EXISTING, 0, nullptr);
    if (handle == INVALID_HANDLE_VALUE || handle == nullptr) return kInvalidHidHandle;
    return handle;
}

void WindowsHidBackend::Close(HidHandle handle) {
    if (handle == kInvalidHidHandle || handle == nullptr) return;
    CloseHandle(H(handle));
}

// ---- HidD_ ------------------------------------------------------------------

void WindowsHidBackend::GetHidGuid(Guid& guid) {
    if (Hid().HidD_GetHidGuid == nullptr) {
        guid = Guid{};
        return;
    }
    Hid().HidD_GetHidGuid(reinterpret_cast<LPGUID>(&guid));
}

bool WindowsHidBackend::FlushQueue(HidHandle handle) {
    return CallD(Hid().HidD_FlushQueue, H(handle));
}

bool WindowsHidBackend::GetAttributes(HidHandle handle, HiddAttributes& attributes) {
    return CallD(Hid().HidD_GetAttributes, H(handle),
                 reinterpret_cast<PHIDD_ATTRIBUTES>(&attributes));
}

bool WindowsHidBackend::SetFeature(HidHandle handle, void* buffer, uint32_t length) {
    return CallD(Hid().HidD_SetFeature, H(handle), buffer, length);
}

bool WindowsHidBackend::GetFeature(HidHandle handle, void* buffer, uint32_t length) {
    return CallD(Hid().HidD_GetFeature, H(handle), buffer, length);
}

bool WindowsHidBackend::GetInputReport(HidHandle handle, void* buffer, uint32_t length) {
    return CallD(Hid().HidD_GetInputReport, H(handle), buffer, length);
}

bool WindowsHidBackend::SetOutputReport(HidHandle handle, void* buffer, uint32_t length) {
    return CallD(Hid().HidD_SetOutputReport, H(handle), buffer, length);
}

bool WindowsHidBackend::GetNumInputBuffers(HidHandle handle, uint32_t& count) {
    ULONG buffers = 0;
    if (!CallD(Hid().HidD_GetNumInputBuffers, H(handle), &buffers)) return false;
    count = buffers;
    return true;
}

bool WindowsHidBackend::SetNumInputBuffers(HidHandle handle, uint32_t count) {
    return CallD(Hid().HidD_SetNumInputBuffers, H(handle), count);
}

bool WindowsHidBackend::GetPhysicalDescriptor(HidHandle handle, void* buffer, uint32_t length) {
    return CallD(Hid().HidD_GetPhysicalDescriptor, H(handle), buffer, length);
}

bool WindowsHidBackend::GetManufacturerString(HidHandle handle, void* buffer, uint32_t length) {
    return CallD(Hid().HidD_GetManufacturerString, H(handle), buffer, length);
}

bool WindowsHidBackend::GetProductString(HidHandle handle, void* buffer, uint32_t length) {
    return CallD(Hid().HidD_GetProductString, H(handle), buffer, length);
}

bool WindowsHidBackend::GetIndexedString(HidHandle handle, uint32_t index, void* buffer,
                                         uint32_t length) {
    return CallD(Hid().HidD_GetIndexedString, H(handle), index, buffer, length);
}

bool WindowsHidBackend::GetSerialNumberString(HidHandle handle, void* buffer, uint32_t length) {
    return CallD(Hid().HidD_GetSerialNumberString, H(handle), buffer, length);
}

bool WindowsHidBackend::GetMsGenreDescriptor(HidHandle handle, void* buffer, uint32_t length) {
    return CallD(Hid().HidD_GetMsGenreDescriptor, H(handle), buffer, length);
}

bool WindowsHidBackend::GetPreparsedData(HidHandle handle, PreparsedData& data) {
    PHIDP_PREPARSED_DATA preparsed = nullptr;
    if (!CallD(Hid().HidD_GetPreparsedData, H(handle), &preparsed)) return false;
    data = preparsed;
    return true;
}

// hid.dll reads a header from the pointer before freeing it; a null pointer
// is refused here rather than handed over.
bool WindowsHidBackend::FreePreparsedData(PreparsedData data) {
    if (data == nullptr) return false;
    return CallD(Hid().HidD_FreePreparsedData, P(data));
}

// ---- ReadFile / WriteFile -------------------------------------------------

// Synchronous: no OVERLAPPED, and Open does not ask for overlapped I/O, so
// ReadFile blocks until the device sends an input report (there is no
// timeout) and WriteFile until the report has gone out. A handle from Open
// has no read or write access: on it both fail at once with
// ERROR_ACCESS_DENIED. `done` is the byte count Windows reports (0 on
// failure).
bool WindowsHidBackend::Read(HidHandle handle, void* buffer, uint32_t length, uint32_t& done) {
    DWORD transferred = 0;
    const bool ok = ReadFile(H(handle), buffer, length, &transferred, nullptr) != FALSE;
    done = transferred;
    return ok;
}

bool WindowsHidBackend::Write(HidHandle handle, const void* buffer, uint32_t length,
                              uint32_t& done) {
    DWORD transferred = 0;
    const bool ok = WriteFile(H(handle), buffer, length, &transferred, nullptr) != FALSE;
    done = transferred;
    return ok;
}

// ---- HidP_ ------------------------------------------------------------------

NtStatus WindowsHidBackend::GetCaps(PreparsedData data, HidpCaps& caps) {
    return CallP(Hid().HidP_GetCaps, P(data), reinterpret_cast<PHIDP_CAPS>(&caps));
}

NtStatus WindowsHidBackend::GetButtonCaps(int32_t type, HidpButtonCaps* caps, uint16_t& length,
                                          PreparsedData data) {
    return CallP(Hid().HidP_GetButtonCaps, T(type), reinterpret_cast<PHIDP_BUTTON_CAPS>(caps),
                 &length, P(data));
}

NtStatus WindowsHidBackend::GetSpecificButtonCaps(int32_t type, Usage page, uint16_t link,
                                                  Usage usage, HidpButtonCaps* caps,
                                                  uint16_t& length, PreparsedData data) {
    return CallP(Hid().HidP_GetSpecificButtonCaps, T(type), page, link, usage,
                 reinterpret_cast<PHIDP_BUTTON_CAPS>(caps), &length, P(data));
}

NtStatus WindowsHidBackend::GetValueCaps(int32_t type, HidpValueCaps* caps, uint16_t& length,
                                         PreparsedData data) {
    return CallP(Hid().HidP_GetValueCaps, T(type), reinterpret_cast<PHIDP_VALUE_CAPS>(caps),
                 &length, P(data));
}

NtStatus WindowsHidBackend::GetSpecificValueCaps(int32_t type, Usage page, uint16_t link,
                                                 Usage usage, HidpValueCaps* caps,
                                                 uint16_t& length, PreparsedData data) {
    return CallP(Hid().HidP_GetSpecificValueCaps, T(type), page, link, usage,
                 reinterpret_cast<PHIDP_VALUE_CAPS>(caps), &length, P(data));
}

NtStatus WindowsHidBackend::GetLinkCollectionNodes(HidpLinkCollectionNode* nodes,
                                                   uint32_t& length, PreparsedData data) {
    ULONG count = length;
    const NtStatus status =
        CallP(Hid().HidP_GetLinkCollectionNodes,
              reinterpret_cast<PHIDP_LINK_COLLECTION_NODE>(nodes), &count, P(data));
    length = count;
    return status;
}

NtStatus WindowsHidBackend::GetExtendedAttributes(int32_t type, uint16_t dataIndex,
                                                  PreparsedData data,
                                                  HidpExtendedAttributes* attributes,
                                                  uint32_t& length) {
    ResolveOnce();
    if (getExtendedAttributes_ == nullptr) return kHidpStatusNotImplemented;
    const auto function = reinterpret_cast<GetExtendedAttributesFn>(getExtendedAttributes_);
    ULONG bytes = length;
    const NTSTATUS status = function(T(type), dataIndex, P(data),
                                     reinterpret_cast<PHIDP_EXTENDED_ATTRIBUTES>(attributes),
                                     &bytes);
    length = bytes;
    return S(status);
}

NtStatus WindowsHidBackend::InitializeReportForID(int32_t type, uint8_t reportId,
                                                  PreparsedData data, void* report,
                                                  uint32_t length) {
    ResolveOnce();
    if (initializeReportForId_ == nullptr) return kHidpStatusNotImplemented;
    const auto function = reinterpret_cast<InitializeReportForIdFn>(initializeReportForId_);
    return S(function(T(type), reportId, P(data), R(report), length));
}

uint32_t WindowsHidBackend::MaxDataListLength(int32_t type, PreparsedData data) {
    const auto function = Hid().HidP_MaxDataListLength;
    return function != nullptr ? function(T(type), P(data)) : 0;
}

uint32_t WindowsHidBackend::MaxUsageListLength(int32_t type, Usage page, PreparsedData data) {
    const auto function = Hid().HidP_MaxUsageListLength;
    return function != nullptr ? function(T(type), page, P(data)) : 0;
}

NtStatus WindowsHidBackend::GetData(int32_t type, HidpData* list, uint32_t& length,
                                    PreparsedData data, void* report, uint32_t reportLength) {
    ULONG count = length;
    const NtStatus status = CallP(Hid().HidP_GetData, T(type), reinterpret_cast<PHIDP_DATA>(list),
                                  &count, P(data), R(report), reportLength);
    length = count;
    return status;
}

NtStatus WindowsHidBackend::SetData(int32_t type, HidpData* list, uint32_t& length,
                                    PreparsedData data, void* report, uint32_t reportLength) {
    ULONG count = length;
    const NtStatus status = CallP(Hid().HidP_SetData, T(type), reinterpret_cast<PHIDP_DATA>(list),
                                  &count, P(data), R(report), reportLength);
    length = count;
    return status;
}

NtStatus WindowsHidBackend::GetUsages(int32_t type, Usage page, uint16_t link, Usage* list,
                                      uint32_t& length, PreparsedData data, void* report,
                                      uint32_t reportLength) {
    ULONG count = length;
    const NtStatus status = CallP(Hid().HidP_GetUsages, T(type), page, link, list, &count, P(data),
                                  R(report), reportLength);
    length = count;
    return status;
}

NtStatus WindowsHidBackend::GetUsagesEx(int32_t type, uint16_t link, UsageAndPage* list,
                                        uint32_t& length, PreparsedData data, void* report,
                                        uint32_t reportLength) {
    ULONG count = length;
    const NtStatus status =
        CallP(Hid().HidP_GetUsagesEx, T(type), link, reinterpret_cast<PUSAGE_AND_PAGE>(list),
              &count, P(data), R(report), reportLength);
    length = count;
    return status;
}

NtStatus WindowsHidBackend::SetUsages(int32_t type, Usage page, uint16_t link, Usage* list,
                                      uint32_t& length, PreparsedData data, void* report,
                                      uint32_t reportLength) {
    ULONG count = length;
    const NtStatus status = CallP(Hid().HidP_SetUsages, T(type), page, link, list, &count, P(data),
                                  R(report), reportLength);
    length = count;
    return status;
}

NtStatus WindowsHidBackend::UnsetUsages(int32_t type, Usage page, uint16_t link, Usage* list,
                                        uint32_t& length, PreparsedData data, void* report,
                                        uint32_t reportLength) {
    ULONG count = length;
    const NtStatus status = CallP(Hid().HidP_UnsetUsages, T(type), page, link, list, &count,
                                  P(data), R(report), reportLength);
    length = count;
    return status;
}

// hid.dll declares the two input lists non-const but only reads them.
NtStatus WindowsHidBackend::UsageListDifference(const Usage* previous, const Usage* current,
                                                Usage* breaks, Usage* makes, uint32_t length) {
    return CallP(Hid().HidP_UsageListDifference, const_cast<PUSAGE>(previous),
                 const_cast<PUSAGE>(current), breaks, makes, length);
}

NtStatus WindowsHidBackend::GetUsageValue(int32_t type, Usage page, uint16_t link, Usage usage,
                                          uint32_t& value, PreparsedData data, void* report,
                                          uint32_t reportLength) {
    ULONG result = value;
    const NtStatus status = CallP(Hid().HidP_GetUsageValue, T(type), page, link, usage, &result,
                                  P(data), R(report), reportLength);
    value = result;
    return status;
}

NtStatus WindowsHidBackend::GetScaledUsageValue(int32_t type, Usage page, uint16_t link,
                                                Usage usage, int32_t& value, PreparsedData data,
                                                void* report, uint32_t reportLength) {
    LONG result = value;
    const NtStatus status = CallP(Hid().HidP_GetScaledUsageValue, T(type), page, link, usage,
                                  &result, P(data), R(report), reportLength);
    value = result;
    return status;
}

NtStatus WindowsHidBackend::SetUsageValue(int32_t type, Usage page, uint16_t link, Usage usage,
                                          uint32_t value, PreparsedData data, void* report,
                                          uint32_t reportLength) {
    return CallP(Hid().HidP_SetUsageValue, T(type), page, link, usage, value, P(data), R(report),
                 reportLength);
}

NtStatus WindowsHidBackend::GetUsageValueArray(int32_t type, Usage page, uint16_t link,
                                               Usage usage, void* values, uint16_t valuesLength,
                                               PreparsedData data, void* report,
                                               uint32_t reportLength) {
    return CallP(Hid().HidP_GetUsageValueArray, T(type), page, link, usage,
                 static_cast<PCHAR>(values), valuesLength, P(data), R(report), reportLength);
}

NtStatus WindowsHidBackend::SetUsageValueArray(int32_t type, Usage page, uint16_t link,
                                               Usage usage, void* values, uint16_t valuesLength,
                                               PreparsedData data, void* report,
                                               uint32_t reportLength) {
    return CallP(Hid().HidP_SetUsageValueArray, T(type), page, link, usage,
                 static_cast<PCHAR>(values), valuesLength, P(data), R(report), reportLength);
}

std::unique_ptr<HidBackend> CreatePlatformHidBackend() {
    return std::make_unique<WindowsHidBackend>();
}

}  // namespace VideoConsoleCore::hid
