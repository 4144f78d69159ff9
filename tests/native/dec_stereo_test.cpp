// Joint stereo and alias reduction: where mid/side stops and intensity starts, the factors taken
// from the position tables (edge positions, illegal ones, positions above the table, MPEG-2 length
// groups), the line-count bounds, and the number of butterfly boundaries per block kind.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "dec_test_support.h"

namespace {

using dectest::HeaderFields;
using dectest::StartedDecoder;

class DecStereo : public ::testing::Test {
protected:
    void SetUp() override {
        d = StartedDecoder(HeaderFields{});  // MPEG-1 44.1 kHz: l[6] = 24, l[7] = 30, l[8] = 36
        Clear();
    }
    // Left channel 1000 + line, right channel 0, no scale factors, band records or flags.
    void Clear() {
        d->MsStereo = 0;
        d->IntensityStereo = 0;
        std::memset(d->Spectrum, 0, sizeof d->Spectrum);
        std::memset(d->ScaleFactors, 0, sizeof d->ScaleFactors);
        std::memset(d->BandInfo, 0, sizeof d->BandInfo);
        for (int i = 0; i < 576; ++i) {
            L()[i] = 1000.0f + i;
            R()[i] = 0.0f;
        }
    }
    float* L() { return d->Spectrum[0][0]; }
    float* R() { return d->Spectrum[1][0]; }
    void LongRight(int maxBand) {
        d->BandInfo[0][1][kBandHasShort] = 0;
        d->BandInfo[0][1][kBandMax] = maxBand;
    }
    std::unique_ptr<CMP3Decoder> d;
    MP3FrameHeader mpeg1{1, 3, 0, 9, 0, 0, 0, 1, 0, 0, 0, 0};
};

TEST_F(DecStereo, MidSideAloneCoversTheLargerLineCountOfTheTwoChannels) {
    d->MsStereo = 1;
    d->IntensityStereo = 0;
    for (int i = 0; i < 576; ++i)
        R()[i] = 1.0f;
    d->LineCount[0][0] = 40;
    d->LineCount[0][1] = 60;
    d->ProcessStereo(mpeg1, 0);
    EXPECT_EQ(L()[0], 1001.0f);
    EXPECT_EQ(R()[0], 999.0f);
    EXPECT_EQ(L()[59], 1060.0f);
    EXPECT_EQ(L()[60], 1060.0f);  // untouched
    EXPECT_EQ(R()[60], 1.0f);
    EXPECT_EQ(d->LineCount[0][0], 60);
    EXPECT_EQ(d->LineCount[0][1], 60);
}

TEST_F(DecStereo, Mpeg1IntensityWithMidSideStartsAboveTheRightChannelsHighestBand) {
    d->MsStereo = 1;
    d->IntensityStereo = 1;
    LongRight(5);  // mid/side below l[6] = 24, intensity from band 6 on
    R()[23] = 3.0f;
    R()[24] = 5.0f;  // above the right channel's data: intensity overwrites it
    ScaleFactorSet& sfR = d->ScaleFactors[0][1];
    sfR.longSf[6] = 7;   // illegal: R := L under mid/side
    sfR.longSf[7] = 0;   // L := 0, R := sqrt 2 x L
    sfR.longSf[8] = 6;   // L := sqrt 2 x L, R := 0 (up to rounding)
    sfR.longSf[9] = 12;  // above the table: taken as the illegal position
    d->LineCount[0][0] = 50;  // lines from 50 on are not intensity-processed
    d->LineCount[0][1] = 24;
    d->ProcessStereo(mpeg1, 0);
    const float root2 = std::sqrt(2.0f);
    EXPECT_EQ(L()[23], 1026.0f);
    EXPECT_EQ(R()[23], 1020.0f);
    EXPECT_EQ(L()[24], 1024.0f);  // no mid/side at 24
    EXPECT_EQ(R()[24], 1024.0f);
    EXPECT_NEAR(L()[30], 0.0f, 1e-3f);
    EXPECT_FLOAT_EQ(R()[30], root2 * 1030.0f);
    EXPECT_FLOAT_EQ(L()[36], root2 * 1036.0f);
    EXPECT_NEAR(R()[36], 0.0f, 1e-3f);
    EXPECT_EQ(L()[44], 1044.0f);
    EXPECT_EQ(R()[44], 1044.0f);
    EXPECT_EQ(L()[49], 1049.0f);
    EXPECT_EQ(R()[50], 0.0f);  // beyond the left channel's line count
    EXPECT_EQ(d->LineCount[0][1], 50);
}

TEST_F(DecStereo, Mpeg1IntensityWithoutMidSideAndItsEdges) {
    d->MsStereo = 0;
    d->IntensityStereo = 1;
    LongRight(6);
    ScaleFactorSet& sfR = d->ScaleFactors[0][1];
    sfR.longSf[7] = 3;  // half and half
    sfR.longSf[8] = 7;  // illegal: plain stereo, R stays 0
    d->LineCount[0][0] = 576;
    d->ProcessStereo(mpeg1, 0);
    EXPECT_FLOAT_EQ(L()[30], 515.0f);
    EXPECT_FLOAT_EQ(R()[30], 515.0f);
    EXPECT_EQ(L()[36], 1036.0f);
    EXPECT_EQ(R()[36], 0.0f);
    // Long band 21 is never processed.
    EXPECT_EQ(L()[500], 1500.0f);

    // A right channel whose highest band is 20 gets nothing.
    Clear();
    d->IntensityStereo = 1;
    LongRight(20);
    d->LineCount[0][0] = 576;
    d->ProcessStereo(mpeg1, 0);
    for (int i = 0; i < 576; ++i)
        ASSERT_EQ(R()[i], 0.0f) << i;
}

TEST_F(DecStereo, Mpeg1IntensityOnShortBlocksStartsAboveTheHighestWindow) {
    d->IntensityStereo = 1;
    d->BandInfo[0][1][kBandHasShort] = 1;
    d->BandInfo[0][1][kBandMax] = 2;  // start at short band 3: lines 3 x 12 = 36 on
    ScaleFactorSet& sfR = d->ScaleFactors[0][1];
    sfR.shortSf[0][3] = 0;  // window 0: all to the right
    sfR.shortSf[1][3] = 6;  // window 1: all to the left
    sfR.shortSf[2][3] = 3;  // window 2: halves
    d->LineCount[0][0] = 40;  // one triple (36..38) fits, the next (39..41) does not
    d->ProcessStereo(mpeg1, 0);
    EXPECT_NEAR(L()[36], 0.0f, 1e-3f);
    EXPECT_FLOAT_EQ(R()[36], 1036.0f);
    EXPECT_FLOAT_EQ(L()[37], 1037.0f);
    EXPECT_FLOAT_EQ(L()[38], 519.0f);
    EXPECT_FLOAT_EQ(R()[38], 519.0f);
    EXPECT_EQ(L()[39], 1039.0f);
    EXPECT_EQ(R()[39], 0.0f);
}

TEST_F(DecStereo, Mpeg2IntensityFindsFactorsByLengthGroup) {
    HeaderFields f;
    f.version = 2;
    f.bitrateIndex = 8;
    d = StartedDecoder(f);  // 22.05 kHz: l = 0 6 12 18 24 30 36 44 54 ...
    Clear();
    MP3FrameHeader mpeg2{2, 3, 0, 8, 0, 0, 0, 1, 0, 0, 0, 0};
    d->IntensityStereo = 1;
    LongRight(0);
    // Groups: bands 0..2 with 2 bits, 3..5 with 0 bits, 6..9 with 2 bits; the rest none.
    const uint32_t info[7] = {3, 3, 4, 2, 0, 2, 1};
    std::memcpy(d->IntensityInfo, info, sizeof info);
    ScaleFactorSet& sfR = d->ScaleFactors[0][1];
    sfR.longSf[1] = 1;  // index 3 + 1 = 4: (2^-1/2, 1) with intensity_scale 1
    sfR.longSf[2] = 3;  // index 6: the illegal position of 2 bits
    sfR.longSf[3] = 0;  // a group with no bits: illegal
    sfR.longSf[6] = 2;  // index 5: (1, 2^-1/2)
    d->LineCount[0][0] = 576;
    d->ProcessStereo(mpeg2, 0);
    EXPECT_FLOAT_EQ(L()[6], 1006.0f * std::sqrt(0.5f));
    EXPECT_FLOAT_EQ(R()[6], 1006.0f);
    EXPECT_EQ(L()[12], 1012.0f);
    EXPECT_EQ(R()[12], 0.0f);
    EXPECT_EQ(L()[18], 1018.0f);
    EXPECT_EQ(R()[18], 0.0f);
    EXPECT_EQ(L()[36], 1036.0f);
    EXPECT_FLOAT_EQ(R()[36], 1036.0f * std::sqrt(0.5f));
    // Bands after the groups have no coded bits: position 0 is their illegal one.
    EXPECT_EQ(R()[100], 0.0f);
    EXPECT_EQ(L()[100], 1100.0f);
}

TEST_F(DecStereo, Mpeg2IntensityOnShortBlocksRunsPerWindowUpToTheLeftChannelsBand) {
    HeaderFields f;
    f.version = 2;
    f.bitrateIndex = 8;
    d = StartedDecoder(f);  // 22.05 kHz short: s = 0 4 8 12 18 24 ...
    Clear();
    MP3FrameHeader mpeg2{2, 3, 0, 8, 0, 0, 0, 1, 0, 0, 0, 0};
    d->IntensityStereo = 1;
    d->BandInfo[0][1][kBandHasShort] = 1;
    const int maxR[3] = {1, 2, 3}, maxL[3] = {3, 2, 4};
    for (int w = 0; w < 3; ++w) {
        d->BandInfo[0][1][kBandMaxShort + w] = maxR[w];
        d->BandInfo[0][0][kBandMaxShort + w] = maxL[w];
    }
    const uint32_t info[7] = {6, 6, 0, 1, 1, 0, 0};  // 1-bit positions: 0 both, 1 illegal
    std::memcpy(d->IntensityInfo, info, sizeof info);
    d->LineCount[0][0] = 0;  // no line-count bound for short blocks
    d->ProcessStereo(mpeg2, 0);
    // Window 0: bands 2 and 3 (lines 24..35 and 36..53 of window 0), position 0: (1, 1).
    EXPECT_EQ(R()[24], 1024.0f);
    EXPECT_EQ(R()[51], 1051.0f);
    EXPECT_EQ(R()[54], 0.0f);  // band 4 is above the left channel's
    // Window 1: nothing (maxL = maxR).
    EXPECT_EQ(R()[37], 0.0f);
    // Window 2: band 4 (lines 54..71), every third line from 56.
    EXPECT_EQ(R()[56], 1056.0f);
    EXPECT_EQ(R()[55], 0.0f);
    EXPECT_EQ(R()[71], 1071.0f);
}

TEST_F(DecStereo, AliasReductionBoundariesByBlockKind) {
    float* x = L();
    GranuleSideInfo& g = d->GranuleInfo[0][0];
    d->ChannelCount = 1;

    // A long block with 100 lines: (100 + 7) / 18 = 5 boundaries; the count already covers them.
    d->BandInfo[0][0][kBandLongCount] = 22;
    d->LineCount[0][0] = 100;
    d->ReduceGranuleAliases(0);
    const float a = 1017.0f, b = 1018.0f;
    EXPECT_FLOAT_EQ(x[17], a * AliasTable[0].a - b * AliasTable[0].b);
    EXPECT_FLOAT_EQ(x[18], b * AliasTable[0].a + a * AliasTable[0].b);
    EXPECT_FLOAT_EQ(x[90 + 7], 1097.0f * AliasTable[7].a + 1082.0f * AliasTable[7].b);
    EXPECT_EQ(x[108 - 1 - 7], 1100.0f);  // boundary 6 untouched
    EXPECT_EQ(d->LineCount[0][0], 100);

    // A mixed flag gives exactly one boundary, whatever the block type (here a long block).
    Clear();
    d->ChannelCount = 1;
    g.mixed_block_flag = 1;
    g.block_type = 0;
    d->BandInfo[0][0][kBandLongCount] = 22;
    d->LineCount[0][0] = 300;
    d->ReduceGranuleAliases(0);
    EXPECT_NE(x[10], 1010.0f);
    EXPECT_EQ(x[35 - 8], 1027.0f);  // boundary 2 (lines 28..43) untouched
    EXPECT_EQ(x[36], 1036.0f);
    EXPECT_EQ(d->LineCount[0][0], 300);

    // A pure short block: none, and its count stays.
    Clear();
    d->ChannelCount = 1;
    d->BandInfo[0][0][kBandLongCount] = 0;
    d->LineCount[0][0] = 0;
    d->ReduceGranuleAliases(0);
    EXPECT_EQ(x[17], 1017.0f);
    EXPECT_EQ(d->LineCount[0][0], 0);

    // A long block with no lines: no butterflies, but the count becomes 8.
    g.mixed_block_flag = 0;
    d->BandInfo[0][0][kBandLongCount] = 22;
    d->ReduceGranuleAliases(0);
    EXPECT_EQ(x[17], 1017.0f);
    EXPECT_EQ(d->LineCount[0][0], 8);

    // Lines reaching the top: at most 31 boundaries, and the count covers the last one.
    d->LineCount[0][0] = 558;
    d->ReduceGranuleAliases(0);
    EXPECT_EQ(d->LineCount[0][0], 18 * 31 + 8);
}

}  // namespace
