// How many waveOut devices one process can hold open at once before the platform stops
// reporting finished buffers. Nothing of the server is in here: plain winmm, as any program
// would use it.
//
//   device_limit.exe N [ROUNDS]   opens N devices at once (44.1 kHz 16-bit stereo, 8 buffers of
//                                 4096 bytes, function callback, one writer thread each), lets
//                                 every device play 1 s of quiet noise, waits for every buffer
//                                 to come back, then closes them all; ROUNDS times (default 3).
//   device_limit.exe --peak N     opens N devices at once and closes them again without playing,
//                                 then plays on one single device: shows whether a moment at N
//                                 open devices has harmed the process for good.
//
// One line per round on standard output. Exit status 0 when every buffer came back, 1 when the
// done notifications stopped (the process then ends itself: closing a device would hang), 2 on
// bad arguments or a refused open.

#include <windows.h>
#include <mmsystem.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

const int kBuffers = 8;
const DWORD kBufferBytes = 4096;
const int kSampleRate = 44100;
const DWORD kBytesPerSecond = kSampleRate * 4;
// Long enough for a ring (186 ms) many times over on a loaded machine.
const DWORD kStallMs = 5000;

struct Device {
    HWAVEOUT handle = nullptr;
    WAVEHDR headers[kBuffers] = {};
    std::vector<char> blocks[kBuffers];
    volatile LONG queued = 0;
    volatile LONG done = 0;
    HANDLE writer = nullptr;
    DWORD bytesToPlay = 0;
    int failedWrite = 0;
};

void CALLBACK DoneProc(HWAVEOUT, UINT msg, DWORD_PTR instance, DWORD_PTR, DWORD_PTR) {
    if (msg != WOM_DONE) return;
    Device* device = reinterpret_cast<Device*>(instance);
    InterlockedIncrement(&device->done);
    InterlockedDecrement(&device->queued);
}

int Open(Device& device) {
    WAVEFORMATEX format = {};
    format.wFormatTag = WAVE_FORMAT_PCM;
    format.nChannels = 2;
    format.nSamplesPerSec = kSampleRate;
    format.wBitsPerSample = 16;
    format.nBlockAlign = 4;
    format.nAvgBytesPerSec = kBytesPerSecond;
    MMRESULT result =
        waveOutOpen(&device.handle, WAVE_MAPPER, &format, reinterpret_cast<DWORD_PTR>(&DoneProc),
                    reinterpret_cast<DWORD_PTR>(&device), CALLBACK_FUNCTION);
    if (result != MMSYSERR_NOERROR) {
        std::printf("waveOutOpen() returned %u\n", result);
        device.handle = nullptr;
        return 0;
    }
    for (int i = 0; i < kBuffers; ++i) {
        device.blocks[i].assign(kBufferBytes, 0);
        // Quiet noise, so that a listener hears every device play.
        for (DWORD j = 0; j + 1 < kBufferBytes; j += 2) {
            short sample = static_cast<short>((std::rand() % 201) - 100);
            std::memcpy(&device.blocks[i][j], &sample, 2);
        }
        device.headers[i].lpData = device.blocks[i].data();
        device.headers[i].dwBufferLength = kBufferBytes;
        waveOutPrepareHeader(device.handle, &device.headers[i], sizeof(WAVEHDR));
    }
    return 1;
}

// Queues the device's bytes buffer by buffer in ring order, waiting while the next buffer is
// still queued.
DWORD WINAPI Writer(LPVOID param) {
    Device& device = *static_cast<Device*>(param);
    DWORD written = 0;
    for (int next = 0; written < device.bytesToPlay; next = (next + 1) % kBuffers) {
        WAVEHDR& header = device.headers[next];
        DWORD waited = 0;
        while ((header.dwFlags & WHDR_INQUEUE) != 0 && waited < kStallMs) {
            Sleep(10);
            waited += 10;
        }
        if ((header.dwFlags & WHDR_INQUEUE) != 0) return 0;  // stalled: the main thread sees it
        InterlockedIncrement(&device.queued);
        if (waveOutWrite(device.handle, &header, sizeof(WAVEHDR)) != MMSYSERR_NOERROR) {
            InterlockedDecrement(&device.queued);
            device.failedWrite = 1;
            return 0;
        }
        written += kBufferBytes;
    }
    return 0;
}

// Plays bytesEach on every device at once; the number of devices whose buffers stopped coming
// back.
int PlayAll(std::vector<Device>& devices, DWORD bytesEach) {
    for (Device& device : devices) {
        device.bytesToPlay = bytesEach;
        device.done = 0;
        device.writer = CreateThread(nullptr, 0, &Writer, &device, 0, nullptr);
    }
    for (Device& device : devices) {
        WaitForSingleObject(device.writer, INFINITE);
        CloseHandle(device.writer);
        device.writer = nullptr;
    }
    // Every queued buffer must come back; one that does not within kStallMs never will.
    DWORD start = GetTickCount();
    for (;;) {
        int waiting = 0;
        for (Device& device : devices) {
            if (device.queued > 0) ++waiting;
        }
        if (waiting == 0) return 0;
        if (GetTickCount() - start > kStallMs) return waiting;
        Sleep(20);
    }
}

void CloseAll(std::vector<Device>& devices) {
    for (Device& device : devices) {
        waveOutReset(device.handle);
        for (int i = 0; i < kBuffers; ++i) {
            waveOutUnprepareHeader(device.handle, &device.headers[i], sizeof(WAVEHDR));
        }
        waveOutClose(device.handle);
        device.handle = nullptr;
    }
}

DWORD WINAPI CloseOne(LPVOID param) {
    waveOutClose(static_cast<Device*>(param)->handle);
    return 0;
}

// After a stall: does closing a device still return? The process ends either way, without
// the platform's own clean-up, which would hang as well.
void ReportCloseAndEnd(Device& device) {
    waveOutReset(device.handle);
    HANDLE closer = CreateThread(nullptr, 0, &CloseOne, &device, 0, nullptr);
    DWORD waited = WaitForSingleObject(closer, 3000);
    std::printf("  waveOutClose of a stalled device %s\n",
                waited == WAIT_OBJECT_0 ? "returned" : "did not return within 3 s");
    std::fflush(stdout);
    TerminateProcess(GetCurrentProcess(), 1);
}

int OpenAll(std::vector<Device>& devices) {
    for (size_t i = 0; i < devices.size(); ++i) {
        if (!Open(devices[i])) {
            std::printf("  open of device %u refused\n", static_cast<unsigned>(i + 1));
            return 0;
        }
    }
    return 1;
}

int Rounds(int count, int rounds) {
    for (int round = 1; round <= rounds; ++round) {
        std::vector<Device> devices(static_cast<size_t>(count));
        if (!OpenAll(devices)) return 2;
        DWORD start = GetTickCount();
        int stalled = PlayAll(devices, kBytesPerSecond);
        if (stalled > 0) {
            std::printf("%d devices, round %d: WOM_DONE stopped on %d of %d devices\n", count,
                        round, stalled, count);
            ReportCloseAndEnd(devices[0]);
        }
        DWORD played = GetTickCount() - start;
        DWORD closeStart = GetTickCount();
        CloseAll(devices);
        std::printf(
            "%d devices, round %d: every buffer came back (1 s each, played in %lu ms), "
            "closed in %lu ms\n",
            count, round, static_cast<unsigned long>(played),
            static_cast<unsigned long>(GetTickCount() - closeStart));
        std::fflush(stdout);
    }
    return 0;
}

int Peak(int count) {
    {
        std::vector<Device> idle(static_cast<size_t>(count));
        if (!OpenAll(idle)) return 2;
        std::printf("%d devices open at once, none played\n", count);
        std::fflush(stdout);
        HANDLE closer = CreateThread(
            nullptr, 0,
            [](LPVOID p) -> DWORD {
                CloseAll(*static_cast<std::vector<Device>*>(p));
                return 0;
            },
            &idle, 0, nullptr);
        if (WaitForSingleObject(closer, kStallMs) != WAIT_OBJECT_0) {
            std::printf("  closing them did not return within %lu ms\n",
                        static_cast<unsigned long>(kStallMs));
            std::fflush(stdout);
            TerminateProcess(GetCurrentProcess(), 1);
        }
        CloseHandle(closer);
    }
    std::vector<Device> one(1);
    if (!OpenAll(one)) return 2;
    if (PlayAll(one, kBytesPerSecond) > 0) {
        std::printf("  then one device alone: WOM_DONE never came\n");
        ReportCloseAndEnd(one[0]);
    }
    CloseAll(one);
    std::printf("  then one device alone: played, every buffer came back\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IONBF, 0);
    if (argc >= 3 && std::strcmp(argv[1], "--peak") == 0) {
        int count = std::atoi(argv[2]);
        return count > 0 ? Peak(count) : 2;
    }
    if (argc < 2) {
        std::fprintf(stderr, "usage: device_limit N [ROUNDS] | device_limit --peak N\n");
        return 2;
    }
    int count = std::atoi(argv[1]);
    int rounds = argc >= 3 ? std::atoi(argv[2]) : 3;
    if (count < 1 || rounds < 1) return 2;
    return Rounds(count, rounds);
}
