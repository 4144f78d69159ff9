#pragma once
// The server's system tests: each test has a fresh working directory, a fresh server started
// in it, and a client helper (win/server_client) it drives through command files. Only one
// server can run in a Wine prefix, so each test makes sure the last one is gone first.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/system/harness/Harness.h"

namespace server_system {

using namespace harness;

const int kRate = 44100;

// Request flags, as the server reads them.
const unsigned kLoop = 0x0001, kStop = 0x0002, kStopOthers = 0x0004, kStopClient = 0x0008,
               kIgnoreForeground = 0x0010;

inline std::string Hex(unsigned v) {
    char text[16];
    snprintf(text, sizeof text, "%X", v);
    return text;
}

// A stereo sine at 44.1 kHz.
inline std::vector<int16_t> Tone(double frequency, double seconds, int amplitude) {
    size_t frames = static_cast<size_t>(seconds * kRate);
    std::vector<int16_t> samples(2 * frames);
    const double step = 2 * 3.14159265358979323846 * frequency / kRate;
    for (size_t i = 0; i < frames; ++i) {
        int16_t v = static_cast<int16_t>(std::lround(amplitude * std::sin(step * static_cast<double>(i))));
        samples[2 * i] = v;
        samples[2 * i + 1] = v;
    }
    return samples;
}

// The amplitude of one frequency in the left channel of frames [from, to) (Goertzel).
inline double ToneLevel(const std::vector<int16_t>& recording, size_t from, size_t to, double frequency) {
    if (to > recording.size() / 2) to = recording.size() / 2;
    if (from >= to) return 0;
    const double w = 2 * 3.14159265358979323846 * frequency / kRate;
    const double coeff = 2 * std::cos(w);
    double s1 = 0, s2 = 0;
    for (size_t i = from; i < to; ++i) {
        double s = recording[2 * i] + coeff * s1 - s2;
        s2 = s1;
        s1 = s;
    }
    double power = s1 * s1 + s2 * s2 - coeff * s1 * s2;
    return 2 * std::sqrt(power > 0 ? power : 0) / static_cast<double>(to - from);
}

// The share of the 100 ms windows in frames [from, to) in which the tone is above level. The
// session's sound server can drop out for a few hundred milliseconds on a loaded machine, which
// pulls a whole window's level down; a stopped play has no loud window at all.
inline double SoundingFraction(const std::vector<int16_t>& recording, size_t from, size_t to,
                               double frequency, double level) {
    const size_t window = kRate / 10;
    size_t windows = 0, sounding = 0;
    for (size_t at = from; at + window <= to; at += window) {
        ++windows;
        if (ToneLevel(recording, at, at + window, frequency) > level) ++sounding;
    }
    return windows == 0 ? 0.0 : static_cast<double>(sounding) / static_cast<double>(windows);
}

inline bool MakeDirectory(const std::string& path) { return ::mkdir(path.c_str(), 0755) == 0; }

inline std::string U32(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
inline std::string U16(uint16_t v) { return std::string(reinterpret_cast<const char*>(&v), 2); }

// A "fmt " chunk of the given values with a body of 16 bytes.
inline std::string FmtChunk(uint16_t format, uint16_t channels, uint32_t rate, uint16_t bits) {
    uint16_t align = static_cast<uint16_t>(channels * bits / 8);
    return "fmt " + U32(16) + U16(format) + U16(channels) + U32(rate) + U32(rate * align) + U16(align) +
           U16(bits);
}
inline std::string DataChunk(const std::string& pcm) {
    return "data" + U32(static_cast<uint32_t>(pcm.size())) + pcm;
}
inline std::string Riff(const std::string& chunks, const char* form = "WAVE", const char* id = "RIFF") {
    return std::string(id, 4) + U32(static_cast<uint32_t>(4 + chunks.size())) + std::string(form, 4) + chunks;
}

// A client helper process (win/server_client) in a directory of its own, driven through
// command files there.
class ClientDriver {
public:
    bool Start(const std::string& exe, const std::string& dir) {
        m_dir = dir;
        return m_process.StartWindows(exe, {}, dir, dir + "/client.out");
    }
    // Carries out one command and returns its answer ("" on time-out).
    std::string Command(const std::vector<std::string>& lines, int timeoutMs = 30000) {
        if (m_dir.empty()) return "";
        int n = ++m_commands;
        std::string text;
        for (size_t i = 0; i < lines.size(); ++i) text += (i ? "\n" : "") + lines[i];
        std::string tmp = m_dir + "/cmd-" + std::to_string(n) + ".tmp";
        std::string file = m_dir + "/cmd-" + std::to_string(n) + ".txt";
        if (!WriteFile(tmp, text) || std::rename(tmp.c_str(), file.c_str()) != 0) return "";
        std::string ack = m_dir + "/ack-" + std::to_string(n) + ".txt";
        std::string answer;
        if (!WaitUntil([&] { return ReadFile(ack, &answer); }, timeoutMs, 10)) return "";
        return answer;
    }
    std::string MakeWindow() { return Command({"window"}); }
    bool Send(unsigned flags, const std::vector<std::string>& names) {
        std::vector<std::string> lines = {"send", Hex(flags)};
        lines.insert(lines.end(), names.begin(), names.end());
        return Command(lines) == "1";
    }
    bool SendAs(const std::string& client, unsigned flags, const std::vector<std::string>& names) {
        std::vector<std::string> lines = {"sendas", client, Hex(flags)};
        lines.insert(lines.end(), names.begin(), names.end());
        return Command(lines) == "1";
    }
    void Quit() {
        if (m_process.Pid() > 0 && m_process.Running()) {
            Command({"quit"}, 5000);
            if (!m_process.Wait(5000)) m_process.Kill();
        }
    }
    // SIGKILL, as when the client crashes: its windows go with it, nothing is said to the server.
    bool Kill() { return m_process.Kill(); }

private:
    CProcess m_process;
    std::string m_dir;
    int m_commands = 0;
};

class ServerSystem : public ::testing::Test {
protected:
    void SetUp() override {
        std::string problem = SessionProblem();
        ASSERT_TRUE(problem.empty()) << problem;
        for (const char* name : {"quorbel", "server_client", "server_front"}) {
            std::string exe = FindWindowsExe(name);
            ASSERT_FALSE(exe.empty()) << name << ".exe not found under " << WinBuildDir();
            m_exe[name] = exe;
        }
        m_dir = MakeWorkDir(std::string("server_") +
                            ::testing::UnitTest::GetInstance()->current_test_info()->name());
        ASSERT_FALSE(m_dir.empty());
        ASSERT_TRUE(m_client.Start(Exe("server_client"), m_dir));
        // One prefix, one server: the last test's must be gone.
        if (ServerWindowExists()) {
            Command({"close"});
            ASSERT_TRUE(WaitUntil([this] { return !ServerWindowExists(); }, 15000, 200))
                << "a server from before is still running";
        }
    }

    void TearDown() override {
        for (auto& extra : m_extraClients) extra->Quit();
        if (m_server.Pid() > 0 && m_server.Running()) {
            Command({"close"}, 5000);
            if (!m_server.Wait(15000)) m_server.Kill();
        } else if (ServerWindowExists()) {
            // A server this test did not start itself (quorbel-play --start).
            Command({"close"}, 5000);
            WaitUntil([this] { return !ServerWindowExists(); }, 15000, 200);
        }
        m_client.Quit();
    }

    const std::string& Exe(const std::string& name) { return m_exe[name]; }

    std::string Command(const std::vector<std::string>& lines, int timeoutMs = 30000) {
        return m_client.Command(lines, timeoutMs);
    }

    // Another client helper, in a subdirectory of the test's directory.
    ClientDriver& ExtraClient() {
        m_extraClients.emplace_back(new ClientDriver);
        std::string sub = m_dir + "/client" + std::to_string(m_extraClients.size());
        EXPECT_TRUE(MakeDirectory(sub));
        EXPECT_TRUE(m_extraClients.back()->Start(Exe("server_client"), sub));
        return *m_extraClients.back();
    }

    // Starts the server in the test's directory and waits for its window.
    bool StartServer() {
        if (!m_server.StartWindows(Exe("quorbel"), {}, m_dir)) return false;
        return WaitUntil([this] { return Command({"find"}) != "0x00000000"; }, 30000, 100);
    }
    bool ServerWindowExists() { return Command({"find"}) != "0x00000000"; }

    std::string MakeClientWindow() { return m_client.MakeWindow(); }
    bool Send(unsigned flags, const std::vector<std::string>& names) { return m_client.Send(flags, names); }
    bool SendAs(const std::string& client, unsigned flags, const std::vector<std::string>& names) {
        return m_client.SendAs(client, flags, names);
    }

    // A 44.1 kHz stereo WAV of the samples in the test's directory; returns its name there.
    std::string Wav(const std::string& name, const std::vector<int16_t>& samples) {
        EXPECT_TRUE(WriteWav(m_dir + "/" + name, {2, kRate, 16}, ToBytes(samples)));
        return name;
    }
    std::string RawFile(const std::string& name, const std::string& bytes) {
        EXPECT_TRUE(WriteFile(m_dir + "/" + name, bytes));
        return name;
    }

    // Starts another process and waits until its window is in front. A play requested while
    // no window is in front is never silenced, so a test of the foreground must not rely on
    // what happens to be in front: it puts a process of its own there.
    bool BringAnotherProcessToFront(CProcess& front, const std::string& tag) {
        const std::string out = m_dir + "/front-" + tag + ".out";
        if (!front.StartWindows(Exe("server_front"), {"60"}, m_dir, out)) return false;
        std::string said;
        return WaitUntil([&] { return ReadFile(out, &said) && said.find("front") != std::string::npos; }, 15000);
    }

    // Runs a Windows program in the test's directory to its end; its exit code, or -1 when it
    // did not end in time (it is killed then).
    int RunWindowsProgram(const std::string& exe, const std::vector<std::string>& args,
                          const std::string& output = "", int timeoutMs = 30000) {
        CProcess process;
        if (!process.StartWindows(exe, args, m_dir, output)) return -1;
        if (!process.Wait(timeoutMs)) {
            process.Kill();
            return -1;
        }
        return process.ExitCode();
    }

    // Waits until the tone is heard in the recording after frame `from`.
    bool WaitForTone(CRecorder& recorder, double frequency, size_t from, int timeoutMs = 10000) {
        return WaitUntil([&] {
            size_t now = recorder.FramesSoFar();
            if (now < from + 4410) return false;
            std::vector<int16_t> samples = ReadRawS16(recorder.File());
            return ToneLevel(samples, now - 4410, now, frequency) > 1000;
        }, timeoutMs, 50);
    }

    std::string m_dir;
    CProcess m_server;
    ClientDriver m_client;
    std::vector<std::unique_ptr<ClientDriver>> m_extraClients;
    std::map<std::string, std::string> m_exe;
};

}  // namespace server_system
