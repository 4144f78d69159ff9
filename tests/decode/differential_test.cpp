// Material made at test time (sox: a chord with a little noise, then plucked notes; lame: every
// MPEG version, mono, stereo, joint and dual channel, CBR and VBR with a Xing header, ID3v2.3,
// ID3v2.4 and ID3v1 tags) through the player's walk, against ffmpeg's decoding negated. lame's
// low-pass keeps the material below this decoder's band (31 subbands; line 522, or 498 at
// 8 kHz, for MPEG-2 and 2.5), so the two must agree within 1: truncation here, rounding there.
// ffmpeg leaves out the Xing frame and the encoder delay; the offset is found by search.

#include <gtest/gtest.h>

#include "decode_support.h"

namespace {

struct Material {
    const char* name;
    int rate, channels, version;  // version as the stream must come out: 3 for MPEG-2.5
    const char* lame;             // bitrate or VBR quality, channel mode and tags
};
const Material kMaterials[] = {
    {"mpeg1_44k_stereo_cbr128", 44100, 2, 1, "-b 128 -m s"},
    {"mpeg1_48k_joint_cbr192_id3v23_id3v1", 48000, 2, 1, "-b 192 -m j --add-id3v2 --tt Quorbel"},
    {"mpeg1_32k_mono_cbr64_id3v1", 32000, 1, 1, "-b 64 -m m --id3v1-only --tt Quorbel"},
    {"mpeg1_44k_joint_vbr", 44100, 2, 1, "-V 2 -m j"},
    {"mpeg1_48k_mono_vbr_id3v24", 48000, 1, 1, "-V 4 -m m"},
    {"mpeg1_44k_dual_cbr160", 44100, 2, 1, "-b 160 -m d"},
    {"mpeg2_22k_stereo_cbr64", 22050, 2, 2, "-b 64 -m s"},
    {"mpeg2_16k_mono_cbr32_id3v23", 16000, 1, 2, "-b 32 -m m --id3v2-only --tt Quorbel"},
    {"mpeg2_22k_joint_vbr", 22050, 2, 2, "-V 3 -m j"},
    {"mpeg2_16k_joint_cbr48_id3v24", 16000, 2, 2, "-b 48 -m j"},
    {"mpeg25_11k_mono_cbr24", 11025, 1, 3, "-b 24 -m m"},
    {"mpeg25_8k_stereo_cbr16_id3v1", 8000, 2, 3, "-b 16 -m s --id3v1-only --tt Quorbel"},
    {"mpeg25_11k_joint_vbr_id3v23_id3v1", 11025, 2, 3, "-V 5 -m j --add-id3v2 --tt Quorbel"},
    {"mpeg25_8k_mono_vbr", 8000, 1, 3, "-V 6 -m m"},
};
void PrintTo(const Material& m, std::ostream* os) { *os << m.name; }

class Differential : public ::testing::TestWithParam<Material> {
protected:
    ::testing::AssertionResult Sh(const std::string& command) {
        std::string output;
        const int status = Shell(command, &output);
        if (status == 0) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << command << "\nexit " << status << "\n" << output;
    }
    test_support::TempFolder dir;
};

TEST_P(Differential, AgreesWithFfmpegWithinOne) {
    const Material& m = GetParam();
    const std::string name = m.name, wav = dir.Path("sound.wav"), mp3 = dir.Path(name + ".mp3");
    // Three tones at 3, 11 and 37% of the band, left and right apart, then attacks that make the
    // encoder switch to short blocks; the low-pass ends at 80% of Nyquist with a narrow edge.
    const std::string f = " -r " + std::to_string(m.rate) + " -b 16 ";
    const auto tone = [&](double part) { return " sine " + std::to_string(int(m.rate / 2 * part)); };
    ASSERT_TRUE(Sh("sox -R -n" + f + Quote(dir.Path("chord.wav")) + " synth 2.5" + tone(0.03) + tone(0.11) + tone(0.37) +
                   " whitenoise remix " + (m.channels == 2 ? "1v0.3,2v0.2,4v0.03 2v0.15,3v0.3,4v0.03" : "1v0.3,2v0.2,3v0.15,4v0.03")));
    ASSERT_TRUE(Sh("sox -R -n" + f + "-c " + std::to_string(m.channels) + " " + Quote(dir.Path("notes.wav")) +
                   " synth 0.3 pluck C4 : synth 0.2 pluck E4 : synth 0.3 pluck G4 : synth 0.5 pluck A3 vol 0.5"));
    ASSERT_TRUE(Sh("sox -R " + Quote(dir.Path("chord.wav")) + " " + Quote(dir.Path("notes.wav")) + " " + Quote(wav) + " norm -6"));
    const bool v24 = name.find("id3v24") != std::string::npos;
    ASSERT_TRUE(Sh("lame --quiet " + std::string(m.lame) + " --resample " + std::to_string(m.rate / 1000.0) + " --lowpass " +
                   std::to_string(m.rate / 2000.0 * 0.8) + " --lowpass-width " + std::to_string(m.rate / 2000.0 * 0.04) +
                   " " + Quote(wav) + " " + Quote(v24 ? dir.Path("lame.mp3") : mp3)));
    if (v24) {
        ASSERT_TRUE(Sh("ffmpeg -nostdin -v error -i " + Quote(dir.Path("lame.mp3")) +
                       " -c:a copy -id3v2_version 4 -write_id3v1 0 -metadata title=Quorbel " + Quote(mp3)));
    }
    // The tags must be there, or the case tests less than its name says.
    const test_support::Bytes bytes = test_support::ReadFile(mp3);
    ASSERT_GT(bytes.size(), 1000u);
    const std::string tags = (bytes.compare(0, 3, "ID3") ? "" : "_id3v2" + std::to_string(bytes[3])) +
                             (bytes.compare(bytes.size() - 128, 3, "TAG") ? "" : "_id3v1");
    EXPECT_EQ(tags, name.find("_id3") == std::string::npos ? "" : name.substr(name.find("_id3")));

    Decoded ours;
    ASSERT_TRUE(DecodeWalk(mp3, &ours)) << "the walk did not run to the stream's end";
    EXPECT_EQ(ours.rate, m.rate);
    EXPECT_EQ(ours.channels, m.channels);
    EXPECT_EQ(ours.version, m.version);
    EXPECT_EQ(ours.skipped, 0u);  // lame's streams never refer back past the reservoir they start with
    if (m.lame[1] == 'V') {  // the Xing frame's count: the frames after it
        EXPECT_TRUE(ours.bitrate == 0 && size_t(ours.totalFrames) + 1 >= ours.frames && size_t(ours.totalFrames) <= ours.frames);
    }
    // The material reaches what it is meant to: short blocks, mid/side in joint stereo.
    EXPECT_GT(ours.shortGranules, 0u);
    EXPECT_TRUE(ours.msFrames > 0 || std::string(m.lame).find("-m j") == std::string::npos);

    ASSERT_TRUE(Sh("ffmpeg -nostdin -v error -i " + Quote(mp3) + " -f s16le -acodec pcm_s16le " + Quote(dir.Path("ff.raw"))));
    const std::vector<int16_t> reference = Samples(test_support::ReadFile(dir.Path("ff.raw")));
    ASSERT_GT(reference.size(), size_t(m.rate));
    // ours[i + offset] against ffmpeg's [i], the offset where most of a window from the middle
    // agrees within 1.
    const long frame = (m.version == 1 ? 1152 : 576) * m.channels, start = long(reference.size()) / 3 / m.channels * m.channels;
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
    EXPECT_GT(Negated(reference.data(), std::vector<int16_t>(count).data(), count).rms, 1000.0);  // loud enough
    const Diff diff = Negated(ours.pcm.data() + offset, reference.data(), count);
    EXPECT_EQ(diff.max, 1);
    EXPECT_NEAR(diff.rms, 0.707, 0.05);
}

INSTANTIATE_TEST_SUITE_P(Materials, Differential, ::testing::ValuesIn(kMaterials),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
