#include "hid/backend/windows/system_functions.h"

namespace VideoConsoleCore::hid::win {

namespace {

template <typename Function>
void Find(HMODULE module, const char* name, Function& slot) {
    if (module == nullptr) return;
    slot = reinterpret_cast<Function>(reinterpret_cast<void (*)()>(GetProcAddress(module, name)));
}

// Each slot is looked up under its own name.
#define KORVSDK_FIND(module, function) Find(module, #function, table.function)

SystemFunctions Resolve() {
    SystemFunctions table;
    const HMODULE hid = LoadSystemLibrary(L"hid.dll");
    KORVSDK_FIND(hid, HidD_GetHidGuid);
    KORVSDK_FIND(hid, HidD_FlushQueue);
    KORVSDK_FIND(hid, HidD_GetAttributes);
    KORVSDK_FIND(hid, HidD_SetFeature);
    KORVSDK_FIND(hid, HidD_GetFeature);
    KORVSDK_FIND(hid, HidD_GetInputReport);
    KORVSDK_FIND(hid, HidD_SetOutputReport);
    KORVSDK_FIND(hid, HidD_GetNumInputBuffers);
    KORVSDK_FIND(hid, HidD_SetNumInputBuffers);
    KORVSDK_FIND(hid, HidD_GetPhysicalDescriptor);
    KORVSDK_FIND(hid, HidD_GetManufacturerString);
    KORVSDK_FIND(hid, HidD_GetProductString);
    KORVSDK_FIND(hid, HidD_GetIndexedString);
    KORVSDK_FIND(hid, HidD_GetSerialNumberString);
    KORVSDK_FIND(hid, HidD_GetMsGenreDescriptor);
    KORVSDK_FIND(hid, HidD_GetPreparsedData);
    KORVSDK_FIND(hid, HidD_FreePreparsedData);
    KORVSDK_FIND(hid, HidP_GetCaps);
    KORVSDK_FIND(hid, HidP_GetButtonCaps);
    KORVSDK_FIND(hid, HidP_GetSpecificButtonCaps);
    KORVSDK_FIND(hid, HidP_GetValueCaps);
    KORVSDK_FIND(hid, HidP_GetSpecificValueCaps);
    KORVSDK_FIND(hid, HidP_GetLinkCollectionNodes);
    KORVSDK_FIND(hid, HidP_MaxDataListLength);
    KORVSDK_FIND(hid, HidP_MaxUsageListLength);
    KORVSDK_FIND(hid, HidP_GetData);
    KORVSDK_FIND(hid, HidP_SetData);
    KORVSDK_FIND(hid, HidP_GetUsages);
    KORVSDK_FIND(hid, HidP_GetUsagesEx);
    KORVSDK_FIND(hid, HidP_SetUsages);
    KORVSDK_FIND(hid, HidP_UnsetUsages);
    KORVSDK_FIND(hid, HidP_UsageListDifference);
    KORVSDK_FIND(hid, HidP_GetUsageValue);
    KORVSDK_FIND(hid, HidP_GetScaledUsageValue);
    KORVSDK_FIND(hid, HidP_SetUsageValue);
    KORVSDK_FIND(hid, HidP_GetUsageValueArray);
    KORVSDK_FIND(hid, HidP_SetUsageValueArray);

    const HMODULE setupapi = LoadSystemLibrary(L"setupapi.dll");
    KORVSDK_FIND(setupapi, SetupDiGetClassDevsW);
    KORVSDK_FIND(setupapi, SetupDiDestroyDeviceInfoList);
    KORVSDK_FIND(setupapi, SetupDiEnumDeviceInfo);
    KORVSDK_FIND(setupapi, SetupDiEnumDeviceInterfaces);
    KORVSDK_FIND(setupapi, SetupDiGetDeviceInterfaceDetailW);
    KORVSDK_FIND(setupapi, SetupDiGetDeviceRegistryPropertyW);
    KORVSDK_FIND(setupapi, SetupDiGetDevicePropertyW);

    const HMODULE cfgmgr32 = LoadSystemLibrary(L"cfgmgr32.dll");
    KORVSDK_FIND(cfgmgr32, CM_Get_Device_IDW);
    KORVSDK_FIND(cfgmgr32, CM_Get_Parent);
    KORVSDK_FIND(cfgmgr32, CM_Get_DevNode_Registry_PropertyW);
    return table;
}

#undef KORVSDK_FIND

}  // namespace

HMODULE LoadSystemLibrary(const wchar_t* name) {
    return LoadLibraryExW(name, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
}

const SystemFunctions& System() {
    static const SystemFunctions table = Resolve();
    return table;
}

}  // namespace VideoConsoleCore::hid::win
