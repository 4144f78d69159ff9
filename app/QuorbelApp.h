#pragma once
// The server's process: decides by a named mutex whether this process is the server, and
// either runs the hidden main frame or hands its command line to the server that runs.

#include <windows.h>

#include "app/framework/WinApp.h"

class CQuorbelApp : public CWinApp {
public:
    static constexpr char kSingleInstanceMutexName[] = "Quorbel Should Only Run One Time!";

    CQuorbelApp();
    ~CQuorbelApp() override;

    BOOL InitInstance() override;

    // EnumWindows callback: stores the first window whose title begins with "Quorbel" in
    // *(HWND*)lParam and stops.
    static BOOL CALLBACK FindRunningInstanceProc(HWND hWnd, LPARAM lParam);

    // Sends the arguments to the running server as a request of no client window that does
    // not follow the foreground, each name made absolute against this process's working
    // directory; a name whose absolute form does not fit is left out. 1 when the server took it.
    static int ForwardCommandLine(HWND hServer, int argc, char** argv);

    HANDLE m_hSingleInstanceMutex;
};

extern CQuorbelApp theApp;
