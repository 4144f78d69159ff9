// The conversion of the synthesis sums to PCM: truncated toward zero (not rounded), clipped to
// 16 bits, little-endian, one channel's positions only. The conformance figures see truncation
// only as an average; here every lane of both builds of the windowing meets the edge values.

#include "player/mp3/decoder/Synthesis.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

class SynthPcm : public ::testing::TestWithParam<SynthPath> {
protected:
    void SetUp() override {
        if (!SetSynthPath(GetParam()))
            GTEST_SKIP() << "this processor cannot run the path";
    }
    void TearDown() override { SetSynthPath(chosen_); }

private:
    const SynthPath chosen_ = CurrentSynthPath();
};

TEST_P(SynthPcm, SumsTruncateTowardZeroAndClip) {
    struct Case {
        double sum;
        int16_t pcm;
    };
    const Case cases[] = {{32767.9, 32767},   {-32768.9, -32768}, {40000.0, 32767},
                          {-0.9, 0},          {0.9, 0},           {-1.5, -1},
                          {1.999, 1},         {-32768.0, -32768}, {32767.0, 32767},
                          {-40000.0, -32768}, {1e12, 32767},      {-3e9, -32768},
                          {-257.5, -257},     {255.75, 255},      {0.0, 0},
                          {-0.0, 0}};
    const int n = sizeof cases / sizeof cases[0];
    // Each case visits every one of the 32 positions (the conversion works on lanes), in both
    // layouts; nothing beyond the slot's own positions may change.
    for (int stride : {1, 2}) {
        for (int shift = 0; shift < 32; ++shift) {
            double sums[32];
            for (int k = 0; k < 32; ++k)
                sums[k] = cases[(k + shift) % n].sum;
            uint8_t pcm[130];
            std::memset(pcm, 0xEE, sizeof pcm);
            SynthSumsToPcm(sums, pcm, stride);
            for (int k = 0; k < 32; ++k) {
                const Case& c = cases[(k + shift) % n];
                const uint8_t* at = pcm + 2 * stride * k;
                ASSERT_EQ(static_cast<int16_t>(at[0] | at[1] << 8), c.pcm) << "sum " << c.sum << " at " << k;
                if (stride == 2) {
                    ASSERT_EQ(at[2], 0xEE) << "stride 2 wrote the other channel";
                    ASSERT_EQ(at[3], 0xEE) << "stride 2 wrote the other channel";
                }
            }
            for (int i = 64 * stride; i < 130; ++i)
                ASSERT_EQ(pcm[i], 0xEE) << "stride " << stride << " wrote byte " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, SynthPcm, ::testing::Values(SynthPath::Sse2, SynthPath::Avx),
                         [](const ::testing::TestParamInfo<SynthPath>& info) {
                             return std::string(info.param == SynthPath::Avx ? "Avx" : "Sse2");
                         });

}  // namespace
