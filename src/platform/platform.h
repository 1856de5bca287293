// Operating-system glue. Everything that differs between Windows and the
// other platforms lives behind these few functions, one implementation file
// per platform (platform_win32.cpp, platform_posix.cpp); no other folder of
// the library tests for the platform.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace VideoConsoleCore::platform {

// Writes one text to the debugger channel of the process: OutputDebugStringW
// (the UTF-8 text converted to UTF-16) on Windows; elsewhere the system log
// at debug level (system_log.h), or standard error when the environment
// variable KORVSDK_DEBUG_STDERR is 1.
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

// The user's desktop folder (UTF-8), or "" when it cannot be determined.
std::string DesktopFolder();

// The value of an environment variable as UTF-8; "" when it is unset.
// Windows reads the wide environment: the ANSI one cannot hold every name.
std::string EnvironmentVariable(const char* name);

// ---- Files (firmware images). Paths are UTF-8; Windows opens them wide.
using FileHandle = intptr_t;
inline constexpr FileHandle kNoFile = -1;

// Whether `path` names an existing file (a folder is not one).
bool IsExistingFile(const std::string& path);
// Opens an existing file for reading, shared with other readers; kNoFile
// when it cannot be opened. Never creates a file.
FileHandle OpenFileForReading(const std::string& path);
// The file's size in bytes; false when it cannot be asked.
bool FileSize(FileHandle file, uint64_t& size);
// Reads up to `length` bytes from the current position into `buffer`,
// looping over short reads. Returns the bytes read; `error` is 0, or the
// system's error code when a read failed (kDiskFullError for a full disk).
uint32_t ReadFromFile(FileHandle file, uint8_t* buffer, uint32_t length, uint32_t& error);
void CloseFile(FileHandle file);
inline constexpr uint32_t kDiskFullError = 112;

// ---- Files the library creates: logs and their copies, the system report,
// backups. They go to folders other users may be able to write (the working
// folder is the default log folder), so none of these functions writes
// through a link someone planted at the name: a new file is always made
// exclusively, and on POSIX it is readable by its owner only (0600): logs
// can hold a user's e-mail address, backups the device's firmware.

// Creates a new, empty file beside `target` for writing bytes, named
// `target` + ".part-" + six random characters, exclusively: a name that
// exists (a file, or a link to one) is never opened; another name is tried.
// `partPath` receives the name. Null when no file can be made there. The
// finished file goes to `target` with MoveIntoPlace.
std::FILE* CreatePartFile(const std::string& target, std::string& partPath);
// Opens the log file `path` for appending bytes, creating it when missing.
// A file that is there is appended to only when it is a plain file of the
// current user's own with no other name (hard link), reached without a
// link; otherwise the result is null
// and `refusal` says why ("it is a symbolic link"). Null with an empty
// refusal when the file cannot be opened at all.
std::FILE* OpenOwnFileForAppending(const std::string& path, std::string& refusal);
// Whether files may be put into `folder`. A folder that is a symbolic link
// is followed only when the link and the folder it leads to are both the
// current user's own: a link that another user planted in a shared folder
// would send the user's logs where that user chose. A folder that is no
// link, or no folder at all (its files then fail on their own), passes.
// Windows: every folder passes (see docs/design-notes.md).
bool IsOwnFolderOrNoLink(const std::string& folder);
// Puts the finished file `from` in the place of `to`, replacing what was
// there (a link at `to` is replaced itself, not the file it leads to), in
// one step where the file system allows.
bool MoveIntoPlace(const std::string& from, const std::string& to);
// Deletes a file, quietly when it is not there.
void RemoveFile(const std::string& path);
// The full path of the first regular file in the working folder whose name
// ends in `extension` (".hex"), in the order the system lists the folder;
// "" when there is none.
std::string FirstFileWithExtension(const std::string& extension);

// A wide text (UTF-16 on Windows, UTF-32 elsewhere) as UTF-8; null is "".
// Unpaired surrogates become U+FFFD.
std::string WideToUtf8(const wchar_t* text);

// Starts the system's hardware report, written to `path` (UTF-8) by the
// time it is done. Windows runs its diagnostic tool from the system folder,
// hidden ("dxdiag.exe /t <path>"), which takes several seconds; elsewhere
// the library writes the report itself from sysfs and the kernel before it
// returns. False when nothing could be started (on Linux: the report could
// not be written).
bool StartSystemReport(const std::string& path);

// ---- Threads of the library's own (update worker, lights, previews).
struct Thread;
using ThreadEntry = uint32_t (*)(void* argument);
// Starts `entry(argument)` on a new thread and stores its record in `slot`
// before the entry runs: the thread itself, and a teardown of the core that
// happens to run on it, find the record there. False (the slot null) when
// no thread could be made.
// On Windows the thread holds a reference to the module that contains the
// library while it runs, so that unloading the DLL cannot unmap the code a
// running thread is executing.
bool StartThread(Thread*& slot, ThreadEntry entry, void* argument);
// Waits for the thread to end and releases its record (null: nothing). A
// thread never waits for itself: called on the thread it names (the core
// torn down by exit() in a host's callback, or on Windows by the DLL's last
// reference going with the thread), it releases the record and lets the
// thread end on its own. On Windows it does not wait for a thread that has
// left the library's code either: that thread's end may need the loader
// lock, which the caller holds while the DLL is being unloaded.
void JoinThread(Thread* thread);
// The exit code of the calling thread as the system reports it (while the
// thread runs: "still active", 259). False when the system cannot say.
bool CurrentThreadExitCode(uint32_t& code);
inline constexpr uint32_t kThreadStillActive = 259;

}  // namespace VideoConsoleCore::platform
