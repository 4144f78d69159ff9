// Small stored tables of the scale-factor stage and the computed tables of the decoder. The
// Huffman and band tables live in generated units of their own (HuffmanTables.cpp,
// BandTables.cpp).

#include "player/mp3/decoder/DecoderTables.h"

#include <cmath>

#include "player/mp3/decoder/SynthTables.h"

const int32_t SlenTable[16][2] = {
    {0, 0}, {0, 1}, {0, 2}, {0, 3}, {3, 0}, {1, 1}, {1, 2}, {1, 3},
    {2, 1}, {2, 2}, {2, 3}, {3, 1}, {3, 2}, {3, 3}, {4, 2}, {4, 3},
};

const int32_t SfbCountTable[6][3][4] = {
    {{6, 5, 5, 5}, {3, 3, 3, 3}, {6, 3, 3, 3}},   {{6, 5, 7, 3}, {3, 3, 4, 2}, {6, 3, 4, 2}},
    {{11, 10, 0, 0}, {6, 6, 0, 0}, {6, 3, 6, 0}}, {{7, 7, 7, 0}, {4, 4, 4, 0}, {6, 5, 4, 0}},
    {{6, 6, 6, 3}, {4, 3, 3, 2}, {6, 4, 3, 2}},   {{8, 8, 5, 0}, {5, 4, 3, 0}, {6, 6, 3, 0}},
};

const int32_t PretabTable[2][22] = {
    {0},
    {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 3, 3, 3, 2, 0},
};

float GainTable[262];
float ScaleTable[2][4][32];
float Pow43Table[64];
double EscapeRootTable[kMaxEscapedValue + 1];
float SubblockGainTable[8];
FactorPair AliasTable[8];
FactorPair IntensityTable1[2][8];
FactorPair IntensityTable2[2][2][64];

namespace {

const double kAliasCoefficients[8] = {-0.6,   -0.535, -0.33,   -0.185,
                                      -0.095, -0.041, -0.0142, -0.0037};

void InitGainTables() {
    for (int i = 0; i < 262; ++i)
        GainTable[i] = static_cast<float>(std::pow(2.0, 0.25 * (i - 156)));
    for (int s = 0; s < 2; ++s)
        for (int p = 0; p < 4; ++p)
            for (int k = 0; k < 32; ++k)
                ScaleTable[s][p][k] = static_cast<float>(std::pow(2.0, -0.5 * (s + 1) * (k + p)));
    for (int i = 0; i < 64; ++i) {
        const double x = i - 32;
        Pow43Table[i] = static_cast<float>(std::pow(std::fabs(x), 1.0 / 3.0) * x);
    }
    for (int32_t m = 32; m <= kMaxEscapedValue; ++m) EscapeRootTable[m] = std::cbrt(double(m));
    for (int k = 0; k < 8; ++k) SubblockGainTable[k] = static_cast<float>(std::pow(2.0, -2.0 * k));
}

void InitAliasTable() {
    for (int i = 0; i < 8; ++i) {
        const double c = kAliasCoefficients[i];
        const double q = std::sqrt(1.0 + c * c);
        AliasTable[i].a = static_cast<float>(1.0 / q);
        AliasTable[i].b = static_cast<float>(c / q);
    }
}

void InitIntensityTables() {
    const double pi = 4.0 * std::atan(1.0);
    const double root2 = std::sqrt(2.0);
    for (int p = 0; p < 7; ++p) {
        const double a = p * pi / 12.0;
        const double kl = std::sin(a) / (std::sin(a) + std::cos(a));
        const double kr = std::cos(a) / (std::sin(a) + std::cos(a));
        IntensityTable1[0][p] = {static_cast<float>(kl), static_cast<float>(kr)};
        IntensityTable1[1][p] = {static_cast<float>(root2 * kl), static_cast<float>(root2 * kr)};
    }
    // Position 7 leaves the band as plain stereo; under mid/side that means R := L.
    IntensityTable1[0][7] = {1.0f, 0.0f};
    IntensityTable1[1][7] = {1.0f, 1.0f};

    for (int s = 0; s < 2; ++s) {
        const double io = std::pow(2.0, -0.25 * (s + 1));
        for (int m = 0; m < 2; ++m) {
            const double f = m ? root2 : 1.0;
            FactorPair* t = IntensityTable2[s][m];
            int index = 0;
            for (int len = 0; len <= 5; ++len) {
                const int n = 1 << len;
                for (int p = 0; p < n - 1; ++p) {
                    double kl = f, kr = f;
                    if (p & 1)
                        kl = std::pow(io, (p + 1) / 2) * f;
                    else if (p > 0)
                        kr = std::pow(io, p / 2) * f;
                    t[index++] = {static_cast<float>(kl), static_cast<float>(kr)};
                }
                // The largest position a length can code is the illegal one.
                t[index++] = m ? FactorPair{1.0f, 1.0f} : FactorPair{1.0f, 0.0f};
            }
            t[63] = {0.0f, 0.0f};
        }
    }
}

}  // namespace

void InitDecoderTables() {
    InitGainTables();
    InitAliasTable();
    InitIntensityTables();
    InitDctCoefficients();
    InitImdctTables();
    InitBlockWindows();
}
