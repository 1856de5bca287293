#include <cstdlib>

#include "support/test_support.h"

namespace korvsdk_test {

void SetEnvironment(const char* name, const std::string& value) { setenv(name, value.c_str(), 1); }
void UnsetEnvironment(const char* name) { unsetenv(name); }
bool DebuggerChannelCanBeStderr() { return true; }

}  // namespace korvsdk_test
