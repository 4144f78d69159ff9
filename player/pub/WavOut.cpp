#include "player/pub/WavOut.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "player/pub/Log.h"

namespace {

const char kUnitPath[] = "player/pub/WavOut";

// How long one look at the queue waits in WaitForBuffers.
const DWORD kWaitStepMs = 50;
// Cap of the wait limit, for rings far larger than any play uses.
const uint64_t kMaxWaitLimitMs = 10 * 60 * 1000;

void* DefaultCalloc(size_t count, size_t size) { return std::calloc(count, size); }
void DefaultFree(void* block) { std::free(block); }

// The wave devices open in the process. A slot is taken just before waveOutOpen and freed once
// waveOutClose has returned, so the count never passes the platform's limit. A device's
// callback instance is its slot (plus one), not its CWavOut: a given-up device may outlive its
// CWavOut, and its late notifications must then reach nobody.
class CDeviceSlots {
public:
    CDeviceSlots() : m_nTaken(0) {
        InitializeCriticalSection(&m_cs);
        for (int32_t i = 0; i < CWavOut::kMaxOpenDevices; ++i) {
            m_owners[i] = nullptr;
            m_taken[i] = false;
        }
    }

    // The slot taken for owner, or -1 when every slot is taken.
    int32_t Take(CWavOut* owner) {
        EnterCriticalSection(&m_cs);
        int32_t slot = -1;
        for (int32_t i = 0; i < CWavOut::kMaxOpenDevices && slot < 0; ++i) {
            if (m_taken[i]) continue;
            m_taken[i] = true;
            m_owners[i] = owner;
            ++m_nTaken;
            slot = i;
        }
        LeaveCriticalSection(&m_cs);
        return slot;
    }
    // No notification reaches the owner after this returns; the slot stays taken.
    void Disown(int32_t slot) {
        EnterCriticalSection(&m_cs);
        m_owners[slot] = nullptr;
        LeaveCriticalSection(&m_cs);
    }
    void Free(int32_t slot) {
        EnterCriticalSection(&m_cs);
        m_owners[slot] = nullptr;
        m_taken[slot] = false;
        --m_nTaken;
        LeaveCriticalSection(&m_cs);
    }
    int32_t Taken() {
        EnterCriticalSection(&m_cs);
        int32_t taken = m_nTaken;
        LeaveCriticalSection(&m_cs);
        return taken;
    }
    // For the callback: the owner of a device's notifications, held until Leave so that it
    // cannot be disowned meanwhile; null (still to be left) when there is none.
    CWavOut* Enter(DWORD_PTR instance) {
        EnterCriticalSection(&m_cs);
        if (instance == 0 || instance > static_cast<DWORD_PTR>(CWavOut::kMaxOpenDevices)) {
            return nullptr;
        }
        return m_owners[instance - 1];
    }
    void Leave() { LeaveCriticalSection(&m_cs); }

private:
    CRITICAL_SECTION m_cs;
    CWavOut* m_owners[CWavOut::kMaxOpenDevices];
    bool m_taken[CWavOut::kMaxOpenDevices];
    int32_t m_nTaken;
};

// Never destroyed: play threads and the platform's callback thread may use it while the process
// ends.
CDeviceSlots& Slots() {
    static CDeviceSlots* slots = new CDeviceSlots;
    return *slots;
}

// Unprepares and frees the buffers of a device that has been reset, closes it and frees its
// slot. A buffer whose unprepare fails may still be the device's: it and the header array are
// left to it rather than freed under it.
void ReleaseDevice(HWAVEOUT handle, WAVEHDR* headers, int32_t count, int32_t slot) {
    if (headers != nullptr) {
        bool keepHeaders = false;
        for (int32_t i = 0; i < count; ++i) {
            WAVEHDR* header = &headers[i];
            if (header->lpData == nullptr) continue;
            if ((header->dwFlags & WHDR_PREPARED) != 0) {
                MMRESULT result = waveOutUnprepareHeader(handle, header, sizeof(WAVEHDR));
                if (result != MMSYSERR_NOERROR) {
                    g_logFile.Log("[%s:%d]waveOutUnprepareHeader() return(%d)", kUnitPath,
                                  __LINE__, static_cast<int>(result));
                    keepHeaders = true;
                    continue;
                }
            }
            CWavOut::hooks.pfnFree(header->lpData);
            header->lpData = nullptr;
        }
        if (!keepHeaders) CWavOut::hooks.pfnFree(headers);
    }
    MMRESULT result = waveOutClose(handle);
    if (result != MMSYSERR_NOERROR) {
        g_logFile.Log("[%s:%d]waveOutClose() return(%d)", kUnitPath, __LINE__,
                      static_cast<int>(result));
    }
    Slots().Free(slot);
}

void ResetDevice(HWAVEOUT handle) {
    MMRESULT result = waveOutReset(handle);
    if (result != MMSYSERR_NOERROR) {
        g_logFile.Log("[%s:%d]waveOutReset() return(%d)", kUnitPath, __LINE__,
                      static_cast<int>(result));
    }
}

// What a given-up device's closing thread takes over from its CWavOut.
struct GivenUpDevice {
    HWAVEOUT handle;
    WAVEHDR* headers;
    int32_t count;
    int32_t slot;
};

}  // namespace

int32_t CWavOut::OpenDevices() { return Slots().Taken(); }

WavOutHooks CWavOut::hooks = {&DefaultCalloc, &DefaultFree, &waveOutPrepareHeader, nullptr,
                              &waveOutWrite};

CWavOut::CWavOut()
    : nChannels(0),
      nSamplesPerSec(0),
      nBitsPerSample(0),
      nBufferCount(0),
      nBufferSize(0),
      hWaveOut(nullptr),
      pHeaders(nullptr),
      nNextBuffer(-1),
      dwSleepMs(0),
      bSilent(0),
      dwWaitLimitMs(0),
      nSlot(-1),
      nGivenUp(0),
      nCallbackFaults(0) {
    InitializeCriticalSection(&csLock);
}

CWavOut::~CWavOut() {
    Close();
    DeleteCriticalSection(&csLock);
}

int CWavOut::Open(WavOutParams& params) {
    // Opening over an open device would lose its handle and its buffers.
    Close();
    if (params.nBufferCount < 1) params.nBufferCount = 8;
    if (params.nBufferSize < 1) params.nBufferSize = 4096;
    nChannels = params.nChannels;
    nSamplesPerSec = params.nSamplesPerSec;
    nBitsPerSample = params.nBitsPerSample;
    nBufferCount = params.nBufferCount;
    nBufferSize = params.nBufferSize;

    if (!OpenDevice() || !PrepareBuffers()) {
        Close();
        return 0;
    }
    ResetQueue();
    return 1;
}

int CWavOut::OpenDevice() {
    WAVEFORMATEX format;
    std::memset(&format, 0, sizeof(format));
    format.wFormatTag = WAVE_FORMAT_PCM;
    format.nChannels = static_cast<WORD>(nChannels);
    format.nSamplesPerSec = static_cast<DWORD>(nSamplesPerSec);
    format.nBlockAlign = static_cast<WORD>((nBitsPerSample / 8) * nChannels);
    format.nAvgBytesPerSec = static_cast<DWORD>(format.nBlockAlign) * format.nSamplesPerSec;
    format.wBitsPerSample = static_cast<WORD>(nBitsPerSample);
    format.cbSize = 0;

    // Refused before the division below, and before a rate that would abort the process.
    if (format.nAvgBytesPerSec == 0 || nChannels < 1 || nSamplesPerSec < 1 ||
        nSamplesPerSec > kMaxSamplesPerSec) {
        g_logFile.Log("[%s:%d]invalid format(%d,%d,%d)", kUnitPath, __LINE__, nChannels,
                      nSamplesPerSec, nBitsPerSample);
        return 0;
    }

    // Half the ring's playing time: the writer looks again once about half of it has drained.
    dwSleepMs = (static_cast<uint32_t>(nBufferCount / 2) * static_cast<uint32_t>(nBufferSize) *
                 1000u) /
                format.nAvgBytesPerSec;
    uint64_t ringMs = static_cast<uint64_t>(nBufferCount) * static_cast<uint64_t>(nBufferSize) *
                      1000u / format.nAvgBytesPerSec;
    uint64_t limitMs = 3 * ringMs + 1000;
    dwWaitLimitMs = static_cast<uint32_t>(limitMs < kMaxWaitLimitMs ? limitMs : kMaxWaitLimitMs);

    // Counted from before the open: a device the platform is still opening counts too.
    nSlot = Slots().Take(this);
    if (nSlot < 0) {
        g_logFile.Log("[%s:%d]too many devices open(%d)", kUnitPath, __LINE__,
                      static_cast<int>(kMaxOpenDevices));
        return 0;
    }
    HWAVEOUT handle = nullptr;
    MMRESULT result = waveOutOpen(&handle, WAVE_MAPPER, &format,
                                  reinterpret_cast<DWORD_PTR>(&WaveOutProc),
                                  static_cast<DWORD_PTR>(nSlot) + 1, CALLBACK_FUNCTION);
    if (result != MMSYSERR_NOERROR) {
        g_logFile.Log("[%s:%d]waveOutOpen() return(%d)", kUnitPath, __LINE__,
                      static_cast<int>(result));
        return 0;
    }
    hWaveOut = handle;
    return 1;
}

int CWavOut::PrepareBuffers() {
    pHeaders = static_cast<WAVEHDR*>(
        hooks.pfnCalloc(static_cast<size_t>(nBufferCount), sizeof(WAVEHDR)));
    if (pHeaders == nullptr) {
        g_logFile.Log("[%s:%d]malloc header failed", kUnitPath, __LINE__);
        return 0;
    }
    for (int32_t i = 0; i < nBufferCount; ++i) {
        WAVEHDR* header = &pHeaders[i];
        header->lpData = static_cast<LPSTR>(hooks.pfnCalloc(static_cast<size_t>(nBufferSize), 1));
        if (header->lpData == nullptr) {
            g_logFile.Log("[%s:%d]malloc buffer failed", kUnitPath, __LINE__);
            return 0;
        }
        header->dwBufferLength = static_cast<DWORD>(nBufferSize);
        MMRESULT result = hooks.pfnPrepareHeader(hWaveOut, header, sizeof(WAVEHDR));
        if (result != MMSYSERR_NOERROR) {
            g_logFile.Log("[%s:%d]waveOutPrepareHeader() return(%d)", kUnitPath, __LINE__,
                          static_cast<int>(result));
            return 0;
        }
    }
    EnterCriticalSection(&csLock);
    nNextBuffer = 0;
    LeaveCriticalSection(&csLock);
    return 1;
}

int CWavOut::ResetQueue() {
    EnterCriticalSection(&csLock);
    if (nNextBuffer == -1) nNextBuffer = 0;
    LeaveCriticalSection(&csLock);
    return 1;
}

WAVEHDR* CWavOut::GetFreeBuffer() {
    bool waiting = false;
    ULONGLONG waitStart = 0;
    for (;;) {
        WAVEHDR* taken = nullptr;
        bool stopped = false;
        EnterCriticalSection(&csLock);
        if (nNextBuffer == -1) {
            stopped = true;
        } else {
            WAVEHDR* header = &pHeaders[nNextBuffer];
            if ((header->dwUser & kQueuedMark) == 0) {
                header->dwUser |= kQueuedMark;
                taken = header;
                if (++nNextBuffer >= nBufferCount) nNextBuffer = 0;
            }
        }
        LeaveCriticalSection(&csLock);
        if (stopped || taken != nullptr) return taken;

        // Only the buffer at nNextBuffer is ever taken, so the sound stays in order. A device
        // that stops reporting finished buffers must not hold the writer for ever.
        ULONGLONG now = GetTickCount64();
        if (!waiting) {
            waiting = true;
            waitStart = now;
        } else if (now - waitStart >= dwWaitLimitMs) {
            GiveUp(__LINE__, "wait for a free buffer timed out");
            return nullptr;
        }
        Sleep(dwSleepMs);
    }
}

int CWavOut::Write(const void* data, int32_t length) {
    if (hWaveOut == nullptr) return 0;
    if (length < 1) return 1;
    if (data == nullptr) {
        g_logFile.Log("[%s:%d]no data to write(%d)", kUnitPath, __LINE__, length);
        return 0;
    }
    const char* next = static_cast<const char*>(data);
    int32_t remaining = length;
    const int fill = (nBitsPerSample == 8) ? 0x80 : 0;  // silence of unsigned 8-bit PCM is 0x80
    while (remaining > 0) {
        WAVEHDR* header = GetFreeBuffer();
        if (header == nullptr) {
            ReportCallbackFaults();
            return 0;
        }
        int32_t n = remaining < nBufferSize ? remaining : nBufferSize;
        if (bSilent.load(std::memory_order_relaxed) != 0) {
            std::memset(header->lpData, fill, static_cast<size_t>(n));
        } else {
            std::memcpy(header->lpData, next, static_cast<size_t>(n));
        }
        header->dwBufferLength = static_cast<DWORD>(n);
        MMRESULT result = hooks.pfnWrite(hWaveOut, header, sizeof(WAVEHDR));
        if (result != MMSYSERR_NOERROR) {
            // The device will never report this buffer done: free it again and stop handing
            // out buffers, or the ring would stall on it and a looping play would spin.
            EnterCriticalSection(&csLock);
            header->dwUser &= ~kQueuedMark;
            nNextBuffer = -1;
            LeaveCriticalSection(&csLock);
            g_logFile.Log("[%s:%d]waveOutWrite() return(%d)", kUnitPath, __LINE__,
                          static_cast<int>(result));
            return 0;
        }
        remaining -= n;
        next += n;
    }
    ReportCallbackFaults();
    return 1;
}

int CWavOut::AnyQueued() {
    int queued = 0;
    EnterCriticalSection(&csLock);
    if (pHeaders != nullptr) {
        for (int32_t i = 0; i < nBufferCount; ++i) {
            if ((pHeaders[i].dwUser & kQueuedMark) != 0) {
                queued = 1;
                break;
            }
        }
    }
    LeaveCriticalSection(&csLock);
    return queued;
}

int CWavOut::WaitUntilNoneQueued(uint32_t limitMs) {
    ULONGLONG start = GetTickCount64();
    while (AnyQueued()) {
        // Another thread's wait may have given the device up meanwhile.
        if (GetTickCount64() - start >= limitMs || nGivenUp.load() != 0) return 0;
        Sleep(kWaitStepMs);
    }
    return 1;
}

void CWavOut::GiveUp(int line, const char* what) {
    EnterCriticalSection(&csLock);
    nNextBuffer = -1;
    LeaveCriticalSection(&csLock);
    if (nGivenUp.exchange(1) == 0) g_logFile.Log("[%s:%d]%s", kUnitPath, line, what);
}

int CWavOut::WaitForBuffers() {
    ReportCallbackFaults();
    if (!WaitUntilNoneQueued(dwWaitLimitMs)) GiveUp(__LINE__, "wait for buffers timed out");
    ReportCallbackFaults();
    return 1;
}

int CWavOut::Halt() {
    if (hWaveOut == nullptr) return 1;
    EnterCriticalSection(&csLock);
    nNextBuffer = -1;
    LeaveCriticalSection(&csLock);
    return 1;
}

int CWavOut::Stop() {
    if (hWaveOut == nullptr) return 1;
    Halt();
    // No reset: what is queued plays to its end before Stop returns.
    return WaitForBuffers();
}

void CWavOut::Close() {
    if (hWaveOut != nullptr && nGivenUp.load() != 0) {
        CloseGivenUp();
    } else if (hWaveOut != nullptr) {
        ResetDevice(hWaveOut);
        // Windows may report the buffers of a reset done on its own thread after the call has
        // returned; they must not be unprepared or freed before that.
        if (!WaitUntilNoneQueued(dwWaitLimitMs)) GiveUp(__LINE__, "wait for buffers timed out");
        ReleaseDevice(hWaveOut, pHeaders, nBufferCount, nSlot);
        hWaveOut = nullptr;
        pHeaders = nullptr;
        nSlot = -1;
    }
    // An open that failed before the device, or at it.
    if (pHeaders != nullptr) hooks.pfnFree(pHeaders);
    pHeaders = nullptr;
    if (nSlot >= 0) Slots().Free(nSlot);
    nSlot = -1;
    EnterCriticalSection(&csLock);
    nNextBuffer = -1;
    LeaveCriticalSection(&csLock);
    dwSleepMs = 0;
    nChannels = 0;
    nSamplesPerSec = 0;
    nBitsPerSample = 0;
    nBufferCount = 0;
    nBufferSize = 0;
    dwWaitLimitMs = 0;
    nGivenUp.store(0);
    ReportCallbackFaults();
}

// A device whose buffers stopped coming back may block every call made on it (seen under Wine
// when its sound path stalls or the sound server is frozen). It is closed on a thread of its
// own, which owns it from here on; the owner waits for that a bounded time and goes on either
// way, so a play thread always ends and releases its file and record.
void CWavOut::CloseGivenUp() {
    Slots().Disown(nSlot);  // its late notifications must not reach this object any more
    GivenUpDevice* device = new (std::nothrow) GivenUpDevice{hWaveOut, pHeaders, nBufferCount, nSlot};
    HANDLE closer =
        device != nullptr ? CreateThread(nullptr, 0, &CloserProc, device, 0, nullptr) : nullptr;
    DWORD waited = WAIT_FAILED;
    if (closer != nullptr) {
        waited = WaitForSingleObject(closer, kGivenUpCloseMs);
        CloseHandle(closer);
    } else {
        delete device;  // not closed at all: the device and its slot stay taken
    }
    if (waited != WAIT_OBJECT_0) {
        g_logFile.Log("[%s:%d]device left open: close did not return within %u ms", kUnitPath,
                      __LINE__, static_cast<unsigned>(kGivenUpCloseMs));
    }
    hWaveOut = nullptr;
    pHeaders = nullptr;
    nSlot = -1;
}

DWORD WINAPI CWavOut::CloserProc(LPVOID param) {
    GivenUpDevice* device = static_cast<GivenUpDevice*>(param);
    ResetDevice(device->handle);
    ReleaseDevice(device->handle, device->headers, device->count, device->slot);
    delete device;
    return 0;
}

void CWavOut::ReportCallbackFaults() {
    if (nCallbackFaults.exchange(0, std::memory_order_relaxed) != 0) {
        g_logFile.Log("[%s:%d]exception occurs", kUnitPath, __LINE__);
    }
}

void CWavOut::OnWaveOutDone(WAVEHDR* header) {
    if (hooks.pfnOnDone != nullptr) hooks.pfnOnDone(header);
    EnterCriticalSection(&csLock);
    if (pHeaders != nullptr && header >= pHeaders && header < pHeaders + nBufferCount) {
        header->dwUser &= ~kQueuedMark;
    }
    LeaveCriticalSection(&csLock);
}

// Runs on the platform's thread, which allows little more than locks and events: no other wave
// call, no file I/O, no allocation. So it answers only WOM_DONE (WOM_OPEN comes before hWaveOut
// is stored, WOM_CLOSE from inside waveOutClose) and leaves a caught exception for the owner to
// log.
void CALLBACK CWavOut::WaveOutProc(HWAVEOUT hwo, UINT msg, DWORD_PTR instance, DWORD_PTR param1,
                                   DWORD_PTR param2) {
    if (msg != WOM_DONE) return;
    CWavOut* self = Slots().Enter(instance);
    if (self != nullptr) {
        try {
            self->OnWaveOutDone(reinterpret_cast<WAVEHDR*>(param1));
        } catch (...) {
            self->nCallbackFaults.fetch_add(1, std::memory_order_relaxed);
        }
    }
    Slots().Leave();
}
