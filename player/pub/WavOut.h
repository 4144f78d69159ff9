#pragma once
// PCM output on the default wave device through a fixed ring of buffers. The device itself is
// WavOutPlatform.h's.
//
// The owner (a play thread) does Open, Write..., WaitForBuffers, Close. From other threads only
// Halt, Stop and the bSilent flag are used. Every wait is bounded, so a sound path that stops
// reporting finished buffers cannot freeze the owner or the thread that stops it: a device whose
// buffers do not come back within WaitLimitMs is given up, and closing it may not block its
// owner either.

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "player/pub/ThreadPlatform.h"
#include "player/pub/WavOutPlatform.h"

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
    // The buffer defaults are written back into params. A format of no bytes per second or of
    // a rate above kMaxSamplesPerSec is refused before the device is asked.
    int Open(WavOutParams& params);
    // 1 all bytes queued; 0 stopped or not open. Blocks while the ring is full. A length below
    // 1 queues nothing and returns 1.
    int Write(const void* data, int32_t length);
    // Waits until no buffer is queued any more; gives up (logged) after WaitLimitMs; always 1.
    int WaitForBuffers();
    // From another thread: hands out no further buffer, and returns at once.
    int Halt();
    // From another thread: hands out no further buffer, then waits for the queued sound.
    int Stop();
    // Resets, unprepares and closes the device. A given-up device is closed on a thread of its
    // own; when that has not returned within kGivenUpCloseMs its handle and buffers are left to
    // it (logged), so that the owner can go on.
    void Close();

    // How long a wait for the device may last before it is given up: three times the ring's
    // playing time plus a second, so always longer than a whole ring at the slowest format
    // (4.1 s at 8 kHz 8-bit mono). 0 while closed.
    uint32_t WaitLimitMs() const { return dwWaitLimitMs; }
    // Non-zero once a wait for this device's buffers has timed out.
    int GivenUp() const { return nGivenUp.load(); }

    // The wave devices open in the process now, counted from just before waveOutOpen until
    // waveOutClose has returned (given-up devices still closing or left open included).
    static int32_t OpenDevices();

    // Above this rate Wine's sound path aborts the whole process instead of refusing the format;
    // no real device plays such a rate.
    static constexpr int32_t kMaxSamplesPerSec = 384000;
    // How many wave devices the process may hold open at once. Wine's winmm serves every device
    // of a process from one thread that waits on one event per device slot with
    // MsgWaitForMultipleObjects, which takes at most 63 handles, and it never lets a slot's
    // event go: at the 64th device open at once, done notifications stop for every device of
    // the process, for good. An open beyond this is refused instead.
    static constexpr int32_t kMaxOpenDevices = 63;
    // How long Close waits for a given-up device to close before leaving it open.
    static constexpr uint32_t kGivenUpCloseMs = 1000;
    // The device's notification of a finished buffer (see WaveDeviceDone).
    static void OnDeviceDone(uintptr_t instance, uintptr_t systemBuffer);

    int32_t nChannels;
    int32_t nSamplesPerSec;
    int32_t nBitsPerSample;
    int32_t nBufferCount;
    int32_t nBufferSize;
    WaveDevice hWaveOut;
    WaveBuffer* pHeaders;
    int32_t nNextBuffer;  // -1: stopped
    uint32_t dwSleepMs;
    CLock csLock;  // guards nNextBuffer and the buffers' queued marks
    // Written by other threads, read by the writer once per buffer.
    std::atomic<int32_t> bSilent;

private:
    int OpenDevice();
    int PrepareBuffers();
    int ResetQueue();
    WaveBuffer* GetFreeBuffer();
    int AnyQueued();
    int WaitUntilNoneQueued(uint32_t limitMs);
    // Marks the device given up and logs the message of the wait that timed out, once.
    void GiveUp(int line, const char* what);
    void CloseGivenUp();
    void ReportCallbackFaults();
    void OnWaveOutDone(WaveBuffer* buffer);
    static void CloserProc(void* param);

    uint32_t dwWaitLimitMs;
    // The device's place among the process's open devices (-1 none); the device's callbacks
    // find this object through it, and only while it is this object's.
    int32_t nSlot;
    std::atomic<int> nGivenUp;
    // Exceptions caught in the device callback, which may not log; the owner's next call logs
    // them.
    std::atomic<uint32_t> nCallbackFaults;
};
