// Scale-factor reading: the MPEG-1 band groups and scale factor selection information, and the
// MPEG-2/2.5 split of scalefac_compress into lengths and band counts, with the intensity rules of
// the right channel and the mixed-block length change.

#include <gtest/gtest.h>

#include <vector>

#include "dec_test_support.h"

namespace {

using dectest::BitWriter;
using dectest::NewDecoder;

// A distinct value for every (window, band) that fits in bits.
uint32_t Pattern(int band, int window, int bits) {
    return bits == 0 ? 0 : static_cast<uint32_t>(band * 5 + window * 3 + 1) & ((1u << bits) - 1);
}

class DecScaleFactors : public ::testing::Test {
protected:
    void SetUp() override {
        d = NewDecoder();
        d->ChannelCount = 2;
        // Garbage everywhere, to see what is written and what is kept.
        for (auto& row : d->ScaleFactors)
            for (ScaleFactorSet& s : row) {
                for (uint32_t& v : s.longSf)
                    v = 99;
                for (auto& w : s.shortSf)
                    for (uint32_t& v : w)
                        v = 99;
            }
        for (uint32_t& v : d->ScaleFactors[0][0].longSf)
            v = 99;
    }
    // Positions the reader on the written bits (padded so that look-ahead stays inside).
    void Read(const BitWriter& w) {
        bytes = w.Bytes(static_cast<size_t>(w.BitCount() / 8 + 8));
        d->SetBitPos(bytes.data());
    }
    std::unique_ptr<CMP3Decoder> d;
    std::vector<uint8_t> bytes;
};

TEST_F(DecScaleFactors, Mpeg1LongGranuleZeroReadsElevenAndTenBands) {
    GranuleSideInfo& g = d->GranuleInfo[0][0];
    g.scalefac_compress = 10;  // slen 2, 3
    BitWriter w;
    for (int sfb = 0; sfb < 21; ++sfb)
        w.Put(Pattern(sfb, 0, sfb < 11 ? 2 : 3), sfb < 11 ? 2 : 3);
    Read(w);
    d->Scfsi[0] = 15;  // not consulted in granule 0
    d->ReadScaleFactorsMpeg1(0, 0);
    EXPECT_EQ(d->BitsUsed(), 11 * 2 + 10 * 3);
    for (int sfb = 0; sfb < 21; ++sfb)
        EXPECT_EQ(d->ScaleFactors[0][0].longSf[sfb], Pattern(sfb, 0, sfb < 11 ? 2 : 3)) << sfb;
    EXPECT_EQ(d->ScaleFactors[0][0].longSf[21], 99u);  // never written here
}

TEST_F(DecScaleFactors, Mpeg1LengthZeroSetsZeroWithoutReading) {
    d->GranuleInfo[0][0].scalefac_compress = 0;
    const uint8_t ones[16] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                              0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    d->SetBitPos(ones);
    d->ReadScaleFactorsMpeg1(0, 0);
    EXPECT_EQ(d->BitsUsed(), 0);
    for (int sfb = 0; sfb < 21; ++sfb)
        EXPECT_EQ(d->ScaleFactors[0][0].longSf[sfb], 0u);
}

TEST_F(DecScaleFactors, Mpeg1SelectionInformationCopiesGroupsFromGranuleZero) {
    for (int sfb = 0; sfb < 21; ++sfb)
        d->ScaleFactors[0][1].longSf[sfb] = static_cast<uint32_t>(40 + sfb);
    GranuleSideInfo& g = d->GranuleInfo[1][1];
    g.scalefac_compress = 15;  // slen 4, 3

    // All four groups reused: nothing read.
    d->Scfsi[1] = 15;
    Read(BitWriter());
    d->ReadScaleFactorsMpeg1(1, 1);
    EXPECT_EQ(d->BitsUsed(), 0);
    for (int sfb = 0; sfb < 21; ++sfb)
        EXPECT_EQ(d->ScaleFactors[1][1].longSf[sfb], static_cast<uint32_t>(40 + sfb));

    // Bits 3 and 1 (groups 0..5 and 11..15) reused; groups 6..10 and 16..20 read.
    d->Scfsi[1] = 0xA;
    BitWriter w;
    for (int sfb = 6; sfb <= 10; ++sfb)
        w.Put(Pattern(sfb, 0, 4), 4);
    for (int sfb = 16; sfb <= 20; ++sfb)
        w.Put(Pattern(sfb, 0, 3), 3);
    Read(w);
    d->ReadScaleFactorsMpeg1(1, 1);
    EXPECT_EQ(d->BitsUsed(), 5 * 4 + 5 * 3);
    for (int sfb = 0; sfb < 21; ++sfb) {
        const bool reused = sfb <= 5 || (sfb >= 11 && sfb <= 15);
        const uint32_t expected = reused ? 40u + sfb : Pattern(sfb, 0, sfb <= 10 ? 4 : 3);
        EXPECT_EQ(d->ScaleFactors[1][1].longSf[sfb], expected) << sfb;
    }
}

TEST_F(DecScaleFactors, Mpeg1ShortAndMixedBlocksReadWindowsInsideBands) {
    GranuleSideInfo& g = d->GranuleInfo[0][0];
    g.block_type = 2;
    g.scalefac_compress = 15;  // slen 4, 3
    BitWriter w;
    for (int sfb = 0; sfb < 12; ++sfb)
        for (int win = 0; win < 3; ++win)
            w.Put(Pattern(sfb, win, sfb < 6 ? 4 : 3), sfb < 6 ? 4 : 3);
    Read(w);
    d->ReadScaleFactorsMpeg1(0, 0);
    EXPECT_EQ(d->BitsUsed(), 18 * 4 + 18 * 3);
    for (int sfb = 0; sfb < 12; ++sfb)
        for (int win = 0; win < 3; ++win)
            EXPECT_EQ(d->ScaleFactors[0][0].shortSf[win][sfb], Pattern(sfb, win, sfb < 6 ? 4 : 3));
    EXPECT_EQ(d->ScaleFactors[0][0].longSf[0], 99u);  // the long part is left alone

    g.mixed_block_flag = 1;
    BitWriter m;
    for (int sfb = 0; sfb < 8; ++sfb)
        m.Put(Pattern(sfb, 0, 4) ^ 1, 4);
    for (int sfb = 3; sfb < 12; ++sfb)
        for (int win = 0; win < 3; ++win)
            m.Put(Pattern(sfb, win, sfb < 6 ? 4 : 3) ^ 1, sfb < 6 ? 4 : 3);
    Read(m);
    d->ReadScaleFactorsMpeg1(0, 0);
    EXPECT_EQ(d->BitsUsed(), 8 * 4 + 9 * 4 + 18 * 3);
    for (int sfb = 0; sfb < 8; ++sfb)
        EXPECT_EQ(d->ScaleFactors[0][0].longSf[sfb], Pattern(sfb, 0, 4) ^ 1);
    EXPECT_EQ(d->ScaleFactors[0][0].longSf[8], 99u);
    EXPECT_EQ(d->ScaleFactors[0][0].shortSf[2][2], Pattern(2, 2, 4));  // kept from before
    EXPECT_EQ(d->ScaleFactors[0][0].shortSf[1][3], Pattern(3, 1, 4) ^ 1);
    EXPECT_EQ(d->ScaleFactors[0][0].shortSf[2][11], Pattern(11, 2, 3) ^ 1);
}

// MPEG-2: for each case the lengths are shown by the bits consumed when every group is read,
// and by the values landing in the right bands.
struct Mpeg2Case {
    uint32_t sfc;
    uint32_t blockType, mixed;
    bool right;
    int slen[4];
    int counts[4];  // bands per group (mixed: after the six long bands)
    uint32_t preflag;
};

void WriteMpeg2(BitWriter& w, const Mpeg2Case& c) {
    const bool isShort = c.blockType == 2;
    int band = 0;
    if (isShort && c.mixed) {
        for (int sfb = 0; sfb < 6; ++sfb)
            w.Put(Pattern(sfb, 0, c.slen[0]), c.slen[0]);
        band = 3;
    }
    for (int group = (isShort && c.mixed) ? 1 : 0; group < 4; ++group)
        for (int k = 0; k < c.counts[group]; ++k, ++band)
            for (int win = 0; win < (isShort ? 3 : 1); ++win)
                w.Put(Pattern(band, win, c.slen[group]), c.slen[group]);
}

TEST_F(DecScaleFactors, Mpeg2LengthsTablesAndPreflagForEveryCase) {
    const Mpeg2Case cases[] = {
        // sfc < 400: 395 -> (24 / 5, 24 % 5, 11 >> 2, 11 % 4), long counts 6 5 5 5
        {395, 0, 0, false, {4, 4, 2, 3}, {6, 5, 5, 5}, 0},
        // 400 <= sfc < 500: 499 -> x = 99: (24 / 5, 24 % 5, 3, 0), short counts 3 3 4 2
        {499, 2, 0, false, {4, 4, 3, 0}, {3, 3, 4, 2}, 0},
        // sfc >= 500 uses table 2 with pre-emphasis: 500 reads nothing, 511 -> (3, 2)
        {500, 0, 0, false, {0, 0, 0, 0}, {11, 10, 0, 0}, 1},
        {511, 0, 0, false, {3, 2, 0, 0}, {11, 10, 0, 0}, 1},
        // with the mixed flag the lengths move up: (3, 3, 2); mixed counts 6 | 3 6 0
        {511, 2, 1, false, {3, 3, 2, 0}, {6, 3, 6, 0}, 1},
        // ... whatever the block type: a long block with the flag reads 11 x 3 and 10 x 3 bits
        {511, 0, 1, false, {3, 3, 2, 0}, {11, 10, 0, 0}, 1},
        // right channel in intensity stereo: 359 -> i = 179: (4, 5, 5), table 3
        {359, 0, 0, true, {4, 5, 5, 0}, {7, 7, 7, 0}, 0},
        // 360 -> i = 180: table 4 with lengths 0
        {360, 2, 0, true, {0, 0, 0, 0}, {4, 3, 3, 2}, 0},
        // 511 -> i = 255, x = 11: (3, 2), table 5, mixed counts 6 | 6 3 0
        {511, 2, 1, true, {3, 2, 0, 0}, {6, 6, 3, 0}, 0},
    };
    for (const Mpeg2Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "sfc " << c.sfc << " block " << c.blockType << " mixed "
                                        << c.mixed << " right " << c.right);
        SetUp();
        d->IntensityStereo = 1;
        const uint32_t ch = c.right ? 1 : 0;
        GranuleSideInfo& g = d->GranuleInfo[0][ch];
        g.scalefac_compress = c.sfc;
        g.block_type = c.blockType;
        g.mixed_block_flag = c.mixed;
        g.preflag = 7;
        BitWriter w;
        WriteMpeg2(w, c);
        Read(w);
        d->ReadScaleFactorsMpeg2(0, ch);
        EXPECT_EQ(d->BitsUsed(), w.BitCount());
        EXPECT_EQ(g.preflag, c.preflag);

        const ScaleFactorSet& sf = d->ScaleFactors[0][ch];
        const bool isShort = c.blockType == 2;
        int band = 0, group = 0;
        if (isShort && c.mixed) {
            for (int sfb = 0; sfb < 6; ++sfb)
                EXPECT_EQ(sf.longSf[sfb], Pattern(sfb, 0, c.slen[0])) << sfb;
            band = 3;
            group = 1;
        }
        for (; group < 4; ++group)
            for (int k = 0; k < c.counts[group]; ++k, ++band)
                for (int win = 0; win < (isShort ? 3 : 1); ++win) {
                    const uint32_t got = isShort ? sf.shortSf[win][band] : sf.longSf[band];
                    EXPECT_EQ(got, Pattern(band, win, c.slen[group])) << band << " " << win;
                }
        EXPECT_EQ(band, isShort ? 12 : 21);

        if (c.right) {
            const int* counts = c.counts;
            const int mixedFirst = isShort && c.mixed ? 6 : counts[0];
            EXPECT_EQ(d->IntensityInfo[0], static_cast<uint32_t>(mixedFirst));
            EXPECT_EQ(d->IntensityInfo[1], static_cast<uint32_t>(counts[1]));
            EXPECT_EQ(d->IntensityInfo[2], static_cast<uint32_t>(counts[2]));
            for (int i = 0; i < 3; ++i)
                EXPECT_EQ(d->IntensityInfo[3 + i], static_cast<uint32_t>(c.slen[i]));
            EXPECT_EQ(d->IntensityInfo[6], c.sfc % 2);
        }
    }
}

TEST_F(DecScaleFactors, Mpeg2LeftChannelOfAnIntensityFrameUsesTheOrdinaryRules) {
    d->IntensityStereo = 1;
    d->IntensityInfo[0] = 42;
    GranuleSideInfo& g = d->GranuleInfo[0][0];
    g.scalefac_compress = 500;
    Read(BitWriter());
    d->ReadScaleFactorsMpeg2(0, 0);
    EXPECT_EQ(g.preflag, 1u);
    EXPECT_EQ(d->IntensityInfo[0], 42u);  // only the right channel writes it
}

}  // namespace
