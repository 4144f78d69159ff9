#include "app/MainFrame.h"

#include <cstdint>

#include "client/QuorbelClient.h"
#include "player/pub/ThreadPlatform.h"

BEGIN_MESSAGE_MAP(CMainFrame, CFrameWnd)
ON_WM_COPYDATA()
ON_WM_TIMER()
ON_WM_CREATE()
ON_WM_CLOSE()
END_MESSAGE_MAP()

CMainFrame::CMainFrame() : m_bSweepTimerStarted(FALSE), m_dwForegroundPid(0) {}

CMainFrame::~CMainFrame() {}

BOOL CMainFrame::PreCreateWindow(CREATESTRUCTA& cs) {
    if (!CFrameWnd::PreCreateWindow(cs)) return FALSE;
    cs.dwExStyle &= ~static_cast<DWORD>(WS_EX_CLIENTEDGE);
    cs.lpszClass = AfxRegisterWndClass(0);
    return cs.lpszClass != nullptr;
}

DWORD CMainFrame::ForegroundPid() {
    HWND foreground = GetForegroundWindow();
    DWORD pid = 0;  // left as it is for a null or dead window
    if (foreground != nullptr) GetWindowThreadProcessId(foreground, &pid);
    return pid;
}

int CMainFrame::OnCreate(LPCREATESTRUCTA lpCreateStruct) {
    if (CFrameWnd::OnCreate(lpCreateStruct) == -1) return -1;
    m_bSweepTimerStarted = FALSE;
    m_clientsMutex.Create();
    // Only changes from here on are reported to the players.
    m_dwForegroundPid = ForegroundPid();
    SetTimer(m_hWnd, TIMER_FOREGROUND, kForegroundPeriodMs, nullptr);
    return 0;
}

BOOL CMainFrame::OnCopyData(HWND, PCOPYDATASTRUCT pCopyDataStruct) {
    // Nothing here is trusted: a block too short for the client handle is no request at all.
    Request request;
    if (pCopyDataStruct == nullptr ||
        !DecodeRequest(pCopyDataStruct->lpData, pCopyDataStruct->cbData, pCopyDataStruct->dwData,
                       &request)) {
        return TRUE;
    }
    CScopedLock<CMutex> lock(m_clientsMutex);
    if (m_clients.Find(request.hClientWnd) < 0 && request.hClientWnd != 0) {
        if (!m_bSweepTimerStarted) {
            m_bSweepTimerStarted = TRUE;
            SetTimer(m_hWnd, TIMER_CLIENT_SWEEP, kSweepPeriodMs, nullptr);
        }
        // A client that cannot be listed is still served; it is only never swept.
        m_clients.Add(request.hClientWnd);
    }
    DispatchRequest(request);
    return TRUE;
}

void CMainFrame::DispatchRequest(const Request& request) {
    const LONG hClientWnd = request.hClientWnd;
    const UINT nFlags = request.nFlags;
    if (nFlags & REQ_STOP_CLIENT) {
        m_players.StopClient(hClientWnd);
        return;
    }
    const uint32_t bLoop = (nFlags & REQ_LOOP) ? 1 : 0;
    const DWORD dwForegroundPid = (nFlags & REQ_IGNORE_FOREGROUND) ? 0 : m_dwForegroundPid;
    for (int i = 0; i < request.nNames; ++i) {
        const char* name = request.names[i];
        if (!(nFlags & REQ_STOP)) {
            m_players.Play(hClientWnd, name, bLoop, dwForegroundPid);
        } else if (nFlags & REQ_STOP_OTHERS) {
            m_players.StopOtherFiles(hClientWnd, name);
        } else {
            m_players.StopFile(hClientWnd, name);
        }
    }
}

void CMainFrame::OnTimer(UINT_PTR nIDEvent) {
    Default();
    switch (nIDEvent) {
        case TIMER_CLIENT_SWEEP:
            SweepClients();  // may close the frame: nothing of it is touched after
            return;
        case TIMER_FOREGROUND: {
            DWORD pid = ForegroundPid();
            if (pid != m_dwForegroundPid) {
                m_dwForegroundPid = pid;
                m_players.SetForegroundProcess(pid);
            }
            return;
        }
        default:
            return;
    }
}

void CMainFrame::SweepClients() {
    CScopedLock<CMutex> lock(m_clientsMutex);
    for (int i = m_clients.GetCount() - 1; i >= 0; --i) {
        LONG client = m_clients.GetAt(i);
        if (IsWindow(static_cast<HWND>(LongToHandle(client)))) continue;
        m_players.StopClient(client);
        m_clients.RemoveAt(i);
    }
    if (m_clients.GetCount() > 0) return;
    lock.Release();
    SendMessageA(m_hWnd, WM_CLOSE, 0, 0);
}

void CMainFrame::OnClose() {
    KillTimer(m_hWnd, TIMER_CLIENT_SWEEP);
    KillTimer(m_hWnd, TIMER_FOREGROUND);
    // Plays still running are halted, all clients' (those of no window too), and their threads
    // given what is left of the close's deadline to end, so that no player is destroyed under a
    // running thread and the process does not end with open sound devices.
    if (!m_players.Shutdown(CPlayerRegistry::kCloseDeadlineMs - kCloseEndReserveMs)) {
        // A play thread is held by the sound path (its device stopped answering). A normal exit
        // would run the sound driver's own shutdown, which can block on the same path, and a
        // process that exits with open devices has crashed under Wine: end it here. The log
        // has been written through, the line about the threads included.
        TerminateProcess(GetCurrentProcess(), 0);
    }
    CFrameWnd::OnClose();
}
