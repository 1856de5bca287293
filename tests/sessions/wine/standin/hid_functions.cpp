// hid.dll: the HidD_ calls reach the model device behind the handle's file;
// the HidP_ calls work on the preparsed data that HidD_GetPreparsedData
// handed out, which is the model's own.
#include "standin_system.h"

extern "C" {
#include <hidsdi.h>
#include <hidpi.h>
}

#include <type_traits>

using korvsdk_standin::StandInSystem;
namespace hid = VideoConsoleCore::hid;

// The model's records are laid out as Windows lays out its own; the calls
// below pass them through by pointer.
static_assert(sizeof(hid::HiddAttributes) == sizeof(HIDD_ATTRIBUTES));
static_assert(sizeof(hid::HidpCaps) == sizeof(HIDP_CAPS));
static_assert(sizeof(hid::HidpButtonCaps) == sizeof(HIDP_BUTTON_CAPS));
static_assert(sizeof(hid::HidpValueCaps) == sizeof(HIDP_VALUE_CAPS));
static_assert(sizeof(hid::HidpLinkCollectionNode) == sizeof(HIDP_LINK_COLLECTION_NODE));
static_assert(sizeof(hid::HidpData) == sizeof(HIDP_DATA));
static_assert(sizeof(hid::UsageAndPage) == sizeof(USAGE_AND_PAGE));
static_assert(sizeof(hid::HidpExtendedAttributes) == sizeof(HIDP_EXTENDED_ATTRIBUTES));
static_assert(sizeof(hid::Guid) == sizeof(GUID));
static_assert(std::is_same_v<ULONG, unsigned long> && sizeof(ULONG) == sizeof(uint32_t));

namespace {

// Runs one model call for the device behind `device`; FALSE with the last
// error set when the handle leads nowhere or the model refuses.
template <typename Call>
BOOLEAN OnDevice(HANDLE device, Call&& call) {
    StandInSystem& system = StandInSystem::Get();
    const auto open = system.Interface(device);
    if (!open) return FALSE;
    if (call(system.Model(), open->handle)) return TRUE;
    system.SetRefusalError(open->device);
    return FALSE;
}

auto& Model() { return StandInSystem::Get().Model(); }

template <typename To, typename From>
To* As(From* pointer) {
    return reinterpret_cast<To*>(pointer);
}

// Counts, lengths and values travel as USHORT, ULONG or LONG here and as
// uint16_t, uint32_t or int32_t in the model (ULONG is unsigned long: the
// size of uint32_t, another type). A missing one is HIDP_STATUS_NULL.
template <typename Count, typename Call>
NTSTATUS Through(Count* count, Call&& call) {
    if (count == nullptr) return static_cast<NTSTATUS>(hid::kHidpStatusNull);
    if constexpr (std::is_same_v<Count, USHORT>) {
        return static_cast<NTSTATUS>(call(*count));
    } else {
        std::conditional_t<std::is_signed_v<Count>, int32_t, uint32_t> value = *count;
        const NTSTATUS status = static_cast<NTSTATUS>(call(value));
        *count = value;
        return status;
    }
}

}  // namespace

extern "C" {

// ---- HidD_ ------------------------------------------------------------------

void NTAPI HidD_GetHidGuid(LPGUID guid) {
    if (guid != nullptr) Model().GetHidGuid(*As<hid::Guid>(guid));
}

BOOLEAN NTAPI HidD_FlushQueue(HANDLE device) {
    return OnDevice(device, [](auto& model, auto handle) { return model.FlushQueue(handle); });
}

BOOLEAN NTAPI HidD_GetAttributes(HANDLE device, PHIDD_ATTRIBUTES attributes) {
    if (attributes == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return OnDevice(device, [&](auto& model, auto handle) {
        return model.GetAttributes(handle, *As<hid::HiddAttributes>(attributes));
    });
}

BOOLEAN NTAPI HidD_SetFeature(HANDLE device, PVOID report, ULONG length) {
    return OnDevice(
        device, [&](auto& model, auto handle) { return model.SetFeature(handle, report, length); });
}

BOOLEAN NTAPI HidD_GetFeature(HANDLE device, PVOID report, ULONG length) {
    return OnDevice(
        device, [&](auto& model, auto handle) { return model.GetFeature(handle, report, length); });
}

BOOLEAN NTAPI HidD_GetInputReport(HANDLE device, PVOID report, ULONG length) {
    return OnDevice(device, [&](auto& model, auto handle) {
        return model.GetInputReport(handle, report, length);
    });
}

BOOLEAN NTAPI HidD_SetOutputReport(HANDLE device, PVOID report, ULONG length) {
    return OnDevice(device, [&](auto& model, auto handle) {
        return model.SetOutputReport(handle, report, length);
    });
}

BOOLEAN NTAPI HidD_GetNumInputBuffers(HANDLE device, PULONG count) {
    if (count == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return OnDevice(device, [&](auto& model, auto handle) {
        uint32_t buffers = 0;
        if (!model.GetNumInputBuffers(handle, buffers)) return false;
        *count = buffers;
        return true;
    });
}

BOOLEAN NTAPI HidD_SetNumInputBuffers(HANDLE device, ULONG count) {
    return OnDevice(
        device, [&](auto& model, auto handle) { return model.SetNumInputBuffers(handle, count); });
}

BOOLEAN NTAPI HidD_GetPhysicalDescriptor(HANDLE device, PVOID buffer, ULONG length) {
    return OnDevice(device, [&](auto& model, auto handle) {
        return model.GetPhysicalDescriptor(handle, buffer, length);
    });
}

BOOLEAN NTAPI HidD_GetManufacturerString(HANDLE device, PVOID buffer, ULONG length) {
    return OnDevice(device, [&](auto& model, auto handle) {
        return model.GetManufacturerString(handle, buffer, length);
    });
}

BOOLEAN NTAPI HidD_GetProductString(HANDLE device, PVOID buffer, ULONG length) {
    return OnDevice(device, [&](auto& model, auto handle) {
        return model.GetProductString(handle, buffer, length);
    });
}

BOOLEAN NTAPI HidD_GetIndexedString(HANDLE device, ULONG index, PVOID buffer, ULONG length) {
    return OnDevice(device, [&](auto& model, auto handle) {
        return model.GetIndexedString(handle, index, buffer, length);
    });
}

BOOLEAN NTAPI HidD_GetSerialNumberString(HANDLE device, PVOID buffer, ULONG length) {
    return OnDevice(device, [&](auto& model, auto handle) {
        return model.GetSerialNumberString(handle, buffer, length);
    });
}

BOOLEAN NTAPI HidD_GetMsGenreDescriptor(HANDLE device, PVOID buffer, ULONG length) {
    return OnDevice(device, [&](auto& model, auto handle) {
        return model.GetMsGenreDescriptor(handle, buffer, length);
    });
}

BOOLEAN NTAPI HidD_GetPreparsedData(HANDLE device, PHIDP_PREPARSED_DATA* data) {
    if (data == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return OnDevice(device, [&](auto& model, auto handle) {
        hid::PreparsedData preparsed = nullptr;
        if (!model.GetPreparsedData(handle, preparsed)) return false;
        *data = static_cast<PHIDP_PREPARSED_DATA>(preparsed);
        return true;
    });
}

BOOLEAN NTAPI HidD_FreePreparsedData(PHIDP_PREPARSED_DATA data) {
    return Model().FreePreparsedData(data) ? TRUE : FALSE;
}

// ---- HidP_ ------------------------------------------------------------------

NTSTATUS NTAPI HidP_GetCaps(PHIDP_PREPARSED_DATA data, PHIDP_CAPS caps) {
    if (caps == nullptr) return static_cast<NTSTATUS>(hid::kHidpStatusNull);
    return static_cast<NTSTATUS>(Model().GetCaps(data, *As<hid::HidpCaps>(caps)));
}

NTSTATUS NTAPI HidP_GetButtonCaps(HIDP_REPORT_TYPE type, PHIDP_BUTTON_CAPS caps, PUSHORT length,
                                  PHIDP_PREPARSED_DATA data) {
    return Through(length, [&](USHORT& count) {
        return Model().GetButtonCaps(type, As<hid::HidpButtonCaps>(caps), count, data);
    });
}

NTSTATUS NTAPI HidP_GetSpecificButtonCaps(HIDP_REPORT_TYPE type, USAGE page, USHORT link,
                                          USAGE usage, PHIDP_BUTTON_CAPS caps, PUSHORT length,
                                          PHIDP_PREPARSED_DATA data) {
    return Through(length, [&](USHORT& count) {
        return Model().GetSpecificButtonCaps(type, page, link, usage, As<hid::HidpButtonCaps>(caps),
                                             count, data);
    });
}

NTSTATUS NTAPI HidP_GetValueCaps(HIDP_REPORT_TYPE type, PHIDP_VALUE_CAPS caps, PUSHORT length,
                                 PHIDP_PREPARSED_DATA data) {
    return Through(length, [&](USHORT& count) {
        return Model().GetValueCaps(type, As<hid::HidpValueCaps>(caps), count, data);
    });
}

NTSTATUS NTAPI HidP_GetSpecificValueCaps(HIDP_REPORT_TYPE type, USAGE page, USHORT link,
                                         USAGE usage, PHIDP_VALUE_CAPS caps, PUSHORT length,
                                         PHIDP_PREPARSED_DATA data) {
    return Through(length, [&](USHORT& count) {
        return Model().GetSpecificValueCaps(type, page, link, usage, As<hid::HidpValueCaps>(caps),
                                            count, data);
    });
}

NTSTATUS NTAPI HidP_GetLinkCollectionNodes(PHIDP_LINK_COLLECTION_NODE nodes, PULONG length,
                                           PHIDP_PREPARSED_DATA data) {
    return Through(length, [&](uint32_t& count) {
        return Model().GetLinkCollectionNodes(As<hid::HidpLinkCollectionNode>(nodes), count, data);
    });
}

NTSTATUS NTAPI HidP_GetExtendedAttributes(HIDP_REPORT_TYPE type, USHORT dataIndex,
                                          PHIDP_PREPARSED_DATA data,
                                          PHIDP_EXTENDED_ATTRIBUTES attributes, PULONG length) {
    return Through(length, [&](uint32_t& bytes) {
        return Model().GetExtendedAttributes(type, dataIndex, data,
                                             As<hid::HidpExtendedAttributes>(attributes), bytes);
    });
}

NTSTATUS NTAPI HidP_InitializeReportForID(HIDP_REPORT_TYPE type, UCHAR reportId,
                                          PHIDP_PREPARSED_DATA data, PCHAR report, ULONG length) {
    return static_cast<NTSTATUS>(
        Model().InitializeReportForID(type, reportId, data, report, length));
}

ULONG NTAPI HidP_MaxDataListLength(HIDP_REPORT_TYPE type, PHIDP_PREPARSED_DATA data) {
    return Model().MaxDataListLength(type, data);
}

ULONG NTAPI HidP_MaxUsageListLength(HIDP_REPORT_TYPE type, USAGE page, PHIDP_PREPARSED_DATA data) {
    return Model().MaxUsageListLength(type, page, data);
}

NTSTATUS NTAPI HidP_GetData(HIDP_REPORT_TYPE type, PHIDP_DATA list, PULONG length,
                            PHIDP_PREPARSED_DATA data, PCHAR report, ULONG reportLength) {
    return Through(length, [&](uint32_t& count) {
        return Model().GetData(type, As<hid::HidpData>(list), count, data, report, reportLength);
    });
}

NTSTATUS NTAPI HidP_SetData(HIDP_REPORT_TYPE type, PHIDP_DATA list, PULONG length,
                            PHIDP_PREPARSED_DATA data, PCHAR report, ULONG reportLength) {
    return Through(length, [&](uint32_t& count) {
        return Model().SetData(type, As<hid::HidpData>(list), count, data, report, reportLength);
    });
}

NTSTATUS NTAPI HidP_GetUsages(HIDP_REPORT_TYPE type, USAGE page, USHORT link, PUSAGE list,
                              PULONG length, PHIDP_PREPARSED_DATA data, PCHAR report,
                              ULONG reportLength) {
    return Through(length, [&](uint32_t& count) {
        return Model().GetUsages(type, page, link, list, count, data, report, reportLength);
    });
}

NTSTATUS NTAPI HidP_GetUsagesEx(HIDP_REPORT_TYPE type, USHORT link, PUSAGE_AND_PAGE list,
                                ULONG* length, PHIDP_PREPARSED_DATA data, PCHAR report,
                                ULONG reportLength) {
    return Through(length, [&](uint32_t& count) {
        return Model().GetUsagesEx(type, link, As<hid::UsageAndPage>(list), count, data, report,
                                   reportLength);
    });
}

NTSTATUS NTAPI HidP_SetUsages(HIDP_REPORT_TYPE type, USAGE page, USHORT link, PUSAGE list,
                              PULONG length, PHIDP_PREPARSED_DATA data, PCHAR report,
                              ULONG reportLength) {
    return Through(length, [&](uint32_t& count) {
        return Model().SetUsages(type, page, link, list, count, data, report, reportLength);
    });
}

NTSTATUS NTAPI HidP_UnsetUsages(HIDP_REPORT_TYPE type, USAGE page, USHORT link, PUSAGE list,
                                PULONG length, PHIDP_PREPARSED_DATA data, PCHAR report,
                                ULONG reportLength) {
    return Through(length, [&](uint32_t& count) {
        return Model().UnsetUsages(type, page, link, list, count, data, report, reportLength);
    });
}

NTSTATUS NTAPI HidP_UsageListDifference(PUSAGE previous, PUSAGE current, PUSAGE breaks,
                                        PUSAGE makes, ULONG length) {
    return static_cast<NTSTATUS>(
        Model().UsageListDifference(previous, current, breaks, makes, length));
}

NTSTATUS NTAPI HidP_GetUsageValue(HIDP_REPORT_TYPE type, USAGE page, USHORT link, USAGE usage,
                                  PULONG value, PHIDP_PREPARSED_DATA data, PCHAR report,
                                  ULONG reportLength) {
    return Through(value, [&](uint32_t& result) {
        return Model().GetUsageValue(type, page, link, usage, result, data, report, reportLength);
    });
}

NTSTATUS NTAPI HidP_GetScaledUsageValue(HIDP_REPORT_TYPE type, USAGE page, USHORT link, USAGE usage,
                                        PLONG value, PHIDP_PREPARSED_DATA data, PCHAR report,
                                        ULONG reportLength) {
    return Through(value, [&](int32_t& result) {
        return Model().GetScaledUsageValue(type, page, link, usage, result, data, report,
                                           reportLength);
    });
}

NTSTATUS NTAPI HidP_SetUsageValue(HIDP_REPORT_TYPE type, USAGE page, USHORT link, USAGE usage,
                                  ULONG value, PHIDP_PREPARSED_DATA data, PCHAR report,
                                  ULONG reportLength) {
    return static_cast<NTSTATUS>(
        Model().SetUsageValue(type, page, link, usage, value, data, report, reportLength));
}

NTSTATUS NTAPI HidP_GetUsageValueArray(HIDP_REPORT_TYPE type, USAGE page, USHORT link, USAGE usage,
                                       PCHAR values, USHORT valuesLength, PHIDP_PREPARSED_DATA data,
                                       PCHAR report, ULONG reportLength) {
    return static_cast<NTSTATUS>(Model().GetUsageValueArray(
        type, page, link, usage, values, valuesLength, data, report, reportLength));
}

NTSTATUS NTAPI HidP_SetUsageValueArray(HIDP_REPORT_TYPE type, USAGE page, USHORT link, USAGE usage,
                                       PCHAR values, USHORT valuesLength, PHIDP_PREPARSED_DATA data,
                                       PCHAR report, ULONG reportLength) {
    return static_cast<NTSTATUS>(Model().SetUsageValueArray(
        type, page, link, usage, values, valuesLength, data, report, reportLength));
}

}  // extern "C"
