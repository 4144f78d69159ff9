#pragma once
// The server's hidden window and request port: takes requests from clients, keeps the list of
// client windows, and runs the foreground and sweep timers. Main thread only.

#include <windows.h>

#include "app/Mutex.h"
#include "app/Request.h"
#include "app/WndHandleArray.h"
#include "app/framework/FrameWnd.h"
#include "player/pub/PlayerRegistry.h"

class CMainFrame : public CFrameWnd {
public:
    enum : UINT_PTR { TIMER_CLIENT_SWEEP = 2, TIMER_FOREGROUND = 100 };
    static const UINT kSweepPeriodMs = 2000;
    static const UINT kForegroundPeriodMs = 1000;
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

    // Carries out one request, name by name in order.
    void DispatchRequest(const Request& request);

    CWndHandleArray m_clients;
    BOOL m_bSweepTimerStarted;
    CMutex m_clientsMutex;  // guards m_clients
    CPlayerRegistry m_players;
    DWORD m_dwForegroundPid;

    DECLARE_MESSAGE_MAP()

private:
    static DWORD ForegroundPid();
    void SweepClients();
};
