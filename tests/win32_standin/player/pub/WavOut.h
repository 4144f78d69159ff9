#pragma once
// Native stand-in for the waveOut ring (the real one is player/pub/WavOut.h; see windows.h here
// for why it exists). It keeps the real output's contract towards the play list:
//   - the owner (a play thread) does Open, Write..., WaitForBuffers, Close;
//   - Write blocks while the ring is full and returns 0 once the output is stopped or dead;
//   - Stop from another thread hands out no further buffer, so the current or next Write
//     fails, then waits, bounded, until the queued sound has played;
//   - bSilent is written by other threads and read by the writer once per buffer.
// The sound card is a clock: a buffer of n bytes plays for n / (bytes per second) after the
// one before it. Tests pick a high rate so that a play lasts micro- to milliseconds.

#include <windows.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>

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

    // 1 opened; 0 refused: a format of no bytes per second, more than 64 buffers or buffers
    // larger than 4096 bytes, or already open. The buffer defaults are written back.
    int Open(WavOutParams& params);
    // 1 all bytes queued; 0 stopped, dead or not open. A length below 1 queues nothing, 1.
    int Write(const void* data, int32_t length);
    // Waits until nothing is queued; gives up after WaitLimitMs; always 1.
    int WaitForBuffers();
    // From another thread: no further buffer; returns at once. Counts as a stop.
    int Halt();
    // From another thread: no further buffer, then the queued sound plays out; always 1.
    int Stop();
    void Close();

    // Three times the ring's playing time plus a second, as the real output; 0 while closed.
    uint32_t WaitLimitMs() const { return m_waitLimitMs; }

    // Called by Halt and Stop on the stopping thread while the output is open, before it
    // stops. Set it only while no output is open.
    static void (*pfnOnStop)(CWavOut* out);

    std::atomic<int32_t> bSilent;

    // Test-side state: not part of the real output.
    void* pTag;                     // the play this output belongs to
    int32_t nDieAfterBuffers;       // > 0: the device dies once this many buffers were queued
    std::atomic<uint32_t> nStops;   // Stop calls while open
    std::atomic<uint32_t> nSilentBuffers;
    std::atomic<uint32_t> nAudibleBuffers;
    std::atomic<uint32_t> nWaitTimeouts;  // writes refused because the ring wait gave up
    bool IsOpen() const { return m_magic == kOpenMagic; }

private:
    typedef std::chrono::steady_clock Clock;
    static constexpr uint32_t kOpenMagic = 0x4F50454E;
    static constexpr uint32_t kClosedMagic = 0x434C4F53;
    static constexpr int32_t kMaxBuffers = 64;

    bool AnyQueued(Clock::time_point now);
    int WaitUntilNoneQueued();

    std::mutex m_lock;
    uint32_t m_magic;  // the owner's: kOpenMagic between Open and Close
    int32_t m_bufferCount;
    int32_t m_bufferSize;
    Clock::duration m_bufferTime;  // playing time of a full buffer
    Clock::time_point m_finish[kMaxBuffers];  // when each ring slot has played
    Clock::time_point m_lastFinish;           // when all that is queued has played
    int32_t m_next;                           // -1: no further buffer (stopped or dead)
    int32_t m_queued;                         // buffers queued since Open
    uint32_t m_waitLimitMs;
    unsigned char m_buffer[4096];             // the slot contents do not matter: one scratch
};
