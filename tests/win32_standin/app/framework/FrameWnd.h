#pragma once
// Native stand-in for the frame-window layer (app/framework/; see windows.h here for why it
// exists). It has no window and no message loop: a message reaches an object only through
// Dispatch, which runs the handler that the class's message map (or a base class's) names, the
// same map macros as the real layer. Creation, timers and the close are left to the tests,
// which call the handlers themselves.

#include <windows.h>

class CWnd;

struct MessageMapEntry {
    UINT nMessage;
    LRESULT (*pfnHandler)(CWnd* wnd, WPARAM wParam, LPARAM lParam);
};

struct MessageMap {
    const MessageMap* (*pfnGetBaseMap)();  // null for the root
    const MessageMapEntry* pEntries;       // ended by an entry whose handler is null
};

#define DECLARE_MESSAGE_MAP()                         \
protected:                                            \
    static const MessageMap* GetThisMessageMap();     \
    const MessageMap* GetMessageMap() const override;

#define BEGIN_MESSAGE_MAP(theClass, baseClass)                                           \
    const MessageMap* theClass::GetMessageMap() const { return GetThisMessageMap(); }    \
    const MessageMap* theClass::GetThisMessageMap() {                                    \
        using ThisClass [[maybe_unused]] = theClass;                                     \
        using TheBaseClass = baseClass;                                                  \
        static const MessageMapEntry entries[] = {
#define END_MESSAGE_MAP()                                                               \
            { 0, nullptr } };                                                           \
        static const MessageMap map = { &TheBaseClass::GetThisMessageMap, entries };    \
        return &map;                                                                    \
    }

#define ON_WM_CREATE()                                                                   \
    { WM_CREATE, [](CWnd* w, WPARAM, LPARAM l) -> LRESULT {                              \
          return static_cast<ThisClass*>(w)->OnCreate(reinterpret_cast<LPCREATESTRUCTA>(l)); } },
#define ON_WM_CLOSE()                                                                    \
    { WM_CLOSE, [](CWnd* w, WPARAM, LPARAM) -> LRESULT {                                 \
          static_cast<ThisClass*>(w)->OnClose(); return 0; } },
#define ON_WM_TIMER()                                                                    \
    { WM_TIMER, [](CWnd* w, WPARAM p, LPARAM) -> LRESULT {                               \
          static_cast<ThisClass*>(w)->OnTimer(static_cast<UINT_PTR>(p)); return 0; } },
#define ON_WM_COPYDATA()                                                                 \
    { WM_COPYDATA, [](CWnd* w, WPARAM p, LPARAM l) -> LRESULT {                          \
          return static_cast<ThisClass*>(w)->OnCopyData(reinterpret_cast<HWND>(p),       \
                                                        reinterpret_cast<PCOPYDATASTRUCT>(l)); } },

class CWnd {
public:
    CWnd();
    virtual ~CWnd();

    CWnd(const CWnd&) = delete;
    CWnd& operator=(const CWnd&) = delete;

    // Runs the handler the maps name for the message, the class's own first; 0 when none does.
    LRESULT Dispatch(UINT message, WPARAM wParam, LPARAM lParam);
    // How many messages Dispatch found no handler for.
    int UnhandledMessages() const { return m_nUnhandled; }

    HWND m_hWnd;  // a fixed handle: the object stands for one window

protected:
    // There is no default window procedure to hand a message to: nothing happens.
    LRESULT Default() { return 0; }

    static const MessageMap* GetThisMessageMap();
    virtual const MessageMap* GetMessageMap() const;

private:
    int m_nUnhandled;
};

class CFrameWnd : public CWnd {
public:
    CFrameWnd() = default;
    ~CFrameWnd() override = default;

    // Accepts the parameters as they are.
    virtual BOOL PreCreateWindow(CREATESTRUCTA& cs);

protected:
    int OnCreate(LPCREATESTRUCTA lpCreateStruct) { return 0; }
    void OnClose() {}

    DECLARE_MESSAGE_MAP()
};

// The name of the one class of this layer; nothing is registered.
LPCSTR AfxRegisterWndClass(UINT nClassStyle, HCURSOR hCursor = nullptr,
                           HBRUSH hbrBackground = nullptr, HICON hIcon = nullptr);
