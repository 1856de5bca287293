// Platform glue for Windows.
#include "platform/platform.h"

#include <windows.h>
#include <shlobj.h>

#include <string>

namespace VideoConsoleCore::platform {

namespace {

std::wstring Utf8ToWide(std::string_view text) {
    if (text.empty()) return std::wstring();
    const int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                           nullptr, 0);
    if (length <= 0) return std::wstring();
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(),
                        length);
    return wide;
}

}  // namespace

void WriteDebuggerOutput(std::string_view utf8Text) {
    const std::wstring wide = Utf8ToWide(utf8Text);
    OutputDebugStringW(wide.c_str());
}

void SleepMilliseconds(uint32_t milliseconds) { Sleep(milliseconds); }

LocalTime CurrentLocalTime() {
    SYSTEMTIME now{};
    GetLocalTime(&now);
    return LocalTime{now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond};
}

char PathSeparator() { return '\\'; }

std::string DesktopFolder() {
    // CSIDL_DESKTOPDIRECTORY (16): the file-system folder behind the desktop.
    LPITEMIDLIST items = nullptr;
    if (FAILED(SHGetSpecialFolderLocation(nullptr, CSIDL_DESKTOPDIRECTORY, &items)) ||
        items == nullptr) {
        return "";
    }
    wchar_t widePath[MAX_PATH] = {};
    const BOOL found = SHGetPathFromIDListW(items, widePath);
    IMalloc* shellAllocator = nullptr;
    if (SUCCEEDED(SHGetMalloc(&shellAllocator)) && shellAllocator != nullptr) {
        shellAllocator->Free(items);
        shellAllocator->Release();
    }
    if (!found) return "";

    // Narrow text in the process's ANSI code page, like every narrow path the
    // library hands to the C runtime.
    const int length = WideCharToMultiByte(CP_ACP, 0, widePath, -1, nullptr, 0, nullptr, nullptr);
    if (length <= 0) return "";
    std::string narrow(static_cast<size_t>(length), '\0');
    if (WideCharToMultiByte(CP_ACP, 0, widePath, -1, narrow.data(), length, nullptr, nullptr) <= 0)
        return "";
    narrow.resize(static_cast<size_t>(length) - 1);  // drop the terminating zero
    return narrow;
}

}  // namespace VideoConsoleCore::platform
