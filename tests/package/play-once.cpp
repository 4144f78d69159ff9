// play-once FILE SECONDS: plays FILE through the running server for a window of its own, which
// it holds SECONDS long (the server stops a client's plays when its window is gone).
#include <windows.h>

#include <cstdio>
#include <cstdlib>

#include <QuorbelClient.h>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: play-once FILE SECONDS\n");
        return 2;
    }
    HWND window =
        CreateWindowA("STATIC", "play-once", 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
    if (window == nullptr) {
        std::fprintf(stderr, "play-once: no window (error %lu)\n", GetLastError());
        return 1;
    }
    CQuorbelClient client(window);
    if (!client.Play(argv[1], REQ_IGNORE_FOREGROUND)) {
        std::fprintf(stderr, "play-once: the server did not take %s\n", argv[1]);
        return 1;
    }
    const DWORD until = GetTickCount() + static_cast<DWORD>(std::atof(argv[2]) * 1000);
    MSG msg;
    for (DWORD left; static_cast<LONG>(left = until - GetTickCount()) > 0;) {
        MsgWaitForMultipleObjects(0, nullptr, FALSE, left, QS_ALLINPUT);
        while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageA(&msg);
    }
    DestroyWindow(window);
    return 0;
}
