#include "virtual/mcu/mcu_image.h"

#include "virtual/binary_file.h"

namespace VideoConsoleCore::virtualdev {

namespace {

void PutLe32(std::vector<uint8_t>& v, size_t at, uint32_t value) {
    for (size_t i = 0; i < 4 && at + i < v.size(); ++i) v[at + i] = uint8_t(value >> (8 * i));
}

uint32_t GetLe32(const uint8_t* p) {
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}

}  // namespace

std::vector<uint8_t> BuildMcuImage(const McuImageOptions& o) {
    std::vector<uint8_t> img(o.size);
    // Filler: a pattern that differs from page to page, so that a page
    // written to the wrong address shows in a compare.
    for (size_t i = 0; i < img.size(); ++i) img[i] = uint8_t((i * 7 + (i >> 7)) & 0xFF);
    if (o.validVectors) {
        PutLe32(img, 0, kImageStackTop);
        PutLe32(img, 4, kProgramBase + 0xC1);  // reset handler, Thumb bit set
    } else {
        PutLe32(img, 0, 0xFFFFFFFFu);
        PutLe32(img, 4, 0xFFFFFFFFu);
    }
    auto put = [&img](size_t at, uint8_t value) {
        if (at < img.size()) img[at] = value;
    };
    put(kImageVersionOffset, o.version);
    put(kImageDeviceTypeOffset, o.deviceType);
    put(kImageCodecOffset, o.codec);
    for (size_t i = 0; i < 3; ++i) put(kImageConfigOffset + i, o.config[i]);
    return img;
}

bool WriteMcuImageFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    return WriteBinaryFile(path, bytes);
}

bool McuImageStartable(const uint8_t* image, size_t size) {
    if (size < 8) return false;
    const uint32_t sp = GetLe32(image);
    const uint32_t reset = GetLe32(image + 4);
    const bool spInRam = sp > 0x20000000u && sp <= 0x20010000u && (sp & 3) == 0;
    const bool resetInFlash = (reset & 1) != 0 && reset >= kProgramBase &&
                              reset < kProgramBase + kImageMaxSize;
    return spInRam && resetInFlash;
}

}  // namespace VideoConsoleCore::virtualdev
