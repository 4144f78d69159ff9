#pragma once
// Material and measures the load test shares with the host-side harness: tones, their levels,
// and RIFF/WAVE byte builders.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/system/harness/Harness.h"

namespace server_system {

using namespace harness;

const int kRate = 44100;

// A stereo sine at 44.1 kHz.
inline std::vector<int16_t> Tone(double frequency, double seconds, int amplitude) {
    size_t frames = static_cast<size_t>(seconds * kRate);
    std::vector<int16_t> samples(2 * frames);
    const double step = 2 * 3.14159265358979323846 * frequency / kRate;
    for (size_t i = 0; i < frames; ++i) {
        int16_t v = static_cast<int16_t>(std::lround(amplitude * std::sin(step * static_cast<double>(i))));
        samples[2 * i] = v;
        samples[2 * i + 1] = v;
    }
    return samples;
}

// The amplitude of one frequency in the left channel of frames [from, to) (Goertzel).
inline double ToneLevel(const std::vector<int16_t>& recording, size_t from, size_t to, double frequency) {
    if (to > recording.size() / 2) to = recording.size() / 2;
    if (from >= to) return 0;
    const double w = 2 * 3.14159265358979323846 * frequency / kRate;
    const double coeff = 2 * std::cos(w);
    double s1 = 0, s2 = 0;
    for (size_t i = from; i < to; ++i) {
        double s = recording[2 * i] + coeff * s1 - s2;
        s2 = s1;
        s1 = s;
    }
    double power = s1 * s1 + s2 * s2 - coeff * s1 * s2;
    return 2 * std::sqrt(power > 0 ? power : 0) / static_cast<double>(to - from);
}

inline std::string U32(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
inline std::string U16(uint16_t v) { return std::string(reinterpret_cast<const char*>(&v), 2); }

// A "fmt " chunk of the given values with a body of 16 bytes.
inline std::string FmtChunk(uint16_t format, uint16_t channels, uint32_t rate, uint16_t bits) {
    uint16_t align = static_cast<uint16_t>(channels * bits / 8);
    return "fmt " + U32(16) + U16(format) + U16(channels) + U32(rate) + U32(rate * align) + U16(align) +
           U16(bits);
}
inline std::string DataChunk(const std::string& pcm) {
    return "data" + U32(static_cast<uint32_t>(pcm.size())) + pcm;
}
inline std::string Riff(const std::string& chunks, const char* form = "WAVE", const char* id = "RIFF") {
    return std::string(id, 4) + U32(static_cast<uint32_t>(4 + chunks.size())) + std::string(form, 4) + chunks;
}

}  // namespace server_system
