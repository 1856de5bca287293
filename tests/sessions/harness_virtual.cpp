// The sessions on the library's own virtual backend.
#include "sessions/session_harness.h"

namespace korvsdk_test {

std::string PrepareSessionBackend(const std::string& deviceKeys) {
    return "DeviceBackend=virtual\n" + deviceKeys;
}

const char* SessionBackendName() { return "virtual"; }

}  // namespace korvsdk_test
