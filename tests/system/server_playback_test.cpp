// What the server plays, as recorded from the session's sound server: WAV files once and in a
// loop, the stops, several clients, and the foreground.

#include <algorithm>

#include "tests/system/server_system.h"

namespace {

using namespace server_system;

// Runs of sound in [from, to): sample ranges separated by at least gapFrames of zeros.
std::vector<std::pair<size_t, size_t>> SoundRuns(const std::vector<int16_t>& rec, size_t gapFrames) {
    std::vector<std::pair<size_t, size_t>> runs;
    size_t zeros = 0;
    bool inRun = false;
    size_t start = 0, lastLoud = 0;
    for (size_t i = 0; i < rec.size(); ++i) {
        if (rec[i] != 0) {
            if (!inRun) {
                inRun = true;
                start = i;
            }
            lastLoud = i;
            zeros = 0;
        } else if (inRun && ++zeros >= 2 * gapFrames) {
            runs.push_back({start, lastLoud + 1});
            inRun = false;
        }
    }
    if (inRun) runs.push_back({start, lastLoud + 1});
    return runs;
}

// Where the material's first sample would sit in the recording, from a probe of the recording
// at `at`; -1 when the probe is not part of the material.
long long MaterialStartFrom(const std::vector<int16_t>& rec, size_t at, const std::vector<int16_t>& material) {
    const size_t probe = 2 * 512;
    if (at + probe > rec.size()) return -1;
    long long p = FindSequence(material, rec.data() + at, probe, 0, 2);
    return p < 0 ? -1 : static_cast<long long>(at) - p;
}

class ServerPlayback : public ServerSystem {
protected:
    void SetUp() override {
        ServerSystem::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_TRUE(m_recorder.Start(m_dir + "/recording.raw")) << m_recorder.Problem();
        ASSERT_TRUE(StartServer());
        ASSERT_NE(MakeClientWindow(), "");
    }
    size_t Now() { return m_recorder.FramesSoFar(); }
    std::vector<int16_t> StopRecording(int afterMs = 400) {
        SleepMs(afterMs);
        m_recorder.Stop();
        return m_recorder.Samples();
    }

    CRecorder m_recorder;
};

TEST_F(ServerPlayback, WavPlayedOnceArrivesSampleForSample) {
    std::vector<int16_t> noise = SeededNoise(1101, 2 * kRate, 2);
    Wav("noise.wav", noise);
    ASSERT_TRUE(Send(kIgnoreForeground, {"noise.wav"}));
    SleepMs(3000);
    std::vector<int16_t> rec = StopRecording();

    long long offset = 0;
    ASSERT_TRUE(FindMaterial(rec, noise, &offset)) << "the file was not heard";
    BlockComparison blocks = CompareBlocks(rec, noise, offset);
    EXPECT_EQ(blocks.blocks, 344u);
    EXPECT_GE(blocks.Fraction(), 0.95) << blocks.Describe();
    // Once: nothing of it after its end.
    long long again = 0;
    EXPECT_FALSE(FindMaterial(rec, noise, &again, static_cast<size_t>(offset) + noise.size()));
    EXPECT_EQ(ServerLogText(m_dir), "");
}

TEST_F(ServerPlayback, EveryDataChunkPlaysInFileOrder) {
    std::vector<int16_t> first = SeededNoise(21, kRate, 2), second = SeededNoise(22, kRate, 2);
    // An odd-sized chunk between them is stepped over without a pad byte.
    RawFile("two.wav", Riff(FmtChunk(1, 2, kRate, 16) + DataChunk(ToBytes(first)) + "junk" + U32(4) +
                            "abcd" + DataChunk(ToBytes(second))));
    ASSERT_TRUE(Send(kIgnoreForeground, {"two.wav"}));
    SleepMs(3000);
    std::vector<int16_t> rec = StopRecording();

    long long a = 0, b = 0;
    ASSERT_TRUE(FindMaterial(rec, first, &a));
    ASSERT_TRUE(FindMaterial(rec, second, &b));
    EXPECT_GE(CompareBlocks(rec, first, a).Fraction(), 0.95);
    EXPECT_GE(CompareBlocks(rec, second, b).Fraction(), 0.95);
    // The second follows the first directly (an underrun could only add a little).
    EXPECT_GE(b - a, static_cast<long long>(first.size()));
    EXPECT_LE(b - a, static_cast<long long>(first.size()) + 2 * kRate / 20);
}

TEST_F(ServerPlayback, LoopRepeatsWithoutAGapUntilStoppedByItsOwnName) {
    std::vector<int16_t> loop = SeededNoise(31, kRate / 2, 2);
    Wav("loop.wav", loop);
    ASSERT_TRUE(Send(kLoop | kIgnoreForeground, {"loop.wav"}));
    SleepMs(2500);
    // Other forms of the same path are other names.
    ASSERT_TRUE(Send(kStop, {".\\loop.wav"}));
    ASSERT_TRUE(Send(kStop, {"sub\\..\\loop.wav"}));
    const size_t afterWrongStops = Now();
    SleepMs(1000);
    // Another letter case is the same name.
    ASSERT_TRUE(Send(kStop, {"LOOP.WAV"}));
    const size_t stopped = Now();
    std::vector<int16_t> rec = StopRecording(1500);

    long long first = 0;
    ASSERT_TRUE(FindMaterial(rec, loop, &first));
    int seamless = 0;
    long long at = first;
    for (int pass = 0; pass < 3; ++pass) {
        long long next = 0;
        ASSERT_TRUE(FindMaterial(rec, loop, &next, static_cast<size_t>(at) + 2)) << "pass " << pass + 2;
        seamless += next - at == static_cast<long long>(loop.size()) ? 1 : 0;
        at = next;
    }
    EXPECT_GE(seamless, 2) << "the passes do not follow one another directly";

    long long later = 0;
    EXPECT_TRUE(FindMaterial(rec, loop, &later, 2 * afterWrongStops)) << "a stop by another path form stopped it";
    // The stop returns once the queued sound has played: nothing after it but the way out.
    size_t loudFirst = 0, loudLast = 0;
    NonSilentRange(rec, 2 * (stopped + kRate / 2), rec.size(), 0, &loudFirst, &loudLast);
    EXPECT_EQ(loudFirst, loudLast) << "sound " << (loudFirst / 2.0 - stopped) / kRate << " s after the stop";
}

TEST_F(ServerPlayback, StopOthersKeepsOnlyTheNamedFileAndTwoNamesKeepNone) {
    Wav("a.wav", Tone(440, 1, 8000));
    Wav("b.wav", Tone(1000, 1, 8000));
    Wav("c.wav", Tone(2500, 1, 8000));
    ASSERT_TRUE(Send(kLoop | kIgnoreForeground, {"a.wav", "b.wav", "c.wav"}));
    ASSERT_TRUE(WaitForTone(m_recorder, 2500, 0));
    SleepMs(500);
    const size_t before = Now();
    ASSERT_TRUE(Send(kStop | kStopOthers, {"A.wav"}));
    const size_t one = Now();
    SleepMs(1200);
    ASSERT_TRUE(Send(kStop | kStopOthers, {"a.wav", "x.wav"}));
    const size_t two = Now();
    std::vector<int16_t> rec = StopRecording(1200);

    const size_t settle = kRate / 2;
    for (double f : {440.0, 1000.0, 2500.0}) {
        EXPECT_GT(ToneLevel(rec, before - kRate / 2, before, f), 4000) << f << " Hz before the stops";
    }
    EXPECT_GT(ToneLevel(rec, one + settle, two, 440), 4000);
    EXPECT_LT(ToneLevel(rec, one + settle, two, 1000), 300);
    EXPECT_LT(ToneLevel(rec, one + settle, two, 2500), 300);
    size_t loudFirst = 0, loudLast = 0;
    NonSilentRange(rec, 2 * (two + settle), rec.size(), 0, &loudFirst, &loudLast);
    EXPECT_EQ(loudFirst, loudLast) << "still sounding after stopping all but a.wav, then all but x.wav";
}

TEST_F(ServerPlayback, ClientsAreIndependentAndStopClientNeedsNoNames) {
    ClientDriver& other = ExtraClient();
    ASSERT_NE(other.MakeWindow(), "");
    Wav("a.wav", Tone(440, 1, 8000));
    Wav("b.wav", Tone(1000, 1, 8000));
    Wav("c.wav", Tone(2500, 1, 8000));
    ASSERT_TRUE(Send(kLoop | kIgnoreForeground, {"a.wav", "b.wav"}));
    ASSERT_TRUE(other.Send(kLoop | kIgnoreForeground, {"b.wav", "c.wav"}));
    ASSERT_TRUE(WaitForTone(m_recorder, 2500, 0));
    SleepMs(500);
    const size_t both = Now();
    ASSERT_TRUE(Send(kStopClient, {}));  // count 0
    const size_t firstGone = Now();
    SleepMs(1200);
    ASSERT_TRUE(other.Send(kStop, {"B.WAV"}));
    const size_t bGone = Now();
    SleepMs(1200);
    const size_t end = Now();
    std::vector<int16_t> rec = StopRecording();

    // A tone of amplitude 8000 that sounds measures near 8000, one that stopped below 300; the
    // margin allows for a dropout of the sound server on a busy machine.
    const size_t settle = kRate / 2;
    // Before the stops both clients' b.wav sound together; their levels add with whatever
    // phase the two plays happen to have, so only the other tones are measured there.
    EXPECT_GT(ToneLevel(rec, both - kRate / 2, both, 440), 4000);
    EXPECT_GT(ToneLevel(rec, both - kRate / 2, both, 2500), 4000);
    // The first client's plays ended; the other's b.wav and c.wav went on.
    EXPECT_LT(ToneLevel(rec, firstGone + settle, bGone, 440), 300);
    double b = ToneLevel(rec, firstGone + settle, bGone, 1000);
    EXPECT_GT(b, 4000);
    EXPECT_LT(b, 10000);
    EXPECT_GT(ToneLevel(rec, firstGone + settle, bGone, 2500), 4000);
    // A stop of b.wav by the other client ends its own b.wav only.
    EXPECT_LT(ToneLevel(rec, bGone + settle, end, 1000), 300);
    EXPECT_GT(ToneLevel(rec, bGone + settle, end, 2500), 4000);
    other.Quit();
}

TEST_F(ServerPlayback, PlaysFollowTheForegroundAndKeepTheirTiming) {
    std::vector<int16_t> noise = SeededNoise(41, 10 * kRate, 2);
    Wav("fg.wav", noise);
    CProcess before, front;
    ASSERT_TRUE(BringAnotherProcessToFront(before, "before"));
    SleepMs(1200);  // the server's once-a-second check sees it
    ASSERT_TRUE(Send(0, {"fg.wav"}));
    SleepMs(1500);
    ASSERT_EQ(Command({"front"}), "1");
    const size_t cameFront = Now();
    SleepMs(2500);
    ASSERT_TRUE(BringAnotherProcessToFront(front, "after"));
    const size_t wentBack = Now();
    SleepMs(2500);
    front.Kill();
    before.Kill();
    ASSERT_EQ(Command({"front"}), "1");
    const size_t cameAgain = Now();
    SleepMs(6000);
    std::vector<int16_t> rec = StopRecording();

    auto runs = SoundRuns(rec, kRate / 5);
    ASSERT_EQ(runs.size(), 2u) << "expected one audible stretch per time in front";
    const size_t reaction = 2 * (kRate * 3 / 2);  // the one-second tick, a buffer and the way out
    EXPECT_GE(runs[0].first, 2 * cameFront);
    EXPECT_LE(runs[0].first, 2 * cameFront + reaction);
    EXPECT_GE(runs[0].second, 2 * wentBack);
    EXPECT_LE(runs[0].second, 2 * wentBack + reaction);
    EXPECT_GE(runs[1].first, 2 * cameAgain);
    EXPECT_LE(runs[1].first, 2 * cameAgain + reaction);

    // Both stretches are the file at one and the same timeline: the silent parts kept their
    // length, and the play ends where the file ends.
    long long start1 = MaterialStartFrom(rec, runs[0].first + 2 * 1024, noise);
    long long start2 = MaterialStartFrom(rec, runs[1].first + 2 * 1024, noise);
    ASSERT_GE(start1, 0);
    ASSERT_GE(start2, 0);
    EXPECT_GE(start2 - start1, 0);
    EXPECT_LE(start2 - start1, 2 * kRate / 20) << "more than an underrun's worth apart";
    long long end = static_cast<long long>(runs[1].second);
    EXPECT_NEAR(static_cast<double>(end - start2), static_cast<double>(noise.size()), 2 * 256.0);
    std::vector<int16_t> tail(noise.begin() + (static_cast<long long>(runs[1].first) - start2) + 2 * 1024, noise.end());
    EXPECT_GE(CompareBlocks(rec, tail, static_cast<long long>(runs[1].first) + 2 * 1024).Fraction(), 0.95);
}

TEST_F(ServerPlayback, IgnoringTheForegroundIsNeverSilenced) {
    std::vector<int16_t> noise = SeededNoise(51, 4 * kRate, 2);
    Wav("always.wav", noise);
    CProcess front;
    ASSERT_TRUE(BringAnotherProcessToFront(front, "other"));
    SleepMs(1200);  // the server's once-a-second check sees it
    ASSERT_TRUE(Send(kIgnoreForeground, {"always.wav"}));
    SleepMs(1500);
    ASSERT_EQ(Command({"front"}), "1");
    SleepMs(3500);
    front.Kill();
    std::vector<int16_t> rec = StopRecording();

    long long offset = 0;
    ASSERT_TRUE(FindMaterial(rec, noise, &offset));
    BlockComparison blocks = CompareBlocks(rec, noise, offset);
    EXPECT_GE(blocks.Fraction(), 0.95) << blocks.Describe();
}

}  // namespace
