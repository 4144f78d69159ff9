// Scale-factor readers: MPEG-1 with scale factor selection information, MPEG-2/2.5 with the
// split scalefac_compress and the intensity-stereo rules of the right channel. A length of 0
// yields 0 and reads nothing (GetBits(0)).

#include "player/mp3/decoder/BitReader.h"
#include "player/mp3/decoder/DecoderTables.h"

namespace {

void ReadShortBands(CMP3Decoder& d, ScaleFactorSet& sf, int first, int end, int32_t slen) {
    for (int sfb = first; sfb < end; ++sfb)
        for (int w = 0; w < 3; ++w) sf.shortSf[w][sfb] = d.GetBits(slen);
}

void ReadLongBands(CMP3Decoder& d, ScaleFactorSet& sf, int first, int end, int32_t slen) {
    for (int sfb = first; sfb < end; ++sfb) sf.longSf[sfb] = d.GetBits(slen);
}

}  // namespace

void CMP3Decoder::ReadScaleFactorsMpeg1(uint32_t gr, uint32_t ch) {
    const GranuleSideInfo& g = GranuleInfo[gr][ch];
    ScaleFactorSet& sf = ScaleFactors[gr][ch];
    const int32_t slen1 = SlenTable[g.scalefac_compress & 15][0];
    const int32_t slen2 = SlenTable[g.scalefac_compress & 15][1];

    if (g.block_type == 2) {
        if (g.mixed_block_flag) {
            ReadLongBands(*this, sf, 0, 8, slen1);
            ReadShortBands(*this, sf, 3, 6, slen1);
        } else {
            ReadShortBands(*this, sf, 0, 6, slen1);
        }
        ReadShortBands(*this, sf, 6, 12, slen2);
        return;
    }
    if (gr == 0) {
        ReadLongBands(*this, sf, 0, 11, slen1);
        ReadLongBands(*this, sf, 11, 21, slen2);
        return;
    }
    // Granule 1: a group whose scfsi bit is set reuses what granule 0 left in its long bands,
    // even when granule 0 was a short block.
    static const int kGroupStart[5] = {0, 6, 11, 16, 21};
    const ScaleFactorSet& first = ScaleFactors[0][ch];
    for (int group = 0; group < 4; ++group) {
        const int32_t slen = group < 2 ? slen1 : slen2;
        const bool reuse = (Scfsi[ch] >> (3 - group)) & 1;
        for (int sfb = kGroupStart[group]; sfb < kGroupStart[group + 1]; ++sfb)
            sf.longSf[sfb] = reuse ? first.longSf[sfb] : GetBits(slen);
    }
}

namespace {

// The rows of MPEG-2's scalefac_compress: where each starts, and the radices of the lengths
// slen[1..3] within it (0: no such length), slen[0] taking what is left. Rows 0 to 2 serve a
// channel without intensity, 3 to 5 the right channel of an intensity frame.
struct CompressRow {
    uint32_t start;
    uint32_t radix[4];
};
const CompressRow kCompressRows[6] = {
    {0, {0, 5, 4, 4}}, {400, {0, 5, 4, 0}}, {500, {0, 3, 0, 0}},
    {0, {0, 6, 6, 0}}, {180, {0, 4, 4, 0}}, {244, {0, 3, 0, 0}},
};

}  // namespace

void CMP3Decoder::ReadScaleFactorsMpeg2(uint32_t gr, uint32_t ch) {
    GranuleSideInfo& g = GranuleInfo[gr][ch];
    ScaleFactorSet& sf = ScaleFactors[gr][ch];
    const uint32_t sfc = g.scalefac_compress;
    const bool isRight = IntensityStereo && ch == 1;

    // The row of the code (the right channel of an intensity frame codes half the value by
    // rows of its own), then the lengths as the digits of the code's offset in the row.
    const uint32_t code = isRight ? sfc >> 1 : sfc;
    int t = isRight ? 3 : 0;
    while (t % 3 < 2 && code >= kCompressRows[t + 1].start) ++t;
    const CompressRow& row = kCompressRows[t];
    uint32_t slen[4] = {0, 0, 0, 0};
    uint32_t x = code - row.start;
    for (int k = 3; k > 0; --k) {
        if (row.radix[k] == 0) continue;
        slen[k] = x % row.radix[k];
        x /= row.radix[k];
    }
    slen[0] = x;
    const uint32_t preflag = t == 2 ? 1 : 0;
    // Mixed rows split the standard's first group (six long bands and three short ones, all
    // with the first length) into group 0 and group 1, so the lengths move up.
    if (t == 2 && g.mixed_block_flag) {
        slen[2] = slen[1];
        slen[1] = slen[0];
    }

    const int b = g.block_type != 2 ? 0 : (g.mixed_block_flag ? 2 : 1);
    const int32_t* count = SfbCountTable[t][b];
    if (isRight) {
        for (int i = 0; i < 3; ++i) {
            IntensityInfo[kIntensityCount + i] = static_cast<uint32_t>(count[i]);
            IntensityInfo[kIntensitySlen + i] = slen[i];
        }
        IntensityInfo[kIntensityScale] = sfc % 2;
    }
    g.preflag = preflag;

    if (b == 0) {
        int sfb = 0;
        for (int i = 0; i < 4; ++i) {
            ReadLongBands(*this, sf, sfb, sfb + count[i], static_cast<int32_t>(slen[i]));
            sfb += count[i];
        }
        return;
    }
    int sfb = 0;
    int group = 0;
    if (b == 2) {
        // Six long bands with the first length whatever count[0] says; short bands from 3 on.
        ReadLongBands(*this, sf, 0, 6, static_cast<int32_t>(slen[0]));
        sfb = 3;
        group = 1;
    }
    for (; group < 4; ++group) {
        ReadShortBands(*this, sf, sfb, sfb + count[group], static_cast<int32_t>(slen[group]));
        sfb += count[group];
    }
}
