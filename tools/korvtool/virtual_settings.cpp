#include "virtual_settings.h"

#include <random>
#include <fstream>
#include <system_error>

#include "errors.h"

namespace korvtool {

std::string BuiltInVirtualSettings() {
    // One virtual device with the library's default identity (VID FFF0,
    // PID 0C01, serial VC00000001) and a locked 1080p60 HDMI input, whose
    // user re-plugs it four seconds after an update last wrote to it (a
    // machine under load may pause an update for a second or two).
    return "DeviceBackend=virtual\n"
           "EnableLocalLogging=0\n"
           "FW_Overwrite=0\n"
           "DevIDNum=1\n"
           "DevDrvID0=USB\\VID_FFF0&PID_0C01\n"
           "VirtualDeviceCount=1\n"
           "Virtual0_HdmiInfo=01 00 00 00 80 07 38 04 3c 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00\n"
           "Virtual0_UsbWidth=1920\n"
           "Virtual0_UsbHeight=1080\n"
           "Virtual0_UsbFrameRate=60\n"
           "Virtual0_UsbColorFormat=2\n"
           "Virtual0_ReplugAfterUpdateMs=4000\n";
}

TemporarySettingsFile::TemporarySettingsFile(const std::string& text) {
    std::error_code error;
    const std::filesystem::path base = std::filesystem::temp_directory_path(error);
    if (error) throw Failure("no temporary folder for the virtual device's settings: " + error.message());
    // A folder name that no other run holds: create_directory fails on an
    // existing one (a link too), so a clash, or a name another user took
    // first, only costs another try. Random names, so that nobody can take
    // them all beforehand; the folder is the user's alone.
    std::random_device random;
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::filesystem::path candidate =
            base / ("korvtool-" + std::to_string(random() % 100000000U));
        if (std::filesystem::create_directory(candidate, error)) {
            folder_ = candidate;
            std::filesystem::permissions(candidate, std::filesystem::perms::owner_all, error);
            break;
        }
    }
    if (folder_.empty()) {
        throw Failure("could not create a folder for the virtual device's settings under " +
                      base.string());
    }
    file_ = folder_ / "setting.cfg";
    std::ofstream out(file_, std::ios::binary);
    out << text;
    if (!out.flush()) {
        std::filesystem::remove_all(folder_, error);
        throw Failure("could not write the virtual device's settings to " + file_.string());
    }
}

TemporarySettingsFile::~TemporarySettingsFile() {
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

}  // namespace korvtool
