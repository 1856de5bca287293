// hidcaps: prints what Windows' HidP_GetCaps and HidP_GetValueCaps would
// report for one top-level collection of a raw HID report descriptor.
//
//   hidcaps [--collection PAGE:USAGE] DESCRIPTOR_FILE
//
// PAGE and USAGE are hexadecimal (0xFF00:0x0001 or FF00:1); without
// --collection the first top-level collection is shown. Output:
//
//   Input ReportByteLength=<n> ValueCaps=<n>
//   Output ReportByteLength=<n> ValueCaps=<n>
//   Feature ReportByteLength=<n> ValueCaps=<n>
//   LinkCollectionNodes=<n>
//   <Type> ValueCap ReportID=<n> UsagePage=0x<hhhh> Usage=0x<hhhh> LinkCollection=<n> BitSize=<n> ReportCount=<n>
//
// one ValueCap line per value capability, Input first, then Output, then
// Feature, each in Windows' order (a range shows its minimum usage).
// Exit status: 0 success, 1 unreadable or malformed descriptor or no such
// collection, 2 bad command line.
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hid/descriptor/hidp.h"
#include "hid/descriptor/report_descriptor.h"
#include "platform/program_dll_search.h"

namespace {

using namespace VideoConsoleCore::hid;

constexpr const char* kUsage = "usage: hidcaps [--collection PAGE:USAGE] DESCRIPTOR_FILE\n";

int UsageError() {
    std::fputs(kUsage, stderr);
    return 2;
}

std::optional<uint16_t> ParseHex16(std::string_view text) {
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) text.remove_prefix(2);
    if (text.empty()) return std::nullopt;
    uint32_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (ec != std::errc{} || end != text.data() + text.size() || value > 0xFFFF) return std::nullopt;
    return static_cast<uint16_t>(value);
}

struct Selection {
    uint16_t page = 0;
    uint16_t usage = 0;
};

std::optional<Selection> ParseSelection(std::string_view text) {
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    const auto page = ParseHex16(text.substr(0, colon));
    const auto usage = ParseHex16(text.substr(colon + 1));
    if (!page || !usage) return std::nullopt;
    return Selection{*page, *usage};
}

bool ReadFile(const char* path, std::vector<uint8_t>& bytes) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    // Anything beyond the longest descriptor is an error anyway; reading one
    // byte more lets the parser say so without loading a huge file.
    bytes.resize(kMaxDescriptorBytes + 1);
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (in.bad()) return false;
    bytes.resize(static_cast<size_t>(in.gcount()));
    return true;
}

void Print(const TopLevelCollection& tlc) {
    constexpr ReportType kTypes[] = {ReportType::Input, ReportType::Output, ReportType::Feature};
    constexpr const char* kNames[] = {"Input", "Output", "Feature"};
    Caps caps;
    GetCaps(tlc, caps);
    const uint16_t lengths[] = {caps.InputReportByteLength, caps.OutputReportByteLength,
                                caps.FeatureReportByteLength};
    const uint16_t counts[] = {caps.NumberInputValueCaps, caps.NumberOutputValueCaps,
                               caps.NumberFeatureValueCaps};
    for (int t = 0; t < 3; ++t) {
        std::printf("%s ReportByteLength=%u ValueCaps=%u\n", kNames[t], unsigned{lengths[t]},
                    unsigned{counts[t]});
    }
    std::printf("LinkCollectionNodes=%u\n", unsigned{caps.NumberLinkCollectionNodes});
    for (int t = 0; t < 3; ++t) {
        for (const ValueCaps& v : ValueCapsOf(tlc, kTypes[t])) {
            std::printf(
                "%s ValueCap ReportID=%u UsagePage=0x%04X Usage=0x%04X LinkCollection=%u "
                "BitSize=%u ReportCount=%u\n",
                kNames[t], unsigned{v.ReportID}, unsigned{v.UsagePage}, unsigned{v.UsageMin},
                unsigned{v.LinkCollection}, unsigned{v.BitSize}, unsigned{v.ReportCount});
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    VideoConsoleCore::platform::RestrictProgramDllSearch();
    std::optional<Selection> selection;
    const char* file = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0) {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (std::strcmp(argv[i], "--collection") == 0) {
            if (i + 1 >= argc || selection) return UsageError();
            selection = ParseSelection(argv[++i]);
            if (!selection) return UsageError();
        } else if (argv[i][0] == '-' && argv[i][1] != '\0') {
            return UsageError();
        } else {
            if (file) return UsageError();
            file = argv[i];
        }
    }
    if (!file) return UsageError();

    std::vector<uint8_t> bytes;
    if (!ReadFile(file, bytes)) {
        std::fprintf(stderr, "hidcaps: cannot read %s\n", file);
        return 1;
    }
    const ParsedDescriptor parsed = ParseReportDescriptor(bytes);
    if (!parsed.Ok()) {
        std::fprintf(stderr, "hidcaps: %s: %s\n", file, parsed.error.c_str());
        return 1;
    }
    const TopLevelCollection* tlc = &parsed.collections.front();
    if (selection) {
        tlc = FindTopLevelCollection(parsed, selection->page, selection->usage);
        if (!tlc) {
            std::fprintf(stderr, "hidcaps: %s: no top-level collection 0x%04X:0x%04X\n", file,
                         unsigned{selection->page}, unsigned{selection->usage});
            return 1;
        }
    }
    Print(*tlc);
    return 0;
}
