// Reads the version resource of each file named on the command line (found
// beside this program: the DLL, korvtool.exe, hidcaps.exe) the way Windows'
// file properties do, and compares it with the version in the header.
// Exit status 0 when every file agrees.
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "KORVSDKDeviceTool.h"

namespace {

std::wstring Widen(const char* text) {
    std::wstring wide;
    for (; *text != '\0'; ++text) wide += static_cast<wchar_t>(static_cast<unsigned char>(*text));
    return wide;
}

std::wstring OwnFolder() {
    wchar_t path[MAX_PATH] = {};
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring full(path, length);
    return full.substr(0, full.find_last_of(L"\\/") + 1);
}

// A value of the US English, Unicode string table; "" when it is missing.
std::wstring StringValue(std::vector<char>& block, const wchar_t* name) {
    const std::wstring key = std::wstring(L"\\StringFileInfo\\040904B0\\") + name;
    void* value = nullptr;
    UINT length = 0;
    if (!VerQueryValueW(block.data(), key.c_str(), &value, &length) || length == 0) return L"";
    return static_cast<const wchar_t*>(value);
}

bool Check(const std::wstring& fileName) {
    const std::wstring path = OwnFolder() + fileName;
    DWORD ignored = 0;
    const DWORD size = GetFileVersionInfoSizeW(path.c_str(), &ignored);
    std::vector<char> block(size);
    if (size == 0 || !GetFileVersionInfoW(path.c_str(), 0, size, block.data())) {
        std::fwprintf(stderr, L"%ls: no version resource (error %lu)\n", fileName.c_str(),
                      GetLastError());
        return false;
    }
    bool ok = true;
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT fixedLength = 0;
    const DWORD high = MAKELONG(KORVSDK_VERSION_MINOR, KORVSDK_VERSION_MAJOR);
    const DWORD low = MAKELONG(0, KORVSDK_VERSION_PATCH);
    if (!VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&fixed), &fixedLength) ||
        fixedLength < sizeof *fixed || fixed->dwFileVersionMS != high ||
        fixed->dwFileVersionLS != low || fixed->dwProductVersionMS != high ||
        fixed->dwProductVersionLS != low) {
        std::fwprintf(stderr, L"%ls: the fixed file and product versions are not %hs.0\n",
                      fileName.c_str(), KORVSDK_VERSION_STRING);
        ok = false;
    }
    const std::wstring version = Widen(KORVSDK_VERSION_STRING);
    const struct {
        const wchar_t* name;
        std::wstring expected;
    } strings[] = {{L"FileVersion", version},
                   {L"ProductVersion", version},
                   {L"ProductName", L"KORVSDKDeviceTool"},
                   {L"OriginalFilename", fileName}};
    for (const auto& s : strings) {
        const std::wstring value = StringValue(block, s.name);
        if (value != s.expected) {
            std::fwprintf(stderr, L"%ls: %ls is \"%ls\", expected \"%ls\"\n", fileName.c_str(),
                          s.name, value.c_str(), s.expected.c_str());
            ok = false;
        }
    }
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    bool ok = argc > 1;
    for (int i = 1; i < argc; ++i) ok = Check(Widen(argv[i])) && ok;
    return ok ? 0 : 1;
}
