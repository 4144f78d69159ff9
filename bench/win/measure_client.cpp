// The Windows side of the server measurements (run by measure_server on the host).
//
//   measure_client direct RAW COUNT GAP_MS   plays RAW (s16le, 44.1 kHz stereo) COUNT times
//                                            through waveOut itself, as a program that needs
//                                            no server would
//   measure_client server FILE COUNT GAP_MS  asks the running server to play FILE COUNT times
//   measure_client send FLAGS NAME...        one request (flags in hex) of no client window
//   measure_client counts                    the server's private bytes, handles and threads
//   measure_client close                     asks the server to close
//
// direct and server print one line per play, "stamp MICROSECONDS", the wall clock (Unix
// epoch, the host's clock under Wine) taken right before waveOutOpen or right before the
// request, so that the host can set each against the sound's onset in its recording.

#include <windows.h>
#include <mmsystem.h>
#include <psapi.h>
#include <tlhelp32.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "client/QuorbelClient.h"

namespace {

long long NowMicroseconds() {
    FILETIME ft;
    GetSystemTimePreciseAsFileTime(&ft);
    ULARGE_INTEGER t;
    t.LowPart = ft.dwLowDateTime;
    t.HighPart = ft.dwHighDateTime;
    const unsigned long long kUnixEpoch = 116444736000000000ULL;  // 1970 in 100 ns since 1601
    return static_cast<long long>((t.QuadPart - kUnixEpoch) / 10);
}

void PrintStamp(long long stamp) {
    std::printf("stamp %lld\n", stamp);
    std::fflush(stdout);
}

// One play through waveOut, the whole sound in one buffer; the device is opened for it and
// closed after it, as the server does for each play. false when the device refused.
bool PlayOnce(std::vector<char>& pcm, long long* stamp) {
    WAVEFORMATEX format = {};
    format.wFormatTag = WAVE_FORMAT_PCM;
    format.nChannels = 2;
    format.nSamplesPerSec = 44100;
    format.wBitsPerSample = 16;
    format.nBlockAlign = 4;
    format.nAvgBytesPerSec = 44100 * 4;
    HANDLE done = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    if (done == nullptr) return false;
    HWAVEOUT device = nullptr;
    *stamp = NowMicroseconds();
    MMRESULT result = waveOutOpen(&device, WAVE_MAPPER, &format, reinterpret_cast<DWORD_PTR>(done),
                                  0, CALLBACK_EVENT);
    if (result != MMSYSERR_NOERROR) {
        std::fprintf(stderr, "waveOutOpen() return(%d)\n", static_cast<int>(result));
        CloseHandle(done);
        return false;
    }
    WAVEHDR header = {};
    header.lpData = pcm.data();
    header.dwBufferLength = static_cast<DWORD>(pcm.size());
    bool ok = waveOutPrepareHeader(device, &header, sizeof header) == MMSYSERR_NOERROR &&
              waveOutWrite(device, &header, sizeof header) == MMSYSERR_NOERROR;
    if (ok) {
        for (int i = 0; i < 100 && !(header.dwFlags & WHDR_DONE); ++i)
            WaitForSingleObject(done, 100);
    } else {
        waveOutReset(device);
    }
    waveOutUnprepareHeader(device, &header, sizeof header);
    waveOutClose(device);
    CloseHandle(done);
    return ok;
}

int Direct(const char* path, int count, int gapMs) {
    FILE* fp = std::fopen(path, "rb");
    if (fp == nullptr) return 3;
    std::vector<char> pcm;
    char chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, fp)) > 0)
        pcm.insert(pcm.end(), chunk, chunk + n);
    std::fclose(fp);
    if (pcm.empty()) return 3;

    // The sound driver is loaded by the first open of a process; the server has long done that
    // when a request comes, so this program does it before its first measured play too.
    std::vector<char> silence(4410 * 4, 0);
    long long unused;
    if (!PlayOnce(silence, &unused)) return 4;
    Sleep(static_cast<DWORD>(gapMs));

    for (int i = 0; i < count; ++i) {
        long long stamp;
        if (!PlayOnce(pcm, &stamp)) return 4;
        PrintStamp(stamp);
        Sleep(static_cast<DWORD>(gapMs));
    }
    return 0;
}

int SendNames(unsigned flags, char** names, int count) {
    CQuorbelClient::CRequestBlock block(0);
    for (int i = 0; i < count; ++i) {
        if (!block.AddName(names[i])) return 2;
    }
    return CQuorbelClient::SendBlock(CQuorbelClient::FindServer(), block, flags) ? 0 : 5;
}

int Server(char* file, int count, int gapMs) {
    if (CQuorbelClient::FindServer() == nullptr) return 5;
    for (int i = 0; i < count; ++i) {
        long long stamp = NowMicroseconds();
        if (SendNames(REQ_IGNORE_FOREGROUND, &file, 1) != 0) return 5;
        PrintStamp(stamp);
        Sleep(static_cast<DWORD>(gapMs));
    }
    return 0;
}

int Counts() {
    HWND server = CQuorbelClient::FindServer();
    DWORD pid = 0;
    if (server == nullptr || GetWindowThreadProcessId(server, &pid) == 0) return 5;
    HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, pid);
    if (process == nullptr) return 6;
    PROCESS_MEMORY_COUNTERS_EX memory = {};
    memory.cb = sizeof memory;
    BOOL haveMemory = GetProcessMemoryInfo(
        process, reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&memory), sizeof memory);
    DWORD handles = 0;
    BOOL haveHandles = GetProcessHandleCount(process, &handles);
    CloseHandle(process);

    long threads = -1;
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot != INVALID_HANDLE_VALUE) {
        PROCESSENTRY32 entry = {};
        entry.dwSize = sizeof entry;
        for (BOOL more = Process32First(snapshot, &entry); more;
             more = Process32Next(snapshot, &entry)) {
            if (entry.th32ProcessID == pid) threads = static_cast<long>(entry.cntThreads);
        }
        CloseHandle(snapshot);
    }
    std::printf("private %lld\nworkingset %lld\nhandles %ld\nthreads %ld\n",
                haveMemory ? static_cast<long long>(memory.PrivateUsage) : -1LL,
                haveMemory ? static_cast<long long>(memory.WorkingSetSize) : -1LL,
                haveHandles ? static_cast<long>(handles) : -1L, threads);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 5 && std::strcmp(argv[1], "direct") == 0) {
        return Direct(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
    }
    if (argc >= 5 && std::strcmp(argv[1], "server") == 0) {
        return Server(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
    }
    if (argc >= 3 && std::strcmp(argv[1], "send") == 0) {
        return SendNames(static_cast<unsigned>(std::strtoul(argv[2], nullptr, 16)), argv + 3,
                         argc - 3);
    }
    if (argc == 2 && std::strcmp(argv[1], "counts") == 0) return Counts();
    if (argc == 2 && std::strcmp(argv[1], "close") == 0) {
        HWND server = CQuorbelClient::FindServer();
        return server != nullptr && PostMessageA(server, WM_CLOSE, 0, 0) ? 0 : 5;
    }
    std::fprintf(stderr,
                 "usage: measure_client direct RAW COUNT GAP_MS | server FILE COUNT GAP_MS |\n"
                 "       send FLAGS NAME... | counts | close\n");
    return 2;
}
