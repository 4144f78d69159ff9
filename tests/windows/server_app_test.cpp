// Start-up's window search and command forwarding, the request blocks clients build, and the
// application layer's window lifetime and dispatch.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "app/QuorbelApp.h"
#include "app/framework/FrameWnd.h"
#include "app/framework/WinApp.h"
#include "client/QuorbelClient.h"
namespace {

// A hidden top-level window of this process, destroyed with the object.
class TestWindow {
public:
    TestWindow() {
        WNDCLASSA wc = {};
        wc.lpfnWndProc = DefWindowProcA;
        wc.hInstance = GetModuleHandleA(nullptr);
        wc.lpszClassName = "ServerTestWindow";
        RegisterClassA(&wc);
        m_hWnd = CreateWindowExA(0, wc.lpszClassName, "server test window", WS_OVERLAPPED, 0, 0,
                                 0, 0, nullptr, nullptr, wc.hInstance, nullptr);
    }
    ~TestWindow() { DestroyWindow(m_hWnd); }
    HWND Handle() const { return m_hWnd; }
    LONG Handle32() const { return HandleToLong(m_hWnd); }
    TestWindow(const TestWindow&) = delete;
    TestWindow& operator=(const TestWindow&) = delete;

private:
    HWND m_hWnd;
};

// A window that keeps a copy of every WM_COPYDATA it receives.
class CopyDataSink {
public:
    struct Received {
        ULONG_PTR dwData;
        std::string bytes;
    };

    explicit CopyDataSink(const char* title) {
        WNDCLASSA wc = {};
        wc.lpfnWndProc = &CopyDataSink::Proc;
        wc.hInstance = GetModuleHandleA(nullptr);
        wc.lpszClassName = "ServerTestCopyDataSink";
        RegisterClassA(&wc);
        m_hWnd = CreateWindowExA(0, wc.lpszClassName, title, WS_OVERLAPPED, 0, 0, 0, 0, nullptr,
                                 nullptr, wc.hInstance, nullptr);
        SetWindowLongPtrA(m_hWnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
    }
    ~CopyDataSink() { DestroyWindow(m_hWnd); }
    HWND Handle() const { return m_hWnd; }
    std::vector<Received> received;

private:
    static LRESULT CALLBACK Proc(HWND hWnd, UINT msg, WPARAM wParam, LPARAM lParam) {
        auto* self = reinterpret_cast<CopyDataSink*>(GetWindowLongPtrA(hWnd, GWLP_USERDATA));
        if (msg == WM_COPYDATA && self != nullptr) {
            auto* cds = reinterpret_cast<COPYDATASTRUCT*>(lParam);
            self->received.push_back({cds->dwData, std::string(static_cast<const char*>(cds->lpData), cds->cbData)});
            return TRUE;
        }
        return DefWindowProcA(hWnd, msg, wParam, lParam);
    }
    HWND m_hWnd;
};

std::string Bytes(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
std::string Z(const std::string& s) { return s + std::string(1, '\0'); }

TEST(StartUp, RunningInstanceIsTheFirstWindowWhoseTitleBeginsWithTheWord) {
    struct Case {
        const char* title;
        bool taken;
    } cases[] = {
        {"Quorbel", true},       {"Quorbel - another program", true}, {"Quorbel2", true},
        {"quorbel", false},      {"Quorbe", false},                   {" Quorbel", false},
        {"", false},
    };
    for (const Case& c : cases) {
        TestWindow window;
        SetWindowTextA(window.Handle(), c.title);
        HWND found = nullptr;
        BOOL goOn = CQuorbelApp::FindRunningInstanceProc(window.Handle(), reinterpret_cast<LPARAM>(&found));
        EXPECT_EQ(goOn, c.taken ? FALSE : TRUE) << c.title;
        EXPECT_EQ(found, c.taken ? window.Handle() : nullptr) << c.title;
    }
}

TEST(StartUp, ForwardedCommandLineIsARequestOfNoClientWithFullPaths) {
    CopyDataSink sink("forward target");
    char cwd[MAX_PATH];
    GetCurrentDirectoryA(MAX_PATH, cwd);
    std::string base = cwd;
    if (base.back() != '\\') base += '\\';

    std::string tooLong(300, 'x');
    char a[] = "a.wav", b[] = "sub\\b.mp3", abs[] = "C:\\snd\\c.WAV";
    char* argv[] = {a, &tooLong[0], b, abs};
    EXPECT_EQ(CQuorbelApp::ForwardCommandLine(sink.Handle(), 4, argv), 1);
    ASSERT_EQ(sink.received.size(), 1u);
    // Three names (the one that cannot fit is left out), no loop, never silenced.
    EXPECT_EQ(sink.received[0].dwData, static_cast<ULONG_PTR>(3 | (REQ_IGNORE_FOREGROUND << 16)));
    EXPECT_EQ(sink.received[0].bytes,
              Bytes(0) + Z(base + "a.wav") + Z(base + "sub\\b.mp3") + Z("C:\\snd\\c.WAV"));

    char* none[] = {&tooLong[0]};
    EXPECT_EQ(CQuorbelApp::ForwardCommandLine(sink.Handle(), 1, none), 0);
    EXPECT_EQ(sink.received.size(), 1u);  // nothing left to send
}

TEST(ClientRequest, BlockLayoutAndLimits) {
    CQuorbelClient::CRequestBlock block(static_cast<LONG>(0x80000010u));
    ASSERT_TRUE(block.IsValid());
    EXPECT_EQ(block.Size(), 4u);
    std::string fits(259, 'n');
    EXPECT_TRUE(block.AddName("a.wav"));
    EXPECT_TRUE(block.AddName(""));
    EXPECT_TRUE(block.AddName(fits.c_str()));
    EXPECT_FALSE(block.AddName((fits + "n").c_str()));
    EXPECT_FALSE(block.AddName(nullptr));
    EXPECT_EQ(block.Count(), 3);
    std::string bytes(static_cast<const char*>(block.Data()), block.Size());
    EXPECT_EQ(bytes, Bytes(0x80000010u) + Z("a.wav") + Z("") + Z(fits));

    CQuorbelClient::CRequestBlock full(0);
    for (int i = 0; i < 255; ++i) ASSERT_TRUE(full.AddName("x.wav"));
    EXPECT_FALSE(full.AddName("x.wav"));
    EXPECT_EQ(full.Count(), 255);

    EXPECT_EQ(CQuorbelClient::MakeDwData(2, REQ_STOP | REQ_STOP_OTHERS), static_cast<ULONG_PTR>(0x00060002));
    EXPECT_EQ(CQuorbelClient::MakeDwData(255, 0xFFFF), static_cast<ULONG_PTR>(0xFFFF00FF));
}

TEST(ClientRequest, SendReachesTheWindowTitledExactlyQuorbel) {
    // Only this process's windows are searched here; no server runs in it.
    TestWindow notIt;
    SetWindowTextA(notIt.Handle(), "Quorbel - not the server");
    HWND found = CQuorbelClient::FindServer();
    EXPECT_NE(found, notIt.Handle());
    if (found != nullptr) GTEST_SKIP() << "a server window is open on this desktop";

    CopyDataSink sink("Quorbel");
    EXPECT_EQ(CQuorbelClient::FindServer(), sink.Handle());
    TestWindow me;
    CQuorbelClient client(me.Handle());
    const char* names[] = {"x.wav", "y.wav"};
    EXPECT_EQ(client.Send(REQ_LOOP, names, 2), 1);
    EXPECT_EQ(client.StopClient(), 1);
    ASSERT_EQ(sink.received.size(), 2u);
    EXPECT_EQ(sink.received[0].dwData, static_cast<ULONG_PTR>(0x00010002));
    EXPECT_EQ(sink.received[0].bytes, Bytes(static_cast<uint32_t>(me.Handle32())) + Z("x.wav") + Z("y.wav"));
    EXPECT_EQ(sink.received[1].dwData, static_cast<ULONG_PTR>(REQ_STOP_CLIENT << 16));
    EXPECT_EQ(sink.received[1].bytes, Bytes(static_cast<uint32_t>(me.Handle32())));
}

// ---- The application layer ----

std::vector<std::string> g_events;

class ProbeWnd : public CFrameWnd {
public:
    ~ProbeWnd() override { g_events.push_back(m_bAfterDestroy ? "deleted after handler" : "deleted"); }

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
    if (!wnd->Create(nullptr, title, WS_OVERLAPPED, rect)) return nullptr;
    return wnd;
}

TEST(Framework, MessagesReachTheMostDerivedHandlerAndDefault) {
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

    // WM_CLOSE is the base class's: it destroys the window, which deletes the object.
    SendMessageA(hWnd, WM_CLOSE, 0, 0);
    EXPECT_FALSE(IsWindow(hWnd));
    EXPECT_EQ(g_events, (std::vector<std::string>{"create", "deleted"}));
}

TEST(Framework, WindowDestroyedInItsOwnHandlerIsDeletedAfterIt) {
    g_events.clear();
    ProbeWnd* wnd = MakeProbe("probe");
    ASSERT_NE(wnd, nullptr);
    HWND hWnd = wnd->GetSafeHwnd();
    SendMessageA(hWnd, WM_TIMER, 1, 0);
    EXPECT_FALSE(IsWindow(hWnd));
    EXPECT_EQ(g_events, (std::vector<std::string>{"create", "deleted after handler"}));
}

TEST(Framework, DestroyingTheMainWindowEndsTheMessageLoop) {
    CWinApp* app = AfxGetApp();
    ASSERT_NE(app, nullptr);
    MSG msg;
    while (PeekMessageA(&msg, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE)) {
    }

    ProbeWnd* other = MakeProbe("not the main window");
    ASSERT_NE(other, nullptr);
    DestroyWindow(other->GetSafeHwnd());
    EXPECT_FALSE(PeekMessageA(&msg, nullptr, WM_QUIT, WM_QUIT, PM_NOREMOVE));

    ProbeWnd* main = MakeProbe("main window");
    ASSERT_NE(main, nullptr);
    app->m_pMainWnd = main;
    DestroyWindow(main->GetSafeHwnd());
    EXPECT_EQ(app->m_pMainWnd, nullptr);
    ASSERT_TRUE(PeekMessageA(&msg, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE));
    EXPECT_EQ(msg.wParam, 0u);
}

TEST(Framework, RegisteredClassesAreFoundAgainByTheirArguments) {
    const std::string plain = AfxRegisterWndClass(0);
    const std::string again = AfxRegisterWndClass(0);
    const std::string dbl = AfxRegisterWndClass(CS_DBLCLKS);
    EXPECT_EQ(plain, again);
    EXPECT_NE(plain, dbl);
    WNDCLASSA wc;
    ASSERT_TRUE(GetClassInfoA(GetModuleHandleA(nullptr), dbl.c_str(), &wc));
    EXPECT_EQ(wc.style, static_cast<UINT>(CS_DBLCLKS));
    EXPECT_EQ(wc.lpfnWndProc, &CWnd::WndProc);
}

}  // namespace
