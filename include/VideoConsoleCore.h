/*
 * KORVSDKDeviceTool - the C++ class face of the library, for a desktop tool.
 *
 * A tool creates the controller with createToolCore(), calls init() and
 * start(), registers its callbacks and then drives the device through
 * runCommand(command, record, nullptr) with one of the command records
 * below. Results arrive through the callbacks.
 *
 * This face passes C++ classes across the library's boundary: a client must
 * be built with the same compiler and standard library as the library
 * (g++ on Linux, mingw-w64 g++ for the Windows DLL). The C API in
 * KORVSDKDeviceTool.h has no such condition; both headers can be included
 * together.
 */
#ifndef KORVSDK_VIDEO_CONSOLE_CORE_H
#define KORVSDK_VIDEO_CONSOLE_CORE_H

#include <cstdint>
#include <exception>
#include <string>

#include "KORVSDKDeviceTool.h"

namespace VideoConsoleCore {

// ---- Obj: a small tagged value ------------------------------------------

// Thrown by Obj's checked accessors ("Obj type not match") and by
// NUM_ENSURE / NUM_EXCEPT.
class KORVSDK_API NumBaseException : public std::exception {
public:
    explicit NumBaseException(std::string message);
    const char* what() const noexcept override;

private:
    std::string message_;
};

// Throws NumBaseException with the printf-style formatted message unless
// `condition` holds.
KORVSDK_API void NUM_ENSURE(bool condition, const char* format, ...);
// Throws NumBaseException with the printf-style formatted message.
[[noreturn]] KORVSDK_API void NUM_EXCEPT(const char* format, ...);

// One scalar, one owned narrow string or one untyped pointer, with its type
// and its width in bytes. Only a string is owned: copies duplicate it.
class KORVSDK_API Obj {
public:
    enum Types : int32_t {
        kNil = 0,
        kInt32 = 1,
        kUInt32 = 2,
        kInt64 = 3,
        kUInt64 = 4,
        kFloat = 5,
        kDouble = 6,
        kString = 7,
        kPointer = 8,
        kBool = 9,
    };

    Obj();  // nil
    Obj(int value);
    Obj(unsigned int value);
    Obj(int64_t value);
    Obj(uint64_t value);
    Obj(float value);
    Obj(double value);
    Obj(char* text);         // duplicated; a null text stays null
    Obj(const char* text);   // duplicated
    Obj(signed char* text);  // duplicated
    Obj(void* pointer);      // not owned
    Obj(bool value);
    Obj(const Obj& other);
    // The target's own string is freed first: an Obj holding a string that
    // is assigned to itself ends up nil. Do not do that.
    Obj& operator=(const Obj& other);
    ~Obj();

    // Frees an owned string and makes the Obj nil; other values stay.
    void _Tidy();

    Types GetType() const { return type_; }
    uint64_t GetSize() const { return size_; }
    // The 8-byte value field, writable, without any type check.
    void* GetRaw() { return &value_; }

    // Checked accessors: each needs its one type, else NumBaseException.
    operator int() const;
    operator unsigned int() const;
    operator int64_t() const;
    operator uint64_t() const;
    operator float() const;
    operator double() const;
    operator bool() const;
    const char* GetStr() const;
    void* GetPtr() const;

    // Same type and, for strings, the same text; otherwise the first
    // GetSize() bytes of the value.
    bool operator==(const Obj& other) const;
    bool operator!=(const Obj& other) const;
    // By type number first; strings by text; other values by their raw
    // bytes in memory order (not numeric: as ints, 256 < 1).
    bool operator<(const Obj& other) const;

    // "(nil)", the number, the text, "true"/"false"; a pointer as the
    // decimal number of its low 32 bits.
    std::string ToStr() const;

    static const Obj NIL;

private:
    Types type_ = kNil;
    union Value {
        int32_t i32;
        uint32_t u32;
        int64_t i64;
        uint64_t u64;
        float f;
        double d;
        char* text;
        void* pointer;
        bool b;
    } value_{};
    uint64_t size_ = 8;
};

// ---- Command records: what a tool passes to runCommand ------------------

// Base of the command records; it holds nothing and assigns nothing.
class KORVSDK_API BaseCommandObj {
public:
    BaseCommandObj() = default;
    BaseCommandObj(const BaseCommandObj&) = default;
    BaseCommandObj(BaseCommandObj&&) = default;
    BaseCommandObj& operator=(const BaseCommandObj&) { return *this; }
    BaseCommandObj& operator=(BaseCommandObj&&) { return *this; }
    ~BaseCommandObj() = default;
};

// An empty wrapper over T (used as Final<Obj>); assigning it does nothing.
template <typename T>
class Final {
public:
    Final() = default;
    Final(const Final&) = default;
    Final(Final&&) = default;
    Final& operator=(const Final&) { return *this; }
    Final& operator=(Final&&) { return *this; }
};

// Command 0. With `query` set the device's audio state is read and handed
// to the audio callback; otherwise each setting that differs from the last
// applied record is written, and with `reportBack` the state is read and
// handed on afterwards. The audio callback receives a record of this layout
// with the two plug-in states filled.
struct KORVSDK_API AudioControl {
    uint8_t query = 0;
    uint8_t reportBack = 0;
    uint8_t auxInMute = 0;
    uint8_t hpOutMute = 0;
    uint8_t micInMute = 0;
    uint8_t hpMicPlugged = 0;  // reported only
    uint8_t auxInVolume = 0;
    uint8_t hpOutVolume = 0;
    uint8_t micInVolume = 0;
    uint8_t lineInPlugged = 0;  // reported only
};

// What the light callback receives: the light key and the five bytes last
// set for it (effect code, first, second, third colour byte, parameter).
struct KORVSDK_API DeviceLightControl {
    uint8_t key = 0;
    uint8_t light[5] = {};
};

// Command 1. Selector 2 with both flags clear sets a light effect and
// previews it: unless the preview is stopped within 4.5 s (selector 1 saves
// the LED parameters and so keeps the effect), the light goes off and back
// to its steady effect. A further effect first waits for the last preview
// to end. Selector 0 writes `effect` as a GPIO LED pattern. With `query` set
// the bytes last set under `key` go to the light callback.
struct KORVSDK_API LightControlCommand {
    uint8_t query = 0;
    uint8_t reserved = 0;
    uint32_t selector = 0;  // 0, 1 or 2
    uint8_t key = 0;
    uint8_t effect = 0;
    uint8_t parameter = 0;
    uint8_t first = 0, second = 0, third = 0;  // colour bytes
};

// Command 2. With `query` the files are set (or, without paths, taken from
// the working folder) and the firmware information goes to the
// firmware-update callback; without it the update of `target` starts (0 the
// USB bridge's flash, 1 the microcontroller) unless one runs or no file of
// that kind is armed. `start` is not needed for that. The three texts are owned (copied in, freed by the
// destructor); a null text is an empty one.
class KORVSDK_API FwUpdateCommand : public BaseCommandObj {
public:
    FwUpdateCommand() = default;
    FwUpdateCommand(const FwUpdateCommand& other);
    FwUpdateCommand(FwUpdateCommand&& other) noexcept;
    FwUpdateCommand& operator=(const FwUpdateCommand& other);
    FwUpdateCommand& operator=(FwUpdateCommand&& other) noexcept;
    ~FwUpdateCommand();

    void SetUsbFilePath(const wchar_t* text);
    void SetMcuFilePath(const wchar_t* text);
    void SetVersionText(const wchar_t* text);
    const wchar_t* UsbFilePath() const { return usbFilePath_; }
    const wchar_t* McuFilePath() const { return mcuFilePath_; }
    const wchar_t* VersionText() const { return versionText_; }

    uint8_t start = 0;
    uint8_t query = 0;
    uint8_t target = 0;

private:
    wchar_t* usbFilePath_ = nullptr;
    wchar_t* mcuFilePath_ = nullptr;
    wchar_t* versionText_ = nullptr;
};

// Command 3: a diagnostic dump (log dump or device-tagged log copy).
struct KORVSDK_API DiagnosticRequest {
    std::string email;             // contact; also the tag of the copy's name
    std::wstring describeContent;  // the user's description of the problem
    std::wstring dumpFolder;       // folder of the log dump; empty: unchanged
    std::string softwareVersion;   // the calling application's version
    bool isAllowPrivacyToSendLog = false;
    bool dumpLog = false;
    bool collectInfo = false;
};

// Command 4: selects the scanned device with these identity texts (as in
// DeviceEntry: four hexadecimal digits each, and the instance/serial).
struct KORVSDK_API DeviceIdentity {
    std::string vid;
    std::string pid;
    std::string instance;
};

// ---- Information objects: what the callbacks receive -------------------

// A callback of the class face: gets a record or information object (which
// the library owns and frees when the callback returns) and answers true
// when it took it.
using ToolCoreCallback = bool (*)(void* record);

// A scanned device. Values: 1 the device's index in the scan, 2 its model
// code, 3 its USB type (0 until known), 4 1 when it is the selected device.
// Texts: 1 vendor id, 2 product id, 3 version number, 4 serial number
// (instance), 5 manufacturer, 6 description, 7 HID device path.
class KORVSDK_API DeviceInfo_export {
public:
    virtual uint8_t GetUsbType() = 0;                          // value 3
    virtual uint8_t GetModel() = 0;                            // value 2
    virtual DeviceInfo_export* SetUsbType(uint8_t value) = 0;  // value 3
    virtual uint8_t GetSelected() = 0;                         // value 4
    virtual DeviceInfo_export* SetSelected(uint8_t value) = 0;
    virtual const char* GetVid() = 0;
    virtual DeviceInfo_export* SetVid(const char* text) = 0;
    virtual const char* GetPid() = 0;
    virtual DeviceInfo_export* SetPid(const char* text) = 0;
    virtual const char* GetVersionNumber() = 0;
    virtual DeviceInfo_export* SetVersionNumber(const char* text) = 0;
    virtual const char* GetSerialNumber() = 0;
    virtual DeviceInfo_export* SetSerialNumber(const char* text) = 0;
    virtual const char* GetManufacturer() = 0;
    virtual DeviceInfo_export* SetManufacturer(const char* text) = 0;
    virtual const char* GetDescription() = 0;
    virtual DeviceInfo_export* SetDescription(const char* text) = 0;
    virtual const char* GetDevicePath() = 0;
    virtual DeviceInfo_export* SetDevicePath(const char* text) = 0;
    virtual uint8_t GetIndex() = 0;  // value 1

protected:
    ~DeviceInfo_export() = default;
};

// What the firmware-update callback receives: the firmware information
// (command 2's query, cb_GetFirmwareInfo) and each step of an update the
// controller started. Texts: 1 USB file version text, 2 MCU file version
// text, 3 state ("Updating", "UpdateCompleted", ...), 4 message, 5 USB
// file path, 6 MCU file path, 7 USB firmware version, 8 MCU firmware
// version, 9 the device's identification text. Then three bytes around the
// float: the USB application information (the stream query) before it, which
// no getter reads; the float is the progress in percent; after it the
// selected device's model code and its USB type.
class KORVSDK_API DeviceFirmwareupdateInfo_export {
public:
    virtual const char* GetUsbFileVersion() = 0;
    virtual const char* GetMcuFileVersion() = 0;
    virtual const char* GetState() = 0;
    virtual const char* GetMessage() = 0;
    virtual const char* GetUsbFilePath() = 0;
    virtual const char* GetMcuFilePath() = 0;
    virtual const char* GetUsbFirmwareVersion() = 0;
    virtual const char* GetMcuFirmwareVersion() = 0;
    virtual const char* GetIdentification() = 0;
    virtual float GetPercent() = 0;
    virtual uint8_t GetModel() = 0;
    virtual uint8_t GetUsbType() = 0;

protected:
    ~DeviceFirmwareupdateInfo_export() = default;
};

// Interfaces a host application may implement; the library implements
// none of them.
class KORVSDK_API ControllerCoreCallBack {
public:
    virtual ~ControllerCoreCallBack() = default;
    virtual void OnCoreEvent(void* record) = 0;
};

class KORVSDK_API PropertyObserverWin_Export {
public:
    virtual ~PropertyObserverWin_Export() = default;
    virtual void OnPropertyChanged(const char* name) = 0;
};

class KORVSDK_API PropertyManagerWin_Export {
public:
    virtual ~PropertyManagerWin_Export() = default;
    virtual bool SetProperty(const char* name, const char* value) = 0;
    virtual const char* GetProperty(const char* name) = 0;
    virtual bool HasProperty(const char* name) = 0;
    virtual bool RemoveProperty(const char* name) = 0;
    virtual void AddObserver(PropertyObserverWin_Export* observer) = 0;
    virtual void RemoveObserver(PropertyObserverWin_Export* observer) = 0;
};

// The property manager object; the library has none and answers null.
KORVSDK_API PropertyManagerWin_Export* GetPropertyManagerWin_Export();

// ---- The controller ------------------------------------------------------

// Commands of runCommand and their records.
enum ToolCoreCommand : int {
    kCommandAudio = 0,           // AudioControl
    kCommandLight = 1,           // LightControlCommand
    kCommandFirmwareUpdate = 2,  // FwUpdateCommand
    kCommandDiagnostic = 3,      // DiagnosticRequest
    kCommandSelectDevice = 4,    // DeviceIdentity
};

class KORVSDK_API ToolCoreInterface {
public:
    virtual ~ToolCoreInterface() = default;
    // Initialises the library with setting.cfg of the working folder; 0.
    virtual int init() = 0;
    // Starts the controller (running shortly after, on a worker); -1.
    virtual int start() = 0;
    // Stops taking commands; 1.
    virtual int exit() = 0;
    // Carries out `command` with its record. False when no device is
    // selected (only the diagnostic command runs without one) or the
    // command is unknown; true when its handler ran, or when the
    // controller is not running (then nothing is done).
    virtual bool runCommand(int command, void* argument, void* reserved) = 0;
    // Takes the firmware files of the working folder again (the first
    // *.hex and *.bin; only images of the selected device are armed for an
    // update) and returns the first non-empty version text the library
    // holds, the flash image's first, or "".
    virtual std::string readFirmwareUpdate() = 0;
    // Takes the working folder's files as readFirmwareUpdate does and starts
    // the update of the armed program image, else of the armed flash image;
    // nothing while an update runs. 1, or -1 when it threw.
    virtual int updateFirmwareUpdate() = 0;
    // Nothing; the dump is command 3. 1.
    virtual int dumpDiagnosticLog() = 0;
    // Each callback can be registered once: 1, or -1 when one is there (or
    // there is no core). The device-info callback is acknowledged and not
    // kept.
    virtual int CB_RegisterDeviceInfo(ToolCoreCallback callback) = 0;
    virtual int CB_RegisterDiagnosticInfo(ToolCoreCallback callback) = 0;
    virtual int CB_RegisterAudioInfo(ToolCoreCallback callback) = 0;
    virtual int CB_RegisterLightInfo(ToolCoreCallback callback) = 0;
    virtual int CB_RegisterFirmwareUpdateInfo(ToolCoreCallback callback) = 0;
};

// A new controller over the library's core; delete it when done.
KORVSDK_API ToolCoreInterface* createToolCore();

// ---- Extensions of this library ------------------------------------------
// No command number names these.

// Saves the system's hardware report for a problem report, with a summary
// of it, and returns at once with 1. On Windows the system's diagnostic
// tool writes the report; on Linux the library does (system, USB devices,
// hidraw nodes, sound devices). The full report goes to dxdiagData_full.txt
// in the log folder (CurrentFolderName, or APPDATA\Company\Product with
// GenToCurrentFolder=0); the summary, the report up to its "Sound Devices"
// section, to dxdiagData.txt in the dump folder of command 3, else in
// CurrentFolderName. The summary reads "Wait system write Dxdiag..." while
// the report is awaited (about 20 s at most) and "Wait WriteDxdiag time
// out!" when it did not come. A request while one is awaited does nothing.
// Needs no selected device; 0 only when the library's core is gone (at
// process exit).
KORVSDK_API int SaveSystemReport();

}  // namespace VideoConsoleCore

#endif  // KORVSDK_VIDEO_CONSOLE_CORE_H
