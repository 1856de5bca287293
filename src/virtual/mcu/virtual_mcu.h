// The board's microcontroller as an I2C target of the bridge chip: the
// application's register map (audio, status, version, parameter save, LED,
// the I2C master towards the splitter and the codec), and the bootloader
// that erases, programs and verifies the application.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "virtual/i2c_target.h"
#include "virtual/mcu/behind_mcu_chips.h"
#include "virtual/mcu/edid.h"

namespace VideoConsoleCore::virtualdev {

// How long the microcontroller stays busy, in simulated milliseconds
// (Advance). All zero: every operation finishes within its transaction.
struct McuTimings {
    uint32_t saveMs = 0;              // parameter save 0xBC
    uint32_t bridgeMs = 0;            // one transaction of the I2C master 0xCD
    uint32_t bootJumpMs = 0;          // application -> bootloader
    uint32_t restartMs = 0;           // bootloader -> application
    // After a jump to the bootloader or a restart the microcontroller
    // acknowledges nothing for this long while it starts up (a device made
    // from setting.cfg takes kDefaultRestartNackMs).
    uint32_t restartNackMs = 0;
    uint32_t eraseMsPerPage = 0;
    uint32_t blankCheckMsPerPage = 0;
    uint32_t programPageMs = 0;
    uint32_t verifyPageMs = 0;
};

// A few tens of milliseconds: how long a real Cortex-M0 takes to come up.
inline constexpr uint32_t kDefaultRestartNackMs = 30;

struct VirtualMcuConfig {
    uint8_t address = 0x1A;
    // Identity of the factory application (registers 0xA0..0xA5 come from
    // the program image, built from these at power-on).
    uint8_t deviceType = 0x0D;       // 0xA0
    uint8_t firmwareVersion = 0x17;  // 0xA1
    uint8_t boardVariant = 0x00;     // 0xA2: codec / board variant
    std::array<uint8_t, 3> configBytes{0x01, 0x00, 0x00};  // 0xA3..0xA5
    bool programMemoryErased = false;  // no application: starts in the bootloader
    uint8_t bootloaderVersion = 0x03;  // 0xFD

    // The codec fitted; by default the one the board variant names, at its
    // address. codecPresent false leaves the codec off the board.
    bool codecPresent = true;
    std::optional<uint8_t> codecAddress;
    std::optional<CodecKind> codecKind;

    std::vector<uint8_t> txEdid = BuildDefaultEdid();  // monitor on TX port 1

    // Audio at power-on when no parameters were saved.
    uint8_t hpOutVolume = 80;
    uint8_t micInVolume = 60;
    uint8_t auxInVolume = 70;
    uint8_t hpOutMute = 0;
    uint8_t micInMute = 0;
    uint8_t auxInMute = 0;
    uint8_t hdcp = 1;  // 0x0E

    bool hpMicPlugged = false;   // 0x16
    bool lineInPlugged = false;  // 0x17
    bool videoLocked = true;     // 0x0C
    bool hdmiSourcePresent = true;  // 0x02 bit 0
    uint8_t ledPattern = 0x80;   // 0xC8
    bool rgbLight = false;       // the RGB light chip of models 6 and 8 (bus 2, 0xCE)

    McuTimings timings;

    // When set, every register write that reaches the microcontroller is
    // appended to this file as one line of hex bytes (register, then up to
    // eight data bytes), so that a client of the library can see what its
    // calls sent to the device.
    std::string writeLogPath;
    // When set, the program memory (from 0x1000) is written to this file at
    // every power cycle (a re-plug), so that a client can compare what was
    // programmed byte for byte.
    std::string programDumpPath;
};

// Faults the tests switch on and off at any time.
struct VirtualMcuFaults {
    std::optional<uint8_t> nackRegister;  // every transaction addressing it is not acknowledged
    bool nackAll = false;                 // the microcontroller does not answer at all
    bool bootloaderStaysBusy = false;     // accepted bootloader commands never finish
    std::optional<uint32_t> verifyMismatchAddress;  // a verify covering it fails
    std::optional<uint8_t> saveResult;    // status a save ends with (0x10, 0x20, 0x40, ...)
    bool bridgeNeverCompletes = false;    // 0xCF stays busy
};

enum class McuMode : uint8_t { Application, Bootloader, Restarting };

// Where the codec of a board variant sits on bus 1 and which ID it answers.
struct CodecPlace {
    uint8_t address;
    CodecKind kind;
};
CodecPlace CodecForVariant(uint8_t boardVariant);

class VirtualMcu : public I2cTarget {
public:
    // Register numbers of the application.
    static constexpr uint8_t kRegHdmiInput = 0x02;
    static constexpr uint8_t kRegVideoLocked = 0x0C;
    static constexpr uint8_t kRegHdcp = 0x0E;
    static constexpr uint8_t kRegHpOutVolume = 0x10;
    static constexpr uint8_t kRegMicInVolume = 0x11;
    static constexpr uint8_t kRegAuxInVolume = 0x12;
    static constexpr uint8_t kRegHpOutMuteState = 0x13;
    static constexpr uint8_t kRegMicInMuteState = 0x14;
    static constexpr uint8_t kRegAuxInMuteState = 0x15;
    static constexpr uint8_t kRegHpMicPlug = 0x16;
    static constexpr uint8_t kRegLineInPlug = 0x17;
    static constexpr uint8_t kRegHpOutMuteSet = 0x18;
    static constexpr uint8_t kRegMicInMuteSet = 0x19;
    static constexpr uint8_t kRegAuxInMuteSet = 0x1A;
    static constexpr uint8_t kRegDeviceType = 0xA0;
    static constexpr uint8_t kRegFirmwareVersion = 0xA1;
    static constexpr uint8_t kRegBoardVariant = 0xA2;
    static constexpr uint8_t kRegSave = 0xBC;
    static constexpr uint8_t kRegParameterSource = 0xC6;
    static constexpr uint8_t kRegLed = 0xC8;
    static constexpr uint8_t kRegBridgeCommand = 0xCD;
    static constexpr uint8_t kRegBridgeData = 0xCE;
    static constexpr uint8_t kRegBridgeStatus = 0xCF;
    static constexpr uint8_t kRegWorkMode = 0xE0;
    static constexpr uint8_t kRegJumpBootloader = 0xEE;
    static constexpr uint8_t kRegBootloaderVersion = 0xFD;
    // Bootloader.
    static constexpr uint8_t kBlBusy = 0xE1;
    static constexpr uint8_t kBlCommand = 0xE2;

    // Status values.
    static constexpr uint8_t kSaveBusy = 0x01;     // parameter save running
    static constexpr uint8_t kLedSaveBusy = 0x02;  // LED parameter save running
    static constexpr uint8_t kBridgeBusy = 0x01;
    static constexpr uint8_t kBridgeNoAck = 0x02;
    static constexpr uint8_t kBlStatusBusy = 0x01;
    static constexpr uint8_t kBlStatusBlankFail = 0x81;
    static constexpr uint8_t kBlStatusVerifyFail = 0x82;
    static constexpr uint8_t kBlStatusNoApplication = 0x83;

    static constexpr size_t kLedParameterSize = 80;

    explicit VirtualMcu(VirtualMcuConfig config = {});
    ~VirtualMcu() override;

    uint8_t Address() const { return config_.address; }

    bool Write(const uint8_t* data, size_t count) override;
    bool Read(const uint8_t* writeData, size_t writeCount, uint8_t* out, size_t readCount) override;
    void Advance(uint32_t milliseconds) override;

    // The bridge chip's GPIO pin 1 is wired to the microcontroller's boot
    // request input: raising it makes the application jump to the bootloader.
    void EnterBootloaderLine();
    // Power removed and applied again (the device re-plugged). Saved
    // parameters and program memory stay.
    void PowerCycle();

    VirtualMcuFaults& Faults() { return faults_; }

    // Inputs the board's surroundings change.
    void SetHpMicPlugged(bool plugged) { hpMicPlugged_ = plugged; }
    void SetLineInPlugged(bool plugged) { lineInPlugged_ = plugged; }
    void SetVideoLocked(bool locked) { videoLocked_ = locked; }
    void SetHdmiSourcePresent(bool present) { hdmiSourcePresent_ = present; }

    // Observation for tests and the device model.
    McuMode Mode() const { return mode_; }
    uint8_t LedPattern() const { return led_; }
    // Every pattern written to 0xC8 since power-on, with the microcontroller's
    // clock (milliseconds of Advance) at the time.
    struct LedWrite {
        uint64_t atMs;
        uint8_t pattern;
    };
    const std::vector<LedWrite>& LedTimeline() const { return ledTimeline_; }
    uint64_t ClockMs() const { return clockMs_; }
    // Bootloader command frames taken since construction.
    uint64_t BootloaderCommands() const { return bootloaderCommands_; }
    // Register reads addressed to `reg` since construction, acknowledged
    // or not (a polling host's looks at a register).
    uint64_t ReadsOf(uint8_t reg) const { return readsAddressed_[reg]; }
    // Register writes (address and data) addressed to `reg`, the same way.
    uint64_t WritesOf(uint8_t reg) const { return writesAddressed_[reg]; }
    VirtualRgbLight* RgbLight() { return rgbLight_.get(); }
    // Program memory from address 0x1000 (kImageMaxSize bytes, 0xFF erased).
    const std::vector<uint8_t>& ProgramMemory() const { return program_; }
    bool HasSavedParameters() const { return saved_.has_value(); }
    const std::optional<std::array<uint8_t, kLedParameterSize>>& SavedLedParameters() const {
        return savedLed_;
    }
    VirtualHdmiSplitter& Splitter() { return *splitter_; }
    VirtualAudioCodec* Codec() { return codec_.get(); }

    // Puts a further chip on one of the microcontroller's buses (0..3).
    // Bus 0 holds the splitter at 0x6A, bus 1 the codec.
    void AttachBusTarget(uint8_t bus, uint8_t address, I2cTarget* target);

private:
    struct Audio {
        uint8_t hpVolume, micVolume, auxVolume, hpMute, micMute, auxMute, hdcp;
    };
    // A countdown of simulated time; `forever` never ends.
    struct Busy {
        bool active = false;
        bool forever = false;
        uint32_t left = 0;
    };
    struct BridgeJob {
        bool read = false;
        uint8_t bus = 0;
        uint8_t device = 0;
        std::vector<uint8_t> address;
        uint8_t count = 0;
        std::vector<uint8_t> payload;
    };
    enum class BlOp : uint8_t { None, Erase, BlankCheck, Program, Verify };

    void Start(McuMode target);  // power-on of bootloader or application
    void LoadIdentity();
    bool Nacked(const uint8_t* data, size_t count) const;

    bool WriteApplication(const uint8_t* data, size_t count);
    bool WriteAppRegister(uint8_t reg, uint8_t value);
    bool WriteLed(uint8_t value);
    bool StartSave(const uint8_t* data, size_t count);
    bool StartBridge(const uint8_t* data, size_t count);
    uint8_t ReadAppRegister(uint8_t reg) const;

    bool WriteBootloader(const uint8_t* data, size_t count);
    uint8_t ReadBootloaderRegister(uint8_t reg) const;
    bool BlAddressRange(uint32_t address, uint32_t pages) const;

    void AppendWriteLog(const uint8_t* data, size_t count) const;
    void FinishSave();
    void FinishBridge();
    void FinishBootloaderOp();
    void FinishTransition();
    static bool Tick(Busy& busy, uint32_t& ms);
    static void Arm(Busy& busy, uint32_t ms, bool forever);

    VirtualMcuConfig config_;
    VirtualMcuFaults faults_;
    McuMode mode_ = McuMode::Application;
    McuMode transitionTarget_ = McuMode::Application;
    Busy transition_;
    Busy startingUp_;  // NACKs everything while it runs
    uint8_t pointer_ = 0;

    // Application state.
    std::array<uint8_t, 6> identity_{};  // 0xA0..0xA5
    Audio audio_{};
    bool hpMicPlugged_, lineInPlugged_, videoLocked_, hdmiSourcePresent_;
    uint8_t led_;
    std::vector<LedWrite> ledTimeline_;
    uint64_t bootloaderCommands_ = 0;
    std::array<uint64_t, 256> readsAddressed_{};
    std::array<uint64_t, 256> writesAddressed_{};
    uint64_t clockMs_ = 0;
    uint8_t parameterSource_ = 0;
    std::optional<Audio> saved_;
    std::optional<std::array<uint8_t, kLedParameterSize>> savedLed_;
    uint8_t saveStatus_ = 0;
    Busy save_;
    bool saveIsLed_ = false;
    std::array<uint8_t, kLedParameterSize> pendingLed_{};

    // I2C master.
    std::unique_ptr<VirtualHdmiSplitter> splitter_;
    std::unique_ptr<VirtualAudioCodec> codec_;
    std::unique_ptr<VirtualRgbLight> rgbLight_;
    std::map<std::pair<uint8_t, uint8_t>, I2cTarget*> busTargets_;
    uint8_t bridgeStatus_ = 0;
    Busy bridge_;
    BridgeJob bridgeJob_;
    std::vector<uint8_t> bridgeData_;

    // Bootloader.
    std::vector<uint8_t> program_;
    uint8_t blStatus_ = 0;
    Busy blBusy_;
    BlOp blOp_ = BlOp::None;
    uint32_t blAddress_ = 0;
    uint32_t blPages_ = 0;
    std::array<uint8_t, 128> blPage_{};
};

}  // namespace VideoConsoleCore::virtualdev
