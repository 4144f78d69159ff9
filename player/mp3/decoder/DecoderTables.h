#pragma once
// Process-wide constant tables of the Layer III decoder. The stored tables are constant data;
// the computed ones are zero until InitDecoderTables runs, which the MP3 player does once before
// its first play, and are only read afterwards.

#include <cstdint>

// One big-value code table: its lookup levels (nullptr when the table has no code), the number
// of linbits that extend an escape value of 15, and how the decoder walks it:
// 0 no code (the region is zero), 1 one lookup level, 2 several levels, 3 several levels and
// linbits; 4 and 5 mark the two count1 tables, which table_select cannot reach.
struct HuffmanTableInfo {
    const uint32_t* codes;
    int32_t linbits;
    int32_t kind;
};

// Count1 table A entry for one 6-bit look-ahead: the code's length and its value vwxy.
struct Count1Entry {
    uint8_t length;
    uint8_t value;
};

// A factor pair: (left, right) for intensity stereo, (cs, ca) for the alias butterflies.
struct FactorPair {
    float a;
    float b;
};

// --- Stored tables ---

// Per stream row ((version - 1) x 3 + sampleRateIndex): long boundaries l[0..22], then short
// boundaries s[0..13].
extern const int32_t BandIndexTable[9][37];
// MPEG-1 scale-factor lengths (slen1, slen2) by scalefac_compress.
extern const int32_t SlenTable[16][2];
// MPEG-2/2.5 band counts of the four scale-factor groups by table number and block class
// (0 long, 1 short, 2 mixed); short and mixed rows count bands, not values.
extern const int32_t SfbCountTable[6][3][4];
// Pre-emphasis by preflag, then long band.
extern const int32_t PretabTable[2][22];
// Big-value code tables by table_select (0..31), then the two count1 markers.
extern const HuffmanTableInfo HuffmanTables[34];
extern const Count1Entry Count1TableA[64];

// --- Computed tables ---

// 2^((i - 156) / 4); index global_gain + 6, so that global_gain 210 gives 32768.
extern float GainTable[262];
// 2^(-(s + 1) x (k + p) / 2) by scalefac_scale s, pre-emphasis p, scale factor k.
extern float ScaleTable[2][4][32];
// Signed 4/3 power of i - 32.
extern float Pow43Table[64];
// The cube root of m in double precision, for the escaped values m = 32 .. kMaxEscapedValue
// (15 plus 13 linbits), so that requantizing one takes no cube root: the same doubles the
// direct computation gives.
constexpr int32_t kMaxEscapedValue = 15 + 8191;
extern double EscapeRootTable[kMaxEscapedValue + 1];
// 2^(-2k).
extern float SubblockGainTable[8];
// Alias-reduction butterfly factors (cs, ca).
extern FactorPair AliasTable[8];
// MPEG-1 intensity factors (left, right) by mid/side flag and position 0..7.
extern FactorPair IntensityTable1[2][8];
// MPEG-2/2.5 intensity factors by intensity_scale, mid/side flag and grouped position index.
extern FactorPair IntensityTable2[2][2][64];

// Builds every computed table of the decoder and of the synthesis. Safe to run again (it
// rewrites the same values), but never while a decoder is running.
void InitDecoderTables();
