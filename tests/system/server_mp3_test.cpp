// MP3 files played by the server, recorded from the session's sound server and held against
// what quorbel-decode makes of the same file: once, at other formats, in a loop, under the
// foreground and the stops, cut short by a frame the decoder refuses, refused whole, many at once.
// The material is encoded with lame at test time from PCM made here.

#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "tests/system/server_system.h"

namespace {

using namespace server_system;

// Seeded noise through a box filter of `width` frames: inside the band lame keeps at any rate
// used here, so the decoded stream follows the material closely and never repeats.
std::vector<int16_t> SmoothNoise(uint32_t seed, size_t frames, int channels, size_t width) {
    std::vector<int16_t> raw = SeededNoise(seed, frames + width, channels, 24000);
    std::vector<int16_t> out(frames * channels);
    for (size_t i = 0; i < frames; ++i) {
        for (int c = 0; c < channels; ++c) {
            long sum = 0;
            for (size_t k = 0; k < width; ++k) sum += raw[(i + k) * channels + c];
            out[i * channels + c] = static_cast<int16_t>(sum / static_cast<long>(width));
        }
    }
    return out;
}

// The stereo samples without the exact zeros at either end (the encoder's delay and the silent
// tag frame), whole frames kept: a search for it must not find its silence in the recording's.
std::vector<int16_t> Audible(const std::vector<int16_t>& pcm) {
    size_t first = 0, last = pcm.size();
    while (first < last && pcm[first] == 0) ++first;
    while (last > first && pcm[last - 1] == 0) --last;
    first &= ~static_cast<size_t>(1);
    last = (last + 1) & ~static_cast<size_t>(1);
    return std::vector<int16_t>(pcm.begin() + static_cast<long>(first), pcm.begin() + static_cast<long>(last));
}

std::vector<int16_t> Slice(const std::vector<int16_t>& pcm, size_t fromFrame, size_t toFrame) {
    toFrame = std::min(toFrame, pcm.size() / 2);
    if (fromFrame >= toFrame) return {};
    return std::vector<int16_t>(pcm.begin() + static_cast<long>(2 * fromFrame),
                                pcm.begin() + static_cast<long>(2 * toFrame));
}

struct Frame {
    size_t offset;
    size_t size;
};

// The Layer III frames of an MP3 as lame writes it (no tags): header after header from the
// first byte, until something that is not one.
std::vector<Frame> LayerIIIFrames(const std::string& bytes) {
    static const int mpeg1[16] = {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0};
    static const int mpeg2[16] = {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0};
    static const int rates[3] = {44100, 48000, 32000};
    std::vector<Frame> frames;
    size_t at = 0;
    while (at + 4 <= bytes.size()) {
        const unsigned char* h = reinterpret_cast<const unsigned char*>(bytes.data() + at);
        if (h[0] != 0xFF || (h[1] & 0xE6) != 0xE2) break;
        const unsigned version = (h[1] >> 3) & 3, bitrateIndex = h[2] >> 4, rateIndex = (h[2] >> 2) & 3;
        if (version == 1 || bitrateIndex == 0 || bitrateIndex == 15 || rateIndex == 3) break;
        const bool isMpeg1 = version == 3;
        const int rate = rates[rateIndex] >> (isMpeg1 ? 0 : version == 2 ? 1 : 2);
        const int bitrate = 1000 * (isMpeg1 ? mpeg1 : mpeg2)[bitrateIndex];
        const size_t size = static_cast<size_t>((isMpeg1 ? 144 : 72) * bitrate / rate + ((h[2] >> 1) & 1));
        frames.push_back({at, size});
        at += size;
    }
    return frames;
}

// The native quorbel-decode of this build: bin/ beside the test binary's tests/system/.
std::string NativeDecoder() {
    char self[PATH_MAX] = {};
    if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) return "";
    std::string dir = self;
    for (int up = 0; up < 4; ++up) {
        dir = dir.substr(0, dir.rfind('/'));
        std::string candidate = dir + "/bin/quorbel-decode";
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return "";
}

// A value of /proc/PID/status in kB ("VmRSS", "VmData"); -1 when missing.
long StatusKb(pid_t pid, const std::string& key) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, key.size() + 1, key + ":") == 0) return std::stol(line.substr(key.size() + 1));
    }
    return -1;
}

// User plus system CPU time of the process in milliseconds; -1 when unreadable.
double CpuMs(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t close = text.rfind(')');
    if (close == std::string::npos) return -1;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    // After the name: state is field 3; utime and stime are fields 14 and 15.
    for (int n = 3; n <= 15 && fields >> field; ++n) {
        if (n == 14) utime = std::stoull(field);
        if (n == 15) stime = std::stoull(field);
    }
    return 1000.0 * static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// How much of the reference (mono, at the recording's rate) is in the signal from `lag` on, in
// windows of 4410 values each correlated at its best place near where the one before was
// found: the sound server may insert a few milliseconds under load, which would spoil one
// correlation over the whole overlap.
double WindowsMatching(const std::vector<float>& signal, const std::vector<float>& reference, long long lag) {
    const size_t window = 4410;
    const long long reach = 2205;
    size_t windows = 0, matched = 0;
    long long drift = 0;
    for (size_t w = 0; w + window <= reference.size(); w += window) {
        ++windows;
        double best = -1;
        long long bestShift = 0;
        for (long long shift = -reach; shift <= reach; ++shift) {
            long long at = lag + static_cast<long long>(w) + drift + shift;
            if (at < 0 || at + static_cast<long long>(window) > static_cast<long long>(signal.size())) continue;
            double c = Correlation(signal.data() + at, reference.data() + w, window);
            if (c > best) {
                best = c;
                bestShift = shift;
            }
        }
        if (best > 0.9) {
            ++matched;
            drift += bestShift;
        }
    }
    return windows == 0 ? 0.0 : static_cast<double>(matched) / static_cast<double>(windows);
}

// The median of the tone's level over tenths of a second in [from, to): a looped MP3 of a tone
// restarts its phase, and brings the encoder's delay, at every pass, which would lower one
// level taken across the seams.
double MedianLevel(const std::vector<int16_t>& rec, size_t from, size_t to, double frequency) {
    std::vector<double> levels;
    for (size_t at = from; at + 4410 <= std::min(to, rec.size() / 2); at += 4410)
        levels.push_back(ToneLevel(rec, at, at + 4410, frequency));
    if (levels.empty()) return 0;
    std::nth_element(levels.begin(), levels.begin() + static_cast<long>(levels.size() / 2), levels.end());
    return levels[levels.size() / 2];
}

class ServerMp3 : public ServerSystem {
protected:
    void SetUp() override {
        ServerSystem::SetUp();
        if (HasFatalFailure()) return;
        m_decoder = NativeDecoder();
        ASSERT_FALSE(m_decoder.empty()) << "the native quorbel-decode was not found beside system_tests";
        ASSERT_EQ(std::system("lame --version > /dev/null 2>&1"), 0) << "lame is needed to make the material";
        ASSERT_TRUE(MakeDirectory(m_dir + "/decode"));
        ASSERT_TRUE(m_recorder.Start(m_dir + "/recording.raw")) << m_recorder.Problem();
        ASSERT_TRUE(StartServer());
        ASSERT_NE(MakeClientWindow(), "");
    }

    size_t Now() { return m_recorder.FramesSoFar(); }
    std::vector<int16_t> StopRecording(int afterMs = 400) {
        SleepMs(afterMs);
        m_recorder.Stop();
        return m_recorder.Samples();
    }

    // Encodes the samples (interleaved, at `rate`) with lame and these options into the test's
    // directory; returns the name there.
    std::string Mp3(const std::string& name, const std::vector<int16_t>& samples, int channels, int rate,
                    const std::string& options) {
        const std::string wav = m_dir + "/" + name + ".in.wav";
        EXPECT_TRUE(WriteWav(wav, {channels, rate, 16}, ToBytes(samples)));
        const std::string command = "lame --quiet " + options + " '" + wav + "' '" + m_dir + "/" + name +
                                    "' 2>> '" + m_dir + "/lame.err'";
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
        return name;
    }
    std::string Bytes(const std::string& name) {
        std::string bytes;
        EXPECT_TRUE(ReadFile(m_dir + "/" + name, &bytes)) << name;
        return bytes;
    }

    // What quorbel-decode makes of the file in one pass (in a directory of its own, so that a
    // log it writes is not taken for the server's).
    std::vector<int16_t> Decode(const std::string& name, int* exitCode = nullptr) {
        const std::string out = m_dir + "/decode/" + name + ".raw";
        CProcess process;
        EXPECT_TRUE(process.Start({m_decoder, "--raw", m_dir + "/" + name, out}, m_dir + "/decode"));
        EXPECT_TRUE(process.Wait(30000));
        if (exitCode != nullptr) *exitCode = process.ExitCode();
        else EXPECT_EQ(process.ExitCode(), 0) << "quorbel-decode " << name;
        return ReadRawS16(out);
    }

    // Whether the decoded stereo material is in the recording, whole, after `from` samples.
    bool HeardWhole(const std::vector<int16_t>& rec, const std::vector<int16_t>& material, size_t from = 0,
                    long long* at = nullptr) {
        long long offset = 0;
        if (!FindMaterial(rec, material, &offset, from)) return false;
        if (at != nullptr) *at = offset;
        BlockComparison blocks = CompareBlocks(rec, material, offset);
        EXPECT_GE(blocks.Fraction(), 0.95) << blocks.Describe();
        return blocks.Fraction() >= 0.95;
    }

    // Counts the passes of `piece` in the recording after `from` samples and how many of them
    // begin exactly one pass length after the one before.
    void CountPasses(const std::vector<int16_t>& rec, const std::vector<int16_t>& piece, size_t passSamples,
                     size_t from, int* passes, int* seamless) {
        *passes = 0;
        *seamless = 0;
        long long at = 0, previous = -1;
        // Searching on from the end of a found pass finds later passes only.
        while (FindMaterial(rec, piece, &at, from) && at > previous) {
            ++*passes;
            if (previous >= 0 && at - previous == static_cast<long long>(passSamples)) ++*seamless;
            previous = at;
            from = static_cast<size_t>(std::max(at, 0LL)) + piece.size();
        }
    }

    // Nothing but zeros from sample `from` on.
    void ExpectSilentFrom(const std::vector<int16_t>& rec, size_t from, const char* what) {
        size_t loudFirst = 0, loudLast = 0;
        NonSilentRange(rec, std::min(from, rec.size()), rec.size(), 0, &loudFirst, &loudLast);
        EXPECT_EQ(loudFirst, loudLast) << what << ": sound " << (static_cast<double>(loudFirst) - from) / 2 / kRate
                                       << " s after it should have ended";
    }

    CRecorder m_recorder;
    std::string m_decoder;
};

TEST_F(ServerMp3, StereoAt44100PlaysOnceAsTheDecoderDecodesIt) {
    Mp3("noise.mp3", SmoothNoise(1201, 2 * kRate, 2, 2), 2, kRate, "-b 128");
    std::vector<int16_t> decoded = Decode("noise.mp3");
    std::vector<int16_t> audible = Audible(decoded);
    ASSERT_GT(audible.size(), static_cast<size_t>(2 * 2 * kRate - 2 * 4096)) << "the decode is too short";
    ASSERT_TRUE(Send(kIgnoreForeground, {"noise.mp3"}));
    SleepMs(3000);
    std::vector<int16_t> rec = StopRecording();

    long long offset = 0;
    ASSERT_TRUE(HeardWhole(rec, audible, 0, &offset)) << "the decoded stream is not in the recording";
    // Once: none of it after its end.
    long long again = 0;
    EXPECT_FALSE(FindMaterial(rec, audible, &again, static_cast<size_t>(offset) + audible.size()));
    EXPECT_EQ(ServerLogText(m_dir), "");
}

TEST_F(ServerMp3, MonoAndMpeg2At22050PlayAtTheirOwnFormat) {
    const size_t monoFrames = kRate * 3 / 2;
    Mp3("mono.mp3", SmoothNoise(1301, monoFrames, 1, 12), 1, kRate, "-m m -b 96");
    const size_t halfFrames = kRate * 3 / 4;  // 1.5 s at 22050
    Mp3("half.mp3", SmoothNoise(1302, halfFrames, 2, 12), 2, kRate / 2, "-b 64");
    const std::string half = Bytes("half.mp3");
    ASSERT_GE(half.size(), 4u);
    ASSERT_EQ(static_cast<unsigned char>(half[1]) & 0x18, 0x10) << "lame did not write MPEG-2";
    ASSERT_EQ((static_cast<unsigned char>(half[2]) >> 2) & 3, 0) << "lame did not keep 22050 Hz";

    std::vector<float> mono = MonoMix(Decode("mono.mp3"), 1);
    std::vector<float> halfDecoded = MonoMix(Decode("half.mp3"), 2);
    ASSERT_GT(mono.size(), monoFrames);
    ASSERT_GT(halfDecoded.size(), halfFrames);

    ASSERT_TRUE(Send(kIgnoreForeground, {"mono.mp3"}));
    SleepMs(2200);
    const size_t between = Now();
    ASSERT_TRUE(Send(kIgnoreForeground, {"half.mp3"}));
    SleepMs(2200);
    std::vector<float> heard = MonoMix(StopRecording(), 2);

    CorrelationMatch monoMatch = FindByCorrelation(heard, mono);
    EXPECT_GE(WindowsMatching(heard, mono, monoMatch.lag), 0.9) << "mono: lag " << monoMatch.lag;
    EXPECT_GE(monoMatch.lag, 0);
    EXPECT_LT(monoMatch.lag, static_cast<long long>(between));

    // The 22050 Hz stream at the recording's rate: every sample followed by the midpoint to the
    // next. Played at any other rate its shape would not be found.
    std::vector<float> reference(2 * halfDecoded.size());
    for (size_t i = 0; i < halfDecoded.size(); ++i) {
        float next = i + 1 < halfDecoded.size() ? halfDecoded[i + 1] : halfDecoded[i];
        reference[2 * i] = halfDecoded[i];
        reference[2 * i + 1] = (halfDecoded[i] + next) / 2;
    }
    CorrelationMatch halfMatch = FindByCorrelation(heard, reference);
    EXPECT_GE(WindowsMatching(heard, reference, halfMatch.lag), 0.9) << "22050 Hz: lag " << halfMatch.lag;
    EXPECT_GE(halfMatch.lag, static_cast<long long>(between) - kRate / 10);
    EXPECT_EQ(ServerLogText(m_dir), "");
}

TEST_F(ServerMp3, LoopsRepeatWithoutAGapEvenOfFiveFramesAndStopWithinTheDrain) {
    // Without the tag frame: a pass is the sound of the file alone.
    Mp3("loop.mp3", SmoothNoise(1401, kRate * 3 / 4, 2, 2), 2, kRate, "-t -b 160");
    Mp3("short.mp3", SmoothNoise(1402, 4000, 2, 2), 2, kRate, "-t -b 128");
    const size_t loopFrames = LayerIIIFrames(Bytes("loop.mp3")).size();
    ASSERT_EQ(LayerIIIFrames(Bytes("short.mp3")).size(), 5u);
    std::vector<int16_t> loop = Decode("loop.mp3"), shortPass = Decode("short.mp3");
    ASSERT_EQ(loop.size(), 2 * 1152 * loopFrames);
    ASSERT_EQ(shortPass.size(), 2u * 1152 * 5);
    // The decoder runs on from pass to pass, so the first frame of a later pass carries over
    // the end of the one before; from the second frame on every pass is the same.
    std::vector<int16_t> loopPiece = Slice(loop, 1152, loop.size() / 2);
    std::vector<int16_t> shortPiece = Slice(shortPass, 1152, 5 * 1152);

    ASSERT_TRUE(Send(kLoop | kIgnoreForeground, {"loop.mp3"}));
    SleepMs(3000);
    ASSERT_TRUE(Send(kStop, {"LOOP.MP3"}));
    const size_t loopStopped = Now();
    SleepMs(800);
    const size_t shortStart = Now();
    ASSERT_TRUE(Send(kLoop | kIgnoreForeground, {"short.mp3"}));
    SleepMs(1500);
    ASSERT_TRUE(Send(kStop, {"short.mp3"}));
    const size_t shortStopped = Now();
    std::vector<int16_t> rec = StopRecording(1200);

    int passes = 0, seamless = 0;
    CountPasses(rec, loopPiece, loop.size(), 0, &passes, &seamless);
    EXPECT_GE(passes, 3) << "the loop was not heard repeating";
    EXPECT_GE(seamless, passes - 2) << "passes do not follow one another directly";
    CountPasses(rec, shortPiece, shortPass.size(), 2 * shortStart, &passes, &seamless);
    EXPECT_GE(passes, 5) << "the five-frame file did not loop";
    EXPECT_GE(seamless, passes - 2) << "passes of the five-frame file do not follow one another directly";

    // A stop returns once the queued sound has played; the ring holds well under half a second.
    size_t loudFirst = 0, loudLast = 0;
    NonSilentRange(rec, 2 * (loopStopped + kRate / 2), 2 * shortStart, 0, &loudFirst, &loudLast);
    EXPECT_EQ(loudFirst, loudLast) << "the loop sounded " << (loudFirst / 2.0 - loopStopped) / kRate
                                   << " s after its stop";
    ExpectSilentFrom(rec, 2 * (shortStopped + kRate / 2), "the five-frame loop");
    EXPECT_EQ(ServerLogText(m_dir), "");
}

TEST_F(ServerMp3, PlaysFollowTheForeground) {
    Mp3("fg.mp3", Tone(1000, 2, 8000), 2, kRate, "-b 128");
    CProcess before;
    ASSERT_TRUE(BringAnotherProcessToFront(before, "before"));
    SleepMs(1200);  // the server's once-a-second check sees it
    ASSERT_TRUE(Send(kLoop, {"fg.mp3"}));
    SleepMs(1500);
    const size_t behind = Now();
    ASSERT_EQ(Command({"front"}), "1");
    const size_t cameFront = Now();
    ASSERT_TRUE(WaitForTone(m_recorder, 1000, cameFront)) << "not heard with its client in front";
    const size_t heard = Now();
    SleepMs(500);
    CProcess front;
    ASSERT_TRUE(BringAnotherProcessToFront(front, "after"));
    const size_t wentBack = Now();
    SleepMs(2500);
    const size_t end = Now();
    front.Kill();
    before.Kill();
    ASSERT_TRUE(Send(kStop, {"fg.mp3"}));
    std::vector<int16_t> rec = StopRecording();

    size_t loudFirst = 0, loudLast = 0;
    NonSilentRange(rec, 0, 2 * behind, 0, &loudFirst, &loudLast);
    EXPECT_EQ(loudFirst, loudLast) << "heard while its client was not in front";
    EXPECT_LE(heard - cameFront, static_cast<size_t>(3 * kRate / 2)) << "the one-second tick, a buffer, the way out";
    // Behind another window again: silent once the tick has seen it.
    NonSilentRange(rec, 2 * (wentBack + 3 * kRate / 2), 2 * end, 0, &loudFirst, &loudLast);
    EXPECT_EQ(loudFirst, loudLast) << "heard behind another window";
}

TEST_F(ServerMp3, StopOthersStopClientAndTheSweepEndMp3PlaysAsWavOnes) {
    Wav("a.wav", Tone(440, 1, 6000));
    Mp3("b.mp3", Tone(1000, 1, 6000), 2, kRate, "-b 128");
    Mp3("c.mp3", Tone(2500, 1, 6000), 2, kRate, "-b 128");
    Mp3("d.mp3", Tone(1700, 1, 6000), 2, kRate, "-b 128");
    Mp3("e.mp3", Tone(3100, 1, 6000), 2, kRate, "-b 128");
    ClientDriver& stopper = ExtraClient();
    ClientDriver& swept = ExtraClient();
    ASSERT_NE(stopper.MakeWindow(), "");
    ASSERT_NE(swept.MakeWindow(), "");
    ASSERT_TRUE(Send(kLoop | kIgnoreForeground, {"a.wav", "b.mp3", "c.mp3"}));
    ASSERT_TRUE(stopper.Send(kLoop | kIgnoreForeground, {"d.mp3"}));
    ASSERT_TRUE(swept.Send(kLoop | kIgnoreForeground, {"e.mp3"}));
    for (double f : {440.0, 1000.0, 2500.0, 1700.0, 3100.0}) ASSERT_TRUE(WaitForTone(m_recorder, f, 0)) << f;
    SleepMs(500);
    const size_t all = Now();
    // All but the WAV: both MP3s of this client stop; the other clients' plays go on.
    ASSERT_TRUE(Send(kStop | kStopOthers, {"a.wav"}));
    const size_t othersStopped = Now();
    SleepMs(1200);
    ASSERT_TRUE(stopper.Send(kStopClient, {}));
    const size_t clientStopped = Now();
    SleepMs(1200);
    ASSERT_EQ(swept.Command({"destroy"}), "1");
    const size_t destroyed = Now();
    SleepMs(4500);  // the sweep runs every 2 s; then the stopped sound drains
    const size_t end = Now();
    ASSERT_TRUE(Send(kStopClient, {}));
    std::vector<int16_t> rec = StopRecording(800);

    const size_t settle = kRate / 2;
    // A play still sounds when its tone is loud in at least half of the 100 ms windows (the sound
    // server may drop out for a moment); a stopped one is quiet over the whole stretch. Each pass
    // of a looped one-second MP3 restarts its tone's phase (the encoder's padding makes the pass
    // a little longer than the tone), which lowers the level of the window holding the boundary,
    // so MP3 tones count as loud from 2500 of their 6000.
    auto sounds = [&](size_t from, size_t to, double f) {
        return SoundingFraction(rec, from, to, f, f == 440.0 ? 4000 : 2500) >= 0.5;
    };
    for (double f : {440.0, 1000.0, 2500.0, 1700.0, 3100.0}) {
        EXPECT_TRUE(sounds(all - kRate / 2, all, f)) << f << " Hz before the stops";
    }
    EXPECT_TRUE(sounds(othersStopped + settle, clientStopped, 440)) << "the named WAV stopped with the others";
    EXPECT_LT(ToneLevel(rec, othersStopped + settle, clientStopped, 1000), 300) << "b.mp3 outlived stop-others";
    EXPECT_LT(ToneLevel(rec, othersStopped + settle, clientStopped, 2500), 300) << "c.mp3 outlived stop-others";
    EXPECT_TRUE(sounds(othersStopped + settle, clientStopped, 1700)) << "another client's play stopped";
    EXPECT_LT(ToneLevel(rec, clientStopped + settle, destroyed, 1700), 300) << "d.mp3 outlived stop-client";
    EXPECT_TRUE(sounds(clientStopped + settle, destroyed, 3100)) << "the swept client's play stopped early";
    EXPECT_TRUE(sounds(clientStopped + settle, destroyed, 440)) << "stop-client reached another client";
    EXPECT_LT(ToneLevel(rec, end - kRate, end, 3100), 300) << "e.mp3 outlived its client window";
    EXPECT_TRUE(sounds(end - kRate, end, 440)) << "the sweep reached another client";
    EXPECT_TRUE(m_server.Running());
}

TEST_F(ServerMp3, ARefusedFrameEndsThePassAndALoopStartsOverAtTheFirstFrame) {
    // 104-byte frames: the refused frame below claims more bytes than the eight frames left.
    Mp3("whole.mp3", SmoothNoise(1601, kRate, 2, 2), 2, kRate, "-t -b 32 --resample 44.1");
    std::string bytes = Bytes("whole.mp3");
    std::vector<Frame> frames = LayerIIIFrames(bytes);
    ASSERT_GE(frames.size(), 30u);
    ASSERT_EQ(frames.back().offset + frames.back().size, bytes.size());
    const size_t bad = frames.size() - 8;
    // A valid header to the scanner, which sizes it at its own rate (MPEG-1 Layer II, 384 kbit/s,
    // 32 kHz: 1728 bytes, so it hands it out and looks no further). The decoder sizes every
    // frame at the stream's 44.1 kHz, 1253 bytes, more than the file still holds: refused.
    bytes[frames[bad].offset + 1] = static_cast<char>(0xFD);
    bytes[frames[bad].offset + 2] = static_cast<char>(0xE8);
    RawFile("cut.mp3", bytes);
    RawFile("cutloop.mp3", bytes);

    std::vector<int16_t> whole = Decode("whole.mp3");
    std::vector<int16_t> cut = Decode("cut.mp3");
    ASSERT_EQ(whole.size(), 2 * 1152 * frames.size());
    ASSERT_EQ(cut.size(), 2 * 1152 * bad) << "quorbel-decode does not stop at the refused frame";
    ASSERT_TRUE(std::equal(cut.begin(), cut.end(), whole.begin()));
    // The end that the refused frame cuts off, past the next frame (which the decoder would
    // start from another reservoir were it reached).
    std::vector<int16_t> cutOff = Audible(Slice(whole, 1152 * (bad + 1), frames.size() * 1152));
    ASSERT_GT(cutOff.size(), 2u * 1152 * 4);
    std::vector<int16_t> laterPass = Slice(cut, 1152, bad * 1152);

    ASSERT_TRUE(Send(kIgnoreForeground, {"cut.mp3"}));
    SleepMs(2000);
    const size_t loopStart = Now();
    ASSERT_TRUE(Send(kLoop | kIgnoreForeground, {"cutloop.mp3"}));
    SleepMs(2500);
    ASSERT_TRUE(Send(kStop, {"cutloop.mp3"}));
    const size_t stopped = Now();
    std::vector<int16_t> rec = StopRecording(800);

    long long at = 0;
    // A new stream may lose its first milliseconds on the way to the recording: the pass is
    // looked for from its second frame on.
    EXPECT_TRUE(HeardWhole(rec, laterPass, 0, &at)) << "the frames before the refused one";
    EXPECT_LT(at, static_cast<long long>(2 * loopStart));
    long long found = 0;
    EXPECT_FALSE(FindMaterial(rec, cutOff, &found)) << "frames after the refused one were heard";
    int passes = 0, seamless = 0;
    CountPasses(rec, laterPass, cut.size(), 2 * loopStart, &passes, &seamless);
    EXPECT_GE(passes, 3) << "the loop did not start over after the refused frame";
    EXPECT_GE(seamless, passes - 2);
    ExpectSilentFrom(rec, 2 * (stopped + kRate / 2), "the loop of the cut file");
    EXPECT_EQ(ServerLogText(m_dir), "") << "a refused frame in a pass is no refusal of the file";
}

TEST_F(ServerMp3, RefusedFilesAreLoggedAndServingGoesOn) {
    Mp3("good.mp3", SmoothNoise(1701, kRate, 2, 2), 2, kRate, "-t -b 128");
    const std::string good = Bytes("good.mp3");
    std::vector<Frame> frames = LayerIIIFrames(good);
    ASSERT_GE(frames.size(), 10u);

    // Three Layer II frames (MPEG-1, 128 kbit/s, 44.1 kHz, stereo: 417 bytes): the scanner takes
    // them, the decoder plays Layer III only.
    std::string layer2;
    for (int i = 0; i < 3; ++i) layer2 += std::string("\xFF\xFD\x80\x00", 4) + std::string(413, '\x11');
    RawFile("layer2.mp3", layer2);
    // A VBR header that says it holds neither a frame count nor a byte count.
    Mp3("vbr.mp3", SmoothNoise(1702, kRate / 2, 2, 2), 2, kRate, "-V 4");
    std::string vbr = Bytes("vbr.mp3");
    const size_t xing = vbr.find("Xing");
    ASSERT_EQ(xing, 4u + 32u) << "lame wrote no Xing header after the side information";
    vbr.replace(xing + 4, 4, std::string(4, '\0'));
    RawFile("xing0.mp3", vbr);
    // An ID3v2.2 tag (size 0) in front of good frames.
    RawFile("id3v22.mp3", std::string("ID3\x02\x00\x00\x00\x00\x00\x00", 10) + good);
    // One frame: no successor confirms it, so the scanner finds no first frame at all.
    RawFile("oneframe.mp3", good.substr(frames[1].offset, frames[1].size));
    RawFile("empty.mp3", "");

    struct Refusal {
        const char* name;
        std::vector<std::string> reasons;  // logged where they were found, in this order
        const char* player;
    };
    const std::vector<Refusal> refusals = {
        {"layer2.mp3", {}, "decoder start failed"},
        {"xing0.mp3", {}, "decoder start failed"},
        {"id3v22.mp3", {"[CMP3File::InitFileInfo]file(id3v22.mp3),find invalid TagID3V2 header!"}, "open failed"},
        {"oneframe.mp3",
         {"[CMP3File::FindFirstFrameHeader]file(oneframe.mp3),not valid frame header!",
          "[CMP3File::InitFileInfo]file(oneframe.mp3),not valid frame header!"},
         "open failed"},
        {"empty.mp3", {"[player/pub/FileMapObj:*]create file mapping failed(0x000003EE)"}, "open failed"},
    };
    size_t lines = 0;
    for (const Refusal& r : refusals) {
        ASSERT_TRUE(SendAs("0", kIgnoreForeground, {r.name}));
        const std::string player = std::string("[player/mp3/MP3FilePlayer:*]file(") + r.name + ")," + r.player;
        EXPECT_TRUE(WaitForLogMessage(m_dir, player, 10000)) << player << "\n" << ServerLogText(m_dir);
        // Each request is answered before the next is sent: its lines are the last ones.
        std::vector<std::string> messages = ServerLogMessages(m_dir);
        std::vector<std::string> expected = r.reasons;
        expected.push_back(player);
        lines += expected.size();
        ASSERT_EQ(messages.size(), lines) << ServerLogText(m_dir);
        for (size_t i = 0; i < expected.size(); ++i) {
            EXPECT_TRUE(MessageMatches(messages[lines - expected.size() + i], expected[i]))
                << messages[lines - expected.size() + i] << "\nexpected " << expected[i];
        }
    }

    // Still serving: a good MP3 after them all.
    // From its second frame on: a new stream may lose its first milliseconds on the way.
    std::vector<int16_t> audible = Slice(Decode("good.mp3"), 1152, 1u << 30);
    const size_t before = Now();
    ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"good.mp3"}));
    SleepMs(2000);
    std::vector<int16_t> rec = StopRecording();
    EXPECT_TRUE(HeardWhole(rec, audible, 2 * before)) << "the server stopped serving";
    EXPECT_TRUE(m_server.Running());
    EXPECT_EQ(ServerLogMessages(m_dir).size(), lines);
}

TEST_F(ServerMp3, EightPlaysFromFourClientsMixStopPerClientAndTheirCostIsMeasured) {
    const double tones[8] = {300, 500, 700, 1100, 1300, 1700, 1900, 2300};
    for (int i = 0; i < 8; ++i) Mp3("t" + std::to_string(i) + ".mp3", Tone(tones[i], 2, 3000), 2, kRate, "-b 128");
    Mp3("warm.mp3", Tone(4000, 0.3, 3000), 2, kRate, "-b 128");
    std::vector<ClientDriver*> clients;
    for (int c = 0; c < 4; ++c) {
        clients.push_back(&ExtraClient());
        ASSERT_NE(clients.back()->MakeWindow(), "");
    }
    // A play before the measure, so that one-time costs (the decoder's tables) are not counted.
    ASSERT_TRUE(Send(kIgnoreForeground, {"warm.mp3"}));
    SleepMs(1500);

    const pid_t pid = m_server.Pid();
    const long dataBefore = StatusKb(pid, "VmData"), rssBefore = StatusKb(pid, "VmRSS");
    const double idleFrom = CpuMs(pid);
    SleepMs(3000);
    const double idleMs = CpuMs(pid) - idleFrom;

    for (int c = 0; c < 4; ++c) {
        ASSERT_TRUE(clients[c]->Send(kLoop | kIgnoreForeground,
                                     {"t" + std::to_string(2 * c) + ".mp3", "t" + std::to_string(2 * c + 1) + ".mp3"}));
    }
    for (double f : tones) ASSERT_TRUE(WaitForTone(m_recorder, f, 0)) << f << " Hz never heard";
    const double busyFrom = CpuMs(pid);
    const size_t spanFrom = Now();
    SleepMs(3000);
    const double busyMs = CpuMs(pid) - busyFrom;
    const size_t spanTo = Now();
    const long dataDuring = StatusKb(pid, "VmData"), rssDuring = StatusKb(pid, "VmRSS");

    std::vector<size_t> stopped;
    for (int c = 0; c < 4; ++c) {
        ASSERT_TRUE(clients[c]->Send(kStopClient, {}));
        stopped.push_back(Now());
        SleepMs(1200);
    }
    std::vector<int16_t> rec = StopRecording(800);

    // Mixed: every tone at its own level (3000 each, the sum never clips).
    for (double f : tones) {
        double level = MedianLevel(rec, spanFrom, spanTo, f);
        EXPECT_GT(level, 2400) << f << " Hz in the mix";
        EXPECT_LT(level, 3600) << f << " Hz in the mix";
    }
    // Each stop-client ends that client's two and no other.
    const size_t settle = kRate / 2;
    for (int c = 0; c < 4; ++c) {
        const size_t to = c + 1 < 4 ? stopped[c + 1] : rec.size() / 2;
        for (int i = 0; i < 8; ++i) {
            double level = MedianLevel(rec, stopped[c] + settle, to, tones[i]);
            if (i < 2 * (c + 1)) EXPECT_LT(level, 300) << tones[i] << " Hz after client " << c << " stopped";
            else EXPECT_GT(level, 2400) << tones[i] << " Hz after client " << c << " stopped";
        }
    }
    ExpectSilentFrom(rec, 2 * (stopped[3] + settle), "the last client's plays");

    const double seconds = static_cast<double>(spanTo - spanFrom) / kRate;
    const double perPlayKb = static_cast<double>(dataDuring - dataBefore) / 8;
    const double cpuPerSecondPerPlay = (busyMs - idleMs * seconds / 3.0) / seconds / 8;
    char line[200];
    snprintf(line, sizeof line, "MP3 play cost: %.0f KiB committed per play, %.1f ms CPU per second of sound per play",
             perPlayKb, cpuPerSecondPerPlay);
    std::printf("%s (VmData %ld -> %ld kB, VmRSS %ld -> %ld kB, idle %.0f ms in 3 s, %.0f ms in %.2f s of 8 plays)\n",
                line, dataBefore, dataDuring, rssBefore, rssDuring, idleMs, busyMs, seconds);
    RecordProperty("mp3_play_cost", line);
    EXPECT_GT(dataBefore, 0);
    EXPECT_GT(rssDuring, 0);
    EXPECT_GT(busyMs, 0) << "eight decoding plays took no CPU time at all";
}

}  // namespace
