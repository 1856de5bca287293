// Selecting one of the scanned devices: find and open its HID interface,
// size the report buffers, identify its flash, and read what the other
// operations need to know about it (versions, model, boot mode).
//
// The bridge needs time after it has been opened and between attempts; the
// pauses below are the device's, not ours, and are kept exactly.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/VideoConsoleCoreImp.h"
#include "device/mcu_access.h"
#include "discovery/device_list.h"
#include "discovery/hid_search.h"
#include "firmware/lights.h"
#include "firmware/update_common.h"
#include "hid/backend/hid_backend.h"
#include "hid/call_hid_function.h"
#include "hid/flash_identification.h"
#include "hid/report_protocol.h"
#include "platform/platform.h"

namespace VideoConsoleCore {

namespace {

constexpr int kSelectAttempts = 10;
constexpr uint32_t kAttemptStartMs = 10;
constexpr uint32_t kBeforeIdentificationMs = 10;
constexpr uint32_t kAfterFailedAttemptMs = 100;
constexpr uint32_t kAfterSelectionMs = 46;
constexpr size_t kInfoRecordSize = 40;

constexpr const char* kWorkingHint = "Please close your preview software, such as OBS.";
constexpr const char* kStandbyHint = "Don't run any preview software during updating firmware.";

std::string Format(const char* format, int value) {
    char text[128];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

// Models whose microcontroller is reached with the descriptor set below.
bool UsesRegisterDescriptors(uint8_t model) { return model == 6 || model == 8; }

// Drops what was known about the last device: the information records, the
// cached texts and the model.
void ResetDeviceInformation(VideoConsoleCoreImp& core) {
    std::free(core.m_infoRecord1);
    std::free(core.m_infoRecord2);
    core.m_infoRecord1 = static_cast<uint8_t*>(std::calloc(1, kInfoRecordSize));
    core.m_infoRecord2 = static_cast<uint8_t*>(std::calloc(1, kInfoRecordSize));
    core.m_usbFwVersion.clear();
    core.m_runningFwVersion.clear();
    core.m_mcuFwVersion.clear();
    core.m_deviceSerialText.clear();
    core.m_bootConfigByte = -1;
    core.m_usbType = 0;
}

// Takes over the open interface the search found; an interface opened by an
// earlier selection is closed first. The caller holds the exchange lock: no
// exchange may use the handle, the capabilities or the buffers meanwhile.
void AdoptInterface(VideoConsoleCoreImp& core, HidSearchResult& found) {
    core.CloseOpenInterface(found.record.handle);
    core.m_hidDevice = found.record;
    core.m_deviceHandle = found.record.handle;
    core.m_preparsedData = found.preparsedData;
    core.m_outputValueCaps = std::move(found.outputValueCaps);
    core.m_inputValueCaps = std::move(found.inputValueCaps);
    core.m_deviceOpen = true;
}

// The report buffers, sized once here for everything the interface can
// ask of them, so that nothing grows (and moves) one while a worker thread
// uses it: one output buffer per kind as long as the kind's report (at
// least a command header), the staging buffer for the longest output
// report, and the input buffer for the longest request word (0xFFFF) or
// input report.
void SizeReportBuffers(VideoConsoleCoreImp& core) {
    size_t longestOutput = 16;
    for (size_t kind = 0; kind < 3; ++kind) {
        size_t size = 16;
        if (kind < core.m_outputValueCaps.size())
            size = std::max<size_t>(size, core.m_outputValueCaps[kind].ReportCount + 1u);
        core.m_reportBuffers[kind].assign(size, 0);
        longestOutput = std::max(longestOutput, size);
    }
    size_t longestInput = 0x10000;
    for (const hid::HidpValueCaps& caps : core.m_inputValueCaps)
        longestInput = std::max<size_t>(longestInput, caps.ReportCount + 1u);
    core.m_outputStaging.assign(longestOutput, 0);
    core.m_inputBuffer.assign(longestInput, 0);
}

// Reads versions, identification block and boot mode of the device just
// selected, and tells the user about preview software.
void ReadDeviceBasics(VideoConsoleCoreImp& core) {
    core.ReadUsbFwVersion(core.m_quietQueries);
    core.ReadMcuFwVersion(core.m_quietQueries);

    core.m_deviceModel = 0;
    char text[18] = {};
    if (ReadFlashInfoBlock(core, text)) {
        core.m_deviceSerialText.assign(text, strnlen(text, 16));
        if (core.m_chipType >= 5 && core.m_chipType <= 17) core.m_deviceModel = core.m_chipType;
    }
    core.m_mcuAccessDescriptorsInUse = UsesRegisterDescriptors(core.m_deviceModel);
    const bool bootMode = ReadBootModeState(core) == 1;
    if (bootMode) return;

    // Register 2 tells whether an HDMI source is feeding the device: a
    // preview program may then hold the video stream open.
    uint8_t data[2] = {mcu_reg::kHdmiInput, 0};
    int input = -1;
    if (AccessIicData(core, kIicRead, kMcuAddress, 1, data, 1) && data[0] == 0) {
        input = data[1];
    } else {
        core.DebugOut("ReadEx ERROR\n");
    }
    const bool working = input != 0;
    const std::string configured =
        core.Setting(working ? "msg_usb_port_3_Working_Mode" : "msg_usb_port_3_Standby_Mode");
    const char* builtIn = working ? kWorkingHint : kStandbyHint;
    core.DebugOut(std::string(builtIn) + "\n");
    core.LogInfo(configured.empty() ? std::string(builtIn) : configured);
}

}  // namespace

bool VideoConsoleCoreImp::SelectDevice(DeviceEntry* entry) {
    if (!RequireInitialized() || !RequireScanned() || !RequireNotUpdating(kRefuseSelect))
        return false;
    if (entry == nullptr || entry->pid == nullptr || entry->vid == nullptr ||
        entry->instance == nullptr) {
        Report("The device information entered is incorrect!\n");
        return false;
    }
    if (Hid() == nullptr) return false;

    // Nothing may talk to the device while its handle, capabilities and
    // buffers are swapped: the finish lights and a light preview belong to
    // the device they were started for and end here, and an update's worker
    // (past its last exchange once the state is back to 2) is waited for.
    firmware::StopLightThreads(*this);
    StopLightPreview();
    platform::JoinThread(m_previewThread);
    m_previewThread = nullptr;
    firmware::JoinUpdateThread(*this);
    m_deviceState = kDeviceStateSelected;
    const std::string vid = entry->vid;
    const std::string pid = entry->pid;
    const std::string instance = entry->instance;
    m_selectedLocation = EntryLocation(entry);

    bool identified = false;
    for (int attempt = 0; attempt < kSelectAttempts && !identified;) {
        platform::SleepMilliseconds(kAttemptStartMs);
        m_selectedVid = static_cast<uint16_t>(HexIdValue(vid));
        m_selectedPid = static_cast<uint16_t>(HexIdValue(pid));
        m_selectedInstance = instance;

        HidSearchResult found;
        if (!SearchHidInterface(*this, found)) {
            DebugOut(Format("[Select Device] HidDevices not Got it!! %d\n",
                            static_cast<int>(found.index)));
        } else {
            DebugOut(Format("HidDevices Got it!! and index: %d\n", static_cast<int>(found.index)));
            if (found.index == kNoHidInterface) {
                Report("[Select Device] No valid device found.\n");
                // The reason, when the user can put it right; said last, so
                // that it is the last word of the failed selection.
                if (!found.openFailureAdvice.empty()) Report(found.openFailureAdvice);
                ResetDeviceInformation(*this);
                return false;
            }
            LogInfo(std::string(73, '='));
            std::unique_lock exchange(m_exchangeLock);
            AdoptInterface(*this, found);
            char line[160];
            std::snprintf(line, sizeof line,
                          "Select Device #%d: VID: 0x%04X  PID: 0x%04X  UsagePage: 0x%X  Usage: "
                          "0x%X  ",
                          static_cast<int>(found.index), m_selectedVid, m_selectedPid,
                          m_hidDevice.caps.UsagePage, m_hidDevice.caps.Usage_);
            DebugOut(line);
            LogInfo(line);
            if (!Hid()->ResolveRuntimeHidFunctions()) Report("Fail to get HID function!\n");
            if (m_hidDevice.caps.NumberOutputValueCaps < 2) {
                Report("Error initializing flash and RW buffer!\n");
            } else {
                SizeReportBuffers(*this);
            }
            exchange.unlock();
            platform::SleepMilliseconds(kBeforeIdentificationMs);
            identified = ReadFlashIdentification(*this);
            if (identified) break;
        }
        platform::SleepMilliseconds(kAfterFailedAttemptMs);
        ++attempt;
        DebugOut(Format("restart select device... error time: %d\n", attempt));
    }
    if (!identified) {
        // The interface was taken over but the device never answered: it
        // does not count as open.
        m_deviceOpen = false;
        LogInfo("[Select Device] HidDevices not Got it!!");
        return false;
    }

    m_selected = true;
    m_deviceOpen = true;
    platform::SleepMilliseconds(kAfterSelectionMs);
    m_usbFwVersion.clear();
    m_mcuFwVersion.clear();
    m_usbType = 0;
    m_audioVariant = 0;
    ReadDeviceBasics(*this);
    return true;
}

uint8_t VideoConsoleCoreImp::GetDeviceUsbType() {
    if (!RequireInitialized() || !RequireSelected()) return 0;
    if (m_usbType == 0) {
        char vid[8], pid[8];
        std::snprintf(vid, sizeof vid, "%04X", m_selectedVid);
        std::snprintf(pid, sizeof pid, "%04X", m_selectedPid);
        // By the port when the selection knows it: units may share a serial.
        int level = -1;
        if (Hid() && !m_selectedLocation.empty())
            level = Hid()->UsbPortLevelAt(vid, pid, m_selectedLocation);
        if (Hid() && level < 0) level = Hid()->UsbPortLevel(vid, pid, m_selectedInstance);
        m_usbType = level == 3 ? 3 : 2;
    }
    const uint8_t type = m_usbType;
    NotifyDeviceState(nullptr, type);
    DebugOut(Format("USB type: %d\n", type));
    return type;
}

}  // namespace VideoConsoleCore
