// quorbel-decode end to end, for what no other test sees: the WAV file around the walk's PCM,
// raw output, the exit codes with their messages and log lines, and (through the tool) that a
// frame skipped for want of reservoir data keeps what the block held there from the batch
// before: the PCM of the frame ten earlier.

#include <gtest/gtest.h>

#include <filesystem>

#include "decode_support.h"

namespace {

using test_support::Bytes;

const std::string kConformance = std::string(QUORBEL_SHARED_DATA_DIR) + "/conformance/";

class QuorbelDecode : public ::testing::Test {
protected:
    // Runs in the folder, where the log lands.
    int Tool(const std::string& arguments) {
        return Shell("cd " + Quote(dir.Path("")) + " && " + Quote(QUORBEL_DECODE_PATH) + " " + arguments, &output);
    }
    test_support::TempFolder dir;
    std::string output;
};

TEST_F(QuorbelDecode, WritesTheWalksPcmAsWavOrRaw) {
    const std::string in = kConformance + "M2L3_noise.bit";  // 22.05 kHz stereo
    ASSERT_EQ(Tool(Quote(in) + " out.wav"), 0) << output;
    ASSERT_EQ(Tool("--raw " + Quote(in) + " out.raw"), 0) << output;
    const Bytes raw = test_support::ReadFile(dir.Path("out.raw"));
    Decoded walk;
    ASSERT_TRUE(DecodeWalk(in, &walk));
    EXPECT_TRUE(Samples(raw) == walk.pcm);
    EXPECT_TRUE(test_support::ReadFile(dir.Path("out.wav")) ==
                test_support::Riff(test_support::Chunk("fmt ", test_support::FmtBody(1, 2, 22050, 16)) + test_support::Chunk("data", raw)));
}

TEST_F(QuorbelDecode, ExitCodesForWhatItCannotDo) {
    ASSERT_TRUE(test_support::WriteFile(dir.Path("junk.mp3"), Bytes(3000, 'U')));
    // MPEG-1 Layer II frames: the scanner takes them, the decoder's start does not.
    ASSERT_TRUE(test_support::WriteFile(dir.Path("layer2.mp3"), test_support::MpegFrames(Bytes("\xFF\xFD\x90\x00", 4), 522, 4)));
    const test_support::LogCapture log(dir.Path("quorbel.log"));
    EXPECT_EQ(Tool("junk.mp3 out.wav"), 1);
    EXPECT_NE(output.find("cannot play junk.mp3"), std::string::npos) << output;
    EXPECT_EQ(Tool("layer2.mp3 out.wav"), 1);
    EXPECT_EQ(Tool("missing.mp3 out.wav"), 1);
    EXPECT_EQ(log.Messages("[tools/"), (std::vector<std::string>{"[tools/quorbel-decode:*]file(junk.mp3),open failed",
                                                        "[tools/quorbel-decode:*]file(layer2.mp3),decoder start failed",
                                                        "[tools/quorbel-decode:*]file(missing.mp3),open failed"}));
    EXPECT_FALSE(std::filesystem::exists(dir.Path("out.wav")));
    EXPECT_EQ(Tool("only-one-name.mp3"), 2);
    EXPECT_NE(output.find("usage:"), std::string::npos);
    EXPECT_EQ(Tool("--loud a.mp3 b.wav"), 2);
    EXPECT_EQ(Tool(Quote(kConformance + "l3-si.bit") + " " + Quote(dir.Path(""))), 3);  // a folder
}

TEST_F(QuorbelDecode, SkippedFrameKeepsTheBlocksPcmFromTheBatchBefore) {
    // 24-byte frames with 11 bytes of main data: frame 12 pointing 255 bytes back reaches past
    // the reservoir and is skipped.
    Bytes stream = test_support::ReadFile(kConformance + "M2L3_bitrate_24_all.bit");
    ASSERT_EQ(stream.substr(12 * 24, 2), "\xFF\xF3");
    stream[12 * 24 + 4] = '\xFF';
    ASSERT_TRUE(test_support::WriteFile(dir.Path("patched.mp3"), stream));
    ASSERT_EQ(Tool(Quote(dir.Path("patched.mp3")) + " --raw out.raw"), 0) << output;
    const std::vector<int16_t> pcm = Samples(test_support::ReadFile(dir.Path("out.raw")));
    ASSERT_GT(pcm.size(), 13u * 576);
    const auto frame = [&](size_t i) { return std::vector<int16_t>(pcm.begin() + long(i * 576), pcm.begin() + long(i * 576 + 576)); };
    EXPECT_NE(frame(2), std::vector<int16_t>(576));
    EXPECT_EQ(frame(12), frame(2));
    EXPECT_NE(frame(13), frame(3));
}

}  // namespace
