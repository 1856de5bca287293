#include "station_platform.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "errors.h"

extern char** environ;

namespace korvtool::station {

struct ChildProcess::Native {
    pid_t pid = -1;
    int output = -1;  // read end of the worker's standard output
};

std::string ExitStatus::Describe() const {
    if (!ended) return "still running";
    if (signal != 0) {
        const char* name = sigabbrev_np(signal);
        return "killed by signal " + std::to_string(signal) +
               (name != nullptr ? std::string(" (SIG") + name + ")" : std::string());
    }
    return "exit status " + std::to_string(code);
}

ChildProcess::ChildProcess(const std::filesystem::path& program,
                           const std::vector<std::string>& arguments,
                           const std::filesystem::path& errorFile,
                           const std::filesystem::path& folder)
    : native_(std::make_unique<Native>()) {
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0)
        throw Failure(std::string("no pipe for a worker: ") + std::strerror(errno));
    fcntl(pipeEnds[0], F_SETFL, O_NONBLOCK);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 1);
    // A new file only: a planted link or an old file in the run's folder is
    // refused rather than followed or overwritten.
    posix_spawn_file_actions_addopen(&actions, 2, errorFile.c_str(),
                                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (!folder.empty()) posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // Its own process group: Ctrl-C at the terminal reaches the station
    // alone. (The worker ignores SIGPIPE itself: one whose station was
    // killed goes on writing the device instead of dying at its next line.)
    posix_spawnattr_setpgroup(&attributes, 0);
    sigset_t ignored, defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGTERM);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    sigemptyset(&ignored);
    posix_spawnattr_setsigmask(&attributes, &ignored);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF |
                                              POSIX_SPAWN_SETSIGMASK);

    std::vector<std::string> texts{program.string()};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& text : texts) argv.push_back(text.data());
    argv.push_back(nullptr);
    const int failed =
        posix_spawn(&native_->pid, program.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(pipeEnds[1]);
    if (failed != 0) {
        close(pipeEnds[0]);
        throw Failure("a worker could not be started (" + program.string() +
                      "): " + std::strerror(failed));
    }
    native_->output = pipeEnds[0];
}

ChildProcess::~ChildProcess() {
    if (native_->output >= 0) close(native_->output);
    // An ended worker is reaped; a running one is left to finish its write
    // (and is reaped by init once this process is gone).
    if (!status_.ended && native_->pid > 0) Poll();
}

bool ChildProcess::ReadLines(std::vector<std::string>& lines) {
    char buffer[4096];
    while (!outputEnded_) {
        const ssize_t got = read(native_->output, buffer, sizeof buffer);
        if (got > 0) {
            pending_.append(buffer, static_cast<size_t>(got));
            continue;
        }
        if (got < 0 && errno == EINTR) continue;
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
        outputEnded_ = true;  // end of file, or an error that ends it as well
    }
    TakeLines(lines);
    return !outputEnded_;
}

ExitStatus ChildProcess::Poll() {
    if (status_.ended || native_->pid <= 0) return status_;
    int how = 0;
    pid_t got;
    do got = waitpid(native_->pid, &how, WNOHANG);
    while (got < 0 && errno == EINTR);
    if (got == native_->pid) {
        status_.ended = true;
        if (WIFSIGNALED(how)) status_.signal = WTERMSIG(how);
        if (WIFEXITED(how)) status_.code = WEXITSTATUS(how);
    }
    return status_;
}

void ChildProcess::Kill() {
    if (!status_.ended && native_->pid > 0) kill(native_->pid, SIGKILL);
}

long ChildProcess::Id() const { return native_->pid; }

std::filesystem::path OwnProgram() {
    std::error_code error;
    std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) throw Failure("korvtool cannot find its own program file to start workers: " +
                             error.message());
    return self;
}

void WaitForOutput(const std::vector<ChildProcess*>& children, int milliseconds) {
    std::vector<pollfd> fds;
    for (ChildProcess* child : children)
        if (!child->outputEnded_) fds.push_back({child->native_->output, POLLIN, 0});
    if (fds.empty()) {
        usleep(static_cast<useconds_t>(milliseconds) * 1000);
        return;
    }
    poll(fds.data(), fds.size(), milliseconds);
}

std::string HostName() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "station";
    return name;
}

bool PrepareTerminal() { return true; }

void SetEnvironment(const std::string& name, const std::string& value) {
    setenv(name.c_str(), value.c_str(), 1);
}

}  // namespace korvtool::station
