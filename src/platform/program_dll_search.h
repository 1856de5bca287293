// For the project's own programs (korvtool, hidcaps), called first thing in
// main: on Windows every DLL the process loads from then on is looked for
// in the system folder and the program's own folder only, never in the
// working folder or along PATH, where anybody may have left a DLL of the
// name asked for. Elsewhere it does nothing.
#pragma once

#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#endif

namespace VideoConsoleCore::platform {

inline void RestrictProgramDllSearch() {
#ifdef _WIN32
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32 | LOAD_LIBRARY_SEARCH_APPLICATION_DIR);
#endif
}

}  // namespace VideoConsoleCore::platform
