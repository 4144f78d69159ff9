// Polyphase synthesis filter bank: per time slot an unscaled 32-point DCT-II (the matrixing) into
// the channel's ring of 16 slots, then 16 window products per output sample, summed in double
// precision, truncated toward zero and clipped to 16 bits.
//
// The ring keeps 32 of the 64 values the textbook filter bank stores per slot; the other 32
// follow from them by symmetry, which is why one 264-entry window serves both halves of the
// output (samples 0..16 read it forward, samples 17..31 read rows 1..15 backward).

#include "player/mp3/decoder/Synthesis.h"

#include "player/mp3/decoder/SynthTables.h"

#include <emmintrin.h>

namespace {

constexpr uint32_t kRingMask = 511;
// Slot positions are multiples of 32 below 512; masking with this keeps a slot inside the ring.
constexpr uint32_t kSlotMask = 511 & ~31u;

// One split stage of the matrixing on blocks of M: sums to the lower half of each block,
// differences scaled by the stage's factors to the upper half.
template <int M>
inline void SplitStage(const float* v, float* f, const float* factors)
{
    for (int blk = 0; blk < 32; blk += M) {
        for (int j = 0; j < M / 2; ++j) {
            const float lo = v[blk + j];
            const float hi = v[blk + M - 1 - j];
            f[blk + j] = lo + hi;
            f[blk + M / 2 + j] = (lo - hi) * factors[j];
        }
    }
}

// One merge stage on blocks of M: the even half passes through to the even positions, each odd
// output is the sum of two neighbouring odd-half values (the last one stands alone).
template <int M>
inline void MergeStage(const float* v, float* f)
{
    for (int blk = 0; blk < 32; blk += M) {
        for (int j = 0; j < M / 2; ++j)
            f[blk + 2 * j] = v[blk + j];
        for (int j = 0; j < M / 2 - 1; ++j)
            f[blk + 2 * j + 1] = v[blk + M / 2 + j] + v[blk + M / 2 + j + 1];
        f[blk + M - 1] = v[blk + M - 1];
    }
}

// Two ring values as doubles; the ring holds floats with no alignment promise beyond 4 bytes.
inline __m128d LoadPair(const float* p)
{
    return _mm_cvtps_pd(_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p))));
}

}  // namespace

void SynthMatrix(const float x[32], float ring[512], uint32_t offset)
{
    const float* F32 = DctCoefficients;
    const float* F16 = DctCoefficients + 16;
    const float* F8 = DctCoefficients + 24;
    const float* F4 = DctCoefficients + 28;
    const float* F2 = DctCoefficients + 30;

    float a[32];
    float b[32];
    SplitStage<32>(x, a, F32);
    SplitStage<16>(a, b, F16);
    SplitStage<8>(b, a, F8);
    SplitStage<4>(a, b, F4);
    SplitStage<2>(b, a, F2);
    MergeStage<4>(a, b);
    MergeStage<8>(b, a);
    MergeStage<16>(a, b);
    MergeStage<32>(b, ring + (offset & kSlotMask));
}

void SynthWindowSums(const float ring[512], uint32_t offset, double sums[32])
{
    const uint32_t o = offset & kSlotMask;

    // Samples r, r + 1 (forward) and 32 - r, 31 - r (backward) read the same two ring values
    // per m: the first products at o + 16 + r + 64m and its neighbour, the second products at
    // o + 48 - r + 64m and the neighbour below. Each lane is one sample's sum, so every sum
    // still starts at 0 and adds its products in order: m ascending, first product then second.
    // A pair never straddles the ring's end: o is a multiple of 32 and each pair lies within
    // one aligned block of 32.
    for (uint32_t g = 0; g < 8; ++g) {
        const uint32_t r = 2 * g;
        const double(*w)[4][2] = SynthWindowLanes.w[g];
        __m128d fwd = _mm_setzero_pd();
        __m128d bwd = _mm_setzero_pd();
        for (uint32_t m = 0; m < 8; ++m) {
            const uint32_t base = o + 64 * m;
            const __m128d first = LoadPair(ring + ((base + 16 + r) & kRingMask));
            const __m128d below = LoadPair(ring + ((base + 47 - r) & kRingMask));
            const __m128d second = _mm_shuffle_pd(below, below, 1);
            fwd = _mm_add_pd(fwd, _mm_mul_pd(first, _mm_load_pd(w[m][0])));
            fwd = _mm_add_pd(fwd, _mm_mul_pd(second, _mm_load_pd(w[m][1])));
            bwd = _mm_add_pd(bwd, _mm_mul_pd(first, _mm_load_pd(w[m][2])));
            bwd = _mm_add_pd(bwd, _mm_mul_pd(second, _mm_load_pd(w[m][3])));
        }
        _mm_storeu_pd(sums + r, fwd);
        _mm_storeh_pd(sums + 31 - r, bwd);
        if (r != 0)
            _mm_storel_pd(sums + 32 - r, bwd);
    }

    // Sample 16 has its own eight entries and one product per m.
    double s16 = 0.0;
    for (uint32_t m = 0; m < 8; ++m) {
        s16 += static_cast<double>(SynthWindow[256 + m]) *
               static_cast<double>(ring[(o + 32 + 64 * m) & kRingMask]);
    }
    sums[16] = s16;
}

void SynthSumsToPcm(const double sums[32], uint8_t* pcm, int32_t stride)
{
    // Clipping before truncating gives the same result as truncating first, for every finite
    // sum, and keeps the conversion inside the 32-bit range where it is exact.
    const __m128d lo = _mm_set1_pd(-32768.0);
    const __m128d hi = _mm_set1_pd(32767.0);
    alignas(16) int16_t samples[32];
    for (int q = 0; q < 4; ++q) {
        __m128i part[4];
        for (int k = 0; k < 4; ++k) {
            __m128d s = _mm_loadu_pd(sums + 8 * q + 2 * k);
            s = _mm_min_pd(_mm_max_pd(s, lo), hi);
            part[k] = _mm_cvttpd_epi32(s);
        }
        const __m128i first = _mm_unpacklo_epi64(part[0], part[1]);
        const __m128i second = _mm_unpacklo_epi64(part[2], part[3]);
        _mm_store_si128(reinterpret_cast<__m128i*>(samples + 8 * q),
                        _mm_packs_epi32(first, second));
    }

    const int32_t step = 2 * stride;
    for (int k = 0; k < 32; ++k) {
        const uint16_t v = static_cast<uint16_t>(samples[k]);
        pcm[step * k] = static_cast<uint8_t>(v & 0xFF);
        pcm[step * k + 1] = static_cast<uint8_t>(v >> 8);
    }
}

void SynthWindowToPcm(const float ring[512], uint32_t offset, uint8_t* pcm, int32_t stride)
{
    alignas(16) double sums[32];
    SynthWindowSums(ring, offset, sums);
    SynthSumsToPcm(sums, pcm, stride);
}

void SynthesizeSlots(const float slots[18][32], float ring[512], uint32_t* offset, uint8_t* pcm,
                     int32_t stride)
{
    uint32_t o = *offset & kSlotMask;
    const int32_t slotBytes = 32 * 2 * stride;
    for (int s = 0; s < 18; ++s) {
        SynthMatrix(slots[s], ring, o);
        SynthWindowToPcm(ring, o, pcm, stride);
        o = (o - 32) & kRingMask;
        pcm += slotBytes;
    }
    *offset = o;
}
