#pragma once
// Test material and recordings: 16-bit PCM as interleaved samples (left first in each pair).
//

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace harness {

// frames x channels samples of seeded noise, uniform in [-amplitude, amplitude]. The same seed
// gives the same samples; nothing in it repeats, so any 64 frames of it occur only once.
std::vector<int16_t> SeededNoise(uint32_t seed, size_t frames, int channels,
                                 int amplitude = 20000);

// Little-endian bytes of the samples, and back.
std::string ToBytes(const std::vector<int16_t>& samples);
std::vector<int16_t> FromBytes(const std::string& bytes);

// A raw file of s16le samples: empty when missing.
std::vector<int16_t> ReadRawS16(const std::string& path);
bool WriteRawS16(const std::string& path, const std::vector<int16_t>& samples);

struct WavFormat {
    int channels;
    int samplesPerSec;
    int bitsPerSample;
};
// A RIFF/WAVE PCM file with a "fmt " chunk and one "data" chunk holding pcm as given.
bool WriteWav(const std::string& path, const WavFormat& format, const std::string& pcm);

// Index of the first and one past the last sample whose magnitude exceeds threshold in
// [from, to); first == last when there is none.
void NonSilentRange(const std::vector<int16_t>& samples, size_t from, size_t to, int threshold,
                    size_t* first, size_t* last);

}  // namespace harness
