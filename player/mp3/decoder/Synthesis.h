#pragma once
// Polyphase synthesis: matrixing of one slot of 32 subband samples into a channel's ring, and
// windowing of the ring into 32 PCM samples (truncated toward zero, clipped to 16 bits).

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

// The two halves of SynthWindowToPcm. SynthWindowSums leaves the 32 double-precision window
// sums; SynthSumsToPcm truncates each toward zero, clips it to [-32768, 32767] and stores it.
void SynthWindowSums(const float ring[512], uint32_t offset, double sums[32]);
void SynthSumsToPcm(const double sums[32], uint8_t* pcm, int32_t stride);

// The windowing comes in two builds that give the identical output: SSE2, which every x86-64
// processor has, and AVX, four double sums per register, for processors and systems that
// support it. The best supported one is chosen on first use; tests may force either.
enum class SynthPath { Sse2, Avx };
bool SynthPathSupported(SynthPath path);
SynthPath CurrentSynthPath();
// Makes the functions above use path from now on; false (and no change) if it is unsupported.
// Not meant to be called while another thread synthesizes.
bool SetSynthPath(SynthPath path);

// The AVX build of SynthWindowToPcm, SynthWindowSums and SynthSumsToPcm (SynthWindowWide.cpp).
// Call only where SynthPathSupported(SynthPath::Avx).
void SynthWindowToPcmAvx(const float ring[512], uint32_t offset, uint8_t* pcm, int32_t stride);
void SynthWindowSumsAvx(const float ring[512], uint32_t offset, double sums[32]);
void SynthSumsToPcmAvx(const double sums[32], uint8_t* pcm, int32_t stride);

