#include "hid/backend/backend_factory.h"

namespace VideoConsoleCore::hid {

std::unique_ptr<HidBackend> CreateHidBackend(const std::string& choice, std::string& note) {
    note.clear();
    std::unique_ptr<HidBackend> backend = CreatePlatformHidBackend();
    if (!choice.empty()) {
        note = "DeviceBackend=" + choice + " is not available; using the " +
               std::string(backend->Name()) + " backend";
    }
    return backend;
}

}  // namespace VideoConsoleCore::hid
