// Fuzz target of the decoder as the MP3 player drives it. The input's first byte picks a valid
// Layer III first-frame header (every version, mono and stereo, with and without CRC, joint
// stereo with mid/side and intensity); the rest of the input follows that header as the rest
// of the file. The file is held in a heap block of exactly its size, so that AddressSanitizer
// reports a read even one byte past its end. The scanner finds the first frame; the decoder
// starts on it; then two passes run as in a looping play: the frames, handed out by NextFrame,
// decoded ten at a time into a 64 KiB block zeroed per pass, each with the bytes to the end
// of the file as its input length.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "player/mp3/MP3File.h"
#include "player/mp3/decoder/DecoderTables.h"
#include "player/mp3/decoder/MP3Decoder.h"
#include "player/pub/Log.h"
#include "player/mp3/MP3Stream.h"

namespace {

const uint8_t kFirstHeaders[][4] = {
    {0xFF, 0xFB, 0x90, 0x64},  // MPEG-1 128 kbit/s 44.1 kHz, joint stereo (mid/side)
    {0xFF, 0xFB, 0x50, 0xC4},  // MPEG-1 64 kbit/s 44.1 kHz, single channel
    {0xFF, 0xFA, 0x94, 0x34},  // MPEG-1 128 kbit/s 48 kHz, stereo, CRC
    {0xFF, 0xFB, 0xE8, 0x74},  // MPEG-1 320 kbit/s 32 kHz, joint stereo (both): 1440-byte frames
    {0xFF, 0xF3, 0x80, 0x74},  // MPEG-2 64 kbit/s 22.05 kHz, joint stereo (both)
    {0xFF, 0xF2, 0x48, 0xC4},  // MPEG-2 32 kbit/s 16 kHz, single channel, CRC
    {0xFF, 0xF3, 0x14, 0x54},  // MPEG-2 8 kbit/s 24 kHz, joint stereo (intensity): 24-byte frames
    {0xFF, 0xE3, 0x40, 0x54},  // MPEG-2.5 32 kbit/s 11.025 kHz, joint stereo (intensity)
    {0xFF, 0xE3, 0x18, 0xC4},  // MPEG-2.5 8 kbit/s 8 kHz, single channel
    {0xFF, 0xE2, 0x24, 0x00},  // MPEG-2.5 16 kbit/s 12 kHz, stereo, CRC
};
const size_t kHeaderCount = sizeof(kFirstHeaders) / sizeof(kFirstHeaders[0]);

const uint32_t kBlockBytes = 65536;
const int kFramesPerBatch = 10;

// Sends the log to /dev/null: refused inputs log a line each, and millions of them would fill
// the disk. The log stays open once opened, so it is opened once from a scratch folder,
// through a link named like the log.
bool LogToNowhere()
{
    char folder[] = "/tmp/fuzz_decoder.XXXXXX";
    char previous[4096];
    if (mkdtemp(folder) == nullptr || getcwd(previous, sizeof(previous)) == nullptr ||
        chdir(folder) != 0) {
        perror("scratch folder");
        abort();
    }
    if (symlink("/dev/null", "quorbel.log") != 0 || g_logFile.WriteToFile("") != 1 ||
        unlink("quorbel.log") != 0 || chdir(previous) != 0 || rmdir(folder) != 0) {
        perror("log to /dev/null");
        abort();
    }
    return true;
}

void Check(bool condition, const char* what)
{
    if (!condition) {
        fprintf(stderr, "fuzz_decoder: %s\n", what);
        abort();
    }
}

volatile uint32_t g_sink;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool ready = (InitDecoderTables(), LogToNowhere());
    (void)ready;
    if (size < 1 || size > 1000000) {
        return 0;
    }

    std::vector<uint8_t> content(4 + size - 1);
    memcpy(content.data(), kFirstHeaders[data[0] % kHeaderCount], 4);
    memcpy(content.data() + 4, data + 1, size - 1);

    CMP3File file;
    file.pView = content.data();
    file.dwSize = static_cast<uint32_t>(content.size());
    if (file.InitFileInfo()) {
        // A fresh decoder per play, as the player constructs one; the block on the heap, so
        // that a write past it is reported.
        std::unique_ptr<CMP3Decoder> decoder(new CMP3Decoder());
        std::unique_ptr<uint8_t[]> blockOwner(new uint8_t[kBlockBytes]);
        uint8_t* const block = blockOwner.get();

        MP3StreamInfo info;
        memset(&info, 0, sizeof(info));
        const uint8_t* end = file.pView + file.dwSize;
        if (CMP3Stream::StartAsThePlayer(decoder.get(), file.pFirstFrame,
                                        static_cast<uint64_t>(end - file.pFirstFrame), &info)) {
            Check(info.outChannels == 1 || info.outChannels == 2, "channels out of range");
            Check(info.outFrameBytes > 0 && info.outFrameBytes <= 4608, "frame PCM size out of range");
            uint32_t sum = 0;
            for (int pass = 0; pass < 2; ++pass) {
                memset(block, 0, kBlockBytes);
                MP3FrameIO io;
                memset(&io, 0, sizeof(io));
                const uint8_t* frame = file.pFirstFrame;
                while (frame != nullptr) {
                    uint8_t* pos = block;
                    for (int i = 0; i < kFramesPerBatch && frame != nullptr; ++i) {
                        io.inData = frame;
                        io.inLength = static_cast<int32_t>(end - frame);
                        io.outData = pos;
                        if (!decoder->DecodeFrame(&io)) {
                            Check(decoder->LastError >= 3 && decoder->LastError <= 5, "unknown error code");
                            frame = nullptr;
                            break;
                        }
                        Check(io.inLength > 0 && io.inLength <= end - frame, "frame length past the end");
                        Check(io.outLength == info.outFrameBytes, "PCM size changed");
                        pos += io.outLength;
                        Check(pos <= block + kBlockBytes, "the block overflowed");
                        frame = file.NextFrame(frame);
                    }
                    for (const uint8_t* p = block; p < pos; p += 64) {
                        sum += *p;
                    }
                }
            }
            g_sink = sum;
        }
    }
    // Not a mapping: keep Unmap away from the heap block.
    file.pView = nullptr;
    file.dwSize = 0;
    return 0;
}
