// Requantization of one granule and channel in place, with the short-block reorder to
// (band, line, window) order and the record of which bands hold non-zero values.

#include <cstring>

#include "player/mp3/decoder/BitReader.h"
#include "player/mp3/decoder/DecoderTables.h"

namespace {

// sign(q) x |q|^(4/3) x f. Small values come from the table; escapes multiply in double with
// the cube root of their magnitude (|q| is at most kMaxEscapedValue: 15 plus 13 linbits).
inline float Dequantize(int32_t q, float f) {
    if (q >= -32 && q < 32) return f * Pow43Table[q + 32];
    const int32_t magnitude = q < 0 ? -q : q;
    return static_cast<float>(static_cast<double>(f) * EscapeRootTable[magnitude] * q);
}

}  // namespace

void CMP3Decoder::Requantize(uint32_t gr, uint32_t ch) {
    const GranuleSideInfo& g = GranuleInfo[gr][ch];
    const ScaleFactorSet& sf = ScaleFactors[gr][ch];
    float* s = Spectrum[ch][gr];
    int32_t* info = BandInfo[gr][ch];
    const int32_t lineCount = LineCount[gr][ch];

    int32_t nlong = 22, firstShort = 12;
    if (g.block_type == 2) {
        nlong = g.mixed_block_flag ? MixedLongBands : 0;
        firstShort = g.mixed_block_flag ? 3 : 0;
    }
    info[kBandBlockType] = static_cast<int32_t>(g.block_type);
    info[kBandFirstShort] = firstShort;
    info[kBandLongCount] = nlong;

    // The gain table is offset by 6 so that the -2 of mid/side frames stays inside it.
    const float base = GainTable[g.global_gain + 6];
    const float(*scale)[32] = ScaleTable[g.scalefac_scale & 1];
    const int32_t* pretab = PretabTable[g.preflag & 1];

    int32_t pos = 0;
    int32_t maxLong = 0;
    for (int32_t sfb = 0; sfb < nlong; ++sfb) {
        const float f = base * scale[pretab[sfb]][sf.longSf[sfb]];
        const int32_t end = pos + BandWidth[0][sfb];
        int32_t any = 0;
        for (; pos < end; ++pos) {
            // 0 gives +0.0f, the bits of the integer 0 it replaces: no branch on the value.
            const int32_t q = LoadSlotInt(s + pos);
            s[pos] = Dequantize(q, f);
            any |= q;
        }
        if (any != 0) maxLong = sfb;
        if (pos >= lineCount) break;
    }
    info[kBandMax] = maxLong;
    info[kBandHasShort] = 0;
    if (firstShort == 12) return;

    const int32_t start = pos;
    float windowGain[3];
    for (int w = 0; w < 3; ++w) {
        info[kBandMaxShort + w] = firstShort;
        windowGain[w] = base * SubblockGainTable[g.subblock_gain[w] & 7];
    }
    int32_t b = 0;
    for (int32_t sfb = firstShort; sfb <= 12; ++sfb) {
        const int32_t width = BandWidth[1][sfb];
        for (int w = 0; w < 3; ++w) {
            const float f = windowGain[w] * scale[0][sf.shortSf[w][sfb]];
            float* dst = ReorderBuffer + b + w;
            int32_t any = 0;
            for (int32_t i = 0; i < width; ++i, ++pos) {
                const int32_t q = LoadSlotInt(s + pos);
                dst[3 * i] = Dequantize(q, f);
                any |= q;
            }
            if (any != 0) info[kBandMaxShort + w] = sfb;
        }
        b += 3 * width;
        if (pos >= lineCount) break;
    }
    std::memcpy(s + start, ReorderBuffer, sizeof(float) * (pos - start));
    LineCount[gr][ch] = pos;
    int32_t maxShort = info[kBandMaxShort];
    if (info[kBandMaxShort + 1] > maxShort) maxShort = info[kBandMaxShort + 1];
    if (info[kBandMaxShort + 2] > maxShort) maxShort = info[kBandMaxShort + 2];
    info[kBandMax] = maxShort;
    info[kBandHasShort] = 1;
}
