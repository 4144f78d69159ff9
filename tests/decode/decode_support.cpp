#include "decode_support.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <cstring>
#include <memory>
#include <random>

#include <sys/wait.h>

#include "player/mp3/MP3File.h"
#include "player/mp3/decoder/DecoderTables.h"
#include "player/mp3/decoder/MP3Decoder.h"
#include "player/mp3/MP3Stream.h"

namespace fs = std::filesystem;

namespace {

struct Collector {
    std::vector<uint8_t> bytes;
    DecodedStream* stream;
    const uint8_t* view;
};

int CollectBatch(void* context, const uint8_t* pcm, uint32_t bytes)
{
    Collector* collector = static_cast<Collector*>(context);
    collector->bytes.insert(collector->bytes.end(), pcm, pcm + bytes);
    return 1;
}

void NoteFrame(void* context, const MP3FrameIO& io, const CMP3Decoder& decoder)
{
    // A negative reservoir start is the decoder's own mark of a frame it could not decode.
    Collector* collector = static_cast<Collector*>(context);
    collector->stream->skipped.push_back(decoder.ReservoirStart < 0 ? 1 : 0);
    collector->stream->offsets.push_back(static_cast<size_t>(io.inData - collector->view));
    if (decoder.ReservoirStart >= 0) {
        const int granules = io.version == 1 ? 2 : 1;
        for (int gr = 0; gr < granules; ++gr) {
            const uint32_t slot = io.version == 1 ? static_cast<uint32_t>(gr) : (decoder.GranuleToggle ^ 1u);
            for (int ch = 0; ch < decoder.ChannelCount; ++ch) {
                if (decoder.GranuleInfo[slot][ch].block_type == 2) {
                    ++collector->stream->shortGranules;
                }
            }
        }
        collector->stream->msFrames += decoder.MsStereo;
    }
}

}  // namespace

bool DecodeWithWalk(const std::string& path, DecodedStream* out, std::string* error)
{
    CMP3Stream walk;
    if (!walk.Open(path.c_str())) {
        *error = "cannot play " + path + " (failure " + std::to_string(walk.LastOpenFailure()) + ")";
        return false;
    }
    const MP3StreamInfo& info = walk.StreamInfo();
    out->channels = info.outChannels;
    out->sampleRate = info.outSampleRate;
    out->version = static_cast<int>(info.version);
    out->frameBytes = static_cast<uint32_t>(info.outFrameBytes);
    out->bitrate = info.bitrate;
    out->totalFrames = info.totalFrames;
    out->skipped.clear();
    out->offsets.clear();

    Collector collector;
    collector.stream = out;
    collector.view = walk.File().pView;
    if (!walk.Pass(&CollectBatch, &collector, &NoteFrame, &collector)) {
        *error = "the pass over " + path + " did not run to its end";
        return false;
    }
    out->refusedError = walk.RefusedError();
    out->pcm.resize(collector.bytes.size() / 2);
    for (size_t i = 0; i < out->pcm.size(); ++i) {
        out->pcm[i] = static_cast<int16_t>(collector.bytes[2 * i] | (collector.bytes[2 * i + 1] << 8));
    }
    return true;
}

bool DecodeFrameByFrame(const std::string& path, DecodedStream* out, std::string* error)
{
    static const bool s_tablesBuilt = (InitDecoderTables(), true);
    (void)s_tablesBuilt;
    CMP3File file;
    if (!file.Open(path.c_str())) {
        *error = "cannot scan " + path;
        return false;
    }
    std::unique_ptr<CMP3Decoder> decoder(new CMP3Decoder());
    MP3StreamInfo info;
    memset(&info, 0, sizeof(info));
    const uint8_t* end = file.pView + file.dwSize;
    if (end - file.pFirstFrame < 156 ||
        !decoder->StartDecoder(file.pFirstFrame, static_cast<int32_t>(end - file.pFirstFrame), &info)) {
        *error = "the decoder does not start on " + path;
        return false;
    }
    out->channels = info.outChannels;
    out->sampleRate = info.outSampleRate;
    out->version = static_cast<int>(info.version);
    out->frameBytes = static_cast<uint32_t>(info.outFrameBytes);
    out->pcm.clear();
    out->skipped.clear();
    out->offsets.clear();
    out->refusedError = 0;

    std::vector<uint8_t> block(static_cast<size_t>(info.outFrameBytes));
    MP3FrameIO io;
    memset(&io, 0, sizeof(io));
    for (const uint8_t* frame = file.pFirstFrame; frame < end;) {
        std::fill(block.begin(), block.end(), 0);
        io.inData = frame;
        io.inLength = static_cast<int32_t>(end - frame);
        io.outData = block.data();
        if (!decoder->DecodeFrame(&io)) {
            out->refusedError = decoder->LastError;
            break;
        }
        out->skipped.push_back(decoder->ReservoirStart < 0 ? 1 : 0);
        out->offsets.push_back(static_cast<size_t>(frame - file.pView));
        for (size_t i = 0; i + 1 < block.size(); i += 2) {
            out->pcm.push_back(static_cast<int16_t>(block[i] | (block[i + 1] << 8)));
        }
        frame += io.inLength;
    }
    return true;
}

std::vector<int16_t> WithoutSkippedFrames(const DecodedStream& stream)
{
    std::vector<int16_t> kept;
    const size_t frameSamples = stream.frameBytes / 2;
    for (size_t frame = 0; frame < stream.skipped.size(); ++frame) {
        if (stream.skipped[frame]) {
            continue;
        }
        const size_t begin = frame * frameSamples;
        const size_t end = std::min(begin + frameSamples, stream.pcm.size());
        if (begin < end) {
            kept.insert(kept.end(), stream.pcm.begin() + static_cast<long>(begin),
                        stream.pcm.begin() + static_cast<long>(end));
        }
    }
    return kept;
}

DiffStats CompareNegated(const int16_t* ours, const int16_t* reference, size_t count)
{
    DiffStats stats;
    stats.count = count;
    double sum = 0;
    for (size_t i = 0; i < count; ++i) {
        const int d = static_cast<int>(ours[i]) + static_cast<int>(reference[i]);
        const int a = d < 0 ? -d : d;
        if (a > stats.maxAbs) {
            stats.maxAbs = a;
        }
        if (a > 1) {
            if (stats.overOne == 0) {
                stats.firstOverOne = i;
            }
            ++stats.overOne;
        }
        sum += static_cast<double>(d) * d;
    }
    stats.rms = count > 0 ? std::sqrt(sum / static_cast<double>(count)) : 0.0;
    return stats;
}

long FindNegatedAlignment(const std::vector<int16_t>& ours, const std::vector<int16_t>& reference,
                          long minOffset, long maxOffset, int channels, size_t window)
{
    // A window from the middle of the reference, where the material has sound.
    const long start = static_cast<long>(reference.size() / 3) / channels * channels;
    long best = minOffset;
    size_t bestAgree = 0;
    for (long offset = minOffset; offset <= maxOffset; offset += channels) {
        size_t agree = 0;
        for (size_t k = 0; k < window; ++k) {
            const long i = start + static_cast<long>(k);
            const long j = i + offset;
            if (i >= static_cast<long>(reference.size()) || j < 0 || j >= static_cast<long>(ours.size())) {
                break;
            }
            const int d = ours[static_cast<size_t>(j)] + reference[static_cast<size_t>(i)];
            if (d >= -1 && d <= 1) {
                ++agree;
            }
        }
        if (agree > bestAgree) {
            bestAgree = agree;
            best = offset;
        }
    }
    return best;
}

std::vector<int16_t> ReadPcm(const fs::path& path)
{
    const std::vector<uint8_t> bytes = ReadBytes(path);
    std::vector<int16_t> pcm(bytes.size() / 2);
    for (size_t i = 0; i < pcm.size(); ++i) {
        pcm[i] = static_cast<int16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
    }
    return pcm;
}

bool WriteBytes(const fs::path& path, const std::vector<uint8_t>& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return out.good();
}

std::vector<uint8_t> ReadBytes(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

int RunCommand(const std::string& command, std::string* output)
{
    output->clear();
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return -1;
    }
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
        output->append(buffer, n);
    }
    const int status = pclose(pipe);
    if (status == -1) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string Quote(const fs::path& path)
{
    std::string quoted = "'";
    for (char c : path.string()) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

TempDirectory::TempDirectory(const std::string& prefix)
{
    std::random_device device;
    for (;;) {
        m_path = fs::temp_directory_path() / (prefix + "-" + std::to_string(device()));
        if (fs::create_directory(m_path)) {
            break;
        }
    }
}

TempDirectory::~TempDirectory()
{
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}
