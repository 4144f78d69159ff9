#include "app/framework/FrameWnd.h"

CWnd::CWnd() : m_hWnd(reinterpret_cast<HWND>(static_cast<uintptr_t>(0x00020002))), m_nUnhandled(0) {}

CWnd::~CWnd() {}

const MessageMap* CWnd::GetThisMessageMap() {
    static const MessageMapEntry entries[] = {{0, nullptr}};
    static const MessageMap map = {nullptr, entries};
    return &map;
}

const MessageMap* CWnd::GetMessageMap() const { return GetThisMessageMap(); }

LRESULT CWnd::Dispatch(UINT message, WPARAM wParam, LPARAM lParam) {
    for (const MessageMap* map = GetMessageMap(); map != nullptr;
         map = map->pfnGetBaseMap != nullptr ? map->pfnGetBaseMap() : nullptr) {
        for (const MessageMapEntry* entry = map->pEntries; entry->pfnHandler != nullptr; ++entry) {
            if (entry->nMessage == message) return entry->pfnHandler(this, wParam, lParam);
        }
    }
    ++m_nUnhandled;
    return 0;
}

BEGIN_MESSAGE_MAP(CFrameWnd, CWnd)
END_MESSAGE_MAP()

BOOL CFrameWnd::PreCreateWindow(CREATESTRUCTA&) { return TRUE; }

LPCSTR AfxRegisterWndClass(UINT, HCURSOR, HBRUSH, HICON) { return "QuorbelStandInFrame"; }
