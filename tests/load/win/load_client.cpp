// A client of the server for the load test: fires a seeded mix of requests at full speed from a
// top-level window of its own, and the few small jobs the load test needs around that.
//
//   load_client run SEED COUNT [doomed]
//       COUNT requests of the mix below, each a synchronous SendMessage round trip, then a pause
//       for plays still opening, a stop-client, the window destroyed and the end. A doomed
//       client sends its mix until it is killed: after COUNT/2 requests it sends no more loops
//       and no stops (its loops are left for the server's sweep to end once it is killed) and
//       prints "tail" once its last loop request is 800 ms old, so that every loop it asked for
//       has joined the server's list before the host kills it.
//   load_client keeper SECONDS
//       a window named as a client by one empty request, so that the server stays up while the
//       load clients come and go; ends after SECONDS.
//   load_client play NAME SECONDS
//       a fresh client: plays NAME once, never silenced, and keeps its window for SECONDS so
//       that the sweep does not cut the play.
//   load_client count
//       the server's process as Windows sees it: "pid P handles H syshandles S threads T types
//       K:N...", -1 for what could not be read; the types are the object type numbers of the
//       system's handle list with the server's handles of each.
//   load_client close
//       posts WM_CLOSE to the server; prints 1 when there was one.
//
// The mix (each request's kind drawn from the seed):
//   play once of a short tone (WAV or MP3), sometimes never silenced;
//   play of a missing file, a broken WAV or a broken MP3 of this client (two log entries each);
//   a play of several names at once, loops excepted;
//   loop of one of the loop tones, mostly never silenced;
//   stop of a loop tone by name, stop of every other file, stop of everything of this client;
//   this client's window brought to the front.
// Output, flushed line by line: "window 0x...", "progress N" every 25 requests, "tail", and at
// the end "refused NAME N" for every failing name with the plays of it the server took, then
// "done sent=N taken=N loops=N stops=N fronts=N".

#include <windows.h>
#include <tlhelp32.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "client/QuorbelClient.h"

namespace {

const int kLoopTones = 4;
const int kOnceTones = 3;
const int kRefusedKinds = 3;  // gone-C-K.wav, bad-C.wav, bad-C.mp3
const DWORD kLoopSettleMs = 800;

class CRandom {
public:
    explicit CRandom(uint32_t seed) : m_state(seed != 0 ? seed : 0x9E3779B9u) {}
    uint32_t Next() {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 17;
        m_state ^= m_state << 5;
        return m_state;
    }
    int Below(int n) { return static_cast<int>(Next() % static_cast<uint32_t>(n)); }

private:
    uint32_t m_state;
};

void Pump() {
    MSG msg;
    while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&msg);
        DispatchMessageA(&msg);
    }
}

void PumpFor(DWORD ms) {
    DWORD start = GetTickCount();
    while (GetTickCount() - start < ms) {
        MsgWaitForMultipleObjects(0, nullptr, FALSE, 20, QS_ALLINPUT);
        Pump();
    }
}

HWND MakeWindow() {
    WNDCLASSA wc = {};
    wc.lpfnWndProc = DefWindowProcA;
    wc.hInstance = GetModuleHandleA(nullptr);
    wc.lpszClassName = "QuorbelLoadClient";
    RegisterClassA(&wc);
    return CreateWindowExA(0, wc.lpszClassName, "quorbel load client", WS_OVERLAPPEDWINDOW, 20, 20,
                           160, 90, nullptr, nullptr, wc.hInstance, nullptr);
}

void Say(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    fflush(stdout);
}

std::string Format(const char* format, int a, int b = 0) {
    char text[64];
    snprintf(text, sizeof text, format, a, b);
    return text;
}

class CLoadRun {
public:
    CLoadRun(HWND hWnd, uint32_t seed, int count, bool doomed)
        : m_hWnd(hWnd), m_random(seed), m_count(count), m_doomed(doomed), m_id(static_cast<int>(seed)) {}

    int Run() {
        DWORD lastLoop = GetTickCount();
        bool toldTail = false;
        // A doomed client goes on until it is killed; the bound only keeps a lost one finite.
        const int limit = m_doomed ? 40 * m_count + 2000 : m_count;
        for (int n = 0; n < limit; ++n) {
            const bool tail = m_doomed && n >= m_count / 2;
            if (tail && !toldTail && GetTickCount() - lastLoop >= kLoopSettleMs) {
                Say("tail\n");
                toldTail = true;
            }
            if (One(tail)) lastLoop = GetTickCount();
            Pump();
            if ((n + 1) % 25 == 0) Say("progress %d\n", n + 1);
        }
        if (m_doomed) {
            // Not killed after all: keep the window up for the host to find it so.
            if (!toldTail) Say("tail\n");
            PumpFor(300000);
            return 4;
        }
        // A play still opening is not reached by a stop: let every one join first.
        PumpFor(1000);
        Send(REQ_STOP_CLIENT, {});
        for (const auto& refused : m_refused) Say("refused %s %d\n", refused.first.c_str(), refused.second);
        Say("done sent=%d taken=%d loops=%d stops=%d fronts=%d\n", m_sent, m_taken, m_loops, m_stops,
            m_fronts);
        return m_taken == m_sent ? 0 : 2;
    }

private:
    std::string LoopTone(int k) const { return Format("loop%d.wav", k); }
    std::string Refused(int kind) {
        switch (kind) {
            case 0: return Format("gone-%d-%d.wav", m_id, m_random.Below(3));
            case 1: return Format("bad-%d.wav", m_id);
            default: return Format("bad-%d.mp3", m_id);
        }
    }
    std::string OnceTone() {
        int k = m_random.Below(kOnceTones + 1);
        return k < kOnceTones ? Format("once%d.wav", k) : std::string("once.mp3");
    }

    // One request of the mix; true when it was a loop.
    bool One(bool tail) {
        int r = m_random.Below(100);
        if (tail && r >= 50 && r < 86) r = m_random.Below(50);  // no loops and no stops
        if (r < 14) {
            Send(m_random.Below(2) ? static_cast<unsigned>(REQ_IGNORE_FOREGROUND) : 0u, {OnceTone()});
        } else if (r < 38) {
            PlayRefused({Refused(m_random.Below(kRefusedKinds))});
        } else if (r < 50) {
            std::vector<std::string> names;
            int k = 2 + m_random.Below(3);
            for (int i = 0; i < k; ++i) {
                names.push_back(m_random.Below(3) == 0 ? OnceTone() : Refused(m_random.Below(kRefusedKinds)));
            }
            PlayRefused(names);
        } else if (r < 56) {
            unsigned flags = REQ_LOOP | (m_random.Below(10) < 7 ? static_cast<unsigned>(REQ_IGNORE_FOREGROUND) : 0u);
            Send(flags, {LoopTone(m_random.Below(kLoopTones))});
            ++m_loops;
            return true;
        } else if (r < 74) {
            Send(REQ_STOP, {LoopTone(m_random.Below(kLoopTones))});
            ++m_stops;
        } else if (r < 80) {
            Send(REQ_STOP | REQ_STOP_OTHERS, {LoopTone(m_random.Below(kLoopTones))});
            ++m_stops;
        } else if (r < 86) {
            Send(REQ_STOP_CLIENT, {});
            ++m_stops;
        } else if (r < 92) {
            ShowWindow(m_hWnd, SW_SHOW);
            SetForegroundWindow(m_hWnd);
            ++m_fronts;
        } else {
            // A stop of a file this client never plays: a walk of the lists and nothing more.
            Send(REQ_STOP, {Format("never-%d.wav", m_id)});
        }
        return false;
    }

    // Plays names some of which the server refuses; counts the refused ones it took.
    void PlayRefused(const std::vector<std::string>& names) {
        unsigned flags = m_random.Below(2) ? static_cast<unsigned>(REQ_IGNORE_FOREGROUND) : 0u;
        if (!Send(flags, names)) return;
        for (const std::string& name : names) {
            if (name.compare(0, 5, "gone-") == 0 || name.compare(0, 4, "bad-") == 0) ++m_refused[name];
        }
    }

    bool Send(unsigned flags, const std::vector<std::string>& names) {
        CQuorbelClient::CRequestBlock block(HandleToLong(m_hWnd));
        for (const std::string& name : names) block.AddName(name.c_str());
        ++m_sent;
        bool taken = CQuorbelClient::SendBlock(CQuorbelClient::FindServer(), block, flags) != 0;
        m_taken += taken ? 1 : 0;
        return taken;
    }

    HWND m_hWnd;
    CRandom m_random;
    int m_count;
    bool m_doomed;
    int m_id;  // names of this client's refused files
    int m_sent = 0, m_taken = 0, m_loops = 0, m_stops = 0, m_fronts = 0;
    std::map<std::string, int> m_refused;
};

// Handles of the process by SystemHandleInformation, found without importing ntdll.
struct SystemHandleEntry {
    ULONG ownerPid;
    BYTE objectType;
    BYTE flags;
    USHORT value;
    PVOID object;
    ULONG access;
};
struct SystemHandleInfo {
    ULONG count;
    SystemHandleEntry entries[1];
};
typedef LONG(WINAPI* QuerySystemInformationFn)(ULONG, PVOID, ULONG, PULONG);

long SystemHandleCount(DWORD pid, std::string* types) {
    HMODULE ntdll = GetModuleHandleA("ntdll.dll");
    if (ntdll == nullptr) return -1;
    auto query = reinterpret_cast<QuerySystemInformationFn>(
        reinterpret_cast<void*>(GetProcAddress(ntdll, "NtQuerySystemInformation")));
    if (query == nullptr) return -1;
    ULONG size = 1 << 16;
    for (int attempt = 0; attempt < 12; ++attempt, size *= 2) {
        std::vector<char> buffer(size);
        ULONG needed = 0;
        LONG status = query(16 /* SystemHandleInformation */, buffer.data(), size, &needed);
        if (status == static_cast<LONG>(0xC0000004)) continue;  // length mismatch: grow
        if (status != 0) return -1;
        const SystemHandleInfo* info = reinterpret_cast<const SystemHandleInfo*>(buffer.data());
        const size_t room = (size - offsetof(SystemHandleInfo, entries)) / sizeof(SystemHandleEntry);
        if (info->count > room) return -1;
        long count = 0;
        std::map<int, int> byType;
        for (ULONG i = 0; i < info->count; ++i) {
            if (info->entries[i].ownerPid != pid) continue;
            ++count;
            ++byType[info->entries[i].objectType];
        }
        for (const auto& type : byType) *types += Format(" %d:%d", type.first, type.second);
        return count;
    }
    return -1;
}

long ThreadCount(DWORD pid) {
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snapshot == INVALID_HANDLE_VALUE) return -1;
    THREADENTRY32 entry;
    entry.dwSize = sizeof entry;
    long count = 0;
    for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
        count += entry.th32OwnerProcessID == pid ? 1 : 0;
    }
    CloseHandle(snapshot);
    return count;
}

// The type numbers of the system handle list for a few kinds, from handles of this process.
std::string TypeNames(QuerySystemInformationFn query) {
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    HANDLE mutex = CreateMutexA(nullptr, FALSE, nullptr);
    char self[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, self, MAX_PATH);
    HANDLE file = CreateFileA(self, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    HANDLE section = CreateFileMappingA(file, nullptr, PAGE_READONLY, 0, 0, nullptr);
    const HANDLE mine[4] = {event, mutex, file, section};
    const char* kind[4] = {"event", "mutex", "file", "section"};
    std::string text;
    std::vector<char> buffer(1 << 22);
    ULONG needed = 0;
    if (query(16, buffer.data(), static_cast<ULONG>(buffer.size()), &needed) == 0) {
        const SystemHandleInfo* info = reinterpret_cast<const SystemHandleInfo*>(buffer.data());
        for (ULONG i = 0; i < info->count; ++i) {
            if (info->entries[i].ownerPid != GetCurrentProcessId()) continue;
            for (int k = 0; k < 4; ++k) {
                if (reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(info->entries[i].value)) == mine[k]) {
                    text += std::string(" ") + kind[k] + Format(":%d", info->entries[i].objectType);
                }
            }
        }
    }
    for (HANDLE h : mine) {
        if (h != nullptr && h != INVALID_HANDLE_VALUE) CloseHandle(h);
    }
    return text;
}

int Count() {
    HWND server = CQuorbelClient::FindServer();
    DWORD pid = 0;
    if (server == nullptr || GetWindowThreadProcessId(server, &pid) == 0 || pid == 0) {
        Say("no server\n");
        return 1;
    }
    long handles = -1;
    HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, pid);
    if (process != nullptr) {
        DWORD n = 0;
        if (GetProcessHandleCount(process, &n)) handles = static_cast<long>(n);
        CloseHandle(process);
    }
    std::string types;
    long sysHandles = SystemHandleCount(pid, &types);
    std::string names;
    if (HMODULE ntdll = GetModuleHandleA("ntdll.dll")) {
        auto query = reinterpret_cast<QuerySystemInformationFn>(
            reinterpret_cast<void*>(GetProcAddress(ntdll, "NtQuerySystemInformation")));
        if (query != nullptr) names = TypeNames(query);
    }
    Say("pid %lu handles %ld syshandles %ld threads %ld types%s (type numbers:%s)\n",
        static_cast<unsigned long>(pid), handles, sysHandles, ThreadCount(pid), types.c_str(), names.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "count") return Count();
    if (mode == "close") {
        HWND server = CQuorbelClient::FindServer();
        if (server != nullptr) PostMessageA(server, WM_CLOSE, 0, 0);
        Say("%d\n", server != nullptr ? 1 : 0);
        return 0;
    }

    HWND hWnd = MakeWindow();
    if (hWnd == nullptr) return 1;
    Say("window 0x%08X\n", static_cast<unsigned>(HandleToLong(hWnd)));
    int result = 1;
    if (mode == "run" && argc >= 4) {
        CLoadRun run(hWnd, static_cast<uint32_t>(strtoul(argv[2], nullptr, 10)), atoi(argv[3]),
                     argc >= 5 && strcmp(argv[4], "doomed") == 0);
        result = run.Run();
    } else if (mode == "keeper" && argc >= 3) {
        CQuorbelClient client(hWnd);
        int listed = client.Send(0, nullptr, 0);
        Say("listed %d\n", listed);
        PumpFor(static_cast<DWORD>(atoi(argv[2])) * 1000);
        result = listed ? 0 : 2;
    } else if (mode == "play" && argc >= 4) {
        CQuorbelClient client(hWnd);
        int played = client.Play(argv[2], REQ_IGNORE_FOREGROUND);
        Say("played %d\n", played);
        PumpFor(static_cast<DWORD>(atoi(argv[3])) * 1000);
        result = played ? 0 : 2;
    }
    DestroyWindow(hWnd);
    return result;
}
