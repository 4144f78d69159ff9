// Fuzz target of the player's walk (CMP3Stream), which the MP3 player and quorbel-decode share.
// The input's first byte picks a first-frame header, the rest follows it as the rest of the file,
// read both ways (ReadBothWays). From the file, the walk runs two passes as a looping play does
// (no restart between them): each hands out batches of ten whole frames, the last fewer, the same
// in both. From the file and from the heap copy, the frames are decoded as the player starts and
// walks them, alike.

#include <memory>

#include "player/mp3/MP3Stream.h"
#include "player/mp3/decoder/DecoderTables.h"
#include "tests/support/TestSupport.h"

using namespace test_support;

namespace {

// MPEG-1 128 kbit/s 44.1 kHz joint (mid/side); 64 kbit/s single channel; 48 kHz stereo with CRC;
// 320 kbit/s 32 kHz joint (both), 1440-byte frames. MPEG-2 64 kbit/s 22.05 kHz joint (both);
// 16 kHz single channel with CRC; 8 kbit/s 24 kHz joint (intensity), 24-byte frames. MPEG-2.5
// 11.025 kHz joint (intensity); 8 kHz single channel; 12 kHz stereo with CRC.
const char kFirstHeaders[][5] = {"\xFF\xFB\x90\x64", "\xFF\xFB\x50\xC4", "\xFF\xFA\x94\x34",
                                 "\xFF\xFB\xE8\x74", "\xFF\xF3\x80\x74", "\xFF\xF2\x48\xC4",
                                 "\xFF\xF3\x14\x54", "\xFF\xE3\x40\x54", "\xFF\xE3\x18\xC4",
                                 "\xFF\xE2\x24\x00"};

void TwoPasses(const char* path) {
    CMP3Stream walk;
    if (!walk.Open(path)) return;
    const MP3StreamInfo info = walk.StreamInfo();
    FuzzCheck((info.outChannels == 1 || info.outChannels == 2) && info.outFrameBytes > 0 &&
                  info.outFrameBytes <= 4608,
              "stream information out of range");
    const auto batch = [](void* sizes, const uint8_t*, uint32_t bytes) {
        return static_cast<std::vector<uint32_t>*>(sizes)->push_back(bytes), 1;
    };
    std::vector<uint32_t> first, second;
    FuzzCheck(walk.Pass(batch, &first) && walk.Pass(batch, &second) && first == second,
              "the passes differ");
    for (size_t i = 0; i < first.size(); ++i)
        FuzzCheck(first[i] % info.outFrameBytes == 0 && first[i] <= 10u * info.outFrameBytes &&
                      (i + 1 == first.size() || first[i] == 10u * info.outFrameBytes),
                  "a batch is not ten whole frames, or fewer at the end");
}

// The walk's passes on the file; the lengths of the frames the decoder takes, either way.
std::vector<int32_t> Walk(const CMP3File& view) {
    if (view.szFileName[0]) TwoPasses(view.szFileName);
    std::vector<int32_t> lengths;
    const uint8_t* end = view.pView + view.dwSize;
    auto decoder = std::make_unique<CMP3Decoder>();
    MP3StreamInfo info{};
    if (!CMP3Stream::StartAsThePlayer(decoder.get(), view.pFirstFrame,
                                      uint64_t(end - view.pFirstFrame), &info))
        return lengths;
    std::vector<uint8_t> block(size_t(info.outFrameBytes));
    MP3FrameIO io{};
    for (const uint8_t* f = view.pFirstFrame; f; f = view.NextFrame(f)) {
        io.inData = f;
        io.inLength = int32_t(end - f);
        io.outData = block.data();
        if (!decoder->DecodeFrame(&io)) break;
        FuzzCheck(io.inLength > 0 && io.inLength <= end - f && io.outLength == info.outFrameBytes,
                  "frame out of range");
        lengths.push_back(io.inLength);
    }
    return lengths;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool tablesReady = [] {
        InitDecoderTables();
        return true;
    }();
    if (size < 1 || size > 1000000 || !tablesReady) return 0;
    const Bytes file = Bytes(kFirstHeaders[data[0] % 10], 4) +
                       Bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    ReadBothWays<CMP3File>(reinterpret_cast<const uint8_t*>(file.data()), file.size(), Walk);
    return 0;
}
