// Joint stereo (mid/side, intensity by the MPEG-1 and the MPEG-2/2.5 rules) and the alias
// reduction butterflies. Short bands are already in (band, line, window) order here.

#include <algorithm>

#include "player/mp3/decoder/BitReader.h"
#include "player/mp3/decoder/DecoderTables.h"

namespace {

// The right channel's spectrum lies two granule slots after the left one's.
constexpr int32_t kRightOffset = 2 * 576;

// Intensity on long blocks: from the band above the right channel's highest (maxR) up to band
// 20, each line of the left channel split between the two by its band's factors, until the
// left channel's n lines run out.
template <class FactorsOf>
void SplitLongBands(float* left, float* right, const int32_t* bandEnd, const int32_t* bandWidth,
                    int32_t maxR, int32_t n, FactorsOf factorsOf) {
    int32_t pos = bandEnd[maxR];
    int32_t linesLeft = n - pos;
    for (int32_t sfb = maxR + 1; sfb <= 20; ++sfb) {
        const FactorPair k = factorsOf(sfb);
        for (int32_t i = 0; i < bandWidth[sfb]; ++i) {
            if (linesLeft - 1 < 0) return;
            --linesLeft;
            right[pos] = k.b * left[pos];
            left[pos] = k.a * left[pos];
            ++pos;
        }
    }
}

}  // namespace

void CMP3Decoder::ProcessStereo(const MP3FrameHeader& header, uint32_t gr) {
    if (MsStereo) {
        int32_t n;
        if (IntensityStereo) {
            // Mid/side stops at the first line above the right channel's highest non-zero band.
            const int32_t* right = BandInfo[gr][1];
            n = BandEnd[right[kBandHasShort] & 1][right[kBandMax]];
        } else {
            n = std::max(LineCount[gr][0], LineCount[gr][1]);
        }
        ProcessMsStereo(Spectrum[0][gr], n);
    }
    if (IntensityStereo) {
        if (header.version == 1)
            ProcessIntensityMpeg1(Spectrum[0][gr], ScaleFactors[gr][1], BandInfo[gr],
                                  LineCount[gr][0]);
        else
            ProcessIntensityMpeg2(Spectrum[0][gr], ScaleFactors[gr][1], BandInfo[gr],
                                  LineCount[gr][0]);
    }
    if (MsStereo || IntensityStereo) {
        const int32_t count = std::max(LineCount[gr][0], LineCount[gr][1]);
        LineCount[gr][0] = count;
        LineCount[gr][1] = count;
    }
}

void CMP3Decoder::ProcessMsStereo(float* left, int32_t n) {
    float* right = left + kRightOffset;
    for (int32_t i = 0; i < n; ++i) {
        const float m = left[i];
        const float d = right[i];
        left[i] = m + d;
        right[i] = m - d;
    }
}

void CMP3Decoder::ProcessIntensityMpeg1(float* left, const ScaleFactorSet& sfR,
                                        const int32_t info[2][8], int32_t n) {
    float* right = left + kRightOffset;
    const int32_t shortR = info[1][kBandHasShort] & 1;
    const int32_t maxR = info[1][kBandMax];
    const FactorPair* t = IntensityTable1[MsStereo & 1];
    int32_t pos = BandEnd[shortR][maxR];
    int32_t linesLeft = n - pos;

    // Four-bit scale factors can code positions up to 15; everything from 7 up is the illegal
    // position, which leaves the band as it is (R := L under mid/side).
    auto factors = [t](uint32_t p) { return t[p > 7 ? 7 : p]; };

    if (!shortR) {
        SplitLongBands(left, right, BandEnd[0], BandWidth[0], maxR, n,
                       [&](int32_t sfb) { return factors(sfR.longSf[sfb]); });
        return;
    }
    for (int32_t sfb = maxR + 1; sfb <= 11; ++sfb) {
        FactorPair k[3];
        for (int w = 0; w < 3; ++w) k[w] = factors(sfR.shortSf[w][sfb]);
        for (int32_t i = 0; i < BandWidth[1][sfb]; ++i) {
            if (linesLeft - 3 < 0) return;
            linesLeft -= 3;
            for (int w = 0; w < 3; ++w) {
                right[pos + w] = k[w].b * left[pos + w];
                left[pos + w] = k[w].a * left[pos + w];
            }
            pos += 3;
        }
    }
}

void CMP3Decoder::ProcessIntensityMpeg2(float* left, const ScaleFactorSet& sfR,
                                        const int32_t info[2][8], int32_t n) {
    float* right = left + kRightOffset;
    // Per band, the illegal position of its group, 2^slen - 1, which is also where the group's
    // factors start in the table. Bands after the three groups have no coded bits: 0.
    uint32_t illegal[22] = {0};
    int32_t band = 0;
    for (int group = 0; group < 3; ++group) {
        const uint32_t value = (1u << (IntensityInfo[kIntensitySlen + group] & 7)) - 1u;
        for (uint32_t k = 0; k < IntensityInfo[kIntensityCount + group] && band < 21; ++k)
            illegal[band++] = value;
    }
    const FactorPair* t = IntensityTable2[IntensityInfo[kIntensityScale] & 1][MsStereo & 1];
    // Positions never exceed 31 and groups start below 32; the mask only keeps any stale value
    // inside the 64 entries.
    auto factors = [t, &illegal](int32_t sfb, uint32_t p) { return t[(illegal[sfb] + p) & 63]; };

    if (!(info[1][kBandHasShort] & 1)) {
        SplitLongBands(left, right, BandEnd[0], BandWidth[0], info[1][kBandMax], n,
                       [&](int32_t sfb) { return factors(sfb, sfR.longSf[sfb]); });
        return;
    }
    // Each window on its own, from above the right channel's highest band of that window up to
    // the left channel's.
    for (int w = 0; w < 3; ++w) {
        const int32_t maxR = info[1][kBandMaxShort + w];
        const int32_t maxL = info[0][kBandMaxShort + w];
        int32_t pos = BandEnd[1][maxR] + w;
        for (int32_t sfb = maxR + 1; sfb <= maxL; ++sfb) {
            const FactorPair k = factors(sfb, sfR.shortSf[w][sfb]);
            for (int32_t i = 0; i < BandWidth[1][sfb]; ++i) {
                right[pos] = k.b * left[pos];
                left[pos] = k.a * left[pos];
                pos += 3;
            }
        }
    }
}

void CMP3Decoder::ReduceAliases(float* x, int32_t nb) {
    for (int32_t k = 1; k <= nb; ++k) {
        float* lower = x + 18 * k - 1;
        float* upper = x + 18 * k;
        for (int i = 0; i < 8; ++i) {
            const float a = lower[-i];
            const float b = upper[i];
            lower[-i] = a * AliasTable[i].a - b * AliasTable[i].b;
            upper[i] = b * AliasTable[i].a + a * AliasTable[i].b;
        }
    }
}

void CMP3Decoder::ReduceGranuleAliases(uint32_t gr) {
    for (int32_t ch = 0; ch < ChannelCount; ++ch) {
        if (BandInfo[gr][ch][kBandLongCount] == 0) continue;  // pure short block
        // The mixed-block rule goes by the flag alone, whatever the block type.
        int32_t nb = 1;
        if (!GranuleInfo[gr][ch].mixed_block_flag) nb = std::min((LineCount[gr][ch] + 7) / 18, 31);
        ReduceAliases(Spectrum[ch][gr], nb);
        LineCount[gr][ch] = std::max(LineCount[gr][ch], 18 * nb + 8);
    }
}
