// Callback registration and the release functions of the exported API.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "KORVSDKDeviceTool.h"

namespace {

void ScanA(DeviceEntry*, uint16_t) {}
void ScanB(DeviceEntry*, uint16_t) {}
void StateA(DeviceStateInfo*) {}
void StateB(DeviceStateInfo*) {}
void UpdateA(DevFwUpdateStateInfo*) {}
void UpdateB(DevFwUpdateStateInfo*) {}

template <typename Fn>
void CheckSlotRules(int (*open)(Fn), int (*close)(), Fn first, Fn second) {
    // A taken slot keeps its callback; closing frees it exactly once.
    EXPECT_EQ(open(first), 1);
    EXPECT_EQ(open(second), 0);
    EXPECT_EQ(close(), 1);
    EXPECT_EQ(close(), 0);
    // A null callback "registers" but leaves the slot free.
    EXPECT_EQ(open(nullptr), 1);
    EXPECT_EQ(close(), 0);
    EXPECT_EQ(open(second), 1);
    EXPECT_EQ(close(), 1);
}

char* HeapText(const char* text) {
    char* copy = static_cast<char*>(std::malloc(std::strlen(text) + 1));
    std::strcpy(copy, text);
    return copy;
}

}  // namespace

TEST(CallbackSlots, EachSlotKeepsTheFirstCallback) {
    CheckSlotRules<KORVSDK_ScanDeviceListCallback>(KORVSDK_Open_CB_Scan_DeviceList,
                                                   KORVSDK_Close_CB_Scan_DeviceList, ScanA, ScanB);
    CheckSlotRules<KORVSDK_DeviceStateCallback>(KORVSDK_Open_CB_Device_StateInfo,
                                                KORVSDK_Close_CB_Device_StateInfo, StateA, StateB);
    CheckSlotRules<KORVSDK_DevFwUpdateStateCallback>(KORVSDK_Open_CB_DevFwUpdate_StateInfo,
                                                     KORVSDK_Close_CB_DevFwUpdate_StateInfo,
                                                     UpdateA, UpdateB);
}

TEST(CallbackSlots, SlotsAreIndependent) {
    EXPECT_EQ(KORVSDK_Open_CB_Scan_DeviceList(ScanA), 1);
    EXPECT_EQ(KORVSDK_Open_CB_Device_StateInfo(StateA), 1);
    EXPECT_EQ(KORVSDK_Close_CB_DevFwUpdate_StateInfo(), 0);
    EXPECT_EQ(KORVSDK_Close_CB_Scan_DeviceList(), 1);
    EXPECT_EQ(KORVSDK_Close_CB_Device_StateInfo(), 1);
}

TEST(ReleaseFunctions, FreeDeviceListReleasesEntriesAndResets) {
    // A list as the scan hands it out: malloc'd array and texts.
    uint16_t count = 2;
    auto* list = static_cast<DeviceEntry*>(std::malloc(count * sizeof(DeviceEntry)));
    for (uint16_t i = 0; i < count; ++i) {
        list[i] = DeviceEntry{HeapText("USB Capture"), HeapText("SN0001"), HeapText("0001"),
                              HeapText("FFF0")};
    }
    std::free(list[1].description);
    list[1].description = nullptr;  // a missing text is skipped
    EXPECT_EQ(KORVSDK_Free_DeviceList(&list, &count), 1);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(count, 0);

    // An already released list stays as it is.
    EXPECT_EQ(KORVSDK_Free_DeviceList(&list, &count), 1);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(count, 0);
}

TEST(ReleaseFunctions, NullArgumentsAreRefusedQuietly) {
    uint16_t count = 3;
    DeviceEntry* list = nullptr;
    EXPECT_EQ(KORVSDK_Free_DeviceList(nullptr, &count), 1);
    EXPECT_EQ(count, 3) << "without the list the count must stay";
    EXPECT_EQ(KORVSDK_Free_DeviceList(&list, nullptr), 1);
    char* text = HeapText("1.0.0");
    EXPECT_EQ(KORVSDK_Free_PeCHAR(&text), 1);
    EXPECT_EQ(text, nullptr);
}
