// The conformance streams decoded through the MP3 player's walk and compared with the
// standard decoder's PCM negated. Frames that this decoder skips for want of reservoir data
// have no counterpart in the reference and are left out of the comparison; the reference also
// leaves out each stream's last frame.
//
// Each stream is decoded twice: by the player's walk (the scanner hands out the frames) and
// frame after frame by the decoder's own frame length. Where the scanner refuses a header the
// decoder accepts (l3-hecommon carries the reserved emphasis value 10), the player's walk
// resynchronises into main data and leaves the stream; the comparison then covers the frames
// before that point, and the decoder's own walk is held to the figures for the whole stream.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "decode_support.h"
#include "player/mp3/MP3File.h"

namespace {

struct Stream {
    const char* name;
    int maxDiff;  // measured by an independent reading of the same rules
    double rms;
    int channels;
    int sampleRate;
};

// Where this decoder departs from the standard on purpose, the figures are above 1:
// l3-si_block (mixed-block flag on block types 1 and 3), l3-si_huff and the MPEG-2 streams
// (sound in the top subband or above line 522), M2L3_noise (noise up to the top of the band).
const Stream kStreams[] = {
    {"l3-compl", 1, 0.71, 1, 48000},
    {"l3-he_32khz", 1, 0.70, 1, 32000},
    {"l3-he_44khz", 1, 0.70, 1, 44100},
    {"l3-he_48khz", 1, 0.70, 1, 48000},
    {"l3-hecommon", 1, 0.71, 2, 44100},
    {"l3-si", 1, 0.65, 1, 44100},
    {"l3-si_block", 291, 18.6, 1, 44100},
    {"l3-si_huff", 4, 0.73, 1, 44100},
    {"l3-sin1k0db", 1, 0.71, 2, 44100},
    {"M2L3_bitrate_16_all", 2, 0.70, 1, 16000},
    {"M2L3_bitrate_22_all", 48, 0.89, 1, 22050},
    {"M2L3_bitrate_24_all", 1, 0.70, 1, 24000},
    {"M2L3_compl24", 101, 1.47, 1, 24000},
    {"M2L3_noise", 6697, 1327, 2, 22050},
};

// Two float implementations of the same arithmetic may move a maximum by 1 and an RMS by a
// few hundredths; the figures are also rounded (1327 to four digits).
const int kMaxSlack = 1;
double RmsLimit(double figure) { return figure * 1.001 + 0.05; }

struct Row {
    size_t frames = 0;        // frames of the player's walk
    size_t compared = 0;      // of them, compared with the reference
    size_t skipped = 0;
    DiffStats player;
    DiffStats decoder;
};

std::map<std::string, Row>& Results()
{
    static std::map<std::string, Row> results;
    return results;
}

// The number of leading frames at which both walks stand at the same offsets.
size_t CommonFrames(const DecodedStream& a, const DecodedStream& b)
{
    size_t n = 0;
    while (n < a.offsets.size() && n < b.offsets.size() && a.offsets[n] == b.offsets[n]) {
        ++n;
    }
    return n;
}

size_t Count(const std::vector<uint8_t>& flags, size_t frames)
{
    return static_cast<size_t>(std::count(flags.begin(), flags.begin() + static_cast<long>(frames), 1));
}

class Conformance : public ::testing::TestWithParam<Stream> {
public:
    static void TearDownTestSuite()
    {
        printf("\nAgainst the reference negated (player's walk | decoder's own walk):\n");
        printf("%-20s %7s %7s %9s %8s %8s | %9s %8s %8s\n", "stream", "frames", "compared",
               "max diff", "RMS", "PSNR dB", "max diff", "RMS", "PSNR dB");
        for (const Stream& s : kStreams) {
            auto it = Results().find(s.name);
            if (it == Results().end()) {
                continue;
            }
            const Row& r = it->second;
            printf("%-20s %7zu %7zu %9d %8.3f %8.2f | %9d %8.3f %8.2f\n", s.name, r.frames,
                   r.compared, r.player.maxAbs, r.player.rms, r.player.psnr, r.decoder.maxAbs,
                   r.decoder.rms, r.decoder.psnr);
        }
        printf("\n");
    }
};

TEST_P(Conformance, MatchesTheNegatedReference)
{
    const Stream& s = GetParam();
    const std::string base = std::string(QUORBEL_SHARED_DATA_DIR) + "/conformance/" + s.name;
    const std::vector<int16_t> reference = ReadPcm(base + ".pcm");
    ASSERT_FALSE(reference.empty()) << base << ".pcm";

    DecodedStream walk;
    DecodedStream own;
    std::string error;
    ASSERT_TRUE(DecodeWithWalk(base + ".bit", &walk, &error)) << error;
    ASSERT_TRUE(DecodeFrameByFrame(base + ".bit", &own, &error)) << error;
    EXPECT_EQ(s.channels, walk.channels);
    EXPECT_EQ(s.sampleRate, walk.sampleRate);
    const size_t frameSamples = walk.frameBytes / 2;

    Row row;
    row.frames = walk.offsets.size();

    // The decoder on its own, over the whole stream: the reference has one frame fewer than
    // the stream holds whole.
    const std::vector<int16_t> ownPcm = WithoutSkippedFrames(own);
    EXPECT_TRUE(ownPcm.size() == reference.size() || ownPcm.size() == reference.size() + frameSamples)
        << ownPcm.size() << " samples decoded, " << reference.size() << " in the reference";
    row.decoder = CompareNegated(ownPcm.data(), reference.data(), std::min(ownPcm.size(), reference.size()));
    EXPECT_LE(row.decoder.maxAbs, s.maxDiff + kMaxSlack)
        << "decoder's own walk, first sample off by more than 1 at " << row.decoder.firstOverOne;
    EXPECT_LE(row.decoder.rms, RmsLimit(s.rms)) << "decoder's own walk";

    // The player's walk: where it visits the same frames, it must yield the same PCM.
    const size_t common = CommonFrames(walk, own);
    ASSERT_GT(common, 0u);
    const size_t commonSamples = (common - Count(walk.skipped, common)) * frameSamples;
    const std::vector<int16_t> walkPcm = WithoutSkippedFrames(walk);
    ASSERT_GE(walkPcm.size(), commonSamples);
    EXPECT_TRUE(std::equal(walkPcm.begin(), walkPcm.begin() + static_cast<long>(commonSamples), ownPcm.begin()))
        << "the two walks decode the same frames differently";

    if (common == walk.offsets.size() && common == own.offsets.size()) {
        row.compared = common;
        row.skipped = Count(walk.skipped, common);
        row.player = CompareNegated(walkPcm.data(), reference.data(), std::min(walkPcm.size(), reference.size()));
    } else {
        // The walks part where the scanner refuses a header that the decoder's frame length
        // reaches: the player's walk then leaves the stream's frames.
        ASSERT_LT(common, own.offsets.size());
        const std::vector<uint8_t> bytes = ReadBytes(base + ".bit");
        const uint8_t* header = bytes.data() + own.offsets[common];
        EXPECT_FALSE(CMP3File::IsFrameSync(header) && CMP3File::IsValidFrameHeader(header))
            << "the walks part at offset " << own.offsets[common]
            << ", where the scanner would accept the header";
        row.compared = common;
        row.skipped = Count(walk.skipped, common);
        const size_t n = std::min(commonSamples, reference.size());
        row.player = CompareNegated(walkPcm.data(), reference.data(), n);
        printf("%s: the player's walk leaves the stream's frames after %zu of %zu (offset %zu)\n",
               s.name, common, own.offsets.size(), own.offsets[common]);
    }
    Results()[s.name] = row;

    EXPECT_LE(row.player.maxAbs, s.maxDiff + kMaxSlack)
        << "player's walk, first sample off by more than 1 at " << row.player.firstOverOne;
    EXPECT_LE(row.player.rms, RmsLimit(s.rms)) << "player's walk";
    // Truncation against rounding alone keeps every stream near 0.7.
    EXPECT_GE(row.player.rms, 0.4);
}

INSTANTIATE_TEST_SUITE_P(Streams, Conformance, ::testing::ValuesIn(kStreams),
                         [](const ::testing::TestParamInfo<Stream>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

}  // namespace
