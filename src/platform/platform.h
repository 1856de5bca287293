// Operating-system glue. Everything that differs between Windows and the
// other platforms lives behind these few functions, one implementation file
// per platform (platform_win32.cpp, platform_posix.cpp); no other folder of
// the library tests for the platform.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace VideoConsoleCore::platform {

// Writes one text to the debugger channel of the process: OutputDebugStringW
// (the UTF-8 text converted to UTF-16) on Windows, standard error elsewhere.
void WriteDebuggerOutput(std::string_view utf8Text);

// Blocks the calling thread for exactly the given number of milliseconds as
// far as the platform's timer allows; device waits are never padded.
void SleepMilliseconds(uint32_t milliseconds);

struct LocalTime {
    int year = 0, month = 0, day = 0;
    int hour = 0, minute = 0, second = 0;
};

// The current wall-clock time in the local time zone.
LocalTime CurrentLocalTime();

// The path separator used when the library joins folder names.
char PathSeparator();

// The user's desktop folder, or "" when it cannot be determined.
std::string DesktopFolder();

}  // namespace VideoConsoleCore::platform
