// The conversion of the window sums to PCM, through the windowing this build has: truncated
// toward zero (the conformance figures see rounding only as an average), clipped to 16 bits,
// little-endian, at the channel's own positions only. The sums are formed here from the stored
// window as the windowing defines them (exact double products, in its order), so every sample
// is known exactly; ring values from tiny to huge reach fractions of both signs and both clips.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "player/mp3/decoder/SynthTables.h"
#include "player/mp3/decoder/Synthesis.h"

namespace {

// Sample k of the slot at o: per m, samples i = 0..15 take ring[o + 16 + i + 64m] x W[16i + 2m]
// less ring[o + 48 - i + 64m] x W[16i + 2m + 1]; sample 32 - i takes the same two values times
// W[16i + 15 - 2m] and W[16i + 14 - 2m]; sample 16 takes ring[o + 32 + 64m] x W[256 + m].
double WindowSum(const float* ring, uint32_t o, int k) {
    const int i = k <= 16 ? k : 32 - k;
    const float* w = SynthWindow + 16 * i;
    double sum = 0;
    for (uint32_t m = 0; m < 8; ++m) {
        if (k == 16) {
            sum += double(SynthWindow[256 + m]) * ring[(o + 32 + 64 * m) & 511];
            continue;
        }
        const double a = ring[(o + 16 + i + 64 * m) & 511], b = ring[(o + 48 - i + 64 * m) & 511];
        sum += k < 16 ? a * w[2 * m] : a * w[15 - 2 * m];
        sum += k < 16 ? -(b * w[2 * m + 1]) : b * w[14 - 2 * m];
    }
    return sum;
}

TEST(SynthPcm, WindowSumsTruncateTowardZeroAndClip) {
    std::mt19937 random(20261124);
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    float ring[512];
    int clipped = 0, negativeFractions = 0;
    for (float scale : {0.5f, 4.0f, 300.0f, 30000.0f, 3e9f}) {
        for (float& v : ring)
            v = unit(random) * scale;
        for (uint32_t o = 0; o < 512; o += 32) {
            for (int stride : {1, 2}) {
                uint8_t pcm[160];
                std::memset(pcm, 0xEE, sizeof pcm);
                SynthWindowToPcm(ring, o, pcm, stride);
                for (int k = 0; k < 32; ++k) {
                    const double sum = WindowSum(ring, o, k);
                    const int expected = int(std::max(-32768.0, std::min(32767.0, std::trunc(sum))));
                    clipped += std::fabs(sum) > 32768;
                    negativeFractions += sum < 0 && sum != std::floor(sum) && sum > -32768;
                    const uint8_t* at = pcm + 2 * stride * k;
                    ASSERT_EQ(int16_t(at[0] | at[1] << 8), expected) << "sum " << sum << " at " << k;
                    if (stride == 2)
                        ASSERT_TRUE(at[2] == 0xEE && at[3] == 0xEE) << "the other channel's sample " << k;
                }
                for (int b = 64 * stride; b < 160; ++b)
                    ASSERT_EQ(pcm[b], 0xEE) << "stride " << stride << " wrote byte " << b;
            }
        }
    }
    EXPECT_GT(clipped, 100);
    EXPECT_GT(negativeFractions, 100);
}

}  // namespace
