// The list of running plays under stress: the real WAV player on the stand-in device, driven at
// full speed from one main thread while its play threads open, list, write, end and unlist. Run
// under ThreadSanitizer it reports any data race between the two sides, under AddressSanitizer
// any use of a record or an output after its play freed it; the ctest time limit catches a
// deadlock. Which plays a stop selects is the system tests' to check.

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <thread>

#include "Standins.h"
#include "player/wav/WavFilePlayer.h"
#include "tests/support/TestSupport.h"

using namespace test_support;

namespace {

class PlaylistRace : public ::testing::Test {
protected:
    void SetUp() override {
        fake_wave::Script script;
        script.playMicros = 200;
        fake_wave::Reset(script);
        // A quarter of a second of 44.1 kHz stereo: about eleven buffers.
        const Bytes wav = Riff(FmtChunk() + Chunk("data", Bytes(44100, '\x11')));
        for (const char* name : {"a.wav", "b.wav", "c.wav"})
            ASSERT_TRUE(WriteFile(folder.Path(name), wav));
    }
    void TearDown() override { EXPECT_EQ(fake_wave::OpenDevices(), 0); }

    // A name of the folder's files, or a missing one; stops may give it in another letter case
    // (this file system has case).
    std::string AnyName(bool anyCase = false) {
        std::string name = "abcd"[random() % 4] + std::string(".wav");
        if (anyCase && random() % 2) name[0] = static_cast<char>(name[0] - 'a' + 'A');
        return folder.Path(name);
    }
    int32_t AnyClient() { return static_cast<int32_t>(1 + random() % 3); }

    // Every play thread ends, and the list is empty, once nothing loops any more.
    void ExpectAllEnded(CSoundFilePlayer& player) {
        EXPECT_EQ(player.WaitForPlayThreads(20000), 1)
            << player.LivePlayThreads() << " threads left";
        EXPECT_EQ(player.PlayingCount(), 0);
    }

    TempFolder folder;
    LogCapture log;
    std::mt19937 random{20261123};
};

// Plays of every kind against stops of plays that are opening, sounding and ending, stops of
// other files and of whole clients, and foreground reports.
TEST_F(PlaylistRace, MixedTrafficFromTheMainThreadAgainstPlayThreads) {
    CWavFilePlayer player;
    for (int i = 0; i < 600; ++i) {
        const int what = random() % 6;
        if (what < 2)
            player.Play(AnyClient(), AnyName().c_str(), random() % 2, random() % 2 ? 7 : 0);
        else if (what == 2)
            player.StopFile(AnyClient(), AnyName(true).c_str());
        else if (what == 3)
            player.StopOtherFiles(AnyClient(), AnyName(true).c_str());
        else if (what == 4)
            player.StopClient(AnyClient());
        else
            player.SetForegroundProcess(random() % 2 ? 7 : 0);
    }
    // A stop does not reach a play still opening, which then loops until a later one: stop
    // until every thread has ended.
    for (int i = 0; i < 100 && player.LivePlayThreads() > 0; ++i) {
        for (int32_t client = 1; client <= 3; ++client) player.StopClient(client);
        player.WaitForPlayThreads(200);
    }
    ExpectAllEnded(player);
    // Only the missing file fails, and plays beyond the device limit.
    for (const std::string& line : log.Messages())
        EXPECT_TRUE(line.find("d.wav") != std::string::npos ||
                    line.find("too many devices open(63)") != std::string::npos ||
                    line.find("waveout init failed") != std::string::npos)
            << line;
}

// The close while plays are opening, writing and ending: the plays that would list after it are
// refused, every thread ends, and a play after it is refused.
TEST_F(PlaylistRace, CloseWhilePlaysOpenWriteAndEnd) {
    for (int round = 0; round < 20; ++round) {
        CWavFilePlayer player;
        for (int i = 0; i < 12; ++i) player.Play(AnyClient(), AnyName().c_str(), i % 2, 0);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
        player.StopAllForClose();
        ExpectAllEnded(player);
        EXPECT_EQ(player.Play(1, folder.Path("a.wav").c_str(), 0, 0), 0);
    }
}

}  // namespace
