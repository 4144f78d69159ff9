// CWavOut end to end: PCM written by a Windows program under Wine, recorded from the session's
// sound server.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "tests/system/harness/Harness.h"

namespace {

using namespace harness;

class WavOutSystem : public ::testing::Test {
protected:
    void SetUp() override {
        std::string problem = SessionProblem();
        ASSERT_TRUE(problem.empty()) << problem;
        player = FindWindowsExe("wavout_play");
        ASSERT_FALSE(player.empty()) << "wavout_play.exe not found under " << WinBuildDir();
        dir = MakeWorkDir(::testing::UnitTest::GetInstance()->current_test_info()->name());
        ASSERT_FALSE(dir.empty());
    }

    // Plays the raw file through wavout_play while recording; returns the recording from the
    // moment the recording was connected.
    std::vector<int16_t> PlayAndRecord(const std::string& raw, const std::vector<std::string>& format) {
        CRecorder recorder;
        EXPECT_TRUE(recorder.Start(dir + "/recording.raw")) << recorder.Problem();
        CProcess process;
        std::vector<std::string> args = {raw};
        args.insert(args.end(), format.begin(), format.end());
        EXPECT_TRUE(process.StartWindows(player, args, dir, dir + "/output.txt"));
        bool ended = process.Wait(60000);
        EXPECT_TRUE(ended) << "wavout_play did not end";
        if (!ended) process.Kill();
        EXPECT_EQ(process.ExitCode(), 0);
        SleepMs(300);  // the last buffers pass the sound server
        recorder.Stop();
        return recorder.Samples();
    }

    std::string player;
    std::string dir;
};

TEST_F(WavOutSystem, StereoAt44100ArrivesBitForBit) {
    std::vector<int16_t> noise = SeededNoise(20240601, 2 * 44100, 2);
    ASSERT_TRUE(WriteRawS16(dir + "/noise.raw", noise));
    std::vector<int16_t> recording = PlayAndRecord(dir + "/noise.raw", {"2", "44100", "16"});

    long long offset = 0;
    ASSERT_TRUE(FindMaterial(recording, noise, &offset)) << "the noise is not in the recording";
    BlockComparison blocks = CompareBlocks(recording, noise, offset);
    EXPECT_EQ(blocks.blocks, 344u);
    EXPECT_GE(blocks.Fraction(), 0.95) << blocks.Describe();
    // Nothing went wrong on the way: the device logged nothing.
    EXPECT_EQ(ServerLogText(dir), "");
}

TEST_F(WavOutSystem, SilentBytesKeepTheStreamTiming) {
    // Half a second audible, half a second written silent, one second audible: the last part
    // must arrive exactly one second after the first began, with only zeros between them.
    std::vector<int16_t> noise = SeededNoise(77, 2 * 44100, 2);
    ASSERT_TRUE(WriteRawS16(dir + "/noise.raw", noise));
    const size_t quarter = noise.size() / 4;
    std::vector<int16_t> recording = PlayAndRecord(
        dir + "/noise.raw", {"2", "44100", "16", std::to_string(quarter * sizeof(int16_t)),
                             std::to_string(2 * quarter * sizeof(int16_t))});

    std::vector<int16_t> first(noise.begin(), noise.begin() + static_cast<long>(quarter));
    std::vector<int16_t> muted(noise.begin() + static_cast<long>(quarter),
                               noise.begin() + static_cast<long>(2 * quarter));
    std::vector<int16_t> last(noise.begin() + static_cast<long>(2 * quarter), noise.end());
    long long firstAt = 0, mutedAt = 0, lastAt = 0;
    ASSERT_TRUE(FindMaterial(recording, first, &firstAt));
    ASSERT_TRUE(FindMaterial(recording, last, &lastAt));
    EXPECT_FALSE(FindMaterial(recording, muted, &mutedAt)) << "data written silent was heard";
    EXPECT_GE(CompareBlocks(recording, first, firstAt).Fraction(), 0.9);
    EXPECT_GE(CompareBlocks(recording, last, lastAt).Fraction(), 0.95);

    // The muted part kept its length; an underrun could only add to the distance.
    long long distance = lastAt - firstAt;
    EXPECT_GE(distance, static_cast<long long>(2 * quarter));
    EXPECT_LE(distance, static_cast<long long>(2 * quarter) + 2 * 44100 / 20);
    // Between the end of the first part and the start of the last, nothing but silence.
    size_t loudFirst = 0, loudLast = 0;
    NonSilentRange(recording, static_cast<size_t>(firstAt) + quarter + 2 * 256,
                   static_cast<size_t>(lastAt), 0, &loudFirst, &loudLast);
    EXPECT_EQ(loudFirst, loudLast) << "sound at sample " << loudFirst;
}

TEST_F(WavOutSystem, MonoAt22050IsResampledWithItsShapeKept) {
    // Smooth noise: well inside the band of any resampler, and never repeating.
    const size_t frames = 22050 * 2;
    std::vector<int16_t> raw = SeededNoise(4242, frames + 16, 1, 30000);
    std::vector<float> smooth(frames);
    for (size_t i = 0; i < frames; ++i) {
        float sum = 0;
        for (size_t k = 0; k < 16; ++k) sum += raw[i + k];
        smooth[i] = sum / 16;
    }
    std::vector<int16_t> material(frames);
    for (size_t i = 0; i < frames; ++i) material[i] = static_cast<int16_t>(std::lround(smooth[i]));
    ASSERT_TRUE(WriteRawS16(dir + "/mono.raw", material));

    std::vector<int16_t> recording = PlayAndRecord(dir + "/mono.raw", {"1", "22050", "16"});
    std::vector<float> heard = MonoMix(recording, 2);

    // The reference at the recording's rate: every sample followed by the midpoint to the next.
    std::vector<float> reference(2 * frames);
    for (size_t i = 0; i < frames; ++i) {
        float next = i + 1 < frames ? material[i + 1] : material[i];
        reference[2 * i] = material[i];
        reference[2 * i + 1] = (material[i] + next) / 2;
    }
    CorrelationMatch match = FindByCorrelation(heard, reference);
    EXPECT_GT(match.value, 0.9) << "lag " << match.lag;
    EXPECT_GE(match.lag, -4410) << "found before the recording started";

    // The harness itself: an unrelated stretch of noise does not correlate.
    std::vector<float> other = MonoMix(SeededNoise(5, 2 * frames, 1, 3000), 1);
    EXPECT_LT(Correlation(heard.data(), other.data(), heard.size() < other.size() ? heard.size() : other.size()), 0.2);
}

}  // namespace
