// Choosing the player by extension, making players on first need, and shutting them down.

#include <gtest/gtest.h>

#include <string>

#include "player/mp3/MP3FilePlayer.h"
#include "player/mp3/decoder/DecoderTables.h"
#include "player/wav/WavFilePlayer.h"
#include "tests/windows/server_support.h"

using namespace server_test;

namespace {

TEST(RegistryExtension, WholeTextAfterTheLastDotLetterCaseAside) {
    struct Case {
        const char* name;
        const char* ext;
        BOOL expected;
    } cases[] = {
        {"a.wav", "wav", TRUE},
        {"a.WAV", "wav", TRUE},
        {"a.Mp3", "mp3", TRUE},
        {"C:\\dir.x\\song.mp3", "mp3", TRUE},
        {".wav", "wav", TRUE},
        {"a.wave", "wav", FALSE},
        {"a.wa", "wav", FALSE},
        {"a.mp3 ", "mp3", FALSE},
        {"a.mp3.bak", "mp3", FALSE},
        {"a.bak.mp3", "mp3", TRUE},
        {"amp3", "mp3", FALSE},
        {"dir.mp3\\file", "mp3", FALSE},
        {"a.", "wav", FALSE},
        {"", "wav", FALSE},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(CPlayerRegistry::HasExtension(c.name, c.ext), c.expected) << c.name;
    }
    EXPECT_FALSE(CPlayerRegistry::HasExtension(nullptr, "wav"));
}

class RegistryTest : public ::testing::Test {
protected:
    void SetUp() override {
        PlayJournal::Get().Reset();
        m_registry.SetPlayerFactory(&FakePlayer::Make);
        m_made = FakePlayer::s_made.load();
    }
    int Made() const { return FakePlayer::s_made.load() - m_made; }

    CPlayerRegistry m_registry;
    int m_made = 0;
};

TEST_F(RegistryTest, PlayersAreMadeOnFirstNeedAndReused) {
    EXPECT_EQ(m_registry.GetPlayer("song.ogg"), nullptr);
    EXPECT_EQ(m_registry.Play(0, "song.ogg", 0, 0), 0);
    EXPECT_EQ(m_registry.m_pWavPlayer, nullptr);
    EXPECT_EQ(m_registry.m_pMP3Player, nullptr);

    CSoundFilePlayer* mp3 = m_registry.GetPlayer("x.mp3");
    ASSERT_NE(mp3, nullptr);
    EXPECT_EQ(m_registry.m_pMP3Player, mp3);
    EXPECT_EQ(m_registry.m_pWavPlayer, nullptr);
    EXPECT_EQ(m_registry.GetPlayer("other.MP3"), mp3);
    CSoundFilePlayer* wav = m_registry.GetPlayer("y.WAV");
    ASSERT_NE(wav, nullptr);
    EXPECT_NE(wav, mp3);
    EXPECT_EQ(m_registry.PlayerAt(CPlayerRegistry::kWavSlot), wav);
    EXPECT_EQ(Made(), 2);
}

TEST_F(RegistryTest, ClientWideCommandsMakeNoPlayerButAStopOfAFileDoes) {
    m_registry.StopClient(1234);
    m_registry.StopOtherFiles(1234, "a.wav");
    m_registry.SetForegroundProcess(42);
    EXPECT_EQ(Made(), 0);
    m_registry.StopFile(1234, "a.wav");
    EXPECT_NE(m_registry.m_pWavPlayer, nullptr);
    EXPECT_EQ(m_registry.m_pMP3Player, nullptr);
    EXPECT_EQ(Made(), 1);
}

TEST_F(RegistryTest, CommandsReachThePlaysOfBothPlayers) {
    ASSERT_NE(m_registry.Play(7, "a.mp3", 1, 0x7FFFFFF0), 0);
    ASSERT_NE(m_registry.Play(7, "b.wav", 1, 0x7FFFFFF0), 0);
    ASSERT_NE(m_registry.Play(7, "c.wav", 1, 0x7FFFFFF0), 0);
    ASSERT_TRUE(WaitFor([&] {
        return m_registry.m_pWavPlayer->PlayingCount() == 2 &&
               m_registry.m_pMP3Player->PlayingCount() == 1;
    }));
    // The plays went to the player of their type.
    for (auto& p : PlayJournal::Get().Plays()) {
        int slot = p.name == "a.mp3" ? CPlayerRegistry::kMP3Slot : CPlayerRegistry::kWavSlot;
        EXPECT_EQ(p.slot, slot) << p.name;
    }

    // Client 7 is no window, so its process id is 0: a report of no process in front makes
    // its plays audible, a report of any process silent.
    m_registry.SetForegroundProcess(0);
    for (auto& p : PlayJournal::Get().Plays()) EXPECT_EQ(p.out->bSilent.load(), 0) << p.name;
    m_registry.SetForegroundProcess(99);
    for (auto& p : PlayJournal::Get().Plays()) EXPECT_EQ(p.out->bSilent.load(), 1) << p.name;

    // Stopping all but a WAV file stops the client's MP3 plays too.
    m_registry.StopOtherFiles(7, "B.WAV");
    ASSERT_TRUE(WaitFor([&] { return m_registry.m_pMP3Player->PlayingCount() == 0; }));
    EXPECT_EQ(m_registry.m_pWavPlayer->PlayingCount(), 1);
    m_registry.StopClient(7);
    EXPECT_TRUE(WaitFor([&] { return m_registry.m_pWavPlayer->PlayingCount() == 0; }));
}

TEST_F(RegistryTest, ShutdownStopsEverythingWaitsAndDestroys) {
    ASSERT_NE(m_registry.Play(0, "zero.wav", 1, 0), 0);
    ASSERT_NE(m_registry.Play(5, "five.mp3", 1, 0), 0);
    ASSERT_TRUE(WaitFor([] { return PlayJournal::Get().Count() == 2; }));
    int destroyed = FakePlayer::s_destroyed.load();

    EXPECT_EQ(m_registry.Shutdown(5000), 1);
    EXPECT_EQ(FakePlayer::s_destroyed.load(), destroyed);  // destroyed with the registry
    EXPECT_EQ(m_registry.m_pWavPlayer->LivePlayThreads(), 0);
    EXPECT_EQ(m_registry.m_pMP3Player->LivePlayThreads(), 0);
    for (auto& p : PlayJournal::Get().Plays()) EXPECT_TRUE(p.stopped) << p.name;

    // Closed for good: no play starts and no player is made.
    EXPECT_EQ(m_registry.Play(0, "zero.wav", 0, 0), 0);
    EXPECT_EQ(m_registry.Play(0, "new.mp3", 0, 0), 0);
    EXPECT_EQ(Made(), 2);
}

TEST(RegistryShutdown, PlayerOutlivedByItsThreadIsLeftAliveAndLogged) {
    PlayJournal::Get().Reset();
    LogTail log;
    FakePlayer* stuck = nullptr;
    int destroyed = 0;
    {
        CPlayerRegistry registry;
        registry.SetPlayerFactory(&FakePlayer::Make);
        ASSERT_NE(registry.Play(0, "hold:stuck.wav", 1, 0), 0);
        ASSERT_TRUE(WaitFor([] { return PlayJournal::Get().Count() == 1; }));
        stuck = static_cast<FakePlayer*>(registry.m_pWavPlayer);
        destroyed = FakePlayer::s_destroyed.load();
        EXPECT_EQ(registry.Shutdown(200), 0);
        EXPECT_EQ(registry.m_pWavPlayer, nullptr);
    }
    EXPECT_EQ(FakePlayer::s_destroyed.load(), destroyed);
    EXPECT_EQ(log.Count("player/pub/PlayerRegistry", "play threads still running\\(1\\)"), 1)
        << log.Text();

    // The thread goes on with a live player, is refused at joining, and ends.
    stuck->Release();
    ASSERT_TRUE(ThreadsEnded(stuck));
    EXPECT_FALSE(PlayJournal::Get().Plays()[0].joined);
    delete stuck;
}

TEST(RegistryBuiltIn, EachTypeHasItsPlayerAndTheMp3OneBuildsTheDecoderTables) {
    CPlayerRegistry registry;
    CSoundFilePlayer* mp3 = registry.GetPlayer("x.mp3");
    ASSERT_NE(dynamic_cast<CMP3FilePlayer*>(mp3), nullptr);
    EXPECT_FLOAT_EQ(GainTable[216], 32768.0f);  // 2^((216 - 156) / 4)
    EXPECT_EQ(registry.GetPlayer("y.MP3"), mp3);
    EXPECT_NE(dynamic_cast<CWavFilePlayer*>(registry.GetPlayer("x.wav")), nullptr);
    EXPECT_EQ(registry.GetPlayer("x.ogg"), nullptr);
}

}  // namespace
