// Platform glue for Windows.
#include "platform/platform.h"
#include "platform/wake_margin.h"

#include <windows.h>
#include <shlobj.h>

#include <fcntl.h>
#include <io.h>

#include <atomic>
#include <new>
#include <random>
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

// A UTF-8 path as Windows wants it. A text that is not UTF-8 converts to
// nothing, and nothing opens.
std::wstring WidePath(const std::string& path) {
    if (path.empty()) return std::wstring();
    const int length =
        MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path.data(),
                            static_cast<int>(path.size()), nullptr, 0);
    if (length <= 0) return std::wstring();
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path.data(), static_cast<int>(path.size()),
                        wide.data(), length);
    return wide;
}

}  // namespace

void WriteDebuggerOutput(std::string_view utf8Text) {
    const std::wstring wide = Utf8ToWide(utf8Text);
    OutputDebugStringW(wide.c_str());
}

void SleepMilliseconds(uint32_t milliseconds) {
    // Sleep() ends on a tick of the system timer, every 15.6 ms unless some
    // program raised its rate: a 1 ms page wait of a microcontroller update
    // could take 16. A high-resolution waitable timer (Windows 10 1803 and
    // later) wakes within a fraction of a millisecond; the wait sleeps on it
    // to short of the deadline by what this thread's sleeps have lately woken
    // late (wake_margin.h) and spins what is left, if anything, on the
    // performance counter. Where that timer is missing it falls back to
    // Sleep(), which ends past the deadline.
    constexpr DWORD kHighResolution = 0x00000002;  // CREATE_WAITABLE_TIMER_HIGH_RESOLUTION
    thread_local WakeMargin margin;
    LARGE_INTEGER frequency{}, now{};
    QueryPerformanceFrequency(&frequency);
    const auto nanoseconds = [&frequency](LONGLONG ticks) {
        return ticks / frequency.QuadPart * 1000000000 +
               ticks % frequency.QuadPart * 1000000000 / frequency.QuadPart;
    };
    QueryPerformanceCounter(&now);
    const LONGLONG start = now.QuadPart;
    const LONGLONG deadline = start + frequency.QuadPart * milliseconds / 1000;
    if (milliseconds > 0) {
        HANDLE timer = CreateWaitableTimerExW(nullptr, nullptr, kHighResolution, TIMER_ALL_ACCESS);
        const LONGLONG sleepNs = LONGLONG{milliseconds} * 1000000 - margin.Ns();
        LARGE_INTEGER due{};
        due.QuadPart = -(sleepNs / 100);  // relative, in 100 ns, rounded down
        if (timer != nullptr && SetWaitableTimer(timer, &due, 0, nullptr, nullptr, FALSE)) {
            WaitForSingleObject(timer, INFINITE);
            QueryPerformanceCounter(&now);
            margin.Learn(nanoseconds(now.QuadPart - start) - sleepNs);
        } else {
            Sleep(milliseconds);
        }
        if (timer != nullptr) CloseHandle(timer);
    }
    do {
        QueryPerformanceCounter(&now);
    } while (now.QuadPart < deadline);
}

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

    return WideToUtf8(widePath);
}

std::string EnvironmentVariable(const char* name) {
    const std::wstring wideName = Utf8ToWide(name == nullptr ? "" : name);
    const wchar_t* value = wideName.empty() ? nullptr : _wgetenv(wideName.c_str());
    return value == nullptr ? std::string() : WideToUtf8(value);
}

bool IsExistingFile(const std::string& path) {
    const std::wstring wide = WidePath(path);
    if (wide.empty()) return false;
    WIN32_FIND_DATAW found{};
    const HANDLE search = FindFirstFileW(wide.c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return false;
    FindClose(search);
    return (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

FileHandle OpenFileForReading(const std::string& path) {
    const std::wstring wide = WidePath(path);
    if (wide.empty()) return kNoFile;
    const HANDLE file = CreateFileW(wide.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    return file == INVALID_HANDLE_VALUE ? kNoFile : reinterpret_cast<FileHandle>(file);
}

namespace {

// A C stream over a handle this file opened; the handle is closed when the
// stream cannot be made.
std::FILE* StreamOf(HANDLE handle, int flags, const char* mode) {
    const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(handle), flags);
    if (fd < 0) {
        CloseHandle(handle);
        return nullptr;
    }
    std::FILE* file = _fdopen(fd, mode);
    if (file == nullptr) _close(fd);
    return file;
}

}  // namespace

std::FILE* CreatePartFile(const std::string& target, std::string& partPath) {
    partPath.clear();
    if (WidePath(target).empty()) return nullptr;
    static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device random;  // rand_s with mingw-w64's runtime
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string name = target + ".part-";
        for (int i = 0; i < 6; ++i) name += kLetters[random() % (sizeof kLetters - 1)];
        // CREATE_NEW fails on any name that exists, a link included, so a
        // planted reparse point is never opened.
        const HANDLE file = CreateFileW(WidePath(name).c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                                        nullptr, CREATE_NEW,
                                        FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT,
                                        nullptr);
        if (file == INVALID_HANDLE_VALUE) {
            const DWORD error = GetLastError();
            if (error == ERROR_FILE_EXISTS || error == ERROR_ALREADY_EXISTS) continue;
            return nullptr;
        }
        std::FILE* stream = StreamOf(file, _O_WRONLY | _O_BINARY, "wb");
        if (stream == nullptr) {
            DeleteFileW(WidePath(name).c_str());
            return nullptr;
        }
        partPath = name;
        return stream;
    }
    return nullptr;
}

std::FILE* OpenOwnFileForAppending(const std::string& path, std::string& refusal) {
    refusal.clear();
    const std::wstring wide = WidePath(path);
    if (wide.empty()) return nullptr;
    // FILE_FLAG_OPEN_REPARSE_POINT opens a link itself instead of the file it
    // leads to; it is then refused before a byte is written.
    const HANDLE file =
        CreateFileW(wide.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE,
                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                    FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (file == INVALID_HANDLE_VALUE) return nullptr;
    BY_HANDLE_FILE_INFORMATION info{};
    if (!GetFileInformationByHandle(file, &info)) {
        CloseHandle(file);
        return nullptr;
    }
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        refusal = "it is a link (a reparse point)";
    } else if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        refusal = "it is not a plain file";
    } else if (info.nNumberOfLinks != 1) {
        refusal = "it is a hard link to another file";
    }
    if (!refusal.empty()) {
        CloseHandle(file);
        return nullptr;
    }
    return StreamOf(file, _O_WRONLY | _O_APPEND | _O_BINARY, "ab");
}

bool IsOwnFolderOrNoLink(const std::string&) { return true; }

bool MoveIntoPlace(const std::string& from, const std::string& to) {
    // rename() refuses an existing target on Windows; MoveFileExW replaces it.
    const std::wstring source = WidePath(from);
    const std::wstring target = WidePath(to);
    return !source.empty() && !target.empty() &&
           MoveFileExW(source.c_str(), target.c_str(),
                       MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

void RemoveFile(const std::string& path) {
    const std::wstring wide = WidePath(path);
    if (!wide.empty()) DeleteFileW(wide.c_str());
}

bool FileSize(FileHandle file, uint64_t& size) {
    LARGE_INTEGER value{};
    if (!GetFileSizeEx(reinterpret_cast<HANDLE>(file), &value)) return false;
    size = static_cast<uint64_t>(value.QuadPart);
    return true;
}

uint32_t ReadFromFile(FileHandle file, uint8_t* buffer, uint32_t length, uint32_t& error) {
    error = 0;
    uint32_t done = 0;
    while (done < length) {
        DWORD got = 0;
        if (!ReadFile(reinterpret_cast<HANDLE>(file), buffer + done, length - done, &got, nullptr)) {
            error = GetLastError();
            break;
        }
        if (got == 0) break;
        done += got;
    }
    return done;
}

void CloseFile(FileHandle file) {
    if (file != kNoFile) CloseHandle(reinterpret_cast<HANDLE>(file));
}

std::string FirstFileWithExtension(const std::string& extension) {
    const std::wstring pattern = L"*" + Utf8ToWide(extension);
    WIN32_FIND_DATAW found{};
    const HANDLE search = FindFirstFileW(pattern.c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return "";
    std::string path;
    do {
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) continue;
        wchar_t full[MAX_PATH * 4] = {};
        if (GetFullPathNameW(found.cFileName, MAX_PATH * 4, full, nullptr) == 0) continue;
        path = WideToUtf8(full);
        break;
    } while (FindNextFileW(search, &found));
    FindClose(search);
    return path;
}

std::string WideToUtf8(const wchar_t* text) {
    if (text == nullptr || text[0] == L'\0') return std::string();
    // Unpaired surrogates become U+FFFD (no WC_ERR_INVALID_CHARS).
    const int length = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (length <= 1) return std::string();
    std::string utf8(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, utf8.data(), length, nullptr, nullptr);
    utf8.resize(static_cast<size_t>(length) - 1);
    return utf8;
}

bool StartSystemReport(const std::string& path) {
    // A quotation mark would end the path's quoted argument and hand the
    // rest to the tool as arguments of its own; no Windows path holds one.
    if (path.empty() || path.find('"') != std::string::npos) return false;
    // The system's diagnostic tool writes its text report (/t) and exits;
    // started hidden and not waited for. CreateProcessW rather than WinExec,
    // which takes only the ANSI code page: the path may hold any character.
    // The tool is named by its full path in the system folder, also as the
    // command line's first argument: a bare name would be looked for in the
    // application's folder and the working folder first, where any program
    // of that name would be started. It runs in the system folder, so that
    // its own search for DLLs meets no working folder of ours; the report's
    // path is therefore made absolute first.
    wchar_t system[MAX_PATH] = {};
    const UINT length = GetSystemDirectoryW(system, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) return false;
    const std::wstring folder(system, length);
    const std::wstring program = folder + L"\\dxdiag.exe";
    const std::wstring relative = WidePath(path);
    if (relative.empty()) return false;
    const DWORD needed = GetFullPathNameW(relative.c_str(), 0, nullptr, nullptr);
    if (needed == 0) return false;
    std::wstring report(needed, L'\0');
    const DWORD written = GetFullPathNameW(relative.c_str(), needed, report.data(), nullptr);
    if (written == 0 || written >= needed) return false;
    report.resize(written);
    std::wstring command = L"\"" + program + L"\" /t \"" + report + L"\"";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESHOWWINDOW;
    startup.wShowWindow = SW_HIDE;
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(program.c_str(), command.data(), nullptr, nullptr, FALSE, 0, nullptr,
                        folder.c_str(), &startup, &process)) {
        return false;
    }
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return true;
}

struct Thread {
    HANDLE handle = nullptr;
    ThreadEntry entry = nullptr;
    void* argument = nullptr;
    HMODULE module = nullptr;
    // Set once the entry has returned and the thread reads nothing of the
    // record any more: what is left runs in the system (the module reference
    // dropped, the thread's end).
    std::atomic<bool> leaving{false};
};

namespace {

// The record of the library's thread running here; null once it has been
// released on this thread, by a teardown of the core that ran inside the
// entry.
thread_local Thread* t_ownRecord = nullptr;

DWORD WINAPI RunThread(void* raw) {
    Thread* thread = static_cast<Thread*>(raw);
    t_ownRecord = thread;
    const HMODULE module = thread->module;  // the record may be gone later
    const DWORD code = thread->entry(thread->argument);
    if (module == nullptr) return code;  // no reference: waited for to its end
    // From here on the record may be released by its joiner, which does not
    // wait for a leaving thread: nothing more is read from it.
    if (t_ownRecord != nullptr) t_ownRecord->leaving = true;
    // The last call leaves through kernel32: the module reference taken at
    // the start is dropped only once no code of the library runs here. When
    // it is the DLL's last reference, the DLL's teardown runs here, inside
    // this call, and finds this thread's record leaving.
    FreeLibraryAndExitThread(module, code);
    return code;
}

}  // namespace

bool StartThread(Thread*& slot, ThreadEntry entry, void* argument) {
    slot = nullptr;
    auto* thread = new (std::nothrow) Thread;
    if (thread == nullptr) return false;
    thread->entry = entry;
    thread->argument = argument;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<LPCWSTR>(&RunThread), &thread->module);
    // Suspended until the record is complete and stored.
    thread->handle = CreateThread(nullptr, 0, RunThread, thread, CREATE_SUSPENDED, nullptr);
    if (thread->handle == nullptr) {
        if (thread->module != nullptr) FreeLibrary(thread->module);
        delete thread;
        return false;
    }
    slot = thread;
    ResumeThread(thread->handle);
    return true;
}

void JoinThread(Thread* thread) {
    if (thread == nullptr) return;
    if (GetThreadId(thread->handle) == GetCurrentThreadId()) {
        // This very thread (the core torn down on it): it cannot wait for
        // its own end, and it must not read the record after its entry.
        if (t_ownRecord == thread) t_ownRecord = nullptr;
    } else if (!thread->leaving) {
        // A leaving thread runs no code of the library any more, and its end
        // may wait for the loader lock that the DLL's teardown holds: it is
        // not waited for. At process exit Windows has already ended every
        // other thread before the DLL's destructors run; the wait then
        // returns at once.
        WaitForSingleObject(thread->handle, INFINITE);
    }
    CloseHandle(thread->handle);
    delete thread;
}

bool CurrentThreadExitCode(uint32_t& code) {
    DWORD value = 0;
    if (!GetExitCodeThread(GetCurrentThread(), &value)) return false;
    code = value;
    return true;
}

}  // namespace VideoConsoleCore::platform
