#include "standin_route.h"

#include <cstring>
#include <utility>
#include <stdexcept>
#include <string>

namespace korvsdk_test {

namespace {

using DeviceIoControlFunction = BOOL(WINAPI*)(HANDLE, DWORD, LPVOID, DWORD, LPVOID, DWORD, LPDWORD,
                                              LPOVERLAPPED);
using HubControlFunction = int(WINAPI*)(HANDLE, DWORD, void*, DWORD, void*, DWORD, DWORD*);

DeviceIoControlFunction g_system = nullptr;
HubControlFunction g_hubControl = nullptr;

BOOL WINAPI RoutedDeviceIoControl(HANDLE device, DWORD code, LPVOID in, DWORD inBytes, LPVOID out,
                                  DWORD outBytes, LPDWORD returned, LPOVERLAPPED overlapped) {
    const int answer = g_hubControl(device, code, in, inBytes, out, outBytes, returned);
    if (answer >= 0) return answer;
    return g_system(device, code, in, inBytes, out, outBytes, returned, overlapped);
}

bool SameName(const char* a, const char* b) { return _stricmp(a, b) == 0; }

bool FromSystemLibrary(const char* dll) {
    return SameName(dll, "hid.dll") || SameName(dll, "setupapi.dll") ||
           SameName(dll, "cfgmgr32.dll");
}

HMODULE ModuleAt(const void* address) {
    HMODULE module = nullptr;
    GetModuleHandleExW(
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
        static_cast<LPCWSTR>(address), &module);
    return module;
}

void Replace(ULONG_PTR& slot, ULONG_PTR value) {
    DWORD previous = 0;
    if (!VirtualProtect(&slot, sizeof(slot), PAGE_READWRITE, &previous))
        throw std::runtime_error("cannot unprotect an import slot");
    slot = value;
    VirtualProtect(&slot, sizeof(slot), previous, &previous);
}

}  // namespace

void RouteToStandIns(HMODULE module) {
    if (module == nullptr) throw std::runtime_error("no module to route");
    // Loaded as the library loads them: from the system folder only.
    HMODULE standIn = LoadLibraryExW(L"hid.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (standIn == nullptr) throw std::runtime_error("hid.dll is not in the system folder");
    g_hubControl = reinterpret_cast<HubControlFunction>(
        reinterpret_cast<void (*)()>(GetProcAddress(standIn, "StandIn_HubDeviceIoControl")));
    if (g_hubControl == nullptr) {
        throw std::runtime_error(
            "the system folder's hid.dll is not the stand-in (check WINEDLLOVERRIDES and the "
            "wine_standins_install step)");
    }
    for (const auto& [dll, function] : {std::pair{L"setupapi.dll", "SetupDiGetClassDevsW"},
                                        std::pair{L"cfgmgr32.dll", "CM_Get_Device_IDW"}}) {
        HMODULE library = LoadLibraryExW(dll, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
        const auto found = reinterpret_cast<const void*>(
            library != nullptr ? GetProcAddress(library, function) : nullptr);
        if (found == nullptr || ModuleAt(found) != standIn) {
            throw std::runtime_error(std::string(function) +
                                     " of the system folder does not reach the stand-in hid.dll");
        }
    }

    auto* base = reinterpret_cast<unsigned char*>(module);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& imports =
        nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (imports.VirtualAddress == 0) throw std::runtime_error("the module imports nothing");

    bool routed = false;
    for (auto* library =
             reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
         library->Name != 0; ++library) {
        const char* dll = reinterpret_cast<const char*>(base + library->Name);
        const bool system = FromSystemLibrary(dll);
        const bool kernel = SameName(dll, "kernel32.dll");
        if (!system && !kernel) continue;
        // The name table stays as linked; the address table holds what the
        // loader bound each name to.
        const auto* names = reinterpret_cast<const IMAGE_THUNK_DATA*>(
            base +
            (library->OriginalFirstThunk ? library->OriginalFirstThunk : library->FirstThunk));
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + library->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) {
                if (system) throw std::runtime_error(std::string("import by ordinal from ") + dll);
                continue;
            }
            const char* function =
                reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData)->Name;
            const auto bound = reinterpret_cast<const void*>(slots->u1.Function);
            if (system && ModuleAt(bound) != standIn) {
                throw std::runtime_error(std::string(dll) + "!" + function +
                                         " does not reach the stand-in hid.dll");
            }
            if (kernel && std::strcmp(function, "DeviceIoControl") == 0) {
                const auto routedAddress = reinterpret_cast<ULONG_PTR>(&RoutedDeviceIoControl);
                if (slots->u1.Function != routedAddress) {
                    g_system = reinterpret_cast<DeviceIoControlFunction>(slots->u1.Function);
                    Replace(slots->u1.Function, routedAddress);
                }
                routed = true;
            }
        }
    }
    if (!routed) throw std::runtime_error("the module does not import DeviceIoControl");
}

}  // namespace korvsdk_test
