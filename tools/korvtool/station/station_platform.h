// A station's worker: korvtool started again for one unit. The parent reads
// the worker's standard output (one JSON event per line) through a pipe
// without ever blocking on it, and sends its standard error to a file in
// the run's folder. Workers get no Ctrl-C from the terminal (they run in a
// process group of their own): the station decides when they stop, and a
// worker in the middle of a write is never stopped by a keypress. A killed
// station leaves its workers running to the end of their writes.
//
// Also what else of the system the station needs: the host's name, and a
// terminal that takes the live table's cursor movements.
//
// One file per platform: station_platform_posix.cpp (posix_spawn, pipes,
// waitpid), station_platform_win32.cpp (CreateProcessW, anonymous pipes).
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace korvtool::station {

// How a worker ended.
struct ExitStatus {
    bool ended = false;
    int code = 0;    // its exit code, when it returned one
    int signal = 0;  // POSIX: the signal that ended it, 0 when none
    // "exit status 3", "killed by signal 6 (SIGABRT)", ...
    std::string Describe() const;
    bool Success() const { return ended && signal == 0 && code == 0; }
};

class ChildProcess {
public:
    // Starts `program` with `arguments` (not counting the program itself)
    // in the working folder `folder` ("" = this process's). Standard input
    // is the null device; standard error goes to a new file `errorFile`
    // (refused when something is already there). Throws a Failure when the
    // process cannot be started.
    ChildProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                 const std::filesystem::path& errorFile, const std::filesystem::path& folder = {});
    // Forgets the process without stopping it.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Appends the complete lines the worker has written since the last call
    // (without their line ends); never waits. False once its output has
    // ended (the worker closed it or ended) and every line has been taken.
    bool ReadLines(std::vector<std::string>& lines);
    // Whether the worker has ended, and how; never waits.
    ExitStatus Poll();
    // Ends the worker at once (a worker that stopped reporting).
    void Kill();
    long Id() const;

    struct Native;  // the platform's handles

private:
    // Moves the complete lines of `pending_` (and, once the output has
    // ended, the rest) into `lines`, without their line ends.
    void TakeLines(std::vector<std::string>& lines) {
        for (size_t end; (end = pending_.find('\n')) != std::string::npos;) {
            std::string line = pending_.substr(0, end);
            if (!line.empty() && line.back() == '\r') line.pop_back();
            lines.push_back(std::move(line));
            pending_.erase(0, end + 1);
        }
        if (outputEnded_ && !pending_.empty()) {
            lines.push_back(pending_);
            pending_.clear();
        }
    }

    friend void WaitForOutput(const std::vector<ChildProcess*>& children, int milliseconds);

    std::unique_ptr<Native> native_;
    std::string pending_;  // a line not complete yet
    bool outputEnded_ = false;
    ExitStatus status_;
};

// The full path of the running program, to start workers from.
std::filesystem::path OwnProgram();

// Sleeps up to `milliseconds`, returning early when a worker's output may
// have something (POSIX polls the pipes; Windows sleeps).
void WaitForOutput(const std::vector<ChildProcess*>& children, int milliseconds);

// Sets an environment variable of this process (and its future workers).
void SetEnvironment(const std::string& name, const std::string& value);

// Lets standard output take the cursor movements of the live table
// (a Windows console must be switched to them); false when it cannot.
bool PrepareTerminal();

}  // namespace korvtool::station
