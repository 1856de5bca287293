#include "make_image.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <random>
#include <system_error>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>
#else
#include <fcntl.h>
#include <unistd.h>
#endif

#include "errors.h"
#include "virtual/device/usb_image.h"
#include "virtual/mcu/mcu_image.h"

namespace korvtool {

namespace vd = VideoConsoleCore::virtualdev;

namespace {

// A name in FILE's folder that no file has, created for writing: an
// exclusive create of a random name, so that nothing planted in the folder
// (a link at a name korvtool would use) is written through. Returns the
// open descriptor, or -1.
int CreateUniqueBeside(const std::string& file, std::string& part) {
    std::random_device random;
    for (int attempt = 0; attempt < 32; ++attempt) {
        char suffix[24];
        std::snprintf(suffix, sizeof suffix, ".%08x.part", static_cast<unsigned>(random()));
        part = file + suffix;
#ifdef _WIN32
        const int fd = _wopen(std::filesystem::path(part).c_str(),
                              _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY, _S_IREAD | _S_IWRITE);
#else
        const int fd = open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
#endif
        if (fd >= 0 || errno != EEXIST) return fd;
    }
    return -1;
}

bool WriteAll(int fd, const std::vector<uint8_t>& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const size_t chunk = std::min<size_t>(bytes.size() - done, 1 << 20);
#ifdef _WIN32
        const int written = _write(fd, bytes.data() + done, static_cast<unsigned>(chunk));
#else
        const ssize_t written = write(fd, bytes.data() + done, chunk);
#endif
        if (written <= 0) return false;
        done += static_cast<size_t>(written);
    }
    return true;
}

// The version is said in the form update, info and the history use.
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

// Writes through a temporary name, so that FILE is either the whole image
// or what it was before. The rename replaces whatever is at FILE, a link
// too, without writing through it.
void WriteInPlace(const std::string& file, const std::vector<uint8_t>& bytes) {
    std::string part;
    const int fd = CreateUniqueBeside(file, part);
    std::error_code error;
    bool written = fd >= 0 && WriteAll(fd, bytes);
#ifdef _WIN32
    if (fd >= 0 && _close(fd) != 0) written = false;
#else
    if (fd >= 0 && close(fd) != 0) written = false;
#endif
    if (!written) {
        if (fd >= 0) std::filesystem::remove(part, error);
        throw Failure("could not write '" + file + "': check that its folder exists and can be "
                      "written, and that the disk has room");
    }
    std::filesystem::rename(part, file, error);
    if (error) {
        std::filesystem::remove(part, error);
        throw Failure("could not put the image in place as '" + file + "': " + error.message());
    }
}


CommandResult MakeUsbImage(const UsbImageRequest& request) {
    if (request.version.empty() || request.version.size() > 16)
        throw UsageError("the version text must have 1 to 16 characters, as 01.00.02.00.0000");
    vd::UsbImageOptions options;
    options.versionText = request.version;
    options.vid = request.vid;
    options.pid = request.pid;
    options.modelCode = request.modelCode;
    const std::vector<uint8_t> image = vd::BuildUsbImage(options);
    WriteInPlace(request.file, image);
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
    WriteInPlace(request.file, image);
    char version[12];
    std::snprintf(version, sizeof version, "%02x.%02x.%02x", request.deviceType, request.version,
                  request.codec);
    return Made("mcu", request.file, image.size(), version);
}

}  // namespace korvtool
