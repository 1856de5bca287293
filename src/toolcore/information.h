// The library's information objects of the class face: a scanned device
// (DeviceInfo) and the firmware information and update steps that go to the
// firmware-update callback (DeviceFirmwareupdateInfo). The library creates
// one for a callback and frees it when the callback returns.
#pragma once

#include <cstdint>
#include <string>

#include "VideoConsoleCore.h"

namespace VideoConsoleCore {

class VideoConsoleCoreImp;

class DeviceInfo final : public DeviceInfo_export {
public:
    uint8_t GetUsbType() override { return usbType_; }
    uint8_t GetModel() override { return model_; }
    DeviceInfo_export* SetUsbType(uint8_t value) override { return usbType_ = value, this; }
    uint8_t GetSelected() override { return selected_; }
    DeviceInfo_export* SetSelected(uint8_t value) override { return selected_ = value, this; }
    const char* GetVid() override { return texts_[0].c_str(); }
    DeviceInfo_export* SetVid(const char* text) override { return Set(0, text); }
    const char* GetPid() override { return texts_[1].c_str(); }
    DeviceInfo_export* SetPid(const char* text) override { return Set(1, text); }
    const char* GetVersionNumber() override { return texts_[2].c_str(); }
    DeviceInfo_export* SetVersionNumber(const char* text) override { return Set(2, text); }
    const char* GetSerialNumber() override { return texts_[3].c_str(); }
    DeviceInfo_export* SetSerialNumber(const char* text) override { return Set(3, text); }
    const char* GetManufacturer() override { return texts_[4].c_str(); }
    DeviceInfo_export* SetManufacturer(const char* text) override { return Set(4, text); }
    const char* GetDescription() override { return texts_[5].c_str(); }
    DeviceInfo_export* SetDescription(const char* text) override { return Set(5, text); }
    const char* GetDevicePath() override { return texts_[6].c_str(); }
    DeviceInfo_export* SetDevicePath(const char* text) override { return Set(6, text); }
    uint8_t GetIndex() override { return index_; }

    void SetIndex(uint8_t index) { index_ = index; }
    void SetModel(uint8_t model) { model_ = model; }

private:
    DeviceInfo_export* Set(int slot, const char* text) {
        texts_[slot] = text != nullptr ? text : "";
        return this;
    }
    uint8_t index_ = 0, model_ = 0, usbType_ = 0, selected_ = 0;
    std::string texts_[7];
};

class DeviceFirmwareupdateInfo final : public DeviceFirmwareupdateInfo_export {
public:
    enum Text { kUsbFileVersion, kMcuFileVersion, kState, kMessage, kUsbFilePath, kMcuFilePath,
                kUsbFirmwareVersion, kMcuFirmwareVersion, kIdentification, kTextCount };

    const char* GetUsbFileVersion() override { return texts_[kUsbFileVersion].c_str(); }
    const char* GetMcuFileVersion() override { return texts_[kMcuFileVersion].c_str(); }
    const char* GetState() override { return texts_[kState].c_str(); }
    const char* GetMessage() override { return texts_[kMessage].c_str(); }
    const char* GetUsbFilePath() override { return texts_[kUsbFilePath].c_str(); }
    const char* GetMcuFilePath() override { return texts_[kMcuFilePath].c_str(); }
    const char* GetUsbFirmwareVersion() override { return texts_[kUsbFirmwareVersion].c_str(); }
    const char* GetMcuFirmwareVersion() override { return texts_[kMcuFirmwareVersion].c_str(); }
    const char* GetIdentification() override { return texts_[kIdentification].c_str(); }
    float GetPercent() override { return percent_; }
    uint8_t GetModel() override { return model_; }
    uint8_t GetUsbType() override { return usbType_; }

    void SetText(Text which, const char* text) { texts_[which] = text != nullptr ? text : ""; }
    void SetText(Text which, const std::string& text) { texts_[which] = text; }
    void SetPercent(float percent) { percent_ = percent; }
    void SetFlashQuery(uint8_t value) { flashQuery_ = value; }
    void SetModel(uint8_t value) { model_ = value; }
    void SetUsbType(uint8_t value) { usbType_ = value; }

private:
    // Nine texts, a byte, the float and two bytes, in this order.
    std::string texts_[kTextCount];
    uint8_t flashQuery_ = 0;  // the stream query's answer; kept, not handed out
    float percent_ = 0.0f;
    uint8_t model_ = 0;
    uint8_t usbType_ = 0;
};

namespace toolcore {

// Hands one step of a firmware update to the class face's firmware-update
// callback, when one is registered (the same texts as the flat API's
// update-state record).
void NotifyFirmwareUpdateInfo(VideoConsoleCoreImp& core, const char* usbFileText,
                              const char* mcuFileText, const char* state, const char* message,
                              float percent);

}  // namespace toolcore
}  // namespace VideoConsoleCore
