// Decoder throughput: times CMP3Decoder over whole streams and reports how many times faster than
// real time it decodes, and the cost per frame.
//
//   bench_decoder [seconds-per-case]
//
// The material is made at run time in a temporary folder: sox generates a music-like sound
// (chords of sliding tones with tremolo, over pink noise) and lame encodes it as 44.1 kHz stereo
// CBR 128 kbit/s, 44.1 kHz stereo VBR (with a Xing header), MPEG-2 22.05 kHz stereo 64 kbit/s
// and 44.1 kHz mono 64 kbit/s. Frames are walked with the decoder's own frame length, so the
// scanner plays no part in the figures. Without sox or lame, the conformance streams are timed
// instead.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "player/mp3/decoder/DecoderTables.h"
#include "player/mp3/decoder/MP3Decoder.h"

namespace fs = std::filesystem;

namespace {

struct Case {
    std::string name;
    std::vector<uint8_t> bytes;
    size_t first = 0;  // offset of the first frame
};

std::vector<uint8_t> ReadFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in),
                                std::istreambuf_iterator<char>());
}

// The first offset where a decodable frame is followed by another one: steps over an ID3v2 tag
// or leading junk without the file scanner.
size_t FindFirstFrame(const std::vector<uint8_t>& bytes) {
    for (size_t pos = 0; pos + 4 < bytes.size(); ++pos) {
        if (bytes[pos] != 0xFF) continue;
        CMP3Decoder probe;
        MP3StreamInfo info{};
        const int32_t left = static_cast<int32_t>(std::min<size_t>(bytes.size() - pos, 0x7FFFFFFF));
        if (!probe.StartDecoder(bytes.data() + pos, left, &info)) continue;
        std::vector<uint8_t> pcm(static_cast<size_t>(info.outFrameBytes));
        MP3FrameIO io{};
        io.inData = bytes.data() + pos;
        io.inLength = left;
        io.outData = pcm.data();
        if (!probe.DecodeFrame(&io)) continue;
        const size_t next = pos + static_cast<size_t>(io.inLength);
        if (next + 1 < bytes.size() && bytes[next] == 0xFF && (bytes[next + 1] & 0xE0) == 0xE0)
            return pos;
    }
    return bytes.size();
}

struct PassResult {
    int frames = 0;
    double audioSeconds = 0;
};

// One pass over the stream with a started decoder; pcm must hold one frame.
PassResult DecodeAll(CMP3Decoder& dec, const Case& c, uint8_t* pcm) {
    PassResult r;
    MP3StreamInfo info{};
    const uint8_t* data = c.bytes.data();
    size_t pos = c.first;
    if (!dec.StartDecoder(data + pos, static_cast<int32_t>(c.bytes.size() - pos), &info)) return r;
    while (pos < c.bytes.size()) {
        MP3FrameIO io{};
        io.inData = data + pos;
        io.inLength = static_cast<int32_t>(c.bytes.size() - pos);
        io.outData = pcm;
        if (!dec.DecodeFrame(&io)) break;
        pos += static_cast<size_t>(io.inLength);
        ++r.frames;
    }
    r.audioSeconds =
        r.frames * (info.outFrameBytes / (2.0 * info.outChannels)) / info.outSampleRate;
    return r;
}

void RunCase(const Case& c, double budgetSeconds) {
    auto dec = std::make_unique<CMP3Decoder>();
    std::vector<uint8_t> pcm(2 * 1152 * 2);
    PassResult warm = DecodeAll(*dec, c, pcm.data());
    if (warm.frames == 0) {
        std::printf("%-28s no frames decoded\n", c.name.c_str());
        return;
    }
    // Best of several timed rounds, each of whole passes, so that a busy machine shows less.
    double best = 1e30;
    int passesPerRound = 1;
    const auto until =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(budgetSeconds);
    do {
        const auto t0 = std::chrono::steady_clock::now();
        for (int p = 0; p < passesPerRound; ++p) DecodeAll(*dec, c, pcm.data());
        const double elapsed =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        best = std::min(best, elapsed / passesPerRound);
        if (elapsed < 0.05) passesPerRound *= 2;
    } while (std::chrono::steady_clock::now() < until);
    std::printf("%-28s %6d frames %7.1f s audio  %8.0fx real time  %7.0f ns/frame\n",
                c.name.c_str(), warm.frames, warm.audioSeconds, warm.audioSeconds / best,
                best * 1e9 / warm.frames);
}

bool Run(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

std::vector<Case> MakeEncodedCases(const fs::path& dir) {
    std::vector<Case> cases;
    const std::string d = dir.string();
    const std::string tones = d + "/tones.wav", noise = d + "/noise.wav", music = d + "/music.wav";
    if (!Run("sox -n -r 44100 -b 16 -c 2 " + tones +
             " synth 30 sine 220-660 sine 330-990 sine 440-1320 sine 554-1760 sine 659-2640"
             " remix 1,3,5 2,4 tremolo 3 40 gain -8") ||
        !Run("sox -n -r 44100 -b 16 -c 2 " + noise + " synth 30 pinknoise pinknoise gain -30") ||
        !Run("sox -m " + tones + " " + noise + " " + music))
        return cases;
    struct Encoding {
        const char* name;
        const char* options;
    };
    const Encoding encodings[] = {
        {"44.1 kHz stereo CBR 128k", "-b 128 -m j"},
        {"44.1 kHz stereo VBR", "-V 2"},
        {"22.05 kHz stereo MPEG-2 64k", "--resample 22.05 -b 64"},
        {"44.1 kHz mono 64k", "-m m -b 64"},
    };
    int index = 0;
    for (const Encoding& e : encodings) {
        const std::string out = d + "/case" + std::to_string(index++) + ".mp3";
        if (!Run(std::string("lame --quiet ") + e.options + " " + music + " " + out)) continue;
        Case c;
        c.name = e.name;
        c.bytes = ReadFile(out);
        c.first = FindFirstFrame(c.bytes);
        if (c.first < c.bytes.size()) cases.push_back(std::move(c));
    }
    return cases;
}

std::vector<Case> ConformanceCases() {
    std::vector<Case> cases;
    const fs::path dir = fs::path(QUORBEL_SHARED_DATA_DIR) / "conformance";
    for (const char* name : {"l3-sin1k0db", "l3-hecommon", "M2L3_noise", "l3-compl"}) {
        Case c;
        c.name = name;
        c.bytes = ReadFile(dir / (std::string(name) + ".bit"));
        c.first = FindFirstFrame(c.bytes);
        if (c.first < c.bytes.size()) cases.push_back(std::move(c));
    }
    return cases;
}

}  // namespace

int main(int argc, char** argv) {
    const double budget = argc > 1 ? std::atof(argv[1]) : 3.0;
    InitDecoderTables();

    const fs::path dir =
        fs::temp_directory_path() /
        ("quorbel-bench-" +
         std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
    fs::create_directories(dir);
    std::vector<Case> cases = MakeEncodedCases(dir);
    std::error_code ignored;
    fs::remove_all(dir, ignored);
    if (cases.empty()) {
        std::printf("sox or lame unavailable: timing the conformance streams\n");
        cases = ConformanceCases();
    }
    for (const Case& c : cases) RunCase(c, budget);
    return cases.empty() ? 1 : 0;
}
