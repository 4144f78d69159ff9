// Faults injected into a running server: a client killed while its loop sounds, the sound server
// gone when a play starts and killed while one plays, a log file that cannot be created, a sound
// file replaced or cut short between two plays and while one plays, and a second server started
// while the first is closing. Each test says how many faults it injected and prints what it
// measured ("[ figures  ]" lines), so the numbers can be quoted.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdint>
#include <cstdlib>

#include "tests/system/server_system.h"

namespace {

using namespace server_system;

using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

double Seconds(long long frames) { return static_cast<double>(frames) / kRate; }

void Figure(const std::string& text) {
    std::printf("[ figures  ] %s\n", text.c_str());
    std::fflush(stdout);
}

// The end (a frame) of the last 50 ms window at or after frame `from` in which the tone is
// heard, or `from` when it is heard in none.
size_t LastToneFrame(const std::vector<int16_t>& rec, double frequency, size_t from,
                     double level = 1000) {
    const size_t window = kRate / 20;
    size_t last = from;
    for (size_t at = from; at + window <= rec.size() / 2; at += window) {
        if (ToneLevel(rec, at, at + window, frequency) > level) last = at + window;
    }
    return last;
}

// How many seconds of 50 ms windows in [from, to) hear the tone.
double ToneSeconds(const std::vector<int16_t>& rec, double frequency, size_t from, size_t to,
                   double level) {
    const size_t window = kRate / 20;
    size_t heard = 0;
    for (size_t at = from; at + window <= to && at + window <= rec.size() / 2; at += window) {
        if (ToneLevel(rec, at, at + window, frequency) > level) ++heard;
    }
    return Seconds(static_cast<long long>(heard * window));
}

// The fraction of 100 ms windows in [from, to) in which the tone is at least `level`.
double ToneSteadiness(const std::vector<int16_t>& rec, double frequency, size_t from, size_t to,
                      double level) {
    const size_t window = kRate / 10;
    size_t all = 0, loud = 0;
    for (size_t at = from; at + window <= to; at += window) {
        ++all;
        if (ToneLevel(rec, at, at + window, frequency) >= level) ++loud;
    }
    return all == 0 ? 0 : static_cast<double>(loud) / static_cast<double>(all);
}

// The result code of a "[player/pub/WavOut:N]waveOutOpen() return(C)" message; -1 when the
// message is not one.
long WaveOutOpenCode(const std::string& message) {
    const std::string head = "[player/pub/WavOut:";
    const std::string body = "]waveOutOpen() return(";
    if (message.compare(0, head.size(), head) != 0) return -1;
    size_t at = head.size();
    while (at < message.size() && message[at] >= '0' && message[at] <= '9') ++at;
    if (at == head.size() || message.compare(at, body.size(), body) != 0) return -1;
    at += body.size();
    char* end = nullptr;
    long code = std::strtol(message.c_str() + at, &end, 10);
    if (end == message.c_str() + at || std::string(end) != ")") return -1;
    return code;
}

// How much of stereo 44.1 kHz material the recording holds sample for sample (at or after sample
// `from`); 0 when it is not found. What these tests ask is whether the server played a file, not
// how well a loaded machine's sound server kept up, so half of it is taken as heard: seeded noise
// is never found by chance.
double HeardFraction(const std::vector<int16_t>& rec, const std::vector<int16_t>& material, size_t from = 0) {
    long long offset = 0;
    if (!FindMaterial(rec, material, &offset, from)) return 0;
    return CompareBlocks(rec, material, offset).Fraction();
}

std::string JoinLines(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += "    " + line + "\n";
    return text;
}

class ServerFault : public ServerSystem {
protected:
    void SetUp() override {
        ServerSystem::SetUp();
        if (HasFatalFailure()) return;
        m_fileOps = FindWindowsExe("server_fileops");
        ASSERT_FALSE(m_fileOps.empty()) << "server_fileops.exe not found under " << WinBuildDir();
        // The sound server is stopped and started through the session's own script, which
        // knows how the session started it and stops it by its process id.
        const std::string source = __FILE__;
        m_script = source.substr(0, source.rfind("/tests/system/")) + "/scripts/wine-session";
        ASSERT_EQ(access(m_script.c_str(), X_OK), 0) << m_script << " not found";
        const char* session = std::getenv("QUORBEL_SESSION_DIR");
        ASSERT_TRUE(session != nullptr && *session != '\0');
        m_session = session;
    }

    void TearDown() override {
        // Whatever failed, the next test needs a sound server.
        if (m_soundDown) {
            EXPECT_TRUE(SoundStart()) << "the session's sound server did not come back";
        }
        ServerSystem::TearDown();
        std::printf("[ faults   ] %d injected\n", m_faults);
        RecordProperty("faults_injected", m_faults);
    }

    bool Script(const std::vector<std::string>& args) {
        std::vector<std::string> argv = {"bash", m_script, "--dir", m_session};
        argv.insert(argv.end(), args.begin(), args.end());
        CProcess script;
        if (!script.Start(argv, "", m_dir + "/wine-session.out")) return false;
        if (!script.Wait(60000)) {
            script.Kill();
            return false;
        }
        return script.ExitCode() == 0;
    }
    bool SoundStop(bool kill) {
        m_soundDown = true;
        ++m_faults;
        return Script(kill ? std::vector<std::string>{"sound-stop", "--kill"}
                           : std::vector<std::string>{"sound-stop"});
    }
    bool SoundStart() {
        if (!Script({"sound-start"})) return false;
        m_soundDown = false;
        return true;
    }

    // Runs server_fileops; its exit code, and what it printed in *said.
    int FileOps(const std::vector<std::string>& args, std::string* said) {
        const std::string out = m_dir + "/fileops.out";
        int code = RunWindowsProgram(m_fileOps, args, out);
        said->clear();
        ReadFile(out, said);
        while (!said->empty() && (said->back() == '\n' || said->back() == '\r')) said->pop_back();
        return code;
    }

    // Waits until the log has not changed for quietMs (at most timeoutMs in all).
    void WaitForQuietLog(int quietMs, int timeoutMs) {
        std::string last = ServerLogText(m_dir);
        Clock::time_point changed = Clock::now();
        WaitUntil([&] {
            std::string now = ServerLogText(m_dir);
            if (now != last) {
                last = now;
                changed = Clock::now();
            }
            return MsSince(changed) >= quietMs;
        }, timeoutMs, 100);
    }

    // An MP3 of the samples (CBR 128 kbit/s), made with lame in the test's directory.
    std::string Mp3(const std::string& name, const std::vector<int16_t>& samples) {
        const std::string wav = name + ".source.wav";
        Wav(wav, samples);
        CProcess lame;
        EXPECT_TRUE(lame.Start({"lame", "--silent", "-b", "128", m_dir + "/" + wav, m_dir + "/" + name}));
        EXPECT_TRUE(lame.Wait(60000));
        EXPECT_EQ(lame.ExitCode(), 0) << "lame could not encode " << name;
        return name;
    }

    long long FileSize(const std::string& name) {
        struct stat st;
        if (stat((m_dir + "/" + name).c_str(), &st) != 0) return -1;
        return static_cast<long long>(st.st_size);
    }

    std::string m_fileOps;
    std::string m_script;
    std::string m_session;
    bool m_soundDown = false;
    int m_faults = 0;
};

// The sweep looks for dead client windows every 2 s; a stop then lets the ring's queued sound
// (8 x 4096 bytes, 186 ms at 44.1 kHz stereo) play out, and Wine reports it done up to about
// 300 ms late. So the sound of a killed client ends within 2 s plus about half a second; 3 s is
// asserted, leaving room for a loaded machine.
const double kKillToSilenceBound = 3.0;

TEST_F(ServerFault, KilledLastClientsLoopEndsWithinASweepAndTheServerCloses) {
    Wav("tone.wav", Tone(440, 1, 8000));
    double shortest = 1e9, longest = 0;
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_TRUE(StartServer());
        ClientDriver& victim = ExtraClient();
        ASSERT_NE(victim.MakeWindow(), "");
        CRecorder recorder;
        ASSERT_TRUE(recorder.Start(m_dir + "/recording-" + std::to_string(round) + ".raw")) << recorder.Problem();
        ASSERT_TRUE(victim.Send(kLoop | kIgnoreForeground, {"tone.wav"}));
        ASSERT_TRUE(WaitForTone(recorder, 440, 0));
        SleepMs(2500 + 300 * round);  // a sweep with the client alive; each round at another phase
        ASSERT_TRUE(m_server.Running());

        const size_t killed = recorder.FramesSoFar();
        ASSERT_TRUE(victim.Kill());
        ++m_faults;
        ASSERT_TRUE(m_server.Wait(15000)) << "the server did not end with its last client";
        EXPECT_EQ(m_server.ExitCode(), 0);
        SleepMs(500);
        recorder.Stop();

        std::vector<int16_t> rec = recorder.Samples();
        size_t first = 0, last = 0;
        NonSilentRange(rec, 2 * killed, rec.size(), 0, &first, &last);
        ASSERT_LT(first, last) << "nothing was sounding when the client was killed";
        const double toSilence = Seconds(static_cast<long long>(last / 2) - static_cast<long long>(killed));
        Figure("killed client, round " + std::to_string(round) + ": kill to silence " +
               std::to_string(toSilence) + " s");
        shortest = std::min(shortest, toSilence);
        longest = std::max(longest, toSilence);
        EXPECT_LE(toSilence, kKillToSilenceBound);
        EXPECT_EQ(ServerLogText(m_dir), "");
    }
    RecordProperty("kill_to_silence_min_ms", static_cast<int>(1000 * shortest));
    RecordProperty("kill_to_silence_max_ms", static_cast<int>(1000 * longest));
}

TEST_F(ServerFault, KilledClientBesideAnotherEndsOnlyItsOwnLoop) {
    ASSERT_TRUE(StartServer());
    Wav("victim.wav", Tone(440, 1, 8000));
    Wav("survivor.wav", Tone(1000, 1, 8000));
    ClientDriver& victim = ExtraClient();
    ClientDriver& survivor = ExtraClient();
    ASSERT_NE(victim.MakeWindow(), "");
    ASSERT_NE(survivor.MakeWindow(), "");
    CRecorder recorder;
    ASSERT_TRUE(recorder.Start(m_dir + "/recording.raw")) << recorder.Problem();
    ASSERT_TRUE(victim.Send(kLoop | kIgnoreForeground, {"victim.wav"}));
    ASSERT_TRUE(survivor.Send(kLoop | kIgnoreForeground, {"survivor.wav"}));
    ASSERT_TRUE(WaitForTone(recorder, 440, 0));
    ASSERT_TRUE(WaitForTone(recorder, 1000, 0));
    SleepMs(2500);

    const size_t killed = recorder.FramesSoFar();
    ASSERT_TRUE(victim.Kill());
    ++m_faults;
    SleepMs(5000);  // two sweeps at least
    EXPECT_TRUE(m_server.Running()) << "the server closed though a client was left";
    const size_t now = recorder.FramesSoFar();
    std::vector<int16_t> rec = ReadRawS16(recorder.File());

    const double toSilence = Seconds(static_cast<long long>(LastToneFrame(rec, 440, killed)) -
                                     static_cast<long long>(killed));
    const double steadiness = ToneSteadiness(rec, 1000, killed, now, 4000);
    Figure("killed client beside another: kill to silence " + std::to_string(toSilence) +
           " s; the other's loop at full level in " + std::to_string(100 * steadiness) +
           " % of the 100 ms windows after the kill");
    EXPECT_LE(toSilence, kKillToSilenceBound);
    EXPECT_LT(ToneLevel(rec, now - kRate, now, 440), 200);
    EXPECT_GT(ToneLevel(rec, now - kRate, now, 1000), 4000);
    // Room for a dropout of the sound server on a loaded machine, none for a stopped loop.
    EXPECT_GE(steadiness, 0.9);

    // The one left stops its loop and goes: now the server closes.
    EXPECT_TRUE(survivor.Send(kStop, {"survivor.wav"}));
    survivor.Quit();
    EXPECT_TRUE(m_server.Wait(15000)) << "the server did not end with its last client";
    recorder.Stop();
    EXPECT_EQ(ServerLogText(m_dir), "");
}

// Wine's winmm looks for sound devices once per process, at its first waveOutOpen. When the
// sound server is absent at that moment the process has no device for good: every later open
// returns MMSYSERR_BADDEVICEID (2), also after the sound server is back. When the device was
// found before the sound server went away, opens fail with MMSYSERR_ERROR (1) while it is away
// and succeed again once it is back. Both are Wine's doing; what the server must do is refuse
// each play with its two log lines and keep serving.
class ServerFaultSoundAbsent : public ServerFault {
protected:
    // Asks for a WAV and an MP3 play one after the other (so that each play's two lines come
    // in order) and checks that both are refused with the device's message first; returns the
    // two result codes of waveOutOpen as "WAV,MP3".
    std::string RefusedPlays() {
        const size_t before = ServerLogMessages(m_dir).size();
        EXPECT_TRUE(SendAs("0", kIgnoreForeground, {"noise.wav"}));
        EXPECT_TRUE(WaitUntil([&] { return ServerLogMessages(m_dir).size() >= before + 2; }, 10000, 50));
        EXPECT_TRUE(SendAs("0", kIgnoreForeground, {"tone.mp3"}));
        EXPECT_TRUE(WaitUntil([&] { return ServerLogMessages(m_dir).size() >= before + 4; }, 10000, 50));
        SleepMs(300);
        std::vector<std::string> messages = ServerLogMessages(m_dir);
        EXPECT_EQ(messages.size(), before + 4) << ServerLogText(m_dir);
        if (messages.size() != before + 4) return "";
        const long wavCode = WaveOutOpenCode(messages[before]);
        const long mp3Code = WaveOutOpenCode(messages[before + 2]);
        EXPECT_GT(wavCode, 0) << messages[before];
        EXPECT_GT(mp3Code, 0) << messages[before + 2];
        EXPECT_TRUE(MessageMatches(messages[before + 1],
                                   "[player/wav/WavFilePlayer:*]file(noise.wav),waveout init failed"))
            << messages[before + 1];
        EXPECT_TRUE(MessageMatches(messages[before + 3],
                                   "[player/mp3/MP3FilePlayer:*]file(tone.mp3),wav init failed"))
            << messages[before + 3];
        return std::to_string(wavCode) + "," + std::to_string(mp3Code);
    }

    // Plays the WAV and the MP3 and says whether both were heard.
    bool BothHeard(const std::string& tag) {
        CRecorder recorder;
        EXPECT_TRUE(recorder.Start(m_dir + "/recording-" + tag + ".raw")) << recorder.Problem();
        EXPECT_TRUE(SendAs("0", kIgnoreForeground, {"noise.wav"}));
        SleepMs(2000);
        const size_t mp3From = recorder.FramesSoFar();
        EXPECT_TRUE(SendAs("0", kIgnoreForeground, {"tone.mp3"}));
        const bool mp3 = WaitForTone(recorder, 1000, mp3From);
        SleepMs(2000);  // played out: nothing of it may still be sounding when the next fault comes
        recorder.Stop();
        const bool wav = HeardFraction(recorder.Samples(), m_noise) >= 0.5;
        EXPECT_EQ(wav, mp3) << tag << ": WAV heard " << wav << ", MP3 heard " << mp3;
        return wav && mp3;
    }

    void MakeMaterial() {
        m_noise = SeededNoise(101, kRate, 2);
        Wav("noise.wav", m_noise);
        Mp3("tone.mp3", Tone(1000, 1.5, 8000));
    }

    std::vector<int16_t> m_noise;
};

TEST_F(ServerFaultSoundAbsent, AfterTheDeviceWasUsedPlaysAreRefusedUntilItIsBack) {
    ASSERT_TRUE(StartServer());
    MakeMaterial();
    ASSERT_TRUE(BothHeard("before"));

    ASSERT_TRUE(SoundStop(false));
    const std::string codes = RefusedPlays();
    Figure("sound server absent after the device was used: waveOutOpen() returned " + codes + " (WAV,MP3)");
    EXPECT_TRUE(m_server.Running());
    EXPECT_TRUE(ServerWindowExists());

    // Back again: the same server process opens the device anew.
    ASSERT_TRUE(SoundStart());
    const size_t logged = ServerLogMessages(m_dir).size();
    EXPECT_TRUE(BothHeard("after")) << "not heard after the sound server came back";
    EXPECT_EQ(ServerLogMessages(m_dir).size(), logged) << ServerLogText(m_dir);
}

TEST_F(ServerFaultSoundAbsent, AtTheFirstPlayPlaysAreRefusedAndANewServerIsHeard) {
    ASSERT_TRUE(StartServer());
    MakeMaterial();

    ASSERT_TRUE(SoundStop(false));
    const std::string codes = RefusedPlays();
    EXPECT_TRUE(m_server.Running());

    // Back again. This process either finds the device now, or refuses again with the same
    // two lines: a play is never lost without a word.
    ASSERT_TRUE(SoundStart());
    const size_t logged = ServerLogMessages(m_dir).size();
    std::string again;
    const bool recovered = BothHeard("after");
    if (!recovered) again = RefusedPlays();
    Figure("sound server absent at the first play: waveOutOpen() returned " + codes +
           " (WAV,MP3); once it was back the same process " +
           (recovered ? std::string("played") : "refused again, returning " + again));
    if (recovered) {
        EXPECT_EQ(ServerLogMessages(m_dir).size(), logged) << ServerLogText(m_dir);
    }
    EXPECT_TRUE(m_server.Running());

    // A new server process finds the device.
    ASSERT_EQ(Command({"close"}), "1");
    ASSERT_TRUE(m_server.Wait(15000));
    EXPECT_EQ(m_server.ExitCode(), 0);
    ASSERT_TRUE(StartServer());
    EXPECT_TRUE(BothHeard("new-server"));
}

TEST_F(ServerFault, SoundServerKilledMidLoopNeitherCrashesNorHangsTheServer) {
    ASSERT_TRUE(StartServer());
    Wav("tone.wav", Tone(440, 1, 8000));
    {
        CRecorder recorder;
        ASSERT_TRUE(recorder.Start(m_dir + "/recording-before.raw")) << recorder.Problem();
        ASSERT_TRUE(SendAs("0", kLoop | kIgnoreForeground, {"tone.wav"}));
        ASSERT_TRUE(WaitForTone(recorder, 440, 0));
        recorder.Stop();
    }
    ASSERT_TRUE(SoundStop(true));
    SleepMs(300);
    // The device no longer reports its buffers done: the stop waits for them with a bound.
    Clock::time_point stopAt = Clock::now();
    EXPECT_TRUE(SendAs("0", kStop, {"tone.wav"}));
    const long long stopMs = MsSince(stopAt);
    EXPECT_LE(stopMs, 10000);
    EXPECT_TRUE(m_server.Running());
    EXPECT_NE(Command({"find"}), "0x00000000");

    // The play's own end waits and closes with bounds too; when its lines stop coming, it is over.
    EXPECT_TRUE(WaitForLogMessage(m_dir, "[player/pub/WavOut:*]wait for buffers timed out", 10000));
    WaitForQuietLog(3000, 30000);
    const std::vector<std::string> messages = ServerLogMessages(m_dir);
    Figure("sound server killed mid-loop: the stop returned after " + std::to_string(stopMs) +
           " ms; the log says:\n" + JoinLines(messages));
    const std::vector<std::string> expected = {
        "[player/pub/WavOut:*]wait for a free buffer timed out",
        "[player/pub/WavOut:*]wait for buffers timed out",
        "[player/pub/WavOut:*]waveOutReset() return(1)",
        "[player/pub/WavOut:*]waveOutUnprepareHeader() return(33)",
        "[player/pub/WavOut:*]waveOutClose() return(1)",
    };
    for (const std::string& m : messages) {
        bool known = std::any_of(expected.begin(), expected.end(),
                                 [&](const std::string& p) { return MessageMatches(m, p); });
        EXPECT_TRUE(known) << "unexpected: " << m;
    }
    EXPECT_TRUE(m_server.Running());

    // Back again: the next play is heard, and a loop stops as usual.
    ASSERT_TRUE(SoundStart());
    const size_t before = ServerLogMessages(m_dir).size();
    std::vector<int16_t> noise = SeededNoise(111, kRate, 2);
    Wav("noise.wav", noise);
    CRecorder recorder;
    ASSERT_TRUE(recorder.Start(m_dir + "/recording-after.raw")) << recorder.Problem();
    ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"noise.wav"}));
    SleepMs(2000);
    const size_t loopFrom = recorder.FramesSoFar();
    ASSERT_TRUE(SendAs("0", kLoop | kIgnoreForeground, {"tone.wav"}));
    ASSERT_TRUE(WaitForTone(recorder, 440, loopFrom));
    stopAt = Clock::now();
    EXPECT_TRUE(SendAs("0", kStop, {"tone.wav"}));
    const long long normalStopMs = MsSince(stopAt);
    Figure("after the sound server came back: a loop's stop returned after " +
           std::to_string(normalStopMs) + " ms");
    EXPECT_LE(normalStopMs, 2000);
    SleepMs(500);
    recorder.Stop();
    EXPECT_TRUE(HeardFraction(recorder.Samples(), noise) >= 0.5);
    EXPECT_EQ(ServerLogMessages(m_dir).size(), before) << ServerLogText(m_dir);
}

TEST_F(ServerFault, LogFileThatCannotBeCreatedLosesEntriesOnlyUntilItCan) {
    // As root, permissions do not stop a write; a directory in the log file's place does.
    ASSERT_TRUE(MakeDirectory(m_dir + "/quorbel.log"));
    ++m_faults;
    ASSERT_TRUE(StartServer());
    std::vector<int16_t> noise = SeededNoise(121, kRate, 2);
    Wav("noise.wav", noise);
    CRecorder recorder;
    ASSERT_TRUE(recorder.Start(m_dir + "/recording.raw")) << recorder.Problem();
    // Entries that cannot be written, then a play as usual.
    ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"missing.wav", "missing.mp3"}));
    ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"noise.wav"}));
    SleepMs(2000);
    recorder.Stop();
    EXPECT_TRUE(HeardFraction(recorder.Samples(), noise) >= 0.5);
    EXPECT_TRUE(m_server.Running());

    ASSERT_EQ(rmdir((m_dir + "/quorbel.log").c_str()), 0);
    ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"gone.wav"}));
    EXPECT_TRUE(WaitForLogMessage(m_dir, "[player/wav/WavFilePlayer:*]file(gone.wav),open failed", 10000));
    const std::vector<std::string> messages = ServerLogMessages(m_dir);
    ASSERT_EQ(messages.size(), 2u) << ServerLogText(m_dir);
    EXPECT_TRUE(MessageMatches(messages[0], "[player/pub/FileMapObj:*]create file(gone.wav) failed(0x00000002)"));
    EXPECT_TRUE(m_server.Running());
}

TEST_F(ServerFault, FileReplacedBetweenPlaysIsPlayedWithItsNewContent) {
    ASSERT_TRUE(StartServer());
    std::vector<int16_t> before = SeededNoise(131, kRate * 3 / 4, 2);
    std::vector<int16_t> after = SeededNoise(132, kRate * 3 / 4, 2);
    Wav("x.wav", before);
    CRecorder recorder;
    ASSERT_TRUE(recorder.Start(m_dir + "/recording.raw")) << recorder.Problem();
    ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"x.wav"}));
    SleepMs(1800);  // played out and unmapped

    // A new file renamed over it, as a Windows program would do it.
    EXPECT_TRUE(WriteWav(m_dir + "/x.new", {2, kRate, 16}, ToBytes(after)));
    std::string said;
    EXPECT_EQ(FileOps({"replace", "x.new", "x.wav"}, &said), 0) << said;
    ++m_faults;
    const size_t replaced = recorder.FramesSoFar();
    ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"x.wav"}));
    SleepMs(1800);
    recorder.Stop();
    std::vector<int16_t> rec = recorder.Samples();
    EXPECT_TRUE(HeardFraction(rec, before) >= 0.5) << "the first content was not played";
    EXPECT_TRUE(HeardFraction(rec, after, 2 * replaced) >= 0.5) << "the new content was not played";
    long long offset = 0;
    EXPECT_FALSE(FindMaterial(rec, before, &offset, 2 * replaced)) << "the old content was played again";
    EXPECT_EQ(ServerLogText(m_dir), "");
}

TEST_F(ServerFault, FileCutShortBetweenPlaysIsRefusedOrPlayedShort) {
    ASSERT_TRUE(StartServer());
    std::vector<int16_t> noise = SeededNoise(141, kRate, 2);
    Wav("x.wav", noise);
    Mp3("x.mp3", Tone(1000, 2, 8000));
    CRecorder recorder;
    ASSERT_TRUE(recorder.Start(m_dir + "/recording.raw")) << recorder.Problem();
    ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"x.wav"}));
    SleepMs(2000);
    const size_t mp3Whole = recorder.FramesSoFar();
    ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"x.mp3"}));
    SleepMs(3000);

    // Cut shorter and shorter from the host while nothing holds the file (a file the server has
    // mapped must never be cut from the Linux side: Windows would refuse, Linux lets it happen
    // and the server's next read of the lost pages raises SIGBUS, which no Windows program meets).
    struct Cut {
        const char* what;
        off_t size;
        std::string reason;
    };
    const std::vector<Cut> cuts = {
        {"in the middle of the data", 44 + kRate * 2, "[CWavFile::InitFileInfo]file(x.wav),no data info"},
        {"in the format chunk", 30, "[CWavFile::InitFileInfo]file(x.wav),no fmt info"},
        {"to a few bytes", 5, "[CWavFile::InitFileInfo]file(x.wav),size too small"},
        {"to nothing", 0, "[player/pub/FileMapObj:*]create file mapping failed(0x000003EE)"},
    };
    const std::string openFailed = "[player/wav/WavFilePlayer:*]file(x.wav),open failed";
    int refusals = 0;
    for (const Cut& cut : cuts) {
        SCOPED_TRACE(cut.what);
        ASSERT_EQ(truncate((m_dir + "/x.wav").c_str(), cut.size), 0);
        ++m_faults;
        ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"x.wav"}));
        ++refusals;
        EXPECT_TRUE(WaitUntil([&] { return CountLogMessage(m_dir, openFailed) == refusals; }, 10000, 50));
        EXPECT_EQ(CountLogMessage(m_dir, cut.reason), 1);
    }
    EXPECT_EQ(ServerLogMessages(m_dir).size(), 2 * cuts.size()) << ServerLogText(m_dir);

    // An MP3 cut in the middle of its frames plays up to the cut, silently refusing the last frame.
    const long long mp3Size = FileSize("x.mp3");
    ASSERT_GT(mp3Size, 0);
    ASSERT_EQ(truncate((m_dir + "/x.mp3").c_str(), static_cast<off_t>(mp3Size / 2 + 101)), 0);
    ++m_faults;
    const size_t mp3Cut = recorder.FramesSoFar();
    ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"x.mp3"}));
    SleepMs(3000);
    const size_t goodFrom = recorder.FramesSoFar();
    std::vector<int16_t> good = SeededNoise(142, kRate, 2);
    Wav("good.wav", good);
    ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"good.wav"}));
    SleepMs(2000);
    recorder.Stop();
    std::vector<int16_t> rec = recorder.Samples();
    EXPECT_TRUE(HeardFraction(rec, noise) >= 0.5) << "the WAV was not played before it was cut";
    const double wholeSeconds = ToneSeconds(rec, 1000, mp3Whole, mp3Cut, 2000);
    const double cutSeconds = ToneSeconds(rec, 1000, mp3Cut, goodFrom, 2000);
    Figure("MP3 of 2 s: " + std::to_string(wholeSeconds) + " s heard whole, " +
           std::to_string(cutSeconds) + " s heard cut at half its bytes");
    EXPECT_GT(wholeSeconds, 1.7);
    EXPECT_GT(cutSeconds, 0.6);
    EXPECT_LT(cutSeconds, 1.4);
    EXPECT_TRUE(HeardFraction(rec, good, 2 * goodFrom) >= 0.5) << "serving did not go on";
    EXPECT_EQ(ServerLogMessages(m_dir).size(), 2 * cuts.size()) << ServerLogText(m_dir);
}

TEST_F(ServerFault, FileBeingPlayedCannotBeCutOrReplaced) {
    ASSERT_TRUE(StartServer());
    Wav("x.wav", Tone(440, 1, 8000));
    Wav("y.wav", Tone(1000, 1, 8000));
    const long long size = FileSize("x.wav");
    CRecorder recorder;
    ASSERT_TRUE(recorder.Start(m_dir + "/recording.raw")) << recorder.Problem();
    ASSERT_TRUE(SendAs("0", kLoop | kIgnoreForeground, {"x.wav"}));
    ASSERT_TRUE(WaitForTone(recorder, 440, 0));

    // The server holds the file open for reading, sharing it for reading only, and mapped: a
    // program that wants to cut it cannot even open it for writing, and a rename over it is
    // refused. This is Windows' behaviour, and Wine's as measured here.
    std::string cutSaid, replaceSaid;
    EXPECT_EQ(FileOps({"truncate", "x.wav", "100"}, &cutSaid), 1) << cutSaid;
    ++m_faults;
    EXPECT_EQ(cutSaid, "refused CreateFile 0x00000020");
    EXPECT_EQ(FileOps({"replace", "y.wav", "x.wav"}, &replaceSaid), 1) << replaceSaid;
    ++m_faults;
    EXPECT_EQ(replaceSaid.compare(0, 19, "refused MoveFileEx "), 0) << replaceSaid;
    Figure("file being played: truncation " + cutSaid + "; replacement " + replaceSaid);
    EXPECT_EQ(FileSize("x.wav"), size);

    const size_t attempted = recorder.FramesSoFar();
    EXPECT_TRUE(WaitForTone(recorder, 440, attempted + kRate)) << "the loop did not go on";
    EXPECT_TRUE(SendAs("0", kStop, {"x.wav"}));
    SleepMs(500);
    recorder.Stop();
    std::vector<int16_t> rec = recorder.Samples();
    EXPECT_LT(ToneLevel(rec, attempted, rec.size() / 2, 1000), 200) << "the replacement was heard";

    // Once the play has ended, the same cut is allowed: the refusal was the play's doing.
    std::string said;
    EXPECT_EQ(FileOps({"truncate", "x.wav", "100"}, &said), 0) << said;
    EXPECT_EQ(FileSize("x.wav"), 100);
    EXPECT_EQ(ServerLogText(m_dir), "");
}

TEST_F(ServerFault, SecondServerStartedWhileTheFirstClosesLeavesOneOrNone) {
    Wav("a.wav", Tone(440, 1, 8000));
    Wav("b.wav", Tone(1000, 1, 8000));
    Wav("c.wav", Tone(2500, 1, 8000));
    Wav("late.wav", Tone(700, 1, 8000));
    struct Round {
        bool bySweep;  // the last client window destroyed; else WM_CLOSE from outside
        int delayMs;   // from the close's trigger to the second start
    };
    const std::vector<Round> rounds = {{false, 0}, {false, 150}, {false, 300}, {false, 600},
                                       {false, 1000}, {true, 700}, {true, 1700}};
    int forwardedOrQuiet = 0, becameServer = 0;
    for (size_t r = 0; r < rounds.size(); ++r) {
        const Round& round = rounds[r];
        SCOPED_TRACE("round " + std::to_string(r));
        if (!ServerWindowExists()) {
            ASSERT_TRUE(StartServer());
        }
        CRecorder recorder;
        ASSERT_TRUE(recorder.Start(m_dir + "/recording-" + std::to_string(r) + ".raw")) << recorder.Problem();
        // Three loops, so that the close has plays to stop and drain one after another.
        if (round.bySweep) {
            ASSERT_NE(MakeClientWindow(), "");
            ASSERT_TRUE(Send(kLoop | kIgnoreForeground, {"a.wav", "b.wav", "c.wav"}));
        } else {
            ASSERT_TRUE(SendAs("0", kLoop | kIgnoreForeground, {"a.wav", "b.wav", "c.wav"}));
        }
        ASSERT_TRUE(WaitForTone(recorder, 440, 0));
        ASSERT_TRUE(WaitForTone(recorder, 2500, 0));

        ASSERT_EQ(Command({round.bySweep ? "destroy" : "close"}), "1");
        ++m_faults;
        Clock::time_point closed = Clock::now();
        const size_t closedFrame = recorder.FramesSoFar();
        long long firstMs = -1;
        if (m_server.Wait(round.delayMs)) firstMs = MsSince(closed);
        SleepMs(static_cast<int>(std::max<long long>(0, round.delayMs - MsSince(closed))));
        CProcess second;
        Clock::time_point started = Clock::now();
        ASSERT_TRUE(second.StartWindows(Exe("quorbel"), {"late.wav"}, m_dir));
        ++m_faults;

        // The first must end (its close waits for its plays with a bound of 5 s).
        EXPECT_TRUE(m_server.Wait(15000)) << "the first server lingers";
        if (firstMs < 0) firstMs = MsSince(closed);
        EXPECT_EQ(m_server.ExitCode(), 0);
        // The second either hands its arguments on (or finds no window) and ends, or found the
        // first one gone altogether and is now the server.
        // The first is gone, so a server window now can only be the second's.
        EXPECT_TRUE(WaitUntil([&] { return !second.Running() || ServerWindowExists(); }, 15000, 50))
            << "the second neither ended nor made a window";
        const long long secondMs = MsSince(started);
        const bool secondEnded = !second.Running();
        SleepMs(500);
        recorder.Stop();
        std::string outcome;
        if (secondEnded) {
            EXPECT_EQ(second.ExitCode(), 0);
            EXPECT_FALSE(ServerWindowExists()) << "a server runs though both processes ended";
            outcome = "the second ended";
            ++forwardedOrQuiet;
        } else {
            SleepMs(1000);
            EXPECT_TRUE(second.Running()) << "the second made a window and ended";
            EXPECT_TRUE(ServerWindowExists());
            outcome = "the second is the server";
            ++becameServer;
        }
        const std::vector<int16_t> rec = recorder.Samples();
        Figure("round " + std::to_string(r) + (round.bySweep ? " (sweep" : " (WM_CLOSE") + ", second start " +
               std::to_string(round.delayMs) + " ms later): first ended " + std::to_string(firstMs) +
               " ms after the close; second " + (secondEnded ? "ended after " : "had a window after ") +
               std::to_string(secondMs) + " ms; " + outcome + "; its file heard for " +
               std::to_string(ToneSeconds(rec, 700, closedFrame, SIZE_MAX, 2000)) + " s, ending " +
               std::to_string(Seconds(static_cast<long long>(LastToneFrame(rec, 700, closedFrame, 2000)) -
                                      static_cast<long long>(closedFrame))) + " s after the close");

        // Whichever runs now (or a new one) serves normally.
        if (!secondEnded) {
            // A second long: a new process's first stream may lose its first milliseconds.
            std::vector<int16_t> noise = SeededNoise(150 + static_cast<uint32_t>(r), kRate, 2);
            Wav("check.wav", noise);
            // Adopt it as the test's server so that it is closed like one.
            CRecorder check;
            ASSERT_TRUE(check.Start(m_dir + "/check-" + std::to_string(r) + ".raw")) << check.Problem();
            ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"check.wav"}));
            SleepMs(2000);
            check.Stop();
            EXPECT_TRUE(HeardFraction(check.Samples(), noise) >= 0.5) << "the second server does not serve";
            ASSERT_EQ(Command({"close"}), "1");
            EXPECT_TRUE(second.Wait(15000)) << "the second server did not close";
        }
        ASSERT_FALSE(ServerWindowExists());
    }
    // A start after all of it serves.
    ASSERT_TRUE(StartServer());
    std::vector<int16_t> noise = SeededNoise(160, kRate, 2);
    Wav("final.wav", noise);
    CRecorder recorder;
    ASSERT_TRUE(recorder.Start(m_dir + "/recording-final.raw")) << recorder.Problem();
    ASSERT_TRUE(SendAs("0", kIgnoreForeground, {"final.wav"}));
    SleepMs(2000);
    recorder.Stop();
    EXPECT_TRUE(HeardFraction(recorder.Samples(), noise) >= 0.5);
    Figure("second start while closing: " + std::to_string(forwardedOrQuiet) + " rounds the second ended, " +
           std::to_string(becameServer) + " rounds it became the server");
    const std::string log = ServerLogText(m_dir);
    EXPECT_EQ(log, "");
}

}  // namespace
