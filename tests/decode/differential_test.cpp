// Material made at test time (sox: tones, plucked notes and a little seeded noise; lame: every
// MPEG version, mono, stereo, joint and dual channel, CBR and VBR with a Xing header, ID3v2.3,
// ID3v2.4 and ID3v1 tags), decoded through the MP3 player's walk and by ffmpeg, and compared
// with ffmpeg's output negated.
//
// This decoder leaves out the top subband, and for MPEG-2 and 2.5 stops at line 522 (498 for
// short blocks at 8 kHz); ffmpeg decodes everything. lame's low-pass keeps the material well
// below those lines (at most 80% of the Nyquist frequency, with a narrow transition), so the
// two decoders must agree within 1: truncation here, rounding there.
//
// lame never codes intensity stereo, so none of this material reaches it (dec_intensity_test
// does).
//
// ffmpeg skips the Xing frame and, from the LAME tag, the encoder delay; the offset between
// the two outputs is found by search before the comparison.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "decode_support.h"

namespace fs = std::filesystem;

namespace {

enum class Tags { None, Id3v23AndV1, Id3v23Only, Id3v1Only, Id3v24 };

struct Material {
    const char* name;
    int rate;
    int channels;
    const char* lame;  // bitrate or VBR quality and channel mode
    double lowpassKhz;
    Tags tags;
    int version;       // 1, 2, 3 (MPEG-2.5), as the stream must come out
};

// Low-pass: MPEG-1 below 31/32 of Nyquist with room to spare; MPEG-2 and 2.5 at 80% of
// Nyquist or less, below line 522 of 576 (90.6%) and line 498 (86.5%).
const Material kMaterials[] = {
    {"mpeg1_44k_stereo_cbr128", 44100, 2, "-b 128 -m s", 16.0, Tags::None, 1},
    {"mpeg1_48k_joint_cbr192_id3v23_id3v1", 48000, 2, "-b 192 -m j", 18.0, Tags::Id3v23AndV1, 1},
    {"mpeg1_32k_mono_cbr64_id3v1", 32000, 1, "-b 64 -m m", 12.0, Tags::Id3v1Only, 1},
    {"mpeg1_44k_joint_vbr", 44100, 2, "-V 2 -m j", 16.0, Tags::None, 1},
    {"mpeg1_48k_mono_vbr_id3v24", 48000, 1, "-V 4 -m m", 16.0, Tags::Id3v24, 1},
    {"mpeg1_44k_dual_cbr160", 44100, 2, "-b 160 -m d", 16.0, Tags::None, 1},
    {"mpeg2_22k_stereo_cbr64", 22050, 2, "-b 64 -m s", 8.82, Tags::None, 2},
    {"mpeg2_16k_mono_cbr32_id3v23", 16000, 1, "-b 32 -m m", 6.4, Tags::Id3v23Only, 2},
    {"mpeg2_22k_joint_vbr", 22050, 2, "-V 3 -m j", 8.82, Tags::None, 2},
    {"mpeg2_16k_joint_cbr48_id3v24", 16000, 2, "-b 48 -m j", 6.4, Tags::Id3v24, 2},
    {"mpeg25_11k_mono_cbr24", 11025, 1, "-b 24 -m m", 4.41, Tags::None, 3},
    {"mpeg25_8k_stereo_cbr16_id3v1", 8000, 2, "-b 16 -m s", 3.2, Tags::Id3v1Only, 3},
    {"mpeg25_11k_joint_vbr_id3v23_id3v1", 11025, 2, "-V 5 -m j", 4.41, Tags::Id3v23AndV1, 3},
    {"mpeg25_8k_mono_vbr", 8000, 1, "-V 6 -m m", 3.2, Tags::None, 3},
};

std::string Fixed(double value)
{
    char text[32];
    snprintf(text, sizeof(text), "%.3f", value);
    return text;
}

class Differential : public ::testing::TestWithParam<Material> {
public:
    static void SetUpTestSuite() { s_directory = new TempDirectory("quorbel-differential"); }

    static void TearDownTestSuite()
    {
        delete s_directory;
        s_directory = nullptr;
    }

protected:
    static fs::path Dir() { return s_directory->Path(); }

    // Runs a command; the test fails with its output when it does not succeed.
    static ::testing::AssertionResult Run(const std::string& command)
    {
        std::string output;
        const int status = RunCommand(command, &output);
        if (status != 0) {
            return ::testing::AssertionFailure() << command << "\nexit " << status << "\n" << output;
        }
        return ::testing::AssertionSuccess();
    }

    // Four seconds of music-like sound: a chord of three tones with a little noise, then
    // plucked notes whose attacks make the encoder switch to short blocks. Left and right
    // differ, so that joint stereo has something to code.
    static ::testing::AssertionResult MakeSound(const Material& m, const fs::path& wav)
    {
        const double nyquist = m.rate / 2.0;
        const int f1 = static_cast<int>(nyquist * 0.03);
        const int f2 = static_cast<int>(nyquist * 0.11);
        const int f3 = static_cast<int>(nyquist * 0.37);
        const fs::path chord = Dir() / (std::string(m.name) + "_chord.wav");
        const fs::path notes = Dir() / (std::string(m.name) + "_notes.wav");
        const std::string format = " -r " + std::to_string(m.rate) + " -b 16 ";
        std::string remix = m.channels == 2 ? " remix 1v0.3,2v0.2,4v0.03 2v0.15,3v0.3,4v0.03"
                                            : " remix 1v0.3,2v0.2,3v0.15,4v0.03";
        ::testing::AssertionResult ok = Run(
            "sox -R -n" + format + Quote(chord) + " synth 2.5 sine " + std::to_string(f1) +
            " sine " + std::to_string(f2) + " sine " + std::to_string(f3) + " whitenoise" + remix);
        if (!ok) {
            return ok;
        }
        const std::string channels = " -c " + std::to_string(m.channels) + " ";
        ok = Run("sox -R -n" + format + channels + Quote(notes) +
                 " synth 0.3 pluck C4 : synth 0.2 pluck E4 : synth 0.3 pluck G4 : synth 0.2 pluck C5 :"
                 " synth 0.5 pluck A3 vol 0.5");
        if (!ok) {
            return ok;
        }
        return Run("sox -R " + Quote(chord) + " " + Quote(notes) + " " + Quote(wav) + " norm -6");
    }

    static TempDirectory* s_directory;
};

TempDirectory* Differential::s_directory = nullptr;

TEST_P(Differential, AgreesWithFfmpegWithinOne)
{
    const Material& m = GetParam();
    const fs::path wav = Dir() / (std::string(m.name) + ".wav");
    const fs::path encoded = Dir() / (std::string(m.name) + "_lame.mp3");
    const fs::path mp3 = Dir() / (std::string(m.name) + ".mp3");
    const fs::path raw = Dir() / (std::string(m.name) + "_ffmpeg.raw");
    ASSERT_TRUE(MakeSound(m, wav));

    // The lowpass transition band ends at 4% of Nyquist above the cut-off.
    std::string lame = std::string("lame --quiet ") + m.lame + " --resample " + Fixed(m.rate / 1000.0) +
                       " --lowpass " + Fixed(m.lowpassKhz) + " --lowpass-width " +
                       Fixed(m.rate / 2000.0 * 0.04);
    switch (m.tags) {
    case Tags::Id3v23AndV1: lame += " --add-id3v2 --tt Quorbel --ta Tests"; break;
    case Tags::Id3v23Only: lame += " --id3v2-only --tt Quorbel --ta Tests"; break;
    case Tags::Id3v1Only: lame += " --id3v1-only --tt Quorbel --ta Tests"; break;
    default: break;
    }
    ASSERT_TRUE(Run(lame + " " + Quote(wav) + " " + Quote(m.tags == Tags::Id3v24 ? encoded : mp3)));
    if (m.tags == Tags::Id3v24) {
        ASSERT_TRUE(Run("ffmpeg -nostdin -v error -y -i " + Quote(encoded) +
                        " -c:a copy -id3v2_version 4 -write_id3v1 0 -metadata title=Quorbel " + Quote(mp3)));
    }

    // The tags must be there as intended, or the case tests less than it says.
    const std::vector<uint8_t> bytes = ReadBytes(mp3);
    ASSERT_GT(bytes.size(), 1000u);
    const bool v2 = bytes[0] == 'I' && bytes[1] == 'D' && bytes[2] == '3';
    const bool v1 = bytes[bytes.size() - 128] == 'T' && bytes[bytes.size() - 127] == 'A' &&
                    bytes[bytes.size() - 126] == 'G';
    switch (m.tags) {
    case Tags::None: EXPECT_FALSE(v2 || v1); break;
    case Tags::Id3v23AndV1: EXPECT_TRUE(v2 && bytes[3] == 3 && v1); break;
    case Tags::Id3v23Only: EXPECT_TRUE(v2 && bytes[3] == 3 && !v1); break;
    case Tags::Id3v1Only: EXPECT_TRUE(!v2 && v1); break;
    case Tags::Id3v24: EXPECT_TRUE(v2 && bytes[3] == 4 && !v1); break;
    }

    DecodedStream ours;
    std::string error;
    ASSERT_TRUE(DecodeWithWalk(mp3.string(), &ours, &error)) << error;
    EXPECT_EQ(m.rate, ours.sampleRate);
    EXPECT_EQ(m.channels, ours.channels);
    EXPECT_EQ(m.version, ours.version);
    EXPECT_EQ(0u, ours.refusedError) << "the walk ended at a refused frame";
    if (m.lame[1] == 'V') {
        // VBR: the first frame carries a Xing header with the frame count.
        EXPECT_EQ(0, ours.bitrate);
        EXPECT_GE(ours.totalFrames + 1, static_cast<int32_t>(ours.offsets.size()));
        EXPECT_LE(ours.totalFrames, static_cast<int32_t>(ours.offsets.size()));
    } else {
        EXPECT_GT(ours.bitrate, 0);
    }
    for (size_t i = 0; i < ours.skipped.size(); ++i) {
        // lame's streams start with an empty reservoir and never refer back past it.
        EXPECT_EQ(0, ours.skipped[i]) << "frame " << i << " skipped";
    }

    ASSERT_TRUE(Run("ffmpeg -nostdin -v error -y -i " + Quote(mp3) + " -f s16le -acodec pcm_s16le " + Quote(raw)));
    const std::vector<int16_t> reference = ReadPcm(raw);
    ASSERT_GT(reference.size(), static_cast<size_t>(m.rate));

    // ours[i + offset] against ffmpeg[i]: the Xing frame, the encoder delay and the decoder's
    // delay come before ffmpeg's first sample.
    const long frame = (m.version == 1 ? 1152 : 576) * m.channels;
    const long offset = FindNegatedAlignment(ours.pcm, reference, -2 * frame, 5 * frame, m.channels, 8192);
    ASSERT_GE(offset, 0) << "ffmpeg's output starts before ours";
    const size_t count = std::min(reference.size(), ours.pcm.size() - static_cast<size_t>(offset));
    // All of ffmpeg's output but what it keeps of the last frame's overlap.
    EXPECT_GE(count + static_cast<size_t>(frame), reference.size());

    const DiffStats stats = CompareNegated(ours.pcm.data() + offset, reference.data(), count);
    // The material must exercise what it is meant to: attacks coded with short blocks, joint
    // stereo with mid/side, and sound well above the level of the rounding difference.
    EXPECT_GT(ours.shortGranules, 0u);
    if (std::string(m.lame).find("-m j") != std::string::npos) {
        EXPECT_GT(ours.msFrames, 0u);
    }
    const DiffStats level = CompareNegated(reference.data(), std::vector<int16_t>(count, 0).data(), count);
    EXPECT_GT(level.rms, 1000.0);

    // Truncation here against rounding there: off by 1 in about half the samples, never more.
    EXPECT_EQ(stats.maxAbs, 1) << stats.overOne << " samples off by more than 1, the first at "
                               << stats.firstOverOne << " of " << count;
    EXPECT_NEAR(stats.rms, 0.707, 0.05);
}

// Names the material in gtest's messages instead of dumping its bytes.
void PrintTo(const Material& m, std::ostream* os) { *os << m.name; }

INSTANTIATE_TEST_SUITE_P(Materials, Differential, ::testing::ValuesIn(kMaterials),
                         [](const ::testing::TestParamInfo<Material>& info) { return std::string(info.param.name); });

}  // namespace
