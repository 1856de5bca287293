#include "discovery/device_list.h"

#include <cstdlib>
#include <cstring>

#include "core/VideoConsoleCoreImp.h"

namespace VideoConsoleCore {

namespace {

char* HeapText(const std::string& text) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy != nullptr) std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

void FreeText(char* text) {
    if (text != nullptr && text != kStaticEmptyText) std::free(text);
}

// The characters after `marker` up to (not including) the first of `ends`,
// or to the end; "" when the marker is missing.
std::string After(const std::string& text, const std::string& marker, const char* ends) {
    const size_t at = text.find(marker);
    if (at == std::string::npos) return "";
    const size_t begin = at + marker.size();
    const size_t end = text.find_first_of(ends, begin);
    return text.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
}

}  // namespace

FoundDevice SplitInstanceId(const std::string& instanceId) {
    FoundDevice device;
    device.vid = After(instanceId, "USB\\VID_", "&");
    device.pid = After(instanceId, "PID_", "\\");
    // The serial: after the backslash that follows the PID, up to "&".
    const size_t pid = instanceId.find("PID_");
    if (pid != std::string::npos) {
        const size_t slash = instanceId.find('\\', pid);
        if (slash != std::string::npos) {
            const size_t end = instanceId.find('&', slash + 1);
            device.instance = instanceId.substr(
                slash + 1, end == std::string::npos ? std::string::npos : end - slash - 1);
        }
    }
    return device;
}

uint32_t HexIdValue(const std::string& text) {
    const std::string number = "0x" + text;
    return static_cast<uint32_t>(std::strtoul(number.c_str(), nullptr, 0));
}

bool ParseDeviceFilter(const std::string& value, uint32_t& vid, uint32_t& pid) {
    const size_t v = value.find("VID_");
    const size_t p = value.find("PID_");
    if (v == std::string::npos || p == std::string::npos) return false;
    vid = HexIdValue(value.substr(v + 4, 4));
    pid = HexIdValue(value.substr(p + 4, 4));
    return true;
}

DeviceEntry* AllocateDeviceList(const std::vector<FoundDevice>& devices) {
    if (devices.empty()) return nullptr;
    auto* list = static_cast<DeviceEntry*>(std::calloc(devices.size(), sizeof(DeviceEntry)));
    if (list == nullptr) return nullptr;
    for (size_t i = 0; i < devices.size(); ++i) {
        list[i].description = HeapText(devices[i].description);
        list[i].instance = HeapText(devices[i].instance);
        list[i].pid = HeapText(devices[i].pid);
        list[i].vid = HeapText(devices[i].vid);
    }
    return list;
}

void FreeDeviceEntries(DeviceEntry* entries, uint16_t count) {
    if (entries == nullptr) return;
    for (uint16_t i = 0; i < count; ++i) {
        FreeText(entries[i].description);
        FreeText(entries[i].instance);
        FreeText(entries[i].pid);
        FreeText(entries[i].vid);
    }
    std::free(entries);
}

}  // namespace VideoConsoleCore
