// The conformance streams, decoded frame by frame by the decoder's own lengths (the walk would
// leave l3-hecommon at the reserved emphasis the scanner refuses), against the standard decoder's
// PCM negated, without the frames skipped for want of reservoir data and the last one, which the
// reference leaves out. Each stream's figures are pinned from both sides, within what two float
// implementations may move them (a maximum by 1, an RMS by a few hundredths), so that a fault in
// any deliberate departure shows: polarity; truncation (rounding takes every RMS far below 0.7);
// the band (a wider one lowers l3-si_huff's and the MPEG-2 figures); the mixed-block rule (the
// standard's lowers l3-si_block's). Every build of the synthesis windowing must meet them.

#include <gtest/gtest.h>

#include <memory>

#include "decode_support.h"

namespace {

struct Stream {
    const char* name;
    int maxDiff;
    double rms;
    int channels, rate;
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
class Conformance : public ::testing::TestWithParam<Stream> {};

TEST_P(Conformance, MatchesTheNegatedReferenceWithinItsFigures) {
    const Stream& s = GetParam();
    const std::string base = std::string(QUORBEL_SHARED_DATA_DIR) + "/conformance/" + s.name;
    const std::vector<int16_t> reference = Samples(test_support::ReadFile(base + ".pcm"));
    InitDecoderTables();
    CMP3File file;
    ASSERT_TRUE(file.Open((base + ".bit").c_str()) && !reference.empty());
    auto d = std::make_unique<CMP3Decoder>();
    MP3StreamInfo info{};
    const uint8_t* end = file.pView + file.dwSize;
    ASSERT_EQ(d->StartDecoder(file.pFirstFrame, int32_t(end - file.pFirstFrame), &info), 1);
    EXPECT_TRUE(info.outChannels == s.channels && info.outSampleRate == s.rate);
    std::vector<uint8_t> block(size_t(info.outFrameBytes));
    std::vector<int16_t> ours;
    MP3FrameIO io{};
    for (const uint8_t* f = file.pFirstFrame; f < end; f += io.inLength) {
        io.inData = f, io.inLength = int32_t(end - f), io.outData = block.data();
        if (!d->DecodeFrame(&io)) break;
        if (d->ReservoirStart >= 0) AppendSamples(ours, block.data(), block.size());
    }
    EXPECT_TRUE(ours.size() == reference.size() ||
                ours.size() == reference.size() + block.size() / 2)
        << ours.size() << " samples decoded, " << reference.size() << " in the reference";
    const Diff diff =
        Negated(ours.data(), reference.data(), std::min(ours.size(), reference.size()));
    EXPECT_NEAR(diff.max, s.maxDiff, 1);
    EXPECT_NEAR(diff.rms, s.rms, 0.05 + s.rms * 0.001);  // 1327 is rounded to four digits
    ExpectRecordedPcm(s.name, ours);
}

INSTANTIATE_TEST_SUITE_P(Streams, Conformance, ::testing::ValuesIn(kStreams), [](const auto& info) {
    std::string name = info.param.name;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

}  // namespace
