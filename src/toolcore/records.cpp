// The command records of the class face that own memory.
#include <cwchar>
#include <new>
#include <utility>

#include "VideoConsoleCore.h"

namespace VideoConsoleCore {

namespace {

wchar_t* CopyText(const wchar_t* text) {
    if (text == nullptr) return nullptr;
    const size_t length = std::wcslen(text);
    auto* copy = new (std::nothrow) wchar_t[length + 1];
    if (copy != nullptr) std::wmemcpy(copy, text, length + 1);
    return copy;
}

void Replace(wchar_t*& slot, const wchar_t* text) {
    wchar_t* copy = CopyText(text);  // before freeing: `text` may be `slot`
    delete[] slot;
    slot = copy;
}

}  // namespace

FwUpdateCommand::FwUpdateCommand(const FwUpdateCommand& other)
    : BaseCommandObj(other), start(other.start), query(other.query), target(other.target),
      usbFilePath_(CopyText(other.usbFilePath_)), mcuFilePath_(CopyText(other.mcuFilePath_)),
      versionText_(CopyText(other.versionText_)) {}

FwUpdateCommand::FwUpdateCommand(FwUpdateCommand&& other) noexcept
    : BaseCommandObj(other), start(other.start), query(other.query), target(other.target),
      usbFilePath_(std::exchange(other.usbFilePath_, nullptr)),
      mcuFilePath_(std::exchange(other.mcuFilePath_, nullptr)),
      versionText_(std::exchange(other.versionText_, nullptr)) {}

FwUpdateCommand& FwUpdateCommand::operator=(const FwUpdateCommand& other) {
    start = other.start;
    query = other.query;
    target = other.target;
    Replace(usbFilePath_, other.usbFilePath_);
    Replace(mcuFilePath_, other.mcuFilePath_);
    Replace(versionText_, other.versionText_);
    return *this;
}

FwUpdateCommand& FwUpdateCommand::operator=(FwUpdateCommand&& other) noexcept {
    if (this == &other) return *this;
    start = other.start;
    query = other.query;
    target = other.target;
    std::swap(usbFilePath_, other.usbFilePath_);
    std::swap(mcuFilePath_, other.mcuFilePath_);
    std::swap(versionText_, other.versionText_);
    return *this;
}

FwUpdateCommand::~FwUpdateCommand() {
    delete[] usbFilePath_;
    delete[] mcuFilePath_;
    delete[] versionText_;
}

void FwUpdateCommand::SetUsbFilePath(const wchar_t* text) { Replace(usbFilePath_, text); }
void FwUpdateCommand::SetMcuFilePath(const wchar_t* text) { Replace(mcuFilePath_, text); }
void FwUpdateCommand::SetVersionText(const wchar_t* text) { Replace(versionText_, text); }

}  // namespace VideoConsoleCore
