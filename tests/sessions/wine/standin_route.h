// Puts a loaded module in front of the stand-in system libraries.
//
// The library loads hid.dll, setupapi.dll and cfgmgr32.dll from the system
// folder, where the test set-up puts the stand-ins (WINEDLLOVERRIDES=...=n,b
// makes Wine prefer them to its own); this checks that those look-ups, and
// every function the module imports from the three, reach the stand-ins.
// Its import of kernel32's DeviceIoControl cannot be replaced by a DLL: its
// slot in the module's import address table is pointed at a function that
// lets the stand-in hid.dll answer the hub IOCTLs on its own controller and
// hub files, and passes everything else on to kernel32.
#pragma once

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

namespace korvsdk_test {

// Throws std::runtime_error when the system folder's hid.dll is not the
// stand-in, when setupapi.dll or cfgmgr32.dll of the system folder, or a
// function the module imports from one of the three, resolves anywhere but
// into it, or when the module does not import DeviceIoControl. Routing a
// module twice changes nothing.
void RouteToStandIns(HMODULE module);

}  // namespace korvsdk_test
