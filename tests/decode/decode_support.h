#pragma once
// What the decoding tests share: this system's decoding of a file, frame by frame or by the
// player's walk; PCM against a reference negated (this system's output is the negative of the
// standard's); external commands.

#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "player/mp3/MP3Stream.h"
#include "player/mp3/decoder/DecoderTables.h"
#include "tests/support/TestSupport.h"

struct Decoded {
    int channels = 0, rate = 0, version = 0;
    int32_t bitrate = 0, totalFrames = 0;  // bitrate 0: a VBR header gave the total
    size_t frames = 0, skipped = 0, shortGranules = 0, msFrames = 0;
    std::vector<int16_t> pcm;
};

inline void AppendSamples(std::vector<int16_t>& to, const uint8_t* bytes, size_t n) {
    for (size_t i = 0; i + 1 < n; i += 2) to.push_back(int16_t(bytes[i] | bytes[i + 1] << 8));
}
inline std::vector<int16_t> Samples(const std::string& bytes) {
    std::vector<int16_t> s;
    AppendSamples(s, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    return s;
}

// The frames one after another by the decoder's own lengths, from the scanner's first frame on
// (the walk would leave l3-hecommon at the reserved emphasis the scanner refuses): the PCM of
// each frame that had its reservoir data.
inline bool DecodeFrames(const std::string& path, Decoded* out) {
    InitDecoderTables();
    CMP3File file;
    auto d = std::make_unique<CMP3Decoder>();
    MP3StreamInfo info{};
    const uint8_t* end = file.Open(path.c_str()) ? file.pView + file.dwSize : nullptr;
    if (!end || !d->StartDecoder(file.pFirstFrame, int32_t(end - file.pFirstFrame), &info)) return false;
    out->channels = info.outChannels, out->rate = info.outSampleRate;
    std::vector<uint8_t> block(size_t(info.outFrameBytes));
    MP3FrameIO io{};
    for (const uint8_t* f = file.pFirstFrame; f < end; f += io.inLength, ++out->frames) {
        io.inData = f, io.inLength = int32_t(end - f), io.outData = block.data();
        if (!d->DecodeFrame(&io)) break;
        if (d->ReservoirStart < 0) ++out->skipped;
        else AppendSamples(out->pcm, block.data(), block.size());
    }
    return true;
}

// One pass of the player's walk to the stream's end: the batches as handed out, and what the
// frames held.
inline bool DecodeWalk(const std::string& path, Decoded* out) {
    InitDecoderTables();
    CMP3Stream walk;
    if (!walk.Open(path.c_str())) return false;
    const MP3StreamInfo& info = walk.StreamInfo();
    out->channels = info.outChannels, out->rate = info.outSampleRate, out->version = int(info.version);
    out->bitrate = info.bitrate, out->totalFrames = info.totalFrames;
    const auto batch = [](void* o, const uint8_t* pcm, uint32_t n) {
        return AppendSamples(static_cast<Decoded*>(o)->pcm, pcm, n), 1;
    };
    const auto frame = [](void* o, const MP3FrameIO& io, const CMP3Decoder& d) {
        Decoded& s = *static_cast<Decoded*>(o);
        ++s.frames, s.skipped += d.ReservoirStart < 0, s.msFrames += d.MsStereo;
        for (uint32_t gr = 0; gr < (io.version == 1 ? 2u : 1u); ++gr)
            for (int ch = 0; ch < d.ChannelCount; ++ch)
                s.shortGranules += d.GranuleInfo[io.version == 1 ? gr : d.GranuleToggle ^ 1][ch].block_type == 2;
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
        const int d = ours[i] + reference[i];
        diff.max = std::max(diff.max, std::abs(d));
        sum += double(d) * d;
    }
    diff.rms = n ? std::sqrt(sum / double(n)) : 0.0;
    return diff;
}

// A shell command's exit status, its output (with its errors) in *output.
inline int Shell(const std::string& command, std::string* output) {
    output->clear();
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe) return -1;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output->append(buffer, n);
    const int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
inline std::string Quote(const std::string& s) { return "'" + s + "'"; }  // the tests' paths hold no quote
