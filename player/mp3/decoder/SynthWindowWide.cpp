// The windowing of the polyphase synthesis for processors with AVX: four double-precision sums
// per register instead of two, so that one slot needs half the multiplications and additions.
// Every sum is still its own lane, starts at 0 and adds the same products in the same order as
// the SSE2 windowing in Synthesis.cpp (m ascending, first product then second), so both give
// the identical doubles. Only multiplications and additions are used, never fused ones (AVX alone
// has no fused instruction, and the decoder is built without contraction).
//
// This unit alone is compiled for AVX (a per-file option, player/mp3/decoder/CMakeLists.txt); the
// rest of the program stays SSE2, and Synthesis.cpp calls in only after asking the processor
// (CpuFeatures.h). So it shares no inline code with other units, since the linker could keep a
// copy compiled here for every caller: it uses intrinsics and its own functions only, and calls
// out through SynthStorePcm. Built only in the auto build of the windowing (QUORBEL_SYNTH, see
// Synthesis.h).

#if !defined(QUORBEL_SYNTH_SCALAR) && !defined(QUORBEL_SYNTH_SSE2)

#include "player/mp3/decoder/Synthesis.h"

#include "player/mp3/decoder/SynthTables.h"

#include <immintrin.h>

#include <cstddef>

namespace {

constexpr uint32_t kRingMask = 511;
constexpr uint32_t kSlotMask = 511 & ~31u;

// SynthWindow widened to double for four samples side by side. Group q (q = 0..3) computes
// samples r .. r + 3 forward and 32 - r .. 29 - r backward, r = 4q; lane t holds sample r + t
// and 32 - r - t. For m = 0..7, w[q][m] holds per lane
//   [0]  W[16(r + t) + 2m]          first product of sample r + t
//   [1] -W[16(r + t) + 2m + 1]      second product of sample r + t (subtracted)
//   [2]  W[16(r + t) + 15 - 2m]     first product of sample 32 - r - t
//   [3]  W[16(r + t) + 14 - 2m]     second product of sample 32 - r - t
// with 0 for the sample 32 that does not exist (q = 0, t = 0), as in SynthWindowLanes.
struct WideWindowTable {
    alignas(32) double w[4][8][4][4];
};

WideWindowTable BuildWideWindow() {
    WideWindowTable table = {};
    for (int q = 0; q < 4; ++q) {
        for (int m = 0; m < 8; ++m) {
            for (int t = 0; t < 4; ++t) {
                const int i = 4 * q + t;
                double(&w)[4][4] = table.w[q][m];
                w[0][t] = SynthWindow[16 * i + 2 * m];
                w[1][t] = -static_cast<double>(SynthWindow[16 * i + 2 * m + 1]);
                w[2][t] = i == 0 ? 0.0 : SynthWindow[16 * i + 15 - 2 * m];
                w[3][t] = i == 0 ? 0.0 : SynthWindow[16 * i + 14 - 2 * m];
            }
        }
    }
    return table;
}

// Made on the first AVX call, never at start-up: this unit's code may run only on a processor
// with AVX.
const WideWindowTable& WideWindow() {
    static const WideWindowTable table = BuildWideWindow();
    return table;
}

// fwd[q] = samples 4q .. 4q + 3, bwd[q] = samples 32 - 4q .. 29 - 4q (the first lane of bwd[0],
// sample 32, holds 0); s16 is sample 16.
struct WideSums {
    __m256d fwd[4];
    __m256d bwd[4];
    double s16;
};

// One group's products for one m, added to its two sums in their order: the first product
// (ring value a) and then the second (ring value b) of each sample. Each group's ring values are
// converted just before use so that the eight sums stay in registers with room to spare.
inline void AddGroup(const float* pa, const float* pb, const double (*w)[4], __m256d& fwd,
                     __m256d& bwd) {
    const __m256d a = _mm256_cvtps_pd(_mm_loadu_ps(pa));
    fwd = _mm256_add_pd(fwd, _mm256_mul_pd(a, _mm256_load_pd(w[0])));
    bwd = _mm256_add_pd(bwd, _mm256_mul_pd(a, _mm256_load_pd(w[2])));
    // b is stored downward: lane t comes from pb[3 - t].
    const __m128 bf = _mm_loadu_ps(pb);
    const __m256d b = _mm256_cvtps_pd(_mm_shuffle_ps(bf, bf, _MM_SHUFFLE(0, 1, 2, 3)));
    fwd = _mm256_add_pd(fwd, _mm256_mul_pd(b, _mm256_load_pd(w[1])));
    bwd = _mm256_add_pd(bwd, _mm256_mul_pd(b, _mm256_load_pd(w[3])));
}

// Per m, sample i reads ring[base + 16 + i] (first product) and ring[base + 48 - i] (second
// product), base = o + 64m: sixteen consecutive floats on each side, each run inside one
// aligned block of 32 because o is a multiple of 32, so masking its start keeps it whole.
// The eight sums of the four groups are independent chains of additions.
inline void WindowWide(const float* ring, uint32_t offset, WideSums& sums) {
    const WideWindowTable& wide = WideWindow();
    const uint32_t o = offset & kSlotMask;
    __m256d fwd0 = _mm256_setzero_pd(), fwd1 = _mm256_setzero_pd();
    __m256d fwd2 = _mm256_setzero_pd(), fwd3 = _mm256_setzero_pd();
    __m256d bwd0 = _mm256_setzero_pd(), bwd1 = _mm256_setzero_pd();
    __m256d bwd2 = _mm256_setzero_pd(), bwd3 = _mm256_setzero_pd();
    for (uint32_t m = 0; m < 8; ++m) {
        const uint32_t base = o + 64 * m;
        // pa[i] = ring[base + 16 + i]; pb[15 - i] = ring[base + 48 - i].
        const float* pa = ring + ((base + 16) & kRingMask);
        const float* pb = ring + ((base + 33) & kRingMask);
        AddGroup(pa, pb + 12, wide.w[0][m], fwd0, bwd0);
        AddGroup(pa + 4, pb + 8, wide.w[1][m], fwd1, bwd1);
        AddGroup(pa + 8, pb + 4, wide.w[2][m], fwd2, bwd2);
        AddGroup(pa + 12, pb, wide.w[3][m], fwd3, bwd3);
    }
    sums.fwd[0] = fwd0;
    sums.fwd[1] = fwd1;
    sums.fwd[2] = fwd2;
    sums.fwd[3] = fwd3;
    sums.bwd[0] = bwd0;
    sums.bwd[1] = bwd1;
    sums.bwd[2] = bwd2;
    sums.bwd[3] = bwd3;
    // Sample 16 has its own eight entries and one product per m.
    double s16 = 0.0;
    for (uint32_t m = 0; m < 8; ++m) {
        s16 += static_cast<double>(SynthWindow[256 + m]) *
               static_cast<double>(ring[(o + 32 + 64 * m) & kRingMask]);
    }
    sums.s16 = s16;
}

// Truncates four sums toward zero into four int32 lanes, with the same clipping argument as
// Truncate in Synthesis.cpp: bring values above 32767 down first, let the 16-bit packing clip
// the rest (anything beyond the 32-bit range truncates to INT32_MIN).
inline __m128i TruncateWide(__m256d s) {
    return _mm256_cvttpd_epi32(_mm256_min_pd(s, _mm256_set1_pd(32767.0)));
}

// The 32 samples of one slot in order 0..31, stride samples apart.
inline void StorePcmWide(const WideSums& sums, uint8_t* pcm, int32_t stride) {
    const __m128i s16 =
        _mm_packs_epi32(_mm_cvttpd_epi32(_mm_min_pd(_mm_set_sd(sums.s16), _mm_set1_pd(32767.0))),
                        _mm_setzero_si128());
    SynthStorePcm(_mm_packs_epi32(TruncateWide(sums.fwd[0]), TruncateWide(sums.fwd[1])),
                  _mm_packs_epi32(TruncateWide(sums.fwd[2]), TruncateWide(sums.fwd[3])),
                  _mm_packs_epi32(TruncateWide(sums.bwd[0]), TruncateWide(sums.bwd[1])),
                  _mm_packs_epi32(TruncateWide(sums.bwd[2]), TruncateWide(sums.bwd[3])), s16, pcm,
                  stride);
}

}  // namespace

void SynthWindowToPcmAvx(const float ring[512], uint32_t offset, uint8_t* pcm, int32_t stride) {
    WideSums sums;
    WindowWide(ring, offset, sums);
    StorePcmWide(sums, pcm, stride);
}

#endif
