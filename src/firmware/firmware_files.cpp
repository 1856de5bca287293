// Choosing the firmware files: a flash image (*.hex) for the bridge's SPI
// flash, a program image (*.bin) for the microcontroller. The file is read
// whole, its identity and version are checked against the selected device
// under FW_Overwrite, and an accepted file is kept for the update start.
//
// A refused file never replaces the accepted one: the path, version and
// valid flag of an earlier accepted file of the same kind stay as they were.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "core/VideoConsoleCoreImp.h"
#include "firmware/firmware_file.h"
#include "firmware/update_common.h"
#include "firmware/version_rules.h"
#include "platform/platform.h"

namespace VideoConsoleCore {

namespace {

using firmware::McuIdentity;

// The texts of one kind; "USB" or "MCU" stand where the kind is named.
struct KindTexts {
    const char* name;
    const char* setHeading;
    const char* pathLabel;
    const char* notAFile;
    const char* tooShort;
    const char* noValidFile;
};
constexpr KindTexts kUsbTexts{"USB", "-------Set USB Update File-------",
                              "Selected USB firmware file path:",
                              "Set file failed! Selected USB firmware file is not a valid file!\n",
                              "The selected file is too short to be a flash image.",
                              "No valid Hex file has been set!"};
constexpr KindTexts kMcuTexts{"MCU", "-------Set MCU Update File-------",
                              "Selected MCU firmware file path:",
                              "Set file failed! Selected MCU firmware file is not a valid file!\n",
                              "The selected file is too short to be a program image.",
                              "No valid Bin file has been set!"};

enum class Outcome { Forced, Accepted, VersionLower, IdentityWrong, CodecWrong };

// The record text and the message of an outcome.
std::string RecordText(Outcome outcome, bool usb, const std::string& version) {
    switch (outcome) {
        case Outcome::Forced:
        case Outcome::Accepted: return version;
        case Outcome::VersionLower:
            return "The selected file version is lower than your current version.";
        case Outcome::IdentityWrong:
            return usb ? "Selected USB firmware file does not match the current device !"
                       : "Set file failed! Selected MCU firmware file does not match the current "
                         "device!";
        case Outcome::CodecWrong:
            return "The Audio Codec of the selected file does not match the current device.";
    }
    return "";
}

std::string Message(Outcome outcome, const char* kind, const std::string& version) {
    const char* format = "";
    switch (outcome) {
        case Outcome::Forced: format = "Force Overwrite Mode! %s FW file version: %s"; break;
        case Outcome::Accepted:
            format = "Set file successfully, and %s FW file version: %s";
            break;
        case Outcome::VersionLower:
            format =
                "Set file failed! The selected file version is lower than your current "
                "version, and %s FW file version: %s";
            break;
        case Outcome::IdentityWrong:
            format =
                "Set file failed! Selected %s firmware file does not match the current "
                "device, and %s FW file version: %s";
            break;
        case Outcome::CodecWrong:
            format =
                "Set file failed! The Audio Codec of the selected file does not match the "
                "current device, and %s FW file version: %s";
            break;
    }
    char text[320];
    if (outcome == Outcome::IdentityWrong) {
        std::snprintf(text, sizeof text, format, kind, kind, version.c_str());
    } else {
        std::snprintf(text, sizeof text, format, kind, version.c_str());
    }
    return text;
}

uint16_t Le16(const uint8_t* at) { return static_cast<uint16_t>(at[0] | (at[1] << 8)); }

// The USB image's identity against the selected device; says what the file
// was built for.
bool UsbIdentityMatches(VideoConsoleCoreImp& core) {
    const uint16_t vid = Le16(g_FileString + firmware::kImageVidOffset);
    const uint16_t pid = Le16(g_FileString + firmware::kImagePidOffset);
    char line[64];
    std::snprintf(line, sizeof line, "FILE VID: 0x%04X  PID: 0x%04X", vid, pid);
    core.DebugOut(line);
    core.LogInfo(line);
    return vid == core.m_selectedVid && pid == core.m_selectedPid;
}

Outcome CheckUsbFile(VideoConsoleCoreImp& core, const std::string& overwrite,
                     const std::string& version) {
    if (!UsbIdentityMatches(core)) return Outcome::IdentityWrong;
    return firmware::UsbVersionAccepted(overwrite, core.m_usbFwVersion, version)
               ? Outcome::Accepted
               : Outcome::VersionLower;
}

Outcome CheckMcuFile(VideoConsoleCoreImp& core, const std::string& overwrite,
                     const std::string& version) {
    const McuIdentity identity =
        firmware::CheckMcuIdentity(core.m_mcuFwVersion, version, core.m_deviceModel);
    if (identity == McuIdentity::Wrong) return Outcome::IdentityWrong;
    if (identity == McuIdentity::CodecDiffers && overwrite != "2") return Outcome::CodecWrong;
    return firmware::McuVersionAccepted(overwrite, core.m_mcuFwVersion, version)
               ? Outcome::Accepted
               : Outcome::VersionLower;
}

// The version text of the file in g_FileString; "" when the file is too
// short to hold what the checks read.
bool ImageLongEnough(bool usb) {
    return g_dwRead >= (usb ? firmware::kUsbImageMinimumSize : firmware::kMcuImageMinimumSize);
}
// The file's version text; bytes the file does not reach read as 0.
std::string ImageVersion(bool usb) {
    const size_t size = g_FileString != nullptr ? g_dwRead : 0;
    return usb ? firmware::UsbImageVersionText(g_FileString, size)
               : firmware::McuImageVersionText(g_FileString, size);
}

}  // namespace

bool VideoConsoleCoreImp::SetFirmwareFile(const char* path, FirmwareKind kind) {
    if (kind != kFirmwareUsbHex && kind != kFirmwareMcuBin) return false;
    if (!RequireIdleDevice(kRefuseSetFile)) return false;
    const bool usb = kind == kFirmwareUsbHex;
    const KindTexts& texts = usb ? kUsbTexts : kMcuTexts;

    LogInfo(texts.setHeading);
    LogInfo(texts.pathLabel);
    LogInfo(path != nullptr ? path : "");

    const std::string file = path != nullptr ? path : "";
    if (!platform::IsExistingFile(file) || !firmware::ReadFirmwareFile(*this, file)) {
        Report(texts.notAFile);
        firmware::CloseFirmwareFile(*this);
        return false;
    }

    // A file too short to hold the fields the checks read is no image of
    // this device; only force mode takes it, reading what it lacks as 0.
    Outcome outcome = Outcome::IdentityWrong;
    std::string version;
    const std::string overwrite = Setting("FW_Overwrite");
    if (!ImageLongEnough(usb)) {
        Report(texts.tooShort);
        if (overwrite == "99") {
            version = ImageVersion(usb);
            outcome = Outcome::Forced;
        }
    } else {
        version = ImageVersion(usb);
        if (overwrite == "99") {
            outcome = Outcome::Forced;
        } else {
            outcome = usb ? CheckUsbFile(*this, overwrite, version)
                          : CheckMcuFile(*this, overwrite, version);
        }
    }

    const bool accepted = outcome == Outcome::Forced || outcome == Outcome::Accepted;
    if (accepted) {
        (usb ? m_usbFilePath : m_mcuFilePath) = file;
        (usb ? m_usbFileVersion : m_mcuFileVersion) = version;
        (usb ? m_usbFileFingerprint : m_mcuFileFingerprint) = firmware::FileFingerprint();
        (usb ? m_usbFileValid : m_mcuFileValid) = 1;
    }
    const std::string record = RecordText(outcome, usb, version);
    Report(Message(outcome, texts.name, version));
    NotifyFwUpdateState(usb ? record.c_str() : nullptr, usb ? nullptr : record.c_str(), nullptr,
                        nullptr);
    // An accepted file is read again when its update starts: its buffer
    // stays for that.
    if (accepted) {
        firmware::CloseFirmwareFileKeepingBuffer(*this);
    } else {
        firmware::CloseFirmwareFile(*this);
    }

    // A USB image of this device answers true even when its version is
    // refused (nothing is armed then); the MCU answer is the acceptance.
    if (usb) return outcome != Outcome::IdentityWrong;
    return accepted;
}

bool VideoConsoleCoreImp::GetFirmwareFileVersion(std::string& text, FirmwareKind kind) {
    text.clear();
    if (!RequireIdleDevice(kRefuseFileVersion)) return false;
    if (kind != kFirmwareUsbHex && kind != kFirmwareMcuBin) return false;
    const bool usb = kind == kFirmwareUsbHex;
    if ((usb ? m_usbFileValid : m_mcuFileValid) != 0) {
        text = usb ? m_usbFileVersion : m_mcuFileVersion;
        NotifyFwUpdateState(usb ? text.c_str() : nullptr, usb ? nullptr : text.c_str(), nullptr,
                            nullptr);
        return true;
    }
    const char* none = (usb ? kUsbTexts : kMcuTexts).noValidFile;
    NotifyFwUpdateState(usb ? none : nullptr, usb ? nullptr : none, nullptr, nullptr);
    return false;
}

namespace {

// Why the start-up scan must not arm the file in g_FileString for the
// selected device; "" when its identity fits (force mode takes anything).
// The scan checks no version: an older image of the right device is armed.
std::string ScanRefusal(VideoConsoleCoreImp& core, bool usb, const std::string& version) {
    const std::string overwrite = core.Setting("FW_Overwrite");
    if (overwrite == "99") return "";
    if (!core.m_selected) return "no device is selected to check it against";
    char text[160] = "";
    if (usb) {
        const uint16_t vid = Le16(g_FileString + firmware::kImageVidOffset);
        const uint16_t pid = Le16(g_FileString + firmware::kImagePidOffset);
        if (vid == core.m_selectedVid && pid == core.m_selectedPid) return "";
        std::snprintf(text, sizeof text,
                      "it is a flash image for VID 0x%04X PID 0x%04X, the device is 0x%04X 0x%04X",
                      vid, pid, core.m_selectedVid, core.m_selectedPid);
        return text;
    }
    const McuIdentity identity =
        firmware::CheckMcuIdentity(core.m_mcuFwVersion, version, core.m_deviceModel);
    if (identity == McuIdentity::Match || (identity == McuIdentity::CodecDiffers && overwrite == "2"))
        return "";
    std::snprintf(text, sizeof text, "program image %s is for another %s than this board's",
                  version.c_str(), identity == McuIdentity::Wrong ? "device type" : "audio codec");
    return text;
}

}  // namespace

void VideoConsoleCoreImp::ScanWorkingFolderForFirmware() {
    for (const bool usb : {true, false}) {
        const std::string file = platform::FirstFileWithExtension(usb ? ".hex" : ".bin");
        bool taken = false;
        if (!file.empty() && firmware::ReadFirmwareFile(*this, file) && ImageLongEnough(usb)) {
            const std::string version = ImageVersion(usb);
            (usb ? m_usbFilePath : m_mcuFilePath) = file;
            (usb ? m_usbFileVersion : m_mcuFileVersion) = version;
            (usb ? m_usbFileFingerprint : m_mcuFileFingerprint) = firmware::FileFingerprint();
            // A stray image of another model in the folder must never be
            // written by a later tool-core update start: only a file whose
            // identity fits the selected device is armed.
            const std::string refusal = ScanRefusal(*this, usb, version);
            taken = refusal.empty();
            if (!taken) Report("Not taking " + file + " for an update: " + refusal + ".\n");
        }
        firmware::CloseFirmwareFile(*this);
        (usb ? m_usbFileValid : m_mcuFileValid) = taken ? 1 : 0;
    }
}

}  // namespace VideoConsoleCore
