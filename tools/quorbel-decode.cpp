// quorbel-decode: an MP3 file to a 16-bit PCM WAV file (or raw PCM), through this system's
// scanner and decoder, walking the file exactly as the MP3 player does in one pass.
//
//   quorbel-decode [--raw] [--verbose] in.mp3 out.wav
//
// Exit status: 0 decoded; 1 the file cannot be played (the reasons are in quorbel.log in the
// working directory); 2 wrong arguments; 3 the output could not be written.

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "player/mp3/decoder/DecoderTables.h"
#include "player/mp3/decoder/MP3Decoder.h"
#include "player/mp3/MP3Stream.h"
#include "player/pub/Log.h"

namespace {

const char kUnitPath[] = "tools/quorbel-decode";

const int kExitOk = 0;
const int kExitCannotPlay = 1;
const int kExitUsage = 2;
const int kExitWriteFailed = 3;

const uint32_t kWavHeaderBytes = 44;

void PutLe16(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

void PutLe32(uint8_t* p, uint32_t v) {
    PutLe16(p, v & 0xFFFF);
    PutLe16(p + 2, v >> 16);
}

void MakeWavHeader(uint8_t header[kWavHeaderBytes], uint32_t channels, uint32_t rate,
                   uint32_t dataBytes) {
    const uint32_t blockAlign = channels * 2;
    memcpy(header, "RIFF", 4);
    PutLe32(header + 4, 36 + dataBytes);
    memcpy(header + 8, "WAVEfmt ", 8);
    PutLe32(header + 16, 16);
    PutLe16(header + 20, 1);  // PCM
    PutLe16(header + 22, channels);
    PutLe32(header + 24, rate);
    PutLe32(header + 28, rate * blockAlign);
    PutLe16(header + 32, blockAlign);
    PutLe16(header + 34, 16);
    memcpy(header + 36, "data", 4);
    PutLe32(header + 40, dataBytes);
}

struct Output {
    FILE* file;
    uint64_t bytes;
    bool failed;
};

int WriteBatch(void* context, const uint8_t* pcm, uint32_t bytes) {
    Output* out = static_cast<Output*>(context);
    if (fwrite(pcm, 1, bytes, out->file) != bytes) {
        out->failed = true;
        return 0;
    }
    out->bytes += bytes;
    return 1;
}

const char* VersionName(uint32_t version) {
    switch (version) {
        case 1:
            return "MPEG-1";
        case 2:
            return "MPEG-2";
        default:
            return "MPEG-2.5";
    }
}

int Usage() {
    fprintf(stderr,
            "usage: quorbel-decode [--raw] [--verbose] in.mp3 out.wav\n"
            "  --raw      write bare PCM (signed 16-bit little-endian, channels interleaved)\n"
            "  --verbose  describe the stream and how the walk ended\n");
    return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    bool raw = false;
    bool verbose = false;
    const char* names[2] = {nullptr, nullptr};
    int nameCount = 0;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--raw") == 0) {
            raw = true;
        } else if (strcmp(argv[i], "--verbose") == 0) {
            verbose = true;
        } else if (argv[i][0] == '-' && argv[i][1] == '-') {
            fprintf(stderr, "quorbel-decode: unknown option %s\n", argv[i]);
            return Usage();
        } else if (nameCount < 2) {
            names[nameCount++] = argv[i];
        } else {
            return Usage();
        }
    }
    if (nameCount != 2) {
        return Usage();
    }
    const char* inName = names[0];
    const char* outName = names[1];

    InitDecoderTables();
    CMP3Stream walk;
    if (!walk.Open(inName)) {
        // The log gets the player's lines for the same failure, under this tool's name.
        const char* reason = "it could not be opened or holds no MP3 frame to trust";
        if (walk.LastOpenFailure() == CMP3Stream::OPEN_START_FAILED) {
            g_logFile.Log("[%s:%d]file(%s),decoder start failed", kUnitPath, __LINE__, inName);
            reason = "the decoder refused its first frame (not Layer III, or a bad VBR header)";
        } else if (walk.LastOpenFailure() == CMP3Stream::OPEN_OUT_OF_MEMORY) {
            g_logFile.Log("[%s:%d]file(%s),out of memory", kUnitPath, __LINE__, inName);
            reason = "out of memory";
        } else {
            g_logFile.Log("[%s:%d]file(%s),open failed", kUnitPath, __LINE__, inName);
        }
        fprintf(stderr, "quorbel-decode: cannot play %s: %s; see quorbel.log\n", inName, reason);
        return kExitCannotPlay;
    }
    const MP3StreamInfo& info = walk.StreamInfo();

    Output out = {fopen(outName, "wb"), 0, false};
    if (out.file == nullptr) {
        fprintf(stderr, "quorbel-decode: cannot create %s\n", outName);
        return kExitWriteFailed;
    }
    uint8_t header[kWavHeaderBytes];
    if (!raw) {
        // Sizes are filled in once the data is written.
        MakeWavHeader(header, static_cast<uint32_t>(info.outChannels),
                      static_cast<uint32_t>(info.outSampleRate), 0);
        out.failed = fwrite(header, 1, sizeof(header), out.file) != sizeof(header);
    }
    if (!out.failed) {
        walk.Pass(&WriteBatch, &out);
    }
    if (!raw && !out.failed) {
        // A WAV file holds at most 4 GiB; longer output keeps the largest size it can state.
        const uint64_t limit = 0xFFFFFFFFull - 36;
        const uint32_t dataBytes = static_cast<uint32_t>(out.bytes < limit ? out.bytes : limit);
        MakeWavHeader(header, static_cast<uint32_t>(info.outChannels),
                      static_cast<uint32_t>(info.outSampleRate), dataBytes);
        out.failed = fseek(out.file, 0, SEEK_SET) != 0 ||
                     fwrite(header, 1, sizeof(header), out.file) != sizeof(header);
    }
    if (fclose(out.file) != 0) {
        out.failed = true;
    }
    if (out.failed) {
        fprintf(stderr, "quorbel-decode: writing %s failed\n", outName);
        return kExitWriteFailed;
    }

    if (verbose) {
        fprintf(stderr, "%s: %s Layer III, %d Hz, %d channel(s); %u frames decoded in %u batches\n",
                inName, VersionName(info.version), info.outSampleRate, info.outChannels,
                walk.FramesDecoded(), walk.BatchesWritten());
        if (walk.RefusedFrame() != nullptr) {
            fprintf(stderr, "%s: the walk ended at the frame at offset %u, refused with code %u\n",
                    inName, static_cast<unsigned>(walk.RefusedFrame() - walk.File().pView),
                    walk.RefusedError());
        }
    }
    return kExitOk;
}
