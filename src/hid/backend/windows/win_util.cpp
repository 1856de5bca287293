#include "hid/backend/windows/win_util.h"

#include "hid/backend/windows/system_functions.h"

#include <climits>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <vector>

namespace VideoConsoleCore::hid::win {

std::wstring Utf8ToWide(std::string_view text) {
    if (text.empty() || text.size() > static_cast<size_t>(INT_MAX)) return std::wstring();
    const int inLength = static_cast<int>(text.size());
    const int length =
        MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), inLength, nullptr, 0);
    if (length <= 0) return std::wstring();
    std::wstring wide(static_cast<size_t>(length), L'\0');
    if (MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), inLength, wide.data(),
                            length) != length) {
        return std::wstring();
    }
    return wide;
}

std::string WideToUtf8(std::wstring_view text) {
    if (text.empty() || text.size() > static_cast<size_t>(INT_MAX)) return std::string();
    const int inLength = static_cast<int>(text.size());
    const int length = WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, text.data(), inLength,
                                           nullptr, 0, nullptr, nullptr);
    if (length <= 0) return std::string();
    std::string narrow(static_cast<size_t>(length), '\0');
    if (WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, text.data(), inLength, narrow.data(),
                            length, nullptr, nullptr) != length) {
        return std::string();
    }
    return narrow;
}

std::wstring WideFromBuffer(const void* buffer, size_t bytes) {
    if (buffer == nullptr) return std::wstring();
    const size_t units = bytes / sizeof(wchar_t);
    // Copy unit by unit: the buffer may come from a byte array with no
    // particular alignment.
    std::wstring text;
    const auto* raw = static_cast<const unsigned char*>(buffer);
    for (size_t i = 0; i < units; ++i) {
        wchar_t unit;
        std::memcpy(&unit, raw + i * sizeof(wchar_t), sizeof(wchar_t));
        if (unit == L'\0') break;
        text.push_back(unit);
    }
    return text;
}

std::string AsciiUpper(std::string text) {
    for (char& c : text) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return text;
}

std::wstring AsciiUpper(std::wstring text) {
    for (wchar_t& c : text) {
        if (c >= L'a' && c <= L'z') c = static_cast<wchar_t>(c - L'a' + L'A');
    }
    return text;
}

void ScopedHandle::Reset() {
    if (Valid()) CloseHandle(handle_);
    handle_ = INVALID_HANDLE_VALUE;
}

ScopedDevInfo::~ScopedDevInfo() {
    const auto destroy = System().SetupDiDestroyDeviceInfoList;
    if (Valid() && destroy != nullptr) destroy(set_);
}

namespace {

// SetupDiGetDeviceInterfaceDetailW in two steps: ask for the size, then read
// into a buffer of exactly that size. "" when either step fails.
std::wstring InterfacePath(HDEVINFO set, SP_DEVICE_INTERFACE_DATA& interfaceData,
                           SP_DEVINFO_DATA& device) {
    const auto getDetail = System().SetupDiGetDeviceInterfaceDetailW;
    if (getDetail == nullptr) return std::wstring();
    DWORD required = 0;
    getDetail(set, &interfaceData, nullptr, 0, &required, nullptr);
    constexpr DWORD kHeader = offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath);
    if (required <= kHeader) return std::wstring();

    // DWORD elements keep the record's alignment.
    std::vector<DWORD> storage((required + sizeof(DWORD) - 1) / sizeof(DWORD));
    auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(storage.data());
    // cbSize is the size of the fixed record, not of the buffer.
    detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
    if (!getDetail(set, &interfaceData, detail, required, nullptr, &device)) {
        return std::wstring();
    }
    return WideFromBuffer(reinterpret_cast<const unsigned char*>(detail) + kHeader,
                          required - kHeader);
}

}  // namespace

InterfaceWalk ForEachPresentInterface(const GUID& interfaceClass,
                                      const std::function<bool(const PresentInterface&)>& visit) {
    const SystemFunctions& system = System();
    if (system.SetupDiGetClassDevsW == nullptr || system.SetupDiEnumDeviceInterfaces == nullptr ||
        system.SetupDiDestroyDeviceInfoList == nullptr) {
        return InterfaceWalk::kFailed;
    }
    ScopedDevInfo set(system.SetupDiGetClassDevsW(&interfaceClass, nullptr, nullptr,
                                                  DIGCF_PRESENT | DIGCF_DEVICEINTERFACE));
    if (!set.Valid()) return InterfaceWalk::kFailed;

    for (DWORD index = 0;; ++index) {
        SP_DEVICE_INTERFACE_DATA interfaceData{};
        interfaceData.cbSize = sizeof(interfaceData);
        if (!system.SetupDiEnumDeviceInterfaces(set.Get(), nullptr, &interfaceClass, index,
                                                &interfaceData)) {
            return GetLastError() == ERROR_NO_MORE_ITEMS ? InterfaceWalk::kCompleted
                                                         : InterfaceWalk::kFailed;
        }
        SP_DEVINFO_DATA device{};
        device.cbSize = sizeof(device);
        const std::wstring path = InterfacePath(set.Get(), interfaceData, device);
        if (path.empty()) continue;
        if (!visit(PresentInterface{set.Get(), &device, path})) return InterfaceWalk::kStopped;
    }
}

std::wstring DeviceInstanceId(DWORD devInst) {
    // Instance IDs are at most MAX_DEVICE_ID_LEN (200) characters; 260 leaves
    // room, and one more element keeps a terminator whatever is written.
    constexpr ULONG kCapacity = 260;
    wchar_t id[kCapacity + 1] = {};
    const auto getId = System().CM_Get_Device_IDW;
    if (getId == nullptr || getId(devInst, id, kCapacity, 0) != CR_SUCCESS) return std::wstring();
    return std::wstring(id, wcsnlen(id, kCapacity));
}

}  // namespace VideoConsoleCore::hid::win
