// quorbel-decode end to end, for what no other test sees: the WAV file around the walk's PCM,
// raw output, the WAV on standard output (a pipe: its sizes known before the data), --help and
// --version, the exit codes with their messages and log lines; and, through the tool, the
// walk's ends: a frame skipped for want of reservoir data keeps what the block held there from
// the batch before (the PCM of the frame ten earlier), and a frame cut short ends the pass.

#include <gtest/gtest.h>

#include <filesystem>

#include "decode_support.h"

namespace {

using namespace test_support;
const std::string kConformance = std::string(QUORBEL_SHARED_DATA_DIR) + "/conformance/";

class QuorbelDecode : public ::testing::Test {
protected:
    int Tool(const std::string& arguments) {  // in the folder, where the log lands
        return Shell(
            "cd " + Quote(dir.Path("")) + " && " + Quote(QUORBEL_DECODE_PATH) + " " + arguments,
            &output);
    }
    TempFolder dir;
    std::string output;
};

TEST_F(QuorbelDecode, WritesTheWalksPcmAsWavOrRaw) {
    const std::string in = kConformance + "M2L3_noise.bit";  // 22.05 kHz stereo
    ASSERT_TRUE(Tool(Quote(in) + " out.wav") == 0 && Tool("--raw " + Quote(in) + " out.raw") == 0)
        << output;
    const Bytes raw = ReadFile(dir.Path("out.raw"));
    Walked walk;
    ASSERT_TRUE(Walk(in, &walk));
    EXPECT_TRUE(Samples(raw) == walk.pcm);
    EXPECT_TRUE(ReadFile(dir.Path("out.wav")) ==
                Riff(Chunk("fmt ", FmtBody(1, 2, 22050, 16)) + Chunk("data", raw)));
    ASSERT_EQ(Tool(Quote(in) + " - | cat > piped.wav"), 0) << output;
    EXPECT_TRUE(ReadFile(dir.Path("piped.wav")) == ReadFile(dir.Path("out.wav")));
}

TEST_F(QuorbelDecode, ExitCodesForWhatItCannotDo) {
    // MPEG-1 Layer II frames: the scanner takes them, the decoder's start does not.
    ASSERT_TRUE(
        WriteFile(dir.Path("layer2.mp3"), MpegFrames(Bytes("\xFF\xFD\x90\x00", 4), 522, 4)));
    EXPECT_TRUE(Tool("missing.mp3 out.wav") == 1 &&
                output.find("cannot play missing.mp3") != std::string::npos)
        << output;
    EXPECT_TRUE(Tool("layer2.mp3 out.wav") == 1 && !std::filesystem::exists(dir.Path("out.wav")));
    const Bytes log = ReadFile(dir.Path("quorbel.log"));
    EXPECT_TRUE(log.find("[tools/quorbel-decode:") != Bytes::npos &&
                log.find("]file(missing.mp3),open failed\n") != Bytes::npos &&
                log.find("]file(layer2.mp3),decoder start failed\n") != Bytes::npos)
        << log;
    EXPECT_TRUE(Tool("only-one-name.mp3") == 2 && output.find("usage:") != std::string::npos &&
                Tool("--loud a.mp3 b.wav") == 2);
    EXPECT_TRUE(Tool("--help") == 0 && output.find("usage:") == 0) << output;
    EXPECT_TRUE(Tool("--version") == 0 && output == "quorbel-decode " QUORBEL_VERSION "\n")
        << output;
    EXPECT_EQ(Tool(Quote(kConformance + "l3-si.bit") + " " + Quote(dir.Path(""))), 3);  // a folder
}

TEST_F(QuorbelDecode, TheWalksEndsSkippedAndCutFrames) {
    // 24-byte frames with 11 bytes of main data: frame 12 pointing 255 bytes back reaches past
    // the reservoir; frame 30 is cut after its header.
    Bytes stream = ReadFile(kConformance + "M2L3_bitrate_24_all.bit").substr(0, 30 * 24 + 10);
    ASSERT_EQ(stream.substr(12 * 24, 2), "\xFF\xF3");
    stream[12 * 24 + 4] = '\xFF';
    ASSERT_TRUE(WriteFile(dir.Path("patched.mp3"), stream));
    ASSERT_EQ(Tool("--verbose --raw patched.mp3 out.raw"), 0) << output;
    EXPECT_NE(output.find("ended at the frame at offset 720, refused with code 5"),
              std::string::npos)
        << output;
    const std::vector<int16_t> pcm = Samples(ReadFile(dir.Path("out.raw")));
    ASSERT_EQ(pcm.size(), 30u * 576);
    const auto frame = [&](size_t i) {
        return std::vector<int16_t>(&pcm[i * 576], &pcm[i * 576] + 576);
    };
    EXPECT_TRUE(frame(2) != std::vector<int16_t>(576) && frame(12) == frame(2) &&
                frame(13) != frame(3));
}

}  // namespace
