#include "hid/report_protocol.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "core/VideoConsoleCoreImp.h"

namespace VideoConsoleCore {

namespace {

constexpr uint32_t kFirstDataCommand = 0x10;
constexpr uint32_t kDataHeaderBytes = 4;  // data reports: ID and three zero bytes

const hid::HidpValueCaps* CapsFor(const VideoConsoleCoreImp& core, const ReportTemplate& report) {
    const auto& caps = report.direction == 1 ? core.m_outputValueCaps : core.m_inputValueCaps;
    return report.kind < caps.size() ? &caps[report.kind] : nullptr;
}

uint32_t ReportLength(const hid::HidpValueCaps& caps) {
    return static_cast<uint16_t>(caps.ReportCount + 1u);
}

void Grow(std::vector<uint8_t>& buffer, size_t size) {
    if (buffer.size() < size) buffer.resize(size);
}

// Length of the kind's output report, report ID byte included; 0 when the
// interface has none.
uint32_t OutputLength(const VideoConsoleCoreImp& core, ReportKind kind) {
    return kind < core.m_outputValueCaps.size() ? ReportLength(core.m_outputValueCaps[kind]) : 0;
}

// The kind's output buffer, cleared. It is never shorter than the longest
// command header (11 bytes), whatever the report's length.
uint8_t* ClearedBuffer(VideoConsoleCoreImp& core, ReportKind kind) {
    std::vector<uint8_t>& buffer = core.m_reportBuffers[kind];
    Grow(buffer, std::max<size_t>(OutputLength(core, kind), 16));
    std::memset(buffer.data(), 0, buffer.size());
    return buffer.data();
}

void PutLe32(uint8_t* at, uint32_t value) {
    for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

uint32_t GetLe32(const uint8_t* at) {
    return at[0] | (at[1] << 8) | (at[2] << 16) | (static_cast<uint32_t>(at[3]) << 24);
}

std::string Couldnt(const ReportTemplate& report, const char* name = nullptr) {
    return std::string("Unknown error: Couldn't execute ") + (name ? name : report.name) +
           " function";
}

// Where a command's "Couldn't execute" text goes when its exchange fails.
enum class Say { Debugger, DebuggerAndLog, Nothing };

// Prepares and exchanges one report. Returns 1 on success, 0 when the layer
// failed (the text is said) or the HID call failed (`hidError`).
uint32_t Run(VideoConsoleCoreImp& core, const ReportTemplate& report, uint8_t* bytes,
             bool& hidError, Say say = Say::Debugger, const char* name = nullptr) {
    hid::HidCallParameters request;
    hidError = false;
    if (!PrepareReportRequest(core, request, report, bytes) ||
        !ExchangeReport(core, report, request, hidError)) {
        const std::string text = Couldnt(report, name);
        if (say != Say::Nothing) core.DebugOut(text + "\n");
        if (say == Say::DebuggerAndLog) core.LogInfo(text);
        return 0;
    }
    return hidError ? 0 : 1;
}

}  // namespace

bool PrepareReportRequest(VideoConsoleCoreImp& core, hid::HidCallParameters& request,
                          const ReportTemplate& report, uint8_t* reportBytes) {
    const hid::HidpValueCaps* caps = CapsFor(core, report);
    if (caps == nullptr) return false;
    request = hid::HidCallParameters{};
    request.deviceHandle = core.m_deviceHandle;
    request.reportType = report.direction == 1 ? hid::kOutputReport : hid::kInputReport;
    request.preparsedData = core.m_preparsedData;
    request.usagePage = caps->UsagePage;
    request.usage = caps->IsRange ? caps->Range.UsageMin : caps->NotRange.Usage_;
    request.linkCollection = caps->LinkCollection;
    request.reportId = caps->ReportID;
    const uint32_t length = ReportLength(*caps);

    if (report.direction == 1) {
        if (reportBytes == nullptr) return false;
        reportBytes[0] = caps->ReportID;
        if (report.command < kFirstDataCommand) {
            reportBytes[1] = static_cast<uint8_t>(report.lengthByte);
            reportBytes[2] = static_cast<uint8_t>(report.command);
        }
        Grow(core.m_outputStaging, length);
        std::memcpy(core.m_outputStaging.data(), reportBytes, length);
        request.dataBuffer = core.m_outputStaging.data();
        request.dataLength = length;
        return true;
    }

    // The command rides in bits 8-15 of the requested length; the platform
    // may fill as many bytes as that word says, so the buffer is that long.
    uint32_t word = length;
    if (report.command < kFirstDataCommand) word = (length | (report.command << 8)) & 0xFFFF;
    Grow(core.m_inputBuffer, std::max(word, length));
    request.dataBuffer = core.m_inputBuffer.data();
    request.dataLength = word;
    return true;
}

bool ExchangeReport(VideoConsoleCoreImp& core, const ReportTemplate& report,
                    hid::HidCallParameters& request, bool& hidError) {
    hid::HidBackend* backend = core.Hid();
    if (backend == nullptr) return false;
    if (report.direction == 0 && request.dataBuffer != nullptr && request.dataLength > 0) {
        static_cast<uint8_t*>(request.dataBuffer)[0] = request.reportId;
    }
    hid::HidCallStatus status;
    const int ran = hid::CallHidFunction(*backend, report.direction == 1 ? 10 : 9, &request,
                                         &status);
    hidError = status.failed != 0;
    return ran != 0;
}

uint32_t AccessIicData(VideoConsoleCoreImp& core, int mode, uint8_t address, uint8_t writeCount,
                       uint8_t* data, uint8_t readCount) {
    std::lock_guard exchange(core.m_exchangeLock);
    const bool read = mode == kIicRead;
    uint8_t* bytes = ClearedBuffer(core, kIicReport);
    // Header (3), address, count, the data and (reading) the read count must
    // fit the report; a request that does not is refused before it is sent.
    const uint32_t needed = 5u + writeCount + (read ? 1u : 0u);
    const uint32_t reportLength = OutputLength(core, kIicReport);
    if (needed > reportLength || (writeCount > 0 && data == nullptr)) {
        // Without a device there is no report: the callers' own silence
        // stands then.
        if (reportLength == 0) return 0;
        char text[128];
        std::snprintf(text, sizeof text,
                      "AccessIicData: %s; nothing was sent.\n",
                      writeCount > 0 && data == nullptr ? "no data to write"
                                                        : "the request does not fit the I2C report");
        core.DebugOut(text);
        return 0;
    }
    bytes[3] = address;
    bytes[4] = writeCount;
    if (writeCount > 0) std::memcpy(bytes + 5, data, writeCount);
    if (read) bytes[5 + writeCount] = readCount;

    ReportTemplate out = read ? templates::kIicReadOutput : templates::kIicWriteOutput;
    out.lengthByte += writeCount + (read ? 1u : 0u);
    const ReportTemplate& in = read ? templates::kIicReadInput : templates::kIicWriteInput;

    bool hidError = false;
    if (!Run(core, out, bytes, hidError, Say::DebuggerAndLog)) {
        if (hidError) core.LogInfo("AccessIicData write IsHidError");
        return 0;
    }
    if (!Run(core, in, nullptr, hidError, Say::DebuggerAndLog)) {
        if (hidError) core.LogInfo("AccessIicData write IsHidError");
        return 0;
    }
    if (data == nullptr) return 1;
    const size_t copy = read ? static_cast<size_t>(readCount) + 1 : 1;
    std::memcpy(data, core.m_inputBuffer.data(), std::min(copy, core.m_inputBuffer.size()));
    return 1;
}

uint32_t AccessFlashData(VideoConsoleCoreImp& core, int operation, uint8_t accessMode,
                         uint32_t address, uint32_t length, uint8_t* data) {
    std::lock_guard exchange(core.m_exchangeLock);
    // A single write must fit one data report; refuse before touching the
    // bridge's flash set-up.
    const uint32_t dataLength = OutputLength(core, kDataReport);
    const bool writeFits =
        data != nullptr && dataLength > kDataHeaderBytes && length <= dataLength - kDataHeaderBytes;
    if ((operation == kFlashOpWrite && !writeFits) || (operation == kFlashOpRead && data == nullptr)) {
        if (dataLength == 0) return 0;  // no device: nothing to say
        char text[128];
        std::snprintf(text, sizeof text,
                      "AccessFlashData: %s 0x%x bytes at 0x%x refused; nothing was sent.\n",
                      data == nullptr ? "no buffer for" : "one data report cannot carry", length,
                      address);
        core.DebugOut(text);
        return 0;
    }

    bool hidError = false;
    uint8_t* bytes = ClearedBuffer(core, kCommandReport);
    bytes[3] = accessMode;
    PutLe32(bytes + 4, address);
    if (!Run(core, templates::kFlashAccessMode, bytes, hidError)) return 0;

    bytes = ClearedBuffer(core, kCommandReport);
    PutLe32(bytes + 3, length);
    if (!Run(core, templates::kFlashSetLength, bytes, hidError)) return 0;

    if (operation == kFlashOpRead) {
        std::memset(data, 0, length);
        hid::HidCallParameters request;
        if (!PrepareReportRequest(core, request, templates::kFlashRead, nullptr) ||
            !ExchangeReport(core, templates::kFlashRead, request, hidError)) {
            core.DebugOut(Couldnt(templates::kFlashRead) + "\n");
            return 0;
        }
        if (hidError) return 0;
        std::memcpy(data, core.m_inputBuffer.data(), std::min(length, request.dataLength));
        return 1;
    }
    if (operation == kFlashOpWrite) {
        uint8_t* report = ClearedBuffer(core, kDataReport);
        std::memcpy(report + kDataHeaderBytes, data, length);
        return Run(core, templates::kFlashWrite, report, hidError);
    }
    return 1;
}

uint32_t BurstFlashAccess(VideoConsoleCoreImp& core, int operation, uint32_t length,
                          uint8_t* data, size_t dataSize, uint32_t startOffset,
                          const BurstProgress& progress) {
    if (core.m_outputValueCaps.empty() || core.m_inputValueCaps.empty()) return 0;
    const bool usesData = operation == kFlashOpWrite || operation == kFlashOpRead ||
                          operation == kFlashOpToMemory;
    if (usesData && length > 0 &&
        (data == nullptr || uint64_t{startOffset} + length > dataSize)) {
        char text[128];
        std::snprintf(text, sizeof text,
                      "Flash burst of 0x%x bytes at offset 0x%x lies outside its buffer.\n",
                      length, startOffset);
        core.DebugOut(text);
        return 0;
    }
    const uint32_t reportLength = ReportLength(core.m_outputValueCaps[kDataReport]);
    if (reportLength <= kDataHeaderBytes) return 0;
    const uint32_t chunk = reportLength - kDataHeaderBytes;

    if (core.IsUpdating()) {
        if (operation == kFlashOpWrite && !core.m_progressSilenced) {
            core.LogInfo("USB firmware is updating..");
            core.DebugOut("USB firmware is updating..\n");
        } else if (operation == kFlashOpRead) {
            core.LogInfo("USB firmware is verify..");
            core.DebugOut("USB firmware is verify..\n");
        }
    }

    uint32_t offset = 0;
    while (offset < length) {
        const uint32_t n = std::min(length - offset, chunk);
        // One chunk at a time, so that a light or a query from another
        // thread can get a word in during a long burst.
        core.m_exchangeLock.HandOver();
        std::unique_lock exchange(core.m_exchangeLock);
        uint8_t* buffer = ClearedBuffer(core, kDataReport);
        bool hidError = false;
        if (operation == kFlashOpWrite) {
            std::memcpy(buffer + kDataHeaderBytes, data + startOffset + offset, n);
            if (!Run(core, templates::kFlashWrite, buffer, hidError, Say::Debugger,
                     "BURST_FLASH_WRITE"))
                return 0;
        } else {
            if (!Run(core, templates::kFlashRead, nullptr, hidError, Say::Debugger,
                     "BURST_FLASH_READ"))
                return 0;
            const size_t got = std::min<size_t>(n, core.m_inputBuffer.size());
            std::memcpy(buffer, core.m_inputBuffer.data(), got);
            const uint32_t at = startOffset + offset;
            if (operation == kFlashOpRead) {
                if (std::memcmp(buffer, data + at, n) != 0) {
                    char text[96];
                    std::snprintf(text, sizeof text,
                                  "FlashWrite -- Compare data fail, data(0x%08x~0x%08x) \n", at,
                                  at + n);
                    core.DebugOut(text);
                    return 0;
                }
            } else if (operation == kFlashOpToMemory) {
                std::memcpy(data + at, buffer, n);
            } else {
                const bool written = core.m_dumpFile != nullptr &&
                                     std::fwrite(buffer, 1, n, core.m_dumpFile) == n &&
                                     std::fflush(core.m_dumpFile) == 0;
                if (!written) {
                    if (core.m_dumpFile != nullptr) std::fclose(core.m_dumpFile);
                    core.m_dumpFile = nullptr;
                    char text[96];
                    std::snprintf(text, sizeof text,
                                  "FlashRead -- Read data fail, data(0x%08x~0x%08x) \n", at, at + n);
                    core.DebugOut(text);
                    return 0;
                }
            }
        }
        exchange.unlock();
        offset += n;
        if (progress && operation != kFlashOpToMemory)
            progress(operation, offset, length);
    }
    return 1;
}

uint32_t AccessChipRegister(VideoConsoleCoreImp& core, int operation, uint32_t address,
                            uint32_t* value) {
    // This command says nothing about its failures; its callers do.
    std::lock_guard exchange(core.m_exchangeLock);
    bool hidError = false;
    uint8_t* bytes = ClearedBuffer(core, kCommandReport);
    PutLe32(bytes + 3, address);
    if (operation == kChipRegisterWriteOp) {
        PutLe32(bytes + 7, value != nullptr ? *value : 0);
        return Run(core, templates::kChipRegisterWrite, bytes, hidError, Say::Nothing);
    }
    if (!Run(core, templates::kChipRegisterReadRequest, bytes, hidError, Say::Nothing)) return 0;
    if (!Run(core, templates::kChipRegisterReadReply, nullptr, hidError, Say::Nothing)) return 0;
    if (value != nullptr && core.m_inputBuffer.size() >= 4) *value = GetLe32(core.m_inputBuffer.data());
    return 1;
}

uint32_t AccessGpio(VideoConsoleCoreImp& core, int operation, uint8_t pin, uint8_t* value) {
    std::lock_guard exchange(core.m_exchangeLock);
    bool hidError = false;
    uint8_t* bytes = ClearedBuffer(core, kCommandReport);
    bytes[3] = pin;
    if (operation == kGpioSetOp || operation == kGpioWriteOp) {
        bytes[4] = value != nullptr ? *value : 0;
        return Run(core, operation == kGpioSetOp ? templates::kGpioSet : templates::kGpioWrite,
                   bytes, hidError);
    }
    if (!Run(core, templates::kGpioReadOutput, bytes, hidError)) return 0;
    if (!Run(core, templates::kGpioReadInput, nullptr, hidError)) return 0;
    if (value != nullptr) *value = core.m_inputBuffer[0];
    return 1;
}

uint32_t ReadFlashInfoBlock(VideoConsoleCoreImp& core, char* text) {
    constexpr uint32_t kInfoOffset = 0x20000;
    constexpr uint32_t kInfoLength = 0x10000;
    if (!AccessFlashData(core, kFlashOpSetUp, 3, core.m_flashBaseAddress + kInfoOffset,
                         kInfoLength, nullptr))
        return 0;
    std::vector<uint8_t>& block = core.m_flashBuffer;
    Grow(block, kInfoLength);
    if (!BurstFlashAccess(core, kFlashOpToMemory, kInfoLength, block.data(), block.size(), 0))
        return 0;
    core.m_chipType = block[384];
    core.m_flashType = block[385];
    if (text != nullptr) {
        // A UTF-16LE text at 386, kept by its low bytes. Byte 16 of the
        // caller's text is left as it was.
        for (int i = 0; i < 16; ++i) text[i] = static_cast<char>(block[386 + 2 * i]);
        text[17] = '\0';
    }
    return 1;
}

}  // namespace VideoConsoleCore
