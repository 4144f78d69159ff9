// Hybrid filter bank: per subband an inverse MDCT (one 36-point or three 12-point transforms),
// the block window, overlap-add with the previous granule's tail, and frequency inversion of the
// odd subbands. The spectrum buffer is transformed in place and then holds the windowed second
// half of each transform, which is the next granule's overlap: no separate overlap store exists.
//
// Every subband of a phase goes through the same arithmetic, so four neighbouring subbands are
// transformed side by side, one per SSE lane (FloatLanes); a lone subband takes the same
// template with float.

#include "player/mp3/decoder/HybridFilter.h"

#include "player/mp3/decoder/FloatLanes.h"
#include "player/mp3/decoder/SynthTables.h"

#include <immintrin.h>

namespace {

constexpr int32_t kSlots = 18;

int32_t SubbandsFor(int32_t lines) {
    return (lines + 17) / 18;
}

// The 9-point cosine sums of the long transform: even outputs from the folded sums v[0..4],
// odd outputs from the folded differences v[5..8]. Row 0 of the cosines is all 1, row 6 and
// the centre term take the values 1/2 and -1, row 3 has two zero coefficients.
template <class V>
inline void NinePointCosines(const V v[9], V r[9]) {
    const float(*Q)[4] = ImdctCosines;
    r[0] = V(0.5f) * (v[0] + v[1] + v[2] + v[3] + v[4]);
    r[1] = V(Q[1][0]) * v[5] + V(Q[1][1]) * v[6] + V(Q[1][2]) * v[7] + V(Q[1][3]) * v[8];
    r[2] = V(Q[2][0]) * v[0] + V(Q[2][1]) * v[1] + V(Q[2][2]) * v[2] + V(Q[2][3]) * v[3] - v[4];
    r[3] = V(Q[3][0]) * (v[5] - v[7] - v[8]);
    r[4] = V(Q[4][0]) * v[0] + V(Q[4][1]) * v[1] + V(Q[4][2]) * v[2] + V(Q[4][3]) * v[3] + v[4];
    r[5] = V(Q[5][0]) * v[5] + V(Q[5][1]) * v[6] + V(Q[5][2]) * v[7] + V(Q[5][3]) * v[8];
    r[6] = V(0.5f) * (v[0] + v[2] + v[3]) - v[1] - v[4];
    r[7] = V(Q[7][0]) * v[5] + V(Q[7][1]) * v[6] + V(Q[7][2]) * v[7] + V(Q[7][3]) * v[8];
    r[8] = V(Q[8][0]) * v[0] + V(Q[8][1]) * v[1] + V(Q[8][2]) * v[2] + V(Q[8][3]) * v[3] + v[4];
}

template <class V>
inline void Imdct36(V f[18]) {
    const float* T = ImdctPreTwiddle;
    const float* U = ImdctPostTwiddle;

    // Fold the 18 inputs into a 9-point even part a and odd part b.
    V a[9];
    V b[9];
    for (int p = 0; p < 4; ++p) {
        const V g1 = V(T[p]) * f[p];
        const V g2 = V(T[17 - p]) * f[17 - p];
        const V h1 = V(T[8 - p]) * f[8 - p];
        const V h2 = V(T[9 + p]) * f[9 + p];
        const V gs = g1 + g2;
        const V hs = h1 + h2;
        const V gd = V(U[p]) * (g1 - g2);
        const V hd = V(U[8 - p]) * (h1 - h2);
        a[p] = gs + hs;
        a[5 + p] = gs - hs;
        b[p] = gd + hd;
        b[5 + p] = gd - hd;
    }
    const V g1 = V(T[4]) * f[4];
    const V g2 = V(T[13]) * f[13];
    a[4] = g1 + g2;
    b[4] = V(U[4]) * (g1 - g2);

    // The two 9-point cosine sums, then the post-twiddle recursion undone by running
    // differences: of the odd part, then of the interleaved sequence (E0, P0, E1, P1, ...).
    V e[9];
    V o[9];
    NinePointCosines(a, e);
    NinePointCosines(b, o);
    V p = o[0];
    f[0] = e[0];
    f[1] = p - f[0];
    for (int k = 1; k < 9; ++k) {
        p = o[k] - p;
        f[2 * k] = e[k] - f[2 * k - 1];
        f[2 * k + 1] = p - f[2 * k];
    }
}

template <class V>
inline void Imdct12x3(V f[18]) {
    const float* S = ShortPreTwiddle;
    const float* W = ShortPostTwiddle;
    const V K(ShortCos);

    // All three windows' inputs are interleaved over the 18 values; read them before writing.
    V in[18];
    for (int i = 0; i < 18; ++i) in[i] = f[i];

    for (int w = 0; w < 3; ++w) {
        const V x0 = V(S[0]) * in[w];
        const V x1 = V(S[1]) * in[3 + w];
        const V x2 = V(S[2]) * in[6 + w];
        const V x3 = V(S[3]) * in[9 + w];
        const V x4 = V(S[4]) * in[12 + w];
        const V x5 = V(S[5]) * in[15 + w];
        const V b0 = x0 + x5;
        const V b3 = V(W[0]) * (x0 - x5);
        const V b1 = x1 + x4;
        const V b4 = V(W[1]) * (x1 - x4);
        const V b2 = x2 + x3;
        const V b5 = V(W[2]) * (x2 - x3);

        const V e0 = b0 + b1 + b2;
        const V e1 = K * (b0 - b2);
        const V e2 = b0 + b2 - V(2.0f) * b1;
        const V p0 = b3 + b4 + b5;
        const V p1 = K * (b3 - b5) - p0;
        const V p2 = (b3 + b5 - V(2.0f) * b4) - p1;

        V* r = f + 6 * w;
        r[0] = e0;
        r[1] = p0 - r[0];
        r[2] = e1 - r[1];
        r[3] = p1 - r[2];
        r[4] = e2 - r[3];
        r[5] = p2 - r[4];
    }
}

// Long block: the 36-point result in f (as Imdct36 leaves it) windowed by bw; the first half
// plus the previous tail goes to the 18 slots, the second half stays in f as the next overlap.
template <class V>
inline void WindowLong(V f[18], const V prev[18], V slots[18], const float* bw) {
    for (int j = 0; j < 9; ++j) {
        slots[j] = prev[j] + V(bw[j]) * f[9 + j];
        slots[9 + j] = prev[9 + j] + V(bw[9 + j]) * f[17 - j];
    }
    for (int j = 0; j < 4; ++j) {
        const V xa = f[j];
        const V xb = f[8 - j];
        f[j] = V(bw[18 + j]) * xb;
        f[8 - j] = V(bw[26 - j]) * xa;
        f[9 + j] = V(bw[27 + j]) * xa;
        f[17 - j] = V(bw[35 - j]) * xb;
    }
    const V xa = f[4];
    f[4] = V(bw[22]) * xa;
    f[13] = V(bw[31]) * xa;
}

// Short block: the three windows in f (as Imdct12x3 leaves them) overlapped at positions 6, 12
// and 18 of the 36-value block. Slots 0..5 hold only the previous tail.
template <class V>
inline void WindowShort(V f[18], const V prev[18], V slots[18]) {
    const float* w2 = BlockWindows[2];
    V t[18];
    for (int i = 0; i < 18; ++i) t[i] = f[i];
    for (int j = 0; j < 3; ++j) {
        slots[j] = prev[j];
        slots[3 + j] = prev[3 + j];
        slots[6 + j] = prev[6 + j] + V(w2[j]) * t[3 + j];
        slots[9 + j] = prev[9 + j] + V(w2[3 + j]) * t[5 - j];
        slots[12 + j] = prev[12 + j] + V(w2[6 + j]) * t[2 - j] + V(w2[j]) * t[9 + j];
        slots[15 + j] = prev[15 + j] + V(w2[9 + j]) * t[j] + V(w2[3 + j]) * t[11 - j];
    }
    for (int j = 0; j < 3; ++j) {
        f[j] = V(w2[6 + j]) * t[8 - j] + V(w2[j]) * t[15 + j];
        f[3 + j] = V(w2[9 + j]) * t[6 + j] + V(w2[3 + j]) * t[17 - j];
        f[6 + j] = V(w2[6 + j]) * t[14 - j];
        f[9 + j] = V(w2[9 + j]) * t[12 + j];
        f[12 + j] = V(0.0f);
        f[15 + j] = V(0.0f);
    }
}

// 18 values of each of four consecutive subbands (rows 18 apart) to 18 lane vectors, and back.
void LoadColumns(const float* rows, FloatLanes v[18]) {
    for (int k = 0; k < 16; k += 4) {
        __m128 r0 = _mm_loadu_ps(rows + k);
        __m128 r1 = _mm_loadu_ps(rows + 18 + k);
        __m128 r2 = _mm_loadu_ps(rows + 36 + k);
        __m128 r3 = _mm_loadu_ps(rows + 54 + k);
        TransposeLanes(r0, r1, r2, r3);
        v[k] = FloatLanes(r0);
        v[k + 1] = FloatLanes(r1);
        v[k + 2] = FloatLanes(r2);
        v[k + 3] = FloatLanes(r3);
    }
    // Values 16 and 17 of rows 0/1 and 2/3: (a16, b16, a17, b17), (c16, d16, c17, d17).
    const __m128 ab =
        _mm_unpacklo_ps(_mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(rows + 16)),
                        _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(rows + 34)));
    const __m128 cd =
        _mm_unpacklo_ps(_mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(rows + 52)),
                        _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(rows + 70)));
    v[16] = FloatLanes(_mm_movelh_ps(ab, cd));
    v[17] = FloatLanes(_mm_movehl_ps(cd, ab));
}

void StoreColumns(const FloatLanes v[18], float* rows) {
    for (int k = 0; k < 16; k += 4) StoreTransposed(v + k, rows + k, 18);
    // (a16, a17, b16, b17) and (c16, c17, d16, d17).
    const __m128 ab = _mm_unpacklo_ps(v[16].v, v[17].v);
    const __m128 cd = _mm_unpackhi_ps(v[16].v, v[17].v);
    _mm_storel_pi(reinterpret_cast<__m64*>(rows + 16), ab);
    _mm_storeh_pi(reinterpret_cast<__m64*>(rows + 34), ab);
    _mm_storel_pi(reinterpret_cast<__m64*>(rows + 52), cd);
    _mm_storeh_pi(reinterpret_cast<__m64*>(rows + 70), cd);
}

enum class Block { Long, Short };

// Subbands [sb, end) of one phase: four at a time while four remain, then one at a time.
template <Block kind>
int32_t TransformRange(float* x, const float* prev, float out[18][32], int32_t sb, int32_t end,
                       const float* bw) {
    for (; sb + 4 <= end; sb += 4) {
        FloatLanes f[18];
        FloatLanes p[18];
        FloatLanes slots[18];
        LoadColumns(x + 18 * sb, f);
        LoadColumns(prev + 18 * sb, p);
        if (kind == Block::Long) {
            Imdct36(f);
            WindowLong(f, p, slots, bw);
        } else {
            Imdct12x3(f);
            WindowShort(f, p, slots);
        }
        for (int s = 0; s < kSlots; ++s) _mm_storeu_ps(&out[s][sb], slots[s].v);
        StoreColumns(f, x + 18 * sb);
    }
    for (; sb < end; ++sb) {
        float* f = x + 18 * sb;
        float slots[18];
        if (kind == Block::Long) {
            Imdct36(f);
            WindowLong(f, prev + 18 * sb, slots, bw);
        } else {
            Imdct12x3(f);
            WindowShort(f, prev + 18 * sb, slots);
        }
        for (int s = 0; s < kSlots; ++s) out[s][sb] = slots[s];
    }
    return sb;
}

}  // namespace

void InverseMdct36(float f[18]) {
    Imdct36(f);
}

void InverseMdct12x3(float f[18]) {
    Imdct12x3(f);
}

int32_t HybridTransform(float* x, const float* prev, float out[18][32], int32_t blockType,
                        int32_t longLines, int32_t totalLines, int32_t prevLines,
                        int32_t limitLines) {
    // The long part of a mixed block uses the normal window.
    const float* bw = BlockWindows[blockType == 2 ? 0 : (blockType & 3)];

    int32_t sb = TransformRange<Block::Long>(x, prev, out, 0, SubbandsFor(longLines), bw);
    sb = TransformRange<Block::Short>(x, prev, out, sb, SubbandsFor(totalLines), bw);

    // The previous granule reached higher: its tail still has to be heard.
    const int32_t prevEnd = SubbandsFor(prevLines);
    for (; sb < prevEnd; ++sb) {
        for (int s = 0; s < kSlots; ++s) out[s][sb] = prev[18 * sb + s];
    }
    const int32_t produced = 18 * sb;
    const int32_t limitEnd = SubbandsFor(limitLines);
    for (; sb < limitEnd; ++sb) {
        for (int s = 0; s < kSlots; ++s) out[s][sb] = 0.0f;
    }
    return produced;
}

void InvertOddSubbands(float out[18][32], int32_t lines) {
    const int32_t n = SubbandsFor(lines);
    // Sign flips of the odd lanes, four subbands at a time, then the odd subbands left over.
    const __m128 oddSigns = _mm_castsi128_ps(_mm_set_epi32(INT32_MIN, 0, INT32_MIN, 0));
    const int32_t whole = n & ~3;
    for (int s = 1; s < kSlots; s += 2) {
        for (int32_t sb = 0; sb < whole; sb += 4)
            _mm_storeu_ps(&out[s][sb], _mm_xor_ps(_mm_loadu_ps(&out[s][sb]), oddSigns));
        for (int32_t sb = whole + 1; sb < n; sb += 2) out[s][sb] = -out[s][sb];
    }
}
