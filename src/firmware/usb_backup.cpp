// The flash backup: reads the bridge chip's whole SPI flash into a flash
// image (*.hex is the flash byte for byte), so that a device can be put
// back as it was with a USB update of that file.
//
// The read runs on the caller's thread and holds the device state at 3 for
// its length, so no update, query or second backup can interleave with it.
// The image is written to a new file of its own beside its target
// ("<target>.part-" and six random characters: a link planted at a name is
// never written through, and the file is readable by its owner only) and
// renamed into place only when every byte has arrived: a target file is
// whole or absent.
#include <cinttypes>
#include <cstdio>
#include <string>

#include "core/VideoConsoleCoreImp.h"
#include "firmware/update_common.h"
#include "hid/flash_identification.h"
#include "hid/report_protocol.h"
#include "platform/platform.h"

namespace VideoConsoleCore {

namespace {

constexpr uint8_t kCaseWhole = 1;
constexpr const char* kReadingText = "USB flash is being read..";

class BackupWriter {
public:
    BackupWriter(VideoConsoleCoreImp& core, std::string path)
        : core_(core), path_(std::move(path)) {}

    // False with the reason in `failure`.
    bool Run(std::string& failure) {
        if (!ReadFlashIdentification(core_)) {
            failure = "The flash part could not be identified; nothing was read.";
            return false;
        }
        const VideoConsoleCoreImp::FlashDevice& part = core_.m_flashDevice;
        const uint64_t size =
            uint64_t{part.sectorSize} * part.sectorsPerBlock * part.totalBlocks;
        if (size == 0 || size > UINT32_MAX) {
            failure = "The flash part's size is unknown; nothing was read.";
            return false;
        }
        std::FILE* file = platform::CreatePartFile(path_, partial_);
        if (file == nullptr) {
            failure = "Cannot create a file beside " + path_ + "; check the folder and its permissions.";
            return false;
        }
        core_.m_dumpFile = file;
        const bool read = Read(static_cast<uint32_t>(size));
        // A burst whose write to the file failed has closed the file itself.
        const bool fileFailed = core_.m_dumpFile == nullptr;
        const bool closed = !fileFailed && std::fclose(core_.m_dumpFile) == 0;
        core_.m_dumpFile = nullptr;
        if (!read || !closed) {
            platform::RemoveFile(partial_);
            failure = fileFailed || read
                          ? "Writing " + partial_ + " failed (is the disk full?); no backup was written."
                          : "Reading the flash failed; no backup was written.";
            return false;
        }
        if (!platform::MoveIntoPlace(partial_, path_)) {
            platform::RemoveFile(partial_);
            failure = "Cannot put the backup in place as " + path_ + ".";
            return false;
        }
        char text[64];
        std::snprintf(text, sizeof text, "0x%" PRIx64 " bytes", size);
        core_.DebugOut("The USB flash (" + std::string(text) + ") has been saved to " + path_ +
                       ".\n");
        return true;
    }

private:
    bool Read(uint32_t size) {
        if (!AccessFlashData(core_, kFlashOpSetUp, kCaseWhole, 0, size, nullptr)) return false;
        float last = 0.0f;
        const BurstProgress step = [&](int, uint32_t done, uint32_t total) {
            const float percent = static_cast<float>(done) / static_cast<float>(total) * 100.0f;
            if (percent - last <= 1.0f) return;
            last = percent;
            core_.NotifyFwUpdateState(nullptr, nullptr, "Reading", kReadingText, percent);
        };
        return BurstFlashAccess(core_, kFlashOpDump, size, nullptr, 0, 0, step) != 0;
    }

    VideoConsoleCoreImp& core_;
    const std::string path_;
    std::string partial_;  // the file being written
};

}  // namespace

bool VideoConsoleCoreImp::ReadUsbFlash(const char* path) {
    if (!RequireInitialized() || !RequireSelected()) return false;
    if (path == nullptr || *path == '\0') {
        DebugOut("Please give the file to save the USB flash in!\n");
        return false;
    }
    if (!firmware::ClaimUpdate(*this)) {
        DebugOut("You are already updating!\n");
        return false;
    }
    NotifyFwUpdateState(nullptr, nullptr, "Reading", kReadingText, 0.0f);
    std::string failure;
    const bool ok = BackupWriter(*this, path).Run(failure);
    m_deviceState = kDeviceStateSelected;
    if (ok) {
        const std::string done = std::string("The USB flash has been saved to ") + path + ".";
        LogInfo(done);
        NotifyFwUpdateState(nullptr, nullptr, "ReadCompleted", done.c_str(), 100.0f);
    } else {
        Report(failure + "\n");
        NotifyFwUpdateState(nullptr, nullptr, "ReadFailed", failure.c_str(), 0.0f);
    }
    return ok;
}

}  // namespace VideoConsoleCore
