// The core object: all state of the library lives in one instance,
// g_VC_Core, constructed when the library is loaded. The exported C functions
// and the class interface are thin layers over it.
//
// The object takes no lock. The caller's thread drives it; worker threads
// (firmware update, lights, polling) read and write the flags below, which
// are atomics so that sharing them is well defined. Device state 3 ("update
// running") is what keeps a second update, and queries, away from a running
// update.
//
// Each subsystem adds its operations as member functions, defined in that
// subsystem's folder (settings/, logging/, discovery/, device/, firmware/).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <optional>
#include <string>
#include <string_view>

#include <cstdio>
#include <vector>

#include "KORVSDKDeviceTool.h"
#include "VideoConsoleCore.h"
#include "discovery/device_list.h"
#include "hid/hid_types.h"
#include "settings/settings_file.h"

namespace spdlog {
class logger;
}

namespace VideoConsoleCore::hid {
class HidBackend;
}
namespace VideoConsoleCore::platform {
struct Thread;
}

namespace VideoConsoleCore {

enum DeviceState : uint32_t {
    kDeviceStateNone = 0,      // no device in use
    kDeviceStateSelected = 2,  // a device has been (re)selected
    kDeviceStateUpdating = 3,  // a firmware update is running
};

// Guard texts written to the debugger output when a call is refused.
inline constexpr const char* kMsgInitFirst = "Please Initialization First!  ->  KORVSDK_Init()\n";
inline constexpr const char* kMsgSelectFirst =
    "Please Select Device First!   ->  KORVSDK_Select_Device()\n";
inline constexpr const char* kMsgScanFirst =
    "Please Scan Device First!     ->  KORVSDK_Scan_DeviceList()\n";

// Refusals while a firmware update is running, one per operation.
inline constexpr const char* kRefuseSelect = "Cannot switch device when you update the firmware!\n";
inline constexpr const char* kRefuseMcuInfo = "Cannot Get MCU Info when you update the firmware!\n";
inline constexpr const char* kRefuseUsbFwVersion =
    "Cannot Get USB FW Version when you update the firmware!\n";
inline constexpr const char* kRefuseMcuFwVersion =
    "Cannot Get MCU FW Version when you update the firmware!\n";
inline constexpr const char* kRefuseSaveParameters =
    "Cannot Save_Parameters when you update the firmware!\n";
inline constexpr const char* kRefuseFileVersion =
    "Cannot read FW File Version when you update the firmware!\n";
inline constexpr const char* kRefuseSetFile = "Cannot set FW File when you update the firmware!\n";

// Firmware file kinds.
enum FirmwareKind : int { kFirmwareUsbHex = 0, kFirmwareMcuBin = 1 };

// The library's static empty text. Device lists may point at it; the release
// functions never free it.
extern const char kStaticEmptyText[1];

class VideoConsoleCoreImp {
public:
    VideoConsoleCoreImp();
    virtual ~VideoConsoleCoreImp();
    VideoConsoleCoreImp(const VideoConsoleCoreImp&) = delete;
    VideoConsoleCoreImp& operator=(const VideoConsoleCoreImp&) = delete;

    // ---- Start (core/) -------------------------------------------------
    bool Initialize(const char* settingsPath);
    void SwitchConsoleLogging(bool on) { m_consoleLogging = on; }
    bool IsUpdating() const { return m_deviceState == kDeviceStateUpdating; }

    // ---- Callback slots (core/callbacks.cpp) ---------------------------
    // The host's functions that the library calls: the three callbacks and
    // the debug-output handler. Each slot counts the calls in progress, so
    // that taking a function out can wait until no other thread is inside
    // it: the host may then unload the function's code.
    enum HostSlot : int {
        kSlotScanList,
        kSlotDeviceState,
        kSlotFwUpdateState,
        kSlotDebugOutput,
        kHostSlots
    };
    // One call of the slot's function on this thread, counted for as long as
    // the object lives. Made before the slot is loaded: a removal then
    // either sees this call in progress, or this call sees the removal.
    class HostCall {
    public:
        HostCall(const VideoConsoleCoreImp& core, HostSlot slot);
        ~HostCall();
        HostCall(const HostCall&) = delete;
        HostCall& operator=(const HostCall&) = delete;
        // Whether this thread was inside the slot's function already.
        bool Nested() const { return nested_; }

    private:
        std::atomic<int>& calls_;
        HostSlot slot_;
        bool nested_;
    };
    // Returns once no other thread is inside a function of the slot. This
    // thread's own calls, in any slot, do not count while it waits.
    void WaitForHostCalls(HostSlot slot) const;
    int OpenScanListCallback(KORVSDK_ScanDeviceListCallback fn);
    int OpenDeviceStateCallback(KORVSDK_DeviceStateCallback fn);
    int OpenFwUpdateStateCallback(KORVSDK_DevFwUpdateStateCallback fn);
    // Once a close returns, the callback is no longer running on any other
    // thread; 0 when the slot was empty.
    int CloseScanListCallback();
    int CloseDeviceStateCallback();
    int CloseFwUpdateStateCallback();
    // Once this returns, the previous handler is no longer running on any
    // other thread (an update's last lines come from its own thread), so an
    // application may tear down what its handler writes to.
    void SetDebugOutputHandler(KORVSDK_DebugOutputHandler handler);
    KORVSDK_ScanDeviceListCallback ScanListCallback() const { return m_scanListCallback; }
    KORVSDK_DeviceStateCallback DeviceStateCallback() const { return m_deviceStateCallback; }
    KORVSDK_DevFwUpdateStateCallback FwUpdateStateCallback() const {
        return m_fwUpdateStateCallback;
    }
    // The scan-list callback with `count` entries, unless this thread is
    // already inside it.
    void NotifyScanList(DeviceEntry* entries, uint16_t count);

    // Fires the device-state callback, if one is registered, with a fresh
    // zeroed record carrying `message` (when non-null) and `value`; the record
    // and its texts are freed when the callback returns.
    void NotifyDeviceState(const char* message, uint64_t value = 0);
    // The same with the record's first two text fields set as well.
    void NotifyDeviceState(const char* message, uint64_t value, const char* text0,
                           const char* text1);

    // Fires the firmware-update-state callback, if one is registered, with a
    // fresh record: the non-null texts are copied into it, and the record
    // and its texts are freed when the callback returns.
    void NotifyFwUpdateState(const char* usbFileText, const char* mcuFileText, const char* state,
                             const char* message, float percent = 0.0f);

    // ---- Messages (core/messages.cpp) ----------------------------------
    // Debugger channel, while console logging is on.
    void DebugOut(std::string_view text) const;
    // Debugger channel whatever the console-logging switch says.
    void DebugOutAlways(std::string_view text) const;
    // File channel at level info, while local logging is on; a trailing
    // newline is dropped.
    void LogInfo(std::string_view text) const;
    // Both channels: the usual way a message is reported.
    void Report(std::string_view text) const;

    // ---- Guards (core/guards.cpp): each writes its message and returns
    // false when the call must be refused.
    bool RequireInitialized() const;
    bool RequireScanned() const;
    bool RequireSelected() const;
    bool RequireNotUpdating(const char* refusal) const;
    // Guard set "initialised, selected".
    bool RequireDevice() const { return RequireInitialized() && RequireSelected(); }
    // Guard set "initialised, selected, not updating".
    bool RequireIdleDevice(const char* refusal) const {
        return RequireDevice() && RequireNotUpdating(refusal);
    }

    // ---- Settings (settings/) ------------------------------------------
    // Reads the settings file into the table, falling back to "setting.cfg"
    // in the working directory.
    void ReadSettings();
    // Value of a key, "" when absent. A pure read: safe from any thread.
    std::string Setting(const std::string& key) const;
    // Integer value of a key, nullopt when absent or not a number.
    std::optional<int> IntegerSetting(const std::string& key, int base) const;
    // Sets the burn-area flags from USB_Burn_Area.
    void ApplyBurnAreaSetting();

    // ---- HID transport (hid/) ------------------------------------------
    // The backend every exchange with a device goes through; chosen by
    // initialisation from DeviceBackend, null before.
    hid::HidBackend* Hid() const { return m_hidBackend.get(); }
    // Replaces the backend (tests, and hosts that bring their own).
    void UseHidBackend(std::unique_ptr<hid::HidBackend> backend);
    // The open interface (m_deviceHandle, m_preparsedData) belongs to the
    // core from the moment it is stored there: whoever opens it hands it
    // over and never frees it. This frees the preparsed data, closes the
    // handle (unless it is `keep`, a handle being taken over again) and
    // clears both fields. A new selection and the destructor call it.
    void CloseOpenInterface(hid::HidHandle keep = hid::kInvalidHidHandle);

    // ---- Logging (logging/) --------------------------------------------
    void StartLogger();
    std::string LogFilePath() const { return m_logFilePath; }

    // ---- Device operations, one per export -----------------------------
    // Discovery (discovery/)
    bool ScanDeviceList(DeviceEntry** list, uint16_t* count);
    // The devices the last successful scan found, in its order.
    const std::vector<FoundDevice>& LastScan() const { return m_lastScan; }
    // The location of `entry` when it is an entry of the list the last scan
    // handed out (compared by address) and its location is known; "" else.
    std::string EntryLocation(const DeviceEntry* entry) const;
    // The caller released `list`: when it is the last scan's list, entries
    // are no longer looked up in it.
    void ForgetDeviceList(const DeviceEntry* list);
    bool SelectDevice(DeviceEntry* entry);
    uint8_t GetDeviceUsbType();
    // Versions, information and microcontroller (device/)
    bool GetUsbFwVersion(std::string& text);
    bool GetMcuFwVersion(std::string& text);
    bool GetHdmiInfo();
    bool GetMcuInfo();
    uint8_t GetUsbAppInfo();
    bool CheckMcuOnBoard();
    uint8_t CheckAudioIcOnBoard();
    bool SaveParameters();
    bool EnterBootMode();
    uint8_t CheckBootMode();
    // Audio and states (device/): direction 1 reads into *value, 0 writes it.
    bool AudioAuxInMute(uint8_t* value, int direction);
    bool AudioHpOutMute(uint8_t* value, int direction);
    bool AudioMicInMute(uint8_t* value, int direction);
    bool AudioAuxInVolume(uint8_t* value, int direction);
    bool AudioHpOutVolume(uint8_t* value, int direction);
    bool AudioMicInVolume(uint8_t* value, int direction);
    bool GetHdmiVideoLocked(uint8_t* value);
    bool GetHpMicPlugIn(uint8_t* value);
    bool GetLineInPlugIn(uint8_t* value);
    // Firmware and lights (firmware/)
    bool SetFirmwareFile(const char* path, FirmwareKind kind);
    bool GetFirmwareFileVersion(std::string& text, FirmwareKind kind);
    bool StartUsbFwUpdate();
    bool StartMcuFwUpdate();
    // The tool core's starts: no guards beyond a running update, no
    // callbacks (firmware/usb_update.cpp, firmware/mcu_update.cpp).
    bool StartUsbFwUpdateForToolCore();
    bool StartMcuFwUpdateForToolCore();
    // The preparation behind both starts of a kind, once the device state
    // is 3.
    bool BeginUsbUpdate(bool toolCore);
    // Extension: reads the bridge's whole flash into a flash image at
    // `path` (firmware/usb_backup.cpp).
    bool ReadUsbFlash(const char* path);
    bool BeginMcuUpdate(bool toolCore);
    bool SetGpioLed(uint8_t value);
    bool SetUpdateGpioLedLights(uint8_t phase, uint8_t value, uint16_t period);
    // The start-up scan: takes the first *.hex and *.bin of the working
    // folder as the update files, without checking them against a device.
    void ScanWorkingFolderForFirmware();

    // ---- Microcontroller and versions (device/), used by selection -------
    // Reads the running and the stored USB firmware version and the boot
    // configuration byte into the fields below; `quiet` suppresses the
    // messages and the callback. False when a chip register or the stored
    // version could not be read.
    bool ReadUsbFwVersion(bool quiet);
    // Reads registers 0xA0..0xA2 of the microcontroller into the MCU
    // version fields; false on the first failed read.
    bool ReadMcuFwVersion(bool quiet);

    // ---- Fields shared by several subsystems ---------------------------
    std::atomic<uint32_t> m_deviceState{kDeviceStateNone};
    SettingsTable m_settings;
    std::shared_ptr<spdlog::logger> m_logger;
    std::string m_logFilePath;
    std::atomic<bool> m_pollingStopped{false};  // plug-in polling runs while false
    std::atomic<bool> m_localLogging{true};
    std::atomic<bool> m_progressSilenced{false};
    std::atomic<bool> m_initialized{false};
    std::atomic<bool> m_scanned{false};
    std::atomic<bool> m_selected{false};
    std::atomic<bool> m_deviceOpen{false};
    uint8_t m_mcuI2cAddress = 0x1A;
    std::atomic<uint8_t> m_usbType{0};  // 0 = not yet determined
    std::atomic<bool> m_consoleLogging{true};
    std::atomic<bool> m_probeInProgress{false};
    std::string m_settingsPath;
    std::atomic<bool> m_devicesPresent{false};
    uint8_t m_i2cAccessDescriptors[9] = {0xFF, 0x00, 0xA0, 0x02, 0xFF, 0x00, 0xA0, 0x01, 0xFF};
    // Whether the selected model (6 or 8) is reached with the descriptors
    // above.
    bool m_mcuAccessDescriptorsInUse = false;

    // ---- The open device (hid/, discovery/) ------------------------------
    hid::HidHandle m_deviceHandle = hid::kInvalidHidHandle;
    hid::PreparsedData m_preparsedData = nullptr;
    // The interface's value capabilities; the index is the report kind
    // (0 data, 1 command, 2 IIC).
    std::vector<hid::HidpValueCaps> m_outputValueCaps;
    std::vector<hid::HidpValueCaps> m_inputValueCaps;
    std::vector<uint8_t> m_reportBuffers[3];  // one output report per kind
    std::vector<uint8_t> m_inputBuffer;       // receives every input report
    std::vector<uint8_t> m_outputStaging;     // the output report on its way
    std::vector<uint8_t> m_flashBuffer = std::vector<uint8_t>(65536);  // flash/RW work buffer
    // Start of the flash area that carries the stored version text (its
    // first 16 bytes) and, 0x20000 further, the identification block.
    uint32_t m_flashBaseAddress = 0x4F0000;
    uint8_t m_chipType = 0;           // identification block, byte 384
    uint8_t m_flashType = 0;          // identification block, byte 385
    std::FILE* m_dumpFile = nullptr;  // target of a flash dump

    // The flash part last identified (hid/flash_identification.cpp).
    struct FlashDevice {
        uint16_t pageSize = 0;
        uint16_t secondSize = 0;
        uint32_t sectorSize = 0;
        uint16_t sectorsPerBlock = 0;
        uint16_t totalBlocks = 0;
        uint8_t fourByteAddressing = 0;
    } m_flashDevice;
    uint16_t m_flashDeviceId = 0xFFFF;  // the index the bridge reported last
    uint32_t m_bytesPerBlock = 0;       // the erase unit of the USB update

    // ---- The selected device (discovery/) --------------------------------
    uint16_t m_selectedVid = 0;
    uint16_t m_selectedPid = 0;
    std::string m_selectedInstance;  // the serial number, as the scan listed it
    // Where the selected device is plugged, when the entry came from the
    // last scan's list; "" = any port (the serial alone decides).
    std::string m_selectedLocation;
    struct HidDeviceRecord {
        std::string path;
        hid::HidHandle handle = hid::kInvalidHidHandle;
        hid::HiddAttributes attributes{};
        hid::HidpCaps caps{};
    } m_hidDevice;
    uint8_t m_deviceModel = 0;  // chip type of the identification block, 5..17
    std::string m_deviceSerialText;  // the text of the identification block

    // ---- Versions (device/) -------------------------------------------------
    std::string m_usbFwVersion;      // stored in the flash: 16 characters at most
    std::string m_runningFwVersion;  // the bridge's running firmware, xx.xx.xx.xx
    int m_bootConfigByte = -1;       // byte 0 at 0x70000; -1 when unknown
    std::string m_mcuFwVersion;      // aa.bb.cc.ddeeff
    uint8_t m_mcuDeviceType = 0;     // register 0xA0
    uint8_t m_boardVariant = 0xFF;   // first byte of register 0xA2; 0xFF = unknown
    std::atomic<bool> m_quietQueries{false};
    // Audio path of the board: 0 and 1 have the audio controls; any other
    // value makes every control succeed without touching the device.
    uint8_t m_audioVariant = 0;

    // Burn areas of the USB firmware update (USB_Burn_Area): the whole
    // image, or the area items below (firmware, private, customized).
    bool m_doAreaEntire = true;
    bool m_doAreaOther = false;
    bool m_chkFirmware = true;
    bool m_chkPrivate = false;
    bool m_chkCustomized = false;

    // ---- Firmware files (firmware/firmware_files.cpp) --------------------
    // The accepted files: UTF-8 paths and version texts; the valid flags are
    // 1 while an accepted file of that kind is set (an update start takes
    // it).
    std::string m_usbFilePath;
    std::string m_mcuFilePath;
    std::string m_usbFileVersion;
    std::string m_mcuFileVersion;
    std::atomic<uint8_t> m_usbFileValid{0};
    std::atomic<uint8_t> m_mcuFileValid{0};
    // What the accepted files were (length and hash), so that a start can
    // tell a file changed since it was checked.
    uint64_t m_usbFileFingerprint = 0;
    uint64_t m_mcuFileFingerprint = 0;
    intptr_t m_openFile = -1;  // platform::FileHandle of the file being read

    // ---- Update flags, shared by the updaters and the light threads ------
    std::atomic<bool> m_updateRunning{false};   // the lights' "updating" phase
    std::atomic<bool> m_updateFinished{false};  // finish lights run while set
    std::atomic<bool> m_writeFlag{false};
    std::atomic<bool> m_flashBusy{false};
    std::atomic<bool> m_mcuUpdateStarted{false};
    // The update's worker thread; waited for before the next one starts and
    // before the core goes.
    platform::Thread* m_updateThread = nullptr;
    // Test seam: every wait of the updaters is divided by this (1 = the
    // device's own waits). Only tests of many interrupted updates change it.
    std::atomic<uint32_t> m_updateWaitDivisor{1};

    // ---- Lights (firmware/lights.cpp) -------------------------------------
    // Pattern byte and blink period (ms, 0 = steady) of the three phases:
    // 0 updating, 1 update succeeded, 2 update failed.
    std::atomic<uint8_t> m_ledPattern[3] = {0x81, 0x80, 0x82};
    std::atomic<uint16_t> m_ledPeriod[3] = {500, 0, 250};
    std::atomic<uint32_t> m_toggleCounter{0};
    std::atomic<uint32_t> m_patternWrittenOnce{0};
    // The blink step's last toggle; only the thread running an update loop
    // touches it.
    std::chrono::steady_clock::time_point m_lastToggle{};
    // RGB light of models 6 and 8: red, green, blue and the light chip's
    // mode byte for each phase.
    uint8_t m_rgbColour[3][3] = {{0x00, 0x00, 0xFF}, {0x00, 0xFF, 0x00}, {0xFF, 0x00, 0x00}};
    uint8_t m_rgbMode[3] = {0x01, 0x00, 0x02};
    // The light threads: at most one finish-light and one updating-light
    // thread, each stopped and joined before the core goes. A thread runs
    // while its generation is the current one.
    struct LightThread {
        platform::Thread* thread = nullptr;
        std::atomic<uint32_t> generation{0};
    };
    LightThread m_finishLights;
    LightThread m_updatingLights;
    std::atomic<bool> m_stopping{false};  // the core is going: every thread ends
    // One exchange with the device at a time: a light thread's LED write
    // must not land between the halves of the caller's I2C transaction.
    // A long job (a burst of thousands of chunks) takes the lock again right
    // after each chunk; a thread that waits for it is counted, and the job
    // lets it in before its next chunk (HandOver), so that a query or a
    // light from another thread is answered between two chunks instead of
    // after the whole burst.
    class ExchangeMutex {
    public:
        void lock() {
            if (!mutex_.try_lock()) {
                ++waiting_;
                mutex_.lock();
                --waiting_;
            }
            if (depth_++ == 0) owner_ = std::this_thread::get_id();
        }
        bool try_lock() {
            if (!mutex_.try_lock()) return false;
            if (depth_++ == 0) owner_ = std::this_thread::get_id();
            return true;
        }
        void unlock() {
            if (--depth_ == 0) owner_ = std::thread::id();
            mutex_.unlock();
        }
        // Lets a thread that waits for the lock take it first (a bounded
        // wait); nothing when this thread holds the lock already.
        void HandOver() const {
            if (owner_.load() == std::this_thread::get_id()) return;
            for (int spin = 0; waiting_.load() > 0 && spin < 1000; ++spin)
                std::this_thread::yield();
        }

    private:
        std::recursive_mutex mutex_;
        std::atomic<int> waiting_{0};
        int depth_ = 0;  // only the holder touches it
        std::atomic<std::thread::id> owner_{};
    };
    ExchangeMutex m_exchangeLock;

    // ---- Class face (toolcore/) and diagnostics (diagnostics/) -----------
    // Callbacks of the class face, each set once.
    std::atomic<ToolCoreCallback> m_diagnosticInfoCallback{nullptr};
    std::atomic<ToolCoreCallback> m_audioInfoCallback{nullptr};
    std::atomic<ToolCoreCallback> m_lightInfoCallback{nullptr};
    std::atomic<ToolCoreCallback> m_firmwareUpdateInfoCallback{nullptr};
    // The audio state last read or set through the class face; what the
    // audio callback receives. Made zeroed on first use.
    AudioControl& AudioCache() {
        if (!m_audioCache) m_audioCache = std::make_unique<AudioControl>();
        return *m_audioCache;
    }
    std::unique_ptr<AudioControl> m_audioCache;
    uint32_t m_lightMode = 0;
    // Set when a light preview is over; the preview's worker then leaves
    // the light as it is. Every stop is also counted, so that a worker that
    // clears the flag as it starts cannot lose a stop that came just before.
    std::atomic<bool> m_previewStopped{false};
    std::atomic<uint32_t> m_previewStops{0};
    void StopLightPreview() {
        m_previewStopped = true;
        ++m_previewStops;
    }
    platform::Thread* m_previewThread = nullptr;  // the preview's worker
    // The LED parameter block: 16 entries of effect code, three colour bytes
    // and a parameter, as the class face's light control last set them.
    uint8_t m_ledParameters[80] = {};
    // Where log dumps go (UTF-8); empty: the log folder.
    const std::string& DumpFolder() const { return m_dumpFolder; }
    void SetDumpFolder(std::string folder) { m_dumpFolder = std::move(folder); }
    // Saves the system's hardware report and a summary of it (to
    // dxdiagData.txt in the dump folder), one at a time; 1. The summary
    // reads "Wait system write Dxdiag..." until the report is there (looked
    // for every 100 ms, 199 times) and "Wait WriteDxdiag time out!" when it
    // never came, also when the report could not be started.
    int SaveSystemReport();
    std::atomic<bool> m_systemReportBusy{false};
    std::atomic<uint16_t> m_systemReportCountdown{0};
    // Test seam: the report's wait between two looks is divided by this (1 =
    // the library's 100 ms). Only tests of a report that never comes change
    // it, so that its 20 s of waiting take a fraction of that.
    std::atomic<uint32_t> m_systemReportWaitDivisor{1};
    platform::Thread* m_systemReportThread = nullptr;

    // Two 40-byte zeroed information records; the second is allocated by
    // initialisation, both are replaced when selection finds no device.
    uint8_t* m_infoRecord1 = nullptr;
    uint8_t* m_infoRecord2 = nullptr;

private:
    std::vector<FoundDevice> m_lastScan;
    // The list the last scan handed out (not freed by the library) and its
    // length, for EntryLocation.
    const DeviceEntry* m_lastList = nullptr;
    size_t m_lastListCount = 0;
    std::string m_dumpFolder;
    std::unique_ptr<hid::HidBackend> m_hidBackend;
    std::atomic<KORVSDK_ScanDeviceListCallback> m_scanListCallback{nullptr};
    std::atomic<KORVSDK_DeviceStateCallback> m_deviceStateCallback{nullptr};
    std::atomic<KORVSDK_DevFwUpdateStateCallback> m_fwUpdateStateCallback{nullptr};
    std::atomic<KORVSDK_DebugOutputHandler> m_debugHandler{nullptr};
    mutable std::atomic<int> m_hostCalls[kHostSlots] = {};  // calls in progress per slot
};

// The one core object of the process, and the pointer to it that worker
// threads use.
extern VideoConsoleCoreImp g_VC_Core;
extern std::atomic<VideoConsoleCoreImp*> g_VC_CorePointer;

}  // namespace VideoConsoleCore
