// The report protocol spoken with the capture device's USB bridge chip.
//
// The bridge understands three HID reports, each bound to one value
// capability of the open interface (its report ID and length come from
// there): the data report (kind 0: raw flash data), the command report
// (kind 1: chip memory, flash set-up, flash ID, GPIO) and the IIC report
// (kind 2: the I2C tunnel to the microcontroller, and the HDMI and USB
// information replies). Every command is built from a fixed template.
//
// Output reports (kinds 1 and 2): byte 0 report ID, byte 1 the template's
// length byte, byte 2 the command, parameters little-endian from byte 3.
// Output data reports: byte 0 report ID, bytes 1-3 zero, data from byte 4.
// Input requests carry their command in bits 8-15 of the requested length:
// the bridge reads the command from the GET_REPORT length it receives.
#pragma once

#include <cstdint>
#include <functional>

#include "hid/call_hid_function.h"

namespace VideoConsoleCore {

class VideoConsoleCoreImp;

enum ReportKind : uint32_t { kDataReport = 0, kCommandReport = 1, kIicReport = 2 };

struct ReportTemplate {
    uint32_t direction;   // 1 = output (host to device), 0 = input
    uint32_t kind;        // ReportKind
    uint32_t command;     // command code; 0x10 and above: data report, no header
    uint32_t lengthByte;  // byte 1 of an output report
    const char* name;     // as the failure messages name it
};

namespace templates {
inline constexpr ReportTemplate kChipRegisterWrite{1, kCommandReport, 0x00, 0x0A, "chip register write"};
inline constexpr ReportTemplate kChipRegisterReadRequest{1, kCommandReport, 0x01, 0x06, "chip register read"};
inline constexpr ReportTemplate kChipRegisterReadReply{0, kCommandReport, 0x02, 0x02, "chip register read"};
inline constexpr ReportTemplate kFlashAccessMode{1, kCommandReport, 0x03, 0x07, "REPORT_FLASH_ACCESS_MODE"};
inline constexpr ReportTemplate kFlashGetId{0, kCommandReport, 0x04, 0x02, "REPORT_FLASH_GET_ID"};
inline constexpr ReportTemplate kFlashSetLength{1, kCommandReport, 0x05, 0x06, "REPORT_FLASH_SET_LEN"};
inline constexpr ReportTemplate kFlashWrite{1, kDataReport, 0x10, 0xFF, "REPORT_FLASH_WRITE"};
inline constexpr ReportTemplate kFlashRead{0, kDataReport, 0x11, 0xFF, "REPORT_FLASH_READ"};
inline constexpr ReportTemplate kIicWriteOutput{1, kIicReport, 0x06, 0x04, "REPORT_IIC_WRITE(OUTPUT)"};
inline constexpr ReportTemplate kIicWriteInput{0, kIicReport, 0x06, 0x02, "REPORT_IIC_WRITE(INPUT)"};
inline constexpr ReportTemplate kIicReadOutput{1, kIicReport, 0x07, 0x04, "REPORT_IIC_READ(OUTPUT)"};
inline constexpr ReportTemplate kIicReadInput{0, kIicReport, 0x07, 0x02, "REPORT_IIC_READ(INPUT)"};
inline constexpr ReportTemplate kGpioSet{1, kCommandReport, 0x08, 0x04, "REPORT_GPIO_SET"};
inline constexpr ReportTemplate kGpioWrite{1, kCommandReport, 0x09, 0x04, "REPORT_GPIO_WRITE"};
inline constexpr ReportTemplate kGpioReadOutput{1, kCommandReport, 0x0A, 0x03, "REPORT_GPIO_READ(OUTPUT)"};
inline constexpr ReportTemplate kGpioReadInput{0, kCommandReport, 0x0A, 0x02, "REPORT_GPIO_READ(INPUT)"};
inline constexpr ReportTemplate kHdmiInfo{0, kIicReport, 0x0B, 0x02, "REPORT_HDMI_INFO"};
inline constexpr ReportTemplate kReply0C{0, kIicReport, 0x0C, 0x02, "REPORT_0C"};
inline constexpr ReportTemplate kUsbInfo{0, kIicReport, 0x0D, 0x02, "REPORT_USB_INFO"};
}  // namespace templates

// Operations of the command functions.
enum IicMode : int { kIicWrite = 2, kIicRead = 3 };
enum FlashOperation : int {
    kFlashOpWrite = 16,
    kFlashOpRead = 17,    // AccessFlashData: one read; BurstFlashAccess: verify
    kFlashOpSetUp = 19,   // AccessFlashData: mode, address and length only
    kFlashOpToMemory = 32,
    kFlashOpDump = 33,    // BurstFlashAccess: to the open dump file
};
enum ChipRegisterOperation : int { kChipRegisterWriteOp = 0, kChipRegisterReadOp = 1 };
enum GpioOperation : int { kGpioSetOp = 4, kGpioWriteOp = 5, kGpioReadOp = 6 };

// Called after each burst chunk of a write (16), a verify (17) or a dump
// (33), for the progress and the activity light.
using BurstProgress = std::function<void(int operation, uint32_t done, uint32_t total)>;

// Fills `request` for one template. Output: writes the report ID (and for
// commands below 0x10 the length byte and command) into `report`, copies
// the report into the core's staging buffer and points the request at it.
// Input: points the request at the core's input buffer, with the command
// packed into bits 8-15 of the length. False when the open interface has
// no value capability for the template's kind.
bool PrepareReportRequest(VideoConsoleCoreImp& core, hid::HidCallParameters& request,
                          const ReportTemplate& report, uint8_t* reportBytes);

// Sends (output) or fetches (input) one prepared report. `hidError` is set
// when the HidD_ call itself failed. Returns the layer's success.
bool ExchangeReport(VideoConsoleCoreImp& core, const ReportTemplate& report,
                    hid::HidCallParameters& request, bool& hidError);

// An I2C transaction with the device at 7-bit `address`: mode 2 writes
// `writeCount` bytes of `data`; mode 3 writes them and reads `readCount`
// bytes. On success data[0] is the I2C status (0 = acknowledged); a read
// puts the bytes read at data[1..readCount] (so `data` must hold
// max(writeCount, readCount + 1) bytes).
uint32_t AccessIicData(VideoConsoleCoreImp& core, int mode, uint8_t address, uint8_t writeCount,
                       uint8_t* data, uint8_t readCount);

// Sets the flash access mode, address and length; then writes (16) or
// reads (17) one data report of `length` bytes, or stops (any other).
uint32_t AccessFlashData(VideoConsoleCoreImp& core, int operation, uint8_t accessMode,
                         uint32_t address, uint32_t length, uint8_t* data);

// Moves `length` bytes in data-report chunks after AccessFlashData set the
// range up: write (16), verify against `data` (17), read into `data` (32),
// or read into the core's open dump file (other). `data` holds `dataSize`
// bytes; a range [startOffset, startOffset + length) that does not lie
// inside them is refused before anything is sent.
uint32_t BurstFlashAccess(VideoConsoleCoreImp& core, int operation, uint32_t length,
                          uint8_t* data, size_t dataSize, uint32_t startOffset,
                          const BurstProgress& progress = nullptr);

// 32-bit read (1) or write (0) of the bridge chip's own memory.
uint32_t AccessChipRegister(VideoConsoleCoreImp& core, int operation, uint32_t address,
                            uint32_t* value);

// The bridge chip's GPIO pins: set the direction (4), write (5) or read.
uint32_t AccessGpio(VideoConsoleCoreImp& core, int operation, uint8_t pin, uint8_t* value);

// Reads the firmware area's identification block: keeps its chip-type and
// flash-type bytes in the core and copies the 16 low bytes of the UTF-16
// text at offset 386 into text[0..15], with a zero at text[17]. `text`
// must hold 18 bytes.
uint32_t ReadFlashInfoBlock(VideoConsoleCoreImp& core, char* text);

}  // namespace VideoConsoleCore
