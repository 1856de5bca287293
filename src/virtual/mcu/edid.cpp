#include "virtual/mcu/edid.h"

#include <cstring>

namespace VideoConsoleCore::virtualdev {

uint8_t EdidChecksum(const uint8_t* block) {
    unsigned sum = 0;
    for (int i = 0; i < 127; ++i) sum += block[i];
    return static_cast<uint8_t>((256 - (sum & 0xFF)) & 0xFF);
}

bool EdidBlockValid(const uint8_t* block) {
    static const uint8_t header[8] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
    if (std::memcmp(block, header, sizeof header) != 0) return false;
    unsigned sum = 0;
    for (int i = 0; i < 128; ++i) sum += block[i];
    return (sum & 0xFF) == 0;
}

namespace {

// Three letters A..Z packed five bits each, big-endian, as EDID stores the
// maker's code.
void PutMaker(uint8_t* p, const char id[3]) {
    const unsigned v = (unsigned(id[0] - 'A' + 1) << 10) | (unsigned(id[1] - 'A' + 1) << 5) |
                       unsigned(id[2] - 'A' + 1);
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}

// A text descriptor (tag 0xFC name, 0xFF serial): up to 13 characters ended
// by a line feed and padded with blanks.
void PutText(uint8_t* d, uint8_t tag, const char* text) {
    d[0] = d[1] = d[2] = 0;
    d[3] = tag;
    d[4] = 0;
    size_t n = std::strlen(text);
    if (n > 13) n = 13;
    for (size_t i = 0; i < 13; ++i) d[5 + i] = ' ';
    std::memcpy(d + 5, text, n);
    if (n < 13) d[5 + n] = 0x0A;
}

}  // namespace

std::vector<uint8_t> BuildDefaultEdid() {
    std::vector<uint8_t> e(128, 0);
    static const uint8_t header[8] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
    std::memcpy(e.data(), header, 8);
    PutMaker(&e[8], "KRV");
    e[10] = 0x63;  // product code 0x6663, little-endian
    e[11] = 0x66;
    e[12] = 0x01;  // serial number 1
    e[16] = 12;    // week 12 of
    e[17] = 34;    // 1990 + 34
    e[18] = 1;     // EDID 1.3
    e[19] = 3;
    e[20] = 0x80;  // digital input
    e[21] = 53;    // 53 x 30 cm
    e[22] = 30;
    e[23] = 120;   // gamma 2.2
    e[24] = 0x0A;  // RGB colour, preferred timing in the first descriptor
    // Chromaticity of a common sRGB panel.
    static const uint8_t chroma[10] = {0xEE, 0x91, 0xA3, 0x54, 0x4C, 0x99, 0x26, 0x0F, 0x50, 0x54};
    std::memcpy(&e[25], chroma, 10);
    e[35] = 0x21;  // 640x480@60, 800x600@60
    e[36] = 0x08;  // 1024x768@60
    e[37] = 0x00;
    // Standard timings: 1280x720@60 (16:9), 1280x1024@60 (5:4), the rest unused.
    e[38] = (1280 / 8) - 31; e[39] = 0xC0;
    e[40] = (1280 / 8) - 31; e[41] = 0x80;
    for (int i = 42; i < 54; i += 2) { e[i] = 0x01; e[i + 1] = 0x01; }
    // Preferred timing: 1920x1080 60 Hz, 148.5 MHz, 2200x1125 total.
    uint8_t* d = &e[54];
    const unsigned clock = 14850;  // in 10 kHz units
    const unsigned hActive = 1920, hBlank = 280, vActive = 1080, vBlank = 45;
    const unsigned hFront = 88, hSync = 44, vFront = 4, vSync = 5;
    d[0] = uint8_t(clock);
    d[1] = uint8_t(clock >> 8);
    d[2] = uint8_t(hActive);
    d[3] = uint8_t(hBlank);
    d[4] = uint8_t(((hActive >> 8) << 4) | (hBlank >> 8));
    d[5] = uint8_t(vActive);
    d[6] = uint8_t(vBlank);
    d[7] = uint8_t(((vActive >> 8) << 4) | (vBlank >> 8));
    d[8] = uint8_t(hFront);
    d[9] = uint8_t(hSync);
    d[10] = uint8_t(((vFront & 0xF) << 4) | (vSync & 0xF));
    d[11] = uint8_t(((hFront >> 8) << 6) | ((hSync >> 8) << 4) | ((vFront >> 4) << 2) | (vSync >> 4));
    d[12] = uint8_t(531);  // image size 531 x 299 mm
    d[13] = uint8_t(299);
    d[14] = uint8_t(((531 >> 8) << 4) | (299 >> 8));
    d[17] = 0x1E;  // digital separate sync, both polarities positive
    // Range limits: 50-75 Hz vertical, 30-83 kHz horizontal, 170 MHz.
    uint8_t* r = &e[72];
    r[3] = 0xFD;
    r[5] = 50; r[6] = 75; r[7] = 30; r[8] = 83; r[9] = 17;
    r[10] = 0x00;
    r[11] = 0x0A;
    for (int i = 12; i < 18; ++i) r[i] = ' ';
    PutText(&e[90], 0xFC, "VIRTUAL CAP");
    PutText(&e[108], 0xFF, "KRV0001");
    e[126] = 0;  // no extension block
    e[127] = EdidChecksum(e.data());
    return e;
}

}  // namespace VideoConsoleCore::virtualdev
