// Material made at test time (sox: a chord with a little noise, then plucked notes; lame: every
// MPEG version, mono, stereo, joint and dual channel, CBR and VBR with a Xing header) through the
// player's walk, against ffmpeg's decoding negated. lame's low-pass keeps the material below this
// decoder's band (31 subbands; line 522, or 498 at 8 kHz, for MPEG-2 and 2.5), so the two must
// agree within 1: truncation here, rounding there. ffmpeg leaves out the Xing frame and the
// encoder delay; the offset is found by search.

#include <gtest/gtest.h>

#include "decode_support.h"

namespace {

struct Material {
    int rate, channels, version;  // the version as the stream must come out, 3: MPEG-2.5
    const char* lame;             // bitrate or VBR quality, and channel mode
};
const Material kMaterials[] = {
    {44100, 2, 1, "-b 128 -m s"}, {48000, 2, 1, "-b 192 -m j"}, {32000, 1, 1, "-b 64 -m m"},
    {44100, 2, 1, "-V 2 -m j"},   {48000, 1, 1, "-V 4 -m m"},   {44100, 2, 1, "-b 160 -m d"},
    {22050, 2, 2, "-b 64 -m s"},  {16000, 1, 2, "-b 32 -m m"},  {22050, 2, 2, "-V 3 -m j"},
    {16000, 2, 2, "-b 48 -m j"},  {11025, 1, 3, "-b 24 -m m"},  {8000, 2, 3, "-b 16 -m s"},
    {11025, 2, 3, "-V 5 -m j"},   {8000, 1, 3, "-V 6 -m m"},
};
::testing::AssertionResult Sh(const std::string& command) {
    std::string output;
    const int status = Shell(command, &output);
    if (status == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << command << "\nexit " << status << "\n" << output;
}

class Differential : public ::testing::TestWithParam<Material> {};

TEST_P(Differential, AgreesWithFfmpegWithinOne) {
    const Material& m = GetParam();
    const test_support::TempFolder dir;
    const std::string wav = dir.Path("sound.wav"), mp3 = dir.Path("sound.mp3"),
                      raw = dir.Path("ffmpeg.raw");
    // Tones at 3, 11 and 37% of the band, apart in left and right, then attacks that make the
    // encoder switch to short blocks; the low-pass ends at 80% of Nyquist with a narrow edge.
    const std::string f = " -r " + std::to_string(m.rate) + " -b 16 ";
    const auto tone = [&](double part) {
        return " sine " + std::to_string(int(m.rate / 2 * part));
    };
    ASSERT_TRUE(Sh("sox -R -n" + f + Quote(dir.Path("chord.wav")) + " synth 2.5" + tone(0.03) +
                   tone(0.11) + tone(0.37) + " whitenoise remix " +
                   (m.channels == 2 ? "1v0.3,2v0.2,4v0.03 2v0.15,3v0.3,4v0.03"
                                    : "1v0.3,2v0.2,3v0.15,4v0.03")));
    ASSERT_TRUE(Sh("sox -R -n" + f + "-c " + std::to_string(m.channels) + " " +
                   Quote(dir.Path("notes.wav")) +
                   " synth 0.3 pluck C4 : synth 0.2 pluck E4 : synth 0.3 pluck G4 : synth 0.5 "
                   "pluck A3 vol 0.5"));
    ASSERT_TRUE(Sh("sox -R " + Quote(dir.Path("chord.wav")) + " " + Quote(dir.Path("notes.wav")) +
                   " " + Quote(wav) + " norm -6"));
    ASSERT_TRUE(Sh("lame --quiet " + std::string(m.lame) + " --resample " +
                   std::to_string(m.rate / 1000.0) + " --lowpass " +
                   std::to_string(m.rate / 2000.0 * 0.8) + " --lowpass-width " +
                   std::to_string(m.rate / 2000.0 * 0.04) + " " + Quote(wav) + " " + Quote(mp3)));
    ASSERT_TRUE(Sh("ffmpeg -nostdin -v error -i " + Quote(mp3) + " -f s16le -acodec pcm_s16le " +
                   Quote(raw)));
    Walked ours;
    ASSERT_TRUE(Walk(mp3, &ours)) << "the walk did not run to the stream's end";
    ExpectRecordedPcm(::testing::UnitTest::GetInstance()->current_test_info()->name(), ours.pcm);
    EXPECT_TRUE(ours.info.outSampleRate == m.rate && ours.info.outChannels == m.channels &&
                int(ours.info.version) == m.version);
    EXPECT_EQ(ours.skipped, 0u);  // lame never refers back past the reservoir it starts with
    if (m.lame[1] == 'V') {       // the Xing frame counts the frames after it
        EXPECT_TRUE(ours.info.bitrate == 0 && size_t(ours.info.totalFrames) + 1 >= ours.frames &&
                    size_t(ours.info.totalFrames) <= ours.frames);
    }
    // The material reaches what it is meant to: short blocks; mid/side in joint stereo.
    EXPECT_TRUE(ours.shortGranules > 0 &&
                (ours.msFrames > 0 || std::string(m.lame).find("-m j") == std::string::npos));
    // ours[i + offset] against ffmpeg's [i], the offset where most of a window from the middle
    // agrees within 1.
    const std::vector<int16_t> reference = Samples(test_support::ReadFile(raw));
    ASSERT_GT(reference.size(), size_t(m.rate));
    const long frame = (m.version == 1 ? 1152 : 576) * m.channels,
               start = long(reference.size()) / 3 / m.channels * m.channels;
    long offset = -1, best = 0;
    for (long o = 0; o <= 5 * frame; o += m.channels) {
        long agree = 0;
        for (long k = 0; k < 8192 && start + k + o < long(ours.pcm.size()); ++k)
            agree += std::abs(ours.pcm[start + k + o] + reference[start + k]) <= 1;
        if (agree > best) best = agree, offset = o;
    }
    ASSERT_GE(offset, 0);
    const size_t count = std::min(reference.size(), ours.pcm.size() - size_t(offset));
    EXPECT_GE(count + size_t(frame), reference.size());  // all of ffmpeg's but the last overlap
    EXPECT_GT(Negated(reference.data(), std::vector<int16_t>(count).data(), count).rms,
              1000.0);  // loud enough to tell
    const Diff diff = Negated(ours.pcm.data() + offset, reference.data(), count);
    EXPECT_TRUE(diff.max == 1 && std::fabs(diff.rms - 0.707) < 0.05) << diff.max << " " << diff.rms;
}

// Named by rate and lame's options: 44100_b_128_m_s.
INSTANTIATE_TEST_SUITE_P(Materials, Differential, ::testing::ValuesIn(kMaterials),
                         [](const auto& info) {
                             std::string name = std::to_string(info.param.rate);
                             for (const char* c = info.param.lame; *c; ++c)
                                 if (*c != '-') name += *c == ' ' ? '_' : *c;
                             return name;
                         });

}  // namespace
