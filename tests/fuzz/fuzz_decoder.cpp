// Fuzz target of the player's walk (CMP3Stream), which the MP3 player and quorbel-decode share.
// The input's first byte picks a Layer III first-frame header (every version, mono and stereo,
// with and without CRC, joint stereo with mid/side and intensity); the rest of the input follows
// it as the rest of the file. The walk opens the file and runs two passes, as a looping play does
// (no restart between them): each hands out batches of ten whole frames, the last one fewer, the
// same in both passes. Then the frames are decoded once more from a heap copy of exactly the
// file's size, where AddressSanitizer sees a read even one byte past the end that a mapping,
// rounded up to whole pages, would hide.

#include <memory>

#include "player/mp3/MP3Stream.h"
#include "player/mp3/decoder/DecoderTables.h"
#include "tests/support/TestSupport.h"

namespace {

using test_support::FuzzCheck;

const char kFirstHeaders[][5] = {
    "\xFF\xFB\x90\x64",  // MPEG-1 128 kbit/s 44.1 kHz, joint stereo (mid/side)
    "\xFF\xFB\x50\xC4",  // MPEG-1 64 kbit/s 44.1 kHz, single channel
    "\xFF\xFA\x94\x34",  // MPEG-1 128 kbit/s 48 kHz, stereo, CRC
    "\xFF\xFB\xE8\x74",  // MPEG-1 320 kbit/s 32 kHz, joint stereo (both): 1440-byte frames
    "\xFF\xF3\x80\x74",  // MPEG-2 64 kbit/s 22.05 kHz, joint stereo (both)
    "\xFF\xF2\x48\xC4",  // MPEG-2 32 kbit/s 16 kHz, single channel, CRC
    "\xFF\xF3\x14\x54",  // MPEG-2 8 kbit/s 24 kHz, joint stereo (intensity): 24-byte frames
    "\xFF\xE3\x40\x54",  // MPEG-2.5 32 kbit/s 11.025 kHz, joint stereo (intensity)
    "\xFF\xE3\x18\xC4",  // MPEG-2.5 8 kbit/s 8 kHz, single channel
    "\xFF\xE2\x24\x00",  // MPEG-2.5 16 kbit/s 12 kHz, stereo, CRC
};

struct Batches {
    uint32_t frameBytes;
    std::vector<uint32_t> sizes;
    uint32_t sum = 0;
};
int Batch(void* context, const uint8_t* pcm, uint32_t bytes) {
    Batches& b = *static_cast<Batches*>(context);
    FuzzCheck(bytes % b.frameBytes == 0 && bytes <= 10 * b.frameBytes, "fuzz_decoder: a batch is not of whole frames");
    for (uint32_t i = 0; i < bytes; i += 64) b.sum += pcm[i];
    b.sizes.push_back(bytes);
    return 1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The log goes to /dev/null through a link named like it: refused inputs log a line each.
    static const test_support::TempFolder folder;
    static const std::string input = [] {
        InitDecoderTables();
        const auto previous = std::filesystem::current_path();
        std::filesystem::current_path(folder.path);
        std::filesystem::create_symlink("/dev/null", "quorbel.log");
        FuzzCheck(g_logFile.WriteToFile("") && std::filesystem::remove("quorbel.log"), "fuzz_decoder: no log to /dev/null");
        std::filesystem::current_path(previous);
        return folder.Path("input.mp3");
    }();
    if (size < 1 || size > 1000000) return 0;
    const std::string file = std::string(kFirstHeaders[data[0] % 10], 4) + std::string(reinterpret_cast<const char*>(data) + 1, size - 1);
    FuzzCheck(test_support::WriteFile(input, file), "fuzz_decoder: cannot write the input");

    CMP3Stream walk;
    if (walk.Open(input.c_str())) {
        const MP3StreamInfo& info = walk.StreamInfo();
        FuzzCheck((info.outChannels == 1 || info.outChannels == 2) && info.outFrameBytes > 0 &&
                      info.outFrameBytes <= 4608, "fuzz_decoder: stream information out of range");
        Batches first{uint32_t(info.outFrameBytes), {}}, second = first;
        FuzzCheck(walk.Pass(Batch, &first) && walk.Pass(Batch, &second), "fuzz_decoder: a pass ended early");
        for (size_t i = 0; i + 1 < first.sizes.size(); ++i)
            FuzzCheck(first.sizes[i] == 10 * first.frameBytes, "fuzz_decoder: a batch before the last is short");
        FuzzCheck(first.sizes == second.sizes, "fuzz_decoder: the passes differ");
    }

    std::vector<uint8_t> exact(file.begin(), file.end());
    CMP3File view;
    view.pView = exact.data();
    view.dwSize = uint32_t(exact.size());
    auto decoder = std::make_unique<CMP3Decoder>();
    MP3StreamInfo info{};
    const uint8_t* end = exact.data() + exact.size();
    if (view.InitFileInfo() && CMP3Stream::StartAsThePlayer(decoder.get(), view.pFirstFrame, uint64_t(end - view.pFirstFrame), &info)) {
        std::vector<uint8_t> block(size_t(info.outFrameBytes));
        MP3FrameIO io{};
        for (const uint8_t* f = view.pFirstFrame; f; f = view.NextFrame(f)) {
            io.inData = f, io.inLength = int32_t(end - f), io.outData = block.data();
            if (!decoder->DecodeFrame(&io)) break;
            FuzzCheck(io.inLength > 0 && io.inLength <= end - f && io.outLength == info.outFrameBytes, "fuzz_decoder: frame out of range");
        }
    }
    view.pView = nullptr;  // not a mapping: keep Unmap away from the heap block
    view.dwSize = 0;
    return 0;
}
