// Decoding against references, and quorbel-decode end to end. This system's PCM is the negative
// of the standard's: it is compared with the references negated. The PCM of every stream and
// material is also pinned by its hash (tests/data/pcm-hashes.txt): a change of the decoding that
// moves any sample fails there, where the tolerances of the comparisons would let it pass.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <memory>

#include "player/mp3/MP3Stream.h"
#include "player/mp3/decoder/DecoderTables.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace test_support;
const std::string kConformance = std::string(QUORBEL_SHARED_DATA_DIR) + "/conformance/";

std::vector<int16_t> Samples(const Bytes& bytes) {  // little-endian
    std::vector<int16_t> s;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        s.push_back(int16_t(uint8_t(bytes[i]) | uint8_t(bytes[i + 1]) << 8));
    return s;
}

// The player's walk over a file to the stream's end: its PCM as the batches hand it out.
bool Walk(const std::string& path, Bytes* pcm, MP3StreamInfo* info = nullptr) {
    InitDecoderTables();
    CMP3Stream walk;
    if (!walk.Open(path.c_str())) return false;
    if (info) *info = walk.StreamInfo();
    const auto batch = [](void* to, const uint8_t* bytes, uint32_t n) {
        return static_cast<Bytes*>(to)->append(reinterpret_cast<const char*>(bytes), n), 1;
    };
    return walk.Pass(batch, pcm) == 1 && walk.RefusedError() == 0;
}

// The largest and the RMS difference of ours, from offset on, from the reference negated.
std::pair<int, double> Negated(const std::vector<int16_t>& ours,
                               const std::vector<int16_t>& reference, size_t offset = 0) {
    const size_t n = std::min(reference.size(), ours.size() - offset);
    int max = 0;
    double sum = 0;
    for (size_t i = 0; i < n; ++i) {
        max = std::max(max, std::abs(ours[offset + i] + reference[i]));
        sum += double(ours[offset + i] + reference[i]) * (ours[offset + i] + reference[i]);
    }
    return {max, n ? std::sqrt(sum / double(n)) : 0.0};
}

// The hash (FNV-1a) of the PCM bytes must be the one recorded for name.
void ExpectRecordedPcm(const std::string& name, const Bytes& pcm) {
    uint64_t hash = 14695981039346656037ull, recorded = 0;
    for (char byte : pcm) hash = (hash ^ uint8_t(byte)) * 1099511628211ull;
    std::ifstream hashes(std::string(QUORBEL_SOURCE_DIR) + "/tests/data/pcm-hashes.txt");
    for (std::string key; hashes >> key >> std::hex >> recorded && key != name;) recorded = 0;
    EXPECT_EQ(recorded, hash) << "PCM of " << name << std::hex << ": " << hash;
}

// A shell command's exit status in folder (no path here holds a quote); in *output what it wrote.
int Shell(const std::string& folder, const std::string& command, std::string* output) {
    output->clear();
    FILE* pipe = popen(("cd '" + folder + "' && (" + command + ") 2>&1").c_str(), "r");
    char buffer[4096];
    for (size_t n; pipe && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        output->append(buffer, n);
    const int status = pipe ? pclose(pipe) : -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// ---- The conformance streams, decoded frame by frame by the decoder's own lengths (the walk
// would leave l3-hecommon at the reserved emphasis the scanner refuses), without the frames
// skipped for want of reservoir data. Each stream's figures are pinned from both sides, within
// what two float implementations may move them (a maximum by 1, an RMS by a few hundredths), so
// that a fault in any deliberate departure shows: polarity; truncation (rounding takes every RMS
// far below 0.7); the band (a wider one lowers the figures of l3-si_huff, sound in the top
// subband, M2L3_bitrate_22_all, above line 522, and M2L3_noise, up to the top); the mixed-block
// rule on types 1 and 3 (the standard's lowers l3-si_block's). Every windowing must meet them.
struct Stream {
    const char* name;
    int maxDiff;
    double rms;
};
const Stream kStreams[] = {
    {"l3-compl", 1, 0.71},      {"l3-he_32khz", 1, 0.70},  {"M2L3_bitrate_16_all", 2, 0.70},
    {"l3-he_44khz", 1, 0.70},   {"l3-he_48khz", 1, 0.70},  {"M2L3_bitrate_22_all", 48, 0.89},
    {"l3-hecommon", 1, 0.71},   {"l3-si", 1, 0.65},        {"M2L3_bitrate_24_all", 1, 0.70},
    {"l3-si_block", 291, 18.6}, {"l3-si_huff", 4, 0.73},   {"M2L3_compl24", 101, 1.47},
    {"l3-sin1k0db", 1, 0.71},   {"M2L3_noise", 6697, 1327}};
class Conformance : public ::testing::TestWithParam<Stream> {};

TEST_P(Conformance, MatchesTheNegatedReferenceWithinItsFigures) {
    const Stream& s = GetParam();
    const std::vector<int16_t> reference = Samples(ReadFile(kConformance + s.name + ".pcm"));
    InitDecoderTables();
    CMP3File file;
    ASSERT_TRUE(file.Open((kConformance + s.name + ".bit").c_str()) && !reference.empty());
    auto d = std::make_unique<CMP3Decoder>();
    MP3StreamInfo info{};
    const uint8_t* end = file.pView + file.dwSize;
    ASSERT_EQ(d->StartDecoder(file.pFirstFrame, int32_t(end - file.pFirstFrame), &info), 1);
    Bytes block(size_t(info.outFrameBytes), '\0'), pcm;
    MP3FrameIO io{};
    for (const uint8_t* f = file.pFirstFrame; f < end; f += io.inLength) {
        io.inData = f, io.inLength = int32_t(end - f),
        io.outData = reinterpret_cast<uint8_t*>(&block[0]);
        if (!d->DecodeFrame(&io)) break;
        if (d->ReservoirStart >= 0) pcm += block;
    }
    const auto [max, rms] = Negated(Samples(pcm), reference);
    EXPECT_NEAR(max, s.maxDiff, 1);
    EXPECT_NEAR(rms, s.rms, 0.05 + s.rms * 0.001);  // 1327 is rounded to four digits
    ExpectRecordedPcm(s.name, pcm);
}

INSTANTIATE_TEST_SUITE_P(Streams, Conformance, ::testing::ValuesIn(kStreams), [](const auto& info) {
    std::string name = info.param.name;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

// ---- Material made at test time (sox: a chord with a little noise, then plucked notes; lame:
// every MPEG version, mono, stereo, joint and dual channel, CBR and VBR with a Xing header) through
// the player's walk, against ffmpeg's decoding negated. lame's low-pass keeps the material below
// this decoder's band (31 subbands; line 522, or 498 at 8 kHz, for MPEG-2 and 2.5), so the two
// must agree within 1: truncation here, rounding there. ffmpeg leaves out the Xing frame and the
// encoder delay; the offset is found by search. The hashes pin the material too: a tool that
// encodes otherwise fails them.
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
class Differential : public ::testing::TestWithParam<Material> {};

TEST_P(Differential, AgreesWithFfmpegWithinOne) {
    const Material& m = GetParam();
    const TempFolder dir;
    // Tones at 3, 11 and 37% of the band, apart in left and right, then attacks that make the
    // encoder switch to short blocks; the low-pass ends at 80% of Nyquist with a narrow edge.
    const std::string f = " -r " + std::to_string(m.rate) + " -b 16 ";
    const auto tone = [&](double p) { return " sine " + std::to_string(int(m.rate / 2 * p)); };
    const auto khz = [&](double p) { return std::to_string(m.rate / 2000.0 * p); };  // of Nyquist
    const std::string commands =
        "sox -R -n" + f + "chord.wav synth 2.5" + tone(0.03) + tone(0.11) + tone(0.37) +
        " whitenoise remix " +
        (m.channels == 2 ? "1v0.3,2v0.2,4v0.03 2v0.15,3v0.3,4v0.03" : "1v0.3,2v0.2,3v0.15,4v0.03") +
        " && sox -R -n" + f + "-c " + std::to_string(m.channels) +
        " notes.wav synth 0.3 pluck C4 : synth 0.2 pluck E4 : synth 0.3 pluck G4 : synth 0.5 pluck "
        "A3 vol 0.5 && sox -R chord.wav notes.wav sound.wav norm -6 && lame --quiet " +
        m.lame + " --resample " + khz(2) + " --lowpass " + khz(0.8) + " --lowpass-width " +
        khz(0.04) + " sound.wav sound.mp3 && ffmpeg -nostdin -v error -i sound.mp3 -f s16le" +
        " -acodec pcm_s16le ffmpeg.raw";
    std::string output;
    ASSERT_EQ(Shell(dir.Path(""), commands, &output), 0) << commands << "\n" << output;
    MP3StreamInfo info{};
    Bytes pcm;
    ASSERT_TRUE(Walk(dir.Path("sound.mp3"), &pcm, &info)) << "the walk stopped short";
    ExpectRecordedPcm(::testing::UnitTest::GetInstance()->current_test_info()->name(), pcm);
    EXPECT_TRUE(info.outSampleRate == m.rate && info.outChannels == m.channels &&
                int(info.version) == m.version);
    // ours[i + offset] against ffmpeg's [i]: where most of a window from the middle agrees.
    const std::vector<int16_t> ours = Samples(pcm),
                               reference = Samples(ReadFile(dir.Path("ffmpeg.raw")));
    ASSERT_GT(reference.size(), size_t(m.rate));
    const long frame = (m.version == 1 ? 1152 : 576) * m.channels,
               start = long(reference.size()) / 3 / m.channels * m.channels;
    long offset = -1, best = 0;
    for (long o = 0; o <= 5 * frame; o += m.channels) {
        long agree = 0;
        for (long k = 0; k < 8192 && start + k + o < long(ours.size()); ++k)
            agree += std::abs(ours[start + k + o] + reference[start + k]) <= 1;
        if (agree > best) best = agree, offset = o;
    }
    ASSERT_GE(offset, 0);
    const auto [max, rms] = Negated(ours, reference, size_t(offset));
    EXPECT_TRUE(max == 1 && std::fabs(rms - 0.707) < 0.05) << max << " " << rms;
}

// Named by rate and lame's options: 44100b_128_m_s.
INSTANTIATE_TEST_SUITE_P(Materials, Differential, ::testing::ValuesIn(kMaterials), [](auto i) {
    std::string name = std::to_string(i.param.rate);
    for (const char* c = i.param.lame; *c; ++c)
        if (*c != '-') name += *c == ' ' ? '_' : *c;
    return name;
});

// ---- quorbel-decode end to end: the WAV file, raw output and the WAV on a pipe (its sizes known
// before the data) hold the walk's PCM; --help, --version, the exit codes with their messages and
// log lines. Through the tool, the walk's ends: a frame skipped for want of reservoir data keeps
// the block's PCM from the batch before (the frame ten earlier); a cut frame ends the pass.
class QuorbelDecode : public ::testing::Test {
protected:
    int Tool(const std::string& arguments) {  // in the folder, where the log lands
        return Shell(dir.Path(""), "'" QUORBEL_DECODE_PATH "' " + arguments, &output);
    }
    TempFolder dir;
    std::string output;
};

// 24-byte frames with 11 bytes of main data: frame 12 pointing 255 bytes back reaches past the
// reservoir; frame 30 is cut after its header.
TEST_F(QuorbelDecode, WritesTheWalksPcmToItsEndsAsWavOrRaw) {
    Bytes stream = ReadFile(kConformance + "M2L3_bitrate_24_all.bit").substr(0, 30 * 24 + 10);
    stream[12 * 24 + 4] = '\xFF';
    ASSERT_TRUE(WriteFile(dir.Path("patched.mp3"), stream));
    ASSERT_EQ(Tool("patched.mp3 out.wav"), 0) << output;
    ASSERT_EQ(Tool("--verbose --raw patched.mp3 out.raw"), 0) << output;
    EXPECT_NE(output.find("offset 720, refused with code 5"), output.npos) << output;
    Bytes walked;
    EXPECT_FALSE(Walk(dir.Path("patched.mp3"), &walked));  // it ends on the refused cut frame
    EXPECT_TRUE(ReadFile(dir.Path("out.raw")) == walked);
    EXPECT_TRUE(ReadFile(dir.Path("out.wav")) ==
                Riff(Chunk("fmt ", FmtBody(1, 1, 24000, 16)) + Chunk("data", walked)));
    ASSERT_EQ(Tool("patched.mp3 - | cat > piped.wav"), 0) << output;
    EXPECT_TRUE(ReadFile(dir.Path("piped.wav")) == ReadFile(dir.Path("out.wav")));
    ASSERT_EQ(walked.size(), 30u * 1152);
    const auto frame = [&](size_t i) { return walked.substr(i * 1152, 1152); };
    EXPECT_TRUE(frame(2) != Bytes(1152, '\0') && frame(12) == frame(2) && frame(13) != frame(3));
}

TEST_F(QuorbelDecode, ExitCodesForWhatItCannotDo) {
    // MPEG-1 Layer II frames: the scanner takes them, the decoder's start does not.
    ASSERT_TRUE(WriteFile(dir.Path("layer2.mp3"), MpegFrames(MpegHeader(kMpeg1, 2, 9, 0), 522, 4)));
    EXPECT_TRUE(Tool("layer2.mp3 out.wav") == 1 && !fs::exists(dir.Path("out.wav")) &&
                output.find("cannot play layer2.mp3") != std::string::npos)
        << output;
    const Bytes log = ReadFile(dir.Path("quorbel.log"));
    EXPECT_TRUE(log.find("[tools/quorbel-decode:") != Bytes::npos &&
                log.find("]file(layer2.mp3),decoder start failed\n") != Bytes::npos)
        << log;
    EXPECT_TRUE(Tool("only-one-name.mp3") == 2 && output.find("usage:") != std::string::npos);
    EXPECT_TRUE(Tool("--help") == 0 && output.find("usage:") == 0) << output;
    EXPECT_TRUE(Tool("--version") == 0 && output == "quorbel-decode " QUORBEL_VERSION "\n")
        << output;
    EXPECT_EQ(Tool("'" + kConformance + "l3-si.bit' '" + dir.Path("") + "'"), 3);  // a folder
}

}  // namespace
