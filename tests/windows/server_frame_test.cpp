// The main frame's request intake: decoding hostile blocks without reading past them, the
// client list, the flags, the foreground tick, the sweep and the close. The players are fakes
// that record what reached them.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "app/MainFrame.h"
#include "app/WndHandleArray.h"
#include "client/QuorbelClient.h"
#include "tests/windows/server_support.h"

using namespace server_test;

namespace {

const DWORD kOtherPid = 0x7FFFFFF0;

class TestFrame : public CMainFrame {
public:
    using CMainFrame::DispatchRequest;
    using CMainFrame::m_bSweepTimerStarted;
    using CMainFrame::m_clients;
    using CMainFrame::m_dwForegroundPid;
    using CMainFrame::m_players;
    using CMainFrame::OnCopyData;
    using CMainFrame::OnTimer;

    // Made hidden like the server's, with fake players; it deletes itself when destroyed.
    static TestFrame* Make() {
        TestFrame* frame = new TestFrame;
        frame->m_players.SetPlayerFactory(&FakePlayer::Make);
        RECT rect = {0, 0, 0, 0};
        if (!frame->Create(nullptr, "server frame under test", WS_CLIPCHILDREN, rect)) return nullptr;
        return frame;
    }
};

// Bytes placed right before a page that cannot be read: a read past them faults.
class GuardedBlock {
public:
    explicit GuardedBlock(const std::string& bytes) {
        SYSTEM_INFO si;
        GetSystemInfo(&si);
        m_page = si.dwPageSize;
        m_base = static_cast<char*>(VirtualAlloc(nullptr, 2 * m_page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        DWORD old;
        VirtualProtect(m_base + m_page, m_page, PAGE_NOACCESS, &old);
        m_data = m_base + m_page - bytes.size();
        memcpy(m_data, bytes.data(), bytes.size());
        m_size = static_cast<DWORD>(bytes.size());
    }
    ~GuardedBlock() { VirtualFree(m_base, 0, MEM_RELEASE); }
    GuardedBlock(const GuardedBlock&) = delete;
    GuardedBlock& operator=(const GuardedBlock&) = delete;

    void* Data() const { return m_data; }
    DWORD Size() const { return m_size; }

private:
    char* m_base;
    char* m_data;
    DWORD m_page;
    DWORD m_size;
};

std::string Handle(uint32_t h) { return std::string(reinterpret_cast<const char*>(&h), 4); }
std::string Name(const std::string& n) { return n + std::string(1, '\0'); }

class FrameTest : public ::testing::Test {
protected:
    void SetUp() override {
        PlayJournal::Get().Reset();
        m_frame = TestFrame::Make();
        ASSERT_NE(m_frame, nullptr);
        m_hFrame = m_frame->GetSafeHwnd();
    }
    void TearDown() override {
        if (IsWindow(m_hFrame)) DestroyWindow(m_hFrame);  // the frame deletes itself
    }

    // Sends a block as a client would, from its exact bytes; the block ends at a guard page.
    void Send(ULONG_PTR dwData, const std::string& bytes) {
        GuardedBlock block(bytes);
        COPYDATASTRUCT cds = {dwData, block.Size(), block.Data()};
        EXPECT_TRUE(m_frame->OnCopyData(nullptr, &cds));
    }
    static ULONG_PTR DwData(int count, unsigned flags) { return CQuorbelClient::MakeDwData(count, flags); }

    // Waits until every play thread started so far has ended or joined (looping), then lists
    // the names that reached a player.
    std::vector<std::string> PlayedNames() {
        EXPECT_TRUE(WaitFor([this] { return Live() == Listed(); }));
        std::vector<std::string> names;
        for (auto& p : PlayJournal::Get().Plays()) names.push_back(p.name);
        return names;
    }
    long Live() {
        long live = 0;
        for (int s = 0; s < CPlayerRegistry::kSlotCount; ++s) {
            CSoundFilePlayer* p = m_frame->m_players.PlayerAt(s);
            if (p) live += p->LivePlayThreads();
        }
        return live;
    }
    int Listed() {
        int n = 0;
        for (int s = 0; s < CPlayerRegistry::kSlotCount; ++s) {
            CSoundFilePlayer* p = m_frame->m_players.PlayerAt(s);
            if (p) n += p->PlayingCount();
        }
        return n;
    }
    static const ObservedPlay* Find(const std::string& name, LONG client) {
        static std::vector<ObservedPlay> plays;
        plays = PlayJournal::Get().Plays();
        for (auto& p : plays) {
            if (p.name == name && p.client == client) return &p;
        }
        return nullptr;
    }

    TestFrame* m_frame = nullptr;
    HWND m_hFrame = nullptr;
};

TEST_F(FrameTest, BlocksTooShortForAClientHandleAreIgnored) {
    Send(DwData(1, 0), "");
    Send(DwData(1, 0), std::string("\x11\x22\x33", 3));
    COPYDATASTRUCT nullData = {DwData(1, 0), 16, nullptr};
    EXPECT_TRUE(m_frame->OnCopyData(nullptr, &nullData));
    EXPECT_TRUE(m_frame->OnCopyData(nullptr, nullptr));
    EXPECT_EQ(m_frame->m_clients.GetCount(), 0);
    EXPECT_FALSE(m_frame->m_bSweepTimerStarted);
    EXPECT_TRUE(PlayedNames().empty());
}

TEST_F(FrameTest, NamesAreReadOnlyUpToTheEndOfTheBlock) {
    // The count promises more names than there are, or the block ends inside a name.
    Send(DwData(255, 0), Handle(0x1234));
    Send(DwData(3, 0), Handle(0x1234) + Name("one.wav"));
    Send(DwData(2, 0), Handle(0x1234) + Name("two.wav") + "cut.wa");
    Send(DwData(1, 0), Handle(0x1234) + "unterminated.wav");
    auto names = PlayedNames();
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"one.wav", "two.wav"}));
    // The client is listed all the same, once.
    EXPECT_EQ(m_frame->m_clients.GetCount(), 1);
}

TEST_F(FrameTest, NamesThatDoNotFitAreLeftOutAndTheRestCarriedOut) {
    std::string fits(259, 'f');
    fits.replace(fits.size() - 4, 4, ".wav");
    std::string tooLong = "g" + fits;                 // 260 bytes
    std::string wayTooLong(300, 'h');
    Send(DwData(4, 0), Handle(0) + Name(wayTooLong + ".wav") + Name(tooLong) + Name(fits) + Name("ok.wav"));
    auto names = PlayedNames();
    std::sort(names.begin(), names.end());  // the play threads record in any order
    EXPECT_EQ(names, (std::vector<std::string>{fits, "ok.wav"}));
}

TEST_F(FrameTest, CountAndFlagsComeFromTheirBitsOnly) {
    m_frame->m_dwForegroundPid = 0;  // no process in front
    // Bits 8-15 and everything above bit 31 have no effect.
    Send(DwData(1, 0) | 0xFF00 | (static_cast<ULONG_PTR>(0xFFFF) << 32), Handle(0) + Name("a.wav") + Name("b.wav"));
    // REQ_STOP_OTHERS without REQ_STOP plays.
    Send(DwData(1, REQ_STOP_OTHERS | REQ_LOOP), Handle(0) + Name("c.wav"));
    // REQ_IGNORE_FOREGROUND: the play does not follow the foreground.
    m_frame->m_dwForegroundPid = kOtherPid;
    Send(DwData(1, REQ_IGNORE_FOREGROUND), Handle(0) + Name("d.wav"));
    Send(DwData(1, 0), Handle(0) + Name("e.wav"));
    auto names = PlayedNames();
    ASSERT_EQ(names.size(), 4u);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"a.wav", "c.wav", "d.wav", "e.wav"}));
    EXPECT_EQ(Find("a.wav", 0)->loop, 0u);
    EXPECT_EQ(Find("a.wav", 0)->followForeground, 0u);
    EXPECT_EQ(Find("c.wav", 0)->loop, 1u);
    EXPECT_EQ(Find("d.wav", 0)->followForeground, 0u);
    EXPECT_EQ(Find("e.wav", 0)->followForeground, 1u);
    EXPECT_EQ(Find("e.wav", 0)->startSilent, 1u);
    Send(DwData(0, REQ_STOP_CLIENT), Handle(0));
}

TEST_F(FrameTest, ClientsAreListedOnceInOrderOfArrivalAndZeroNever) {
    Send(DwData(0, 0), Handle(0));
    EXPECT_EQ(m_frame->m_clients.GetCount(), 0);
    EXPECT_FALSE(m_frame->m_bSweepTimerStarted);

    const uint32_t high = 0x80001234;  // keeps its 32 bits, sign and all
    Send(DwData(0, 0), Handle(0x100));
    EXPECT_TRUE(m_frame->m_bSweepTimerStarted);
    Send(DwData(0, 0), Handle(high));
    Send(DwData(0, 0), Handle(0x100));
    Send(DwData(0, 0), Handle(0x300));
    ASSERT_EQ(m_frame->m_clients.GetCount(), 3);
    EXPECT_EQ(m_frame->m_clients.GetAt(0), 0x100);
    EXPECT_EQ(static_cast<uint32_t>(m_frame->m_clients.GetAt(1)), high);
    EXPECT_EQ(m_frame->m_clients.GetAt(2), 0x300);

    // The high handle's plays are found again by the same 32 bits.
    Send(DwData(1, REQ_LOOP), Handle(high) + Name("high.wav"));
    ASSERT_TRUE(WaitFor([this] { return Listed() == 1; }));
    Send(DwData(0, REQ_STOP_CLIENT), Handle(high));
    EXPECT_TRUE(WaitFor([this] { return Listed() == 0; }));
    EXPECT_TRUE(Find("high.wav", static_cast<LONG>(high))->stopped);
}

TEST_F(FrameTest, StopFlagsSelectThePlaysOfTheClient) {
    const uint32_t a = 0x500, b = 0x600;
    Send(DwData(3, REQ_LOOP), Handle(a) + Name("A.wav") + Name("B.wav") + Name("C.wav"));
    Send(DwData(1, REQ_LOOP), Handle(b) + Name("A.wav"));
    ASSERT_TRUE(WaitFor([this] { return Listed() == 4; }));

    // A stop with REQ_LOOP and REQ_IGNORE_FOREGROUND is still a stop of that one file.
    Send(DwData(1, REQ_STOP | REQ_LOOP | REQ_IGNORE_FOREGROUND), Handle(a) + Name("c.WAV"));
    ASSERT_TRUE(WaitFor([this] { return Listed() == 3; }));
    EXPECT_TRUE(Find("C.wav", a)->stopped);

    // One name at a time: all but A, then all but B, leaves none of a's plays.
    Send(DwData(2, REQ_STOP | REQ_STOP_OTHERS), Handle(a) + Name("A.wav") + Name("B.wav"));
    ASSERT_TRUE(WaitFor([this] { return Listed() == 1; }));
    EXPECT_TRUE(Find("A.wav", a)->stopped);
    EXPECT_TRUE(Find("B.wav", a)->stopped);
    EXPECT_FALSE(Find("A.wav", b)->stopped);

    // REQ_STOP_CLIENT reads no count and no names, and overrides the other flags.
    Send(DwData(7, REQ_STOP_CLIENT | REQ_LOOP), Handle(b) + "no names here");
    ASSERT_TRUE(WaitFor([this] { return Listed() == 0; }));
    EXPECT_TRUE(Find("A.wav", b)->stopped);
    EXPECT_EQ(PlayJournal::Get().Count(), 4u);
}

TEST_F(FrameTest, ForegroundTickReportsOnlyChanges) {
    TestWindow client;
    client.ToFront();
    m_frame->m_dwForegroundPid = kOtherPid;  // as if another process had been in front
    Send(DwData(1, REQ_LOOP), Handle(static_cast<uint32_t>(client.Handle32())) + Name("fg.wav"));
    ASSERT_TRUE(WaitFor([this] { return Listed() == 1; }));
    CWavOut* out = Find("fg.wav", client.Handle32())->out;
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->bSilent.load(), 1);

    HWND front = GetForegroundWindow();
    DWORD frontPid = 0;
    if (front) GetWindowThreadProcessId(front, &frontPid);
    m_frame->OnTimer(CMainFrame::TIMER_FOREGROUND);
    EXPECT_EQ(m_frame->m_dwForegroundPid, frontPid);
    EXPECT_EQ(out->bSilent.load(), frontPid == GetCurrentProcessId() ? 0 : 1);

    // The same process in front again: the players hear nothing.
    out->bSilent = 7;
    m_frame->OnTimer(CMainFrame::TIMER_FOREGROUND);
    EXPECT_EQ(out->bSilent.load(), 7);
    Send(DwData(0, REQ_STOP_CLIENT), Handle(static_cast<uint32_t>(client.Handle32())));
}

TEST_F(FrameTest, SweepStopsVanishedClientsAndClosesWithTheLast) {
    TestWindow first, second;
    Send(DwData(1, REQ_LOOP), Handle(static_cast<uint32_t>(first.Handle32())) + Name("first.wav"));
    Send(DwData(1, REQ_LOOP), Handle(static_cast<uint32_t>(second.Handle32())) + Name("second.wav"));
    Send(DwData(1, REQ_LOOP), Handle(0) + Name("nobody.wav"));
    ASSERT_TRUE(WaitFor([this] { return Listed() == 3; }));
    const LONG firstHandle = first.Handle32(), secondHandle = second.Handle32();

    first.Destroy();
    DWORD start = GetTickCount();
    while (!Find("first.wav", firstHandle)->stopped && GetTickCount() - start < 5000) PumpMessages(20);
    EXPECT_TRUE(Find("first.wav", firstHandle)->stopped);
    EXPECT_LE(GetTickCount() - start, 3000u);  // one sweep period and some slack
    ASSERT_TRUE(IsWindow(m_hFrame));
    EXPECT_EQ(m_frame->m_clients.GetCount(), 1);
    EXPECT_FALSE(Find("second.wav", secondHandle)->stopped);

    int destroyed = FakePlayer::s_destroyed.load();
    second.Destroy();
    start = GetTickCount();
    while (IsWindow(m_hFrame) && GetTickCount() - start < 5000) PumpMessages(20);
    EXPECT_FALSE(IsWindow(m_hFrame));
    // The close stopped what was left, client 0's play too, and then destroyed the player.
    EXPECT_TRUE(Find("second.wav", secondHandle)->stopped);
    EXPECT_TRUE(Find("nobody.wav", 0)->stopped);
    EXPECT_EQ(FakePlayer::s_destroyed.load(), destroyed + 1);
}

TEST_F(FrameTest, CloseFromOutsideEndsTheFrameAndItsPlays) {
    Send(DwData(1, REQ_LOOP), Handle(0) + Name("zero.wav"));
    ASSERT_TRUE(WaitFor([this] { return Listed() == 1; }));
    SendMessageA(m_hFrame, WM_CLOSE, 0, 0);
    EXPECT_FALSE(IsWindow(m_hFrame));
    EXPECT_TRUE(Find("zero.wav", 0)->stopped);
}

TEST_F(FrameTest, HiddenWindowWithoutClientEdgeOnAClassOfStyleZero) {
    EXPECT_FALSE(IsWindowVisible(m_hFrame));
    EXPECT_EQ(GetWindowLongPtrA(m_hFrame, GWL_EXSTYLE) & WS_EX_CLIENTEDGE, 0);
    EXPECT_EQ(GetClassLongPtrA(m_hFrame, GCL_STYLE), 0);
    EXPECT_EQ(m_frame->m_clients.GetCount(), 0);
}

// ---- The client list ----

TEST(WndHandleArray, GrowsByTenAndKeepsOrderOnRemoval) {
    CWndHandleArray array;
    EXPECT_EQ(array.GetCapacity(), 0);
    for (LONG h = 1; h <= 10; ++h) ASSERT_TRUE(array.Add(h));
    EXPECT_EQ(array.GetCapacity(), 10);
    ASSERT_TRUE(array.Add(11));
    EXPECT_EQ(array.GetCapacity(), 20);
    for (LONG h = 12; h <= 21; ++h) ASSERT_TRUE(array.Add(h));
    EXPECT_EQ(array.GetCapacity(), 30);
    EXPECT_EQ(array.GetCount(), 21);

    array.RemoveAt(0);
    array.RemoveAt(9);    // was 11
    array.RemoveAt(18);   // the last one, 21
    ASSERT_EQ(array.GetCount(), 18);
    EXPECT_EQ(array.GetAt(0), 2);
    EXPECT_EQ(array.GetAt(8), 10);
    EXPECT_EQ(array.GetAt(9), 12);
    EXPECT_EQ(array.GetAt(17), 20);
    EXPECT_EQ(array.Find(11), -1);
    EXPECT_EQ(array.Find(12), 9);
}

TEST(WndHandleArray, OutOfRangeIndexesDoNothing) {
    CWndHandleArray array;
    EXPECT_EQ(array.GetAt(0), 0);
    array.RemoveAt(0);
    array.Add(-5);
    array.RemoveAt(1);
    array.RemoveAt(-1);
    array.RemoveAt(0x7FFFFFFF);
    ASSERT_EQ(array.GetCount(), 1);
    EXPECT_EQ(array.GetAt(0), -5);
    EXPECT_EQ(array.GetAt(-1), 0);
    EXPECT_EQ(array.GetAt(1), 0);
    array.RemoveAt(0);
    EXPECT_EQ(array.GetCount(), 0);
    EXPECT_EQ(array.Find(-5), -1);
    array.RemoveAt(0);
    EXPECT_EQ(array.GetCount(), 0);
}

}  // namespace
