#include "app/QuorbelApp.h"

#include <stdlib.h>

#include <cstring>
#include <new>

#include "app/MainFrame.h"
#include "client/QuorbelClient.h"

CQuorbelApp::CQuorbelApp() : m_hSingleInstanceMutex(nullptr) {}

CQuorbelApp::~CQuorbelApp() {
    if (m_hSingleInstanceMutex != nullptr) CloseHandle(m_hSingleInstanceMutex);
}

BOOL CALLBACK CQuorbelApp::FindRunningInstanceProc(HWND hWnd, LPARAM lParam) {
    char title[256] = {};
    GetWindowTextA(hWnd, title, static_cast<int>(sizeof title));
    if (strncmp(title, kQuorbelServerTitle, sizeof kQuorbelServerTitle - 1) != 0) return TRUE;
    *reinterpret_cast<HWND*>(lParam) = hWnd;
    return FALSE;
}

int CQuorbelApp::ForwardCommandLine(HWND hServer, int argc, char** argv) {
    // No client window: the plays belong to nobody, so no sweep ends them and none closes the
    // server, and they are heard whatever window is in front.
    CQuorbelClient::CRequestBlock block(0);
    for (int i = 0; i < argc; ++i) {
        // The user named the file from this process's directory, not the server's. A name whose
        // full path does not fit is left out: sent as given, it would name another file, the
        // one of that name in the server's directory. So is a name when the block cannot grow.
        char full[kQuorbelNameBuffer];
        if (CQuorbelClient::FullPathName(argv[i], full)) block.AddName(full);
    }
    if (block.Count() == 0) return 0;
    return CQuorbelClient::SendBlock(hServer, block, REQ_IGNORE_FOREGROUND);
}

BOOL CQuorbelApp::InitInstance() {
    m_hSingleInstanceMutex = CreateMutexA(nullptr, TRUE, kSingleInstanceMutexName);
    if (GetLastError() != ERROR_ALREADY_EXISTS) {
        CMainFrame* frame = new (std::nothrow) CMainFrame;
        if (frame == nullptr) return FALSE;
        m_pMainWnd = frame;
        RECT rect = {0, 0, 0, 0};
        if (!frame->Create(nullptr, kQuorbelServerTitle, WS_CLIPCHILDREN, rect)) {
            // A window that got as far as WM_NCCREATE has deleted its object on the way down.
            m_pMainWnd = nullptr;
            return FALSE;
        }
        // The window stays hidden; this process's own arguments are not looked at.
        return TRUE;
    }

    HWND server = nullptr;
    EnumWindows(&CQuorbelApp::FindRunningInstanceProc, reinterpret_cast<LPARAM>(&server));
    if (server != nullptr && __argc > 1) ForwardCommandLine(server, __argc - 1, __argv + 1);
    CloseHandle(m_hSingleInstanceMutex);
    m_hSingleInstanceMutex = nullptr;
    return FALSE;
}
