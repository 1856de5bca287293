#include "virtual/device/usb_image.h"

#include <algorithm>

#include "virtual/binary_file.h"

namespace VideoConsoleCore::virtualdev {

namespace {

// Writes into the image; bytes past its end are left out.
class ImageWriter {
public:
    explicit ImageWriter(std::vector<uint8_t>& image) : image_(image) {}

    void Bytes(uint64_t at, const uint8_t* data, size_t count) {
        for (size_t i = 0; i < count && at + i < image_.size(); ++i) image_[at + i] = data[i];
    }
    void Le16(uint64_t at, uint16_t value) {
        const uint8_t b[2] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
        Bytes(at, b, 2);
    }
    void Le32(uint64_t at, uint32_t value) {
        const uint8_t b[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                              static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
        Bytes(at, b, 4);
    }
    void Be32(uint64_t at, uint32_t value) {
        const uint8_t b[4] = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                              static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
        Bytes(at, b, 4);
    }
    // Two leading bytes, then up to 16 characters as UTF-16LE (the rest of
    // the 16 units zero): the shape of the identification block and of a
    // 34-byte string descriptor alike.
    void Utf16Record(uint64_t at, uint8_t first, uint8_t second, const std::string& text) {
        uint8_t record[2 + 32] = {first, second};
        for (size_t i = 0; i < text.size() && i < 16; ++i) {
            record[2 + 2 * i] = static_cast<uint8_t>(text[i]);
        }
        Bytes(at, record, sizeof record);
    }

private:
    std::vector<uint8_t>& image_;
};

}  // namespace

std::vector<uint8_t> BuildUsbImage(const UsbImageOptions& o) {
    using namespace flash_layout;
    std::vector<uint8_t> image(o.size, 0xFF);
    ImageWriter put(image);

    put.Le32(kConfigBlock, o.configWord);

    // Firmware body, then its header over it. No body byte reads as erased,
    // so a body cut short shows.
    uint32_t seed = 0;
    for (const char c : o.versionText) seed = seed * 31 + static_cast<uint8_t>(c);
    const uint64_t body = std::min<uint64_t>(uint64_t{o.headerLength} + o.bootSize, kFirmwareLength);
    for (uint64_t i = 0; i < body && kFirmwareStart + i < image.size(); ++i) {
        image[kFirmwareStart + i] = static_cast<uint8_t>((i * 13 + (i >> 9) + seed) % 0xFF);
    }
    put.Be32(kHeaderLengthAt, o.headerLength);
    put.Be32(kBootSizeAt, o.bootSize);

    uint8_t text[16] = {};
    std::copy_n(o.versionText.begin(), std::min<size_t>(o.versionText.size(), 16), text);
    put.Bytes(kPrivateStart, text, sizeof text);
    put.Bytes(o.infoBase, text, sizeof text);

    put.Le16(kVidAt, o.vid);
    put.Le16(kPidAt, o.pid);
    if (!o.slot3Text.empty()) put.Utf16Record(kSlot3At, 2 + 32, 3, o.slot3Text);
    put.Utf16Record(uint64_t{o.infoBase} + kInfoBlockOffset, o.modelCode, o.flashType,
                    o.versionText);
    return image;
}

bool WriteUsbImageFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    return WriteBinaryFile(path, bytes);
}

}  // namespace VideoConsoleCore::virtualdev
