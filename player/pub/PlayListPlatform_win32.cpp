#include <windows.h>
#include <mbstring.h>

#include "player/pub/PlayListPlatform.h"

uint32_t ClientProcessId(int32_t hClientWnd) {
    DWORD pid = 0;  // left as it is for a null or dead window
    if (hClientWnd != 0)
        GetWindowThreadProcessId(static_cast<HWND>(LongToHandle(hClientWnd)), &pid);
    return pid;
}

int SameFileName(const char* a, const char* b) {
    return _mbsicmp(reinterpret_cast<const unsigned char*>(a),
                    reinterpret_cast<const unsigned char*>(b)) == 0;
}
