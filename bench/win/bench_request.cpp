// How long a request takes to become sound on its way: from the client's WM_COPYDATA to the
// first buffer the play queues on the device, for WAV and MP3 files.
//
//   bench_request WAV MP3 [PLAYS]
//
// The server's own frame and players run in this process, on the real sound device; a second
// thread is the client and sends its requests across threads as another process would (the
// message waits in the frame thread's queue like any other). The first waveOutWrite of each
// play is timed through the wave output's write hook. Each play is stopped once its first
// buffer is queued, and the next is sent when its play thread has ended, so plays never
// overlap. The first play of each type is reported apart: it makes the player (and for MP3 the
// decoder's tables).

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "app/MainFrame.h"
#include "client/QuorbelClient.h"
#include "player/pub/SoundFilePlayer.h"
#include "player/pub/WavOut.h"

namespace {

std::atomic<int> g_armed(0);
LARGE_INTEGER g_firstWrite;
HANDLE g_firstWriteEvent = nullptr;

MMRESULT WINAPI TimedWrite(HWAVEOUT hwo, LPWAVEHDR header, UINT size) {
    if (g_armed.exchange(0) != 0) {
        QueryPerformanceCounter(&g_firstWrite);
        SetEvent(g_firstWriteEvent);
    }
    return waveOutWrite(hwo, header, size);
}

double Ms(LONGLONG ticks) {
    static LARGE_INTEGER frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return f;
    }();
    return 1000.0 * static_cast<double>(ticks) / static_cast<double>(frequency.QuadPart);
}

// The frame under measurement, with its players in reach so the client can see a play end.
class MeasuredFrame : public CMainFrame {
public:
    long LivePlayThreads() const {
        long live = 0;
        for (int slot = 0; slot < CPlayerRegistry::kSlotCount; ++slot) {
            CSoundFilePlayer* player = m_players.PlayerAt(slot);
            if (player != nullptr) live += player->LivePlayThreads();
        }
        return live;
    }
};

struct Timings {
    std::vector<double> taken;   // SendMessage returned: the request is carried out
    std::vector<double> queued;  // the first buffer is on the device
    int lost = 0;                // plays that queued nothing within the bound
};

struct Job {
    MeasuredFrame* frame;
    HWND hFrame;
    const char* wav;
    const char* mp3;
    int plays;
    DWORD mainThread;
    Timings results[2];
};

int Send(HWND hFrame, const char* name, unsigned flags) {
    CQuorbelClient::CRequestBlock block(0);
    if (!block.AddName(name)) return 0;
    return CQuorbelClient::SendBlock(hFrame, block, flags | REQ_IGNORE_FOREGROUND);
}

bool WaitForNoPlay(const MeasuredFrame* frame) {
    for (int i = 0; i < 500; ++i) {
        if (frame->LivePlayThreads() == 0) return true;
        Sleep(2);
    }
    return false;
}

DWORD WINAPI ClientThread(LPVOID param) {
    Job* job = static_cast<Job*>(param);
    const char* names[2] = {job->wav, job->mp3};
    for (int type = 0; type < 2; ++type) {
        Timings& t = job->results[type];
        for (int i = 0; i < job->plays; ++i) {
            ResetEvent(g_firstWriteEvent);
            g_armed.store(1);
            LARGE_INTEGER start, taken;
            QueryPerformanceCounter(&start);
            int sent = Send(job->hFrame, names[type], 0);
            QueryPerformanceCounter(&taken);
            bool queued = sent && WaitForSingleObject(g_firstWriteEvent, 5000) == WAIT_OBJECT_0;
            g_armed.store(0);
            if (queued) {
                t.taken.push_back(Ms(taken.QuadPart - start.QuadPart));
                t.queued.push_back(Ms(g_firstWrite.QuadPart - start.QuadPart));
            } else {
                ++t.lost;
            }
            Send(job->hFrame, names[type], REQ_STOP);
            if (!WaitForNoPlay(job->frame)) {
                std::fprintf(stderr, "a play did not end within 1 s of its stop\n");
                break;
            }
        }
    }
    PostThreadMessageA(job->mainThread, WM_QUIT, 0, 0);
    return 0;
}

void Report(const char* type, const Timings& t) {
    if (t.queued.empty()) {
        std::printf("%s: no play queued a buffer (%d lost)\n", type, t.lost);
        return;
    }
    std::vector<double> warm(t.queued.begin() + 1, t.queued.end());
    std::vector<double> taken(t.taken.begin() + 1, t.taken.end());
    std::sort(warm.begin(), warm.end());
    std::sort(taken.begin(), taken.end());
    std::printf("%s: first play %.2f ms to its first buffer", type, t.queued.front());
    if (!warm.empty()) {
        std::printf("; then over %zu plays: request carried out %.2f ms (median), first buffer "
                    "queued %.2f ms median, %.2f ms 90th percentile, %.2f min, %.2f max",
                    warm.size(), taken[taken.size() / 2], warm[warm.size() / 2],
                    warm[warm.size() * 9 / 10], warm.front(), warm.back());
    }
    std::printf("; %d without a buffer within 5 s\n", t.lost);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: bench_request WAV MP3 [PLAYS]\n");
        return 2;
    }
    Job job = {};
    job.wav = argv[1];
    job.mp3 = argv[2];
    job.plays = argc > 3 ? std::max(2, std::atoi(argv[3])) : 50;
    job.mainThread = GetCurrentThreadId();

    g_firstWriteEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    CWavOut::hooks.pfnWrite = &TimedWrite;

    MeasuredFrame* frame = new MeasuredFrame;
    RECT rect = {0, 0, 0, 0};
    // Not the server's title, so a server running beside it is never confused with it.
    if (!frame->Create(nullptr, "Quorbel latency benchmark", WS_CLIPCHILDREN, rect)) {
        std::fprintf(stderr, "the frame could not be made\n");
        return 1;
    }
    job.frame = frame;
    job.hFrame = frame->GetSafeHwnd();

    HANDLE client = CreateThread(nullptr, 0, &ClientThread, &job, 0, nullptr);
    MSG msg;
    while (GetMessageA(&msg, nullptr, 0, 0) > 0) {
        TranslateMessage(&msg);
        DispatchMessageA(&msg);
    }
    WaitForSingleObject(client, INFINITE);
    CloseHandle(client);

    Report("WAV", job.results[0]);
    Report("MP3", job.results[1]);
    DestroyWindow(job.hFrame);  // the frame deletes itself and waits for its plays
    CloseHandle(g_firstWriteEvent);
    return job.results[0].queued.empty() || job.results[1].queued.empty() ? 1 : 0;
}
