#pragma once
// Hybrid filter bank: inverse MDCT per subband, block windows, overlap-add and frequency
// inversion. Free functions on the arrays they are given.

#include <cstdint>

// x: this granule's 576-line spectrum, transformed in place (it becomes the overlap for the next
// granule); prev: the previous granule's overlap; out: HybridOut[slot][subband].
// Returns 18 x the number of subbands produced.
int32_t HybridTransform(float* x, const float* prev, float out[18][32], int32_t blockType,
                        int32_t longLines, int32_t totalLines, int32_t prevLines,
                        int32_t limitLines);

// Negates every odd slot of every odd subband below ceil(lines / 18).
void InvertOddSubbands(float out[18][32], int32_t lines);

// In place on the 18 values of one subband.
void InverseMdct36(float f[18]);
void InverseMdct12x3(float f[18]);
