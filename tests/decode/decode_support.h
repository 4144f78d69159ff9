#pragma once
// What the decoding tests share: the player's walk over a file, PCM against a reference negated
// (this system's output is the negative of the standard's), and the shell.

#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "player/mp3/MP3Stream.h"
#include "player/mp3/decoder/DecoderTables.h"
#include "tests/support/TestSupport.h"

inline void AppendSamples(std::vector<int16_t>& to, const uint8_t* bytes, size_t n) {
    for (size_t i = 0; i + 1 < n; i += 2) to.push_back(int16_t(bytes[i] | bytes[i + 1] << 8));
}
inline std::vector<int16_t> Samples(const std::string& bytes) {
    std::vector<int16_t> s;
    AppendSamples(s, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    return s;
}

// One pass of the player's walk to the stream's end: the batches as handed out, and what the
// frames held.
struct Walked {
    MP3StreamInfo info{};
    size_t frames = 0, skipped = 0, shortGranules = 0, msFrames = 0;
    std::vector<int16_t> pcm;
};
inline bool Walk(const std::string& path, Walked* out) {
    InitDecoderTables();
    CMP3Stream walk;
    if (!walk.Open(path.c_str())) return false;
    out->info = walk.StreamInfo();
    const auto batch = [](void* o, const uint8_t* pcm, uint32_t n) {
        return AppendSamples(static_cast<Walked*>(o)->pcm, pcm, n), 1;
    };
    const auto frame = [](void* o, const MP3FrameIO& io, const CMP3Decoder& d) {
        Walked& w = *static_cast<Walked*>(o);
        ++w.frames, w.skipped += d.ReservoirStart < 0, w.msFrames += d.MsStereo;
        for (uint32_t gr = 0; gr < (io.version == 1 ? 2u : 1u); ++gr)
            for (int ch = 0; ch < d.ChannelCount; ++ch)
                w.shortGranules +=
                    d.GranuleInfo[io.version == 1 ? gr : d.GranuleToggle ^ 1][ch].block_type == 2;
    };
    return walk.Pass(batch, out, frame, out) == 1 && walk.RefusedError() == 0;
}

struct Diff {
    int max = 0;
    double rms = 0;
};
inline Diff Negated(const int16_t* ours, const int16_t* reference, size_t n) {
    Diff diff;
    double sum = 0;
    for (size_t i = 0; i < n; ++i) {
        diff.max = std::max(diff.max, std::abs(ours[i] + reference[i]));
        sum += double(ours[i] + reference[i]) * (ours[i] + reference[i]);
    }
    diff.rms = n ? std::sqrt(sum / double(n)) : 0.0;
    return diff;
}

// A shell command's exit status, its output (with its errors) in *output.
inline int Shell(const std::string& command, std::string* output) {
    output->clear();
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    char buffer[4096];
    for (size_t n; pipe && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        output->append(buffer, n);
    const int status = pipe ? pclose(pipe) : -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
// The tests' paths hold no quote.
inline std::string Quote(const std::string& s) {
    return "'" + s + "'";
}

// The PCM's hash (FNV-1a over its bytes) must be the one tests/data/pcm-hashes.txt records for
// name: a change of the decoding that moves any sample fails here, where the tolerances of the
// reference comparisons would let it pass.
inline void ExpectRecordedPcm(const std::string& name, const std::vector<int16_t>& pcm) {
    uint64_t hash = 14695981039346656037ull;
    for (int16_t sample : pcm)
        for (int k = 0; k < 2; ++k)
            hash = (hash ^ (uint16_t(sample) >> (8 * k) & 0xFF)) * 1099511628211ull;
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
    std::ifstream recorded(std::string(QUORBEL_SOURCE_DIR) + "/tests/data/pcm-hashes.txt");
    std::string key, value = "(none)";
    while (recorded >> key >> value && key != name) value = "(none)";
    EXPECT_EQ(value, text) << "PCM of " << name;
}
