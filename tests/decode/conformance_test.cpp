// The conformance streams, decoded frame by frame, against the standard decoder's PCM negated.
// Each stream's figures are pinned from both sides, within what two float implementations may
// move them (a maximum by 1, an RMS by a few hundredths), so that a fault in any of this
// decoder's deliberate departures shows: the polarity; truncation (rounding takes every RMS far
// below 0.7); the band (a wider one lowers the figures of l3-si_huff and the MPEG-2 streams);
// the mixed-block rule (the standard's lowers those of l3-si_block). The reference leaves out
// each stream's last frame and the frames skipped for want of reservoir data.

#include <gtest/gtest.h>

#include <algorithm>

#include "decode_support.h"

namespace {

struct Stream {
    const char* name;
    int maxDiff;  // measured by an independent reading of the same rules
    double rms;
    int channels, rate;
};
const Stream kStreams[] = {
    {"l3-compl", 1, 0.71, 1, 48000},       {"l3-he_32khz", 1, 0.70, 1, 32000},
    {"l3-he_44khz", 1, 0.70, 1, 44100},    {"l3-he_48khz", 1, 0.70, 1, 48000},
    {"l3-hecommon", 1, 0.71, 2, 44100},    {"l3-si", 1, 0.65, 1, 44100},
    {"l3-si_block", 291, 18.6, 1, 44100},  // mixed-block flag on block types 1 and 3
    {"l3-si_huff", 4, 0.73, 1, 44100},     // sound in the top subband
    {"l3-sin1k0db", 1, 0.71, 2, 44100},    {"M2L3_bitrate_16_all", 2, 0.70, 1, 16000},
    {"M2L3_bitrate_22_all", 48, 0.89, 1, 22050},  // sound above line 522
    {"M2L3_bitrate_24_all", 1, 0.70, 1, 24000},   {"M2L3_compl24", 101, 1.47, 1, 24000},
    {"M2L3_noise", 6697, 1327, 2, 22050},  // noise up to the top of the band
};
void PrintTo(const Stream& s, std::ostream* os) { *os << s.name; }

class Conformance : public ::testing::TestWithParam<Stream> {};

TEST_P(Conformance, MatchesTheNegatedReferenceWithinItsFigures) {
    const Stream& s = GetParam();
    const std::string base = std::string(QUORBEL_SHARED_DATA_DIR) + "/conformance/" + s.name;
    const std::vector<int16_t> reference = Samples(test_support::ReadFile(base + ".pcm"));
    Decoded ours;
    ASSERT_TRUE(DecodeFrames(base + ".bit", &ours));
    ASSERT_FALSE(reference.empty());
    EXPECT_EQ(ours.channels, s.channels);
    EXPECT_EQ(ours.rate, s.rate);
    const size_t frame = (s.rate >= 32000 ? 1152u : 576u) * size_t(s.channels);
    EXPECT_TRUE(ours.pcm.size() == reference.size() || ours.pcm.size() == reference.size() + frame)
        << ours.pcm.size() << " samples decoded, " << reference.size() << " in the reference";
    const Diff diff = Negated(ours.pcm.data(), reference.data(), std::min(ours.pcm.size(), reference.size()));
    EXPECT_NEAR(diff.max, s.maxDiff, 1);
    EXPECT_NEAR(diff.rms, s.rms, 0.05 + s.rms * 0.001);  // 1327 is rounded to four digits
}

INSTANTIATE_TEST_SUITE_P(Streams, Conformance, ::testing::ValuesIn(kStreams), [](const auto& info) {
    std::string name = info.param.name;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

}  // namespace
