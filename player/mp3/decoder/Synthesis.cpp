// Polyphase synthesis filter bank: per time slot an unscaled 32-point DCT-II (the matrixing) into
// the channel's ring of 16 slots, then 16 window products per output sample, summed in double
// precision, truncated toward zero and clipped to 16 bits.
//
// The ring keeps 32 of the 64 values the textbook filter bank stores per slot; the other 32
// follow from them by symmetry, which is why one 264-entry window serves both halves of the
// output (samples 0..16 read it forward, samples 17..31 read rows 1..15 backward).
//
// The windowing is built as QUORBEL_SYNTH says (see Synthesis.h): SSE2 here, with the AVX
// windowing of SynthWindowWide.cpp (the same sums, twice as wide) where the processor has it;
// SSE2 alone; or plain C++ without intrinsics, which also matrixes one slot at a time. Every
// sum starts at 0 and adds the same exact double products in the same order in all three, so
// the PCM is the same bit for bit.

#include "player/mp3/decoder/Synthesis.h"

#include "player/mp3/decoder/CpuFeatures.h"

#include "player/mp3/decoder/SynthTables.h"

#include <cstddef>
#include <cstring>

#if !defined(QUORBEL_SYNTH_SCALAR)
#include "player/mp3/decoder/FloatLanes.h"

#include <immintrin.h>
#endif

namespace {

constexpr uint32_t kRingMask = 511;
// Slot positions are multiples of 32 below 512; masking with this keeps a slot inside the ring.
constexpr uint32_t kSlotMask = 511 & ~31u;

// One split stage of the matrixing on blocks of M: sums to the lower half of each block,
// differences scaled by the stage's factors to the upper half.
template <int M, class V>
inline void SplitStage(const V* v, V* f, const float* factors) {
    for (int blk = 0; blk < 32; blk += M) {
        for (int j = 0; j < M / 2; ++j) {
            const V lo = v[blk + j];
            const V hi = v[blk + M - 1 - j];
            f[blk + j] = lo + hi;
            f[blk + M / 2 + j] = (lo - hi) * V(factors[j]);
        }
    }
}

// One merge stage on blocks of M: the even half passes through to the even positions, each odd
// output is the sum of two neighbouring odd-half values (the last one stands alone).
template <int M, class V>
inline void MergeStage(const V* v, V* f) {
    for (int blk = 0; blk < 32; blk += M) {
        for (int j = 0; j < M / 2; ++j) f[blk + 2 * j] = v[blk + j];
        for (int j = 0; j < M / 2 - 1; ++j)
            f[blk + 2 * j + 1] = v[blk + M / 2 + j] + v[blk + M / 2 + j + 1];
        f[blk + M - 1] = v[blk + M - 1];
    }
}

// The unscaled 32-point DCT-II by splitting down to blocks of 2 and merging back up, on two
// scratch arrays that take turns as input and output.
template <class V>
inline void Dct32(const V* x, V* u) {
    V a[32];
    V b[32];
    SplitStage<32>(x, a, DctCoefficients);
    SplitStage<16>(a, b, DctCoefficients + 16);
    SplitStage<8>(b, a, DctCoefficients + 24);
    SplitStage<4>(a, b, DctCoefficients + 28);
    SplitStage<2>(b, a, DctCoefficients + 30);
    MergeStage<4>(a, b);
    MergeStage<8>(b, a);
    MergeStage<16>(a, b);
    MergeStage<32>(b, u);
}

#if defined(QUORBEL_SYNTH_SCALAR)

// Matrixing of four consecutive slots, one after another: the float operations of each slot are
// those of the four lanes of the SSE2 build.
void SynthMatrix4(const float slots[][32], float u[4][32]) {
    for (int t = 0; t < 4; ++t) Dct32(slots[t], u[t]);
}

// A sum truncated toward zero and clipped to 16 bits, as the SSE2 conversion does it: anything
// not below 32767 (a NaN too) gives 32767, anything at or below -32768 gives -32768.
inline int32_t ToSample(double sum) {
    if (!(sum < 32767.0)) return 32767;
    if (sum <= -32768.0) return -32768;
    return static_cast<int32_t>(sum);
}

// Per m, sample i (0..15) adds its first product, ring[o + 16 + i + 64m] x W[16i + 2m], then
// subtracts its second, ring[o + 48 - i + 64m] x W[16i + 2m + 1]; sample 32 - i (i >= 1) adds
// the same two ring values times W[16i + 15 - 2m] and W[16i + 14 - 2m]. A float times a float
// is exact in double, so these sums are the SIMD builds' lanes bit for bit.
void SynthWindowToPcmScalar(const float ring[512], uint32_t offset, uint8_t* pcm, int32_t stride) {
    const uint32_t o = offset & kSlotMask;
    double sums[32];
    for (uint32_t i = 0; i < 16; ++i) {
        const float* w = SynthWindow + 16 * i;
        double fwd = 0.0;
        double bwd = 0.0;
        for (uint32_t m = 0; m < 8; ++m) {
            const double a = ring[(o + 16 + i + 64 * m) & kRingMask];
            const double b = ring[(o + 48 - i + 64 * m) & kRingMask];
            fwd += a * w[2 * m];
            fwd -= b * w[2 * m + 1];
            bwd += a * w[15 - 2 * m];
            bwd += b * w[14 - 2 * m];
        }
        sums[i] = fwd;
        if (i != 0) sums[32 - i] = bwd;
    }
    // Sample 16 has its own eight entries and one product per m.
    double s16 = 0.0;
    for (uint32_t m = 0; m < 8; ++m) {
        s16 += static_cast<double>(SynthWindow[256 + m]) *
               static_cast<double>(ring[(o + 32 + 64 * m) & kRingMask]);
    }
    sums[16] = s16;
    // Little-endian whatever the processor, like the PCM block.
    for (int k = 0; k < 32; ++k) {
        const uint32_t sample = static_cast<uint32_t>(ToSample(sums[k]));
        uint8_t* p = pcm + 2 * static_cast<size_t>(stride) * static_cast<size_t>(k);
        p[0] = static_cast<uint8_t>(sample & 0xFF);
        p[1] = static_cast<uint8_t>((sample >> 8) & 0xFF);
    }
}

#else

// Matrixing of four consecutive slots at once, one per lane: the slots are transposed in,
// transformed together and transposed out to u[slot][k].
void SynthMatrix4(const float slots[][32], float u[4][32]) {
    FloatLanes x[32];
    for (int n = 0; n < 32; n += 4) {
        __m128 r0 = _mm_loadu_ps(&slots[0][n]);
        __m128 r1 = _mm_loadu_ps(&slots[1][n]);
        __m128 r2 = _mm_loadu_ps(&slots[2][n]);
        __m128 r3 = _mm_loadu_ps(&slots[3][n]);
        TransposeLanes(r0, r1, r2, r3);
        x[n] = FloatLanes(r0);
        x[n + 1] = FloatLanes(r1);
        x[n + 2] = FloatLanes(r2);
        x[n + 3] = FloatLanes(r3);
    }
    FloatLanes r[32];
    Dct32(x, r);
    for (int k = 0; k < 32; k += 4) StoreTransposed(r + k, &u[0][k], 32);
}

// The window sums of one slot, kept in registers as lanes of two samples each:
//   fwd[g] = (sample 2g, sample 2g + 1), bwd[g] = (sample 32 - 2g, sample 31 - 2g), g = 0..7;
// the first lane of bwd[0] (there is no sample 32) holds 0. s16 is sample 16.
struct WindowSums {
    __m128d fwd[8];
    __m128d bwd[8];
    double s16;
};

// Samples r, r + 1 (forward) and 32 - r, 31 - r (backward) read the same two ring values per m:
// the first products at o + 16 + r + 64m and its neighbour, the second products at
// o + 48 - r + 64m and the neighbour below. Each lane is one sample's sum, so every sum still
// starts at 0 and adds its products in order: m ascending, first product then second. Four such
// groups run side by side (r = r0 .. r0 + 7) so that eight independent chains of additions are
// in flight. Their ring values are eight consecutive floats on each side, and a run of eight
// never straddles the ring's end: o is a multiple of 32 and each run lies within one aligned
// block of 32.
inline void WindowHalf(const float* ring, uint32_t o, uint32_t r0, __m128d fwd[4], __m128d bwd[4]) {
    const double(*w0)[4][2] = SynthWindowLanes.w[r0 / 2];
    const double(*w1)[4][2] = SynthWindowLanes.w[r0 / 2 + 1];
    const double(*w2)[4][2] = SynthWindowLanes.w[r0 / 2 + 2];
    const double(*w3)[4][2] = SynthWindowLanes.w[r0 / 2 + 3];
    __m128d fwd0 = _mm_setzero_pd(), fwd1 = _mm_setzero_pd();
    __m128d fwd2 = _mm_setzero_pd(), fwd3 = _mm_setzero_pd();
    __m128d bwd0 = _mm_setzero_pd(), bwd1 = _mm_setzero_pd();
    __m128d bwd2 = _mm_setzero_pd(), bwd3 = _mm_setzero_pd();
    for (uint32_t m = 0; m < 8; ++m) {
        const uint32_t base = o + 64 * m;
        // First products: ring[base + 16 + r0 + t], t = 0..7, in sample order.
        const float* pa = ring + ((base + 16 + r0) & kRingMask);
        const __m128 aLo = _mm_loadu_ps(pa);
        const __m128 aHi = _mm_loadu_ps(pa + 4);
        const __m128d a0 = _mm_cvtps_pd(aLo);
        const __m128d a1 = _mm_cvtps_pd(_mm_movehl_ps(aLo, aLo));
        const __m128d a2 = _mm_cvtps_pd(aHi);
        const __m128d a3 = _mm_cvtps_pd(_mm_movehl_ps(aHi, aHi));
        // Second products: ring[base + 48 - r0 - t], t = 0..7, stored downward.
        const float* pb = ring + ((base + 41 - r0) & kRingMask);
        const __m128 bLo = _mm_loadu_ps(pb);
        const __m128 bHi = _mm_loadu_ps(pb + 4);
        const __m128 bHiRev = _mm_shuffle_ps(bHi, bHi, _MM_SHUFFLE(0, 1, 2, 3));
        const __m128 bLoRev = _mm_shuffle_ps(bLo, bLo, _MM_SHUFFLE(0, 1, 2, 3));
        const __m128d b0 = _mm_cvtps_pd(bHiRev);
        const __m128d b1 = _mm_cvtps_pd(_mm_movehl_ps(bHiRev, bHiRev));
        const __m128d b2 = _mm_cvtps_pd(bLoRev);
        const __m128d b3 = _mm_cvtps_pd(_mm_movehl_ps(bLoRev, bLoRev));

        fwd0 = _mm_add_pd(fwd0, _mm_mul_pd(a0, _mm_load_pd(w0[m][0])));
        fwd1 = _mm_add_pd(fwd1, _mm_mul_pd(a1, _mm_load_pd(w1[m][0])));
        fwd2 = _mm_add_pd(fwd2, _mm_mul_pd(a2, _mm_load_pd(w2[m][0])));
        fwd3 = _mm_add_pd(fwd3, _mm_mul_pd(a3, _mm_load_pd(w3[m][0])));
        bwd0 = _mm_add_pd(bwd0, _mm_mul_pd(a0, _mm_load_pd(w0[m][2])));
        bwd1 = _mm_add_pd(bwd1, _mm_mul_pd(a1, _mm_load_pd(w1[m][2])));
        bwd2 = _mm_add_pd(bwd2, _mm_mul_pd(a2, _mm_load_pd(w2[m][2])));
        bwd3 = _mm_add_pd(bwd3, _mm_mul_pd(a3, _mm_load_pd(w3[m][2])));
        fwd0 = _mm_add_pd(fwd0, _mm_mul_pd(b0, _mm_load_pd(w0[m][1])));
        fwd1 = _mm_add_pd(fwd1, _mm_mul_pd(b1, _mm_load_pd(w1[m][1])));
        fwd2 = _mm_add_pd(fwd2, _mm_mul_pd(b2, _mm_load_pd(w2[m][1])));
        fwd3 = _mm_add_pd(fwd3, _mm_mul_pd(b3, _mm_load_pd(w3[m][1])));
        bwd0 = _mm_add_pd(bwd0, _mm_mul_pd(b0, _mm_load_pd(w0[m][3])));
        bwd1 = _mm_add_pd(bwd1, _mm_mul_pd(b1, _mm_load_pd(w1[m][3])));
        bwd2 = _mm_add_pd(bwd2, _mm_mul_pd(b2, _mm_load_pd(w2[m][3])));
        bwd3 = _mm_add_pd(bwd3, _mm_mul_pd(b3, _mm_load_pd(w3[m][3])));
    }
    fwd[0] = fwd0;
    fwd[1] = fwd1;
    fwd[2] = fwd2;
    fwd[3] = fwd3;
    bwd[0] = bwd0;
    bwd[1] = bwd1;
    bwd[2] = bwd2;
    bwd[3] = bwd3;
}

inline void Window(const float* ring, uint32_t offset, WindowSums& sums) {
    const uint32_t o = offset & kSlotMask;
    WindowHalf(ring, o, 0, sums.fwd, sums.bwd);
    WindowHalf(ring, o, 8, sums.fwd + 4, sums.bwd + 4);
    // Sample 16 has its own eight entries and one product per m.
    double s16 = 0.0;
    for (uint32_t m = 0; m < 8; ++m) {
        s16 += static_cast<double>(SynthWindow[256 + m]) *
               static_cast<double>(ring[(o + 32 + 64 * m) & kRingMask]);
    }
    sums.s16 = s16;
}

// Truncates two sums toward zero into the low two int32 lanes. Values above 32767 are first
// brought down to it; values below -32768 truncate to themselves or, beyond the 32-bit range,
// to INT32_MIN, and the 16-bit packing then clips them. Clipping first and truncating after
// give the same result for every sum.
inline __m128i Truncate(__m128d s) {
    return _mm_cvttpd_epi32(_mm_min_pd(s, _mm_set1_pd(32767.0)));
}

// Eight sums (four lanes of two) to eight 16-bit samples, clipped.
inline __m128i ToPcm(const __m128d s[4]) {
    const __m128i lo = _mm_unpacklo_epi64(Truncate(s[0]), Truncate(s[1]));
    const __m128i hi = _mm_unpacklo_epi64(Truncate(s[2]), Truncate(s[3]));
    return _mm_packs_epi32(lo, hi);
}

inline __m128i ReverseWords(__m128i v) {
    v = _mm_shufflelo_epi16(v, _MM_SHUFFLE(0, 1, 2, 3));
    v = _mm_shufflehi_epi16(v, _MM_SHUFFLE(0, 1, 2, 3));
    return _mm_shuffle_epi32(v, _MM_SHUFFLE(1, 0, 3, 2));
}

inline void Store16(uint8_t* p, int v) {
    // Only x86 runs this code, and it stores 16-bit values little-endian like the PCM block.
    const uint16_t sample = static_cast<uint16_t>(v);
    std::memcpy(p, &sample, sizeof sample);
}

inline void StoreEightStrided(__m128i v, uint8_t* p, size_t step) {
    Store16(p, _mm_extract_epi16(v, 0));
    Store16(p + step, _mm_extract_epi16(v, 1));
    Store16(p + 2 * step, _mm_extract_epi16(v, 2));
    Store16(p + 3 * step, _mm_extract_epi16(v, 3));
    Store16(p + 4 * step, _mm_extract_epi16(v, 4));
    Store16(p + 5 * step, _mm_extract_epi16(v, 5));
    Store16(p + 6 * step, _mm_extract_epi16(v, 6));
    Store16(p + 7 * step, _mm_extract_epi16(v, 7));
}

inline void StorePcm(const WindowSums& sums, uint8_t* pcm, int32_t stride) {
    SynthStorePcm(ToPcm(sums.fwd), ToPcm(sums.fwd + 4), ToPcm(sums.bwd), ToPcm(sums.bwd + 4),
                  _mm_packs_epi32(Truncate(_mm_set_sd(sums.s16)), _mm_setzero_si128()), pcm,
                  stride);
}

void SynthWindowToPcmSse2(const float ring[512], uint32_t offset, uint8_t* pcm, int32_t stride) {
    WindowSums w;
    Window(ring, offset, w);
    StorePcm(w, pcm, stride);
}

#endif

typedef void (*WindowToPcm)(const float* ring, uint32_t offset, uint8_t* pcm, int32_t stride);

// The windowing of this build; in the default build the AVX one where the processor and the
// system support it, chosen on first use.
WindowToPcm ChosenWindowing() {
#if defined(QUORBEL_SYNTH_SCALAR)
    return SynthWindowToPcmScalar;
#elif defined(QUORBEL_SYNTH_SSE2)
    return SynthWindowToPcmSse2;
#else
    static const WindowToPcm chosen = CpuHasAvx() ? SynthWindowToPcmAvx : SynthWindowToPcmSse2;
    return chosen;
#endif
}

}  // namespace

#if !defined(QUORBEL_SYNTH_SCALAR)
void SynthStorePcm(__m128i first, __m128i second, __m128i back, __m128i upper, __m128i s16,
                   uint8_t* pcm, int32_t stride) {
    const __m128i top = ReverseWords(back);      // 25..32
    const __m128i rising = ReverseWords(upper);  // 17..24
    // Shifting by one sample makes room for 16 and 24 in front and drops the missing 32.
    const __m128i third = _mm_insert_epi16(_mm_slli_si128(rising, 2), _mm_extract_epi16(s16, 0), 0);
    const __m128i fourth =
        _mm_insert_epi16(_mm_slli_si128(top, 2), _mm_extract_epi16(rising, 7), 0);
    if (stride == 1) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pcm), first);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pcm + 16), second);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pcm + 32), third);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pcm + 48), fourth);
        return;
    }
    const size_t step = 2 * static_cast<size_t>(stride);
    StoreEightStrided(first, pcm, step);
    StoreEightStrided(second, pcm + 8 * step, step);
    StoreEightStrided(third, pcm + 16 * step, step);
    StoreEightStrided(fourth, pcm + 24 * step, step);
}
#endif

void SynthMatrix(const float x[32], float ring[512], uint32_t offset) {
    Dct32(x, ring + (offset & kSlotMask));
}

void SynthWindowToPcm(const float ring[512], uint32_t offset, uint8_t* pcm, int32_t stride) {
    ChosenWindowing()(ring, offset, pcm, stride);
}

void SynthesizeSlots(const float slots[18][32], float ring[512], uint32_t* offset, uint8_t* pcm,
                     int32_t stride) {
    uint32_t o = *offset & kSlotMask;
    const size_t slotBytes = 32 * 2 * static_cast<size_t>(stride);
    const WindowToPcm windowToPcm = ChosenWindowing();

    // Four slots are matrixed together, but each enters the ring only when its turn comes: the
    // slot after it goes where the oldest slot still read by its windowing lies. The last group
    // is slots 14..17, of which 14 and 15 are already done.
    alignas(16) float u[4][32];
    for (int s = 0; s < 18; s += 4) {
        const int first = s < 14 ? s : 14;
        SynthMatrix4(slots + first, u);
        for (int t = s - first; t < 4; ++t) {
            std::memcpy(ring + o, u[t], sizeof u[t]);
            windowToPcm(ring, o, pcm, stride);
            o = (o - 32) & kRingMask;
            pcm += slotBytes;
        }
    }
    *offset = o;
}
