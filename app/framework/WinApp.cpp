#include "app/framework/WinApp.h"

namespace {
CWinApp* g_pApp = nullptr;
}

CWinApp* AfxGetApp() {
    return g_pApp;
}

CWinApp::CWinApp() : m_pMainWnd(nullptr), m_hInstance(nullptr), m_nQuitCode(0) {
    g_pApp = this;
}

CWinApp::~CWinApp() {
    if (g_pApp == this) g_pApp = nullptr;
}

BOOL CWinApp::InitInstance() {
    return TRUE;
}

int CWinApp::Run() {
    MSG msg;
    for (;;) {
        BOOL got = GetMessageA(&msg, nullptr, 0, 0);
        if (got == 0) {
            m_nQuitCode = static_cast<int>(msg.wParam);
            break;
        }
        if (got == -1) break;  // only for a bad window handle, which we never pass
        TranslateMessage(&msg);
        DispatchMessageA(&msg);
    }
    return ExitInstance();
}

int CWinApp::ExitInstance() {
    return m_nQuitCode;
}
