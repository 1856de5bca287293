#include "virtual/device/virtual_flash.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>

namespace VideoConsoleCore::virtualdev {

namespace {

using Page = VirtualFlash::Page;
constexpr size_t kPage = VirtualFlash::kPageSize;

const std::shared_ptr<Page>& ErasedPage() {
    static const std::shared_ptr<Page> erased = [] {
        auto page = std::make_shared<Page>();
        page->fill(0xFF);
        return page;
    }();
    return erased;
}

// Factory images by their options, as pages (the erased ones shared). A
// test program makes devices of a few dozen kinds at most; the oldest
// entry goes when the cache is full (devices keep the pages they use).
class FactoryImages {
public:
    std::vector<std::shared_ptr<Page>> Get(const UsbImageOptions& options) {
        std::lock_guard lock(mutex_);
        for (const auto& entry : entries_) {
            if (entry.options == options) return entry.pages;
        }
        const std::vector<uint8_t> image = BuildUsbImage(options);
        std::vector<std::shared_ptr<Page>> pages((image.size() + kPage - 1) / kPage);
        for (size_t i = 0; i < pages.size(); ++i) {
            const size_t at = i * kPage;
            const size_t n = std::min(kPage, image.size() - at);
            const auto begin = image.begin() + static_cast<ptrdiff_t>(at);
            if (n == kPage &&
                std::all_of(begin, begin + static_cast<ptrdiff_t>(n), [](uint8_t b) { return b == 0xFF; })) {
                pages[i] = ErasedPage();
            } else {
                pages[i] = std::make_shared<Page>();
                pages[i]->fill(0xFF);
                std::copy(begin, begin + static_cast<ptrdiff_t>(n), pages[i]->begin());
            }
        }
        if (entries_.size() == kEntries) entries_.erase(entries_.begin());
        entries_.push_back({options, pages});
        return pages;
    }

private:
    static constexpr size_t kEntries = 64;
    struct Entry {
        UsbImageOptions options;
        std::vector<std::shared_ptr<Page>> pages;
    };
    std::mutex mutex_;
    std::vector<Entry> entries_;
};

FactoryImages& TheFactoryImages() {
    static FactoryImages images;
    return images;
}

}  // namespace

VirtualFlash::VirtualFlash(const FlashGeometry& geometry)
    : pages_(static_cast<size_t>((TotalBytes(geometry) + kPageSize - 1) / kPageSize), ErasedPage()),
      size_(static_cast<uint32_t>(TotalBytes(geometry))),
      sectorSize_(geometry.sectorSize) {}

void VirtualFlash::Read(uint32_t address, uint8_t* out, uint32_t count) const {
    const uint32_t inside = address < size_ ? std::min(count, size_ - address) : 0;
    for (uint32_t done = 0; done < inside;) {
        const uint32_t at = address + done;
        const uint32_t n = std::min(inside - done, kPageSize - at % kPageSize);
        std::memcpy(out + done, pages_[at / kPageSize]->data() + at % kPageSize, n);
        done += n;
    }
    std::fill(out + inside, out + count, uint8_t{0xFF});
}

void VirtualFlash::Store(uint32_t address, const uint8_t* data, uint32_t count) {
    for (uint32_t done = 0; done < count;) {
        const uint32_t at = address + done;
        const uint32_t n = std::min(count - done, kPageSize - at % kPageSize);
        std::shared_ptr<Page>& page = pages_[at / kPageSize];
        if (page.use_count() != 1) page = std::make_shared<Page>(*page);
        std::memcpy(page->data() + at % kPageSize, data + done, n);
        done += n;
    }
}

void VirtualFlash::Write(uint32_t address, const uint8_t* data, uint32_t count) {
    if (address >= size_ || count == 0) return;
    const uint32_t n = std::min(count, size_ - address);
    Store(address, data, n);
    NoteWrite(address, n);
}

void VirtualFlash::NoteWrite(uint32_t address, uint32_t n) {
    sectorErases_ += (address + n - 1) / sectorSize_ - address / sectorSize_ + 1;

    // Coverage of the firmware area by the session writing into it.
    using namespace flash_layout;
    const uint64_t end = uint64_t{address} + n;
    if (end <= kFirmwareStart || address >= kFirmwareStart + kFirmwareLength) return;
    const uint32_t from = std::max(address, kFirmwareStart);
    const uint32_t to = static_cast<uint32_t>(std::min<uint64_t>(end, kFirmwareStart + kFirmwareLength));
    if (firmwareSession_ == session_ && from >= firmwareStart_ && from <= firmwareEnd_) {
        firmwareEnd_ = std::max(firmwareEnd_, to);
    } else {
        firmwareSession_ = session_;
        firmwareStart_ = from;
        firmwareEnd_ = to;
    }
}

size_t VirtualFlash::OwnPages() const {
    return static_cast<size_t>(std::count_if(pages_.begin(), pages_.end(),
                                             [](const auto& page) { return page.use_count() == 1; }));
}

void VirtualFlash::EraseAll() {
    std::fill(pages_.begin(), pages_.end(), ErasedPage());
    firmwareStart_ = firmwareEnd_ = 0;
}

uint32_t VirtualFlash::ReadLe32(uint32_t address) const {
    uint8_t b[4];
    Read(address, b, 4);
    return uint32_t{b[0]} | uint32_t{b[1]} << 8 | uint32_t{b[2]} << 16 | uint32_t{b[3]} << 24;
}

uint32_t VirtualFlash::ReadBe32(uint32_t address) const {
    uint8_t b[4];
    Read(address, b, 4);
    return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | uint32_t{b[3]};
}

void VirtualFlash::WriteLe32(uint32_t address, uint32_t value) {
    const uint8_t b[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                          static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
    Write(address, b, 4);
}

UsbImageOptions FactoryImageOptions(const VirtualDeviceConfig& config, uint32_t flashSize) {
    UsbImageOptions o;
    o.size = std::min(o.size, flashSize);
    o.versionText = StoredVersionText(config.usbFwVersion, config.usbFwBuild);
    o.vid = config.vid;
    o.pid = config.pid;
    o.infoBase = config.infoBase;
    o.modelCode = config.modelCode;
    o.flashType = config.flashType;
    o.slot3Text = config.serial;
    return o;
}

void VirtualFlash::WriteFactoryImage(const VirtualDeviceConfig& config) {
    EraseAll();
    BeginWriteSession();
    const UsbImageOptions options = FactoryImageOptions(config, Size());
    const std::vector<std::shared_ptr<Page>> image = TheFactoryImages().Get(options);
    std::copy(image.begin(), image.begin() + static_cast<ptrdiff_t>(std::min(image.size(), pages_.size())),
              pages_.begin());
    // The image ends inside its last page: what follows reads erased.
    if (options.size > 0) NoteWrite(0, options.size);
}

BootChoice DecideBoot(const VirtualFlash& flash, const std::array<uint8_t, 4>& originalVersion) {
    using namespace flash_layout;
    BootChoice choice;
    choice.version = originalVersion;
    if (flash.ReadLe32(kConfigBlock) != kLoadUpdated) return choice;
    const uint32_t header = flash.ReadBe32(kHeaderLengthAt);
    const uint32_t boot = flash.ReadBe32(kBootSizeAt);
    if (header == 0 || boot == 0 || header == 0xFFFFFFFF || boot == 0xFFFFFFFF ||
        uint64_t{header} + boot > kFirmwareLength) {
        return choice;
    }
    if (flash.FirmwareWrittenStart() > kFirmwareStart ||
        flash.FirmwareWrittenEnd() < kFirmwareStart + header + boot) {
        choice.partialFirmware = true;
        return choice;
    }
    char text[17] = {};
    flash.Read(kPrivateStart, reinterpret_cast<uint8_t*>(text), 16);
    std::array<uint8_t, 4> version{};
    if (!ParseStoredVersionText(std::string(text), version)) return choice;
    choice.updated = true;
    choice.version = version;
    return choice;
}

}  // namespace VideoConsoleCore::virtualdev
