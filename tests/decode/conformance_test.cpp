// The conformance streams decoded and compared with the standard decoder's PCM negated. The
// figures of each stream are pinned from both sides, so that each of this decoder's deliberate
// departures shows when it goes: rounding instead of truncating lowers every RMS far below 0.7,
// the standard's mixed-block rule lowers l3-si_block's figures, a wider band lowers those of
// l3-si_huff and the MPEG-2 streams.
//
// The decoder walks the stream on its own, by its own frame length, with the windowing of this
// build (QUORBEL_SYNTH; every build must meet the same figures). The player's
// walk (the scanner hands out the frames) must give the same PCM wherever it visits the same
// frames. Where the scanner refuses a header the decoder accepts (l3-hecommon carries the
// reserved emphasis value 10), the player's walk resynchronises into main data and leaves the
// stream. Frames skipped for want of reservoir data have no counterpart in the reference and
// are left out; the reference also leaves out each stream's last frame.

#include <gtest/gtest.h>

#include <algorithm>
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

const Stream kStreams[] = {
    {"l3-compl", 1, 0.71, 1, 48000},
    {"l3-he_32khz", 1, 0.70, 1, 32000},
    {"l3-he_44khz", 1, 0.70, 1, 44100},
    {"l3-he_48khz", 1, 0.70, 1, 48000},
    {"l3-hecommon", 1, 0.71, 2, 44100},
    {"l3-si", 1, 0.65, 1, 44100},
    {"l3-si_block", 291, 18.6, 1, 44100},  // mixed-block flag on block types 1 and 3
    {"l3-si_huff", 4, 0.73, 1, 44100},     // sound in the top subband
    {"l3-sin1k0db", 1, 0.71, 2, 44100},
    {"M2L3_bitrate_16_all", 2, 0.70, 1, 16000},
    {"M2L3_bitrate_22_all", 48, 0.89, 1, 22050},  // sound above line 522
    {"M2L3_bitrate_24_all", 1, 0.70, 1, 24000},
    {"M2L3_compl24", 101, 1.47, 1, 24000},
    {"M2L3_noise", 6697, 1327, 2, 22050},  // noise up to the top of the band
};

// Two float implementations of the same arithmetic may move a maximum by 1 and an RMS by a few
// hundredths; the figures are also rounded (1327 to four digits).
const int kMaxSlack = 1;
double RmsSlack(double figure) { return figure * 0.001 + 0.05; }

// The number of leading frames at which both walks stand at the same offsets.
size_t CommonFrames(const DecodedStream& a, const DecodedStream& b) {
    size_t n = 0;
    while (n < a.offsets.size() && n < b.offsets.size() && a.offsets[n] == b.offsets[n])
        ++n;
    return n;
}

class Conformance : public ::testing::TestWithParam<Stream> {};

TEST_P(Conformance, MatchesTheNegatedReferenceWithinItsFigures) {
    const Stream& s = GetParam();
    const std::string base = std::string(QUORBEL_SHARED_DATA_DIR) + "/conformance/" + s.name;
    const std::vector<int16_t> reference = ReadPcm(base + ".pcm");
    ASSERT_FALSE(reference.empty()) << base << ".pcm";
    std::string error;

    DecodedStream own;
    ASSERT_TRUE(DecodeFrameByFrame(base + ".bit", &own, &error)) << error;
    const std::vector<int16_t> ownPcm = WithoutSkippedFrames(own);
    EXPECT_EQ(s.channels, own.channels);
    EXPECT_EQ(s.sampleRate, own.sampleRate);
    const size_t frameSamples = own.frameBytes / 2;
    // The reference has one frame fewer than the stream holds whole.
    EXPECT_TRUE(ownPcm.size() == reference.size() || ownPcm.size() == reference.size() + frameSamples)
        << ownPcm.size() << " samples decoded, " << reference.size() << " in the reference";
    const DiffStats diff = CompareNegated(ownPcm.data(), reference.data(), std::min(ownPcm.size(), reference.size()));
    EXPECT_NEAR(diff.maxAbs, s.maxDiff, kMaxSlack) << "first sample off by more than 1 at " << diff.firstOverOne;
    EXPECT_NEAR(diff.rms, s.rms, RmsSlack(s.rms));

    // The player's walk.
    DecodedStream walk;
    ASSERT_TRUE(DecodeWithWalk(base + ".bit", &walk, &error)) << error;
    const size_t common = CommonFrames(walk, own);
    ASSERT_GT(common, 0u);
    const size_t skipped = static_cast<size_t>(std::count(walk.skipped.begin(), walk.skipped.begin() + static_cast<long>(common), 1));
    const size_t commonSamples = (common - skipped) * frameSamples;
    const std::vector<int16_t> walkPcm = WithoutSkippedFrames(walk);
    ASSERT_GE(walkPcm.size(), commonSamples);
    EXPECT_TRUE(std::equal(walkPcm.begin(), walkPcm.begin() + static_cast<long>(commonSamples), ownPcm.begin()))
        << "the two walks decode the same frames differently";
    if (common < walk.offsets.size() || common < own.offsets.size()) {
        // The walks may part only where the scanner refuses a header the decoder's frame
        // length reaches.
        ASSERT_LT(common, own.offsets.size());
        const std::vector<uint8_t> bytes = ReadBytes(base + ".bit");
        const uint8_t* header = bytes.data() + own.offsets[common];
        EXPECT_FALSE(CMP3File::IsFrameSync(header) && CMP3File::IsValidFrameHeader(header))
            << "the walks part at offset " << own.offsets[common] << ", where the scanner would accept the header";
    }
}

// Names the stream in gtest's messages instead of dumping its bytes.
void PrintTo(const Stream& s, std::ostream* os) { *os << s.name; }

INSTANTIATE_TEST_SUITE_P(Streams, Conformance, ::testing::ValuesIn(kStreams),
                         [](const ::testing::TestParamInfo<Stream>& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

}  // namespace
