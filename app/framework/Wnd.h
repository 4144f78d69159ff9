#pragma once
// The window base of the application layer: one C++ object per window, found again through the
// window's user data, and a message map per class that names a handler for each message the
// class cares about. Everything else goes to DefWindowProc.
//
// Lifetime: a window may be destroyed inside one of its own handlers (a timer that sends itself
// WM_CLOSE). The object is therefore never deleted while one of its handlers is still on the
// stack: PostNcDestroy runs when the outermost dispatch for the object has returned.

#include <windows.h>

class CWnd;

// One handler of a message map: unpacks wParam/lParam for the class's own handler.
struct MessageMapEntry {
    UINT nMessage;
    LRESULT (*pfnHandler)(CWnd* wnd, WPARAM wParam, LPARAM lParam);
};

struct MessageMap {
    const MessageMap* (*pfnGetBaseMap)();
    const MessageMapEntry* pEntries;  // ended by an entry whose handler is null
};

// In the class declaration.
#define DECLARE_MESSAGE_MAP()                     \
protected:                                        \
    static const MessageMap* GetThisMessageMap(); \
    const MessageMap* GetMessageMap() const override;

// In the class's unit: BEGIN_MESSAGE_MAP(CMyWnd, CFrameWnd) ON_WM_TIMER() ... END_MESSAGE_MAP()
#define BEGIN_MESSAGE_MAP(theClass, baseClass)          \
    const MessageMap* theClass::GetMessageMap() const { \
        return GetThisMessageMap();                     \
    }                                                   \
    const MessageMap* theClass::GetThisMessageMap() {   \
        using ThisClass [[maybe_unused]] = theClass;    \
        using TheBaseClass = baseClass;                 \
        static const MessageMapEntry entries[] = {
#define END_MESSAGE_MAP()                                                      \
    { 0, nullptr }                                                             \
    }                                                                          \
    ;                                                                          \
    static const MessageMap map = {&TheBaseClass::GetThisMessageMap, entries}; \
    return &map;                                                               \
    }

// LRESULT memberFxn(WPARAM, LPARAM), for any message
#define ON_MESSAGE(message, memberFxn)                       \
    {message, [](CWnd* w, WPARAM p, LPARAM l) -> LRESULT {   \
         return static_cast<ThisClass*>(w)->memberFxn(p, l); \
     }},
// int OnCreate(LPCREATESTRUCTA)
#define ON_WM_CREATE()                                                                      \
    {WM_CREATE, [](CWnd* w, WPARAM, LPARAM l) -> LRESULT {                                  \
         return static_cast<ThisClass*>(w)->OnCreate(reinterpret_cast<LPCREATESTRUCTA>(l)); \
     }},
// void OnClose()
#define ON_WM_CLOSE()                                   \
    {WM_CLOSE, [](CWnd* w, WPARAM, LPARAM) -> LRESULT { \
         static_cast<ThisClass*>(w)->OnClose();         \
         return 0;                                      \
     }},
// void OnTimer(UINT_PTR nIDEvent)
#define ON_WM_TIMER()                                                   \
    {WM_TIMER, [](CWnd* w, WPARAM p, LPARAM) -> LRESULT {               \
         static_cast<ThisClass*>(w)->OnTimer(static_cast<UINT_PTR>(p)); \
         return 0;                                                      \
     }},
// BOOL OnCopyData(HWND hSender, PCOPYDATASTRUCT pCopyDataStruct)
#define ON_WM_COPYDATA()                                                                      \
    {WM_COPYDATA, [](CWnd* w, WPARAM p, LPARAM l) -> LRESULT {                                \
         return static_cast<ThisClass*>(w)->OnCopyData(reinterpret_cast<HWND>(p),             \
                                                       reinterpret_cast<PCOPYDATASTRUCT>(l)); \
     }},

class CWnd {
public:
    CWnd();
    // Destroys a window that is still attached, after detaching it, so that no message reaches
    // a half-destroyed object.
    virtual ~CWnd();

    CWnd(const CWnd&) = delete;
    CWnd& operator=(const CWnd&) = delete;

    HWND GetSafeHwnd() const { return m_hWnd; }

    // The window procedure of every class registered by this layer.
    static LRESULT CALLBACK WndProc(HWND hWnd, UINT message, WPARAM wParam, LPARAM lParam);

    HWND m_hWnd;

protected:
    // The default handling (DefWindowProc) of the message now being dispatched to this object;
    // 0 outside a dispatch.
    LRESULT Default();

    // Called once the window is gone and no handler of this object is running any more.
    virtual void PostNcDestroy();

    // Creates the window with this object attached from WM_NCCREATE on.
    BOOL CreateEx(DWORD dwExStyle, LPCSTR lpszClassName, LPCSTR lpszWindowName, DWORD dwStyle,
                  int x, int y, int nWidth, int nHeight, HWND hWndParent, HMENU hMenu);

    static const MessageMap* GetThisMessageMap();
    virtual const MessageMap* GetMessageMap() const;

private:
    // The message being dispatched. Lives on the stack of WndProc; messages nest, so each
    // dispatch saves the outer one and puts it back.
    struct CurrentMessage {
        HWND hWnd;
        UINT message;
        WPARAM wParam;
        LPARAM lParam;
    };

    LRESULT Dispatch(UINT message, WPARAM wParam, LPARAM lParam);

    const CurrentMessage* m_pCurrentMsg;
    int m_nDispatchDepth;
    bool m_bNcDestroyed;
};

// Registers (once) a window class with the given style, cursor, brush and icon whose procedure
// is CWnd::WndProc, and returns its name. The name lives in static storage until the next call;
// use it on the main thread only.
LPCSTR AfxRegisterWndClass(UINT nClassStyle, HCURSOR hCursor = nullptr,
                           HBRUSH hbrBackground = nullptr, HICON hIcon = nullptr);
