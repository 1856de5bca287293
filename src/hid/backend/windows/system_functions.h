// The functions of hid.dll, setupapi.dll and cfgmgr32.dll that the Windows
// backend calls, found at run time in the system folder.
//
// The library imports none of the three. Neither hid.dll nor cfgmgr32.dll
// is a KnownDLL: an import of them would be looked for in the folder of the
// application that loads the library first, and a DLL of that name left
// there (beside a program unpacked in Downloads, say) would run inside the
// application as it starts. Each library is loaded here with
// LOAD_LIBRARY_SEARCH_SYSTEM32, which looks in the system folder and
// nowhere else, on the first call that needs it. A function the system
// lacks stays null; every caller answers as it would for a failed call.
#pragma once

#include "hid/backend/windows/win_util.h"

#include <cfgmgr32.h>

extern "C" {
#include <hidsdi.h>
#include <hidpi.h>
}

namespace VideoConsoleCore::hid::win {

// Loads `name` from the system folder only; null when it is not there.
// The module stays loaded for the process's life.
HMODULE LoadSystemLibrary(const wchar_t* name);

struct SystemFunctions {
    // hid.dll
    decltype(&::HidD_GetHidGuid) HidD_GetHidGuid = nullptr;
    decltype(&::HidD_FlushQueue) HidD_FlushQueue = nullptr;
    decltype(&::HidD_GetAttributes) HidD_GetAttributes = nullptr;
    decltype(&::HidD_SetFeature) HidD_SetFeature = nullptr;
    decltype(&::HidD_GetFeature) HidD_GetFeature = nullptr;
    decltype(&::HidD_GetInputReport) HidD_GetInputReport = nullptr;
    decltype(&::HidD_SetOutputReport) HidD_SetOutputReport = nullptr;
    decltype(&::HidD_GetNumInputBuffers) HidD_GetNumInputBuffers = nullptr;
    decltype(&::HidD_SetNumInputBuffers) HidD_SetNumInputBuffers = nullptr;
    decltype(&::HidD_GetPhysicalDescriptor) HidD_GetPhysicalDescriptor = nullptr;
    decltype(&::HidD_GetManufacturerString) HidD_GetManufacturerString = nullptr;
    decltype(&::HidD_GetProductString) HidD_GetProductString = nullptr;
    decltype(&::HidD_GetIndexedString) HidD_GetIndexedString = nullptr;
    decltype(&::HidD_GetSerialNumberString) HidD_GetSerialNumberString = nullptr;
    decltype(&::HidD_GetMsGenreDescriptor) HidD_GetMsGenreDescriptor = nullptr;
    decltype(&::HidD_GetPreparsedData) HidD_GetPreparsedData = nullptr;
    decltype(&::HidD_FreePreparsedData) HidD_FreePreparsedData = nullptr;
    decltype(&::HidP_GetCaps) HidP_GetCaps = nullptr;
    decltype(&::HidP_GetButtonCaps) HidP_GetButtonCaps = nullptr;
    decltype(&::HidP_GetSpecificButtonCaps) HidP_GetSpecificButtonCaps = nullptr;
    decltype(&::HidP_GetValueCaps) HidP_GetValueCaps = nullptr;
    decltype(&::HidP_GetSpecificValueCaps) HidP_GetSpecificValueCaps = nullptr;
    decltype(&::HidP_GetLinkCollectionNodes) HidP_GetLinkCollectionNodes = nullptr;
    decltype(&::HidP_MaxDataListLength) HidP_MaxDataListLength = nullptr;
    decltype(&::HidP_MaxUsageListLength) HidP_MaxUsageListLength = nullptr;
    decltype(&::HidP_GetData) HidP_GetData = nullptr;
    decltype(&::HidP_SetData) HidP_SetData = nullptr;
    decltype(&::HidP_GetUsages) HidP_GetUsages = nullptr;
    decltype(&::HidP_GetUsagesEx) HidP_GetUsagesEx = nullptr;
    decltype(&::HidP_SetUsages) HidP_SetUsages = nullptr;
    decltype(&::HidP_UnsetUsages) HidP_UnsetUsages = nullptr;
    decltype(&::HidP_UsageListDifference) HidP_UsageListDifference = nullptr;
    decltype(&::HidP_GetUsageValue) HidP_GetUsageValue = nullptr;
    decltype(&::HidP_GetScaledUsageValue) HidP_GetScaledUsageValue = nullptr;
    decltype(&::HidP_SetUsageValue) HidP_SetUsageValue = nullptr;
    decltype(&::HidP_GetUsageValueArray) HidP_GetUsageValueArray = nullptr;
    decltype(&::HidP_SetUsageValueArray) HidP_SetUsageValueArray = nullptr;

    // setupapi.dll (SetupDiGetDevicePropertyW is missing before Vista)
    decltype(&::SetupDiGetClassDevsW) SetupDiGetClassDevsW = nullptr;
    decltype(&::SetupDiDestroyDeviceInfoList) SetupDiDestroyDeviceInfoList = nullptr;
    decltype(&::SetupDiEnumDeviceInfo) SetupDiEnumDeviceInfo = nullptr;
    decltype(&::SetupDiEnumDeviceInterfaces) SetupDiEnumDeviceInterfaces = nullptr;
    decltype(&::SetupDiGetDeviceInterfaceDetailW) SetupDiGetDeviceInterfaceDetailW = nullptr;
    decltype(&::SetupDiGetDeviceRegistryPropertyW) SetupDiGetDeviceRegistryPropertyW = nullptr;
    decltype(&::SetupDiGetDevicePropertyW) SetupDiGetDevicePropertyW = nullptr;

    // cfgmgr32.dll
    decltype(&::CM_Get_Device_IDW) CM_Get_Device_IDW = nullptr;
    decltype(&::CM_Get_Parent) CM_Get_Parent = nullptr;
    decltype(&::CM_Get_DevNode_Registry_PropertyW) CM_Get_DevNode_Registry_PropertyW = nullptr;
};

// The one table of the process, filled on first use (thread-safe).
const SystemFunctions& System();

}  // namespace VideoConsoleCore::hid::win
