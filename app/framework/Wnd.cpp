#include "app/framework/Wnd.h"

#include <cstdio>

#include "app/framework/WinApp.h"

CWnd::CWnd()
    : m_hWnd(nullptr), m_pCurrentMsg(nullptr), m_nDispatchDepth(0), m_bNcDestroyed(false) {}

CWnd::~CWnd() {
    if (m_hWnd != nullptr) {
        HWND hWnd = m_hWnd;
        SetWindowLongPtrA(hWnd, GWLP_USERDATA, 0);
        m_hWnd = nullptr;
        DestroyWindow(hWnd);
    }
}

const MessageMap* CWnd::GetThisMessageMap() {
    static const MessageMapEntry entries[] = {{0, nullptr}};
    static const MessageMap map = {nullptr, entries};
    return &map;
}

const MessageMap* CWnd::GetMessageMap() const {
    return GetThisMessageMap();
}

void CWnd::PostNcDestroy() {}

LRESULT CWnd::Default() {
    if (m_pCurrentMsg == nullptr) return 0;
    return DefWindowProcA(m_pCurrentMsg->hWnd, m_pCurrentMsg->message, m_pCurrentMsg->wParam,
                          m_pCurrentMsg->lParam);
}

BOOL CWnd::CreateEx(DWORD dwExStyle, LPCSTR lpszClassName, LPCSTR lpszWindowName, DWORD dwStyle,
                    int x, int y, int nWidth, int nHeight, HWND hWndParent, HMENU hMenu) {
    HINSTANCE hInstance = GetModuleHandleA(nullptr);
    HWND hWnd = CreateWindowExA(dwExStyle, lpszClassName, lpszWindowName, dwStyle, x, y, nWidth,
                                nHeight, hWndParent, hMenu, hInstance, this);
    return hWnd != nullptr;
}

LRESULT CWnd::Dispatch(UINT message, WPARAM wParam, LPARAM lParam) {
    for (const MessageMap* map = GetMessageMap(); map != nullptr;
         map = map->pfnGetBaseMap ? map->pfnGetBaseMap() : nullptr) {
        for (const MessageMapEntry* entry = map->pEntries; entry->pfnHandler != nullptr; ++entry) {
            if (entry->nMessage == message) return entry->pfnHandler(this, wParam, lParam);
        }
    }
    return Default();
}

LRESULT CALLBACK CWnd::WndProc(HWND hWnd, UINT message, WPARAM wParam, LPARAM lParam) {
    CWnd* wnd = nullptr;
    if (message == WM_NCCREATE) {
        const CREATESTRUCTA* cs = reinterpret_cast<const CREATESTRUCTA*>(lParam);
        wnd = static_cast<CWnd*>(cs->lpCreateParams);
        if (wnd != nullptr) {
            SetWindowLongPtrA(hWnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(wnd));
            wnd->m_hWnd = hWnd;
        }
    } else {
        wnd = reinterpret_cast<CWnd*>(GetWindowLongPtrA(hWnd, GWLP_USERDATA));
    }
    // Messages before WM_NCCREATE (WM_GETMINMAXINFO) and after detaching have no object.
    if (wnd == nullptr) return DefWindowProcA(hWnd, message, wParam, lParam);

    CurrentMessage current = {hWnd, message, wParam, lParam};
    const CurrentMessage* outer = wnd->m_pCurrentMsg;
    wnd->m_pCurrentMsg = &current;
    ++wnd->m_nDispatchDepth;

    LRESULT result = 0;
    // A C++ exception must not unwind through user32's frames.
    try {
        result = wnd->Dispatch(message, wParam, lParam);
    } catch (...) {
        result = 0;
    }

    wnd->m_pCurrentMsg = outer;
    --wnd->m_nDispatchDepth;

    if (message == WM_NCDESTROY) {
        SetWindowLongPtrA(hWnd, GWLP_USERDATA, 0);
        wnd->m_hWnd = nullptr;
        wnd->m_bNcDestroyed = true;
        CWinApp* app = AfxGetApp();
        if (app != nullptr && app->m_pMainWnd == wnd) {
            app->m_pMainWnd = nullptr;
            PostQuitMessage(0);
        }
    }
    if (wnd->m_bNcDestroyed && wnd->m_nDispatchDepth == 0) {
        wnd->m_bNcDestroyed = false;
        wnd->PostNcDestroy();  // may delete the object: nothing of it is touched after this
    }
    return result;
}

LPCSTR AfxRegisterWndClass(UINT nClassStyle, HCURSOR hCursor, HBRUSH hbrBackground, HICON hIcon) {
    static char szClassName[96];
    HINSTANCE hInstance = GetModuleHandleA(nullptr);
    // The name says what the class is, so the same arguments find the same class again.
    snprintf(szClassName, sizeof szClassName, "QuorbelWnd:%p:%X:%p:%p:%p",
             static_cast<void*>(hInstance), nClassStyle, static_cast<void*>(hCursor),
             static_cast<void*>(hbrBackground), static_cast<void*>(hIcon));

    WNDCLASSA wc = {};
    if (GetClassInfoA(hInstance, szClassName, &wc)) return szClassName;

    wc.style = nClassStyle;
    wc.lpfnWndProc = &CWnd::WndProc;
    wc.hInstance = hInstance;
    wc.hCursor = hCursor;
    wc.hbrBackground = hbrBackground;
    wc.hIcon = hIcon;
    wc.lpszClassName = szClassName;
    if (RegisterClassA(&wc) == 0 && GetLastError() != ERROR_CLASS_ALREADY_EXISTS) return nullptr;
    return szClassName;
}
