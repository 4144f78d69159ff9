#pragma once
// PCM output on the default waveOut device through a fixed ring of buffers.
// Windows only.

#include <windows.h>
#include <mmsystem.h>

#include <atomic>
#include <cstdint>

struct WavOutParams {
    int32_t nChannels;
    int32_t nSamplesPerSec;
    int32_t nBitsPerSample;
    int32_t nBufferCount;  // below 1: 8
    int32_t nBufferSize;   // below 1: 4096
};

class CWavOut {
public:
    CWavOut();
    ~CWavOut();

    CWavOut(const CWavOut&) = delete;
    CWavOut& operator=(const CWavOut&) = delete;

    // 1 opened and ready; 0 failed (logged; the object is closed again and reusable).
    int Open(WavOutParams& params);
    // 1 all bytes queued; 0 stopped or not open. Blocks while the ring is full.
    int Write(const void* data, int32_t length);
    // Waits until no buffer is queued any more; always 1.
    int WaitForBuffers();
    // From another thread: hands out no further buffer, then waits for the queued sound.
    int Stop();
    void Close();

    int32_t nChannels;
    int32_t nSamplesPerSec;
    int32_t nBitsPerSample;
    int32_t nBufferCount;
    int32_t nBufferSize;
    HWAVEOUT hWaveOut;
    WAVEHDR* pHeaders;
    int32_t nNextBuffer;  // -1: stopped
    uint32_t dwSleepMs;
    CRITICAL_SECTION csLock;
    // Written by the main thread, read by the writer once per buffer.
    std::atomic<int32_t> bSilent;

private:
    int OpenDevice();
    int PrepareBuffers();
    int ResetQueue();
    WAVEHDR* GetFreeBuffer();
    void OnWaveOutDone(WAVEHDR* header);
    static void CALLBACK WaveOutProc(HWAVEOUT hwo, UINT msg, DWORD_PTR instance, DWORD_PTR param1,
                                     DWORD_PTR param2);
};
