#include "make_image.h"

#include <cstdio>
#include <filesystem>
#include <system_error>

#include "errors.h"
#include "virtual/device/usb_image.h"
#include "virtual/mcu/mcu_image.h"

namespace korvtool {

namespace vd = VideoConsoleCore::virtualdev;

namespace {

// Writes through a temporary name, so that FILE is either the whole image
// or what it was before.
template <typename Write>
void WriteInPlace(const std::string& file, const std::vector<uint8_t>& bytes, Write write) {
    const std::string part = file + ".part";
    std::error_code error;
    if (!write(part, bytes)) {
        std::filesystem::remove(part, error);
        throw Failure("could not write '" + file + "': check that its folder exists and can be "
                      "written, and that the disk has room");
    }
    std::filesystem::rename(part, file, error);
    if (error) {
        std::filesystem::remove(part, error);
        throw Failure("could not put the image in place as '" + file + "': " + error.message());
    }
}

CommandResult Made(const char* kind, const std::string& file, size_t size,
                   const std::string& version) {
    CommandResult result;
    result.json = {{"kind", kind}, {"file", file}, {"bytes", size}, {"version", version}};
    result.text = std::string(kind == std::string("usb") ? "USB flash" : "MCU program") +
                  " image written: " + file + " (" + std::to_string(size) + " bytes, version " +
                  version + ")\n";
    return result;
}

}  // namespace

CommandResult MakeUsbImage(const UsbImageRequest& request) {
    if (request.version.empty() || request.version.size() > 16)
        throw UsageError("the version text must have 1 to 16 characters, as 01.00.02.00.0000");
    vd::UsbImageOptions options;
    options.versionText = request.version;
    options.vid = request.vid;
    options.pid = request.pid;
    options.modelCode = request.modelCode;
    const std::vector<uint8_t> image = vd::BuildUsbImage(options);
    WriteInPlace(request.file, image, vd::WriteUsbImageFile);
    return Made("usb", request.file, image.size(), request.version);
}

CommandResult MakeMcuImage(const McuImageRequest& request) {
    if (request.version > 0xFF || request.deviceType > 0xFF || request.codec > 0xFF)
        throw UsageError("--version, --device-type and --codec take 0 to 255");
    if (request.size < 0x80C || request.size > vd::kImageMaxSize)
        throw UsageError("--size takes 2060 to " + std::to_string(vd::kImageMaxSize) +
                         " bytes: the identity bytes sit at 0x800..0x80B");
    vd::McuImageOptions options;
    options.version = static_cast<uint8_t>(request.version);
    options.deviceType = static_cast<uint8_t>(request.deviceType);
    options.codec = static_cast<uint8_t>(request.codec);
    options.size = request.size;
    const std::vector<uint8_t> image = vd::BuildMcuImage(options);
    WriteInPlace(request.file, image, vd::WriteMcuImageFile);
    char version[8];
    std::snprintf(version, sizeof version, "0x%02X", request.version);
    return Made("mcu", request.file, image.size(), version);
}

}  // namespace korvtool
