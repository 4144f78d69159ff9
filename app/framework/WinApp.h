#pragma once
// The application object: start-up hook and the message loop of the main thread.
// There is one per process, a static object of a class derived from CWinApp.

#include <windows.h>

class CWnd;

class CWinApp {
public:
    CWinApp();
    virtual ~CWinApp();

    CWinApp(const CWinApp&) = delete;
    CWinApp& operator=(const CWinApp&) = delete;

    // TRUE to run the message loop, FALSE to end at once.
    virtual BOOL InitInstance();
    // Runs the message loop until WM_QUIT; returns ExitInstance's result.
    virtual int Run();
    // The process's exit code: the WM_QUIT code after a loop, else 0.
    virtual int ExitInstance();

    // Destroying this window ends the message loop.
    CWnd* m_pMainWnd;
    HINSTANCE m_hInstance;

protected:
    int m_nQuitCode;
};

// The one application object, or null before it is constructed.
CWinApp* AfxGetApp();
