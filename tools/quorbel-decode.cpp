// quorbel-decode: an MP3 file to a 16-bit PCM WAV file (or raw PCM), through this system's
// scanner and decoder, walking the file exactly as the MP3 player does in one pass.
//
//   quorbel-decode [--raw] [--verbose] in.mp3 out.wav
//
// An output name of "-" is standard output. Exit status: 0 decoded; 1 the file cannot be played (the reasons are in quorbel.log in the
// working directory); 2 wrong arguments; 3 the output could not be written.

#include <cstdint>
#include <cstdio>
#include <cstring>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif

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

int CountBatch(void* context, const uint8_t*, uint32_t bytes) {
    static_cast<Output*>(context)->bytes += bytes;
    return 1;
}

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

// On stdout for --help (exit 0), on stderr for wrong usage (exit 2).
int Usage(FILE* to, int status) {
    fprintf(to,
            "usage: quorbel-decode [--raw] [--verbose] in.mp3 out.wav\n"
            "  out.wav    the output file, or - for standard output\n"
            "  --raw      write bare PCM (signed 16-bit little-endian, channels interleaved)\n"
            "  --verbose  describe the stream and how the walk ended\n"
            "  --help     show this text\n"
            "  --version  show the version\n"
            "Exit status: 0 decoded, 1 the file cannot be played (see quorbel.log), 2 wrong\n"
            "usage, 3 the output could not be written.\n");
    return status;
}

// The WAV header's data size: a WAV file holds at most 4 GiB; longer output keeps the largest
// size it can state.
uint32_t WavDataBytes(uint64_t bytes) {
    const uint64_t limit = 0xFFFFFFFFull - 36;
    return static_cast<uint32_t>(bytes < limit ? bytes : limit);
}

// Scans the file and starts the decoder; 1 on success, else 0 with the failure logged and told.
int OpenWalk(CMP3Stream* walk, const char* inName) {
    if (walk->Open(inName)) return 1;
    // The log gets the player's lines for the same failure, under this tool's name.
    const char* reason = "it could not be opened or holds no MP3 frame to trust";
    if (walk->LastOpenFailure() == CMP3Stream::OPEN_START_FAILED) {
        g_logFile.Log("[%s:%d]file(%s),decoder start failed", kUnitPath, __LINE__, inName);
        reason = "the decoder refused its first frame (not Layer III, or a bad VBR header)";
    } else if (walk->LastOpenFailure() == CMP3Stream::OPEN_OUT_OF_MEMORY) {
        g_logFile.Log("[%s:%d]file(%s),out of memory", kUnitPath, __LINE__, inName);
        reason = "out of memory";
    } else {
        g_logFile.Log("[%s:%d]file(%s),open failed", kUnitPath, __LINE__, inName);
    }
    fprintf(stderr, "quorbel-decode: cannot play %s: %s; see quorbel.log\n", inName, reason);
    return 0;
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
        } else if (strcmp(argv[i], "--help") == 0) {
            return Usage(stdout, kExitOk);
        } else if (strcmp(argv[i], "--version") == 0) {
            fputs("quorbel-decode " QUORBEL_VERSION "\n", stdout);
            return kExitOk;
        } else if (argv[i][0] == '-' && argv[i][1] == '-') {
            fprintf(stderr, "quorbel-decode: unknown option %s\n", argv[i]);
            return Usage(stderr, kExitUsage);
        } else if (nameCount < 2) {
            names[nameCount++] = argv[i];
        } else {
            return Usage(stderr, kExitUsage);
        }
    }
    if (nameCount != 2) {
        return Usage(stderr, kExitUsage);
    }
    const char* inName = names[0];
    const char* outName = names[1];

    const bool toStdout = strcmp(outName, "-") == 0;
    const char* outLabel = toStdout ? "standard output" : outName;

    InitDecoderTables();
    CMP3Stream walk;
    if (!OpenWalk(&walk, inName)) return kExitCannotPlay;
    const MP3StreamInfo& info = walk.StreamInfo();

    // Standard output cannot seek back to the header, so its data size is known first: a walk
    // of its own counts the bytes. Not a second pass of the same walk: the decoder keeps its
    // state from pass to pass, as in a looping play, so that pass would not give the same PCM.
    uint64_t countedBytes = 0;
    if (toStdout && !raw) {
        CMP3Stream counting;
        if (!OpenWalk(&counting, inName)) return kExitCannotPlay;
        Output count = {nullptr, 0, false};
        counting.Pass(&CountBatch, &count);
        countedBytes = count.bytes;
    }

    Output out = {toStdout ? stdout : fopen(outName, "wb"), 0, false};
    if (out.file == nullptr) {
        fprintf(stderr, "quorbel-decode: cannot create %s\n", outName);
        return kExitWriteFailed;
    }
#ifdef _WIN32
    // In text mode every 0x0A byte of the PCM would gain a 0x0D before it.
    if (toStdout && _setmode(_fileno(stdout), _O_BINARY) == -1) {
        fprintf(stderr, "quorbel-decode: cannot put standard output in binary mode\n");
        return kExitWriteFailed;
    }
#endif
    uint8_t header[kWavHeaderBytes];
    if (!raw) {
        // A file's sizes are filled in once the data is written.
        MakeWavHeader(header, static_cast<uint32_t>(info.outChannels),
                      static_cast<uint32_t>(info.outSampleRate), WavDataBytes(countedBytes));
        out.failed = fwrite(header, 1, sizeof(header), out.file) != sizeof(header);
    }
    if (!out.failed) {
        walk.Pass(&WriteBatch, &out);
    }
    if (toStdout && !raw && !out.failed && out.bytes != countedBytes) {
        // Only a file changed under the tool between the walks gets here.
        fprintf(stderr, "quorbel-decode: %s gave %llu bytes, not the %llu counted first\n", inName,
                static_cast<unsigned long long>(out.bytes),
                static_cast<unsigned long long>(countedBytes));
        out.failed = true;
    }
    if (!toStdout && !raw && !out.failed) {
        MakeWavHeader(header, static_cast<uint32_t>(info.outChannels),
                      static_cast<uint32_t>(info.outSampleRate), WavDataBytes(out.bytes));
        out.failed = fseek(out.file, 0, SEEK_SET) != 0 ||
                     fwrite(header, 1, sizeof(header), out.file) != sizeof(header);
    }
    if ((toStdout ? fflush(out.file) : fclose(out.file)) != 0) {
        out.failed = true;
    }
    if (out.failed) {
        fprintf(stderr, "quorbel-decode: writing %s failed\n", outLabel);
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
