// Small pieces the Windows backend shares: UTF-8 <-> UTF-16, owners that
// release kernel handles and SetupAPI device sets on every path, and the walk
// over the present interfaces of one device interface class.
#pragma once

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#include <setupapi.h>

#include <functional>
#include <string>
#include <string_view>

namespace VideoConsoleCore::hid::win {

// Text conversion with CP_UTF8. Invalid input converts to "" (Windows
// rejects it only with MB_ERR_INVALID_CHARS / WC_ERR_INVALID_CHARS, which we
// ask for: a path with a broken byte must not open some other file).
std::wstring Utf8ToWide(std::string_view text);
std::string WideToUtf8(std::wstring_view text);

// The characters of a UTF-16 buffer of `bytes` bytes up to its first NUL; a
// buffer without NUL is taken whole (an odd trailing byte is dropped).
std::wstring WideFromBuffer(const void* buffer, size_t bytes);

// ASCII upper-casing, enough for device IDs, driver keys and hex digits.
std::string AsciiUpper(std::string text);
std::wstring AsciiUpper(std::wstring text);

// Owns a kernel handle; INVALID_HANDLE_VALUE and null both mean "none".
class ScopedHandle {
public:
    ScopedHandle() = default;
    explicit ScopedHandle(HANDLE handle) : handle_(handle) {}
    ~ScopedHandle() { Reset(); }
    ScopedHandle(const ScopedHandle&) = delete;
    ScopedHandle& operator=(const ScopedHandle&) = delete;

    bool Valid() const { return handle_ != INVALID_HANDLE_VALUE && handle_ != nullptr; }
    HANDLE Get() const { return handle_; }
    void Reset();

private:
    HANDLE handle_ = INVALID_HANDLE_VALUE;
};

// Owns a SetupAPI device information set.
class ScopedDevInfo {
public:
    explicit ScopedDevInfo(HDEVINFO set) : set_(set) {}
    ~ScopedDevInfo();
    ScopedDevInfo(const ScopedDevInfo&) = delete;
    ScopedDevInfo& operator=(const ScopedDevInfo&) = delete;

    bool Valid() const { return set_ != INVALID_HANDLE_VALUE && set_ != nullptr; }
    HDEVINFO Get() const { return set_; }

private:
    HDEVINFO set_;
};

// One present interface of a device interface class: the set it belongs to,
// the device that exposes it, and its device path.
struct PresentInterface {
    HDEVINFO set;
    SP_DEVINFO_DATA* device;
    const std::wstring& path;
};

enum class InterfaceWalk { kFailed, kCompleted, kStopped };

// Visits the present interfaces of `interfaceClass` in enumeration order
// (index 0 upward until ERROR_NO_MORE_ITEMS). `visit` returns false to stop.
// An interface whose detail cannot be read is skipped. kFailed when the set
// cannot be made or the enumeration breaks off with another error.
InterfaceWalk ForEachPresentInterface(const GUID& interfaceClass,
                                      const std::function<bool(const PresentInterface&)>& visit);

// The instance ID of a device node ("USB\VID_...\..."), "" on failure.
std::wstring DeviceInstanceId(DWORD devInst);

}  // namespace VideoConsoleCore::hid::win
