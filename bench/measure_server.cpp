// Measures the running server under Wine: what a request costs until sound, what a play
// costs while it sounds, and how many plays it holds at once.
//
//   measure_server [--plays N] [--trials N] [--max-plays N]
//
// Run inside a Wine session with QUORBEL_WIN_BUILD_DIR naming the Windows build (see the
// README's performance section). Prints:
//  1. request to first buffer queued, WAV and MP3 (bench_request.exe: frame and players
//     in-process, N plays each);
//  2. the delay before sound of a request to the server against a small program that plays the
//     same burst through waveOut itself: both are timed from the wall clock before the request
//     (or before waveOutOpen) to the burst's onset in the recording, alternately, --trials each;
//     the recording's own lag is the same for both, so their difference is the server's extra;
//  3. memory, handles, threads and CPU of the server idle and with 8 looping plays of WAV and
//     of MP3, so the cost of one play;
//  4. looping plays of one tone each, 4 up to --max-plays: for each count, how many plays were
//     refused (logged), how many are heard, how many 50 ms windows of 4 s of recording miss a
//     heard tone (an underrun of that play), and how many waits for a device timed out (a
//     stall).

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/system/harness/Harness.h"

using namespace harness;

namespace {

const int kRate = 44100;
const double kPi = 3.14159265358979323846;

long long WallMicroseconds() {
    timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<long long>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

std::vector<int16_t> StereoTone(double frequency, double seconds, int amplitude) {
    size_t frames = static_cast<size_t>(seconds * kRate);
    std::vector<int16_t> samples(2 * frames);
    for (size_t i = 0; i < frames; ++i) {
        double v = amplitude * std::sin(2 * kPi * frequency * static_cast<double>(i) / kRate);
        samples[2 * i] = samples[2 * i + 1] = static_cast<int16_t>(std::lround(v));
    }
    return samples;
}

// The amplitude of one frequency in the left channel of frames [from, to) (Goertzel).
double Level(const std::vector<int16_t>& recording, size_t from, size_t to, double frequency) {
    const double coeff = 2 * std::cos(2 * kPi * frequency / kRate);
    double s1 = 0, s2 = 0;
    for (size_t i = from; i < to; ++i) {
        double s = recording[2 * i] + coeff * s1 - s2;
        s2 = s1;
        s1 = s;
    }
    double power = s1 * s1 + s2 * s2 - coeff * s1 * s2;
    return 2 * std::sqrt(power > 0 ? power : 0) / static_cast<double>(to - from);
}

double Median(std::vector<double> v) {
    if (v.empty()) return NAN;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

struct Tools {
    std::string dir;
    std::string client;  // measure_client.exe

    // Runs measure_client with these arguments to its end; its output, or "" on failure.
    std::string Client(const std::vector<std::string>& args, int timeoutMs = 60000) {
        static int n = 0;
        std::string out = dir + "/client-" + std::to_string(++n) + ".out";
        CProcess process;
        if (!process.StartWindows(client, args, dir, out)) return "";
        if (!process.Wait(timeoutMs)) {
            process.Kill();
            return "";
        }
        std::string text;
        ReadFile(out, &text);
        return process.ExitCode() == 0 ? (text.empty() ? std::string("\n") : text) : "";
    }
};

std::vector<long long> Stamps(const std::string& output) {
    std::vector<long long> stamps;
    std::istringstream in(output);
    std::string word;
    long long value;
    while (in >> word >> value) {
        if (word == "stamp") stamps.push_back(value);
    }
    return stamps;
}

// A field of /proc/PID/status in kB, or -1.
long ProcStatusKb(pid_t pid, const char* field) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    size_t n = std::strlen(field);
    while (std::getline(in, line)) {
        if (line.compare(0, n, field) == 0 && line.size() > n && line[n] == ':') {
            return std::atol(line.c_str() + n + 1);
        }
    }
    return -1;
}

// User plus system CPU of the process, in milliseconds.
double ProcCpuMs(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t close = text.rfind(')');
    if (close == std::string::npos) return -1;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14 || i == 15) ticks += std::atof(field.c_str());
    }
    return 1000.0 * ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

int TaskCount(pid_t pid) { return static_cast<int>(ProcStatusKb(pid, "Threads")); }

struct Snapshot {
    long vmRssKb = -1, vmDataKb = -1;
    long long privateBytes = -1;
    long handles = -1, threads = -1;
    int tasks = -1;
};

Snapshot Take(Tools& tools, pid_t pid) {
    Snapshot s;
    s.vmRssKb = ProcStatusKb(pid, "VmRSS");
    s.vmDataKb = ProcStatusKb(pid, "VmData");
    s.tasks = TaskCount(pid);
    std::istringstream in(tools.Client({"counts"}));
    std::string key;
    long long value;
    while (in >> key >> value) {
        if (key == "private") s.privateBytes = value;
        if (key == "handles") s.handles = static_cast<long>(value);
        if (key == "threads") s.threads = static_cast<long>(value);
    }
    return s;
}

// Wine answers the private bytes and the handle count of another process with 0: such a value
// is shown as unknown rather than as a measurement.
std::string OrUnknown(double value, const char* format) {
    if (value <= 0) return "n/a";
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

void PrintSnapshot(const char* what, const Snapshot& s) {
    std::printf("  %-26s private %s MiB  VmRSS %7.1f MiB  VmData %7.1f MiB  handles %s  "
                "threads %3ld (Linux tasks %d)\n",
                what, OrUnknown(s.privateBytes / 1048576.0, "%.1f").c_str(), s.vmRssKb / 1024.0,
                s.vmDataKb / 1024.0, OrUnknown(static_cast<double>(s.handles), "%.0f").c_str(), s.threads,
                s.tasks);
}

// The first frame in [from, to) whose left sample exceeds the threshold, or -1.
long long Onset(const std::vector<int16_t>& rec, long long from, long long to, int threshold) {
    long long frames = static_cast<long long>(rec.size() / 2);
    from = std::max(0LL, from);
    to = std::min(frames, to);
    for (long long i = from; i < to; ++i) {
        if (std::abs(rec[2 * i]) > threshold) return i;
    }
    return -1;
}

int Fail(const std::string& why) {
    std::fprintf(stderr, "measure_server: %s\n", why.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    int plays = 50, trials = 10, maxPlays = 64;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--plays") == 0) plays = std::atoi(argv[i + 1]);
        if (std::strcmp(argv[i], "--trials") == 0) trials = std::atoi(argv[i + 1]);
        if (std::strcmp(argv[i], "--max-plays") == 0) maxPlays = std::atoi(argv[i + 1]);
    }
    maxPlays = std::max(4, std::min(maxPlays, 80));
    std::string problem = SessionProblem();
    if (!problem.empty()) return Fail(problem);

    Tools tools;
    tools.client = FindWindowsExe("measure_client");
    std::string quorbel = FindWindowsExe("quorbel");
    std::string benchRequest = FindWindowsExe("bench_request");
    if (tools.client.empty() || quorbel.empty() || benchRequest.empty()) {
        return Fail("measure_client.exe, quorbel.exe or bench_request.exe not found under " + WinBuildDir());
    }
    tools.dir = MakeWorkDir("measure_server");
    if (tools.dir.empty()) return Fail("no work directory");
    const std::string& dir = tools.dir;

    // The material: a second of tone as WAV and MP3, a short burst, a tone for each play.
    WriteWav(dir + "/second.wav", {2, kRate, 16}, ToBytes(StereoTone(440, 1.0, 8000)));
    std::string lame = "lame --quiet -b 128 '" + dir + "/second.wav' '" + dir + "/second.mp3'";
    if (std::system(lame.c_str()) != 0) return Fail("lame failed");
    std::vector<int16_t> burst = StereoTone(1000, 0.3, 16000);
    WriteWav(dir + "/burst.wav", {2, kRate, 16}, ToBytes(burst));
    WriteRawS16(dir + "/burst.raw", burst);
    // Whole cycles in a second, so that each loop is seamless.
    auto toneOf = [](int i) { return 300.0 + 100.0 * i; };
    const int kToneAmplitude = 25000 / maxPlays;
    for (int i = 0; i < maxPlays; ++i) {
        WriteWav(dir + "/tone" + std::to_string(i) + ".wav", {2, kRate, 16},
                 ToBytes(StereoTone(toneOf(i), 1.0, kToneAmplitude)));
    }

    std::printf("== request to first buffer queued (in-process frame, real device, %d plays each)\n", plays);
    {
        CProcess bench;
        std::string out = dir + "/bench_request.out";
        if (!bench.StartWindows(benchRequest, {"second.wav", "second.mp3", std::to_string(plays)}, dir, out) ||
            !bench.Wait(300000)) {
            bench.Kill();
            return Fail("bench_request did not finish");
        }
        std::string text;
        ReadFile(out, &text);
        std::printf("%s", text.c_str());
    }

    CProcess server;
    if (!server.StartWindows(quorbel, {}, dir)) return Fail("the server did not start");
    if (!WaitUntil([&] { return !tools.Client({"counts"}).empty(); }, 30000, 200)) {
        return Fail("the server's window did not appear");
    }
    const pid_t pid = server.Pid();

    std::printf("\n== delay before sound: the server against waveOut called directly (%d bursts each)\n",
                trials);
    {
        CRecorder recorder;
        if (!recorder.Start(dir + "/onset.raw")) return Fail(recorder.Problem());
        const long long t0 = WallMicroseconds();
        const long long f0 = static_cast<long long>(recorder.FramesSoFar());
        std::vector<long long> direct, requested;
        for (int i = 0; i < trials; ++i) {
            std::vector<long long> d = Stamps(tools.Client({"direct", "burst.raw", "1", "900"}));
            std::vector<long long> s = Stamps(tools.Client({"server", "burst.wav", "1", "900"}));
            direct.insert(direct.end(), d.begin(), d.end());
            requested.insert(requested.end(), s.begin(), s.end());
        }
        SleepMs(500);
        recorder.Stop();
        std::vector<int16_t> rec = recorder.Samples();
        auto delays = [&](const std::vector<long long>& stamps) {
            std::vector<double> ms;
            for (long long stamp : stamps) {
                long long expected = f0 + (stamp - t0) * kRate / 1000000;
                long long onset = Onset(rec, expected - kRate / 4, expected + kRate * 3 / 4, 2000);
                if (onset >= 0) ms.push_back(1000.0 * static_cast<double>(onset - expected) / kRate);
            }
            return ms;
        };
        std::vector<double> d = delays(direct), s = delays(requested);
        std::printf("  waveOut directly: %zu of %zu bursts found, median %.1f ms (min %.1f, max %.1f)\n",
                    d.size(), direct.size(), Median(d), d.empty() ? NAN : *std::min_element(d.begin(), d.end()),
                    d.empty() ? NAN : *std::max_element(d.begin(), d.end()));
        std::printf("  through the server: %zu of %zu bursts found, median %.1f ms (min %.1f, max %.1f)\n",
                    s.size(), requested.size(), Median(s),
                    s.empty() ? NAN : *std::min_element(s.begin(), s.end()),
                    s.empty() ? NAN : *std::max_element(s.begin(), s.end()));
        std::printf("  the server's extra delay: %.1f ms (medians; both include the same recording lag)\n",
                    Median(s) - Median(d));
    }

    std::printf("\n== what a play costs (8 looping plays of no client window, the server process)\n");
    {
        SleepMs(1000);
        Snapshot idle = Take(tools, pid);
        double cpu0 = ProcCpuMs(pid);
        SleepMs(5000);
        double idleCpuPerSecond = (ProcCpuMs(pid) - cpu0) / 5.0;
        PrintSnapshot("idle", idle);
        std::printf("  idle CPU: %.2f ms per second\n", idleCpuPerSecond);
        const int kLoops = 8;
        for (const char* type : {"wav", "mp3"}) {
            std::vector<std::string> args = {"send", "11"};  // loop, never silenced
            for (int i = 0; i < kLoops; ++i) {
                args.push_back(std::string(type) == "wav" ? "tone" + std::to_string(i) + ".wav" : "second.mp3");
            }
            if (tools.Client(args).empty()) return Fail("the loops were not taken");
            SleepMs(2000);
            Snapshot busy = Take(tools, pid);
            double cpu1 = ProcCpuMs(pid);
            SleepMs(5000);
            double cpuPerSecond = (ProcCpuMs(pid) - cpu1) / 5.0;
            tools.Client({"send", "18"});  // stop every play of no client window
            SleepMs(2000);
            Snapshot after = Take(tools, pid);
            char title[64];
            std::snprintf(title, sizeof title, "%d %s loops", kLoops, type);
            PrintSnapshot(title, busy);
            PrintSnapshot("  stopped again", after);
            std::printf("  per %s play: VmRSS %.0f KiB, VmData %.0f KiB, private %s KiB, "
                        "%.1f ms CPU per second of sound, %.1f threads\n",
                        type, static_cast<double>(busy.vmRssKb - idle.vmRssKb) / kLoops,
                        static_cast<double>(busy.vmDataKb - idle.vmDataKb) / kLoops,
                        idle.privateBytes > 0
                            ? OrUnknown((busy.privateBytes - idle.privateBytes) / 1024.0 / kLoops, "%.0f").c_str()
                            : "n/a",
                        (cpuPerSecond - idleCpuPerSecond) / kLoops,
                        static_cast<double>(busy.threads - idle.threads) / kLoops);
        }
    }

    std::printf("\n== concurrent looping plays, one tone each: 50 ms windows of 4 s missing a tone\n");
    {
        CRecorder recorder;
        if (!recorder.Start(dir + "/concurrent.raw")) return Fail(recorder.Problem());
        struct Step {
            int count;
            size_t from, to;
            std::vector<bool> refused;  // the plays the server refused (logged), by tone
            int timeouts;               // waits for a device that timed out (logged): a stall
        };
        std::vector<Step> steps;
        for (int count : {4, 8, 16, 24, 32, 48, 64, 80}) {
            if (count > maxPlays) break;
            const size_t logged = ServerLogMessages(dir).size();
            std::vector<std::string> args = {"send", "11"};
            for (int i = 0; i < count; ++i) args.push_back("tone" + std::to_string(i) + ".wav");
            if (tools.Client(args).empty()) return Fail("the loops were not taken");
            SleepMs(1500);
            size_t from = recorder.FramesSoFar();
            SleepMs(4000);
            Step step = {count, from, recorder.FramesSoFar(), std::vector<bool>(count, false), 0};
            tools.Client({"send", "18"});
            SleepMs(1000);
            const std::vector<std::string> messages = ServerLogMessages(dir);
            for (size_t m = logged; m < messages.size(); ++m) {
                if (messages[m].find("timed out") != std::string::npos) ++step.timeouts;
                for (int i = 0; i < count; ++i) {
                    const std::string name = "file(tone" + std::to_string(i) + ".wav),";
                    if (messages[m].find(name) != std::string::npos) step.refused[i] = true;
                }
            }
            steps.push_back(step);
        }
        recorder.Stop();
        std::vector<int16_t> rec = recorder.Samples();
        const size_t window = kRate / 20;
        int held = 0;
        for (const Step& step : steps) {
            // Heard: the tone is there over the whole 4 s. The session's sound server mixes at
            // most 32 streams into its sink (PulseAudio's MAX_MIX_CHANNELS), so beyond that the
            // other plays run unheard. An underrun: a 50 ms window missing a tone that is heard.
            const size_t to = std::min(step.to, rec.size() / 2);
            std::vector<bool> heard(step.count, false);
            for (int i = 0; i < step.count; ++i) {
                heard[i] = Level(rec, step.from, to, toneOf(i)) >= 0.5 * kToneAmplitude;
            }
            int windows = 0, missing = 0;
            for (size_t at = step.from; at + window <= to; at += window) {
                ++windows;
                for (int i = 0; i < step.count; ++i) {
                    if (heard[i] && Level(rec, at, at + window, toneOf(i)) < 0.5 * kToneAmplitude) {
                        ++missing;
                        break;
                    }
                }
            }
            const int refused = static_cast<int>(std::count(step.refused.begin(), step.refused.end(), true));
            const int heardCount = static_cast<int>(std::count(heard.begin(), heard.end(), true));
            std::printf("  %2d plays asked: %2d refused (logged), %2d heard; %d of %d windows miss a heard "
                        "tone; %d device waits timed out\n",
                        step.count, refused, heardCount, missing, windows, step.timeouts);
            if (missing == 0 && windows > 0 && heardCount == step.count) held = step.count;
        }
        std::printf("  held without an underrun: %d plays (the largest count above with every play "
                    "heard and no window missing a tone)\n", held);
    }

    tools.Client({"close"});
    if (!server.Wait(15000)) server.Kill();
    std::string log;
    ReadFile(dir + "/quorbel.log", &log);
    std::printf("\nthe server's log (%s/quorbel.log): %zu bytes\n%s", dir.c_str(), log.size(), log.c_str());
    return 0;
}
