// Failures of a korvtool run and the exit status each one ends with.
#pragma once

#include <stdexcept>
#include <string>

namespace korvtool {

enum ExitStatus : int {
    kExitSuccess = 0,
    kExitFailure = 1,  // no device, a refused or failed device operation
    kExitUsage = 2,    // the command line itself is wrong
};

// Thrown by a command that cannot finish. The text is one sentence for the
// user: what went wrong and what to do about it.
class ToolError : public std::runtime_error {
public:
    ToolError(ExitStatus status, const std::string& text)
        : std::runtime_error(text), status_(status) {}
    ExitStatus status() const { return status_; }

private:
    ExitStatus status_;
};

inline ToolError Failure(const std::string& text) { return ToolError(kExitFailure, text); }
inline ToolError UsageError(const std::string& text) { return ToolError(kExitUsage, text); }

}  // namespace korvtool
