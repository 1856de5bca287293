#include <cstdlib>

#include "support/test_support.h"

namespace korvsdk_test {

// _putenv_s with an empty value removes the variable.
void SetEnvironment(const char* name, const std::string& value) { _putenv_s(name, value.c_str()); }
void UnsetEnvironment(const char* name) { _putenv_s(name, ""); }
// OutputDebugStringW goes to an attached debugger, not to a stream we can
// read, whatever the environment says.
bool DebuggerChannelCanBeStderr() { return false; }

}  // namespace korvsdk_test
