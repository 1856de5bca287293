// Puts a loaded module in front of the stand-in system libraries.
//
// Its imports from hid.dll, setupapi.dll and cfgmgr32.dll already reach the
// stand-ins when Wine loads them (WINEDLLOVERRIDES=...=n and the DLLs beside
// the test program); this checks that every one of them does. Its import of
// kernel32's DeviceIoControl cannot be replaced by a DLL: its slot in the
// module's import address table is pointed at a function that lets the
// stand-in hid.dll answer the hub IOCTLs on its own controller and hub
// files, and passes everything else on to kernel32.
#pragma once

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

namespace korvsdk_test {

// Throws std::runtime_error when the stand-in hid.dll is not loaded, when a
// function the module imports from one of the three system libraries
// resolves anywhere but into it, or when the module does not import
// DeviceIoControl. Routing a module twice changes nothing.
void RouteToStandIns(HMODULE module);

}  // namespace korvsdk_test
