// What needs the real window manager and runtime: the framework's windows (where messages go,
// when a window's object is deleted), the server's hidden frame, and the choice of player by
// extension with the multibyte search. That the main window's end ends the message loop every
// system test's close sees.

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "app/MainFrame.h"
#include "app/framework/FrameWnd.h"
#include "app/framework/WinApp.h"
#include "player/pub/PlayerRegistry.h"

namespace {

// The process's one application object, as the server's is.
CWinApp g_app;

std::vector<std::string> g_events;

class ProbeWnd : public CFrameWnd {
public:
    ~ProbeWnd() override {
        g_events.push_back(m_bAfterDestroy ? "deleted after handler" : "deleted");
    }

    bool m_bAfterDestroy = false;

protected:
    int OnCreate(LPCREATESTRUCTA cs) {
        g_events.push_back("create");
        return CFrameWnd::OnCreate(cs);
    }
    void OnTimer(UINT_PTR id) {
        if (id == 1) {
            // Destroyed inside its own handler: the object must live until the handler returns.
            DestroyWindow(m_hWnd);
            m_bAfterDestroy = true;
        } else if (id == 2) {
            throw std::runtime_error("handler failed");
        }
    }
    LRESULT OnGetTextLength(WPARAM, LPARAM) {
        // A nested message in between must not change what Default handles.
        SendMessageA(m_hWnd, WM_NULL, 0, 0);
        return Default();
    }
    LRESULT OnNull(WPARAM, LPARAM) { return 0; }

    DECLARE_MESSAGE_MAP()
};

BEGIN_MESSAGE_MAP(ProbeWnd, CFrameWnd)
ON_WM_CREATE()
ON_WM_TIMER()
ON_MESSAGE(WM_GETTEXTLENGTH, OnGetTextLength)
ON_MESSAGE(WM_NULL, OnNull)
END_MESSAGE_MAP()

ProbeWnd* MakeProbe(const char* title) {
    ProbeWnd* wnd = new ProbeWnd;
    RECT rect = {0, 0, 10, 10};
    return wnd->Create(nullptr, title, WS_OVERLAPPED, rect) ? wnd : nullptr;
}

TEST(Framework, MessagesReachTheMostDerivedHandlerAndWindowsDeleteThemselves) {
    g_events.clear();
    ProbeWnd* wnd = MakeProbe("seven c");
    ASSERT_NE(wnd, nullptr);
    HWND hWnd = wnd->GetSafeHwnd();
    EXPECT_EQ(g_events, (std::vector<std::string>{"create"}));
    // The frame's default class and client edge.
    EXPECT_NE(GetWindowLongPtrA(hWnd, GWL_EXSTYLE) & WS_EX_CLIENTEDGE, 0);
    EXPECT_EQ(SendMessageA(hWnd, WM_GETTEXTLENGTH, 0, 0), 7);

    // An exception in a handler stays inside the window procedure.
    EXPECT_EQ(SendMessageA(hWnd, WM_TIMER, 2, 0), 0);
    EXPECT_TRUE(IsWindow(hWnd));

    // WM_CLOSE is the base class's: it destroys the window, which deletes the object; a window
    // destroyed inside its own handler is deleted after the handler.
    SendMessageA(hWnd, WM_CLOSE, 0, 0);
    EXPECT_FALSE(IsWindow(hWnd));
    hWnd = MakeProbe("probe")->GetSafeHwnd();
    SendMessageA(hWnd, WM_TIMER, 1, 0);
    EXPECT_FALSE(IsWindow(hWnd));
    EXPECT_EQ(g_events,
              (std::vector<std::string>{"create", "deleted", "create", "deleted after handler"}));
}

// The server's frame: hidden, no client edge, on a class of style 0.
TEST(MainFrameWindow, HiddenWithoutClientEdgeOnAClassOfStyleZero) {
    CMainFrame* frame = new CMainFrame;
    RECT rect = {0, 0, 0, 0};
    ASSERT_TRUE(frame->Create(nullptr, "server frame under test", WS_CLIPCHILDREN, rect));
    HWND hFrame = frame->GetSafeHwnd();
    EXPECT_FALSE(IsWindowVisible(hFrame));
    EXPECT_EQ(GetWindowLongPtrA(hFrame, GWL_EXSTYLE) & WS_EX_CLIENTEDGE, 0);
    EXPECT_EQ(GetClassLongPtrA(hFrame, GCL_STYLE), 0);
    DestroyWindow(hFrame);  // the frame deletes itself
}

// The player by extension: the whole text after the last dot, letter case aside, found with the
// platform's multibyte search.
TEST(RegistryExtension, WholeTextAfterTheLastDotLetterCaseAside) {
    struct Case {
        const char* name;
        const char* ext;
        BOOL expected;
    } cases[] = {
        {"a.wav", "wav", TRUE},      {"a.WAV", "wav", TRUE},
        {"a.Mp3", "mp3", TRUE},      {"C:\\dir.x\\song.mp3", "mp3", TRUE},
        {".wav", "wav", TRUE},       {"a.wave", "wav", FALSE},
        {"a.wa", "wav", FALSE},      {"a.mp3 ", "mp3", FALSE},
        {"a.mp3.bak", "mp3", FALSE}, {"a.bak.mp3", "mp3", TRUE},
        {"amp3", "mp3", FALSE},      {"dir.mp3\\file", "mp3", FALSE},
        {"a.", "wav", FALSE},        {"", "wav", FALSE},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(CPlayerRegistry::HasExtension(c.name, c.ext), c.expected) << c.name;
    }
    EXPECT_FALSE(CPlayerRegistry::HasExtension(nullptr, "wav"));
}

}  // namespace
