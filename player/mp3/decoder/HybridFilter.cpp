// Hybrid filter bank: per subband an inverse MDCT (one 36-point or three 12-point transforms),
// the block window, overlap-add with the previous granule's tail, and frequency inversion of the
// odd subbands. The spectrum buffer is transformed in place and then holds the windowed second
// half of each transform, which is the next granule's overlap: no separate overlap store exists.

#include "player/mp3/decoder/HybridFilter.h"

#include "player/mp3/decoder/SynthTables.h"

namespace {

constexpr int32_t kSlots = 18;

int32_t SubbandsFor(int32_t lines)
{
    return (lines + 17) / 18;
}

// Long block: the 36-point result of f (as InverseMdct36 leaves it) windowed by bw, first half
// added to the previous tail into the slots, second half left in f as the next overlap.
void WindowLong(float* f, const float* prev, float out[18][32], int32_t sb, const float* bw)
{
    for (int j = 0; j < 9; ++j) {
        out[j][sb] = prev[j] + bw[j] * f[9 + j];
        out[9 + j][sb] = prev[9 + j] + bw[9 + j] * f[17 - j];
    }
    for (int j = 0; j < 4; ++j) {
        const float xa = f[j];
        const float xb = f[8 - j];
        f[j] = bw[18 + j] * xb;
        f[8 - j] = bw[26 - j] * xa;
        f[9 + j] = bw[27 + j] * xa;
        f[17 - j] = bw[35 - j] * xb;
    }
    const float xa = f[4];
    f[4] = bw[22] * xa;
    f[13] = bw[31] * xa;
}

// Short block: the three windows of f (as InverseMdct12x3 leaves them) overlapped at positions
// 6, 12 and 18 of the 36-value block. Slots 0..5 hold only the previous tail.
void WindowShort(float* f, const float* prev, float out[18][32], int32_t sb)
{
    const float* w2 = BlockWindows[2];
    float t[18];
    for (int i = 0; i < 18; ++i)
        t[i] = f[i];
    for (int j = 0; j < 3; ++j) {
        out[j][sb] = prev[j];
        out[3 + j][sb] = prev[3 + j];
        out[6 + j][sb] = prev[6 + j] + w2[j] * t[3 + j];
        out[9 + j][sb] = prev[9 + j] + w2[3 + j] * t[5 - j];
        out[12 + j][sb] = prev[12 + j] + w2[6 + j] * t[2 - j] + w2[j] * t[9 + j];
        out[15 + j][sb] = prev[15 + j] + w2[9 + j] * t[j] + w2[3 + j] * t[11 - j];
    }
    for (int j = 0; j < 3; ++j) {
        f[j] = w2[6 + j] * t[8 - j] + w2[j] * t[15 + j];
        f[3 + j] = w2[9 + j] * t[6 + j] + w2[3 + j] * t[17 - j];
        f[6 + j] = w2[6 + j] * t[14 - j];
        f[9 + j] = w2[9 + j] * t[12 + j];
        f[12 + j] = 0.0f;
        f[15 + j] = 0.0f;
    }
}

// The 9-point cosine sums of the long transform: even outputs from the folded sums v[0..4],
// odd outputs from the folded differences v[5..8]. Row 0 of the cosines is all 1, row 6 and
// the centre term take the values 1/2 and -1, row 3 has two zero coefficients.
void NinePointCosines(const float v[9], float r[9])
{
    const float(*Q)[4] = ImdctCosines;
    r[0] = 0.5f * (v[0] + v[1] + v[2] + v[3] + v[4]);
    r[1] = Q[1][0] * v[5] + Q[1][1] * v[6] + Q[1][2] * v[7] + Q[1][3] * v[8];
    r[2] = Q[2][0] * v[0] + Q[2][1] * v[1] + Q[2][2] * v[2] + Q[2][3] * v[3] - v[4];
    r[3] = Q[3][0] * (v[5] - v[7] - v[8]);
    r[4] = Q[4][0] * v[0] + Q[4][1] * v[1] + Q[4][2] * v[2] + Q[4][3] * v[3] + v[4];
    r[5] = Q[5][0] * v[5] + Q[5][1] * v[6] + Q[5][2] * v[7] + Q[5][3] * v[8];
    r[6] = 0.5f * (v[0] + v[2] + v[3]) - v[1] - v[4];
    r[7] = Q[7][0] * v[5] + Q[7][1] * v[6] + Q[7][2] * v[7] + Q[7][3] * v[8];
    r[8] = Q[8][0] * v[0] + Q[8][1] * v[1] + Q[8][2] * v[2] + Q[8][3] * v[3] + v[4];
}

}  // namespace

void InverseMdct36(float f[18])
{
    const float* T = ImdctPreTwiddle;
    const float* U = ImdctPostTwiddle;

    // Fold the 18 inputs into a 9-point even part a and odd part b.
    float a[9];
    float b[9];
    for (int p = 0; p < 4; ++p) {
        const float g1 = T[p] * f[p];
        const float g2 = T[17 - p] * f[17 - p];
        const float h1 = T[8 - p] * f[8 - p];
        const float h2 = T[9 + p] * f[9 + p];
        const float gs = g1 + g2;
        const float hs = h1 + h2;
        const float gd = U[p] * (g1 - g2);
        const float hd = U[8 - p] * (h1 - h2);
        a[p] = gs + hs;
        a[5 + p] = gs - hs;
        b[p] = gd + hd;
        b[5 + p] = gd - hd;
    }
    {
        const float g1 = T[4] * f[4];
        const float g2 = T[13] * f[13];
        a[4] = g1 + g2;
        b[4] = U[4] * (g1 - g2);
    }

    // The two 9-point cosine sums, then the post-twiddle recursion undone by running
    // differences: of the odd part, then of the interleaved sequence (E0, P0, E1, P1, ...).
    float e[9];
    float o[9];
    NinePointCosines(a, e);
    NinePointCosines(b, o);
    float p[9];
    p[0] = o[0];
    for (int k = 1; k < 9; ++k)
        p[k] = o[k] - p[k - 1];
    f[0] = e[0];
    f[1] = p[0] - f[0];
    for (int k = 1; k < 9; ++k) {
        f[2 * k] = e[k] - f[2 * k - 1];
        f[2 * k + 1] = p[k] - f[2 * k];
    }
}

void InverseMdct12x3(float f[18])
{
    const float* S = ShortPreTwiddle;
    const float* V = ShortPostTwiddle;
    const float K = ShortCos;

    // All three windows' inputs are interleaved over the 18 values; read them before writing.
    float in[18];
    for (int i = 0; i < 18; ++i)
        in[i] = f[i];

    for (int w = 0; w < 3; ++w) {
        const float x0 = S[0] * in[w];
        const float x1 = S[1] * in[3 + w];
        const float x2 = S[2] * in[6 + w];
        const float x3 = S[3] * in[9 + w];
        const float x4 = S[4] * in[12 + w];
        const float x5 = S[5] * in[15 + w];
        const float b0 = x0 + x5;
        const float b3 = V[0] * (x0 - x5);
        const float b1 = x1 + x4;
        const float b4 = V[1] * (x1 - x4);
        const float b2 = x2 + x3;
        const float b5 = V[2] * (x2 - x3);

        const float e0 = b0 + b1 + b2;
        const float e1 = K * (b0 - b2);
        const float e2 = b0 + b2 - 2.0f * b1;
        const float p0 = b3 + b4 + b5;
        const float p1 = K * (b3 - b5) - p0;
        const float p2 = (b3 + b5 - 2.0f * b4) - p1;

        float* r = f + 6 * w;
        r[0] = e0;
        r[1] = p0 - r[0];
        r[2] = e1 - r[1];
        r[3] = p1 - r[2];
        r[4] = e2 - r[3];
        r[5] = p2 - r[4];
    }
}

int32_t HybridTransform(float* x, const float* prev, float out[18][32], int32_t blockType,
                        int32_t longLines, int32_t totalLines, int32_t prevLines, int32_t limitLines)
{
    // The long part of a mixed block uses the normal window.
    const float* bw = BlockWindows[blockType == 2 ? 0 : (blockType & 3)];

    int32_t sb = 0;
    const int32_t longEnd = SubbandsFor(longLines);
    for (; sb < longEnd; ++sb, x += 18, prev += 18) {
        InverseMdct36(x);
        WindowLong(x, prev, out, sb, bw);
    }
    const int32_t shortEnd = SubbandsFor(totalLines);
    for (; sb < shortEnd; ++sb, x += 18, prev += 18) {
        InverseMdct12x3(x);
        WindowShort(x, prev, out, sb);
    }
    // The previous granule reached higher: its tail still has to be heard.
    const int32_t prevEnd = SubbandsFor(prevLines);
    for (; sb < prevEnd; ++sb, prev += 18) {
        for (int s = 0; s < kSlots; ++s)
            out[s][sb] = prev[s];
    }
    const int32_t produced = 18 * sb;
    const int32_t limitEnd = SubbandsFor(limitLines);
    for (; sb < limitEnd; ++sb) {
        for (int s = 0; s < kSlots; ++s)
            out[s][sb] = 0.0f;
    }
    return produced;
}

void InvertOddSubbands(float out[18][32], int32_t lines)
{
    const int32_t n = SubbandsFor(lines);
    for (int s = 1; s < kSlots; s += 2) {
        for (int32_t sb = 1; sb < n; sb += 2)
            out[s][sb] = -out[s][sb];
    }
}
