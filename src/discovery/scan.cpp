// The device scan: lists the attached capture devices whose VID/PID pair is
// one of the setting.cfg filters (DevIDNum, DevDrvID0 ...).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "core/VideoConsoleCoreImp.h"
#include "discovery/device_list.h"
#include "hid/backend/hid_backend.h"
#include "platform/platform.h"

namespace VideoConsoleCore {

namespace {

// The configuration manager is given time between calls: 5 ms before the
// enumeration, 2 ms per device and before the lists are built.
constexpr uint32_t kPaceBeforeEnumerationMs = 5;
constexpr uint32_t kPacePerDeviceMs = 2;
constexpr uint32_t kPaceBeforeListsMs = 2;

struct Filter {
    uint32_t vid = 0;
    uint32_t pid = 0;
    bool valid = false;
};

std::vector<Filter> ReadFilters(VideoConsoleCoreImp& core) {
    const int count = core.IntegerSetting("DevIDNum", 10).value_or(0);
    std::vector<Filter> filters;
    for (int i = 0; i < count && i < 0x10000; ++i) {
        Filter filter;
        filter.valid = ParseDeviceFilter(core.Setting("DevDrvID" + std::to_string(i)), filter.vid,
                                         filter.pid);
        filters.push_back(filter);
    }
    return filters;
}

}  // namespace

bool VideoConsoleCoreImp::ScanDeviceList(DeviceEntry** list, uint16_t* count) {
    if (!RequireInitialized()) return false;
    hid::HidBackend* backend = Hid();
    if (backend == nullptr) return false;

    platform::SleepMilliseconds(kPaceBeforeEnumerationMs);
    std::vector<hid::UsbDeviceInfo> devices;
    if (!backend->EnumerateUsbDevices(devices)) return false;

    const std::vector<Filter> filters = ReadFilters(*this);
    std::vector<FoundDevice> found;
    for (const hid::UsbDeviceInfo& device : devices) {
        platform::SleepMilliseconds(kPacePerDeviceMs);
        const std::string& id = device.instanceId;
        // Interfaces of a composite device ("MI_") stand beside the device
        // itself; only the device is listed.
        if (id.find("USB\\VID_") == std::string::npos || id.find("MI_") != std::string::npos)
            continue;
        FoundDevice entry = SplitInstanceId(id);
        entry.description = device.busReportedDescription;
        entry.location = device.location;
        const uint32_t vid = HexIdValue(entry.vid);
        const uint32_t pid = HexIdValue(entry.pid);
        for (const Filter& filter : filters) {
            if (!filter.valid || filter.vid != vid || filter.pid != pid) continue;
            // A device that two filters accept is listed twice.
            found.push_back(entry);
            char text[96];
            std::snprintf(text, sizeof text, "Start to read No.%d Device information.",
                          static_cast<int>(found.size()));
            DebugOut(text);
        }
    }

    const uint16_t total = static_cast<uint16_t>(std::min<size_t>(found.size(), 0xFFFF));
    found.resize(total);
    m_devicesPresent = total > 0;
    if (total > 0) platform::SleepMilliseconds(kPaceBeforeListsMs);

    // The callback gets a copy of its own, freed as soon as it returns.
    if (ScanListCallback() != nullptr) {
        DeviceEntry* copy = AllocateDeviceList(found);
        NotifyScanList(copy, total);
        FreeDeviceEntries(copy, total);
    }
    if (list != nullptr) *list = AllocateDeviceList(found);
    m_lastList = list != nullptr ? *list : nullptr;
    m_lastListCount = m_lastList != nullptr ? total : 0;
    m_lastScan = found;
    if (count != nullptr) *count = total;

    char summary[96];
    std::snprintf(summary, sizeof summary,
                  total < 2 ? "Scan Device is completed, %d device is found."
                            : "Scan Device is completed, %d devices are found.",
                  static_cast<int>(total));
    DebugOut(std::string(summary) + "\n----------------------------------------------\n");
    LogInfo("==============================================");
    LogInfo(summary);

    m_scanned = true;
    return true;
}

std::string VideoConsoleCoreImp::EntryLocation(const DeviceEntry* entry) const {
    if (entry == nullptr || m_lastList == nullptr) return {};
    // Addresses are compared as numbers: an entry of another array is
    // outside the list, and a pointer into the middle of an entry is none.
    const auto at = reinterpret_cast<uintptr_t>(entry);
    const auto first = reinterpret_cast<uintptr_t>(m_lastList);
    if (at < first || (at - first) % sizeof(DeviceEntry) != 0) return {};
    const size_t index = (at - first) / sizeof(DeviceEntry);
    if (index >= m_lastListCount || index >= m_lastScan.size()) return {};
    return m_lastScan[index].location;
}

void VideoConsoleCoreImp::ForgetDeviceList(const DeviceEntry* list) {
    if (list != nullptr && list == m_lastList) {
        m_lastList = nullptr;
        m_lastListCount = 0;
    }
}

}  // namespace VideoConsoleCore
