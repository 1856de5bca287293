#include "discovery/hid_search.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "hid/backend/hid_backend.h"
#include "hid/call_hid_function.h"

namespace VideoConsoleCore {

namespace {

// One HID layer call whose result buffer is handed back; null when the call
// could not run or the HID call failed.
template <typename T>
T* Fetch(hid::HidBackend& backend, uint32_t operation, hid::HidCallParameters& p) {
    hid::HidCallStatus status;
    p.resultBuffer = nullptr;
    const int ran = hid::CallHidFunction(backend, operation, &p, &status);
    if (!ran || status.failed) {
        std::free(p.resultBuffer);
        p.resultBuffer = nullptr;
        return nullptr;
    }
    return static_cast<T*>(p.resultBuffer);
}

// The value capabilities of one direction, `count` of them as HidP_GetCaps
// announced.
std::vector<hid::HidpValueCaps> ValueCaps(hid::HidBackend& backend, hid::PreparsedData data,
                                          int32_t type, uint16_t count) {
    std::vector<hid::HidpValueCaps> list;
    if (count == 0) return list;
    hid::HidCallParameters p;
    p.preparsedData = data;
    p.reportType = type;
    p.listLength = count;
    auto* caps = Fetch<hid::HidpValueCaps>(backend, 35, p);
    if (caps == nullptr) return list;
    list.assign(caps, caps + std::min<uint32_t>(p.listLength, count));
    std::free(caps);
    return list;
}

// Everything the search learns of one open interface.
struct Interface {
    hid::PreparsedData preparsed = nullptr;
    hid::HiddAttributes attributes{};
    hid::HidpCaps caps{};
    std::string serial;
};

bool Inspect(hid::HidBackend& backend, hid::HidHandle handle, Interface& out) {
    hid::HidCallParameters p;
    p.deviceHandle = handle;
    hid::HidCallStatus status;
    if (!hid::CallHidFunction(backend, 50, &p, &status) || status.failed) return false;
    out.preparsed = p.preparsedData;

    if (auto* attributes = Fetch<hid::HiddAttributes>(backend, 6, p)) {
        out.attributes = *attributes;
        std::free(attributes);
    } else {
        return false;
    }
    if (auto* caps = Fetch<hid::HidpCaps>(backend, 24, p)) {
        out.caps = *caps;
        std::free(caps);
    } else {
        return false;
    }
    if (auto* text = Fetch<uint16_t>(backend, 17, p)) {
        out.serial = NarrowLowBytes(text, hid::kHidStringBufferBytes / 2);
        std::free(text);
    }
    return true;
}

void Release(hid::HidBackend& backend, hid::HidHandle handle, hid::PreparsedData preparsed) {
    if (preparsed != nullptr) {
        hid::HidCallParameters p;
        p.preparsedData = preparsed;
        hid::HidCallStatus status;
        hid::CallHidFunction(backend, 51, &p, &status);
    }
    backend.Close(handle);
}

}  // namespace

std::string NarrowLowBytes(const uint16_t* text, size_t maxUnits) {
    std::string narrow;
    for (size_t i = 0; i < maxUnits && text[i] != 0; ++i)
        narrow.push_back(static_cast<char>(text[i] & 0xFF));
    return narrow;
}

bool SearchHidInterface(VideoConsoleCoreImp& core, HidSearchResult& result) {
    result = HidSearchResult{};
    hid::HidBackend* backend = core.Hid();
    if (backend == nullptr) return false;
    std::vector<std::string> paths;
    if (!backend->EnumerateHidInterfaces(paths)) return false;

    for (size_t index = 0; index < paths.size(); ++index) {
        // Devices that share a serial number are told apart by their port:
        // an interface known to sit elsewhere is not even opened.
        if (!core.m_selectedLocation.empty()) {
            const std::string location = backend->HidInterfaceLocation(paths[index]);
            if (!location.empty() && location != core.m_selectedLocation) continue;
        }
        const hid::HidHandle handle = backend->Open(paths[index]);
        if (handle == hid::kInvalidHidHandle) {
            if (result.openFailureAdvice.empty())
                result.openFailureAdvice = backend->OpenFailureAdvice(
                    paths[index], core.m_selectedVid, core.m_selectedPid);
            continue;
        }
        Interface found;
        const bool inspected = Inspect(*backend, handle, found);
        const bool match = inspected && found.attributes.VendorID == core.m_selectedVid &&
                           found.attributes.ProductID == core.m_selectedPid &&
                           found.serial == core.m_selectedInstance;
        if (!match) {
            Release(*backend, handle, found.preparsed);
            continue;
        }
        result.index = static_cast<uint32_t>(index);
        result.record.path = paths[index];
        result.record.handle = handle;
        result.record.attributes = found.attributes;
        result.record.caps = found.caps;
        result.preparsedData = found.preparsed;
        result.outputValueCaps = ValueCaps(*backend, found.preparsed, hid::kOutputReport,
                                           found.caps.NumberOutputValueCaps);
        result.inputValueCaps = ValueCaps(*backend, found.preparsed, hid::kInputReport,
                                          found.caps.NumberInputValueCaps);
        return true;
    }
    return true;
}

}  // namespace VideoConsoleCore
