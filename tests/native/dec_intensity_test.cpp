// Intensity stereo, which no reference stream reaches (of them all, one granule of M2L3_noise
// sets it and codes no line there; lame never uses it). The factors expected come from the
// rules themselves, not from the decoder's tables: MPEG-1 splits a band by tan(p pi / 12),
// MPEG-2 lowers one side by i0^((p + 1) / 2) (odd p: left) or i0^(p / 2) (even p: right),
// i0 = 2^-(scale + 1) / 4; under mid/side both sides are sqrt 2 larger (the gain of such frames
// is lowered by 2), and the illegal position leaves the band alone (R := L under mid/side).

#include <cmath>
#include <cstring>

#include "dec_test_support.h"

namespace {

struct Case {
    int version;
    bool ms;
    int scale;  // MPEG-2's intensity_scale
};

class DecIntensity : public ::testing::TestWithParam<Case> {
protected:
    // Left channel 1000 + line, right 3 in long band 0 and 0 above.
    void SetUp() override {
        d = dectest::Started(GetParam().version == 1 ? dectest::kMpeg1 : dectest::kMpeg2);
        for (int i = 0; i < 576; ++i) L()[i] = 1000.0f + i, R()[i] = i < l[1] ? 3.0f : 0.0f;
        d->MsStereo = GetParam().ms;
        d->IntensityStereo = 1;
        header.version = uint32_t(GetParam().version);
    }
    float* L() { return d->Spectrum[0][0]; }
    float* R() { return d->Spectrum[1][0]; }
    ScaleFactorSet& RightSf() { return d->ScaleFactors[0][1]; }
    // (left, right) factors of position p in a band whose illegal position is illegal.
    std::pair<double, double> Factors(uint32_t p, uint32_t illegal) const {
        const double ms = GetParam().ms ? std::sqrt(2.0) : 1.0;
        if (p >= illegal) return {1.0, GetParam().ms ? 1.0 : 0.0};
        if (GetParam().version == 1) {
            const double s = std::sin(p * std::acos(-1.0) / 12), c = std::cos(p * std::acos(-1.0) / 12);
            return {ms * s / (s + c), ms * c / (s + c)};
        }
        const double i0 = std::pow(2.0, -(GetParam().scale + 1) / 4.0);
        return {ms * (p % 2 ? std::pow(i0, (p + 1) / 2) : 1.0), ms * (p % 2 ? 1.0 : std::pow(i0, p / 2))};
    }
    void Expect(int line, double left, double right) {
        ASSERT_NEAR(L()[line], left, 1e-3) << "left, line " << line;
        ASSERT_NEAR(R()[line], right, 1e-3) << "right, line " << line;
    }
    const int32_t* l = BandIndexTable[GetParam().version == 1 ? 0 : 3];  // 44.1 or 22.05 kHz
    std::unique_ptr<CMP3Decoder> d;
    MP3FrameHeader header{};
};

// Long blocks: the right channel's highest band is 0, so intensity runs from band 1 to band 20
// and stops at the left channel's line count (400). MPEG-2 groups: bands 0..2 with 1 bit,
// 3..8 with 3 bits, 9..14 with 5 bits, none after.
TEST_P(DecIntensity, LongBlocksEveryPosition) {
    const uint32_t groups[7] = {3, 6, 6, 1, 3, 5, uint32_t(GetParam().scale)};
    std::memcpy(d->IntensityInfo, groups, sizeof groups);
    const auto bits = [&](int b) { return GetParam().version == 1 ? 4 : b < 3 ? 1 : b < 9 ? 3 : b < 15 ? 5 : 0; };
    for (int b = 0; b < 21; ++b) RightSf().longSf[b] = uint32_t(b * 5) & ((1u << bits(b)) - 1);
    d->LineCount[0][0] = 400;
    d->ProcessStereo(header, 0);
    for (int b = 0; b < 22; ++b)
        for (int i = l[b]; i < l[b + 1]; ++i) {
            const double x = 1000 + i;
            if (b == 0) Expect(i, GetParam().ms ? x + 3 : x, GetParam().ms ? x - 3 : 3);
            else if (b == 21 || i >= 400) Expect(i, x, 0);
            else {
                const uint32_t illegal = GetParam().version == 1 ? 7 : (1u << bits(b)) - 1;
                const auto f = Factors(RightSf().longSf[b], illegal);
                Expect(i, x * f.first, x * f.second);
            }
        }
}

// Short blocks, in (band, line, window) order. MPEG-1: above the right channel's highest band
// (2: from line 36), a triple only while three lines of the left channel's count are left.
// MPEG-2: each window from above its own highest band up to the left channel's in that window.
TEST_P(DecIntensity, ShortBlocksPerWindow) {
    d->BandInfo[0][1][kBandHasShort] = 1;
    if (GetParam().version == 1) {
        d->BandInfo[0][1][kBandMax] = 2;
        RightSf().shortSf[0][3] = 0, RightSf().shortSf[1][3] = 6, RightSf().shortSf[2][3] = 3;
        d->LineCount[0][0] = 41;
        d->ProcessStereo(header, 0);
        for (int w = 0; w < 3; ++w) {
            const auto f = Factors(RightSf().shortSf[w][3], 7);
            Expect(36 + w, (1036 + w) * f.first, (1036 + w) * f.second);
            Expect(39 + w, 1039 + w, 0);
        }
        return;
    }
    const int maxR[3] = {1, 2, 3}, maxL[3] = {3, 2, 4};  // s = 0 4 8 12 18 24 ...
    for (int w = 0; w < 3; ++w)
        d->BandInfo[0][1][kBandMaxShort + w] = maxR[w], d->BandInfo[0][0][kBandMaxShort + w] = maxL[w];
    const uint32_t groups[7] = {6, 6, 0, 1, 1, 0, uint32_t(GetParam().scale)};
    std::memcpy(d->IntensityInfo, groups, sizeof groups);
    RightSf().shortSf[0][3] = 1;  // illegal
    d->ProcessStereo(header, 0);
    const auto f = Factors(0, 1);
    Expect(24, 1024 * f.first, 1024 * f.second);   // window 0, band 2
    Expect(36, 1036, GetParam().ms ? 1036 : 0);      // window 0, band 3: illegal
    Expect(54, 1054, 0);                           // window 0, band 4: above the left channel's
    Expect(37, 1037, 0);                           // window 1: nothing
    Expect(56, 1056 * f.first, 1056 * f.second);   // window 2, band 4
}

INSTANTIATE_TEST_SUITE_P(Modes, DecIntensity,
                         ::testing::Values(Case{1, false, 0}, Case{1, true, 0}, Case{2, false, 0}, Case{2, true, 0},
                                           Case{2, false, 1}, Case{2, true, 1}),
                         [](const ::testing::TestParamInfo<Case>& i) {
                             return "Mpeg" + std::to_string(i.param.version) + (i.param.ms ? "MidSide" : "") +
                                    "Scale" + std::to_string(i.param.scale);
                         });

// MPEG-2 scale factors: the right channel of an intensity frame splits scalefac_compress by its
// own rule into lengths and band groups, which it leaves for the stereo stage; the left channel
// keeps the ordinary rule, by which the mixed-block flag moves the lengths up whatever the block
// type (on a long block too, which no MPEG-2 stream sets). Each case reads values that show
// where each band's bits were taken from.
TEST(DecMpeg2ScaleFactors, RightChannelGroupsAndTheMixedFlagOnALongBlock) {
    struct Mpeg2Case {
        uint32_t sfc, blockType, mixed, ch;
        uint32_t slen[4];
        int counts[4];  // bands per group; a mixed block has 6 long bands first, then from short band 3
    };
    const Mpeg2Case cases[] = {
        {511, 0, 1, 0, {3, 3, 2, 0}, {11, 10, 0, 0}},  // 511 -> (3, 2), moved up to (3, 3, 2)
        {359, 0, 0, 1, {4, 5, 5, 0}, {7, 7, 7, 0}},    // i = 179: table 3
        {360, 2, 0, 1, {0, 0, 0, 0}, {4, 3, 3, 2}},    // i = 180: table 4, lengths 0
        {511, 2, 1, 1, {3, 2, 0, 0}, {6, 6, 3, 0}},    // i = 255: table 5, mixed
    };
    for (const Mpeg2Case& c : cases) {
        SCOPED_TRACE(c.sfc);
        auto d = dectest::Started(dectest::kMpeg2);
        d->IntensityStereo = 1;
        GranuleSideInfo& g = d->GranuleInfo[0][c.ch];
        g.scalefac_compress = c.sfc, g.block_type = c.blockType, g.mixed_block_flag = c.mixed;
        const bool isShort = c.blockType == 2, mixed = isShort && c.mixed;
        const auto value = [](int band, int w, uint32_t bits) { return uint32_t(band * 5 + w * 3 + 1) & ((1u << bits) - 1); };
        dectest::BitWriter bits;
        for (int group = 0, band = 0; group < 4; ++group)
            for (int k = 0; k < c.counts[group]; ++k, ++band)
                for (int w = 0; w < (isShort && !(mixed && group == 0) ? 3 : 1); ++w)
                    bits.Put(value(band, w, c.slen[group]), int(c.slen[group]));
        const std::vector<uint8_t> bytes = bits.Padded();
        d->SetBitPos(bytes.data());
        d->ReadScaleFactorsMpeg2(0, c.ch);
        EXPECT_EQ(d->BitsUsed(), bits.bits);
        const ScaleFactorSet& sf = d->ScaleFactors[0][c.ch];
        for (int group = 0, band = 0; group < 4; ++group)
            for (int k = 0; k < c.counts[group]; ++k, ++band) {
                const bool isLong = !isShort || (mixed && group == 0);
                const int at = mixed && group > 0 ? band - 3 : band;  // short bands from 3 on
                for (int w = 0; w < (isLong ? 1 : 3); ++w)
                    EXPECT_EQ(isLong ? sf.longSf[at] : sf.shortSf[w][at], value(band, w, c.slen[group])) << band;
            }
        if (c.ch == 0) continue;
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(d->IntensityInfo[kIntensityCount + i], uint32_t(c.counts[i]));
            EXPECT_EQ(d->IntensityInfo[kIntensitySlen + i], c.slen[i]);
        }
        EXPECT_EQ(d->IntensityInfo[kIntensityScale], c.sfc % 2);
    }
}

}  // namespace
