#pragma once
// The server's hidden window and request port: takes requests from clients, keeps the list of
// client windows, and runs the foreground and sweep timers. Main thread only.

#include <windows.h>

#include "app/WndHandleArray.h"
#include "app/framework/FrameWnd.h"
#include "player/pub/PlayerRegistry.h"

class CMainFrame : public CFrameWnd {
public:
    enum : UINT_PTR { TIMER_CLIENT_SWEEP = 2, TIMER_FOREGROUND = 100 };
    static const UINT kSweepPeriodMs = 2000;
    static const UINT kForegroundPeriodMs = 1000;
    static const size_t kNameBuffer = MAX_PATH;
    // Of the close's deadline, what is kept for logging and ending the process.
    static const DWORD kCloseEndReserveMs = 200;

    CMainFrame();
    ~CMainFrame() override;

    BOOL PreCreateWindow(CREATESTRUCTA& cs) override;

protected:
    int OnCreate(LPCREATESTRUCTA lpCreateStruct);
    BOOL OnCopyData(HWND hSender, PCOPYDATASTRUCT pCopyDataStruct);
    void OnTimer(UINT_PTR nIDEvent);
    void OnClose();

    // Carries out one request whose names lie in [pNames, pEnd): nothing at or beyond pEnd is
    // read. A name without its NUL before pEnd ends the request; a name that does not fit the
    // 260-byte buffer is passed over.
    void DispatchRequest(LONG hClientWnd, const char* pNames, const char* pEnd, int nCount,
                         UINT nFlags);

    CWndHandleArray m_clients;
    BOOL m_bSweepTimerStarted;
    HANDLE m_hClientsMutex;
    CPlayerRegistry m_players;
    DWORD m_dwForegroundPid;

    DECLARE_MESSAGE_MAP()

private:
    static DWORD ForegroundPid();
    void SweepClients();
};
