#include "app/framework/FrameWnd.h"

BEGIN_MESSAGE_MAP(CFrameWnd, CWnd)
ON_WM_CREATE()
ON_WM_CLOSE()
END_MESSAGE_MAP()

CFrameWnd::CFrameWnd() {}

CFrameWnd::~CFrameWnd() {}

BOOL CFrameWnd::Create(LPCSTR lpszClassName, LPCSTR lpszWindowName, DWORD dwStyle, const RECT& rect,
                       CWnd* pParentWnd, LPCSTR lpszMenuName, DWORD dwExStyle,
                       CCreateContext* pContext) {
    if (m_hWnd != nullptr || pContext != nullptr || lpszMenuName != nullptr) return FALSE;

    CREATESTRUCTA cs = {};
    cs.lpCreateParams = this;
    cs.hInstance = GetModuleHandleA(nullptr);
    cs.hwndParent = pParentWnd ? pParentWnd->GetSafeHwnd() : nullptr;
    cs.x = rect.left;
    cs.y = rect.top;
    cs.cx = rect.right - rect.left;
    cs.cy = rect.bottom - rect.top;
    cs.style = dwStyle;
    cs.lpszName = lpszWindowName;
    cs.lpszClass = lpszClassName;
    cs.dwExStyle = dwExStyle;
    if (!PreCreateWindow(cs)) return FALSE;
    if (cs.lpszClass == nullptr) return FALSE;

    return CreateEx(cs.dwExStyle, cs.lpszClass, cs.lpszName, cs.style, cs.x, cs.y, cs.cx, cs.cy,
                    cs.hwndParent, cs.hMenu);
}

BOOL CFrameWnd::PreCreateWindow(CREATESTRUCTA& cs) {
    if (cs.lpszClass == nullptr) {
        cs.lpszClass = AfxRegisterWndClass(CS_DBLCLKS, LoadCursorA(nullptr, IDC_ARROW),
                                           reinterpret_cast<HBRUSH>(COLOR_WINDOW + 1));
        if (cs.lpszClass == nullptr) return FALSE;
    }
    // A frame's client area is sunken by default; classes that do not want it clear the bit.
    cs.dwExStyle |= WS_EX_CLIENTEDGE;
    return TRUE;
}

int CFrameWnd::OnCreate(LPCREATESTRUCTA) {
    return static_cast<int>(Default());
}

void CFrameWnd::OnClose() {
    if (m_hWnd != nullptr) DestroyWindow(m_hWnd);
}

void CFrameWnd::PostNcDestroy() {
    delete this;
}
