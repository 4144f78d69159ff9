#include "tests/system/harness/Pcm.h"

#include <cmath>
#include <cstring>
#include <fstream>

#include "tests/system/harness/Session.h"

namespace harness {

namespace {

// xorshift32: a full period of 2^32 - 1, so no stretch of material repeats.
uint32_t Next(uint32_t* state) {
    uint32_t x = *state;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    *state = x;
    return x;
}

void Put16(std::string* out, uint32_t v) {
    out->push_back(static_cast<char>(v & 0xFF));
    out->push_back(static_cast<char>((v >> 8) & 0xFF));
}

void Put32(std::string* out, uint32_t v) {
    Put16(out, v & 0xFFFF);
    Put16(out, v >> 16);
}

bool EqualAt(const std::vector<int16_t>& haystack, long long at, const int16_t* needle,
             size_t length) {
    if (at < 0 || static_cast<size_t>(at) + length > haystack.size()) return false;
    return std::memcmp(haystack.data() + at, needle, length * sizeof(int16_t)) == 0;
}

}  // namespace

std::vector<int16_t> SeededNoise(uint32_t seed, size_t frames, int channels, int amplitude) {
    uint32_t state = seed != 0 ? seed : 0x9E3779B9u;
    std::vector<int16_t> samples(frames * static_cast<size_t>(channels));
    const uint32_t span = static_cast<uint32_t>(2 * amplitude + 1);
    for (int16_t& s : samples) s = static_cast<int16_t>(static_cast<int>(Next(&state) % span) - amplitude);
    return samples;
}

std::string SeededBytes(uint32_t seed, size_t count) {
    uint32_t state = seed != 0 ? seed : 0x9E3779B9u;
    std::string bytes(count, '\0');
    for (char& c : bytes) c = static_cast<char>(Next(&state) >> 24);
    return bytes;
}

std::string ToBytes(const std::vector<int16_t>& samples) {
    std::string bytes;
    bytes.reserve(samples.size() * 2);
    for (int16_t s : samples) Put16(&bytes, static_cast<uint16_t>(s));
    return bytes;
}

std::vector<int16_t> FromBytes(const std::string& bytes) {
    std::vector<int16_t> samples(bytes.size() / 2);
    for (size_t i = 0; i < samples.size(); ++i) {
        uint16_t v = static_cast<uint8_t>(bytes[2 * i]) |
                     static_cast<uint16_t>(static_cast<uint8_t>(bytes[2 * i + 1]) << 8);
        samples[i] = static_cast<int16_t>(v);
    }
    return samples;
}

std::vector<int16_t> ReadRawS16(const std::string& path) {
    std::string bytes;
    if (!ReadFile(path, &bytes)) return {};
    return FromBytes(bytes);
}

bool WriteRawS16(const std::string& path, const std::vector<int16_t>& samples) {
    return WriteFile(path, ToBytes(samples));
}

bool WriteWav(const std::string& path, const WavFormat& format, const std::string& pcm) {
    const uint32_t blockAlign = static_cast<uint32_t>(format.bitsPerSample / 8 * format.channels);
    std::string file = "RIFF";
    Put32(&file, static_cast<uint32_t>(4 + 8 + 16 + 8 + pcm.size() + (pcm.size() & 1)));
    file += "WAVEfmt ";
    Put32(&file, 16);
    Put16(&file, 1);
    Put16(&file, static_cast<uint32_t>(format.channels));
    Put32(&file, static_cast<uint32_t>(format.samplesPerSec));
    Put32(&file, blockAlign * static_cast<uint32_t>(format.samplesPerSec));
    Put16(&file, blockAlign);
    Put16(&file, static_cast<uint32_t>(format.bitsPerSample));
    file += "data";
    Put32(&file, static_cast<uint32_t>(pcm.size()));
    file += pcm;
    if (pcm.size() & 1) file.push_back('\0');  // chunks are padded to even sizes
    return WriteFile(path, file);
}

long long FindSequence(const std::vector<int16_t>& haystack, const int16_t* needle,
                       size_t needleLength, size_t from, size_t step) {
    if (needleLength == 0 || step == 0 || haystack.size() < needleLength) return -1;
    const size_t last = haystack.size() - needleLength;
    for (size_t i = from; i <= last; i += step) {
        if (haystack[i] == needle[0] &&
            std::memcmp(haystack.data() + i, needle, needleLength * sizeof(int16_t)) == 0) {
            return static_cast<long long>(i);
        }
    }
    return -1;
}

bool FindMaterial(const std::vector<int16_t>& recording, const std::vector<int16_t>& material,
                  long long* offset, size_t from) {
    const size_t probe = 2 * 64;  // 64 stereo frames
    if (material.size() < probe) return false;
    const size_t places = 16;
    const size_t stride = ((material.size() - probe) / places) & ~static_cast<size_t>(1);
    from &= ~static_cast<size_t>(1);
    for (size_t k = 0; k <= places; ++k) {
        size_t start = k * stride;
        if (start + probe > material.size()) break;
        long long at = FindSequence(recording, material.data() + start, probe, from, 2);
        if (at >= 0) {
            *offset = at - static_cast<long long>(start);
            return true;
        }
        if (stride == 0) break;
    }
    return false;
}

std::string BlockComparison::Describe() const {
    return std::to_string(equal) + " of " + std::to_string(blocks) + " blocks equal";
}

BlockComparison CompareBlocks(const std::vector<int16_t>& recording,
                              const std::vector<int16_t>& material, long long offset,
                              size_t blockFrames, size_t maxDriftFrames) {
    BlockComparison result;
    const size_t block = 2 * blockFrames;
    if (block == 0) return result;
    result.blocks = material.size() / block;
    long long drift = 0;
    const long long window = 2 * static_cast<long long>(maxDriftFrames);
    for (size_t b = 0; b < result.blocks; ++b) {
        const int16_t* want = material.data() + b * block;
        long long expected = offset + static_cast<long long>(b * block) + drift;
        if (EqualAt(recording, expected, want, block)) {
            ++result.equal;
            continue;
        }
        long long lo = expected - window;
        if (lo < 0) lo = 0;
        if (lo & 1) ++lo;
        long long hi = expected + window;
        long long at = -1;
        for (long long i = lo; i <= hi; i += 2) {
            if (EqualAt(recording, i, want, block)) {
                at = i;
                break;
            }
        }
        if (at >= 0) {
            ++result.equal;
            drift = at - (offset + static_cast<long long>(b * block));
        }
    }
    return result;
}

std::vector<float> MonoMix(const std::vector<int16_t>& interleaved, int channels) {
    std::vector<float> mono;
    if (channels < 1) return mono;
    const size_t frames = interleaved.size() / static_cast<size_t>(channels);
    mono.resize(frames);
    for (size_t f = 0; f < frames; ++f) {
        float sum = 0;
        for (int c = 0; c < channels; ++c) sum += interleaved[f * channels + c];
        mono[f] = sum / static_cast<float>(channels);
    }
    return mono;
}

double Correlation(const float* a, const float* b, size_t n) {
    double ab = 0, aa = 0, bb = 0;
    for (size_t i = 0; i < n; ++i) {
        ab += static_cast<double>(a[i]) * b[i];
        aa += static_cast<double>(a[i]) * a[i];
        bb += static_cast<double>(b[i]) * b[i];
    }
    if (aa <= 0 || bb <= 0) return 0;
    return ab / std::sqrt(aa * bb);
}

CorrelationMatch FindByCorrelation(const std::vector<float>& signal,
                                   const std::vector<float>& reference, size_t probeLength) {
    CorrelationMatch match;
    if (reference.size() < 4 || signal.empty()) return match;
    if (probeLength > reference.size() / 2) probeLength = reference.size() / 2;
    if (probeLength == 0 || signal.size() < probeLength) return match;
    const size_t probeStart = reference.size() / 4;
    const float* probe = reference.data() + probeStart;
    double probeEnergy = 0;
    for (size_t i = 0; i < probeLength; ++i) probeEnergy += static_cast<double>(probe[i]) * probe[i];
    if (probeEnergy <= 0) return match;

    // The window's energy is kept as a running sum; the products are summed in float, which
    // is plenty for finding the peak.
    double windowEnergy = 0;
    for (size_t i = 0; i < probeLength; ++i) windowEnergy += static_cast<double>(signal[i]) * signal[i];
    double best = -2;
    size_t bestAt = 0;
    for (size_t at = 0; at + probeLength <= signal.size(); ++at) {
        if (at > 0) {
            double out = signal[at - 1];
            double in = signal[at + probeLength - 1];
            windowEnergy += in * in - out * out;
        }
        if (windowEnergy > 1e-3) {
            const float* w = signal.data() + at;
            float dot = 0;
            for (size_t i = 0; i < probeLength; ++i) dot += w[i] * probe[i];
            double c = dot / std::sqrt(windowEnergy * probeEnergy);
            if (c > best) {
                best = c;
                bestAt = at;
            }
        }
    }
    if (best < -1) return match;
    match.lag = static_cast<long long>(bestAt) - static_cast<long long>(probeStart);
    long long first = match.lag < 0 ? -match.lag : 0;  // first reference index inside signal
    long long end = static_cast<long long>(reference.size());
    if (match.lag + end > static_cast<long long>(signal.size())) {
        end = static_cast<long long>(signal.size()) - match.lag;
    }
    if (end > first) {
        match.value = Correlation(signal.data() + match.lag + first, reference.data() + first,
                                  static_cast<size_t>(end - first));
    }
    return match;
}

void NonSilentRange(const std::vector<int16_t>& samples, size_t from, size_t to, int threshold,
                    size_t* first, size_t* last) {
    if (to > samples.size()) to = samples.size();
    *first = *last = from;
    bool any = false;
    for (size_t i = from; i < to; ++i) {
        if (std::abs(static_cast<int>(samples[i])) > threshold) {
            if (!any) *first = i;
            any = true;
            *last = i + 1;
        }
    }
    if (!any) *first = *last = from;
}

}  // namespace harness
