// The three client callback slots. Registering never replaces a callback
// that is already there; the client closes the slot first.
#include <cstdlib>
#include <cstring>

#include "core/VideoConsoleCoreImp.h"
#include "toolcore/information.h"

namespace VideoConsoleCore {

namespace {

template <typename Fn>
int OpenSlot(std::atomic<Fn>& slot, Fn fn) {
    // An empty slot takes `fn`, even a null one; a taken slot keeps its own.
    Fn expected = nullptr;
    return slot.compare_exchange_strong(expected, fn) ? 1 : 0;
}

template <typename Fn>
int CloseSlot(std::atomic<Fn>& slot) {
    return slot.exchange(nullptr) != nullptr ? 1 : 0;
}

// A client callback may call back into the library, and the export it calls
// may raise the same callback again (a device-state callback that asks for
// the USB version, a scan-list callback that scans): that inner raise is
// skipped, on this thread only, so such a client does not recurse without
// end. The inner call itself runs and returns its result.
enum CallbackKind { kScanList, kDeviceState, kFwUpdateState, kCallbackKinds };
thread_local bool t_inside[kCallbackKinds] = {};

class InsideCallback {
public:
    explicit InsideCallback(CallbackKind kind) : kind_(kind), nested_(t_inside[kind]) {
        t_inside[kind] = true;
    }
    ~InsideCallback() { t_inside[kind_] = nested_; }
    InsideCallback(const InsideCallback&) = delete;
    InsideCallback& operator=(const InsideCallback&) = delete;
    bool Nested() const { return nested_; }

private:
    CallbackKind kind_;
    bool nested_;
};

char* HeapCopy(const char* text) {
    const size_t size = std::strlen(text) + 1;
    char* copy = static_cast<char*>(std::malloc(size));
    if (copy != nullptr) std::memcpy(copy, text, size);
    return copy;
}

}  // namespace

int VideoConsoleCoreImp::OpenScanListCallback(KORVSDK_ScanDeviceListCallback fn) {
    return OpenSlot(m_scanListCallback, fn);
}
int VideoConsoleCoreImp::OpenDeviceStateCallback(KORVSDK_DeviceStateCallback fn) {
    return OpenSlot(m_deviceStateCallback, fn);
}
int VideoConsoleCoreImp::OpenFwUpdateStateCallback(KORVSDK_DevFwUpdateStateCallback fn) {
    return OpenSlot(m_fwUpdateStateCallback, fn);
}
int VideoConsoleCoreImp::CloseScanListCallback() { return CloseSlot(m_scanListCallback); }
int VideoConsoleCoreImp::CloseDeviceStateCallback() { return CloseSlot(m_deviceStateCallback); }
int VideoConsoleCoreImp::CloseFwUpdateStateCallback() {
    return CloseSlot(m_fwUpdateStateCallback);
}

void VideoConsoleCoreImp::NotifyScanList(DeviceEntry* entries, uint16_t count) {
    const KORVSDK_ScanDeviceListCallback callback = m_scanListCallback.load();
    const InsideCallback inside(kScanList);
    if (callback != nullptr && !inside.Nested()) callback(entries, count);
}

void VideoConsoleCoreImp::NotifyDeviceState(const char* message, uint64_t value) {
    NotifyDeviceState(message, value, nullptr, nullptr);
}

void VideoConsoleCoreImp::NotifyDeviceState(const char* message, uint64_t value,
                                            const char* text0, const char* text1) {
    const KORVSDK_DeviceStateCallback callback = m_deviceStateCallback.load();
    const InsideCallback inside(kDeviceState);
    if (callback == nullptr || inside.Nested()) return;
    auto* record = static_cast<DeviceStateInfo*>(std::calloc(1, sizeof(DeviceStateInfo)));
    if (record == nullptr) return;
    if (message != nullptr) record->message = HeapCopy(message);
    if (text0 != nullptr) record->text0 = HeapCopy(text0);
    if (text1 != nullptr) record->text1 = HeapCopy(text1);
    record->value = value;
    callback(record);
    std::free(record->text0);
    std::free(record->text1);
    std::free(record->message);
    std::free(record->text4);
    std::free(record);
}

void VideoConsoleCoreImp::NotifyFwUpdateState(const char* usbFileText, const char* mcuFileText,
                                              const char* state, const char* message,
                                              float percent) {
    toolcore::NotifyFirmwareUpdateInfo(*this, usbFileText, mcuFileText, state, message, percent);
    const KORVSDK_DevFwUpdateStateCallback callback = m_fwUpdateStateCallback.load();
    const InsideCallback inside(kFwUpdateState);
    if (callback == nullptr || inside.Nested()) return;
    auto* record = static_cast<DevFwUpdateStateInfo*>(std::calloc(1, sizeof(DevFwUpdateStateInfo)));
    if (record == nullptr) return;
    if (usbFileText != nullptr) record->usbFileText = HeapCopy(usbFileText);
    if (mcuFileText != nullptr) record->mcuFileText = HeapCopy(mcuFileText);
    if (state != nullptr) record->state = HeapCopy(state);
    if (message != nullptr) record->message = HeapCopy(message);
    record->percent = percent;
    callback(record);
    std::free(record->usbFileText);
    std::free(record->mcuFileText);
    std::free(record->state);
    std::free(record->message);
    std::free(record);
}

}  // namespace VideoConsoleCore
