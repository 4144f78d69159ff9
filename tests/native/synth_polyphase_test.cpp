// Polyphase synthesis: the matrixing against the plain DCT-II, the windowing sums against their
// defining order, the whole filter bank against a direct rendering of the textbook synthesis
// (whose negative we produce), the PCM conversion, and what each call may touch. Each test runs
// once per build of the windowing the processor supports, and the builds are compared with each
// other bit for bit.

#include "player/mp3/decoder/Synthesis.h"
#include "player/mp3/decoder/SynthTables.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

const double kPi = 4.0 * std::atan(1.0);

class SynthPolyphaseTest : public ::testing::TestWithParam<SynthPath> {
protected:
    static void SetUpTestSuite() { InitDctCoefficients(); }
    void SetUp() override
    {
        if (!SetSynthPath(GetParam()))
            GTEST_SKIP() << "this processor cannot run the path";
    }
    void TearDown() override { SetSynthPath(chosen_); }

private:
    const SynthPath chosen_ = CurrentSynthPath();
};

std::string PathName(const ::testing::TestParamInfo<SynthPath>& info)
{
    return info.param == SynthPath::Avx ? "Avx" : "Sse2";
}

int16_t Sample(const uint8_t* pcm, int index)
{
    return static_cast<int16_t>(pcm[2 * index] | (pcm[2 * index + 1] << 8));
}

// The textbook filter bank: 64-point matrixing, a 1024-value history and the window D read
// straight from the published coefficients.
class StandardSynthesis {
public:
    StandardSynthesis()
    {
        std::ifstream in(std::string(QUORBEL_SHARED_DATA_DIR) + "/synthesis-window.txt");
        std::string line;
        while (std::getline(in, line)) {
            if (line.empty() || line[0] == '#')
                continue;
            std::istringstream fields(line);
            int i;
            long k;
            fields >> i >> k;
            d_[i] = k / 65536.0;
            ++loaded_;
        }
    }
    bool Loaded() const { return loaded_ == 512; }

    void Slot(const float s[32], double out[32])
    {
        for (int i = 1023; i >= 64; --i)
            v_[i] = v_[i - 64];
        for (int i = 0; i < 64; ++i) {
            double sum = 0;
            for (int k = 0; k < 32; ++k)
                sum += std::cos((16 + i) * (2 * k + 1) * kPi / 64) * s[k];
            v_[i] = sum;
        }
        for (int j = 0; j < 32; ++j) {
            double sum = 0;
            for (int i = 0; i < 8; ++i)
                sum += v_[128 * i + j] * d_[64 * i + j] + v_[128 * i + 96 + j] * d_[64 * i + 32 + j];
            out[j] = sum;
        }
    }

private:
    double d_[512] = {};
    double v_[1024] = {};
    int loaded_ = 0;
};

TEST_P(SynthPolyphaseTest, MatrixingIsUnscaledDct)
{
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> uni(-1.0f, 1.0f);
    for (int trial = 0; trial < 32 + 20; ++trial) {
        // First every unit impulse, so each input reaches each output by its own path.
        float x[32] = {};
        if (trial < 32) {
            x[trial] = 1.0f;
        } else {
            for (float& v : x)
                v = uni(rng);
        }
        const uint32_t offset = (trial % 16) * 32;
        float ring[512];
        std::fill(ring, ring + 512, 777.0f);
        SynthMatrix(x, ring, offset);
        for (int k = 0; k < 32; ++k) {
            double u = 0;
            for (int n = 0; n < 32; ++n)
                u += x[n] * std::cos(kPi * (2 * n + 1) * k / 64);
            EXPECT_NEAR(ring[offset + k], u, 1e-5) << "trial " << trial << " k " << k;
        }
        for (int i = 0; i < 512; ++i) {
            if (i < static_cast<int>(offset) || i >= static_cast<int>(offset) + 32) {
                ASSERT_EQ(ring[i], 777.0f) << "offset " << offset << " wrote " << i;
            }
        }
    }
}

TEST_P(SynthPolyphaseTest, WindowSumsKeepTheirOrderExactly)
{
    // Values over many binades make any change of summation order visible in the doubles.
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> mant(-1.0f, 1.0f);
    std::uniform_int_distribution<int> expo(-20, 14);
    float ring[512];
    for (float& v : ring)
        v = std::ldexp(mant(rng), expo(rng));
    for (uint32_t o = 0; o < 512; o += 32) {
        double sums[32];
        SynthWindowSums(ring, o, sums);
        auto at = [&](uint32_t i) { return static_cast<double>(ring[i & 511]); };
        auto w = [](int i) { return static_cast<double>(SynthWindow[i]); };
        for (int i = 0; i < 16; ++i) {
            double s = 0.0;
            for (int m = 0; m < 8; ++m) {
                s += w(16 * i + 2 * m) * at(o + 16 + i + 64 * m);
                s -= w(16 * i + 2 * m + 1) * at(o + 48 - i + 64 * m);
            }
            EXPECT_EQ(sums[i], s) << "offset " << o << " sample " << i;
        }
        double s16 = 0.0;
        for (int m = 0; m < 8; ++m)
            s16 += w(256 + m) * at(o + 32 + 64 * m);
        EXPECT_EQ(sums[16], s16) << "offset " << o;
        for (int i = 0; i < 15; ++i) {
            double s = 0.0;
            for (int m = 0; m < 8; ++m) {
                s += w(255 - 16 * i - 2 * m) * at(o + 31 - i + 64 * m);
                s += w(254 - 16 * i - 2 * m) * at(o + 33 + i + 64 * m);
            }
            EXPECT_EQ(sums[17 + i], s) << "offset " << o << " sample " << 17 + i;
        }
    }
}

TEST_P(SynthPolyphaseTest, OutputIsTheNegatedTextbookSynthesis)
{
    StandardSynthesis standard;
    ASSERT_TRUE(standard.Loaded());
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> uni(-600.0f, 600.0f);
    float ring[512] = {};
    float sumRing[512] = {};
    uint32_t offset = 0;
    uint8_t pcm[1152];
    double worstSum = 0;
    double loudest = 0;
    for (int granule = 0; granule < 6; ++granule) {
        float slots[18][32];
        for (auto& slot : slots) {
            for (float& v : slot)
                v = uni(rng);
        }
        const uint32_t start = offset;
        SynthesizeSlots(slots, ring, &offset, pcm, 1);
        EXPECT_EQ(offset, (start + 512 - 64) % 512);
        for (int s = 0; s < 18; ++s) {
            double expected[32];
            standard.Slot(slots[s], expected);
            // The same slot through the two halves, to see the sums themselves.
            const uint32_t o = (start + 512 * 2 - 32 * s) % 512;
            SynthMatrix(slots[s], sumRing, o);
            double sums[32];
            SynthWindowSums(sumRing, o, sums);
            for (int j = 0; j < 32; ++j) {
                loudest = std::max(loudest, std::fabs(expected[j]));
                worstSum = std::max(worstSum, std::fabs(sums[j] + expected[j]));
                // Truncation loses less than 1; float matrixing may move a sum by a hair.
                ASSERT_LE(std::fabs(Sample(pcm, 32 * s + j) + expected[j]), 1.0 + 1e-3)
                    << "granule " << granule << " slot " << s << " sample " << j;
            }
        }
        // Four slots at a time or one at a time, the ring must hold the very same values.
        ASSERT_EQ(0, std::memcmp(ring, sumRing, sizeof ring)) << "granule " << granule;
    }
    EXPECT_LT(worstSum, 0.05);
    EXPECT_GT(loudest, 5000.0);
    EXPECT_LT(loudest, 32000.0);
}

TEST_P(SynthPolyphaseTest, SilenceAfterResetAndOffsetWalk)
{
    float ring[512] = {};
    uint32_t offset = 0;
    const float slots[18][32] = {};
    uint8_t pcm[1152];
    std::memset(pcm, 0x5A, sizeof pcm);
    SynthesizeSlots(slots, ring, &offset, pcm, 1);
    EXPECT_EQ(offset, 448u);
    for (int i = 0; i < 1152; ++i)
        ASSERT_EQ(pcm[i], 0) << i;
    for (uint32_t expected : {384u, 320u, 256u, 192u, 128u, 64u, 0u, 448u}) {
        SynthesizeSlots(slots, ring, &offset, pcm, 1);
        EXPECT_EQ(offset, expected);
    }
}

TEST_P(SynthPolyphaseTest, SumsTruncateTowardZeroAndClip)
{
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
                ASSERT_EQ(Sample(pcm, stride * k), c.pcm) << "sum " << c.sum << " at " << k;
                ASSERT_EQ(pcm[2 * stride * k], static_cast<uint8_t>(c.pcm & 0xFF)) << "little-endian";
                if (stride == 2) {
                    ASSERT_EQ(pcm[4 * k + 2], 0xEE) << "stride 2 wrote an odd position";
                    ASSERT_EQ(pcm[4 * k + 3], 0xEE) << "stride 2 wrote an odd position";
                }
            }
            for (int i = 64 * stride; i < 130; ++i)
                ASSERT_EQ(pcm[i], 0xEE) << "stride " << stride << " wrote byte " << i;
        }
    }
}

TEST_P(SynthPolyphaseTest, SecondChannelTouchesOnlyItsOwnPositionsAndRing)
{
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> uni(-300.0f, 300.0f);
    float slots[18][32];
    for (auto& slot : slots) {
        for (float& v : slot)
            v = uni(rng);
    }
    float rings[2][512];
    std::fill(&rings[0][0], &rings[0][0] + 512, 1.25f);
    std::fill(&rings[1][0], &rings[1][0] + 512, 0.0f);
    uint32_t offsets[2] = {96, 0};
    std::vector<uint8_t> block(2304 + 8, 0xC3);
    SynthesizeSlots(slots, rings[1], &offsets[1], block.data() + 2, 2);

    float monoRing[512] = {};
    uint32_t monoOffset = 0;
    uint8_t mono[1152];
    SynthesizeSlots(slots, monoRing, &monoOffset, mono, 1);

    for (int i = 0; i < 576; ++i) {
        ASSERT_EQ(block[4 * i], 0xC3) << "left sample " << i;
        ASSERT_EQ(block[4 * i + 1], 0xC3) << "left sample " << i;
        ASSERT_EQ(Sample(block.data() + 2, 2 * i), Sample(mono, i)) << "right sample " << i;
    }
    for (int i = 2304; i < 2312; ++i)
        ASSERT_EQ(block[i], 0xC3) << "past the granule";
    for (float v : rings[0])
        ASSERT_EQ(v, 1.25f);
    EXPECT_EQ(offsets[0], 96u);
    EXPECT_EQ(offsets[1], 448u);
    EXPECT_EQ(0, std::memcmp(rings[1], monoRing, sizeof monoRing));
}

INSTANTIATE_TEST_SUITE_P(Paths, SynthPolyphaseTest,
                         ::testing::Values(SynthPath::Sse2, SynthPath::Avx), PathName);

// Runs body with path forced, then gives the decoder its own choice back.
template <class F>
void WithPath(SynthPath path, F&& body)
{
    const SynthPath chosen = CurrentSynthPath();
    ASSERT_TRUE(SetSynthPath(path));
    body();
    SetSynthPath(chosen);
}

class SynthPathsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { InitDctCoefficients(); }
    void SetUp() override
    {
        if (!SynthPathSupported(SynthPath::Avx))
            GTEST_SKIP() << "only the SSE2 path runs on this processor";
    }
};

TEST_F(SynthPathsTest, SsePathIsAlwaysThere)
{
    EXPECT_TRUE(SynthPathSupported(SynthPath::Sse2));
}

TEST_F(SynthPathsTest, BothPathsGiveTheSamePcmAndRing)
{
    // Loud enough that many samples clip, in both layouts, over a few thousand slots.
    std::mt19937 rng(17);
    std::uniform_real_distribution<float> uni(-1.0f, 1.0f);
    std::uniform_int_distribution<int> level(0, 3);
    float rings[2][512] = {};
    uint32_t offsets[2] = {0, 0};
    std::vector<uint8_t> pcm[2] = {std::vector<uint8_t>(2304 + 4), std::vector<uint8_t>(2304 + 4)};
    for (int granule = 0; granule < 240; ++granule) {
        const float scale = 50.0f * static_cast<float>(1 << (4 * level(rng)));
        float slots[18][32];
        for (auto& slot : slots) {
            for (float& v : slot)
                v = scale * uni(rng);
        }
        const int32_t stride = granule % 3 == 0 ? 1 : 2;
        const SynthPath paths[2] = {SynthPath::Sse2, SynthPath::Avx};
        for (int p = 0; p < 2; ++p) {
            std::fill(pcm[p].begin(), pcm[p].end(), 0x77);
            WithPath(paths[p], [&] {
                SynthesizeSlots(slots, rings[p], &offsets[p], pcm[p].data() + 2, stride);
            });
        }
        ASSERT_EQ(offsets[0], offsets[1]) << "granule " << granule;
        ASSERT_EQ(0, std::memcmp(rings[0], rings[1], sizeof rings[0])) << "granule " << granule;
        ASSERT_TRUE(pcm[0] == pcm[1]) << "granule " << granule << " stride " << stride;
    }
}

TEST_F(SynthPathsTest, BothPathsGiveTheSameSums)
{
    // Values over many binades, so that any difference of order shows in the doubles.
    std::mt19937 rng(23);
    std::uniform_real_distribution<float> mant(-1.0f, 1.0f);
    std::uniform_int_distribution<int> expo(-20, 14);
    float ring[512];
    for (int trial = 0; trial < 64; ++trial) {
        for (float& v : ring)
            v = std::ldexp(mant(rng), expo(rng));
        for (uint32_t o = 0; o < 512; o += 32) {
            double sums[2][32];
            WithPath(SynthPath::Sse2, [&] { SynthWindowSums(ring, o, sums[0]); });
            WithPath(SynthPath::Avx, [&] { SynthWindowSums(ring, o, sums[1]); });
            ASSERT_EQ(0, std::memcmp(sums[0], sums[1], sizeof sums[0]))
                << "trial " << trial << " offset " << o;
        }
    }
}

TEST_F(SynthPathsTest, BothPathsConvertSumsAlike)
{
    std::mt19937 rng(29);
    std::uniform_real_distribution<double> uni(-1.0, 1.0);
    std::uniform_int_distribution<int> expo(-2, 40);
    for (int trial = 0; trial < 4000; ++trial) {
        double sums[32];
        for (double& v : sums)
            v = std::ldexp(uni(rng), expo(rng));
        const int32_t stride = 1 + trial % 2;
        uint8_t pcm[2][130];
        std::memset(pcm, 0x5C, sizeof pcm);
        WithPath(SynthPath::Sse2, [&] { SynthSumsToPcm(sums, pcm[0], stride); });
        WithPath(SynthPath::Avx, [&] { SynthSumsToPcm(sums, pcm[1], stride); });
        ASSERT_EQ(0, std::memcmp(pcm[0], pcm[1], sizeof pcm[0])) << "trial " << trial;
    }
}

}  // namespace
