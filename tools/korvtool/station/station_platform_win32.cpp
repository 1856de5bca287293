#include "station_platform.h"

#include <windows.h>

#include "errors.h"

namespace korvtool::station {

struct ChildProcess::Native {
    HANDLE process = nullptr;
    HANDLE output = nullptr;  // read end of the worker's standard output
    DWORD id = 0;
};

namespace {

std::wstring Wide(const std::string& text) {
    if (text.empty()) return {};
    const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                         nullptr, 0);
    std::wstring wide(static_cast<size_t>(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), size);
    return wide;
}

// One argument quoted as the C runtime's command-line parser takes it
// apart again: backslashes are literal except before a quote, where they
// and the quote are escaped.
std::wstring Quoted(const std::wstring& argument) {
    if (!argument.empty() && argument.find_first_of(L" \t\n\v\"") == std::wstring::npos)
        return argument;
    std::wstring quoted = L"\"";
    size_t backslashes = 0;
    for (const wchar_t c : argument) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        quoted.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
        backslashes = 0;
        quoted += c;
    }
    quoted.append(backslashes * 2, L'\\');
    return quoted + L"\"";
}

std::string LastErrorText() { return "Windows error " + std::to_string(GetLastError()); }

}  // namespace

std::string ExitStatus::Describe() const {
    if (!ended) return "still running";
    // A crash ends a Windows process with its exception code as the exit
    // code (0xC0000005 an access violation); abort() exits with 3.
    if (static_cast<unsigned>(code) >= 0xC0000000u) {
        char text[40];
        std::snprintf(text, sizeof text, "exception 0x%08X", static_cast<unsigned>(code));
        return text;
    }
    return "exit status " + std::to_string(code);
}

ChildProcess::ChildProcess(const std::filesystem::path& program,
                           const std::vector<std::string>& arguments,
                           const std::filesystem::path& errorFile,
                           const std::filesystem::path& folder)
    : native_(std::make_unique<Native>()) {
    SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE readEnd = nullptr, writeEnd = nullptr;
    if (!CreatePipe(&readEnd, &writeEnd, &inherit, 0))
        throw Failure("no pipe for a worker: " + LastErrorText());
    SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    // A new file only (CREATE_NEW): an old file or a planted link is not
    // written through.
    HANDLE errorHandle = CreateFileW(errorFile.wstring().c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                                     &inherit, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    HANDLE nullInput = CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   &inherit, OPEN_EXISTING, 0, nullptr);
    if (errorHandle == INVALID_HANDLE_VALUE || nullInput == INVALID_HANDLE_VALUE) {
        const std::string why = LastErrorText();
        for (HANDLE h : {readEnd, writeEnd, errorHandle, nullInput})
            if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
        throw Failure("a worker's files could not be made (" + errorFile.string() + "): " + why);
    }

    std::wstring commandLine = Quoted(program.wstring());
    for (const std::string& argument : arguments) commandLine += L" " + Quoted(Wide(argument));

    // Only the three standard handles are inherited, not whatever else this
    // process has open.
    HANDLE inherited[3] = {nullInput, writeEnd, errorHandle};
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    std::vector<char> storage(size);
    auto* list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage.data());
    const bool listed = InitializeProcThreadAttributeList(list, 1, 0, &size) &&
                        UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST,
                                                  inherited, sizeof inherited, nullptr, nullptr);
    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = nullInput;
    startup.StartupInfo.hStdOutput = writeEnd;
    startup.StartupInfo.hStdError = errorHandle;
    startup.lpAttributeList = listed ? list : nullptr;
    PROCESS_INFORMATION info{};
    // A process group of its own: Ctrl-C in the console reaches the station
    // alone (the new group starts with Ctrl-C ignored).
    const DWORD flags = CREATE_NEW_PROCESS_GROUP | CREATE_UNICODE_ENVIRONMENT |
                        (listed ? EXTENDED_STARTUPINFO_PRESENT : 0);
    const BOOL started = CreateProcessW(program.wstring().c_str(), commandLine.data(), nullptr,
                                        nullptr, TRUE, flags, nullptr,
                                        folder.empty() ? nullptr : folder.c_str(),
                                        &startup.StartupInfo, &info);
    const std::string why = started ? std::string() : LastErrorText();
    if (listed) DeleteProcThreadAttributeList(list);
    CloseHandle(writeEnd);
    CloseHandle(errorHandle);
    CloseHandle(nullInput);
    if (!started) {
        CloseHandle(readEnd);
        throw Failure("a worker could not be started (" + program.string() + "): " + why);
    }
    CloseHandle(info.hThread);
    native_->process = info.hProcess;
    native_->output = readEnd;
    native_->id = info.dwProcessId;
}

ChildProcess::~ChildProcess() {
    if (native_->output != nullptr) CloseHandle(native_->output);
    if (native_->process != nullptr) CloseHandle(native_->process);
}

bool ChildProcess::ReadLines(std::vector<std::string>& lines) {
    char buffer[4096];
    while (!outputEnded_) {
        DWORD available = 0;
        if (!PeekNamedPipe(native_->output, nullptr, 0, nullptr, &available, nullptr)) {
            outputEnded_ = true;  // the worker's end is closed
            break;
        }
        if (available == 0) break;
        DWORD got = 0;
        const DWORD want = available < sizeof buffer ? available : sizeof buffer;
        if (!ReadFile(native_->output, buffer, want, &got, nullptr) || got == 0) {
            outputEnded_ = true;
            break;
        }
        pending_.append(buffer, got);
    }
    TakeLines(lines);
    return !outputEnded_;
}

ExitStatus ChildProcess::Poll() {
    if (status_.ended || native_->process == nullptr) return status_;
    if (WaitForSingleObject(native_->process, 0) == WAIT_OBJECT_0) {
        DWORD code = 0;
        GetExitCodeProcess(native_->process, &code);
        status_.ended = true;
        status_.code = static_cast<int>(code);
    }
    return status_;
}

void ChildProcess::Kill() {
    if (!status_.ended && native_->process != nullptr) TerminateProcess(native_->process, 1);
}

long ChildProcess::Id() const { return static_cast<long>(native_->id); }

std::filesystem::path OwnProgram() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD got = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (got == 0) throw Failure("korvtool cannot find its own program file: " + LastErrorText());
        if (got < path.size()) {
            path.resize(got);
            return std::filesystem::path(path);
        }
        path.resize(path.size() * 2);
    }
}

void WaitForOutput(const std::vector<ChildProcess*>& children, int milliseconds) {
    // Anonymous pipes cannot be waited on; the station's rounds are short.
    (void)children;
    Sleep(static_cast<DWORD>(milliseconds));
}

std::string HostName() {
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
    if (!GetComputerNameW(name, &size) || size == 0) return "station";
    const std::wstring wide(name, size);
    const int bytes = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()),
                                          nullptr, 0, nullptr, nullptr);
    std::string text(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), text.data(), bytes,
                        nullptr, nullptr);
    return text;
}

void SetEnvironment(const std::string& name, const std::string& value) {
    SetEnvironmentVariableW(Wide(name).c_str(), Wide(value).c_str());
    _wputenv_s(Wide(name).c_str(), Wide(value).c_str());
}

bool PrepareTerminal() {
    HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    if (out == INVALID_HANDLE_VALUE || !GetConsoleMode(out, &mode)) return false;
    return (mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0 ||
           SetConsoleMode(out, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

}  // namespace korvtool::station
