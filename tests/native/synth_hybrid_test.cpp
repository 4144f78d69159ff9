// Hybrid filter bank: the fast transforms and the folded-sign block windows against the inverse
// MDCT, windowing and overlap-add computed straight from their definitions in double precision;
// the phases of a granule (long, short, mixed, overlap only, clearing) and their line counts;
// the frequency inversion.

#include "player/mp3/decoder/HybridFilter.h"
#include "player/mp3/decoder/SynthTables.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

namespace {

const double kPi = 4.0 * std::atan(1.0);
const float kUntouched = 12345.0f;
// Inputs are at most 1 in magnitude; a 36-point sum of float products stays far inside this.
const double kTolerance = 2e-5;

class SynthHybridTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        InitImdctTables();
        InitBlockWindows();
    }

    void SetUp() override
    {
        std::mt19937 rng(42);
        std::uniform_real_distribution<float> uni(-1.0f, 1.0f);
        for (int i = 0; i < 576; ++i) {
            x[i] = uni(rng);
            spectrum[i] = x[i];
            prev[i] = uni(rng);
        }
        for (auto& slot : out) {
            for (float& v : slot)
                v = kUntouched;
        }
    }

    float x[576];
    float spectrum[576];  // the input, kept
    float prev[576];
    float out[18][32];
};

// The textbook window of a long block type (0 normal, 1 start, 3 stop).
double LongWindow(int type, int i)
{
    const double longSin = std::sin(kPi / 36 * (i + 0.5));
    if (type == 1)
        return i < 18 ? longSin : i < 24 ? 1.0 : i < 30 ? std::sin(kPi / 12 * (i - 18 + 0.5)) : 0.0;
    if (type == 3)
        return i < 6 ? 0.0 : i < 12 ? std::sin(kPi / 12 * (i - 6 + 0.5)) : i < 18 ? 1.0 : longSin;
    return longSin;
}

// The windowed 36-value block of one subband from its 18 lines, straight from the definitions.
void ReferenceBlock(const float* lines, bool isShort, int type, double block[36])
{
    for (int i = 0; i < 36; ++i)
        block[i] = 0;
    if (!isShort) {
        for (int i = 0; i < 36; ++i) {
            double z = 0;
            for (int k = 0; k < 18; ++k)
                z += lines[k] * std::cos(kPi / 72 * (2 * i + 19) * (2 * k + 1));
            block[i] = z * LongWindow(type, i);
        }
        return;
    }
    for (int w = 0; w < 3; ++w) {
        for (int i = 0; i < 12; ++i) {
            double y = 0;
            for (int k = 0; k < 6; ++k)
                y += lines[3 * k + w] * std::cos(kPi / 24 * (2 * i + 7) * (2 * k + 1));
            block[6 + 6 * w + i] += y * std::sin(kPi / 12 * (i + 0.5));
        }
    }
}

// Checks subband sb of out and of the overlap left in x against the reference.
void ExpectSubband(const float* xNow, const float* spectrum,
                   const float* prev, const float out[18][32], int sb, bool isShort, int type)
{
    double block[36];
    ReferenceBlock(spectrum + 18 * sb, isShort, type, block);
    for (int i = 0; i < 18; ++i) {
        ASSERT_NEAR(out[i][sb], prev[18 * sb + i] + block[i], kTolerance)
            << "subband " << sb << " slot " << i;
        ASSERT_NEAR(xNow[18 * sb + i], block[18 + i], kTolerance)
            << "subband " << sb << " overlap " << i;
    }
}

TEST_F(SynthHybridTest, TransformsLeaveTheLayoutTheWindowingReads)
{
    // Long: f[9 + j] = z[j], f[j] = -z[27 + j]. Short, per window w: f[6w + 3 + j] = y[j],
    // f[6w + j] = -y[8 - j]. The signs are the ones BlockWindows folds back.
    for (int sb = 0; sb < 8; ++sb) {
        float f[18];
        std::memcpy(f, spectrum + 18 * sb, sizeof f);
        InverseMdct36(f);
        for (int i = 0; i < 36; ++i) {
            double z = 0;
            for (int k = 0; k < 18; ++k)
                z += spectrum[18 * sb + k] * std::cos(kPi / 72 * (2 * i + 19) * (2 * k + 1));
            if (i < 9) {
                EXPECT_NEAR(f[9 + i], z, kTolerance) << "z " << i;
            } else if (i >= 27) {
                EXPECT_NEAR(f[i - 27], -z, kTolerance) << "z " << i;
            }
        }
        std::memcpy(f, spectrum + 18 * sb, sizeof f);
        InverseMdct12x3(f);
        for (int w = 0; w < 3; ++w) {
            for (int i = 0; i < 9; ++i) {
                double y = 0;
                for (int k = 0; k < 6; ++k)
                    y += spectrum[18 * sb + 3 * k + w] * std::cos(kPi / 24 * (2 * i + 7) * (2 * k + 1));
                if (i < 3) {
                    EXPECT_NEAR(f[6 * w + 3 + i], y, kTolerance) << "window " << w << " y " << i;
                } else if (i >= 6) {
                    EXPECT_NEAR(f[6 * w + 8 - i], -y, kTolerance) << "window " << w << " y " << i;
                }
            }
        }
    }
}

TEST_F(SynthHybridTest, LongBlocksOfEachType)
{
    for (int type : {0, 1, 3}) {
        SetUp();
        EXPECT_EQ(HybridTransform(x, prev, out, type, 558, 558, 558, 558), 558);
        for (int sb = 0; sb < 31; ++sb)
            ExpectSubband(x, spectrum, prev, out, sb, false, type);
        for (int s = 0; s < 18; ++s)
            EXPECT_EQ(out[s][31], kUntouched) << "type " << type << " slot " << s;
        for (int i = 558; i < 576; ++i)
            EXPECT_EQ(x[i], spectrum[i]) << "type " << type << " line " << i;
    }
}

TEST_F(SynthHybridTest, ShortAndMixedBlocks)
{
    // 0: all short; 36: mixed (two long subbands); 72: mixed at 8 kHz MPEG-2.5 (four).
    for (int longLines : {0, 36, 72}) {
        SetUp();
        EXPECT_EQ(HybridTransform(x, prev, out, 2, longLines, 558, 558, 558), 558);
        for (int sb = 0; sb < 31; ++sb)
            ExpectSubband(x, spectrum, prev, out, sb, sb >= longLines / 18, 0);
    }
}

TEST_F(SynthHybridTest, OverlapOnlyAndClearing)
{
    // This granule reaches 6 subbands, the previous one 23, the limit 30.
    EXPECT_EQ(HybridTransform(x, prev, out, 0, 100, 100, 400, 530), 414);
    for (int sb = 0; sb < 6; ++sb)
        ExpectSubband(x, spectrum, prev, out, sb, false, 0);
    for (int sb = 6; sb < 32; ++sb) {
        for (int s = 0; s < 18; ++s) {
            const float expected = sb < 23 ? prev[18 * sb + s] : sb < 30 ? 0.0f : kUntouched;
            ASSERT_EQ(out[s][sb], expected) << "subband " << sb << " slot " << s;
        }
    }
    for (int i = 108; i < 576; ++i)
        ASSERT_EQ(x[i], spectrum[i]) << "line " << i;

    // The count is the highest phase reached, in whole subbands.
    EXPECT_EQ(HybridTransform(x, prev, out, 2, 36, 20, 0, 558), 36);
    EXPECT_EQ(HybridTransform(x, prev, out, 0, 19, 19, 0, 558), 36);
    EXPECT_EQ(HybridTransform(x, prev, out, 0, 36, 36, 37, 558), 54);
}

TEST_F(SynthHybridTest, SilenceStaysSilent)
{
    std::memset(x, 0, sizeof x);
    std::memset(prev, 0, sizeof prev);
    EXPECT_EQ(HybridTransform(x, prev, out, 0, 558, 558, 0, 558), 558);
    for (int sb = 0; sb < 31; ++sb) {
        for (int s = 0; s < 18; ++s)
            ASSERT_EQ(out[s][sb], 0.0f) << sb << "," << s;
    }
    for (int i = 0; i < 576; ++i)
        ASSERT_EQ(x[i], 0.0f) << i;

    // Nothing to transform and no tail: only clearing up to the limit.
    SetUp();
    EXPECT_EQ(HybridTransform(x, prev, out, 0, 0, 0, 0, 558), 0);
    for (int sb = 0; sb < 32; ++sb) {
        for (int s = 0; s < 18; ++s)
            ASSERT_EQ(out[s][sb], sb < 31 ? 0.0f : kUntouched) << sb << "," << s;
    }
    InvertOddSubbands(out, 0);
    EXPECT_EQ(out[1][1], 0.0f);
    EXPECT_EQ(out[1][31], kUntouched);
}

TEST_F(SynthHybridTest, InversionNegatesOddSlotsOfOddSubbands)
{
    for (int lines : {0, 19, 100, 558, 576}) {
        float values[18][32];
        for (int s = 0; s < 18; ++s) {
            for (int sb = 0; sb < 32; ++sb)
                values[s][sb] = out[s][sb] = static_cast<float>(1 + 32 * s + sb);
        }
        InvertOddSubbands(out, lines);
        const int n = (lines + 17) / 18;
        for (int s = 0; s < 18; ++s) {
            for (int sb = 0; sb < 32; ++sb) {
                const bool negated = (s & 1) && (sb & 1) && sb < n;
                ASSERT_EQ(out[s][sb], negated ? -values[s][sb] : values[s][sb])
                    << "lines " << lines << " slot " << s << " subband " << sb;
            }
        }
    }
}

}  // namespace
