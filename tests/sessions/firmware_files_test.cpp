// Choosing firmware files through the exported functions, on the virtual
// device: every outcome of the identity and version checks for both kinds,
// each FW_Overwrite mode, and files that are no images at all.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "KORVSDKDeviceTool.h"
#include "sessions/session_harness.h"
#include "support/test_support.h"
#include "virtual/device/usb_image.h"
#include "virtual/mcu/mcu_image.h"

#ifndef _WIN32
#include <fcntl.h>
#include <unistd.h>
#endif

using korvsdk_test::MessageLog;
namespace vd = VideoConsoleCore::virtualdev;

namespace {

// The firmware-update records of one call, copied.
struct FwRecord {
    std::string usb, mcu;
    bool stateSet = false;
};
std::vector<FwRecord> g_records;
void OnFwState(DevFwUpdateStateInfo* info) {
    g_records.push_back({info->usbFileText ? info->usbFileText : "<null>",
                         info->mcuFileText ? info->mcuFileText : "<null>", info->state != nullptr});
}

std::string Take(char* text) {
    std::string copy = text ? text : "<null>";
    KORVSDK_Free_PeCHAR(&text);
    return copy;
}

// The device's stored USB version is 01.00.01.0b.0000; its microcontroller
// reports 0d.17.00.010000 (model 13, version 0x17, codec 00).
constexpr const char* kDevice = "Virtual0_UsbFwVersion=01.00.01.0b\n";

class FirmwareFiles : public ::testing::TestWithParam<const char*> {
protected:
    FirmwareFiles() : cwd_(folder_.path()) {}
    void TearDown() override {
        KORVSDK_Free_DeviceList(&list_, &count_);
        KORVSDK_Set_Debug_Output_Handler(nullptr);
    }
    // Selects the one virtual device with FW_Overwrite as given (nullopt:
    // the key is left out).
    void Begin(std::optional<std::string> overwrite, const std::string& keys = kDevice) {
        std::string settings = "EnableLocalLogging=0\nDevIDNum=1\nDevDrvID0=USB\\VID_FFF0&PID_0C01\n";
        if (overwrite) settings += "FW_Overwrite=" + *overwrite + "\n";
        korvsdk_test::WriteFile(folder_.path() / "setting.cfg",
                                settings + korvsdk_test::PrepareSessionBackend(keys));
        ASSERT_EQ(KORVSDK_Init("setting.cfg"), 1);
        ASSERT_EQ(KORVSDK_Scan_DeviceList(&list_, &count_), 1);
        ASSERT_EQ(count_, 1);
        ASSERT_EQ(KORVSDK_Select_Device(&list_[0]), 1);
        KORVSDK_Set_Debug_Output_Handler(MessageLog::Collect);
        ASSERT_EQ(KORVSDK_Open_CB_DevFwUpdate_StateInfo(OnFwState), 1);
        MessageLog::Clear();
        g_records.clear();
    }
    std::string UsbImage(const std::string& version, uint16_t pid = 0x0C01) {
        vd::UsbImageOptions options;
        options.versionText = version;
        options.pid = pid;
        const std::string path = (folder_.path() / ("usb-" + std::to_string(++files_) + ".hex")).string();
        EXPECT_TRUE(vd::WriteUsbImageFile(path, vd::BuildUsbImage(options)));
        return path;
    }
    std::string McuImage(uint8_t type, uint8_t version, uint8_t codec) {
        vd::McuImageOptions options;
        options.deviceType = type;
        options.version = version;
        options.codec = codec;
        const std::string path = (folder_.path() / ("mcu-" + std::to_string(++files_) + ".bin")).string();
        EXPECT_TRUE(vd::WriteMcuImageFile(path, vd::BuildMcuImage(options)));
        return path;
    }

    korvsdk_test::TempFolder folder_;
    korvsdk_test::WorkingFolder cwd_;
    DeviceEntry* list_ = nullptr;
    uint16_t count_ = 0;
    int files_ = 0;
};

constexpr const char* kLower = "The selected file version is lower than your current version.";
constexpr const char* kUsbMismatch = "Selected USB firmware file does not match the current device !";
constexpr const char* kMcuMismatch =
    "Set file failed! Selected MCU firmware file does not match the current device!";
constexpr const char* kCodec =
    "The Audio Codec of the selected file does not match the current device.";

// The long messages, with %s for the file's version text.
constexpr const char* kUsbAccepted = "Set file successfully, and USB FW file version: %s";
constexpr const char* kUsbForced = "Force Overwrite Mode! USB FW file version: %s";
constexpr const char* kUsbLowerText =
    "Set file failed! The selected file version is lower than your current version, and USB FW "
    "file version: %s";
constexpr const char* kUsbWrongText =
    "Set file failed! Selected USB firmware file does not match the current device, and USB FW "
    "file version: %s";
constexpr const char* kMcuAccepted = "Set file successfully, and MCU FW file version: %s";
constexpr const char* kMcuForced = "Force Overwrite Mode! MCU FW file version: %s";
constexpr const char* kMcuLowerText =
    "Set file failed! The selected file version is lower than your current version, and MCU FW "
    "file version: %s";
constexpr const char* kMcuWrongText =
    "Set file failed! Selected MCU firmware file does not match the current device, and MCU FW "
    "file version: %s";
constexpr const char* kMcuCodecText =
    "Set file failed! The Audio Codec of the selected file does not match the current device, "
    "and MCU FW file version: %s";

std::string Fill(const char* format, const std::string& version) {
    char text[256];
    std::snprintf(text, sizeof text, format, version.c_str());
    return text;
}

// The one record of the last call, and the long message said once.
void ExpectOutcome(bool usb, const std::string& record, const std::string& message) {
    ASSERT_EQ(g_records.size(), 1u);
    EXPECT_EQ(usb ? g_records[0].usb : g_records[0].mcu, record);
    EXPECT_EQ(usb ? g_records[0].mcu : g_records[0].usb, "<null>");
    EXPECT_FALSE(g_records[0].stateSet);
    EXPECT_EQ(MessageLog::Count(message), 1) << MessageLog::All();
}

// FW_Overwrite as a test parameter: "-" leaves the key out.
std::optional<std::string> Mode(const char* mode) {
    return std::string(mode) == "-" ? std::nullopt : std::optional<std::string>(mode);
}
const char* const kModes[] = {"-", "0", "1", "2", "7", "99"};

struct UsbRow {
    const char* mode;
    const char* version;
    uint16_t pid;
    int result;
    const char* record;  // nullptr: the file's version text
    const char* message;
};
// The device stores 01.00.01.0b.0000.
const UsbRow kUsbRows[] = {
    {"0", "01.00.02.00.0000", 0x0C01, 1, nullptr, kUsbAccepted},
    {"0", "01.00.01.0b.0000", 0x0C01, 1, nullptr, kUsbAccepted},  // equal
    {"0", "01.00.01.0a.ffff", 0x0C01, 1, kLower, kUsbLowerText},  // refused, yet true
    {"0", "01.00.01.0:.0000", 0x0C01, 1, kLower, kUsbLowerText},  // ':' weighs 10 < 'b'
    {"0", "01.00.01.0:.0001", 0x0C01, 1, kLower, kUsbLowerText},
    {"0", "01.00.01.0c", 0x0C01, 1, kLower, kUsbLowerText},  // shorter than 16
    {"0", "01.00.02.00.0000", 0x0C02, 0, kUsbMismatch, kUsbWrongText},
    {"-", "01.00.02.00.0000", 0x0C01, 1, kLower, kUsbLowerText},
    {"7", "01.00.02.00.0000", 0x0C01, 1, kLower, kUsbLowerText},
    {"1", "01.00.00.00.0000", 0x0C01, 1, nullptr, kUsbAccepted},
    {"1", "01.00.00.00.0000", 0x0C02, 0, kUsbMismatch, kUsbWrongText},
    {"2", "01.00.00.00.0000", 0x0C01, 1, nullptr, kUsbAccepted},
    {"99", "00.00.00.01.0000", 0x0C02, 1, nullptr, kUsbForced},
};

struct McuRow {
    const char* mode;
    uint8_t type, version, codec;
    int result;
    const char* record;  // nullptr: the file's version text
    const char* message;
};
// The board: model 13 (0x0d), version 0x17, codec 00.
const McuRow kMcuRows[] = {
    {"0", 0x0D, 0x18, 0x00, 1, nullptr, kMcuAccepted},
    {"0", 0x0D, 0x17, 0x00, 1, nullptr, kMcuAccepted},  // equal
    {"0", 0x8D, 0x18, 0x00, 1, nullptr, kMcuAccepted},  // model code + 128
    {"0", 0x0D, 0x16, 0x00, 0, kLower, kMcuLowerText},
    {"0", 0x0E, 0x18, 0x00, 0, kMcuMismatch, kMcuWrongText},
    {"0", 0x0D, 0x18, 0x01, 0, kCodec, kMcuCodecText},
    {"2", 0x0D, 0x18, 0x01, 1, nullptr, kMcuAccepted},  // codec allowed to differ
    {"2", 0x0D, 0x16, 0x00, 0, kLower, kMcuLowerText},
    {"-", 0x0D, 0x18, 0x00, 0, kLower, kMcuLowerText},
    {"7", 0x0D, 0x18, 0x00, 0, kLower, kMcuLowerText},
    {"1", 0x0D, 0x10, 0x00, 1, nullptr, kMcuAccepted},
    {"1", 0x0D, 0x18, 0x01, 0, kCodec, kMcuCodecText},
    {"99", 0x0E, 0x01, 0x07, 1, nullptr, kMcuForced},
};

}  // namespace

TEST_P(FirmwareFiles, EveryOutcomeOfBothKinds) {
    ASSERT_NO_FATAL_FAILURE(Begin(Mode(GetParam())));
    const std::string mode = GetParam();

    // Nothing accepted yet.
    EXPECT_EQ(Take(KORVSDK_Get_USB_HexFile_Ver()), "");
    ASSERT_EQ(g_records.size(), 1u);
    EXPECT_EQ(g_records[0].usb, "No valid Hex file has been set!");
    g_records.clear();
    EXPECT_EQ(Take(KORVSDK_Get_MCU_BinFile_Ver()), "");
    ASSERT_EQ(g_records.size(), 1u);
    EXPECT_EQ(g_records[0].mcu, "No valid Bin file has been set!");

    std::string armed;  // the version of the file an update would take
    for (const UsbRow& row : kUsbRows) {
        if (mode != row.mode) continue;
        SCOPED_TRACE(std::string("USB ") + row.version + " pid " + std::to_string(row.pid));
        const std::string path = UsbImage(row.version, row.pid);
        MessageLog::Clear();
        g_records.clear();
        EXPECT_EQ(KORVSDK_Set_USB_HexFile(path.c_str()), row.result);
        ExpectOutcome(true, row.record ? row.record : row.version, Fill(row.message, row.version));
        EXPECT_EQ(MessageLog::Count(row.pid == 0x0C01 ? "FILE VID: 0xFFF0  PID: 0x0C01"
                                                       : "FILE VID: 0xFFF0  PID: 0x0C02"),
                  mode == "99" ? 0 : 1);
        if (row.record == nullptr) armed = row.version;
        g_records.clear();
        EXPECT_EQ(Take(KORVSDK_Get_USB_HexFile_Ver()), armed);
    }

    armed.clear();
    for (const McuRow& row : kMcuRows) {
        if (mode != row.mode) continue;
        char version[16];
        std::snprintf(version, sizeof version, "%02x.%02x.%02x", row.type, row.version, row.codec);
        SCOPED_TRACE(std::string("MCU ") + version);
        const std::string path = McuImage(row.type, row.version, row.codec);
        MessageLog::Clear();
        g_records.clear();
        EXPECT_EQ(KORVSDK_Set_MCU_BinFile(path.c_str()), row.result);
        ExpectOutcome(false, row.record ? row.record : version, Fill(row.message, version));
        if (row.record == nullptr) armed = version;
        g_records.clear();
        EXPECT_EQ(Take(KORVSDK_Get_MCU_BinFile_Ver()), armed);
    }
}

INSTANTIATE_TEST_SUITE_P(Overwrite, FirmwareFiles, ::testing::ValuesIn(kModes),
                         [](const auto& param) {
                             const std::string mode = param.param;
                             return mode == "-" ? std::string("Absent") : "Mode" + mode;
                         });

// Files that are no images: each is refused with its reason, and a file
// accepted before stays the one an update would take.
TEST_F(FirmwareFiles, FilesThatAreNoImages) {
    ASSERT_NO_FATAL_FAILURE(Begin(std::string("0")));
    const std::string good = UsbImage("01.00.02.00.0000");
    ASSERT_EQ(KORVSDK_Set_USB_HexFile(good.c_str()), 1);
    const auto path = [&](const char* name) { return (folder_.path() / name).string(); };

    korvsdk_test::WriteFile(path("empty.hex"), "");
    korvsdk_test::WriteFile(path("short.hex"), std::string(0x52000F, '\x01'));
    korvsdk_test::WriteFile(path("short.bin"), std::string(0x808, '\x01'));
    std::filesystem::create_directory(path("folder.hex"));
    // A name beyond ASCII (é and the euro sign), written through the wide
    // path on Windows; the library is given its UTF-8 text.
    vd::UsbImageOptions wide;
    wide.versionText = "01.00.03.00.0000";
    const std::filesystem::path named = folder_.path() / std::u8string(u8"fw-\u00e9\u20ac.hex");
    {
        const std::vector<uint8_t> bytes = vd::BuildUsbImage(wide);
        std::ofstream out(named, std::ios::binary);
        out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
        ASSERT_TRUE(out.good());
    }
    const std::u8string u8 = named.u8string();
    const std::string utf8(u8.begin(), u8.end());

    constexpr const char* kNotAFile = "Set file failed! Selected USB firmware file is not a valid file!\n";
    constexpr const char* kMcuNotAFile = "Set file failed! Selected MCU firmware file is not a valid file!\n";
    struct Bad {
        std::string path;
        bool usb;
        const char* reason;
    };
    const Bad rows[] = {
        {"", true, kNotAFile},
        {path("missing.hex"), true, kNotAFile},
        {path("folder.hex"), true, kNotAFile},
        {path("folder.hex"), false, kMcuNotAFile},
        {path("empty.hex"), true, "The selected file is too short to be a flash image."},
        {path("short.hex"), true, "The selected file is too short to be a flash image."},
        {path("empty.hex"), false, "The selected file is too short to be a program image."},
        {path("short.bin"), false, "The selected file is too short to be a program image."},
    };
    for (const Bad& row : rows) {
        SCOPED_TRACE(row.path);
        MessageLog::Clear();
        const char* file = row.path.empty() ? nullptr : row.path.c_str();
        EXPECT_EQ(row.usb ? KORVSDK_Set_USB_HexFile(file) : KORVSDK_Set_MCU_BinFile(file), 0);
        EXPECT_EQ(MessageLog::Count(row.reason), 1) << MessageLog::All();
    }
    EXPECT_EQ(Take(KORVSDK_Get_USB_HexFile_Ver()), "01.00.02.00.0000");
    EXPECT_EQ(Take(KORVSDK_Get_MCU_BinFile_Ver()), "");

    // A path beyond ASCII opens as the UTF-8 text it is.
    MessageLog::Clear();
    EXPECT_EQ(KORVSDK_Set_USB_HexFile(utf8.c_str()), 1);
    EXPECT_EQ(MessageLog::Count("FileSize READ = [0] [8388608]\n"), 1) << MessageLog::All();
    EXPECT_EQ(Take(KORVSDK_Get_USB_HexFile_Ver()), "01.00.03.00.0000");
}

#ifndef _WIN32
// A file of 4 GiB and more counts by the low 32 bits of its size; nothing
// past them is read, and no file stays open.
TEST_F(FirmwareFiles, HugeFileCountsByItsLowSizeBits) {
    ASSERT_NO_FATAL_FAILURE(Begin(std::string("0")));
    const std::string path = (folder_.path() / "huge.hex").string();
    const int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    const bool sized = ftruncate(fd, (off_t{1} << 32) + 0x100) == 0;  // sparse: no disk used
    close(fd);
    if (!sized) GTEST_SKIP() << "the file system cannot hold a 4 GiB file";
    const auto openFiles = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    const auto before = openFiles();
    EXPECT_EQ(KORVSDK_Set_USB_HexFile(path.c_str()), 0);
    EXPECT_EQ(MessageLog::Count("FileSize READ = [1] [256]\n"), 1) << MessageLog::All();
    EXPECT_EQ(MessageLog::Count("The selected file is too short to be a flash image."), 1);
    EXPECT_EQ(openFiles(), before);
}
#endif
