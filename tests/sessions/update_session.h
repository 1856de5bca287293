// A session through the exported functions for the update tests: a scratch
// working folder, and a scan and selection that can be repeated after the
// device was re-plugged.
#pragma once

#include <gtest/gtest.h>

#include "KORVSDKDeviceTool.h"
#include "support/test_support.h"

namespace korvsdk_test {

template <typename Param>
class UpdateSession : public ::testing::TestWithParam<Param> {
protected:
    UpdateSession() : cwd_(folder_.path()) {}
    void TearDown() override {
        KORVSDK_Free_DeviceList(&list_, &count_);
        KORVSDK_Set_Debug_Output_Handler(nullptr);
    }
    void ScanAndSelect() {
        KORVSDK_Free_DeviceList(&list_, &count_);
        ASSERT_EQ(KORVSDK_Scan_DeviceList(&list_, &count_), 1);
        ASSERT_EQ(count_, 1);
        ASSERT_EQ(KORVSDK_Select_Device(&list_[0]), 1);
    }
    TempFolder folder_;
    WorkingFolder cwd_;
    DeviceEntry* list_ = nullptr;
    uint16_t count_ = 0;
};

}  // namespace korvsdk_test
