// Another process in front: shows a window, brings it to the front and keeps it there until it
// is killed (at most SECONDS, default 120). Prints "front" once the window is in front.
//
//   server_front [SECONDS]

#include <windows.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    DWORD limitMs = (argc > 1 ? static_cast<DWORD>(strtoul(argv[1], nullptr, 10)) : 120) * 1000;
    WNDCLASSA wc = {};
    wc.lpfnWndProc = DefWindowProcA;
    wc.hInstance = GetModuleHandleA(nullptr);
    wc.lpszClassName = "ServerSystemFront";
    RegisterClassA(&wc);
    HWND hWnd = CreateWindowExA(0, wc.lpszClassName, "server system front", WS_OVERLAPPEDWINDOW,
                                50, 50, 300, 200, nullptr, nullptr, wc.hInstance, nullptr);
    if (hWnd == nullptr) return 1;
    ShowWindow(hWnd, SW_SHOW);
    SetForegroundWindow(hWnd);

    bool told = false;
    DWORD start = GetTickCount();
    while (GetTickCount() - start < limitMs) {
        MsgWaitForMultipleObjects(0, nullptr, FALSE, 20, QS_ALLINPUT);
        MSG msg;
        while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
            TranslateMessage(&msg);
            DispatchMessageA(&msg);
        }
        if (!told && GetForegroundWindow() == hWnd) {
            printf("front\n");
            fflush(stdout);
            told = true;
        }
    }
    DestroyWindow(hWnd);
    return 0;
}
