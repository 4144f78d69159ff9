#pragma once
// Test material and recordings: 16-bit PCM as interleaved samples (left first in each pair).
//
// Recordings hold what the server played after about 5 ms lost at the very start, and under
// load a short run of inserted zeros in the middle. So material is found by searching (never at
// a fixed offset), 44.1 kHz stereo is compared exactly block by block with nearly all blocks
// required to match, and other formats, which the sound server resamples, by correlation.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace harness {

// frames x channels samples of seeded noise, uniform in [-amplitude, amplitude]. The same seed
// gives the same samples; nothing in it repeats, so any 64 frames of it occur only once.
std::vector<int16_t> SeededNoise(uint32_t seed, size_t frames, int channels,
                                 int amplitude = 20000);
// count bytes of seeded noise (for 8-bit material: unsigned, around 0x80).
std::string SeededBytes(uint32_t seed, size_t count);

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

// The first index >= from where needle occurs in haystack sample for sample, stepping by
// `step` samples (2 keeps stereo frames aligned); -1 when it does not occur.
long long FindSequence(const std::vector<int16_t>& haystack, const int16_t* needle,
                       size_t needleLength, size_t from = 0, size_t step = 1);

// Where the material's first sample sits in the recording (a sample index, negative when the
// start was lost), found by searching for short probes of the material taken at several
// places. false when no probe occurs at or after `from`. Both are stereo 44.1 kHz.
bool FindMaterial(const std::vector<int16_t>& recording, const std::vector<int16_t>& material,
                  long long* offset, size_t from = 0);

struct BlockComparison {
    size_t blocks = 0;  // full blocks of the material
    size_t equal = 0;   // found in the recording sample for sample
    double Fraction() const { return blocks == 0 ? 0.0 : static_cast<double>(equal) / blocks; }
    std::string Describe() const;
};

// Compares stereo material with the recording in blocks of blockFrames frames, starting at
// offset (from FindMaterial). A block that is not at its place is looked for up to maxDrift
// frames later or earlier, and the place of the following blocks moves with it, so an inserted
// run of zeros costs only the block it falls in.
BlockComparison CompareBlocks(const std::vector<int16_t>& recording,
                              const std::vector<int16_t>& material, long long offset,
                              size_t blockFrames = 256, size_t maxDriftFrames = 22050);

// Channels averaged, as floats.
std::vector<float> MonoMix(const std::vector<int16_t>& interleaved, int channels);

// Normalised correlation of a and b over n values: 1 for equal shapes, about 0 for unrelated.
double Correlation(const float* a, const float* b, size_t n);

struct CorrelationMatch {
    double value = 0;    // correlation over the whole overlap at the best lag
    long long lag = 0;   // index in signal where reference[0] sits (may be negative)
};
// Finds reference in signal (both mono at one rate) by the best correlation of a probe from the
// reference's second quarter, then measures the correlation of the whole overlap there.
CorrelationMatch FindByCorrelation(const std::vector<float>& signal,
                                   const std::vector<float>& reference,
                                   size_t probeLength = 4096);

// Index of the first and one past the last sample whose magnitude exceeds threshold in
// [from, to); first == last when there is none.
void NonSilentRange(const std::vector<int16_t>& samples, size_t from, size_t to, int threshold,
                    size_t* first, size_t* last);

}  // namespace harness
