#include "player/pub/WavOut.h"

#include <cstring>
#include <new>

#include "player/pub/Log.h"

namespace {

const char kUnitPath[] = "player/pub/WavOut";

// How long one look at the queue waits in WaitForBuffers.
const uint32_t kWaitStepMs = 50;
// Cap of the wait limit, for rings far larger than any play uses.
const uint64_t kMaxWaitLimitMs = 10 * 60 * 1000;

// The wave devices open in the process. A slot is taken just before waveOutOpen and freed once
// waveOutClose has returned, so the count never passes the platform's limit. A device's
// callback instance is its slot (plus one), not its CWavOut: a given-up device may outlive its
// CWavOut, and its late notifications must then reach nobody.
class CDeviceSlots {
public:
    CDeviceSlots() : m_nTaken(0) {
        for (int32_t i = 0; i < CWavOut::kMaxOpenDevices; ++i) {
            m_owners[i] = nullptr;
            m_taken[i] = false;
        }
    }

    // The slot taken for owner, or -1 when every slot is taken.
    int32_t Take(CWavOut* owner) {
        CScopedLock<CLock> lock(m_cs);
        int32_t slot = -1;
        for (int32_t i = 0; i < CWavOut::kMaxOpenDevices && slot < 0; ++i) {
            if (m_taken[i]) continue;
            m_taken[i] = true;
            m_owners[i] = owner;
            ++m_nTaken;
            slot = i;
        }
        return slot;
    }
    // No notification reaches the owner after this returns; the slot stays taken.
    void Disown(int32_t slot) {
        CScopedLock<CLock> lock(m_cs);
        m_owners[slot] = nullptr;
    }
    void Free(int32_t slot) {
        CScopedLock<CLock> lock(m_cs);
        m_owners[slot] = nullptr;
        m_taken[slot] = false;
        --m_nTaken;
    }
    int32_t Taken() {
        CScopedLock<CLock> lock(m_cs);
        return m_nTaken;
    }
    // For the callback, under Lock(): the owner of a device's notifications, or null. Held
    // lock, it cannot be disowned meanwhile.
    CLock& Lock() { return m_cs; }
    CWavOut* OwnerOf(uintptr_t instance) const {
        if (instance == 0 || instance > static_cast<uintptr_t>(CWavOut::kMaxOpenDevices)) {
            return nullptr;
        }
        return m_owners[instance - 1];
    }

private:
    CLock m_cs;
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
void ReleaseDevice(WaveDevice device, WaveBuffer* headers, int32_t count, int32_t slot) {
    if (headers != nullptr) {
        bool keepHeaders = false;
        for (int32_t i = 0; i < count; ++i) {
            WaveBuffer* header = &headers[i];
            if (header->pData == nullptr) continue;
            uint32_t result = WaveUnprepare(device, header);
            if (result != 0) {
                g_logFile.Log("[%s:%d]waveOutUnprepareHeader() return(%d)", kUnitPath, __LINE__,
                              static_cast<int>(result));
                keepHeaders = true;
                continue;
            }
            WaveFree(header->pData);
            header->pData = nullptr;
        }
        if (!keepHeaders) WaveFree(headers);
    }
    uint32_t result = WaveClose(device);
    if (result != 0) {
        g_logFile.Log("[%s:%d]waveOutClose() return(%d)", kUnitPath, __LINE__,
                      static_cast<int>(result));
    }
    Slots().Free(slot);
}

void ResetDevice(WaveDevice device) {
    uint32_t result = WaveReset(device);
    if (result != 0) {
        g_logFile.Log("[%s:%d]waveOutReset() return(%d)", kUnitPath, __LINE__,
                      static_cast<int>(result));
    }
}

// What a given-up device's closing thread takes over from its CWavOut.
struct GivenUpDevice {
    WaveDevice device;
    WaveBuffer* headers;
    int32_t count;
    int32_t slot;
};

}  // namespace

int32_t CWavOut::OpenDevices() {
    return Slots().Taken();
}

CWavOut::CWavOut()
    : nChannels(0),
      nSamplesPerSec(0),
      nBitsPerSample(0),
      nBufferCount(0),
      nBufferSize(0),
      hWaveOut(0),
      pHeaders(nullptr),
      nNextBuffer(-1),
      dwSleepMs(0),
      bSilent(0),
      dwWaitLimitMs(0),
      nSlot(-1),
      nGivenUp(0),
      nCallbackFaults(0) {}

CWavOut::~CWavOut() {
    Close();
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
    // Block align and bytes per second as the device computes them, kept in their 16 and 32
    // bits.
    const uint32_t blockAlign = static_cast<uint16_t>((nBitsPerSample / 8) * nChannels);
    const uint32_t bytesPerSec = blockAlign * static_cast<uint32_t>(nSamplesPerSec);
    // Refused before the division below, and before a rate that would abort the process.
    if (bytesPerSec == 0 || nChannels < 1 || nSamplesPerSec < 1 ||
        nSamplesPerSec > kMaxSamplesPerSec) {
        g_logFile.Log("[%s:%d]invalid format(%d,%d,%d)", kUnitPath, __LINE__, nChannels,
                      nSamplesPerSec, nBitsPerSample);
        return 0;
    }

    // Half the ring's playing time: the writer looks again once about half of it has drained.
    dwSleepMs =
        (static_cast<uint32_t>(nBufferCount / 2) * static_cast<uint32_t>(nBufferSize) * 1000u) /
        bytesPerSec;
    uint64_t ringMs = static_cast<uint64_t>(nBufferCount) * static_cast<uint64_t>(nBufferSize) *
                      1000u / bytesPerSec;
    uint64_t limitMs = 3 * ringMs + 1000;
    dwWaitLimitMs = static_cast<uint32_t>(limitMs < kMaxWaitLimitMs ? limitMs : kMaxWaitLimitMs);

    // Counted from before the open: a device the platform is still opening counts too.
    nSlot = Slots().Take(this);
    if (nSlot < 0) {
        g_logFile.Log("[%s:%d]too many devices open(%d)", kUnitPath, __LINE__,
                      static_cast<int>(kMaxOpenDevices));
        return 0;
    }
    const WaveFormat format = {nChannels, nSamplesPerSec, nBitsPerSample};
    uint32_t result = WaveOpen(&hWaveOut, format, static_cast<uintptr_t>(nSlot) + 1);
    if (result != 0) {
        g_logFile.Log("[%s:%d]waveOutOpen() return(%d)", kUnitPath, __LINE__,
                      static_cast<int>(result));
        return 0;
    }
    return 1;
}

int CWavOut::PrepareBuffers() {
    pHeaders =
        static_cast<WaveBuffer*>(WaveAlloc(static_cast<size_t>(nBufferCount) * sizeof(WaveBuffer)));
    if (pHeaders == nullptr) {
        g_logFile.Log("[%s:%d]malloc header failed", kUnitPath, __LINE__);
        return 0;
    }
    for (int32_t i = 0; i < nBufferCount; ++i) {
        WaveBuffer* header = &pHeaders[i];
        header->pData = static_cast<char*>(WaveAlloc(static_cast<size_t>(nBufferSize)));
        if (header->pData == nullptr) {
            g_logFile.Log("[%s:%d]malloc buffer failed", kUnitPath, __LINE__);
            return 0;
        }
        header->nLength = static_cast<uint32_t>(nBufferSize);
        uint32_t result = WavePrepare(hWaveOut, header);
        if (result != 0) {
            g_logFile.Log("[%s:%d]waveOutPrepareHeader() return(%d)", kUnitPath, __LINE__,
                          static_cast<int>(result));
            return 0;
        }
    }
    CScopedLock<CLock> lock(csLock);
    nNextBuffer = 0;
    return 1;
}

int CWavOut::ResetQueue() {
    CScopedLock<CLock> lock(csLock);
    if (nNextBuffer == -1) nNextBuffer = 0;
    return 1;
}

WaveBuffer* CWavOut::GetFreeBuffer() {
    bool waiting = false;
    uint64_t waitStart = 0;
    for (;;) {
        WaveBuffer* taken = nullptr;
        bool stopped = false;
        {
            CScopedLock<CLock> lock(csLock);
            if (nNextBuffer == -1) {
                stopped = true;
            } else if (pHeaders[nNextBuffer].bQueued == 0) {
                taken = &pHeaders[nNextBuffer];
                taken->bQueued = 1;
                if (++nNextBuffer >= nBufferCount) nNextBuffer = 0;
            }
        }
        if (stopped || taken != nullptr) return taken;

        // Only the buffer at nNextBuffer is ever taken, so the sound stays in order. A device
        // that stops reporting finished buffers must not hold the writer for ever.
        uint64_t now = TickMs();
        if (!waiting) {
            waiting = true;
            waitStart = now;
        } else if (now - waitStart >= dwWaitLimitMs) {
            GiveUp(__LINE__, "wait for a free buffer timed out");
            return nullptr;
        }
        SleepMs(dwSleepMs);
    }
}

int CWavOut::Write(const void* data, int32_t length) {
    if (hWaveOut == 0) return 0;
    if (length < 1) return 1;
    if (data == nullptr) {
        g_logFile.Log("[%s:%d]no data to write(%d)", kUnitPath, __LINE__, length);
        return 0;
    }
    const char* next = static_cast<const char*>(data);
    int32_t remaining = length;
    const int fill = (nBitsPerSample == 8) ? 0x80 : 0;  // silence of unsigned 8-bit PCM is 0x80
    while (remaining > 0) {
        WaveBuffer* header = GetFreeBuffer();
        if (header == nullptr) {
            ReportCallbackFaults();
            return 0;
        }
        int32_t n = remaining < nBufferSize ? remaining : nBufferSize;
        if (bSilent.load(std::memory_order_relaxed) != 0) {
            std::memset(header->pData, fill, static_cast<size_t>(n));
        } else {
            std::memcpy(header->pData, next, static_cast<size_t>(n));
        }
        header->nLength = static_cast<uint32_t>(n);
        uint32_t result = WaveWrite(hWaveOut, header);
        if (result != 0) {
            // The device will never report this buffer done: free it again and stop handing
            // out buffers, or the ring would stall on it and a looping play would spin.
            {
                CScopedLock<CLock> lock(csLock);
                header->bQueued = 0;
                nNextBuffer = -1;
            }
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
    CScopedLock<CLock> lock(csLock);
    if (pHeaders == nullptr) return 0;
    for (int32_t i = 0; i < nBufferCount; ++i) {
        if (pHeaders[i].bQueued != 0) return 1;
    }
    return 0;
}

int CWavOut::WaitUntilNoneQueued(uint32_t limitMs) {
    uint64_t start = TickMs();
    while (AnyQueued()) {
        // Another thread's wait may have given the device up meanwhile.
        if (TickMs() - start >= limitMs || nGivenUp.load() != 0) return 0;
        SleepMs(kWaitStepMs);
    }
    return 1;
}

void CWavOut::GiveUp(int line, const char* what) {
    {
        CScopedLock<CLock> lock(csLock);
        nNextBuffer = -1;
    }
    if (nGivenUp.exchange(1) == 0) g_logFile.Log("[%s:%d]%s", kUnitPath, line, what);
}

int CWavOut::WaitForBuffers() {
    ReportCallbackFaults();
    if (!WaitUntilNoneQueued(dwWaitLimitMs)) GiveUp(__LINE__, "wait for buffers timed out");
    ReportCallbackFaults();
    return 1;
}

int CWavOut::Halt() {
    if (hWaveOut == 0) return 1;
    CScopedLock<CLock> lock(csLock);
    nNextBuffer = -1;
    return 1;
}

int CWavOut::Stop() {
    if (hWaveOut == 0) return 1;
    Halt();
    // No reset: what is queued plays to its end before Stop returns.
    return WaitForBuffers();
}

void CWavOut::Close() {
    if (hWaveOut != 0 && nGivenUp.load() != 0) {
        CloseGivenUp();
    } else if (hWaveOut != 0) {
        ResetDevice(hWaveOut);
        // The device may report the buffers of a reset done on its own thread after the call
        // has returned; they must not be unprepared or freed before that.
        if (!WaitUntilNoneQueued(dwWaitLimitMs)) GiveUp(__LINE__, "wait for buffers timed out");
        ReleaseDevice(hWaveOut, pHeaders, nBufferCount, nSlot);
        hWaveOut = 0;
        pHeaders = nullptr;
        nSlot = -1;
    }
    // An open that failed before the device, or at it.
    if (pHeaders != nullptr) {
        for (int32_t i = 0; i < nBufferCount; ++i) WaveFree(pHeaders[i].pData);
        WaveFree(pHeaders);
    }
    pHeaders = nullptr;
    if (nSlot >= 0) Slots().Free(nSlot);
    nSlot = -1;
    {
        CScopedLock<CLock> lock(csLock);
        nNextBuffer = -1;
    }
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
    GivenUpDevice* device =
        new (std::nothrow) GivenUpDevice{hWaveOut, pHeaders, nBufferCount, nSlot};
    int started = 0;
    int closed =
        device != nullptr && RunWithDeadline(&CloserProc, device, kGivenUpCloseMs, &started);
    if (!started) delete device;  // not closed at all: the device and its slot stay taken
    if (!closed) {
        g_logFile.Log("[%s:%d]device left open: close did not return within %u ms", kUnitPath,
                      __LINE__, static_cast<unsigned>(kGivenUpCloseMs));
    }
    hWaveOut = 0;
    pHeaders = nullptr;
    nSlot = -1;
}

void CWavOut::CloserProc(void* param) {
    GivenUpDevice* device = static_cast<GivenUpDevice*>(param);
    ResetDevice(device->device);
    ReleaseDevice(device->device, device->headers, device->count, device->slot);
    delete device;
}

void CWavOut::ReportCallbackFaults() {
    if (nCallbackFaults.exchange(0, std::memory_order_relaxed) != 0) {
        g_logFile.Log("[%s:%d]exception occurs", kUnitPath, __LINE__);
    }
}

void CWavOut::OnWaveOutDone(WaveBuffer* buffer) {
    CScopedLock<CLock> lock(csLock);
    if (pHeaders != nullptr && buffer >= pHeaders && buffer < pHeaders + nBufferCount) {
        buffer->bQueued = 0;
    }
}

// Runs on the platform's thread, which allows little more than locks: no other wave call, no
// file output, no allocation. So a caught exception is left for the owner to log.
void CWavOut::OnDeviceDone(uintptr_t instance, uintptr_t systemBuffer) {
    CScopedLock<CLock> lock(Slots().Lock());
    CWavOut* self = Slots().OwnerOf(instance);
    if (self == nullptr) return;
    try {
        self->OnWaveOutDone(WaveDoneBuffer(systemBuffer));
    } catch (...) {
        self->nCallbackFaults.fetch_add(1, std::memory_order_relaxed);
    }
}

void WaveDeviceDone(uintptr_t instance, uintptr_t systemBuffer) {
    CWavOut::OnDeviceDone(instance, systemBuffer);
}
