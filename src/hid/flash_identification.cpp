#include "hid/flash_identification.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "core/VideoConsoleCoreImp.h"
#include "hid/flash_chip_table.h"
#include "hid/report_protocol.h"
#include "platform/platform.h"

namespace VideoConsoleCore {

namespace {

void LogLine(VideoConsoleCoreImp& core, const char* format, ...) __attribute__((format(printf, 2, 3)));
void LogLine(VideoConsoleCoreImp& core, const char* format, ...) {
    char text[128];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    core.LogInfo(text);
}

}  // namespace

bool ReadFlashIdentification(VideoConsoleCoreImp& core) {
    if (!core.m_deviceOpen) {
        core.DebugOut("Device not found !");
        return false;
    }

    // The input request alone asks for the ID: command 4 rides in its
    // length word, and no output report goes first.
    const char* failed = "Unknown error: Couldn't execute REPORT_FLASH_GET_ID function\n";
    hid::HidCallParameters request;
    bool hidError = false;
    std::lock_guard exchange(core.m_exchangeLock);
    // An interface without a command input report cannot answer at all;
    // what an earlier exchange left in the buffer is no ID.
    if (!PrepareReportRequest(core, request, templates::kFlashGetId, nullptr)) {
        core.DebugOut(failed);
        return false;
    }
    std::memset(core.m_inputBuffer.data(), 0, core.m_inputBuffer.size());
    if (!ExchangeReport(core, templates::kFlashGetId, request, hidError)) {
        // The log line keeps its line break (LogInfo drops one). The HID
        // error check below decides whether this ends the identification.
        core.LogInfo(std::string(failed) + "\n");
        core.DebugOut(failed);
    }
    if (hidError || core.m_inputBuffer.size() < 2) {
        core.DebugOut(failed);
        return false;
    }

    std::vector<uint8_t>& command = core.m_reportBuffers[kCommandReport];
    if (command.size() < 2) command.resize(2);
    std::fill(command.begin(), command.end(), 0);
    command[0] = core.m_inputBuffer[0];
    command[1] = core.m_inputBuffer[1];
    uint16_t id = static_cast<uint16_t>(command[0] | (command[1] << 8));
    char text[64];
    std::snprintf(text, sizeof text, "Device ID: %d\n", id);
    core.DebugOut(text);

    if (id >= kFlashChipCount) id = kDefaultFlashChip;
    core.m_flashDeviceId = id;
    const FlashChipInfo& chip = kFlashChips[id];
    VideoConsoleCoreImp::FlashDevice& device = core.m_flashDevice;
    if (chip.geometry) {
        const FlashGeometry& g = *chip.geometry;
        device.pageSize = g.pageSize;
        device.secondSize = g.secondSize;
        device.sectorSize = g.sectorSize;
        device.sectorsPerBlock = g.sectorsPerBlock;
        device.totalBlocks = g.totalBlocks;
        // Once a large part was seen the flag stays set.
        if (g.fourByteAddressing) device.fourByteAddressing = 1;
    }
    platform::SleepMilliseconds(4);

    LogLine(core, "----------------------------------------");
    LogLine(core, "NOR(0, 0) init device");
    LogLine(core, "----------------------------------------");
    LogLine(core, "Name            : %s", chip.name);
    LogLine(core, "Page Size       : %d Bytes", device.pageSize);
    LogLine(core, "Sector Size     : %d Bytes", static_cast<int>(device.sectorSize));
    LogLine(core, "Total Blocks    : %d", device.totalBlocks);
    LogLine(core, "Device ID       : %d", id);
    // A part without geometry on a fresh record has no page size yet.
    LogLine(core, "Pages per Sector: %d",
            device.pageSize != 0 ? static_cast<int>(device.sectorSize / device.pageSize) : 0);
    LogLine(core, "Sector in Block : %d", device.sectorsPerBlock);
    const uint64_t total =
        static_cast<uint64_t>(device.sectorSize) * device.sectorsPerBlock * device.totalBlocks;
    LogLine(core, "Total Size      : %d MB", static_cast<int>(total >> 20));

    core.m_bytesPerBlock = device.sectorSize;
    return true;
}

}  // namespace VideoConsoleCore
