#pragma once
// Polyphase synthesis: matrixing of one slot of 32 subband samples into a channel's ring, and
// windowing of the ring into 32 PCM samples (truncated toward zero, clipped to 16 bits).
//
// The build's QUORBEL_SYNTH option says how the windowing is computed, each giving the identical
// PCM: auto (the default) SSE2, which every x86-64 processor has, or AVX where the processor
// and the system support it, chosen on first use; sse2 SSE2 alone; scalar plain C++ without
// intrinsics. It reaches the decoder's units as QUORBEL_SYNTH_AUTO, _SSE2 or _SCALAR.

#include <cstdint>

// Writes the 32 matrixing outputs of slot x into ring[offset .. offset + 31].
void SynthMatrix(const float x[32], float ring[512], uint32_t offset);

// Windows ring (last written at offset) into 32 signed 16-bit little-endian samples at pcm,
// stride samples apart (1: single channel; 2: interleaved pair).
void SynthWindowToPcm(const float ring[512], uint32_t offset, uint8_t* pcm, int32_t stride);

// The 18 slots of one granule of one channel: matrixing, windowing and offset update for each
// slot; pcm is where the channel's first sample goes.
void SynthesizeSlots(const float slots[18][32], float ring[512], uint32_t* offset, uint8_t* pcm,
                     int32_t stride);

// The AVX windowing (SynthWindowWide.cpp), in the auto build only; Synthesis.cpp calls it only
// where the processor has AVX.
void SynthWindowToPcmAvx(const float ring[512], uint32_t offset, uint8_t* pcm, int32_t stride);

#if !defined(QUORBEL_SYNTH_SCALAR)
#include <immintrin.h>

// Stores the 32 clipped 16-bit samples of one slot in order, stride samples apart: first holds
// samples 0..7, second 8..15, back 32..25 and upper 24..17 (the last two as the windowing forms
// them, backwards), and lane 0 of s16 sample 16. SSE2, for both windowings: the AVX unit calls it
// rather than carry a copy.
void SynthStorePcm(__m128i first, __m128i second, __m128i back, __m128i upper, __m128i s16,
                   uint8_t* pcm, int32_t stride);
#endif
