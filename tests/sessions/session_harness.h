// The device sessions run unchanged on every backend that can reach the
// virtual capture device: the virtual backend itself, and the platform
// backends with the virtual device put behind the operating system's calls
// (test-only stand-ins for the Windows system libraries under Wine; a
// synthetic sysfs and hidraw nodes under umockdev on Linux). Each test
// program links exactly one harness that implements this.
#pragma once

#include <string>

namespace korvsdk_test {

// Prepares the backend for a session whose virtual devices are described
// by `deviceKeys` (Virtual* lines of setting.cfg) and returns the complete
// setting.cfg text to initialise the library with. Called once per test
// (each test runs in its own process), before KORVSDK_Init.
std::string PrepareSessionBackend(const std::string& deviceKeys);

// The backend's name, for messages.
const char* SessionBackendName();

}  // namespace korvsdk_test
