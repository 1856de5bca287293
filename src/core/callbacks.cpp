// The three client callback slots. Registering never replaces a callback
// that is already there; the client closes the slot first. A close returns
// only when no other thread is still inside the callback it took out.
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "core/VideoConsoleCoreImp.h"
#include "toolcore/information.h"

namespace VideoConsoleCore {

namespace {

// The calls in progress on this thread, per slot. A client callback may call
// back into the library, and the export it calls may raise the same
// callback again (a device-state callback that asks for the USB version, a
// scan-list callback that scans): that inner raise is skipped, on this
// thread only, so such a client does not recurse without end. The inner
// call itself runs and returns its result.
thread_local int t_hostCalls[VideoConsoleCoreImp::kHostSlots] = {};

template <typename Fn>
int OpenSlot(std::atomic<Fn>& slot, Fn fn) {
    // An empty slot takes `fn`, even a null one; a taken slot keeps its own.
    Fn expected = nullptr;
    return slot.compare_exchange_strong(expected, fn) ? 1 : 0;
}

template <typename Fn>
int CloseSlot(const VideoConsoleCoreImp& core, std::atomic<Fn>& slot,
              VideoConsoleCoreImp::HostSlot which) {
    if (slot.exchange(nullptr) == nullptr) return 0;
    core.WaitForHostCalls(which);
    return 1;
}

char* HeapCopy(const char* text) {
    const size_t size = std::strlen(text) + 1;
    char* copy = static_cast<char*>(std::malloc(size));
    if (copy != nullptr) std::memcpy(copy, text, size);
    return copy;
}

}  // namespace

VideoConsoleCoreImp::HostCall::HostCall(const VideoConsoleCoreImp& core, HostSlot slot)
    : calls_(core.m_hostCalls[slot]), slot_(slot), nested_(t_hostCalls[slot] > 0) {
    ++calls_;
    ++t_hostCalls[slot];
}

VideoConsoleCoreImp::HostCall::~HostCall() {
    --t_hostCalls[slot_];
    --calls_;
}

void VideoConsoleCoreImp::WaitForHostCalls(HostSlot slot) const {
    // This thread's own calls come off the counts while it waits: a callback
    // that closes itself must not wait for its own call, and two threads
    // that each close, from inside their own callback, the one the other is
    // in would otherwise wait for each other for ever.
    for (int s = 0; s < kHostSlots; ++s) m_hostCalls[s] -= t_hostCalls[s];
    // A host's function may take its time (a dialog, a file written): a few
    // yields for the usual short call, then short sleeps.
    for (int round = 0; m_hostCalls[slot].load() > 0; ++round) {
        if (round < 64) {
            std::this_thread::yield();
        } else {
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    }
    for (int s = 0; s < kHostSlots; ++s) m_hostCalls[s] += t_hostCalls[s];
}

int VideoConsoleCoreImp::OpenScanListCallback(KORVSDK_ScanDeviceListCallback fn) {
    return OpenSlot(m_scanListCallback, fn);
}
int VideoConsoleCoreImp::OpenDeviceStateCallback(KORVSDK_DeviceStateCallback fn) {
    return OpenSlot(m_deviceStateCallback, fn);
}
int VideoConsoleCoreImp::OpenFwUpdateStateCallback(KORVSDK_DevFwUpdateStateCallback fn) {
    return OpenSlot(m_fwUpdateStateCallback, fn);
}
int VideoConsoleCoreImp::CloseScanListCallback() {
    return CloseSlot(*this, m_scanListCallback, kSlotScanList);
}
int VideoConsoleCoreImp::CloseDeviceStateCallback() {
    return CloseSlot(*this, m_deviceStateCallback, kSlotDeviceState);
}
int VideoConsoleCoreImp::CloseFwUpdateStateCallback() {
    return CloseSlot(*this, m_fwUpdateStateCallback, kSlotFwUpdateState);
}

void VideoConsoleCoreImp::NotifyScanList(DeviceEntry* entries, uint16_t count) {
    const HostCall call(*this, kSlotScanList);
    const KORVSDK_ScanDeviceListCallback callback = m_scanListCallback.load();
    if (callback != nullptr && !call.Nested()) callback(entries, count);
}

void VideoConsoleCoreImp::NotifyDeviceState(const char* message, uint64_t value) {
    NotifyDeviceState(message, value, nullptr, nullptr);
}

void VideoConsoleCoreImp::NotifyDeviceState(const char* message, uint64_t value,
                                            const char* text0, const char* text1) {
    const HostCall call(*this, kSlotDeviceState);
    const KORVSDK_DeviceStateCallback callback = m_deviceStateCallback.load();
    if (callback == nullptr || call.Nested()) return;
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
    const HostCall call(*this, kSlotFwUpdateState);
    const KORVSDK_DevFwUpdateStateCallback callback = m_fwUpdateStateCallback.load();
    if (callback == nullptr || call.Nested()) return;
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
