// A core object that has initialised, scanned and selected a virtual
// capture device through its own code paths, for tests of what comes after
// selection. The device model stays reachable for faults and inspection.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/VideoConsoleCoreImp.h"
#include "discovery/device_list.h"
#include "support/test_support.h"
#include "virtual/device/virtual_hid_backend.h"

namespace korvsdk_test {

// Settings of one virtual device with the default IDs, accepted by the scan.
inline const char* kOneVirtualDevice =
    "EnableLocalLogging=0\n"
    "DeviceBackend=virtual\n"
    "DevIDNum=1\n"
    "DevDrvID0=USB\\VID_FFF0&PID_0C01\n";

// Device-state callback records, copied.
struct StateRecord {
    std::string text0, text1, message;
    uint64_t value = 0;
};
inline std::vector<StateRecord>& StateRecords() {
    static std::vector<StateRecord> records;
    return records;
}
inline void CollectState(DeviceStateInfo* info) {
    StateRecord r;
    if (info->text0) r.text0 = info->text0;
    if (info->text1) r.text1 = info->text1;
    if (info->message) r.message = info->message;
    r.value = info->value;
    StateRecords().push_back(r);
}

class VirtualSession : public ::testing::Test {
protected:
    VirtualSession() : cwd_(folder_.path()) {}
    ~VirtualSession() override { VideoConsoleCore::FreeDeviceEntries(list_, count_); }

    void SetUp() override {
        MessageLog::Clear();
        StateRecords().clear();
        core_.SetDebugOutputHandler(MessageLog::Collect);
    }

    // Initialises with kOneVirtualDevice plus `extra` lines and scans.
    void Init(const std::string& extra = "") {
        WriteFile(folder_.path() / "setting.cfg", std::string(kOneVirtualDevice) + extra);
        ASSERT_TRUE(core_.Initialize("setting.cfg"));
        ASSERT_TRUE(core_.ScanDeviceList(&list_, &count_));
        ASSERT_GE(count_, 1);
    }

    // Init, then selects scanned device `index`; the messages so far are
    // dropped and the device-state callback collects from here on.
    void Start(const std::string& extra = "", int index = 0) {
        Init(extra);
        ASSERT_LT(index, count_);
        ASSERT_TRUE(core_.SelectDevice(&list_[index]));
        MessageLog::Clear();
        core_.OpenDeviceStateCallback(CollectState);
    }

    VideoConsoleCore::virtualdev::VirtualHidBackend& Device() {
        return *static_cast<VideoConsoleCore::virtualdev::VirtualHidBackend*>(core_.Hid());
    }
    bool Said(const std::string& text) const { return MessageLog::Count(text) > 0; }

    TempFolder folder_;
    WorkingFolder cwd_;
    VideoConsoleCore::VideoConsoleCoreImp core_;
    DeviceEntry* list_ = nullptr;
    uint16_t count_ = 0;
};

}  // namespace korvsdk_test
