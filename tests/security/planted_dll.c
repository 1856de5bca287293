/* A DLL that only tells that it ran: when a process loads it, it leaves
   "<its own path>.loaded" beside itself. The tests plant it under the names
   of system DLLs where no program of ours may take it from. */
#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    (void)reserved;
    if (reason == DLL_PROCESS_ATTACH) {
        wchar_t path[MAX_PATH + 8];
        const DWORD length = GetModuleFileNameW(instance, path, MAX_PATH);
        if (length > 0 && length < MAX_PATH) {
            lstrcatW(path, L".loaded");
            HANDLE marker = CreateFileW(path, GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, 0, NULL);
            if (marker != INVALID_HANDLE_VALUE) CloseHandle(marker);
        }
    }
    return TRUE;
}
