#include "run_process.h"

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "support/test_support.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#endif

namespace korvtool_test {

namespace {

std::string ReadText(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    std::string result;
    for (const char c : text.str())
        if (c != '\r') result += c;
    return result;
}

#ifdef _WIN32

// One argument quoted the way the C runtime splits a command line.
std::wstring QuoteArgument(const std::wstring& arg) {
    if (!arg.empty() && arg.find_first_of(L" \t\"") == std::wstring::npos) return arg;
    std::wstring quoted = L"\"";
    size_t backslashes = 0;
    for (const wchar_t c : arg) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        // Backslashes count literally unless a quote follows them.
        quoted.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
        backslashes = 0;
        quoted += c;
    }
    quoted.append(backslashes * 2, L'\\');
    return quoted + L"\"";
}

HANDLE OpenForChild(const std::filesystem::path& file, bool write) {
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    HANDLE handle = CreateFileW(file.wstring().c_str(), write ? GENERIC_WRITE : GENERIC_READ,
                                FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                                write ? CREATE_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                                nullptr);
    if (handle == INVALID_HANDLE_VALUE) throw std::runtime_error("cannot open " + file.string());
    return handle;
}

int Spawn(const std::filesystem::path& program, const std::vector<std::string>& args,
          const std::filesystem::path& workDir, const std::filesystem::path& outFile,
          const std::filesystem::path& errFile, const std::filesystem::path& inFile) {
    std::wstring commandLine = QuoteArgument(program.wstring());
    for (const std::string& arg : args)
        commandLine += L" " + QuoteArgument(std::filesystem::path(arg).wstring());

    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = OpenForChild(inFile, false);
    startup.hStdOutput = OpenForChild(outFile, true);
    startup.hStdError = OpenForChild(errFile, true);
    PROCESS_INFORMATION process{};
    // Under Wine a start now and then fails while the wineserver is busy
    // with the other test processes; a few tries ride that out.
    BOOL started = FALSE;
    DWORD error = 0;
    for (int attempt = 0; attempt < 5 && !started; ++attempt) {
        if (attempt > 0) Sleep(200);
        started = CreateProcessW(program.wstring().c_str(), commandLine.data(), nullptr, nullptr,
                                 TRUE, 0, nullptr, workDir.wstring().c_str(), &startup, &process);
        if (!started) error = GetLastError();
    }
    CloseHandle(startup.hStdInput);
    CloseHandle(startup.hStdOutput);
    CloseHandle(startup.hStdError);
    if (!started) {
        throw std::runtime_error("cannot start " + program.string() + " (error " +
                                 std::to_string(error) + ")");
    }
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD exitCode = 0;
    GetExitCodeProcess(process.hProcess, &exitCode);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return static_cast<int>(exitCode);
}

#else

int Spawn(const std::filesystem::path& program, const std::vector<std::string>& args,
          const std::filesystem::path& workDir, const std::filesystem::path& outFile,
          const std::filesystem::path& errFile, const std::filesystem::path& inFile) {
    std::vector<std::string> argv_text = {program.string()};
    argv_text.insert(argv_text.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : argv_text) argv.push_back(arg.data());
    argv.push_back(nullptr);

    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("cannot fork");
    if (child == 0) {
        // Only async-signal-safe calls from here on.
        const int in = open(inFile.c_str(), O_RDONLY);
        const int out = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (in < 0 || out < 0 || err < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 ||
            dup2(err, 2) < 0 || chdir(workDir.c_str()) != 0)
            _exit(127);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

#endif

}  // namespace

ProcessResult RunProcess(const std::filesystem::path& program, const std::vector<std::string>& args,
                         const std::filesystem::path& workDir) {
    // The captures live apart from the working folder, which a test may
    // want to find untouched.
    const korvsdk_test::TempFolder captures;
    const std::filesystem::path in = captures.path() / "stdin";
    const std::filesystem::path out = captures.path() / "stdout";
    const std::filesystem::path err = captures.path() / "stderr";
    korvsdk_test::WriteFile(in, "");
    ProcessResult result;
    result.exitCode = Spawn(program, args, workDir, out, err, in);
    result.out = ReadText(out);
    result.err = ReadText(err);
    return result;
}

std::filesystem::path ThisProgramFolder() {
#ifdef _WIN32
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0) throw std::runtime_error("cannot find the test program's path");
        if (length < path.size()) {
            path.resize(length);
            break;
        }
        path.resize(path.size() * 2);
    }
    return std::filesystem::path(path).parent_path();
#else
    return std::filesystem::canonical("/proc/self/exe").parent_path();
#endif
}

}  // namespace korvtool_test
