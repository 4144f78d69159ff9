// Requantization: the gain, scale-factor, pre-emphasis and subblock-gain arithmetic at known
// figures, the table and direct paths of the 4/3 power, the short-block reorder and the band
// records that the stereo stage relies on.

#include <gtest/gtest.h>

#include <cmath>

#include "dec_test_support.h"

namespace {

using dectest::HeaderFields;
using dectest::StartedDecoder;

class DecRequantize : public ::testing::Test {
protected:
    void SetUp() override {
        d = StartedDecoder(HeaderFields{});  // MPEG-1 44.1 kHz
        std::memset(d->Spectrum, 0, sizeof d->Spectrum);
        std::memset(d->ScaleFactors, 0, sizeof d->ScaleFactors);
        g = GranuleSideInfo{};
        g.global_gain = 210;
    }
    void Set(int line, int32_t q) { CMP3Decoder::StoreSlotInt(&d->Spectrum[0][0][line], q); }
    float At(int line) const { return d->Spectrum[0][0][line]; }
    void Run(int32_t lineCount) {
        d->GranuleInfo[0][0] = g;
        d->LineCount[0][0] = lineCount;
        d->Requantize(0, 0);
    }
    const int32_t* Info() const { return d->BandInfo[0][0]; }
    std::unique_ptr<CMP3Decoder> d;
    GranuleSideInfo g;
};

TEST_F(DecRequantize, LongBlockFiguresAtFullScale) {
    Set(0, 1);   // band 0, scale factor 0
    Set(4, 1);   // band 1, scale factor 2: 2^-1
    Set(8, 8);   // band 2: 8^(4/3) = 16
    Set(12, -1);
    d->ScaleFactors[0][0].longSf[1] = 2;
    Run(16);
    EXPECT_EQ(At(0), 32768.0f);
    EXPECT_EQ(At(4), 16384.0f);
    EXPECT_EQ(At(8), 524288.0f);
    EXPECT_EQ(At(12), -32768.0f);
    EXPECT_EQ(At(1), 0.0f);

    // Mid/side frames carry the gain minus 2: 32768 / sqrt 2.
    SetUp();
    g.global_gain = 208;
    Set(0, 1);
    Run(4);
    EXPECT_NEAR(At(0), 23170.475f, 0.002f);
}

TEST_F(DecRequantize, TableAndDirectPathsOfTheFourThirdsPowerAgree) {
    const int32_t values[] = {-32, -33, 32, 31, 8206, -8206};
    for (int i = 0; i < 6; ++i)
        Set(i, values[i]);
    Run(6);
    for (int i = 0; i < 6; ++i) {
        const double q = values[i];
        const double expected = (q < 0 ? -1 : 1) * std::pow(std::fabs(q), 4.0 / 3.0) * 32768.0;
        EXPECT_NEAR(At(i), expected, std::fabs(expected) * 2e-7) << values[i];
    }
    EXPECT_EQ(At(0), 32768.0f * Pow43Table[0]);  // -32 comes from the table
}

TEST_F(DecRequantize, PreEmphasisAndScaleFactorScaleShapeTheBandGain) {
    g.preflag = 1;
    Set(62, 1);   // band 11: pretab 1
    Set(238, 1);  // band 18: pretab 3
    d->ScaleFactors[0][0].longSf[18] = 1;
    Run(576);
    EXPECT_FLOAT_EQ(At(62), 32768.0f * std::pow(2.0f, -0.5f));
    EXPECT_FLOAT_EQ(At(238), 32768.0f * std::pow(2.0f, -2.0f));  // (1 + 3) x 1/2

    SetUp();
    g.preflag = 1;
    g.scalefac_scale = 1;
    Set(238, 1);
    d->ScaleFactors[0][0].longSf[18] = 1;
    Run(576);
    EXPECT_FLOAT_EQ(At(238), 32768.0f * std::pow(2.0f, -4.0f));  // (1 + 3) x 1
    EXPECT_EQ(Info()[kBandMax], 18);
}

TEST_F(DecRequantize, ShortBlocksAreReorderedToLineWindowOrderWithTheirWindowGains) {
    g.block_type = 2;
    g.subblock_gain[1] = 1;  // window 1: 2^-2
    d->ScaleFactors[0][0].shortSf[2][1] = 2;  // band 1, window 2: 2^-1
    // Coded order: band, window, line. Short band 1 covers lines 4..7 of each window, its three
    // windows at 12..23; the value for window w, line i is 1 + 4w + i.
    for (int w = 0; w < 3; ++w)
        for (int i = 0; i < 4; ++i)
            Set(12 + 4 * w + i, 1 + 4 * w + i);
    Run(24);
    for (int w = 0; w < 3; ++w)
        for (int i = 0; i < 4; ++i) {
            const float gain = w == 1 ? 0.25f : w == 2 ? 0.5f : 1.0f;
            const float expected = 32768.0f * gain * Pow43Table[32 + 1 + 4 * w + i];
            EXPECT_FLOAT_EQ(At(12 + 3 * i + w), expected) << w << " " << i;
        }
    EXPECT_EQ(d->LineCount[0][0], 24);
    EXPECT_EQ(Info()[kBandHasShort], 1);
    EXPECT_EQ(Info()[kBandBlockType], 2);
    EXPECT_EQ(Info()[kBandFirstShort], 0);
    EXPECT_EQ(Info()[kBandLongCount], 0);
    EXPECT_EQ(Info()[kBandMaxShort + 0], 1);
    EXPECT_EQ(Info()[kBandMax], 1);
}

TEST_F(DecRequantize, ShortBlockWithNoLinesStillProcessesItsFirstTriple) {
    g.block_type = 2;
    Run(0);
    EXPECT_EQ(d->LineCount[0][0], 3 * 4);
    EXPECT_EQ(Info()[kBandMax], 0);
    EXPECT_EQ(Info()[kBandMaxShort + 2], 0);
}

TEST_F(DecRequantize, PerWindowMaximaAndMixedBlocksStartShortAtBandThree) {
    g.block_type = 2;
    g.mixed_block_flag = 1;
    Set(35, 2);  // last line of long band 7
    // Short band 3 starts at line 36 (3 x s[3]); band 4 at 48, band 9 at 3 x 66 = 198.
    Set(36 + 4 + 1, 1);   // band 3, window 1
    Set(198 + 18 + 2, 1); // band 9, window 1 (width 18)
    Set(48 + 0, 1);       // band 4, window 0
    Run(250);
    EXPECT_EQ(Info()[kBandHasShort], 1);
    EXPECT_EQ(Info()[kBandFirstShort], 3);
    EXPECT_EQ(Info()[kBandLongCount], 8);
    EXPECT_EQ(Info()[kBandMaxShort + 0], 4);
    EXPECT_EQ(Info()[kBandMaxShort + 1], 9);
    EXPECT_EQ(Info()[kBandMaxShort + 2], 3);  // nothing: the first short band
    EXPECT_EQ(Info()[kBandMax], 9);
    EXPECT_NE(At(35), 0.0f);             // long part untouched by the reorder
    EXPECT_NE(At(36 + 3 * 1 + 1), 0.0f);  // band 3, window 1, line 1
    EXPECT_NE(At(198 + 3 * 2 + 1), 0.0f); // band 9, window 1, line 2
    EXPECT_EQ(d->LineCount[0][0], 3 * 84);  // the triple that reached the count ends it

    // A long block records its highest non-zero band and keeps its count.
    SetUp();
    Set(100, 1);  // band 13 (90..109)
    Run(120);
    EXPECT_EQ(Info()[kBandHasShort], 0);
    EXPECT_EQ(Info()[kBandMax], 13);
    EXPECT_EQ(Info()[kBandFirstShort], 12);
    EXPECT_EQ(Info()[kBandLongCount], 22);
    EXPECT_EQ(d->LineCount[0][0], 120);
}

}  // namespace
