/* A program that only tells that it ran: it leaves "<its own path>.started"
   beside itself. The tests plant it under the name of a system tool. */
#include <windows.h>

int main(void) {
    wchar_t path[MAX_PATH + 8];
    const DWORD length = GetModuleFileNameW(NULL, path, MAX_PATH);
    if (length > 0 && length < MAX_PATH) {
        lstrcatW(path, L".started");
        HANDLE marker = CreateFileW(path, GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, 0, NULL);
        if (marker != INVALID_HANDLE_VALUE) CloseHandle(marker);
    }
    return 0;
}
