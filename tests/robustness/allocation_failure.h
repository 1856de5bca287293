// An operator new of the test program's own that can be told to fail. The
// library's allocations reach it on Linux (a shared library uses the
// program's operator new); a DLL keeps its own, and the sanitizers bring
// theirs, so it is there only in the plain Linux build.
#pragma once

#include <atomic>

#if !defined(_WIN32) && !defined(KORVSDK_SANITIZER_BUILD)
#define KORVSDK_ALLOCATION_FAILURES 1
// How many allocations still succeed before one throws std::bad_alloc; -1
// (the start): none fails. The failing one sets it back to -1.
extern std::atomic<int> g_allocationsBeforeFailure;
#else
#define KORVSDK_ALLOCATION_FAILURES 0
#endif
