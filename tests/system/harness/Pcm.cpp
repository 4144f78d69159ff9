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

}  // namespace

std::vector<int16_t> SeededNoise(uint32_t seed, size_t frames, int channels, int amplitude) {
    uint32_t state = seed != 0 ? seed : 0x9E3779B9u;
    std::vector<int16_t> samples(frames * static_cast<size_t>(channels));
    const uint32_t span = static_cast<uint32_t>(2 * amplitude + 1);
    for (int16_t& s : samples) s = static_cast<int16_t>(static_cast<int>(Next(&state) % span) - amplitude);
    return samples;
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
