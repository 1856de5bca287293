// Runs a program as a child process with its output captured, for tests that
// drive korvtool the way a user or a script does.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace korvtool_test {

struct ProcessResult {
    int exitCode = -1;
    std::string out;  // standard output, "\r\n" turned into "\n"
    std::string err;  // standard error, likewise
};

// Runs `program` with `args` in the working folder `workDir`, standard input
// empty, and waits for it. Throws std::runtime_error when it cannot start.
ProcessResult RunProcess(const std::filesystem::path& program, const std::vector<std::string>& args,
                         const std::filesystem::path& workDir);

// The folder of the running test program: korvtool is built beside it.
std::filesystem::path ThisProgramFolder();

}  // namespace korvtool_test
