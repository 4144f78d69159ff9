#pragma once
// Four floats in one SSE register, with just the arithmetic the synthesis transforms need. The
// transforms are written once as templates on their value type: float for one subband or slot,
// FloatLanes for four side by side. Both run the identical float operations per lane, so a
// result does not depend on which path produced it.

#include <immintrin.h>

#include <cstddef>

struct FloatLanes {
    __m128 v;
    FloatLanes() = default;
    explicit FloatLanes(__m128 x) : v(x) {}
    // A constant of a transform, the same in every lane.
    FloatLanes(float c) : v(_mm_set1_ps(c)) {}
};

inline FloatLanes operator+(FloatLanes a, FloatLanes b) {
    return FloatLanes(_mm_add_ps(a.v, b.v));
}

inline FloatLanes operator-(FloatLanes a, FloatLanes b) {
    return FloatLanes(_mm_sub_ps(a.v, b.v));
}

inline FloatLanes operator*(FloatLanes a, FloatLanes b) {
    return FloatLanes(_mm_mul_ps(a.v, b.v));
}

// Transposes a 4 x 4 block: rows r[0..3] become columns.
inline void TransposeLanes(__m128& r0, __m128& r1, __m128& r2, __m128& r3) {
    _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
}

// The lanes of v[0..3] stored as four rows of four floats, stride floats apart: row r holds
// lane r of each.
inline void StoreTransposed(const FloatLanes* v, float* rows, size_t stride) {
    __m128 r0 = v[0].v;
    __m128 r1 = v[1].v;
    __m128 r2 = v[2].v;
    __m128 r3 = v[3].v;
    TransposeLanes(r0, r1, r2, r3);
    _mm_storeu_ps(rows, r0);
    _mm_storeu_ps(rows + stride, r1);
    _mm_storeu_ps(rows + 2 * stride, r2);
    _mm_storeu_ps(rows + 3 * stride, r3);
}
