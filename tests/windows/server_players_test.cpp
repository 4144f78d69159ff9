// The plays of a player: the record a request becomes, which plays the stops select, the
// foreground state, the list under exceptions and at close, and the WAV player's refusals.

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "player/wav/WavFilePlayer.h"
#include "tests/windows/server_support.h"

using namespace server_test;

namespace {

const DWORD kOtherPid = 0x7FFFFFF0;  // a process id no process here has

class PlayersTest : public ::testing::Test {
protected:
    void SetUp() override { PlayJournal::Get().Reset(); }
    void TearDown() override {
        m_player.StopAllForClose();
        m_player.Release();
        EXPECT_TRUE(ThreadsEnded(&m_player));
    }

    // Waits until n plays have joined (or ended) and returns the journal.
    std::vector<ObservedPlay> Joined(size_t n) {
        EXPECT_TRUE(WaitFor([n] {
            auto plays = PlayJournal::Get().Plays();
            size_t joined = 0;
            for (auto& p : plays) joined += p.joined ? 1 : 0;
            return joined >= n;
        }));
        return PlayJournal::Get().Plays();
    }

    static const ObservedPlay* Find(const std::vector<ObservedPlay>& plays, const std::string& name,
                                    LONG client) {
        for (auto& p : plays) {
            if (p.name == name && p.client == client) return &p;
        }
        return nullptr;
    }

    FakePlayer m_player{CPlayerRegistry::kWavSlot};
    TestWindow m_window;
};

TEST_F(PlayersTest, RecordTakesClientProcessAndForegroundState) {
    const LONG own = m_window.Handle32();
    const DWORD ownPid = GetCurrentProcessId();
    const LONG gone = 0x7FFF1230;  // no window has this handle
    ASSERT_FALSE(IsWindow(static_cast<HWND>(LongToHandle(gone))));

    ASSERT_NE(m_player.Play(own, "front.wav", 1, ownPid), 0);
    ASSERT_NE(m_player.Play(own, "behind.wav", 0, kOtherPid), 0);
    ASSERT_NE(m_player.Play(own, "ignoring.wav", 0, 0), 0);
    ASSERT_NE(m_player.Play(gone, "nobody.wav", 0, kOtherPid), 0);
    ASSERT_NE(m_player.Play(0, "zero.wav", 0, 0), 0);
    ASSERT_TRUE(WaitFor([] { return PlayJournal::Get().Count() == 5; }));
    auto plays = PlayJournal::Get().Plays();

    const ObservedPlay* front = Find(plays, "front.wav", own);
    ASSERT_NE(front, nullptr);
    EXPECT_EQ(front->clientPid, ownPid);
    EXPECT_EQ(front->loop, 1u);
    EXPECT_EQ(front->followForeground, 1u);
    EXPECT_EQ(front->startSilent, 0u);

    const ObservedPlay* behind = Find(plays, "behind.wav", own);
    ASSERT_NE(behind, nullptr);
    EXPECT_EQ(behind->loop, 0u);
    EXPECT_EQ(behind->followForeground, 1u);
    EXPECT_EQ(behind->startSilent, 1u);

    const ObservedPlay* ignoring = Find(plays, "ignoring.wav", own);
    ASSERT_NE(ignoring, nullptr);
    EXPECT_EQ(ignoring->followForeground, 0u);
    EXPECT_EQ(ignoring->startSilent, 0u);

    const ObservedPlay* nobody = Find(plays, "nobody.wav", gone);
    ASSERT_NE(nobody, nullptr);
    EXPECT_EQ(nobody->clientPid, 0u);
    EXPECT_EQ(nobody->startSilent, 1u);

    const ObservedPlay* zero = Find(plays, "zero.wav", 0);
    ASSERT_NE(zero, nullptr);
    EXPECT_EQ(zero->clientPid, 0u);
    EXPECT_EQ(zero->startSilent, 0u);
}

TEST_F(PlayersTest, NameMustFitTheRecord) {
    std::string fits(259, 'a');
    fits.replace(fits.size() - 4, 4, ".wav");
    std::string tooLong = "a" + fits;
    EXPECT_NE(m_player.Play(0, fits.c_str(), 0, 0), 0);
    EXPECT_EQ(m_player.Play(0, tooLong.c_str(), 0, 0), 0);
    EXPECT_EQ(m_player.Play(0, nullptr, 0, 0), 0);
    ASSERT_TRUE(ThreadsEnded(&m_player));
    auto plays = PlayJournal::Get().Plays();
    ASSERT_EQ(plays.size(), 1u);
    EXPECT_EQ(plays[0].name, fits);
}

TEST_F(PlayersTest, StopFileComparesLetterCaseAsideButNoOtherPathForm) {
    const LONG a = m_window.Handle32();
    const LONG b = a + 4;  // another client, by handle only
    const char* names[] = {"C:\\snd\\Chime.wav", "C:/snd/Chime.wav", "c:\\snd\\..\\snd\\chime.wav",
                           "C:\\snd\\Chime.wav"};
    for (const char* name : names) ASSERT_NE(m_player.Play(a, name, 1, 0), 0);
    ASSERT_NE(m_player.Play(b, "C:\\snd\\Chime.wav", 1, 0), 0);
    Joined(5);

    m_player.StopFile(a, "c:\\SND\\chime.WAV");
    // Both plays of that file, and nothing else, leave the list.
    ASSERT_TRUE(WaitFor([&] { return m_player.PlayingCount() == 3; }));
    Sleep(50);
    EXPECT_EQ(m_player.PlayingCount(), 3);
    for (auto& p : PlayJournal::Get().Plays()) {
        bool expectStopped = p.client == a && p.name == "C:\\snd\\Chime.wav";
        EXPECT_EQ(p.stopped, expectStopped) << p.client << " " << p.name;
    }
}

TEST_F(PlayersTest, StopOtherFilesAndStopClientStayWithinTheClient) {
    const LONG a = m_window.Handle32();
    const LONG b = a + 4;
    ASSERT_NE(m_player.Play(a, "keep.wav", 1, 0), 0);
    ASSERT_NE(m_player.Play(a, "other1.wav", 1, 0), 0);
    ASSERT_NE(m_player.Play(a, "other2.wav", 1, 0), 0);
    ASSERT_NE(m_player.Play(b, "other1.wav", 1, 0), 0);
    Joined(4);

    m_player.StopOtherFiles(a, "KEEP.wav");
    ASSERT_TRUE(WaitFor([&] { return m_player.PlayingCount() == 2; }));
    auto plays = PlayJournal::Get().Plays();
    EXPECT_FALSE(Find(plays, "keep.wav", a)->stopped);
    EXPECT_TRUE(Find(plays, "other1.wav", a)->stopped);
    EXPECT_TRUE(Find(plays, "other2.wav", a)->stopped);
    EXPECT_FALSE(Find(plays, "other1.wav", b)->stopped);

    m_player.StopClient(a + 8);  // a client with no plays
    Sleep(50);
    EXPECT_EQ(m_player.PlayingCount(), 2);

    m_player.StopClient(a);
    ASSERT_TRUE(WaitFor([&] { return m_player.PlayingCount() == 1; }));
    EXPECT_TRUE(Find(PlayJournal::Get().Plays(), "keep.wav", a)->stopped);
    EXPECT_FALSE(Find(PlayJournal::Get().Plays(), "other1.wav", b)->stopped);
}

TEST_F(PlayersTest, StopDoesNotReachAPlayStillOpening) {
    const LONG a = m_window.Handle32();
    ASSERT_NE(m_player.Play(a, "hold:slow.wav", 1, 0), 0);
    ASSERT_TRUE(WaitFor([] { return PlayJournal::Get().Count() == 1; }));
    m_player.StopClient(a);
    m_player.StopFile(a, "hold:slow.wav");
    m_player.Release();
    Joined(1);
    Sleep(50);
    EXPECT_FALSE(PlayJournal::Get().Plays()[0].stopped);  // it loops on

    m_player.StopClient(a);
    EXPECT_TRUE(WaitFor([] { return PlayJournal::Get().Plays()[0].stopped; }));
}

TEST_F(PlayersTest, ForegroundChangeWhileOpeningIsTakenAtJoin) {
    const LONG a = m_window.Handle32();
    const DWORD ownPid = GetCurrentProcessId();
    // Requested while another process was in front, joins after this one came to the front.
    ASSERT_NE(m_player.Play(a, "hold:late.wav", 1, kOtherPid), 0);
    // Not following the foreground: never silenced, whatever is reported.
    ASSERT_NE(m_player.Play(a, "hold:ignoring.wav", 1, 0), 0);
    ASSERT_TRUE(WaitFor([] { return PlayJournal::Get().Count() == 2; }));

    m_player.SetForegroundProcess(ownPid);
    m_player.SetForegroundProcess(kOtherPid);
    m_player.SetForegroundProcess(ownPid);
    m_player.Release();
    auto plays = Joined(2);
    EXPECT_EQ(Find(plays, "hold:late.wav", a)->silentAtJoin, 0);
    EXPECT_EQ(Find(plays, "hold:ignoring.wav", a)->silentAtJoin, 0);

    // Requested in front and joined with no report in between: stays audible (the player has
    // heard of no foreground process at all, which must not count as a change).
    FakePlayer quiet(CPlayerRegistry::kWavSlot);
    PlayJournal::Get().Reset();
    ASSERT_NE(quiet.Play(a, "steady.wav", 1, ownPid), 0);
    plays = Joined(1);
    EXPECT_EQ(plays[0].silentAtJoin, 0);
    quiet.StopAllForClose();
    EXPECT_TRUE(ThreadsEnded(&quiet));
}

TEST_F(PlayersTest, ForegroundReportSwitchesOnlyPlaysThatFollowIt) {
    const LONG a = m_window.Handle32();
    const DWORD ownPid = GetCurrentProcessId();
    ASSERT_NE(m_player.Play(a, "follows.wav", 1, kOtherPid), 0);
    ASSERT_NE(m_player.Play(a, "ignores.wav", 1, 0), 0);
    auto plays = Joined(2);
    CWavOut* follows = Find(plays, "follows.wav", a)->out;
    CWavOut* ignores = Find(plays, "ignores.wav", a)->out;
    ASSERT_NE(follows, nullptr);
    ASSERT_NE(ignores, nullptr);
    EXPECT_EQ(follows->bSilent.load(), 1);

    m_player.SetForegroundProcess(ownPid);
    EXPECT_EQ(follows->bSilent.load(), 0);
    EXPECT_EQ(ignores->bSilent.load(), 0);
    m_player.SetForegroundProcess(0);  // no window in front
    EXPECT_EQ(follows->bSilent.load(), 1);
    EXPECT_EQ(ignores->bSilent.load(), 0);
}

TEST_F(PlayersTest, ExceptionInAPlayIsLoggedAndUnlistsIt) {
    LogTail log;
    const std::string name = "throw:boom-" + std::to_string(GetTickCount()) + ".wav";
    ASSERT_NE(m_player.Play(0, name.c_str(), 1, 0), 0);
    ASSERT_TRUE(ThreadsEnded(&m_player));
    EXPECT_EQ(m_player.PlayingCount(), 0);
    EXPECT_EQ(log.Count("player/pub/SoundFilePlayer",
                        "file\\(" + Literal(name) + "\\),exception occurs"),
              1)
        << log.Text();
}

TEST_F(PlayersTest, CloseStopsEveryClientAndRefusesLaterPlays) {
    const LONG a = m_window.Handle32();
    ASSERT_NE(m_player.Play(a, "a.wav", 1, 0), 0);
    ASSERT_NE(m_player.Play(0, "zero.wav", 1, 0), 0);
    ASSERT_NE(m_player.Play(a, "hold:opening.wav", 1, 0), 0);
    Joined(2);

    m_player.StopAllForClose();
    EXPECT_EQ(m_player.Play(a, "late.wav", 1, 0), 0);
    m_player.Release();
    ASSERT_TRUE(ThreadsEnded(&m_player));
    EXPECT_EQ(m_player.PlayingCount(), 0);
    auto plays = PlayJournal::Get().Plays();
    ASSERT_EQ(plays.size(), 3u);
    EXPECT_TRUE(Find(plays, "a.wav", a)->stopped);
    EXPECT_TRUE(Find(plays, "zero.wav", 0)->stopped);
    EXPECT_FALSE(Find(plays, "hold:opening.wav", a)->joined);
}

// ---- The WAV player's refusals, run on this thread ----

class WavPlayerRefusals : public ::testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& bytes) {
        char dir[MAX_PATH];
        GetTempPathA(MAX_PATH, dir);
        std::string path = std::string(dir) + "qb-" + std::to_string(GetCurrentProcessId()) + "-" + name;
        std::ofstream(path, std::ios::binary) << bytes;
        m_files.push_back(path);
        return path;
    }
    void TearDown() override {
        for (auto& f : m_files) DeleteFileA(f.c_str());
    }

    int PlayDirect(const std::string& name) {
        PlayRequest request;
        request.hClientWnd = 0;
        request.dwClientPid = 0;
        request.bFollowForeground = 0;
        request.pPlayer = &m_player;
        request.pWavOut = nullptr;
        strcpy(request.szFileName, name.c_str());
        request.bLoop = 0;
        request.bStartSilent = 0;
        request.nForegroundSerial = 0;
        int result = m_player.PlayFile(&request);
        EXPECT_EQ(m_player.PlayingCount(), 0);
        return result;
    }

    static std::string U32(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
    static std::string U16(uint16_t v) { return std::string(reinterpret_cast<const char*>(&v), 2); }
    static std::string Fmt(uint16_t format, uint16_t channels, uint32_t rate, uint16_t bits) {
        uint16_t align = static_cast<uint16_t>(channels * bits / 8);
        return "fmt " + U32(16) + U16(format) + U16(channels) + U32(rate) + U32(rate * align) +
               U16(align) + U16(bits);
    }
    static std::string Riff(const std::string& chunks) {
        return "RIFF" + U32(static_cast<uint32_t>(4 + chunks.size())) + "WAVE" + chunks;
    }

    CWavFilePlayer m_player;
    std::vector<std::string> m_files;
};

TEST_F(WavPlayerRefusals, FileThatCannotBeOpened) {
    LogTail log;
    char dir[MAX_PATH];
    GetTempPathA(MAX_PATH, dir);
    std::string missing = std::string(dir) + "qb-no-such-file.wav";
    EXPECT_EQ(PlayDirect(missing), 0);
    EXPECT_EQ(log.Count("player/pub/FileMapObj",
                        "create file\\(" + Literal(missing) + "\\) failed\\(0x00000002\\)"),
              1)
        << log.Text();
    EXPECT_EQ(log.Count("player/wav/WavFilePlayer", "file\\(" + Literal(missing) + "\\),open failed"), 1);
}

TEST_F(WavPlayerRefusals, ContentThatIsNoPlayableWav) {
    LogTail log;
    std::string noFmt = Write("nofmt.wav", Riff(""));
    std::string floats = Write("float.wav", Riff(Fmt(3, 2, 44100, 32) + "data" + U32(0)));
    EXPECT_EQ(PlayDirect(noFmt), 0);
    EXPECT_EQ(PlayDirect(floats), 0);
    EXPECT_EQ(log.Count("player/wav/WavFilePlayer", "file\\(" + Literal(noFmt) + "\\),open failed"), 1)
        << log.Text();
    EXPECT_EQ(log.Count("player/wav/WavFilePlayer", "file\\(" + Literal(floats) + "\\),open failed"), 1);
    EXPECT_NE(log.Text().find("[CWavFile::InitFileInfo]file(" + noFmt + "),no fmt info"), std::string::npos);
    EXPECT_NE(log.Text().find("[CWavFile::InitFileInfo]file(" + floats + "),AudioFormat=3"), std::string::npos);
}

TEST_F(WavPlayerRefusals, FormatTheOutputRefuses) {
    LogTail log;
    std::string noChannels = Write("nochannels.wav", Riff(Fmt(1, 0, 44100, 16) + "data" + U32(4) + "abcd"));
    EXPECT_EQ(PlayDirect(noChannels), 0);
    EXPECT_EQ(log.Count("player/wav/WavFilePlayer",
                        "file\\(" + Literal(noChannels) + "\\),waveout init failed"),
              1)
        << log.Text();
    EXPECT_EQ(log.Count("player/wav/WavFilePlayer", "file\\(" + Literal(noChannels) + "\\),open failed"), 0);
}

}  // namespace
