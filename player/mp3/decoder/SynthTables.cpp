// Computed tables of the hybrid filter bank and the polyphase synthesis. Every value is evaluated
// in double precision and stored as the nearest float, so that all decoders see the same factors
// whatever the compiler does with intermediate precision.

#include "player/mp3/decoder/SynthTables.h"

#include <cmath>

float DctCoefficients[31];
float ImdctPreTwiddle[18];
float ImdctPostTwiddle[9];
float ImdctCosines[9][4];
float ShortPreTwiddle[6];
float ShortPostTwiddle[3];
float ShortCos;
float BlockWindows[4][36];

namespace {

double Pi() {
    return 4.0 * std::atan(1.0);
}

SynthWindowLaneTable BuildSynthWindowLanes() {
    SynthWindowLaneTable t = {};
    for (int g = 0; g < 8; ++g) {
        const int r = 2 * g;
        for (int m = 0; m < 8; ++m) {
            double(&w)[4][2] = t.w[g][m];
            w[0][0] = SynthWindow[16 * r + 2 * m];
            w[0][1] = SynthWindow[16 * r + 16 + 2 * m];
            w[1][0] = -static_cast<double>(SynthWindow[16 * r + 2 * m + 1]);
            w[1][1] = -static_cast<double>(SynthWindow[16 * r + 17 + 2 * m]);
            w[2][0] = r == 0 ? 0.0 : SynthWindow[16 * r + 15 - 2 * m];
            w[2][1] = SynthWindow[16 * r + 31 - 2 * m];
            w[3][0] = r == 0 ? 0.0 : SynthWindow[16 * r + 14 - 2 * m];
            w[3][1] = SynthWindow[16 * r + 30 - 2 * m];
        }
    }
    return t;
}

}  // namespace

// SynthWindow is constant-initialised data, so it is complete before this dynamic initialiser
// runs, whatever the order of units.
const SynthWindowLaneTable SynthWindowLanes = BuildSynthWindowLanes();

void InitDctCoefficients() {
    // One group per block size M = 2n of the matrixing's split stages, largest first.
    const double pi = Pi();
    int k = 0;
    for (int n = 16; n >= 1; n /= 2) {
        for (int p = 0; p < n; ++p)
            DctCoefficients[k++] = static_cast<float>(0.5 / std::cos(pi * (2 * p + 1) / (4 * n)));
    }
}

void InitImdctTables() {
    const double pi = Pi();
    for (int p = 0; p < 18; ++p)
        ImdctPreTwiddle[p] = static_cast<float>(2.0 * std::cos(pi * (2 * p + 1) / 72.0));
    for (int p = 0; p < 9; ++p)
        ImdctPostTwiddle[p] = static_cast<float>(2.0 * std::cos(pi * (2 * p + 1) / 36.0));
    for (int k = 0; k < 9; ++k) {
        for (int p = 0; p < 4; ++p)
            ImdctCosines[k][p] = static_cast<float>(std::cos(pi * (2 * k) * (2 * p + 1) / 36.0));
    }
    for (int p = 0; p < 6; ++p)
        ShortPreTwiddle[p] = static_cast<float>(2.0 * std::cos(pi * (2 * p + 1) / 24.0));
    for (int p = 0; p < 3; ++p)
        ShortPostTwiddle[p] = static_cast<float>(2.0 * std::cos(pi * (2 * p + 1) / 12.0));
    // The short transform wants the plain cosine on its inputs; halving a float is exact.
    for (int p = 0; p < 6; ++p) ShortPreTwiddle[p] *= 0.5f;
    ShortCos = static_cast<float>(2.0 * std::cos(pi / 6.0));
}

void InitBlockWindows() {
    const double pi = Pi();
    float(&normal)[36] = BlockWindows[0];
    float(&start)[36] = BlockWindows[1];
    float(&shortWin)[36] = BlockWindows[2];
    float(&stop)[36] = BlockWindows[3];

    for (int i = 0; i < 36; ++i) normal[i] = static_cast<float>(std::sin(pi / 36.0 * (i + 0.5)));

    for (int i = 0; i < 18; ++i) start[i] = static_cast<float>(std::sin(pi / 36.0 * (i + 0.5)));
    for (int i = 18; i < 24; ++i) start[i] = 1.0f;
    for (int i = 24; i < 30; ++i)
        start[i] = static_cast<float>(std::sin(pi / 12.0 * (i - 18 + 0.5)));
    for (int i = 30; i < 36; ++i) start[i] = 0.0f;

    for (int i = 0; i < 6; ++i) stop[i] = 0.0f;
    for (int i = 6; i < 12; ++i) stop[i] = static_cast<float>(std::sin(pi / 12.0 * (i - 6 + 0.5)));
    for (int i = 12; i < 18; ++i) stop[i] = 1.0f;
    for (int i = 18; i < 36; ++i) stop[i] = static_cast<float>(std::sin(pi / 36.0 * (i + 0.5)));

    for (int i = 0; i < 12; ++i) shortWin[i] = static_cast<float>(std::sin(pi / 12.0 * (i + 0.5)));
    for (int i = 12; i < 36; ++i) shortWin[i] = 0.0f;

    // The fast transforms deliver these stretches with the opposite sign; folding the sign
    // into the window costs nothing per sample.
    const int longRows[3] = {0, 1, 3};
    for (int b : longRows) {
        for (int i = 9; i < 36; ++i) BlockWindows[b][i] = -BlockWindows[b][i];
    }
    for (int i = 3; i < 12; ++i) shortWin[i] = -shortWin[i];
}
