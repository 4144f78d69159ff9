#include "player/pub/WavOut.h"

#include <algorithm>
#include <cstring>
#include <thread>

void (*CWavOut::pfnOnStop)(CWavOut* out) = nullptr;

CWavOut::CWavOut()
    : bSilent(0),
      pTag(nullptr),
      nDieAfterBuffers(0),
      nStops(0),
      nSilentBuffers(0),
      nAudibleBuffers(0),
      nWaitTimeouts(0),
      m_magic(kClosedMagic),
      m_bufferCount(0),
      m_bufferSize(0),
      m_bufferTime(0),
      m_next(-1),
      m_queued(0),
      m_waitLimitMs(0) {}

CWavOut::~CWavOut() {
    Close();
    m_magic = 0;
}

int CWavOut::Open(WavOutParams& params) {
    if (m_magic == kOpenMagic) return 0;
    if (params.nBufferCount < 1) params.nBufferCount = 8;
    if (params.nBufferSize < 1) params.nBufferSize = 4096;
    const int64_t bytesPerSecond = static_cast<int64_t>(params.nChannels) *
                                   params.nSamplesPerSec * (params.nBitsPerSample / 8);
    if (bytesPerSecond <= 0 || params.nBufferCount > kMaxBuffers ||
        params.nBufferSize > static_cast<int32_t>(sizeof m_buffer)) {
        return 0;
    }
    std::lock_guard<std::mutex> hold(m_lock);
    m_bufferCount = params.nBufferCount;
    m_bufferSize = params.nBufferSize;
    m_bufferTime = std::chrono::duration_cast<Clock::duration>(
        std::chrono::nanoseconds(static_cast<int64_t>(m_bufferSize) * 1000000000 / bytesPerSecond));
    const Clock::time_point now = Clock::now();
    std::fill(m_finish, m_finish + kMaxBuffers, now);
    m_lastFinish = now;
    m_next = 0;
    m_queued = 0;
    const int64_t ringMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(m_bufferTime * m_bufferCount).count();
    m_waitLimitMs = static_cast<uint32_t>(3 * ringMs + 1000);
    m_magic = kOpenMagic;
    return 1;
}

int CWavOut::Write(const void* data, int32_t length) {
    if (m_magic != kOpenMagic) return 0;
    if (length < 1) return 1;
    if (data == nullptr) return 0;
    const unsigned char* next = static_cast<const unsigned char*>(data);
    while (length > 0) {
        const int32_t n = std::min(length, m_bufferSize);
        const Clock::time_point waitStart = Clock::now();
        for (;;) {
            std::unique_lock<std::mutex> hold(m_lock);
            if (m_next == -1) return 0;
            const Clock::time_point now = Clock::now();
            if (m_finish[m_next] <= now) {
                if (nDieAfterBuffers > 0 && m_queued >= nDieAfterBuffers) {
                    m_next = -1;  // as a refused waveOutWrite: no buffer any more
                    return 0;
                }
                // The writer reads the flag once per buffer it fills.
                if (bSilent.load(std::memory_order_relaxed) != 0) {
                    memset(m_buffer, 0, static_cast<size_t>(n));
                    nSilentBuffers.fetch_add(1, std::memory_order_relaxed);
                } else {
                    memcpy(m_buffer, next, static_cast<size_t>(n));
                    nAudibleBuffers.fetch_add(1, std::memory_order_relaxed);
                }
                const Clock::time_point start = std::max(now, m_lastFinish);
                m_lastFinish = start + m_bufferTime * n / m_bufferSize;
                m_finish[m_next] = m_lastFinish;
                if (++m_next >= m_bufferCount) m_next = 0;
                ++m_queued;
                break;
            }
            // The ring is full: wait for its oldest buffer, bounded like the real output.
            const Clock::time_point due = m_finish[m_next];
            hold.unlock();
            if (now - waitStart >= std::chrono::milliseconds(m_waitLimitMs)) {
                std::lock_guard<std::mutex> again(m_lock);
                m_next = -1;
                nWaitTimeouts.fetch_add(1, std::memory_order_relaxed);
                return 0;
            }
            std::this_thread::sleep_for(std::min<Clock::duration>(due - now, std::chrono::milliseconds(1)));
        }
        next += n;
        length -= n;
    }
    return 1;
}

bool CWavOut::AnyQueued(Clock::time_point now) {
    std::lock_guard<std::mutex> hold(m_lock);
    return m_lastFinish > now;
}

int CWavOut::WaitUntilNoneQueued() {
    const Clock::time_point start = Clock::now();
    for (;;) {
        const Clock::time_point now = Clock::now();
        if (!AnyQueued(now)) return 1;
        if (now - start >= std::chrono::milliseconds(m_waitLimitMs)) return 0;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

int CWavOut::WaitForBuffers() {
    if (m_magic == kOpenMagic) WaitUntilNoneQueued();
    return 1;
}

int CWavOut::Halt() {
    // Read without the output's lock, as the real output reads its device handle: only the
    // play list keeps the output open while a stop runs, and a sanitizer sees if it does not.
    if (m_magic != kOpenMagic) return 1;
    if (pfnOnStop != nullptr) pfnOnStop(this);
    nStops.fetch_add(1, std::memory_order_relaxed);
    std::lock_guard<std::mutex> hold(m_lock);
    m_next = -1;
    return 1;
}

int CWavOut::Stop() {
    if (m_magic != kOpenMagic) return 1;
    Halt();
    // No reset: what is queued plays to its end before Stop returns.
    return WaitForBuffers();
}

void CWavOut::Close() {
    if (m_magic != kOpenMagic) return;
    std::lock_guard<std::mutex> hold(m_lock);
    // A reset: what is still queued is dropped at once.
    const Clock::time_point now = Clock::now();
    std::fill(m_finish, m_finish + kMaxBuffers, now);
    m_lastFinish = now;
    m_next = -1;
    m_bufferCount = 0;
    m_bufferSize = 0;
    m_waitLimitMs = 0;
    m_magic = kClosedMagic;
}
