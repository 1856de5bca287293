// The fault matrix: every fault the virtual device can show, struck while
// each exported operation that reaches the device runs. One test per
// export (a process of its own under ctest); inside it every fault column
// runs on a freshly reset and re-selected device, armed so that it strikes
// the export's own exchanges (the first call of a kind after selection, the
// next transfer, ...).
//
// Each cell is classified (legend below) and checked: the device state is
// back to 2, no update worker still runs, the virtual backend holds at most
// the selection's own handle, and the next selection is not refused. The
// row and its notes must match docs/fault-matrix.md; with
// KORVSDK_FAULT_MATRIX_OUT=<folder> each test writes its part there instead
// (scripts/fault-matrix.sh puts the parts together). FM_DEBUG=<column>
// prints every text of that column's cells. A row needs a process of its
// own (KORVSDK_Init works once per process): run one with --gtest_filter.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "KORVSDKDeviceTool.h"
#include "core/VideoConsoleCoreImp.h"
#include "firmware/lights.h"
#include "firmware/update_common.h"
#include "support/test_support.h"
#include "virtual/device/usb_image.h"
#include "virtual/device/virtual_hid_backend.h"
#include "virtual/mcu/mcu_image.h"

namespace {

using namespace VideoConsoleCore;
using virtualdev::HidCall;
using virtualdev::VirtualHidBackend;
using korvsdk_test::MessageLog;

VirtualHidBackend& Device() { return *static_cast<VirtualHidBackend*>(g_VC_Core.Hid()); }

// ---- What the callbacks said -------------------------------------------

std::vector<std::string> g_stateTexts;  // device-state callback messages
std::string g_fwState, g_fwMessage;     // the last update-state record with a state
void OnState(DeviceStateInfo* info) { g_stateTexts.emplace_back(info->message ? info->message : ""); }
void OnFw(DevFwUpdateStateInfo* info) {
    if (info->state == nullptr) return;
    g_fwState = info->state;
    g_fwMessage = info->message ? info->message : "";
}

// ---- The exports ---------------------------------------------------------

struct Outcome {
    bool ok = false;      // the export's own success
    std::string value;    // what it answered
};

std::string g_usbImage, g_mcuImage, g_backup;  // file paths
DeviceEntry* g_list = nullptr;
uint16_t g_count = 0;

Outcome Bool(int result) { return {result == 1, std::to_string(result)}; }
Outcome Text(char* text) {
    Outcome out{text != nullptr && *text != 0, text ? text : ""};
    KORVSDK_Free_PeCHAR(&text);
    return out;
}
Outcome Get(KORVSDK_BOOL (*get)(uint8_t*)) {
    uint8_t value = 0xEE;
    const int result = get(&value);
    return {result == 1, result == 1 ? std::to_string(value) : "-"};
}
Outcome Info(KORVSDK_BOOL (*query)()) {
    Outcome out = Bool(query());
    for (const std::string& text : g_stateTexts) out.value += "|" + text;
    return out;
}
// A start, then the update to its end; the final update state is the answer.
Outcome Update(KORVSDK_BOOL (*start)()) {
    const int started = start();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(40);
    while (KORVSDK_Check_IsFirmwareUpdating() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return {started == 1 && g_fwState == "UpdateCompleted", g_fwState};
}

// What a row's failure may look like besides a failure with a message.
enum Kind : unsigned {
    kPlain = 0,
    kProbe = 1,    // 0 is an answer (absent, not in boot mode): class A
    kSilent = 2,   // a failure its result alone reports: class F0
    kPartial = 4,  // answers with what it could read, the rest zeroed or said: class P
};

struct Export {
    const char* name;
    uint8_t reg;  // microcontroller register of its exchange (the NACK column)
    unsigned kind;
    void (*prepare)();
    Outcome (*run)();
};

void SetUsbFile() { KORVSDK_Set_USB_HexFile(g_usbImage.c_str()); }
// The update writes its light pattern once (period 0), so that it always
// talks to the microcontroller; the finish lights after it would do so only
// now and then before the cell stops them.
void SetUsbFileAndLight() {
    SetUsbFile();
    KORVSDK_Set_Update_GPIO_LED_Lights(0, 0x82, 0);
}
void SetMcuFile() { KORVSDK_Set_MCU_BinFile(g_mcuImage.c_str()); }

#define SET(fn, v) [] { return Bool(fn(v)); }
const Export kExports[] = {
    {"Scan_DeviceList", 0xA0, kSilent, nullptr,
     [] {
         DeviceEntry* list = nullptr;
         uint16_t count = 0;
         Outcome out = Bool(KORVSDK_Scan_DeviceList(&list, &count));
         out.value += "/" + std::to_string(count);
         KORVSDK_Free_DeviceList(&list, &count);
         return out;
     }},
    {"Select_Device", 0xA1, kPlain, nullptr, [] { return Bool(KORVSDK_Select_Device(&g_list[0])); }},
    {"Get_Device_USBType", 0xA0, kPlain, nullptr,
     [] { const int t = KORVSDK_Get_Device_USBType(); return Outcome{t != 0, std::to_string(t)}; }},
    {"Get_USB_FW_Ver", 0xA0, kSilent, nullptr, [] { return Text(KORVSDK_Get_USB_FW_Ver()); }},
    {"Get_MCU_FW_Ver", 0xA1, kPlain, nullptr, [] { return Text(KORVSDK_Get_MCU_FW_Ver()); }},
    {"Set_USB_HexFile", 0xA0, kPlain, nullptr, [] { return Bool(KORVSDK_Set_USB_HexFile(g_usbImage.c_str())); }},
    {"Set_MCU_BinFile", 0xA0, kPlain, nullptr, [] { return Bool(KORVSDK_Set_MCU_BinFile(g_mcuImage.c_str())); }},
    {"Get_USB_HexFile_Ver", 0xA0, kPlain, SetUsbFile, [] { return Text(KORVSDK_Get_USB_HexFile_Ver()); }},
    {"Get_MCU_BinFile_Ver", 0xA0, kPlain, SetMcuFile, [] { return Text(KORVSDK_Get_MCU_BinFile_Ver()); }},
    {"Start_USB_FwUpdate", 0xC8, kPlain, SetUsbFileAndLight, [] { return Update(KORVSDK_Start_USB_FwUpdate); }},
    {"Start_MCU_FwUpdate", 0xE0, kPlain, SetMcuFile, [] { return Update(KORVSDK_Start_MCU_FwUpdate); }},
    {"Read_USB_Flash", 0xA0, kPlain, nullptr,
     [] { return Outcome{KORVSDK_Read_USB_Flash(g_backup.c_str()) == 1, g_fwState}; }},
    {"Get_HDMI_Info", 0xCD, kPartial, nullptr, [] { return Info(KORVSDK_Get_HDMI_Info); }},
    {"Get_MCU_Info", 0x02, kPartial | kSilent, nullptr, [] { return Info(KORVSDK_Get_MCU_Info); }},
    {"Get_USB_APP_Info", 0xA0, kPartial, nullptr, [] { return Info(KORVSDK_Get_USB_APP_Info); }},
    {"Set_GPIO_LED", 0xC8, kSilent, nullptr, SET(KORVSDK_Set_GPIO_LED, 0x81)},
    {"Set_Update_GPIO_LED_Lights", 0xC8, kPlain, nullptr,
     [] { return Bool(KORVSDK_Set_Update_GPIO_LED_Lights(1, 0x81, 0)); }},
    {"Check_Is_MCU_OnBoard", 0xA0, kProbe, nullptr, [] { return Info(KORVSDK_Check_Is_MCU_OnBoard); }},
    {"Check_Is_AudioIC_OnBoard", 0xA2, kProbe, nullptr, [] { return Info(KORVSDK_Check_Is_AudioIC_OnBoard); }},
    {"Save_Audio_HDCP_Parameters", 0xBC, kPlain, nullptr, [] { return Bool(KORVSDK_Save_Audio_HDCP_Parameters()); }},
    {"Enter_Boot_Mode", 0xE0, kPlain, nullptr, [] { return Bool(KORVSDK_Enter_Boot_Mode()); }},
    {"Check_Is_Boot_Mode", 0xE0, kProbe, nullptr, [] { return Bool(KORVSDK_Check_Is_Boot_Mode()); }},
    {"Audio_Get_AUX_In_Mute", 0x15, kSilent, nullptr, [] { return Get(KORVSDK_Audio_Get_AUX_In_Mute); }},
    {"Audio_Set_AUX_In_Mute", 0x1A, kSilent, nullptr, SET(KORVSDK_Audio_Set_AUX_In_Mute, 1)},
    {"Audio_Get_HP_Out_Mute", 0x13, kSilent, nullptr, [] { return Get(KORVSDK_Audio_Get_HP_Out_Mute); }},
    {"Audio_Set_HP_Out_Mute", 0x18, kSilent, nullptr, SET(KORVSDK_Audio_Set_HP_Out_Mute, 1)},
    {"Audio_Get_MIC_In_Mute", 0x14, kSilent, nullptr, [] { return Get(KORVSDK_Audio_Get_MIC_In_Mute); }},
    {"Audio_Set_MIC_In_Mute", 0x19, kSilent, nullptr, SET(KORVSDK_Audio_Set_MIC_In_Mute, 1)},
    {"Audio_Get_AUX_In_Volume", 0x12, kSilent, nullptr, [] { return Get(KORVSDK_Audio_Get_AUX_In_Volume); }},
    {"Audio_Set_AUX_In_Volume", 0x12, kSilent, nullptr, SET(KORVSDK_Audio_Set_AUX_In_Volume, 40)},
    {"Audio_Get_HP_Out_Volume", 0x10, kSilent, nullptr, [] { return Get(KORVSDK_Audio_Get_HP_Out_Volume); }},
    {"Audio_Set_HP_Out_Volume", 0x10, kSilent, nullptr, SET(KORVSDK_Audio_Set_HP_Out_Volume, 40)},
    {"Audio_Get_MIC_In_Volume", 0x11, kSilent, nullptr, [] { return Get(KORVSDK_Audio_Get_MIC_In_Volume); }},
    {"Audio_Set_MIC_In_Volume", 0x11, kSilent, nullptr, SET(KORVSDK_Audio_Set_MIC_In_Volume, 40)},
    {"Audio_Get_HDMI_SideTone_Mute", 0x15, kSilent, nullptr, [] { return Get(KORVSDK_Audio_Get_HDMI_SideTone_Mute); }},
    {"Audio_Set_HDMI_SideTone_Mute", 0x1A, kSilent, nullptr, SET(KORVSDK_Audio_Set_HDMI_SideTone_Mute, 1)},
    {"Audio_Get_HDMI_SideTone_Volume", 0x12, kSilent, nullptr, [] { return Get(KORVSDK_Audio_Get_HDMI_SideTone_Volume); }},
    {"Audio_Set_HDMI_SideTone_Volume", 0x12, kSilent, nullptr, SET(KORVSDK_Audio_Set_HDMI_SideTone_Volume, 40)},
    {"Get_HDMI_Video_Locked", 0x0C, kSilent, nullptr, [] { return Get(KORVSDK_Get_HDMI_Video_Locked); }},
    {"Get_HP_Mic_PlugIn", 0x16, kSilent, nullptr, [] { return Get(KORVSDK_Get_HP_Mic_PlugIn); }},
    {"Get_Line_In_PlugIn", 0x17, kSilent, nullptr, [] { return Get(KORVSDK_Get_Line_In_PlugIn); }},
};
#undef SET

// ---- The faults ----------------------------------------------------------

// Counters of the device that tell whether a fault had its chance.
struct Snapshot {
    uint32_t calls[10] = {};
    uint32_t transfers = 0;
    uint64_t iic = 0, blCommands = 0, saves = 0, bridgeCommands = 0, regTouches = 0;
    uint8_t flashByte = 0;
};
// Report transfers of the row's reference run, for the faults armed midway.
uint32_t g_referenceTransfers = 0;
uint32_t Midway(const Snapshot& s) { return s.transfers + std::max<uint32_t>(1, g_referenceTransfers / 2); }

constexpr uint32_t kCorruptAt = virtualdev::flash_layout::kFirmwareStart + 0x100;

Snapshot Take(uint8_t reg) {
    VirtualHidBackend& d = Device();
    Snapshot s;
    for (int c = 1; c < 10; ++c) s.calls[c] = d.Calls(0, static_cast<HidCall>(c));
    s.transfers = d.Transfers(0);
    s.iic = d.Bridge(0).IicRequests();
    s.blCommands = d.Mcu(0).BootloaderCommands();
    s.saves = d.Mcu(0).WritesOf(virtualdev::VirtualMcu::kRegSave);
    s.bridgeCommands = d.Mcu(0).WritesOf(virtualdev::VirtualMcu::kRegBridgeCommand);
    s.regTouches = d.Mcu(0).ReadsOf(reg) + d.Mcu(0).WritesOf(reg);
    d.Flash(0).Read(kCorruptAt, &s.flashByte, 1);
    return s;
}

struct Fault {
    const char* column;
    const char* armed;  // how the column arms it (legend)
    HidCall call;       // a failing HID call kind, or kNone
    // Arms the fault on the device (`s`: its counters now, `reg`: the row's
    // register); `fired`: whether the fault had its chance.
    void (*arm)(VirtualHidBackend& d, const Snapshot& s, uint8_t reg);
    bool (*fired)(const Snapshot& before, const Snapshot& after);
};

#define FAIL_CALL(col, kind)                                                                  \
    {col, "the first " #kind " call after selection fails", HidCall::k##kind,                  \
     [](VirtualHidBackend& d, const Snapshot& s, uint8_t) {                                    \
         d.Faults(0).failCall = HidCall::k##kind;                                               \
         d.Faults(0).failAt = s.calls[static_cast<int>(HidCall::k##kind)] + 1;                  \
     },                                                                                        \
     [](const Snapshot& b, const Snapshot& a) {                                                \
         const int c = static_cast<int>(HidCall::k##kind);                                      \
         return a.calls[c] > b.calls[c];                                                       \
     }}

const Fault kFaults[] = {
    {"none", "no fault: the row's reference answer", HidCall::kNone,
     [](VirtualHidBackend&, const Snapshot&, uint8_t) {},
     [](const Snapshot&, const Snapshot&) { return true; }},
    FAIL_CALL("Open", Open),
    FAIL_CALL("Attr", GetAttributes),
    FAIL_CALL("Prep", GetPreparsedData),
    FAIL_CALL("SetOut", SetOutputReport),
    FAIL_CALL("GetIn", GetInputReport),
    FAIL_CALL("Serial", GetSerialNumberString),
    FAIL_CALL("Product", GetProductString),
    FAIL_CALL("EnumHid", EnumerateHidInterfaces),
    FAIL_CALL("EnumUsb", EnumerateUsbDevices),
    {"Stall", "the bridge stalls every input report request (HID error flag on each reply)",
     HidCall::kNone, [](VirtualHidBackend& d, const Snapshot&, uint8_t) { d.Faults(0).repliesStall = true; },
     [](const Snapshot& b, const Snapshot& a) {
         const int c = static_cast<int>(HidCall::kGetInputReport);
         return a.calls[c] > b.calls[c];
     }},
    {"Nack", "the microcontroller does not acknowledge the row's register", HidCall::kNone,
     [](VirtualHidBackend& d, const Snapshot&, uint8_t reg) { d.Mcu(0).Faults().nackRegister = reg; },
     [](const Snapshot& b, const Snapshot& a) { return a.regTouches > b.regTouches; }},
    {"Mute", "the microcontroller acknowledges nothing", HidCall::kNone,
     [](VirtualHidBackend& d, const Snapshot&, uint8_t) { d.Mcu(0).Faults().nackAll = true; },
     [](const Snapshot& b, const Snapshot& a) { return a.iic > b.iic; }},
    {"IicBusy", "every IIC reply of the bridge says busy, no I2C transfer runs", HidCall::kNone,
     [](VirtualHidBackend& d, const Snapshot&, uint8_t) { d.Faults(0).iicNeverFinishes = true; },
     [](const Snapshot& b, const Snapshot& a) { return a.iic > b.iic; }},
    {"Bridge", "the microcontroller's I2C master never completes (0xCF stays busy)", HidCall::kNone,
     [](VirtualHidBackend& d, const Snapshot&, uint8_t) { d.Mcu(0).Faults().bridgeNeverCompletes = true; },
     [](const Snapshot& b, const Snapshot& a) { return a.bridgeCommands > b.bridgeCommands; }},
    {"BlBusy", "the bootloader never finishes a command", HidCall::kNone,
     [](VirtualHidBackend& d, const Snapshot&, uint8_t) { d.Mcu(0).Faults().bootloaderStaysBusy = true; },
     [](const Snapshot& b, const Snapshot& a) { return a.blCommands > b.blCommands; }},
    {"Verify", "the bootloader's verify of the first program page fails", HidCall::kNone,
     [](VirtualHidBackend& d, const Snapshot&, uint8_t) {
         d.Mcu(0).Faults().verifyMismatchAddress = virtualdev::kProgramBase;
     },
     [](const Snapshot& b, const Snapshot& a) { return a.blCommands > b.blCommands; }},
    {"Save", "a parameter save ends with status 0x20", HidCall::kNone,
     [](VirtualHidBackend& d, const Snapshot&, uint8_t) { d.Mcu(0).Faults().saveResult = 0x20; },
     [](const Snapshot& b, const Snapshot& a) { return a.saves > b.saves; }},
    {"Unplug", "the device is unplugged after the next report transfer", HidCall::kNone,
     [](VirtualHidBackend& d, const Snapshot& s, uint8_t) { d.Faults(0).unplugAfterTransfers = s.transfers + 1; },
     [](const Snapshot& b, const Snapshot& a) { return a.transfers > b.transfers; }},
    {"Power", "the microcontroller loses power after the next report transfer", HidCall::kNone,
     [](VirtualHidBackend& d, const Snapshot& s, uint8_t) {
         d.Faults(0).mcuPowerCutAfterTransfers = s.transfers + 1;
     },
     [](const Snapshot& b, const Snapshot& a) { return a.transfers > b.transfers; }},
    {"Cut1/2", "the device is unplugged after half the transfers the export makes without faults",
     HidCall::kNone,
     [](VirtualHidBackend& d, const Snapshot& s, uint8_t) { d.Faults(0).unplugAfterTransfers = Midway(s); },
     [](const Snapshot& b, const Snapshot& a) { return a.transfers >= Midway(b); }},
    {"Pow1/2", "the microcontroller loses power after half the export's transfers", HidCall::kNone,
     [](VirtualHidBackend& d, const Snapshot& s, uint8_t) {
         d.Faults(0).mcuPowerCutAfterTransfers = Midway(s);
     },
     [](const Snapshot& b, const Snapshot& a) { return a.transfers >= Midway(b); }},
    {"Corrupt", "the flash cell at 0x180100 stores a written byte inverted", HidCall::kNone,
     [](VirtualHidBackend& d, const Snapshot&, uint8_t) { d.Faults(0).corruptFlashAt = kCorruptAt; },
     [](const Snapshot& b, const Snapshot& a) { return a.flashByte != b.flashByte; }},
};
#undef FAIL_CALL

// ---- One cell --------------------------------------------------------------

struct Cell {
    std::string code;     // outcome class
    std::string message;  // what the export said, for the notes
    std::string broken;   // invariants that did not hold
};

// Every text the export gave: debugger output, device-state and
// update-state callbacks.
std::vector<std::string> Texts() {
    std::vector<std::string> texts;
    for (std::string t : MessageLog::Texts()) {
        while (!t.empty() && (t.back() == '\n' || t.back() == '\r')) t.pop_back();
        // The finish lights' exit texts come when the cell stops them.
        if (!t.empty() && t.rfind("Call Exit_", 0) != 0) texts.push_back(t);
    }
    for (const std::string& t : g_stateTexts)
        if (!t.empty()) texts.push_back(t);
    if (!g_fwState.empty()) texts.push_back(g_fwState + ": " + g_fwMessage);
    return texts;
}

bool Refusal(const std::string& text) {
    return text.rfind("Please ", 0) == 0 || text.rfind("Cannot ", 0) == 0;
}

// Fresh device, selected from the row's one scan (a reset device keeps
// its serial); the export prepared.
void Fresh(const Export& row) {
    Device().Reset(0);
    ASSERT_EQ(KORVSDK_Select_Device(&g_list[0]), 1) << "the next selection was refused";
    if (row.prepare) row.prepare();
}

Cell RunCell(const Export& row, const Fault& fault, const Outcome& reference,
             const std::set<std::string>& referenceTexts, Outcome* answer,
             std::set<std::string>* texts) {
    Fresh(row);
    if (::testing::Test::HasFatalFailure()) return {"?", "", "no fresh selection"};
    const Snapshot before = Take(row.reg);
    fault.arm(Device(), before, row.reg);
    MessageLog::Clear();
    g_stateTexts.clear();
    g_fwState.clear();
    g_fwMessage.clear();

    const Outcome out = row.run();
    // The finish lights of an update keep blinking by design until the
    // next selection; stopping them here keeps their writes out of the
    // counters and shows that they end.
    firmware::StopLightThreads(g_VC_Core);
    const Snapshot after = Take(row.reg);
    Device().Faults(0) = {};
    Device().Mcu(0).Faults() = {};

    Cell cell;
    if (g_VC_Core.m_deviceState != kDeviceStateSelected) cell.broken += " state";
    if (KORVSDK_Check_IsFirmwareUpdating() != 0) cell.broken += " updating";
    else firmware::JoinUpdateThread(g_VC_Core);
    if (Device().OpenHandles() > 1) cell.broken += " handles";

    const std::vector<std::string> all = Texts();
    if (const char* dbg = std::getenv("FM_DEBUG"); dbg && std::string(dbg) == fault.column)
        for (const std::string& t : all) std::printf("  [%s] %s\n", fault.column, t.c_str());
    if (answer) {
        *answer = out;
        g_referenceTransfers = after.transfers - before.transfers;
    }
    if (texts) texts->insert(all.begin(), all.end());
    std::vector<std::string> fresh;
    for (const std::string& t : all)
        if (!referenceTexts.count(t)) fresh.push_back(t);

    const bool same = out.ok == reference.ok && out.value == reference.value;
    if (!fault.fired(before, after)) {
        cell.code = same ? "-" : "?";
    } else if (same) {
        cell.code = "=";
    } else if (row.kind & kProbe) {
        cell.code = "A";
    } else if (out.ok) {
        cell.code = "P";
    } else if (fresh.empty()) {
        cell.code = "F0";
    } else {
        cell.code = Refusal(fresh.front()) ? "R" : "F";
    }
    // The message worth noting: an update's or backup's final record, else
    // the first new text.
    if (!g_fwState.empty() && g_fwState != reference.value && !g_fwMessage.empty()) {
        cell.message = g_fwState + ": " + g_fwMessage;
    } else if (!fresh.empty()) {
        cell.message = fresh.front();
    } else if (cell.code == "A" || cell.code == "P") {
        cell.message = "answer " + out.value;
    }
    for (char& c : cell.message)
        if (c == '|' || c == '\n' || c == '`') c = ' ';
    if (cell.message.size() > 100) cell.message = cell.message.substr(0, 97) + "...";
    return cell;
}

// ---- The document ------------------------------------------------------------

// The generated part of the document: the fault columns and the table's
// head (the method, the legend and the notes above it are kept by hand).
std::string Header() {
    std::ostringstream o;
    o << "## Fault columns\n\n";
    for (const Fault& f : kFaults) o << "- `" << f.column << "`: " << f.armed << "\n";
    o << "\n## Matrix\n\n| export |";
    for (const Fault& f : kFaults) o << " " << f.column << " |";
    o << "\n|---|";
    for (size_t i = 0; i < std::size(kFaults); ++i) o << "---|";
    o << "\n";
    return o.str();
}

std::string Row(const Export& row, const std::vector<Cell>& cells) {
    std::string line = std::string("| ") + row.name + " |";
    for (const Cell& c : cells) line += " " + c.code + " |";
    return line + "\n";
}

// Notes: for each distinct message of the row, the columns that gave it.
std::string Notes(const Export& row, const std::vector<Cell>& cells) {
    std::vector<std::pair<std::string, std::string>> groups;  // message, columns
    for (size_t i = 0; i < cells.size(); ++i) {
        if (cells[i].message.empty()) continue;
        const std::string key = cells[i].code + " `" + cells[i].message + "`";
        auto it = std::find_if(groups.begin(), groups.end(), [&](auto& g) { return g.first == key; });
        if (it == groups.end()) groups.push_back({key, kFaults[i].column});
        else it->second += std::string(", ") + kFaults[i].column;
    }
    std::string notes;
    for (const auto& [key, columns] : groups)
        notes += std::string("- ") + row.name + " (" + columns + "): " + key + "\n";
    return notes;
}

std::string DocPath() { return KORVSDK_FAULT_MATRIX_DOC; }
const char* OutFolder() {
    const char* out = std::getenv("KORVSDK_FAULT_MATRIX_OUT");
    return out && *out ? out : nullptr;
}
std::string Part(const std::string& name) {
    return (std::filesystem::path(OutFolder()) / name).string();
}

// ---- The tests -------------------------------------------------------------------

class FaultMatrix : public ::testing::TestWithParam<size_t> {
protected:
    FaultMatrix() : cwd_(folder_.path()) {}
    void TearDown() override {
        KORVSDK_Free_DeviceList(&g_list, &g_count);
        KORVSDK_Set_Debug_Output_Handler(nullptr);
    }
    korvsdk_test::TempFolder folder_;
    korvsdk_test::WorkingFolder cwd_;
};

TEST_P(FaultMatrix, Row) {
    const Export& row = kExports[GetParam()];
    korvsdk_test::WriteFile(folder_.path() / "setting.cfg",
                            "EnableLocalLogging=0\nDeviceBackend=virtual\nDevIDNum=1\n"
                            "DevDrvID0=USB\\VID_FFF0&PID_0C01\nFW_Overwrite=99\n"
                            "Virtual0_OutDataCount=65534\nVirtual0_InDataCount=65534\n"
                            "Virtual0_HdmiInfo=01 02 03 04 05 06 07 08 09 0A 0B 0C\n");
    ASSERT_EQ(KORVSDK_Init("setting.cfg"), 1);
    KORVSDK_Set_Debug_Output_Handler(MessageLog::Collect);
    KORVSDK_Open_CB_Device_StateInfo(OnState);
    KORVSDK_Open_CB_DevFwUpdate_StateInfo(OnFw);
    g_VC_Core.m_updateWaitDivisor = 1000;
    // The smallest images the checks take.
    virtualdev::UsbImageOptions usb;
    usb.size = 0x520010;
    usb.versionText = "02.00.00.00.0000";
    g_usbImage = (folder_.path() / "u.hex").string();
    ASSERT_TRUE(virtualdev::WriteUsbImageFile(g_usbImage, virtualdev::BuildUsbImage(usb)));
    virtualdev::McuImageOptions mcu;
    mcu.size = 0x900;
    mcu.version = 0x30;
    g_mcuImage = (folder_.path() / "m.bin").string();
    ASSERT_TRUE(virtualdev::WriteMcuImageFile(g_mcuImage, virtualdev::BuildMcuImage(mcu)));
    g_backup = (folder_.path() / "backup.hex").string();

    ASSERT_EQ(KORVSDK_Scan_DeviceList(&g_list, &g_count), 1);
    ASSERT_EQ(g_count, 1);

    Outcome reference;
    std::set<std::string> referenceTexts;
    std::vector<Cell> cells;
    for (const Fault& fault : kFaults) {
        SCOPED_TRACE(std::string(row.name) + " x " + fault.column);
        const bool first = &fault == &kFaults[0];
        cells.push_back(RunCell(row, fault, reference, referenceTexts, first ? &reference : nullptr,
                                first ? &referenceTexts : nullptr));
        ASSERT_FALSE(HasFatalFailure());
        const Cell& c = cells.back();
        EXPECT_EQ(c.broken, "") << "invariants broken";
        if (first) {
            EXPECT_TRUE(reference.ok || (row.kind & kProbe)) << "no reference answer";
            cells.back().code = "ok";
            continue;
        }
        const bool allowed = c.code == "-" || c.code == "=" || c.code == "F" || c.code == "R" ||
                             (c.code == "A" && (row.kind & kProbe)) ||
                             (c.code == "F0" && (row.kind & kSilent)) ||
                             (c.code == "P" && (row.kind & kPartial));
        EXPECT_TRUE(allowed)
            << "outcome " << c.code << " is a hole: " << c.message;
    }
    // A last selection: the device is not left refusing.
    Fresh(row);

    const std::string line = Row(row, cells);
    const std::string notes = Notes(row, cells);
    char index[8];
    std::snprintf(index, sizeof index, "%03zu", GetParam());
    if (OutFolder()) {
        korvsdk_test::WriteFile(Part(std::string("row") + index + ".md"), line);
        korvsdk_test::WriteFile(Part(std::string("note") + index + ".md"), notes);
        return;
    }
    const std::string doc = korvsdk_test::ReadFile(DocPath());
    EXPECT_NE(doc.find(line), std::string::npos) << "row differs from the document:\n" << line;
    std::istringstream lines(notes);
    size_t generated = 0;
    for (std::string note; std::getline(lines, note); ++generated)
        EXPECT_NE(doc.find(note + "\n"), std::string::npos) << "note not in the document:\n" << note;
    size_t documented = 0;
    const std::string prefix = std::string("\n- ") + row.name + " (";
    for (size_t at = doc.find(prefix); at != std::string::npos; at = doc.find(prefix, at + 1))
        ++documented;
    EXPECT_EQ(documented, generated) << "the document has other notes for " << row.name;
}

INSTANTIATE_TEST_SUITE_P(Exports, FaultMatrix, ::testing::Range<size_t>(0, std::size(kExports)),
                         [](const ::testing::TestParamInfo<size_t>& p) {
                             return std::string(kExports[p.param].name);
                         });

// The generated head of the document, and the table's row count.
TEST(FaultMatrixDocument, HeadAndRows) {
    const std::string head = Header();
    if (OutFolder()) {
        korvsdk_test::WriteFile(Part("head.md"), head);
        return;
    }
    const std::string doc = korvsdk_test::ReadFile(DocPath());
    const size_t at = doc.find("## Fault columns\n");
    ASSERT_NE(at, std::string::npos);
    ASSERT_EQ(doc.compare(at, head.size(), head), 0) << "the document's head differs:\n" << head;
    size_t rows = 0;
    std::istringstream lines(doc.substr(at + head.size()));
    for (std::string line; std::getline(lines, line) && line.rfind("| ", 0) == 0;) ++rows;
    EXPECT_EQ(rows, std::size(kExports));
}

}  // namespace
