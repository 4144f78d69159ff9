// The server's life: one instance per desktop with forwarding, the end by the sweep or by
// WM_CLOSE, refused files and hostile requests that it survives, and quorbel-play.

#include <algorithm>

#include "tests/system/server_system.h"

namespace {

using namespace server_system;

std::string HexBytes(const std::string& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string hex;
    for (unsigned char c : bytes) {
        hex += digits[c >> 4];
        hex += digits[c & 15];
    }
    return hex.empty() ? "-" : hex;
}

class ServerLifecycle : public ServerSystem {
protected:
    // Runs a Windows program to its end; its exit code, or -1 when it did not end in time.
    int RunWindows(const std::string& exe, const std::vector<std::string>& args,
                   const std::string& output = "", int timeoutMs = 30000) {
        CProcess process;
        if (!process.StartWindows(exe, args, m_dir, output)) return -1;
        if (!process.Wait(timeoutMs)) {
            process.Kill();
            return -1;
        }
        return process.ExitCode();
    }
    bool HeardWhole(const std::vector<int16_t>& rec, const std::vector<int16_t>& material) {
        long long offset = 0;
        if (!FindMaterial(rec, material, &offset)) return false;
        return CompareBlocks(rec, material, offset).Fraction() >= 0.95;
    }
};

TEST_F(ServerLifecycle, SecondStartLeavesOneServerAndForwardsItsArguments) {
    ASSERT_TRUE(StartServer());
    // Without arguments: nothing to say, it ends at once.
    EXPECT_EQ(RunWindows(Exe("quorbel"), {}), 0);
    EXPECT_TRUE(m_server.Running());
    EXPECT_TRUE(ServerWindowExists());

    // With arguments: the running server plays them, audibly although no window of the sender
    // is in front, resolved from the sender's directory.
    std::vector<int16_t> chime = SeededNoise(61, kRate, 2);
    ASSERT_TRUE(MakeDirectory(m_dir + "/elsewhere"));
    EXPECT_TRUE(WriteWav(m_dir + "/elsewhere/chime.wav", {2, kRate, 16}, ToBytes(chime)));
    CRecorder recorder;
    ASSERT_TRUE(recorder.Start(m_dir + "/recording.raw")) << recorder.Problem();
    CProcess second;
    ASSERT_TRUE(second.StartWindows(Exe("quorbel"), {"chime.wav"}, m_dir + "/elsewhere"));
    ASSERT_TRUE(second.Wait(30000));
    EXPECT_EQ(second.ExitCode(), 0);
    SleepMs(2500);
    recorder.Stop();
    EXPECT_TRUE(HeardWhole(recorder.Samples(), chime));
    EXPECT_TRUE(m_server.Running());
    // Its plays belong to no client window: no sweep closes the server for them.
    SleepMs(2500);
    EXPECT_TRUE(m_server.Running());
    EXPECT_EQ(ServerLogText(m_dir), "");
}

// A forwarded name whose full path does not fit a request's 260 bytes is left out: sent as
// given, it would name the file of that name in the server's directory.
TEST_F(ServerLifecycle, ForwardedNameWhoseFullPathDoesNotFitIsLeftOut) {
    ASSERT_TRUE(StartServer());
    // A working directory of about 200 bytes as Windows sees it (Z: and the host path).
    std::string far = m_dir;
    while (far.size() + 2 < 200) {
        far += "/" + std::string(std::min<size_t>(40, 200 - far.size() - 3), 'd');
        ASSERT_TRUE(MakeDirectory(far)) << far;
    }
    const std::string name = "forwarded-name-long-enough-to-carry-the-full-path-past-the-limit.wav";
    ASSERT_GE(2 + far.size() + 1 + name.size(), 260u);
    ASSERT_LT(name.size(), 260u);
    // The file the user meant, and another of the same name where the server would look.
    EXPECT_TRUE(WriteWav(far + "/" + name, {2, kRate, 16}, ToBytes(SeededNoise(63, kRate, 2))));
    EXPECT_TRUE(WriteWav(m_dir + "/" + name, {2, kRate, 16}, ToBytes(SeededNoise(64, kRate, 2))));

    CRecorder recorder;
    ASSERT_TRUE(recorder.Start(m_dir + "/recording.raw")) << recorder.Problem();
    CProcess second;
    ASSERT_TRUE(second.StartWindows(Exe("quorbel"), {name}, far));
    ASSERT_TRUE(second.Wait(30000));
    EXPECT_EQ(second.ExitCode(), 0);
    SleepMs(2000);
    recorder.Stop();
    std::vector<int16_t> rec = recorder.Samples();
    size_t first = 0, last = 0;
    NonSilentRange(rec, 0, rec.size(), 0, &first, &last);
    EXPECT_EQ(first, last) << "something was played";
    EXPECT_EQ(ServerLogText(m_dir), "");
    EXPECT_TRUE(m_server.Running());
}

TEST_F(ServerLifecycle, DestroyedClientWindowEndsItsPlaysAndTheLastOneTheServer) {
    ASSERT_TRUE(StartServer());
    ASSERT_NE(MakeClientWindow(), "");
    Wav("tone.wav", Tone(440, 1, 8000));
    CRecorder recorder;
    ASSERT_TRUE(recorder.Start(m_dir + "/recording.raw")) << recorder.Problem();
    ASSERT_TRUE(Send(kLoop | kIgnoreForeground, {"tone.wav"}));
    ASSERT_TRUE(WaitForTone(recorder, 440, 0));
    SleepMs(2500);  // at least one sweep with the client alive
    EXPECT_TRUE(m_server.Running());

    ASSERT_EQ(Command({"destroy"}), "1");
    const size_t destroyed = recorder.FramesSoFar();
    ASSERT_TRUE(m_server.Wait(15000)) << "the server did not end with its last client";
    EXPECT_EQ(m_server.ExitCode(), 0);
    const size_t ended = recorder.FramesSoFar();
    SleepMs(500);
    recorder.Stop();
    std::vector<int16_t> rec = recorder.Samples();
    // The sweep runs every 2 s; the stopped sound drains; then the close.
    EXPECT_LE(ended - destroyed, static_cast<size_t>(5 * kRate));
    size_t first = 0, last = 0;
    NonSilentRange(rec, 2 * (destroyed + 3 * kRate), rec.size(), 0, &first, &last);
    EXPECT_EQ(first, last) << "the tone went on after its client window was gone";
    EXPECT_EQ(ServerLogText(m_dir), "");
}

TEST_F(ServerLifecycle, CloseFromOutsideEndsTheServerWithItsPlays) {
    ASSERT_TRUE(StartServer());
    Wav("tone.wav", Tone(1000, 1, 8000));
    CRecorder recorder;
    ASSERT_TRUE(recorder.Start(m_dir + "/recording.raw")) << recorder.Problem();
    ASSERT_TRUE(SendAs("0", kLoop | kIgnoreForeground, {"tone.wav"}));  // client 0: never swept
    ASSERT_TRUE(WaitForTone(recorder, 1000, 0));
    ASSERT_EQ(Command({"close"}), "1");
    const size_t closed = recorder.FramesSoFar();
    ASSERT_TRUE(m_server.Wait(15000));
    EXPECT_EQ(m_server.ExitCode(), 0);
    SleepMs(1000);
    recorder.Stop();
    std::vector<int16_t> rec = recorder.Samples();
    size_t first = 0, last = 0;
    NonSilentRange(rec, 2 * (closed + kRate), rec.size(), 0, &first, &last);
    EXPECT_EQ(first, last);
    EXPECT_FALSE(ServerWindowExists());
    EXPECT_EQ(ServerLogText(m_dir), "");
}

TEST_F(ServerLifecycle, EveryRefusedWavIsLoggedTwiceAndServingGoesOn) {
    ASSERT_TRUE(StartServer());
    const std::string pcm = ToBytes(SeededNoise(71, 100, 2));
    RawFile("empty.wav", "");
    RawFile("short.wav", std::string("RIFF\x04\0\0\0WAV", 11));
    RawFile("notriff.wav", Riff(FmtChunk(1, 2, kRate, 16) + DataChunk(pcm), "WAVE", "RIFX"));
    RawFile("notwave.wav", Riff(FmtChunk(1, 2, kRate, 16) + DataChunk(pcm), "AVI "));
    RawFile("nofmt.wav", Riff(DataChunk(pcm)));
    RawFile("cutfmt.wav", Riff(FmtChunk(1, 2, kRate, 16)).substr(0, 12 + 8 + 10));
    RawFile("float.wav", Riff(FmtChunk(3, 2, kRate, 32) + DataChunk(pcm)));
    RawFile("extensible.wav", Riff(FmtChunk(0xFFFE, 2, kRate, 16) + DataChunk(pcm)));
    RawFile("nodata.wav", Riff(FmtChunk(1, 2, kRate, 16)));
    RawFile("nochannels.wav", Riff(FmtChunk(1, 0, kRate, 16) + DataChunk(pcm)));
    ASSERT_TRUE(MakeDirectory(m_dir + "/folder.wav"));

    struct Refusal {
        const char* name;
        std::string first;  // the reason, logged where it was found
        std::string second;
    };
    const std::string openFailed = "[player/wav/WavFilePlayer:*]file(%),open failed";
    const std::vector<Refusal> refusals = {
        {"missing.wav", "[player/pub/FileMapObj:*]create file(missing.wav) failed(0x00000002)", openFailed},
        {"folder.wav", "[player/pub/FileMapObj:*]create file(folder.wav) failed(0x00000005)", openFailed},
        {"empty.wav", "[player/pub/FileMapObj:*]create file mapping failed(0x000003EE)", openFailed},
        {"short.wav", "[CWavFile::InitFileInfo]file(short.wav),size too small", openFailed},
        {"notriff.wav", "[CWavFile::InitFileInfo]file(notriff.wav),RiffHeader id=0x58464952", openFailed},
        {"notwave.wav", "[CWavFile::InitFileInfo]file(notwave.wav),RiffHeader format=0x20495641", openFailed},
        {"nofmt.wav", "[CWavFile::InitFileInfo]file(nofmt.wav),no fmt info", openFailed},
        {"cutfmt.wav", "[CWavFile::InitFileInfo]file(cutfmt.wav),no fmt info", openFailed},
        {"float.wav", "[CWavFile::InitFileInfo]file(float.wav),AudioFormat=3", openFailed},
        {"extensible.wav", "[CWavFile::InitFileInfo]file(extensible.wav),AudioFormat=65534", openFailed},
        {"nodata.wav", "[CWavFile::InitFileInfo]file(nodata.wav),no data info", openFailed},
        {"nochannels.wav", "[player/pub/WavOut:*]invalid format(0,44100,16)",
         "[player/wav/WavFilePlayer:*]file(%),waveout init failed"},
    };
    std::vector<std::string> names;
    for (const Refusal& r : refusals) names.push_back(r.name);
    ASSERT_TRUE(SendAs("0", kIgnoreForeground, names));

    for (const Refusal& r : refusals) {
        std::string second = r.second;
        second.replace(second.find('%'), 1, r.name);
        EXPECT_TRUE(WaitForLogMessage(m_dir, second, 10000)) << second;
        EXPECT_EQ(CountLogMessage(m_dir, r.first), 1) << r.first;
        EXPECT_EQ(CountLogMessage(m_dir, second), 1) << second;
    }
    EXPECT_EQ(ServerLogMessages(m_dir).size(), 2 * refusals.size()) << ServerLogText(m_dir);

    // Still serving.
    std::vector<int16_t> noise = SeededNoise(72, kRate, 2);
    Wav("good.wav", noise);
    CRecorder recorder;
    ASSERT_TRUE(recorder.Start(m_dir + "/recording.raw")) << recorder.Problem();
    ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"good.wav"}));
    SleepMs(2500);
    recorder.Stop();
    EXPECT_TRUE(HeardWhole(recorder.Samples(), noise));
    EXPECT_TRUE(m_server.Running());
}

TEST_F(ServerLifecycle, HostileRequestsAreSurvived) {
    ASSERT_TRUE(StartServer());
    const std::string zero = U32(0);
    const std::string nul(1, '\0');
    struct Block {
        const char* what;
        unsigned long long dwData;
        std::string bytes;
    };
    const std::vector<Block> blocks = {
        {"data shorter than the count promises", 3, zero + "first.wav" + nul + "second.wav"},
        {"count 255 and no names", 0xFF, zero},
        {"a 300-byte name before a good one", 2, zero + std::string(296, 'n') + ".wav" + nul + "after.wav" + nul},
        {"an empty block", 1, ""},
        {"a block shorter than a handle", 1, std::string("\x01\x02", 2)},
        {"every flag and count bit set", 0xFFFFFFFFFFFFFFFFull, zero + "loud.wav" + nul},
    };
    for (const Block& b : blocks) {
        char dwData[32];
        snprintf(dwData, sizeof dwData, "%llX", b.dwData);
        EXPECT_EQ(RunWindows(Exe("server_raw"), {dwData, HexBytes(b.bytes)}), 0) << b.what;
        EXPECT_TRUE(m_server.Running()) << b.what;
    }
    // The names that were whole were tried (they do not exist); nothing else was.
    EXPECT_TRUE(WaitForLogMessage(m_dir, "[player/wav/WavFilePlayer:*]file(after.wav),open failed", 10000));
    EXPECT_TRUE(WaitForLogMessage(m_dir, "[player/wav/WavFilePlayer:*]file(first.wav),open failed", 10000));
    SleepMs(500);
    std::string log = ServerLogText(m_dir);
    EXPECT_EQ(log.find("second"), std::string::npos) << log;
    EXPECT_EQ(log.find("nnnn"), std::string::npos) << log;
    EXPECT_EQ(log.find("loud"), std::string::npos) << "a stop-client request played a name" << log;
    EXPECT_EQ(ServerLogMessages(m_dir).size(), 4u) << log;

    std::vector<int16_t> noise = SeededNoise(81, kRate, 2);
    Wav("good.wav", noise);
    CRecorder recorder;
    ASSERT_TRUE(recorder.Start(m_dir + "/recording.raw")) << recorder.Problem();
    ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"good.wav"}));
    SleepMs(2500);
    recorder.Stop();
    EXPECT_TRUE(HeardWhole(recorder.Samples(), noise));
}

TEST_F(ServerLifecycle, QuorbelPlayStartsAServerPlaysAndHoldsItsWindow) {
    const std::string play = Exe("quorbel-play");
    const std::string out = m_dir + "/play.out";
    std::string text;
    // Wrong usage and no server are told apart by the exit status, with a message.
    EXPECT_EQ(RunWindows(play, {"--help"}, out), 0);
    EXPECT_TRUE(ReadFile(out, &text) && text.find("Usage: quorbel-play") != std::string::npos) << text;
    EXPECT_EQ(RunWindows(play, {"--bogus", "x.wav"}, out), 2);
    EXPECT_EQ(RunWindows(play, {"--stop", "--loop", "x.wav"}, out), 2);
    EXPECT_EQ(RunWindows(play, {"--stop-client", "x.wav"}, out), 2);
    EXPECT_EQ(RunWindows(play, {"--loop"}, out), 2);
    EXPECT_EQ(RunWindows(play, {"x.wav"}, out), 1);
    EXPECT_TRUE(ReadFile(out, &text) && text.find("no Quorbel server is running") != std::string::npos) << text;
    EXPECT_FALSE(ServerWindowExists());

    Wav("tone.wav", Tone(2500, 1, 8000));
    CRecorder recorder;
    ASSERT_TRUE(recorder.Start(m_dir + "/recording.raw")) << recorder.Problem();
    // --start brings a server up; --hold keeps a window of its own as the client for 3 s.
    EXPECT_EQ(RunWindows(play, {"--start", "--hold", "3", "-l", "-i", "tone.wav"}, out, 60000), 0);
    EXPECT_TRUE(ReadFile(out, &text) && text.compare(0, 9, "client 0x") == 0) << text;
    const size_t released = recorder.FramesSoFar();
    // Its window gone, the sweep stops the loop and, the last client gone, ends the server.
    EXPECT_TRUE(WaitUntil([this] { return !ServerWindowExists(); }, 15000, 200));
    SleepMs(500);
    recorder.Stop();
    std::vector<int16_t> rec = recorder.Samples();
    EXPECT_GT(ToneLevel(rec, released - kRate, released, 2500), 4000) << "not heard while held";
    size_t first = 0, last = 0;
    NonSilentRange(rec, 2 * (released + 3 * kRate), rec.size(), 0, &first, &last);
    EXPECT_EQ(first, last);
}

}  // namespace
