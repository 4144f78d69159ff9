// Intensity stereo, which no reference stream reaches: of the conformance streams only the last
// frame of M2L3_noise sets it (and codes no line there), and the encoder of the differential
// material never uses it. So the MPEG-1 and MPEG-2 rules are driven here directly: where the
// intensity part starts, the factors each position gives (edges, illegal positions, positions
// above the table, MPEG-2 length groups), the line-count bounds, and how MPEG-2 reads the right
// channel's scale factors into those groups, beside the left channel's rule.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "dec_test_support.h"

namespace {

using dectest::BitWriter;
using dectest::HeaderFields;
using dectest::StartedDecoder;

const MP3FrameHeader kMpeg1{1, 3, 0, 9, 0, 0, 0, 1, 0, 0, 0, 0};
const MP3FrameHeader kMpeg2{2, 3, 0, 8, 0, 0, 0, 1, 0, 0, 0, 0};

HeaderFields Mpeg2Stream() {
    HeaderFields f;
    f.version = 2;
    f.bitrateIndex = 8;
    return f;
}

class DecIntensity : public ::testing::Test {
protected:
    // MPEG-1 44.1 kHz: long bands l[6] = 24, l[7] = 30, l[8] = 36.
    void SetUp() override { Start(HeaderFields{}); }
    // Left channel 1000 + line, right channel 0, no scale factors or band records.
    void Start(const HeaderFields& f) {
        d = StartedDecoder(f);
        std::memset(d->Spectrum, 0, sizeof d->Spectrum);
        std::memset(d->ScaleFactors, 0, sizeof d->ScaleFactors);
        std::memset(d->BandInfo, 0, sizeof d->BandInfo);
        for (int i = 0; i < 576; ++i)
            L()[i] = 1000.0f + i;
        d->MsStereo = 0;
        d->IntensityStereo = 1;
    }
    float* L() { return d->Spectrum[0][0]; }
    float* R() { return d->Spectrum[1][0]; }
    ScaleFactorSet& RightSf() { return d->ScaleFactors[0][1]; }
    std::unique_ptr<CMP3Decoder> d;
};

TEST_F(DecIntensity, Mpeg1WithMidSideStartsAboveTheRightChannelsHighestBand) {
    d->MsStereo = 1;
    d->BandInfo[0][1][kBandMax] = 5;  // mid/side below l[6] = 24, intensity from band 6 on
    R()[23] = 3.0f;
    R()[24] = 5.0f;         // above the right channel's data: intensity overwrites it
    RightSf().longSf[6] = 7;   // illegal: R := L under mid/side
    RightSf().longSf[7] = 0;   // L := 0, R := sqrt 2 x L
    RightSf().longSf[8] = 6;   // L := sqrt 2 x L, R := 0
    RightSf().longSf[9] = 12;  // above the table: the illegal position
    d->LineCount[0][0] = 50;   // lines from 50 on are left alone
    d->LineCount[0][1] = 24;
    d->ProcessStereo(kMpeg1, 0);
    const float root2 = std::sqrt(2.0f);
    EXPECT_EQ(L()[23], 1026.0f);
    EXPECT_EQ(R()[23], 1020.0f);
    EXPECT_EQ(L()[24], 1024.0f);
    EXPECT_EQ(R()[24], 1024.0f);
    EXPECT_NEAR(L()[30], 0.0f, 1e-3f);
    EXPECT_FLOAT_EQ(R()[30], root2 * 1030.0f);
    EXPECT_FLOAT_EQ(L()[36], root2 * 1036.0f);
    EXPECT_NEAR(R()[36], 0.0f, 1e-3f);
    EXPECT_EQ(R()[44], 1044.0f);
    EXPECT_EQ(L()[49], 1049.0f);
    EXPECT_EQ(R()[50], 0.0f);
    EXPECT_EQ(d->LineCount[0][1], 50);
}

TEST_F(DecIntensity, Mpeg1WithoutMidSideAndItsEdges) {
    d->BandInfo[0][1][kBandMax] = 6;
    RightSf().longSf[7] = 3;  // half and half
    RightSf().longSf[8] = 7;  // illegal: plain stereo, R stays 0
    d->LineCount[0][0] = 576;
    d->ProcessStereo(kMpeg1, 0);
    EXPECT_FLOAT_EQ(L()[30], 515.0f);
    EXPECT_FLOAT_EQ(R()[30], 515.0f);
    EXPECT_EQ(L()[36], 1036.0f);
    EXPECT_EQ(R()[36], 0.0f);
    EXPECT_EQ(L()[500], 1500.0f);  // long band 21 is never processed

    // A right channel whose highest band is 20 gets nothing.
    Start(HeaderFields{});
    d->BandInfo[0][1][kBandMax] = 20;
    d->LineCount[0][0] = 576;
    d->ProcessStereo(kMpeg1, 0);
    for (int i = 0; i < 576; ++i)
        ASSERT_EQ(R()[i], 0.0f) << i;
}

TEST_F(DecIntensity, Mpeg1ShortBlocksStartAboveTheHighestWindow) {
    d->BandInfo[0][1][kBandHasShort] = 1;
    d->BandInfo[0][1][kBandMax] = 2;  // start at short band 3: lines 3 x 12 = 36 on
    RightSf().shortSf[0][3] = 0;      // window 0: all to the right
    RightSf().shortSf[1][3] = 6;      // window 1: all to the left
    RightSf().shortSf[2][3] = 3;      // window 2: halves
    d->LineCount[0][0] = 40;          // one triple (36..38) fits, the next does not
    d->ProcessStereo(kMpeg1, 0);
    EXPECT_NEAR(L()[36], 0.0f, 1e-3f);
    EXPECT_FLOAT_EQ(R()[36], 1036.0f);
    EXPECT_FLOAT_EQ(L()[37], 1037.0f);
    EXPECT_FLOAT_EQ(L()[38], 519.0f);
    EXPECT_FLOAT_EQ(R()[38], 519.0f);
    EXPECT_EQ(L()[39], 1039.0f);
    EXPECT_EQ(R()[39], 0.0f);
}

TEST_F(DecIntensity, Mpeg2FindsFactorsByLengthGroup) {
    Start(Mpeg2Stream());  // 22.05 kHz: l = 0 6 12 18 24 30 36 44 54 ...
    // Groups: bands 0..2 with 2 bits, 3..5 with 0 bits, 6..9 with 2 bits; the rest none.
    const uint32_t info[7] = {3, 3, 4, 2, 0, 2, 1};
    std::memcpy(d->IntensityInfo, info, sizeof info);
    RightSf().longSf[1] = 1;  // (2^-1/2, 1) with intensity_scale 1
    RightSf().longSf[2] = 3;  // the illegal position of 2 bits
    RightSf().longSf[3] = 0;  // a group with no bits: illegal
    RightSf().longSf[6] = 2;  // (1, 2^-1/2)
    d->LineCount[0][0] = 576;
    d->ProcessStereo(kMpeg2, 0);
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

TEST_F(DecIntensity, Mpeg2ShortBlocksRunPerWindowUpToTheLeftChannelsBand) {
    Start(Mpeg2Stream());  // 22.05 kHz short: s = 0 4 8 12 18 24 ...
    d->BandInfo[0][1][kBandHasShort] = 1;
    const int maxR[3] = {1, 2, 3}, maxL[3] = {3, 2, 4};
    for (int w = 0; w < 3; ++w) {
        d->BandInfo[0][1][kBandMaxShort + w] = maxR[w];
        d->BandInfo[0][0][kBandMaxShort + w] = maxL[w];
    }
    const uint32_t info[7] = {6, 6, 0, 1, 1, 0, 0};  // 1-bit positions: 0 both, 1 illegal
    std::memcpy(d->IntensityInfo, info, sizeof info);
    d->LineCount[0][0] = 0;  // no line-count bound for short blocks
    d->ProcessStereo(kMpeg2, 0);
    // Window 0: bands 2 and 3, position 0: (1, 1); band 4 is above the left channel's.
    EXPECT_EQ(R()[24], 1024.0f);
    EXPECT_EQ(R()[51], 1051.0f);
    EXPECT_EQ(R()[54], 0.0f);
    EXPECT_EQ(R()[37], 0.0f);  // window 1: nothing (maxL = maxR)
    // Window 2: band 4 (lines 54..71), every third line from 56.
    EXPECT_EQ(R()[56], 1056.0f);
    EXPECT_EQ(R()[55], 0.0f);
    EXPECT_EQ(R()[71], 1071.0f);
}

// Factor pairs the cases above do not reach: the mid/side variants and the far positions.
TEST(DecIntensityFactors, EdgesOfBothTables) {
    InitDecoderTables();
    const float half = std::sqrt(2.0f) / 2;
    EXPECT_NEAR(IntensityTable1[1][3].a, half, 1e-7);
    EXPECT_NEAR(IntensityTable1[1][3].b, half, 1e-7);
    EXPECT_EQ(IntensityTable1[0][7].a, 1.0f);
    EXPECT_EQ(IntensityTable1[0][7].b, 0.0f);

    const float quarter = std::pow(2.0f, -0.25f);
    const FactorPair* t = IntensityTable2[0][0];
    EXPECT_EQ(t[0].a, 1.0f);  // length 0: its only position is illegal
    EXPECT_EQ(t[0].b, 0.0f);
    EXPECT_EQ(t[1].a, 1.0f);  // length 1, position 0
    EXPECT_EQ(t[1].b, 1.0f);
    EXPECT_FLOAT_EQ(t[4].a, quarter);  // length 2, position 1
    EXPECT_EQ(t[4].b, 1.0f);
    EXPECT_EQ(t[5].a, 1.0f);  // length 2, position 2
    EXPECT_FLOAT_EQ(t[5].b, quarter);
    EXPECT_EQ(t[62].a, 1.0f);  // length 5, illegal position 31
    EXPECT_EQ(t[62].b, 0.0f);
    EXPECT_FLOAT_EQ(IntensityTable2[1][0][46].a, std::pow(2.0f, -4.0f));  // length 5, p = 15
    EXPECT_FLOAT_EQ(IntensityTable2[0][1][1].a, std::sqrt(2.0f));  // mid/side: times sqrt 2
    EXPECT_EQ(IntensityTable2[0][1][6].a, 1.0f);                   // mid/side illegal: R := L
    EXPECT_EQ(IntensityTable2[0][1][6].b, 1.0f);
}

// MPEG-2 scale factors of an intensity frame: the right channel splits scalefac_compress by its
// own rule into lengths and band groups and leaves them for the stereo stage; the left channel
// keeps the ordinary rule. With the ordinary rule also the mixed-block flag on a long block,
// which moves the lengths up whatever the block type (no MPEG-2 stream sets it there). Each case
// shows the lengths by the bits consumed and the values landing in the right bands.
struct Mpeg2Case {
    uint32_t sfc;
    uint32_t blockType, mixed;
    bool right;
    int slen[4];
    int counts[4];  // bands per group (mixed: after the six long bands)
    uint32_t preflag;
};

uint32_t Pattern(int band, int window, int bits) {
    return bits == 0 ? 0 : static_cast<uint32_t>(band * 5 + window * 3 + 1) & ((1u << bits) - 1);
}

TEST(DecMpeg2ScaleFactors, RightChannelGroupsLeftChannelRuleAndTheMixedFlag) {
    const Mpeg2Case cases[] = {
        // left channel: 395 -> (24 / 5, 24 % 5, 11 >> 2, 11 % 4), long counts 6 5 5 5
        {395, 0, 0, false, {4, 4, 2, 3}, {6, 5, 5, 5}, 0},
        // 511 -> (3, 2) with pre-emphasis; the mixed flag moves the lengths up to (3, 3, 2),
        // on a mixed block and on a long block alike
        {511, 2, 1, false, {3, 3, 2, 0}, {6, 3, 6, 0}, 1},
        {511, 0, 1, false, {3, 3, 2, 0}, {11, 10, 0, 0}, 1},
        // right channel: 359 -> i = 179: (4, 5, 5), table 3
        {359, 0, 0, true, {4, 5, 5, 0}, {7, 7, 7, 0}, 0},
        // 360 -> i = 180: table 4 with lengths 0
        {360, 2, 0, true, {0, 0, 0, 0}, {4, 3, 3, 2}, 0},
        // 511 -> i = 255, x = 11: (3, 2), table 5, mixed counts 6 | 6 3 0
        {511, 2, 1, true, {3, 2, 0, 0}, {6, 6, 3, 0}, 0},
    };
    for (const Mpeg2Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "sfc " << c.sfc << " right " << c.right);
        auto d = dectest::NewDecoder();
        d->ChannelCount = 2;
        d->IntensityStereo = 1;
        d->IntensityInfo[0] = 42;
        const uint32_t ch = c.right ? 1 : 0;
        GranuleSideInfo& g = d->GranuleInfo[0][ch];
        g.scalefac_compress = c.sfc;
        g.block_type = c.blockType;
        g.mixed_block_flag = c.mixed;
        g.preflag = 7;
        const bool isShort = c.blockType == 2;
        const bool mixed = isShort && c.mixed;
        BitWriter w;
        int band = 0;
        if (mixed) {
            for (int sfb = 0; sfb < 6; ++sfb)
                w.Put(Pattern(sfb, 0, c.slen[0]), c.slen[0]);
            band = 3;
        }
        for (int group = mixed ? 1 : 0; group < 4; ++group)
            for (int k = 0; k < c.counts[group]; ++k, ++band)
                for (int win = 0; win < (isShort ? 3 : 1); ++win)
                    w.Put(Pattern(band, win, c.slen[group]), c.slen[group]);
        const std::vector<uint8_t> bytes = w.Bytes(static_cast<size_t>(w.BitCount() / 8 + 8));
        d->SetBitPos(bytes.data());
        d->ReadScaleFactorsMpeg2(0, ch);
        EXPECT_EQ(d->BitsUsed(), w.BitCount());
        EXPECT_EQ(g.preflag, c.preflag);

        const ScaleFactorSet& sf = d->ScaleFactors[0][ch];
        band = mixed ? 3 : 0;
        for (int sfb = 0; sfb < (mixed ? 6 : 0); ++sfb)
            EXPECT_EQ(sf.longSf[sfb], Pattern(sfb, 0, c.slen[0])) << sfb;
        for (int group = mixed ? 1 : 0; group < 4; ++group)
            for (int k = 0; k < c.counts[group]; ++k, ++band)
                for (int win = 0; win < (isShort ? 3 : 1); ++win) {
                    const uint32_t got = isShort ? sf.shortSf[win][band] : sf.longSf[band];
                    EXPECT_EQ(got, Pattern(band, win, c.slen[group])) << band << " " << win;
                }

        if (!c.right) {
            EXPECT_EQ(d->IntensityInfo[0], 42u);  // only the right channel writes the groups
            continue;
        }
        EXPECT_EQ(d->IntensityInfo[0], static_cast<uint32_t>(mixed ? 6 : c.counts[0]));
        EXPECT_EQ(d->IntensityInfo[1], static_cast<uint32_t>(c.counts[1]));
        EXPECT_EQ(d->IntensityInfo[2], static_cast<uint32_t>(c.counts[2]));
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(d->IntensityInfo[3 + i], static_cast<uint32_t>(c.slen[i]));
        EXPECT_EQ(d->IntensityInfo[6], c.sfc % 2);
    }
}

}  // namespace
