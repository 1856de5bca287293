// The sessions on the library's Windows backend under Wine. The library
// takes its platform backend (no DeviceBackend key); the stand-in hid.dll,
// setupapi.dll and cfgmgr32.dll beside this program answer its calls from
// the virtual devices of the same setting.cfg, and the library's hub
// IOCTLs are routed to them (standin_route.h).
#include "sessions/session_harness.h"
#include "standin_route.h"

namespace korvsdk_test {

std::string PrepareSessionBackend(const std::string& deviceKeys) {
    RouteToStandIns(GetModuleHandleW(L"KORVSDKDeviceTool.dll"));
    return deviceKeys;
}

const char* SessionBackendName() { return "windows (stand-ins under Wine)"; }

}  // namespace korvsdk_test
