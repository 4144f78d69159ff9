// The server under load: many client processes (win/load_client) fire thousands of mixed
// requests at one server as fast as their SendMessage round trips allow: plays once, loops,
// stops of a file, of every other file and of a whole client, plays of missing and broken files
// from every client at once (so that many play threads log at the same moment), their windows
// brought to the front, and clients killed abruptly with their windows still up, whose loops
// only the server's sweep can end. Afterwards:
//   - the server is the same process and still answers: a fresh client's play is heard;
//   - once the clients are gone and their stopped sound has drained, the recording is silent;
//   - the server's thread and handle counts are back at their baseline, taken when it was up
//     and idle after one warm-up play of each kind;
//   - every entry of quorbel.log is whole and well formed, none torn or mixed with another,
//     each refused play logged as its two entries from its own thread, and as many of them as
//     the clients that ran to their end say the server took.
// The test prints its figures (requests, clients, kills, requests per second, counts before and
// after) and records them as properties of the test case.
//
// Environment (beyond the system tests', see tests/system/harness/Harness.h):
//   QUORBEL_LOAD_CLIENTS    client processes per round (default 10)
//   QUORBEL_LOAD_REQUESTS   requests per client that runs to its end (default 300)
//   QUORBEL_LOAD_DOOMED     clients per round killed mid-run (default 3; fewer than the clients)
//   QUORBEL_LOAD_ROUNDS     rounds against the same server, each checked (default 1); many
//                           rounds make a soak
//   QUORBEL_LOAD_SEED       first seed of the clients' mixes (default 1)
// The default is the short form that scripts/test runs; a long form by hand, for example:
//   QUORBEL_LOAD_CLIENTS=16 QUORBEL_LOAD_REQUESTS=2000 QUORBEL_LOAD_ROUNDS=10 ./tests/load/load_tests

#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/system/server_system.h"

namespace {

using namespace server_system;

int EnvInt(const char* name, int fallback, int low, int high) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') return fallback;
    return std::max(low, std::min(high, std::atoi(text)));
}

struct LoadSettings {
    int clients = EnvInt("QUORBEL_LOAD_CLIENTS", 10, 1, 200);
    int requests = EnvInt("QUORBEL_LOAD_REQUESTS", 300, 10, 1000000);
    int doomed = EnvInt("QUORBEL_LOAD_DOOMED", 3, 0, 199);
    int rounds = EnvInt("QUORBEL_LOAD_ROUNDS", 1, 1, 100000);
    int seed = EnvInt("QUORBEL_LOAD_SEED", 1, 1, 1000000);
};

const double kLoopTones[4] = {523, 784, 1175, 1568};
const double kOnceTones[3] = {2000, 2500, 3000};
const double kProbeTone = 660;

long Elapsed(std::chrono::steady_clock::time_point since) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count());
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(line);
    }
    return lines;
}

// Threads of a Linux process: the entries of /proc/PID/task; -1 when it is gone.
long TaskCount(pid_t pid) {
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/task").c_str());
    if (dir == nullptr) return -1;
    long count = 0;
    while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.' ? 1 : 0;
    closedir(dir);
    return count;
}

long FdCount(pid_t pid) {
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (dir == nullptr) return -1;
    long count = 0;
    while (dirent* entry = readdir(dir)) count += entry->d_name[0] != '.' ? 1 : 0;
    closedir(dir);
    return count;
}

// What the server's process looks like from inside Wine (load_client count).
struct WinCounts {
    long pid = -1, handles = -1, sysHandles = -1, threads = -1;
    std::string types;      // " type:count" of the system handle list
    std::string typeNames;  // "type numbers: event:N ..."
    bool Valid() const { return pid > 0; }
};

// The server's counts at one moment, from the host and from inside Wine.
struct Counts {
    long tasks = -1, fds = -1;
    WinCounts win;
    std::string Describe() const {
        char text[200];
        snprintf(text, sizeof text, "%ld threads (/proc task), %ld handles (GetProcessHandleCount), %ld (system handle list), %ld threads (Toolhelp), %ld fds",
                 tasks, win.handles, win.sysHandles, win.threads, fds);
        return text + std::string("; handles by type") + win.types;
    }
};

struct ClientRun {
    std::unique_ptr<CProcess> process;
    std::string out;
    int seed = 0;
    bool doomed = false;
    bool killed = false;
    long killAtMs = -1;
    int sent = 0;  // exact for a client that ran to its end, the last progress for a killed one
    std::map<std::string, int> refused;
    std::string done;
};

// An entry of the log: prefix fields and message.
struct LogEntry {
    long pid = 0, tid = 0;
    std::string message;
};

class ServerLoad : public ::testing::Test {
protected:
    void SetUp() override {
        std::string problem = SessionProblem();
        ASSERT_TRUE(problem.empty()) << problem;
        m_server_exe = FindWindowsExe("quorbel");
        m_client_exe = FindWindowsExe("load_client");
        ASSERT_FALSE(m_server_exe.empty()) << "quorbel.exe not found under " << WinBuildDir();
        ASSERT_FALSE(m_client_exe.empty()) << "load_client.exe not found under " << WinBuildDir();
        ASSERT_EQ(std::system("lame --version > /dev/null 2>&1"), 0) << "lame is needed to make the material";
        m_dir = MakeWorkDir("load");
        ASSERT_FALSE(m_dir.empty());
        // One prefix, one server: one from before must be gone.
        if (ServerCounts().Valid()) {
            RunClient({"close"}, "close-before.out", 20000);
            ASSERT_TRUE(WaitUntil([this] { return !ServerCounts().Valid(); }, 20000, 500))
                << "a server from before is still running";
        }
        MakeMaterial();
    }

    void TearDown() override {
        for (ClientRun& c : m_clients) {
            if (c.process) c.process->Kill();
        }
        if (m_server.Pid() > 0 && m_server.Running()) {
            RunClient({"close"}, "close.out", 20000);
            if (!m_server.Wait(20000)) m_server.Kill();
        }
        m_keeper.Kill();
        m_recorder.Stop();
    }

    void MakeMaterial() {
        for (int k = 0; k < 4; ++k) {
            ASSERT_TRUE(WriteWav(m_dir + "/loop" + std::to_string(k) + ".wav", {2, kRate, 16},
                                 ToBytes(Tone(kLoopTones[k], 0.25, 3000))));
        }
        for (int k = 0; k < 3; ++k) {
            ASSERT_TRUE(WriteWav(m_dir + "/once" + std::to_string(k) + ".wav", {2, kRate, 16},
                                 ToBytes(Tone(kOnceTones[k], 0.08, 3000))));
        }
        ASSERT_TRUE(WriteWav(m_dir + "/once.mp3.in.wav", {2, kRate, 16}, ToBytes(Tone(3500, 0.1, 3000))));
        const std::string lame = "lame --quiet -b 128 '" + m_dir + "/once.mp3.in.wav' '" + m_dir + "/once.mp3' 2> '" +
                                 m_dir + "/lame.err'";
        ASSERT_EQ(std::system(lame.c_str()), 0) << lame;
        ASSERT_TRUE(WriteWav(m_dir + "/warm.wav", {2, kRate, 16}, ToBytes(Tone(4000, 0.2, 3000))));
        ASSERT_TRUE(WriteWav(m_dir + "/probe.wav", {2, kRate, 16}, ToBytes(Tone(kProbeTone, 1.0, 8000))));
    }

    // The broken files of one client: a RIFF file of another form, and an MP3 of no frames.
    void MakeBrokenFiles(int id) {
        const std::string pcm = ToBytes(SeededNoise(static_cast<uint32_t>(id), 64, 2));
        ASSERT_TRUE(WriteFile(m_dir + "/bad-" + std::to_string(id) + ".wav",
                              Riff(FmtChunk(1, 2, kRate, 16) + DataChunk(pcm), "AVI ")));
        ASSERT_TRUE(WriteFile(m_dir + "/bad-" + std::to_string(id) + ".mp3", std::string(3000, 'x')));
    }

    // Runs load_client with these arguments to its end (bounded); its output.
    std::string RunClient(const std::vector<std::string>& args, const std::string& outName, int timeoutMs) {
        CProcess process;
        const std::string out = m_dir + "/" + outName;
        if (!process.StartWindows(m_client_exe, args, m_dir, out)) return "";
        if (!process.Wait(timeoutMs)) {
            process.Kill();
            return "";
        }
        std::string text;
        ReadFile(out, &text);
        return text;
    }

    WinCounts ServerCounts() {
        WinCounts counts;
        std::string text = RunClient({"count"}, "count.out", 30000);
        long pid, handles, sys, threads;
        if (sscanf(text.c_str(), "pid %ld handles %ld syshandles %ld threads %ld", &pid, &handles, &sys, &threads) == 4) {
            counts.pid = pid;
            counts.handles = handles;
            counts.sysHandles = sys;
            counts.threads = threads;
            size_t at = text.find(" types");
            size_t close = text.find(" (type numbers:");
            if (at != std::string::npos) counts.types = text.substr(at + 6, close == std::string::npos ? std::string::npos : close - at - 6);
            if (close != std::string::npos) counts.typeNames = Lines(text.substr(close + 2))[0];
        }
        return counts;
    }

    Counts MeasureServer() {
        Counts counts;
        counts.win = ServerCounts();
        counts.tasks = TaskCount(m_server.Pid());
        counts.fds = FdCount(m_server.Pid());
        return counts;
    }

    // Handles of each type number (" 8:36 9:3 ...").
    static std::map<int, long> ByType(const std::string& types) {
        std::map<int, long> counts;
        std::istringstream in(types);
        for (std::string item; in >> item;) {
            int type = 0;
            long n = 0;
            if (sscanf(item.c_str(), "%d:%ld", &type, &n) == 2) counts[type] = n;
        }
        return counts;
    }
    static int EventType(const std::string& typeNames) {
        size_t at = typeNames.find("event:");
        return at == std::string::npos ? -1 : std::atoi(typeNames.c_str() + at + 6);
    }

    // Threads at or under the baseline; handles of every type at or under it but events, of
    // which Wine's winmm keeps those of every wave device it has opened, for reuse: they may
    // exceed the baseline by at most one for each play thread that ran at the peak, never by
    // one for each play (the server itself makes no events at all).
    bool AtBaseline(const Counts& now, const Counts& base, std::string* why) {
        why->clear();
        if (!now.win.Valid()) *why = "the server's counts could not be read";
        if (now.tasks < 0 || now.tasks > base.tasks) *why += " threads (/proc task) above the baseline;";
        if (now.win.threads < 0 || now.win.threads > base.win.threads) *why += " threads (Toolhelp) above the baseline;";
        const int event = EventType(base.win.typeNames);
        const std::map<int, long> before = ByType(base.win.types), after = ByType(now.win.types);
        for (const auto& type : after) {
            auto was = before.find(type.first);
            long allowed = was == before.end() ? 0 : was->second;
            if (type.first == event) allowed += std::max(0L, m_peakTasks - base.tasks);
            if (type.second > allowed) {
                *why += " " + std::to_string(type.second) + " handles of type " + std::to_string(type.first) +
                        (type.first == event ? " (events)" : "") + " where " + std::to_string(allowed) + " may be;";
            }
        }
        return why->empty();
    }

    // Frames of the recording from `from` on, up to now, are all zero.
    bool SilentSince(size_t from, size_t* loudAt = nullptr) {
        std::vector<int16_t> rec = ReadRawS16(m_recorder.File());
        size_t first = 0, last = 0;
        NonSilentRange(rec, std::min(rec.size(), 2 * from), rec.size(), 0, &first, &last);
        if (loudAt != nullptr) *loudAt = last / 2;
        return first == last;
    }

    std::string DescribeTones(size_t from, size_t to) {
        std::vector<int16_t> rec = ReadRawS16(m_recorder.File());
        std::string text;
        for (double f : kLoopTones) text += " " + std::to_string(static_cast<int>(f)) + " Hz: " +
                                            std::to_string(static_cast<int>(ToneLevel(rec, from, to, f)));
        return text;
    }

    void RunRound(int round, const LoadSettings& settings, const Counts& baseline);
    void CheckLog();

    std::string m_dir, m_server_exe, m_client_exe;
    CProcess m_server, m_keeper;
    CRecorder m_recorder;
    std::vector<ClientRun> m_clients;  // of every round
    long m_winPid = -1;
    long m_peakTasks = 0;

    void Figure(const std::string& key, const std::string& text) {
        std::printf("[load] %s: %s\n", key.c_str(), text.c_str());
        std::fflush(stdout);
        RecordProperty(key, text);
    }
};

void ServerLoad::RunRound(int round, const LoadSettings& settings, const Counts& baseline) {
    const size_t first = m_clients.size();
    const int doomed = std::min(settings.doomed, settings.clients - 1);
    for (int i = 0; i < settings.clients; ++i) {
        ClientRun c;
        c.seed = settings.seed + 1000 * round + i + 1;
        c.doomed = i >= settings.clients - doomed;
        c.out = m_dir + "/client-" + std::to_string(c.seed) + ".out";
        MakeBrokenFiles(c.seed);
        m_clients.push_back(std::move(c));
    }
    const auto start = std::chrono::steady_clock::now();
    for (size_t i = first; i < m_clients.size(); ++i) {
        ClientRun& c = m_clients[i];
        c.process.reset(new CProcess);
        std::vector<std::string> args = {"run", std::to_string(c.seed), std::to_string(settings.requests)};
        if (c.doomed) args.push_back("doomed");
        ASSERT_TRUE(c.process->StartWindows(m_client_exe, args, m_dir, c.out));
    }

    // Until every client has ended or been killed; each doomed one is killed a seeded moment
    // after it has said that its loops have all joined.
    uint32_t random = static_cast<uint32_t>(settings.seed * 7919 + round);
    const long bound = 120000 + 400L * settings.requests;
    long loadMs = 0;
    for (;;) {
        bool running = false;
        const long now = Elapsed(start);
        for (size_t i = first; i < m_clients.size(); ++i) {
            ClientRun& c = m_clients[i];
            if (c.killed || !c.process->Running()) continue;
            running = true;
            if (!c.doomed) continue;
            if (c.killAtMs < 0) {
                std::string text;
                if (ReadFile(c.out, &text) && text.find("tail") != std::string::npos) {
                    random = random * 1103515245u + 12345u;
                    c.killAtMs = now + static_cast<long>((random >> 8) % 1500);
                }
            } else if (now >= c.killAtMs) {
                ASSERT_TRUE(c.process->Kill()) << "client " << c.seed << " could not be killed";
                c.killed = true;
            }
        }
        m_peakTasks = std::max(m_peakTasks, TaskCount(m_server.Pid()));
        if (!running) break;
        ASSERT_LT(now, bound) << "the clients did not end within " << bound / 1000 << " s: a hang";
        SleepMs(20);
    }
    loadMs = Elapsed(start);
    const size_t loadEnd = m_recorder.FramesSoFar();

    int sent = 0, sentByKilled = 0, killed = 0;
    for (size_t i = first; i < m_clients.size(); ++i) {
        ClientRun& c = m_clients[i];
        std::string text;
        ReadFile(c.out, &text);
        for (const std::string& line : Lines(text)) {
            char name[128];
            int n = 0;
            if (sscanf(line.c_str(), "progress %d", &n) == 1) c.sent = n;
            if (sscanf(line.c_str(), "refused %127s %d", name, &n) == 2) c.refused[name] = n;
            if (line.compare(0, 5, "done ") == 0) c.done = line;
        }
        if (c.doomed) {
            EXPECT_TRUE(c.killed) << "client " << c.seed << " ended before it was killed: " << c.process->ExitCode();
            ++killed;
            sentByKilled += c.sent;
        } else {
            EXPECT_EQ(c.process->ExitCode(), 0) << "client " << c.seed << ": " << text.substr(text.size() > 300 ? text.size() - 300 : 0);
            int taken = -1;
            EXPECT_EQ(sscanf(c.done.c_str(), "done sent=%d taken=%d", &c.sent, &taken), 2) << c.seed << ": " << c.done;
            EXPECT_EQ(taken, c.sent) << "client " << c.seed << ": requests the server did not take";
        }
        sent += c.sent;
    }
    EXPECT_TRUE(m_server.Running()) << "the server died under the load";

    // The sweep finds the killed clients within 2 s and stops their loops one after another;
    // then nothing may sound any more.
    const auto quietFrom = std::chrono::steady_clock::now();
    size_t quiet = 0;
    const bool wentQuiet = WaitUntil([&] {
        size_t now = m_recorder.FramesSoFar();
        if (now < loadEnd + kRate) return false;
        quiet = now - kRate;
        return SilentSince(quiet);
    }, 60000, 200);
    const long quietMs = Elapsed(quietFrom);
    EXPECT_TRUE(wentQuiet) << "round " << round << ": still sounding 60 s after the clients ended:"
                           << DescribeTones(m_recorder.FramesSoFar() - kRate, m_recorder.FramesSoFar());
    if (wentQuiet) {
        SleepMs(4000);  // two more sweeps: a stopped loop must not come back
        size_t loudAt = 0;
        EXPECT_TRUE(SilentSince(quiet, &loudAt))
            << "round " << round << ": sound " << (static_cast<double>(loudAt) - quiet) / kRate
            << " s after the recording had gone quiet:" << DescribeTones(quiet, loudAt + 1);
    }

    // Back at the baseline, with time to settle.
    Counts after;
    std::string why;
    const auto settleFrom = std::chrono::steady_clock::now();
    const bool settled = WaitUntil([&] {
        after = MeasureServer();
        return AtBaseline(after, baseline, &why);
    }, 45000, 500);
    const long settleMs = Elapsed(settleFrom);
    EXPECT_TRUE(settled) << "round " << round << ": not back at the baseline:" << why << "\n  before: "
                         << baseline.Describe() << "\n  after:  " << after.Describe();
    EXPECT_EQ(after.win.pid, m_winPid) << "the server is another process";
    EXPECT_TRUE(m_server.Running());

    char text[400];
    snprintf(text, sizeof text,
             "%d clients (%d killed mid-run), %d requests (%d from the killed ones, as far as they reported) in "
             "%.1f s: %.0f requests/s",
             settings.clients, killed, sent, sentByKilled, loadMs / 1000.0, sent * 1000.0 / std::max(1L, loadMs));
    Figure("round" + std::to_string(round) + "_load", text);
    snprintf(text, sizeof text, "quiet %.1f s after the clients ended; counts at baseline %.1f s later; peak %ld threads (/proc task)",
             quietMs / 1000.0, settleMs / 1000.0, m_peakTasks);
    Figure("round" + std::to_string(round) + "_settle", text);
    Figure("round" + std::to_string(round) + "_after", after.Describe());
}

// Every line of the log is one whole entry of this server: the prefix, then one of the
// messages of a refused play with a name of the material, or one of the few the sound path
// logs under load. A refused play shows as its reasons and its "open failed", all from one
// thread, one after the other in that thread: a missing file as the failed create and "open
// failed", a broken WAV as the bad RIFF form and "open failed", a broken MP3 as two reasons (no
// frame header found, so none for the file) and "open failed".
void ServerLoad::CheckLog() {
    const std::string text = ServerLogText(m_dir);
    ASSERT_FALSE(text.empty()) << "no log";
    EXPECT_EQ(text.back(), '\n') << "the log ends inside an entry";
    const std::regex entry(R"(\[(\d{4})-(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d):(\d{3}) (\d{4,}):(\d{4,})\](.*))");
    const std::string name = R"(((gone)-\d+-\d\.wav|bad-\d+\.(wav|mp3)))";
    const std::string played = R"(((loop|once)\d\.wav|once\.mp3|warm\.wav|probe\.wav))";
    struct Kind {
        char code;
        std::regex pattern;
    };
    const std::vector<Kind> kinds = {
        {'M', std::regex(R"(\[player/pub/FileMapObj:\d+\]create file\()" + name + R"(\) failed\(0x00000002\))")},
        {'W', std::regex(R"(\[CWavFile::InitFileInfo\]file\()" + name + R"(\),RiffHeader format=0x20495641)")},
        {'F', std::regex(R"(\[CMP3File::FindFirstFrameHeader\]file\()" + name + R"(\),not valid frame header!)")},
        {'I', std::regex(R"(\[CMP3File::InitFileInfo\]file\()" + name + R"(\),not valid frame header!)")},
        {'O', std::regex(R"(\[player/(wav/WavFilePlayer|mp3/MP3FilePlayer):\d+\]file\()" + name + R"(\),open failed)")},
    };
    // What the sound path logs when Wine's audio cannot keep up: counted, not failed.
    const std::vector<std::pair<std::string, std::regex>> soundPath = {
        {"waveOutOpen() failed", std::regex(R"(\[player/pub/WavOut:\d+\]waveOutOpen\(\) return\(\d+\))")},
        {"too many devices open", std::regex(R"(\[player/pub/WavOut:\d+\]too many devices open\(63\))")},
        {"device init failed", std::regex(R"(\[player/(wav/WavFilePlayer|mp3/MP3FilePlayer):\d+\]file\()" + played +
                                          R"(\),(waveout|wav) init failed)")},
        {"wait for buffers timed out", std::regex(R"(\[player/pub/WavOut:\d+\]wait for buffers timed out)")},
        {"wait for a free buffer timed out", std::regex(R"(\[player/pub/WavOut:\d+\]wait for a free buffer timed out)")},
    };
    std::map<std::string, int> soundPathCounts;

    std::map<long, std::string> codes;  // per thread id: the codes of its entries, in order
    std::map<long, std::vector<std::string>> names;
    int lines = 0, bad = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(pos, end - pos);
        pos = end + 1;
        ++lines;
        std::smatch m, n;
        bool ok = !line.empty() && line.back() == '\r';
        if (ok) line.pop_back();
        ok = ok && std::regex_match(line, m, entry);
        if (ok) {
            const int month = std::stoi(m[2]), day = std::stoi(m[3]), hour = std::stoi(m[4]);
            const int minute = std::stoi(m[5]), second = std::stoi(m[6]);
            ok = month >= 1 && month <= 12 && day >= 1 && day <= 31 && hour < 24 && minute < 60 && second < 60 &&
                 std::stol(m[8]) == m_winPid;
        }
        if (ok) {
            const std::string message = m[10];
            const long tid = std::stol(m[9]);
            ok = false;
            for (const Kind& kind : kinds) {
                if (!std::regex_match(message, n, kind.pattern)) continue;
                const std::string file = n[kind.code == 'O' ? 2 : 1];
                const std::string ext = file.substr(file.size() - 3);
                ok = kind.code != 'O' || (n[1] == "wav/WavFilePlayer") == (ext == "wav");
                codes[tid] += kind.code;
                names[tid].push_back(file);
                break;
            }
            for (size_t k = 0; !ok && k < soundPath.size(); ++k) {
                if (std::regex_match(message, soundPath[k].second)) {
                    ++soundPathCounts[soundPath[k].first];
                    ok = true;
                }
            }
            if (!ok && message.find("play threads still running") != std::string::npos) {
                ADD_FAILURE() << "the server closed with play threads running: " << message;
                ok = true;
            }
        }
        if (!ok && ++bad <= 10) ADD_FAILURE() << "log line " << lines << " is not a whole entry expected here: [" << line << "]";
    }
    EXPECT_EQ(bad, 0) << bad << " of " << lines << " log lines are not whole entries";

    // Each thread's entries fall into whole refused plays of one name each.
    std::map<std::string, int> plays;
    int broken = 0;
    for (const auto& thread : codes) {
        const std::string& c = thread.second;
        const std::vector<std::string>& file = names[thread.first];
        size_t i = 0;
        while (i < c.size()) {
            const std::string ext = file[i].substr(file[i].size() - 3);
            const std::string expected = file[i].compare(0, 5, "gone-") == 0 ? "MO" : ext == "wav" ? "WO" : "FIO";
            bool whole = c.compare(i, expected.size(), expected) == 0;
            for (size_t k = 1; whole && k < expected.size(); ++k) whole = file[i + k] == file[i];
            if (whole) {
                ++plays[file[i]];
                i += expected.size();
            } else {
                if (++broken <= 10) {
                    ADD_FAILURE() << "thread " << thread.first << ": entries " << c.substr(i, 4) << " of " << file[i]
                                  << " are not one whole refused play (" << expected << ")";
                }
                ++i;
            }
        }
    }
    EXPECT_EQ(broken, 0);

    // The clients that ran to their end know how many refused plays the server took.
    int compared = 0, total = 0;
    for (const ClientRun& c : m_clients) {
        if (c.doomed) continue;
        for (const auto& r : c.refused) {
            EXPECT_EQ(plays[r.first], r.second) << r.first << ": refused plays logged vs taken";
            ++compared;
        }
    }
    for (const auto& p : plays) total += p.second;
    EXPECT_EQ(plays["gone-0-0.wav"], 1) << "the warm-up's refused play";
    EXPECT_GT(compared, 0);
    std::string sound;
    for (const auto& s : soundPathCounts) sound += ", " + std::to_string(s.second) + " " + s.first;
    Figure("log", std::to_string(lines) + " entries, " + std::to_string(total) + " refused plays from " +
                      std::to_string(codes.size()) + " thread ids, " + std::to_string(compared) +
                      " names counted against the clients" + sound);
}

TEST_F(ServerLoad, ManyClientsMixedRequestsLeaveTheServerServingQuietWholeAndAtItsBaseline) {
    const LoadSettings settings;
    ASSERT_TRUE(m_recorder.Start(m_dir + "/recording.raw")) << m_recorder.Problem();
    ASSERT_TRUE(m_server.StartWindows(m_server_exe, {}, m_dir, m_dir + "/server.out"));
    ASSERT_TRUE(WaitUntil([this] { return ServerCounts().Valid(); }, 30000, 200)) << "the server's window never came";
    ASSERT_TRUE(m_keeper.StartWindows(m_client_exe, {"keeper", "7200"}, m_dir, m_dir + "/keeper.out"));
    std::string said;
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(m_dir + "/keeper.out", &said) && said.find("listed") != std::string::npos; },
                          30000)) << said;
    ASSERT_NE(said.find("listed 1"), std::string::npos) << said;

    // One play of each kind first: what Wine starts once for sound, and the decoder's tables,
    // belong to the baseline, not to the load.
    std::string warm = RunClient({"play", "warm.wav", "1"}, "warm-wav.out", 30000);
    ASSERT_NE(warm.find("played 1"), std::string::npos) << warm;
    warm = RunClient({"play", "once.mp3", "1"}, "warm-mp3.out", 30000);
    ASSERT_NE(warm.find("played 1"), std::string::npos) << warm;
    warm = RunClient({"play", "gone-0-0.wav", "0"}, "warm-gone.out", 30000);
    ASSERT_NE(warm.find("played 1"), std::string::npos) << warm;
    SleepMs(3000);  // the warm-up clients swept

    Counts baseline = MeasureServer();
    ASSERT_TRUE(baseline.win.Valid());
    ASSERT_GT(baseline.tasks, 0);
    m_winPid = baseline.win.pid;
    ASSERT_GE(EventType(baseline.win.typeNames), 0) << "the type number of events is unknown: " << baseline.win.typeNames;
    Figure("baseline", baseline.Describe() + " (" + baseline.win.typeNames);
    if (baseline.win.handles <= 0) Figure("note", "GetProcessHandleCount reports nothing under this Wine");

    for (int round = 0; round < settings.rounds && !HasFatalFailure(); ++round) RunRound(round, settings, baseline);
    if (HasFatalFailure()) return;

    // A fresh client is still served.
    const size_t before = m_recorder.FramesSoFar();
    std::string probe = RunClient({"play", "probe.wav", "2"}, "probe.out", 30000);
    EXPECT_NE(probe.find("played 1"), std::string::npos) << probe;
    double level = 0;
    WaitUntil([&] {
        std::vector<int16_t> rec = ReadRawS16(m_recorder.File());
        for (size_t at = before; at + 4410 <= rec.size() / 2; at += 2205) {
            level = std::max(level, ToneLevel(rec, at, at + 4410, kProbeTone));
        }
        return level > 4000;
    }, 10000, 200);
    EXPECT_GT(level, 4000) << "a fresh client's play was not heard after the load";
    EXPECT_TRUE(m_server.Running());
    EXPECT_EQ(ServerCounts().pid, m_winPid) << "the server is another process";

    CheckLog();
}

}  // namespace
