// One korvtool at a time on a device. Two programs that talk to the same
// device interleave their reports: a query in the middle of an update's
// flash burst moves the bridge's flash window and spoils the write. Every
// korvtool command that selects a device holds this lock until it ends;
// a second korvtool is refused at once instead of waiting.
//
// Linux: flock() on a file in a folder of the user's own,
// korvtool-lock-<uid> in $XDG_RUNTIME_DIR (when that is the user's) or else
// in the temporary folder; released by the system when the process ends,
// however it ends. A lock that another user could hold or replace is no
// lock: a folder or file that is a link, is not the user's, or that others
// may write is refused (`Problem`), and korvtool then refuses the device.
// Windows: a named mutex in the session's namespace, likewise.
#pragma once

#include <string>

namespace korvtool {

class DeviceLock {
public:
    // `key` names the device (VID, PID and serial number).
    explicit DeviceLock(const std::string& key);
    ~DeviceLock();
    DeviceLock(const DeviceLock&) = delete;
    DeviceLock& operator=(const DeviceLock&) = delete;

    // False when another holder has it (or it could not be made or is not
    // safe: `Problem`).
    bool Held() const { return held_; }
    // Why the lock could not be taken, when it was not for another holder:
    // the file or folder and what is wrong with it.
    const std::string& Problem() const { return problem_; }
    // Where the lock lives, for messages.
    const std::string& Name() const { return name_; }

private:
    bool held_ = false;
    std::string problem_;
    std::string name_;
#ifdef _WIN32
    void* mutex_ = nullptr;
#else
    int fd_ = -1;
#endif
};

}  // namespace korvtool
