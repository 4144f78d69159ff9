// quorbel-decode end to end: it writes byte for byte what the player's walk hands out, as WAV or
// raw PCM, and answers a file it cannot play, wrong arguments and an output it cannot create with
// their exit codes. What the walk hands out is the conformance and walk tests' concern; the
// scanner's own log lines are the scanner tests'.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "decode_support.h"
#include "player/mp3/decoder/DecoderTables.h"

namespace fs = std::filesystem;

namespace {

// The walk expects the decoder's tables, as the MP3 player builds them at its construction.
const bool kTablesBuilt = (InitDecoderTables(), true);

const std::string kConformance = std::string(QUORBEL_SHARED_DATA_DIR) + "/conformance/";

uint32_t Le32(const std::vector<uint8_t>& b, size_t at)
{
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<uint32_t>(b[at + 3]) << 24);
}

uint32_t Le16(const std::vector<uint8_t>& b, size_t at) { return b[at] | (b[at + 1] << 8); }

std::vector<uint8_t> AsBytes(const std::vector<int16_t>& pcm)
{
    std::vector<uint8_t> bytes(pcm.size() * 2);
    for (size_t i = 0; i < pcm.size(); ++i) {
        bytes[2 * i] = static_cast<uint8_t>(pcm[i] & 0xFF);
        bytes[2 * i + 1] = static_cast<uint8_t>((pcm[i] >> 8) & 0xFF);
    }
    return bytes;
}

// Runs the tool in its own working directory, where its log lands.
class QuorbelDecode : public ::testing::Test {
protected:
    QuorbelDecode() : m_dir("quorbel-decode-tool") {}

    int Tool(const std::string& arguments, std::string* output)
    {
        return RunCommand("cd " + Quote(m_dir.Path()) + " && " + Quote(QUORBEL_DECODE_PATH) + " " + arguments,
                          output);
    }

    std::string Log() const
    {
        const std::vector<uint8_t> bytes = ReadBytes(m_dir.Path() / "quorbel.log");
        return std::string(bytes.begin(), bytes.end());
    }

    TempDirectory m_dir;
};

TEST_F(QuorbelDecode, WritesTheWalksPcmAsWavAndRaw)
{
    struct Case {
        const char* stream;
        uint32_t channels;
        uint32_t rate;
    };
    const Case cases[] = {{"l3-compl", 1, 48000}, {"M2L3_noise", 2, 22050}};
    for (const Case& c : cases) {
        const std::string in = kConformance + c.stream + ".bit";
        std::string output;
        ASSERT_EQ(0, Tool(Quote(in) + " out.wav", &output)) << output;
        ASSERT_EQ(0, Tool("--raw " + Quote(in) + " out.raw", &output)) << output;

        DecodedStream walk;
        std::string error;
        ASSERT_TRUE(DecodeWithWalk(in, &walk, &error)) << error;
        const std::vector<uint8_t> pcm = AsBytes(walk.pcm);

        const std::vector<uint8_t> wav = ReadBytes(m_dir.Path() / "out.wav");
        ASSERT_EQ(44 + pcm.size(), wav.size()) << c.stream;
        EXPECT_EQ(0, memcmp(wav.data(), "RIFF", 4));
        EXPECT_EQ(36 + pcm.size(), Le32(wav, 4));
        EXPECT_EQ(0, memcmp(wav.data() + 8, "WAVEfmt ", 8));
        EXPECT_EQ(16u, Le32(wav, 16));
        EXPECT_EQ(1u, Le16(wav, 20));
        EXPECT_EQ(c.channels, Le16(wav, 22));
        EXPECT_EQ(c.rate, Le32(wav, 24));
        EXPECT_EQ(c.rate * c.channels * 2, Le32(wav, 28));
        EXPECT_EQ(c.channels * 2, Le16(wav, 32));
        EXPECT_EQ(16u, Le16(wav, 34));
        EXPECT_EQ(0, memcmp(wav.data() + 36, "data", 4));
        EXPECT_EQ(pcm.size(), Le32(wav, 40));
        EXPECT_TRUE(std::equal(pcm.begin(), pcm.end(), wav.begin() + 44)) << c.stream;
        EXPECT_EQ(pcm, ReadBytes(m_dir.Path() / "out.raw")) << c.stream;
    }
}

TEST_F(QuorbelDecode, RefusesWhatThePlayerWouldRefuse)
{
    // Junk: the scanner finds no frame.
    ASSERT_TRUE(WriteBytes(m_dir.Path() / "junk.mp3", std::vector<uint8_t>(3000, 0x55)));
    // MPEG-1 Layer II, 160 kbit/s, stereo (522 bytes a frame): the scanner accepts it, the
    // decoder's start refuses a first frame that is not Layer III.
    std::vector<uint8_t> layer2;
    for (int i = 0; i < 4; ++i) {
        std::vector<uint8_t> frame(522, 0);
        frame[0] = 0xFF;
        frame[1] = 0xFD;
        frame[2] = 0x90;
        frame[3] = 0x00;
        layer2.insert(layer2.end(), frame.begin(), frame.end());
    }
    ASSERT_TRUE(WriteBytes(m_dir.Path() / "layer2.mp3", layer2));

    std::string output;
    EXPECT_EQ(1, Tool("junk.mp3 out.wav", &output));
    EXPECT_NE(std::string::npos, output.find("cannot play junk.mp3")) << output;
    EXPECT_NE(std::string::npos, Log().find("]file(junk.mp3),open failed\n"));

    EXPECT_EQ(1, Tool("layer2.mp3 out.wav", &output));
    EXPECT_NE(std::string::npos, output.find("cannot play layer2.mp3")) << output;
    EXPECT_NE(std::string::npos, Log().find("]file(layer2.mp3),decoder start failed\n"));

    EXPECT_EQ(1, Tool("missing.mp3 out.wav", &output));
    EXPECT_NE(std::string::npos, Log().find("]file(missing.mp3),open failed\n"));
    // Nothing is written for a file that cannot be played.
    EXPECT_FALSE(fs::exists(m_dir.Path() / "out.wav"));

    EXPECT_EQ(2, Tool("only-one-name.mp3", &output));
    EXPECT_NE(std::string::npos, output.find("usage:"));
    EXPECT_EQ(2, Tool("--loud a.mp3 b.wav", &output));
    // An output that cannot be created.
    EXPECT_EQ(3, Tool(Quote(kConformance + "l3-si.bit") + " " + Quote(m_dir.Path()), &output));
}

}  // namespace
