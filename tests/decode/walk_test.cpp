// The player's walk (CMP3Stream) where it differs from a plain frame loop, which the
// conformance and differential tests do not see: batches of ten, the frame that ends a pass, a
// refused write, frames skipped for want of reservoir data (which keep what the block held from
// the batch before), and a start on files shorter than the decoder's minimum input.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "decode_support.h"
#include "player/mp3/MP3File.h"
#include "player/mp3/MP3Stream.h"
#include "player/mp3/decoder/DecoderTables.h"
#include "player/mp3/decoder/MP3Decoder.h"

namespace fs = std::filesystem;

namespace {

// The walk expects the decoder's tables, as the MP3 player builds them at its construction.
const bool kTablesBuilt = (InitDecoderTables(), true);

const std::string kConformance = std::string(QUORBEL_SHARED_DATA_DIR) + "/conformance/";

struct Batches {
    std::vector<uint32_t> sizes;
    uint32_t refuseAfter = 0xFFFFFFFF;
};

int RecordBatch(void* context, const uint8_t*, uint32_t bytes)
{
    Batches* batches = static_cast<Batches*>(context);
    batches->sizes.push_back(bytes);
    return batches->sizes.size() < batches->refuseAfter ? 1 : 0;
}

TEST(PlayerWalk, BatchesOfTenEndAtTheFrameTheDecoderRefuses)
{
    // 22 whole frames of l3-sin1k0db (44.1 kHz stereo), then 100 bytes of the next: the cut
    // frame is handed out by the scanner and refused by the decoder (code 5), so the third
    // batch holds the two frames before it.
    TempDirectory dir("quorbel-walk");
    const std::string in = kConformance + "l3-sin1k0db.bit";
    std::vector<size_t> offsets;
    {
        CMP3File file;
        ASSERT_EQ(1, file.Open(in.c_str()));
        for (const uint8_t* f = file.pFirstFrame; f != nullptr && offsets.size() < 23; f = file.NextFrame(f)) {
            offsets.push_back(static_cast<size_t>(f - file.pView));
        }
    }
    ASSERT_EQ(23u, offsets.size());
    const std::vector<uint8_t> stream = ReadBytes(in);
    const fs::path cut = dir.Path() / "cut.mp3";
    ASSERT_TRUE(WriteBytes(cut, std::vector<uint8_t>(stream.begin(), stream.begin() + static_cast<long>(offsets[22] + 100))));

    CMP3Stream walk;
    ASSERT_EQ(1, walk.Open(cut.string().c_str()));
    Batches batches;
    ASSERT_EQ(1, walk.Pass(&RecordBatch, &batches));
    EXPECT_EQ((std::vector<uint32_t>{46080, 46080, 2 * 4608}), batches.sizes);
    EXPECT_EQ(22u, walk.FramesDecoded());
    EXPECT_EQ(3u, walk.BatchesWritten());
    EXPECT_EQ(5u, walk.RefusedError());
    ASSERT_NE(nullptr, walk.RefusedFrame());
    EXPECT_EQ(offsets[22], static_cast<size_t>(walk.RefusedFrame() - walk.File().pView));

    // A refused write ends the pass at once; the next pass starts again at the first frame
    // and runs on the same decoder.
    Batches refused;
    refused.refuseAfter = 1;
    EXPECT_EQ(0, walk.Pass(&RecordBatch, &refused));
    EXPECT_EQ(1u, refused.sizes.size());
    Batches again;
    EXPECT_EQ(1, walk.Pass(&RecordBatch, &again));
    EXPECT_EQ(batches.sizes, again.sizes);
}

TEST(PlayerWalk, SkippedFrameKeepsThePreviousBatchsPcm)
{
    // MPEG-2 at 8 kbit/s: 26-byte frames hold about 13 bytes of main data. Pointing frame 14
    // 255 bytes back, further than the reservoir reaches, makes the decoder skip it; its
    // stretch of the block (the fifth of the second batch) keeps frame 4's PCM.
    TempDirectory dir("quorbel-walk");
    const fs::path wav = dir.Path() / "tone.wav";
    const fs::path mp3 = dir.Path() / "tone.mp3";
    std::string output;
    ASSERT_EQ(0, RunCommand("sox -R -n -r 22050 -b 16 -c 1 " + Quote(wav) +
                                " synth 2 sine 440 sine 1000 remix - norm -6", &output)) << output;
    ASSERT_EQ(0, RunCommand("lame --quiet -b 8 --resample 22.05 " + Quote(wav) + " " + Quote(mp3), &output))
        << output;

    std::vector<size_t> offsets;
    {
        CMP3File file;
        ASSERT_EQ(1, file.Open(mp3.string().c_str()));
        for (const uint8_t* f = file.pFirstFrame; f != nullptr && offsets.size() < 16; f = file.NextFrame(f)) {
            offsets.push_back(static_cast<size_t>(f - file.pView));
        }
    }
    ASSERT_EQ(16u, offsets.size());
    std::vector<uint8_t> bytes = ReadBytes(mp3);
    const size_t header = offsets[14];
    ASSERT_EQ(0xFF, bytes[header]);
    ASSERT_EQ(0xF3, bytes[header + 1]) << "MPEG-2 Layer III without CRC";
    bytes[header + 4] = 0xFF;  // main_data_begin, the first 8 bits of MPEG-2 side information
    const fs::path patched = dir.Path() / "patched.mp3";
    ASSERT_TRUE(WriteBytes(patched, bytes));

    DecodedStream walk;
    std::string error;
    ASSERT_TRUE(DecodeWithWalk(patched.string(), &walk, &error)) << error;
    ASSERT_GT(walk.skipped.size(), 20u);
    for (size_t i = 0; i < 20; ++i) {
        EXPECT_EQ(i == 14 ? 1 : 0, walk.skipped[i]) << "frame " << i;
    }
    const size_t frame = walk.frameBytes / 2;
    const auto pcmOf = [&](size_t i) {
        return std::vector<int16_t>(walk.pcm.begin() + static_cast<long>(i * frame),
                                    walk.pcm.begin() + static_cast<long>((i + 1) * frame));
    };
    const std::vector<int16_t> kept = pcmOf(4);
    ASSERT_TRUE(std::any_of(kept.begin(), kept.end(), [](int16_t v) { return v != 0; }))
        << "frame 4 must carry sound for the test to show anything";
    EXPECT_EQ(kept, pcmOf(14));

    // Decoded on its own, into a zeroed block, the skipped frame is silence.
    DecodedStream own;
    ASSERT_TRUE(DecodeFrameByFrame(patched.string(), &own, &error)) << error;
    ASSERT_GT(own.pcm.size(), 15 * frame);
    EXPECT_TRUE(std::all_of(own.pcm.begin() + static_cast<long>(14 * frame),
                            own.pcm.begin() + static_cast<long>(15 * frame), [](int16_t v) { return v == 0; }));
}

TEST(PlayerWalk, StartsOnFilesShorterThanTheDecodersMinimumWithoutReadingPastThem)
{
    // The player gives StartDecoder no limit, so a stream of two small frames starts; the
    // bytes left would not pass the decoder's minimum of 156.
    TempDirectory dir("quorbel-walk");
    struct Case {
        const char* name;
        std::vector<uint8_t> bytes;
        int32_t bitrate;      // 0 when a VBR header is found
        int32_t totalFrames;
    };
    // MPEG-2.5, 8 kbit/s, 8 kHz, single channel: 72-byte frames of zeros.
    std::vector<uint8_t> plain(144, 0);
    const uint8_t small[4] = {0xFF, 0xE3, 0x18, 0xC0};
    memcpy(plain.data(), small, 4);
    memcpy(plain.data() + 72, small, 4);
    // MPEG-2.5, 8 kbit/s, 12 kHz, single channel: 48-byte frames; a whole Xing header 13 bytes
    // in (4 header bytes and 9 of side information), flags 1, seven frames.
    std::vector<uint8_t> xing(96, 0);
    const uint8_t twelve[4] = {0xFF, 0xE3, 0x14, 0xC0};
    memcpy(xing.data(), twelve, 4);
    memcpy(xing.data() + 13, "Xing\0\0\0\x01\0\0\0\x07", 12);
    memcpy(xing.data() + 48, twelve, 4);
    // MPEG-2, 8 kbit/s, 22.05 kHz, stereo with CRC, padded: a 27-byte frame whose "Xing" id
    // at 23 fits but whose fields run past the end of the 31-byte file. It counts as no VBR
    // header; read with zeros after the end, its flags would be 0 and the start would fail.
    std::vector<uint8_t> cut(31, 0);
    const uint8_t crcHeader[4] = {0xFF, 0xF2, 0x12, 0x00};
    memcpy(cut.data(), crcHeader, 4);
    memcpy(cut.data() + 23, "Xing", 4);
    const uint8_t next[4] = {0xFF, 0xF2, 0x10, 0x00};
    memcpy(cut.data() + 27, next, 4);
    const Case cases[] = {
        {"plain.mp3", plain, 8000, 0},
        {"xing.mp3", xing, 0, 7},
        {"cut-xing.mp3", cut, 8000, 0},
    };
    for (const Case& c : cases) {
        const fs::path path = dir.Path() / c.name;
        ASSERT_TRUE(WriteBytes(path, c.bytes));
        CMP3Stream walk;
        ASSERT_EQ(1, walk.Open(path.string().c_str())) << c.name;
        EXPECT_EQ(c.bitrate, walk.StreamInfo().bitrate) << c.name;
        EXPECT_EQ(c.totalFrames, walk.StreamInfo().totalFrames) << c.name;

        // Given the bytes left as its limit, the decoder refuses the same file.
        CMP3Decoder decoder;
        MP3StreamInfo info;
        memset(&info, 0, sizeof(info));
        EXPECT_EQ(0, decoder.StartDecoder(walk.File().pFirstFrame, static_cast<int32_t>(c.bytes.size()), &info));
        EXPECT_EQ(5u, decoder.LastError);
    }
}

}  // namespace
