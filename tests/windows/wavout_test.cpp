// CWavOut on the real waveOut device. Under Wine the device is the session's recording sound
// server, so these tests need scripts/wine-session (scripts/test runs them inside it).

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "player/pub/Log.h"
#include "player/pub/WavOut.h"

namespace {

// The part of the log written since this object was made.
class LogWatch {
public:
    LogWatch() : m_start(Size()) {}

    std::string Text() const {
        std::string text;
        FILE* fp = std::fopen(g_logFile.FileName(), "rb");
        if (fp == nullptr) return text;
        if (std::fseek(fp, m_start, SEEK_SET) == 0) {
            char chunk[4096];
            size_t n;
            while ((n = std::fread(chunk, 1, sizeof(chunk), fp)) > 0) text.append(chunk, n);
        }
        std::fclose(fp);
        return text;
    }

    // Lines "[player/pub/WavOut:<line>]<message>" whose message matches the pattern exactly.
    int Count(const std::string& messagePattern) const {
        std::regex line("\\[player/pub/WavOut:[0-9]+\\]" + messagePattern + "\r?\n");
        std::string text = Text();
        return static_cast<int>(std::distance(
            std::sregex_iterator(text.begin(), text.end(), line), std::sregex_iterator()));
    }

private:
    static long Size() {
        FILE* fp = std::fopen(g_logFile.FileName(), "rb");
        if (fp == nullptr) return 0;
        std::fseek(fp, 0, SEEK_END);
        long size = std::ftell(fp);
        std::fclose(fp);
        return size;
    }

    long m_start;
};

WavOutParams Params(int channels, int rate, int bits, int count = 0, int size = 0) {
    WavOutParams params = {channels, rate, bits, count, size};
    return params;
}

bool Queued(const WAVEHDR& header) { return (header.dwUser & CWavOut::kQueuedMark) != 0; }

int QueuedCount(CWavOut& out) {
    int queued = 0;
    EnterCriticalSection(&out.csLock);
    for (int i = 0; i < out.nBufferCount; ++i) queued += Queued(out.pHeaders[i]) ? 1 : 0;
    LeaveCriticalSection(&out.csLock);
    return queued;
}

void ExpectClosed(const CWavOut& out) {
    EXPECT_EQ(out.hWaveOut, nullptr);
    EXPECT_EQ(out.pHeaders, nullptr);
    EXPECT_EQ(out.nNextBuffer, -1);
    EXPECT_EQ(out.dwSleepMs, 0u);
    EXPECT_EQ(out.nChannels, 0);
    EXPECT_EQ(out.nSamplesPerSec, 0);
    EXPECT_EQ(out.nBitsPerSample, 0);
    EXPECT_EQ(out.nBufferCount, 0);
    EXPECT_EQ(out.nBufferSize, 0);
}

// Opens 44.1 kHz 16-bit stereo with the default ring, writes a little and waits for it: the
// object must work after whatever happened to it before.
void ExpectReusable(CWavOut& out) {
    WavOutParams params = Params(2, 44100, 16);
    ASSERT_EQ(out.Open(params), 1);
    std::vector<char> data(6000, 0);
    EXPECT_EQ(out.Write(data.data(), static_cast<int32_t>(data.size())), 1);
    out.WaitForBuffers();
    EXPECT_EQ(QueuedCount(out), 0);
    out.Close();
    ExpectClosed(out);
}

std::vector<char> Pattern(size_t size) {
    std::vector<char> data(size);
    uint32_t state = 12345;
    for (char& c : data) {
        state = state * 1103515245u + 12345u;
        c = static_cast<char>(state >> 16);
        if (c == 0 || c == static_cast<char>(0x80)) c = 1;  // never mistaken for silence
    }
    return data;
}

// Replaces CWavOut::hooks for one test and puts the real ones back afterwards.
class WavOutHooked : public ::testing::Test {
protected:
    void SetUp() override {
        saved = CWavOut::hooks;
        failAtCall = 0;
        calls = 0;
        live = 0;
    }
    void TearDown() override { CWavOut::hooks = saved; }

    static void* CountingCalloc(size_t count, size_t size) {
        if (++calls == failAtCall) return nullptr;
        void* block = std::calloc(count, size);
        if (block != nullptr) ++live;
        return block;
    }
    static void CountingFree(void* block) {
        if (block != nullptr) --live;
        std::free(block);
    }
    static MMRESULT WINAPI FailingPrepare(HWAVEOUT hwo, LPWAVEHDR header, UINT size) {
        if (++calls == failAtCall) return MMSYSERR_NOMEM;
        return waveOutPrepareHeader(hwo, header, size);
    }
    static void ThrowingDone(WAVEHDR*) { throw std::runtime_error("done notification"); }

    WavOutHooks saved;
    static int failAtCall;
    static int calls;
    static int live;
};
int WavOutHooked::failAtCall = 0;
int WavOutHooked::calls = 0;
int WavOutHooked::live = 0;

// A thread that the test joins with a bound, so a writer that never returns fails the test
// instead of hanging it.
class Thread {
public:
    Thread(LPTHREAD_START_ROUTINE body, void* arg)
        : m_handle(CreateThread(nullptr, 0, body, arg, 0, nullptr)) {}
    ~Thread() {
        if (m_handle != nullptr) {
            WaitForSingleObject(m_handle, 10000);
            CloseHandle(m_handle);
        }
    }
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    bool Started() const { return m_handle != nullptr; }
    bool Join(DWORD ms) { return WaitForSingleObject(m_handle, ms) == WAIT_OBJECT_0; }

private:
    HANDLE m_handle;
};

// ---------------------------------------------------------------------------------------------
// Opening: formats, defaults, refusals.

TEST(WavOutOpen, AppliesDefaultsAndSleepsHalfTheRing) {
    struct Case {
        int channels, rate, bits;
        uint32_t sleepMs;
    } cases[] = {{2, 44100, 16, 92}, {2, 48000, 16, 85}, {1, 22050, 16, 371}, {1, 8000, 8, 2048}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rate);
        CWavOut out;
        WavOutParams params = Params(c.channels, c.rate, c.bits, 0, -5);
        ASSERT_EQ(out.Open(params), 1);
        EXPECT_EQ(params.nBufferCount, 8);
        EXPECT_EQ(params.nBufferSize, 4096);
        EXPECT_EQ(out.nChannels, c.channels);
        EXPECT_EQ(out.nSamplesPerSec, c.rate);
        EXPECT_EQ(out.nBitsPerSample, c.bits);
        EXPECT_EQ(out.nBufferCount, 8);
        EXPECT_EQ(out.nBufferSize, 4096);
        EXPECT_EQ(out.dwSleepMs, c.sleepMs);
        EXPECT_NE(out.hWaveOut, nullptr);
        ASSERT_NE(out.pHeaders, nullptr);
        EXPECT_EQ(out.nNextBuffer, 0);
        for (int i = 0; i < 8; ++i) {
            EXPECT_NE(out.pHeaders[i].lpData, nullptr);
            EXPECT_EQ(out.pHeaders[i].dwBufferLength, 4096u);
            EXPECT_NE(out.pHeaders[i].dwFlags & WHDR_PREPARED, 0u);
            EXPECT_FALSE(Queued(out.pHeaders[i]));
        }
        out.Close();
        ExpectClosed(out);
        out.Close();  // a second Close is harmless
        ExpectClosed(out);
    }
}

TEST(WavOutOpen, KeepsGivenRingAndOneBufferNeverSleeps) {
    CWavOut out;
    WavOutParams params = Params(2, 44100, 16, 3, 1000);
    ASSERT_EQ(out.Open(params), 1);
    EXPECT_EQ(params.nBufferCount, 3);
    EXPECT_EQ(params.nBufferSize, 1000);
    EXPECT_EQ(out.dwSleepMs, 5u);  // 1 x 1000 x 1000 / 176400
    out.Close();

    // One buffer halves to none: the writer only yields between looks, and still gets every
    // buffer in turn.
    params = Params(2, 44100, 16, 1, 4096);
    ASSERT_EQ(out.Open(params), 1);
    EXPECT_EQ(out.dwSleepMs, 0u);
    std::vector<char> data = Pattern(3 * 4096 + 10);
    EXPECT_EQ(out.Write(data.data(), static_cast<int32_t>(data.size())), 1);
    EXPECT_EQ(out.pHeaders[0].dwBufferLength, 10u);
    EXPECT_EQ(std::memcmp(out.pHeaders[0].lpData, data.data() + 3 * 4096, 10), 0);
    out.WaitForBuffers();
    EXPECT_EQ(QueuedCount(out), 0);
    out.Close();
}

TEST(WavOutOpen, RefusesFormatsWithoutBytesPerSecondOrBeyondTheSoundPath) {
    struct Case {
        int channels, rate, bits;
        const char* message;
    } cases[] = {
        {0, 44100, 16, "invalid format\\(0,44100,16\\)"},
        {2, 0, 16, "invalid format\\(2,0,16\\)"},
        {2, 44100, 4, "invalid format\\(2,44100,4\\)"},
        {2, 44100, 0, "invalid format\\(2,44100,0\\)"},
        {-1, 44100, 16, "invalid format\\(-1,44100,16\\)"},
        {2, -5, 16, "invalid format\\(2,-5,16\\)"},
        // Wine's sound path aborts the process on such a rate instead of refusing it.
        {2, 400000, 16, "invalid format\\(2,400000,16\\)"},
    };
    CWavOut out;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        LogWatch log;
        WavOutParams params = Params(c.channels, c.rate, c.bits);
        EXPECT_EQ(out.Open(params), 0);
        EXPECT_EQ(log.Count(c.message), 1);
        EXPECT_EQ(log.Count("waveOutOpen\\(\\) return\\([0-9]+\\)"), 0);
        ExpectClosed(out);
        EXPECT_EQ(out.Write("abcd", 4), 0);
    }
    ExpectReusable(out);

    // The highest rate still allowed opens.
    WavOutParams params = Params(1, CWavOut::kMaxSamplesPerSec, 16);
    EXPECT_EQ(out.Open(params), 1);
    out.Close();
}

TEST(WavOutOpen, DeviceRefusalIsLoggedWithItsCode) {
    CWavOut out;
    LogWatch log;
    WavOutParams params = Params(2, 44100, 64);  // no PCM device takes 64-bit samples
    EXPECT_EQ(out.Open(params), 0);
    EXPECT_EQ(log.Count("waveOutOpen\\(\\) return\\(32\\)"), 1);  // WAVERR_BADFORMAT
    ExpectClosed(out);
    ExpectReusable(out);
}

TEST(WavOutOpen, OpenOverAnOpenDeviceStartsAfresh) {
    CWavOut out;
    WavOutParams params = Params(2, 44100, 16);
    ASSERT_EQ(out.Open(params), 1);
    std::vector<char> data = Pattern(5000);
    ASSERT_EQ(out.Write(data.data(), 5000), 1);
    params = Params(1, 22050, 16, 4, 2048);
    ASSERT_EQ(out.Open(params), 1);
    EXPECT_EQ(out.nChannels, 1);
    EXPECT_EQ(out.nBufferCount, 4);
    EXPECT_EQ(out.nNextBuffer, 0);
    EXPECT_EQ(QueuedCount(out), 0);
    out.Close();
    ExpectClosed(out);
}

TEST_F(WavOutHooked, HeaderArrayAllocationFailure) {
    CWavOut::hooks.pfnCalloc = &CountingCalloc;
    CWavOut::hooks.pfnFree = &CountingFree;
    failAtCall = 1;
    CWavOut out;
    LogWatch log;
    WavOutParams params = Params(2, 44100, 16);
    EXPECT_EQ(out.Open(params), 0);
    EXPECT_EQ(log.Count("malloc header failed"), 1);
    EXPECT_EQ(live, 0);
    ExpectClosed(out);
    ExpectReusable(out);
    EXPECT_EQ(live, 0);
}

TEST_F(WavOutHooked, FifthBlockAllocationFailureFreesWhatWasMade) {
    CWavOut::hooks.pfnCalloc = &CountingCalloc;
    CWavOut::hooks.pfnFree = &CountingFree;
    failAtCall = 6;  // the header array, four blocks, then the fifth block
    CWavOut out;
    LogWatch log;
    WavOutParams params = Params(2, 44100, 16);
    EXPECT_EQ(out.Open(params), 0);
    EXPECT_EQ(log.Count("malloc buffer failed"), 1);
    EXPECT_EQ(log.Count("waveOutUnprepareHeader\\(\\) return\\([0-9]+\\)"), 0);
    EXPECT_EQ(calls, 6);
    EXPECT_EQ(live, 0);
    ExpectClosed(out);
    ExpectReusable(out);
    EXPECT_EQ(live, 0);
}

TEST_F(WavOutHooked, PrepareFailureUnpreparesAndFreesWhatWasMade) {
    CWavOut::hooks.pfnCalloc = &CountingCalloc;
    CWavOut::hooks.pfnFree = &CountingFree;
    CWavOut::hooks.pfnPrepareHeader = &FailingPrepare;
    failAtCall = 7;  // array, block 0, prepare 0, block 1, prepare 1, block 2, prepare 2 fails
    CWavOut out;
    LogWatch log;
    WavOutParams params = Params(2, 44100, 16);
    EXPECT_EQ(out.Open(params), 0);
    EXPECT_EQ(log.Count("waveOutPrepareHeader\\(\\) return\\(7\\)"), 1);  // MMSYSERR_NOMEM
    EXPECT_EQ(log.Count("waveOutUnprepareHeader\\(\\) return\\([0-9]+\\)"), 0);
    EXPECT_EQ(live, 0);
    ExpectClosed(out);
    ExpectReusable(out);
    EXPECT_EQ(live, 0);
}

// ---------------------------------------------------------------------------------------------
// Writing: ring order, buffer lengths, silence.

TEST(WavOutWrite, SplitsIntoBuffersInRingOrder) {
    CWavOut out;
    WavOutParams params = Params(2, 44100, 16);
    ASSERT_EQ(out.Open(params), 1);
    std::vector<char> data = Pattern(10000);
    ASSERT_EQ(out.Write(data.data(), 10000), 1);
    EXPECT_EQ(out.nNextBuffer, 3);
    const DWORD lengths[] = {4096, 4096, 1808};
    size_t offset = 0;
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(out.pHeaders[i].dwBufferLength, lengths[i]);
        EXPECT_EQ(std::memcmp(out.pHeaders[i].lpData, data.data() + offset, lengths[i]), 0);
        offset += lengths[i];
    }
    for (int i = 3; i < 8; ++i) {
        EXPECT_EQ(out.pHeaders[i].dwBufferLength, 4096u);
        EXPECT_FALSE(Queued(out.pHeaders[i]));
    }
    out.WaitForBuffers();
    EXPECT_EQ(QueuedCount(out), 0);
    for (int i = 0; i < 3; ++i) EXPECT_NE(out.pHeaders[i].dwFlags & WHDR_DONE, 0u);

    // More than a ring's worth wraps round and reuses the buffers in order.
    std::vector<char> more = Pattern(9 * 4096 + 1);
    ASSERT_EQ(out.Write(more.data(), static_cast<int32_t>(more.size())), 1);
    EXPECT_EQ(out.nNextBuffer, (3 + 10) % 8);
    EXPECT_EQ(out.pHeaders[4].dwBufferLength, 1u);  // the tenth buffer, index (3 + 9) % 8
    EXPECT_EQ(out.pHeaders[4].lpData[0], more.back());
    out.WaitForBuffers();
    EXPECT_EQ(QueuedCount(out), 0);
    out.Close();
}

TEST(WavOutWrite, SilentWriteQueuesSilenceOfTheSameLengths) {
    struct Case {
        int channels, rate, bits;
        char silence;
    } cases[] = {{2, 44100, 16, 0}, {2, 22050, 8, static_cast<char>(0x80)}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bits);
        CWavOut out;
        WavOutParams params = Params(c.channels, c.rate, c.bits);
        ASSERT_EQ(out.Open(params), 1);
        out.bSilent = 1;
        std::vector<char> data = Pattern(10000);
        ASSERT_EQ(out.Write(data.data(), 10000), 1);
        const DWORD lengths[] = {4096, 4096, 1808};
        for (int i = 0; i < 3; ++i) {
            ASSERT_EQ(out.pHeaders[i].dwBufferLength, lengths[i]);
            std::vector<char> expected(lengths[i], c.silence);
            EXPECT_EQ(std::memcmp(out.pHeaders[i].lpData, expected.data(), lengths[i]), 0) << i;
        }
        // Switched back, the next buffer carries the data again.
        out.bSilent = 0;
        ASSERT_EQ(out.Write(data.data(), 100), 1);
        EXPECT_EQ(out.pHeaders[3].dwBufferLength, 100u);
        EXPECT_EQ(std::memcmp(out.pHeaders[3].lpData, data.data(), 100), 0);
        out.WaitForBuffers();
        out.Close();
        EXPECT_EQ(out.bSilent.load(), 0);
    }
}

TEST(WavOutWrite, EmptyWritesAndClosedObjects) {
    CWavOut out;
    std::vector<char> data = Pattern(100);
    EXPECT_EQ(out.Write(data.data(), 100), 0);  // never opened
    EXPECT_EQ(out.Write(data.data(), 0), 0);    // closed comes first

    WavOutParams params = Params(2, 44100, 16);
    ASSERT_EQ(out.Open(params), 1);
    EXPECT_EQ(out.Write(data.data(), 0), 1);
    EXPECT_EQ(out.Write(data.data(), -7), 1);
    EXPECT_EQ(out.Write(nullptr, 0), 1);
    EXPECT_EQ(out.nNextBuffer, 0);
    EXPECT_EQ(QueuedCount(out), 0);

    LogWatch log;
    EXPECT_EQ(out.Write(nullptr, 10), 0);
    EXPECT_EQ(log.Count("no data to write\\(10\\)"), 1);
    EXPECT_EQ(out.nNextBuffer, 0);

    out.Close();
    EXPECT_EQ(out.Write(data.data(), 100), 0);
    EXPECT_EQ(out.WaitForBuffers(), 1);
}

// ---------------------------------------------------------------------------------------------
// Stopping from another thread.

struct Writer {
    CWavOut* out;
    std::atomic<int> written{0};
    std::atomic<int> lastResult{-1};
    std::vector<char> chunk = Pattern(4096);

    static DWORD WINAPI Run(void* arg) {
        Writer* self = static_cast<Writer*>(arg);
        for (;;) {
            int result = self->out->Write(self->chunk.data(), 4096);
            self->lastResult = result;
            if (result == 0) return 0;
            ++self->written;
        }
    }
};

TEST(WavOutStop, StopOnClosedObjectAndTwice) {
    CWavOut out;
    EXPECT_EQ(out.Stop(), 1);
    EXPECT_EQ(out.Stop(), 1);
    ExpectClosed(out);

    WavOutParams params = Params(2, 44100, 16);
    ASSERT_EQ(out.Open(params), 1);
    std::vector<char> data = Pattern(8192);
    ASSERT_EQ(out.Write(data.data(), 8192), 1);
    EXPECT_EQ(out.Stop(), 1);
    EXPECT_EQ(out.nNextBuffer, -1);
    EXPECT_EQ(QueuedCount(out), 0);
    EXPECT_EQ(out.Stop(), 1);
    EXPECT_EQ(out.Write(data.data(), 8192), 0);
    EXPECT_EQ(QueuedCount(out), 0);  // nothing queued after the stop
    EXPECT_EQ(out.Write(data.data(), 0), 1);
    out.Close();
    ExpectClosed(out);
}

TEST(WavOutStop, StopFromAnotherThreadWaitsForTheQueuedSound) {
    CWavOut out;
    WavOutParams params = Params(2, 44100, 16);
    ASSERT_EQ(out.Open(params), 1);
    Writer writer;
    writer.out = &out;
    Thread thread(&Writer::Run, &writer);
    ASSERT_TRUE(thread.Started());

    // Let the writer fill the ring and go round it more than once.
    for (int i = 0; i < 400 && writer.written < 20; ++i) Sleep(25);
    ASSERT_GE(writer.written.load(), 20);
    EXPECT_GT(QueuedCount(out), 0);

    LogWatch log;
    EXPECT_EQ(out.Stop(), 1);
    // Everything queued has played by now: no mark is left, every buffer came back done.
    EXPECT_EQ(QueuedCount(out), 0);
    for (int i = 0; i < 8; ++i) EXPECT_NE(out.pHeaders[i].dwFlags & WHDR_DONE, 0u) << i;
    EXPECT_EQ(out.nNextBuffer, -1);

    ASSERT_TRUE(thread.Join(10000)) << "the writer did not see the stop";
    EXPECT_EQ(writer.lastResult.load(), 0);
    int written = writer.written.load();
    EXPECT_EQ(out.Write(writer.chunk.data(), 4096), 0);
    EXPECT_EQ(writer.written.load(), written);
    EXPECT_EQ(log.Count("wait for buffers timed out"), 0);
    EXPECT_EQ(log.Count("wait for a free buffer timed out"), 0);

    out.Close();  // after a stop: nothing is queued, everything is unprepared and freed
    ExpectClosed(out);
    ExpectReusable(out);
}

// ---------------------------------------------------------------------------------------------
// A device that refuses a buffer or never reports it done.

TEST(WavOutFaults, RefusedQueueFreesTheBufferAndStopsTheDevice) {
    CWavOut out;
    WavOutParams params = Params(2, 44100, 16);
    ASSERT_EQ(out.Open(params), 1);
    // An unprepared header is refused by waveOutWrite.
    ASSERT_EQ(waveOutUnprepareHeader(out.hWaveOut, &out.pHeaders[0], sizeof(WAVEHDR)),
              static_cast<MMRESULT>(MMSYSERR_NOERROR));
    LogWatch log;
    std::vector<char> data = Pattern(4096);
    EXPECT_EQ(out.Write(data.data(), 4096), 0);
    EXPECT_EQ(log.Count("waveOutWrite\\(\\) return\\(34\\)"), 1);  // WAVERR_UNPREPARED
    EXPECT_FALSE(Queued(out.pHeaders[0]));
    EXPECT_EQ(out.nNextBuffer, -1);
    // Nothing is left to wait for, and a writer that goes on gets no buffer.
    EXPECT_EQ(out.WaitForBuffers(), 1);
    EXPECT_EQ(out.Stop(), 1);
    EXPECT_EQ(out.Write(data.data(), 4096), 0);
    EXPECT_EQ(log.Count("wait for buffers timed out"), 0);
    out.Close();
    ExpectClosed(out);
    EXPECT_EQ(log.Count("waveOutUnprepareHeader\\(\\) return\\([0-9]+\\)"), 0);
}

TEST_F(WavOutHooked, LostDoneNotificationsGiveTheDeviceUpOnceAndItIsClosedAllTheSame) {
    CWavOut::hooks.pfnOnDone = &ThrowingDone;
    const int32_t openBefore = CWavOut::OpenDevices();
    CWavOut out;
    WavOutParams params = Params(2, 44100, 16);
    ASSERT_EQ(out.Open(params), 1);
    EXPECT_EQ(CWavOut::OpenDevices(), openBefore + 1);
    EXPECT_GE(out.WaitLimitMs(), 1000u);
    LogWatch log;

    // Nine buffers: the ninth waits for the first, which never comes back.
    std::vector<char> data = Pattern(9 * 4096);
    EXPECT_EQ(out.Write(data.data(), static_cast<int32_t>(data.size())), 0);
    EXPECT_EQ(log.Count("wait for a free buffer timed out"), 1);
    EXPECT_EQ(log.Count("exception occurs"), 1);
    EXPECT_EQ(out.nNextBuffer, -1);
    EXPECT_EQ(QueuedCount(out), 8);
    EXPECT_NE(out.GivenUp(), 0);

    // Given up: the owner's drain and a stop from another thread return at once, and neither
    // logs again.
    ULONGLONG start = GetTickCount64();
    out.WaitForBuffers();
    EXPECT_EQ(out.Stop(), 1);
    EXPECT_LT(GetTickCount64() - start, 500u);
    EXPECT_EQ(log.Count("wait for buffers timed out"), 0);

    // Closed on a thread of its own: here the device answers, so nothing is left open.
    out.Close();
    ExpectClosed(out);
    EXPECT_EQ(out.GivenUp(), 0);
    EXPECT_EQ(CWavOut::OpenDevices(), openBefore);
    EXPECT_EQ(log.Count("device left open: close did not return within 1000 ms"), 0);
    EXPECT_EQ(log.Count("waveOutUnprepareHeader\\(\\) return\\([0-9]+\\)"), 0);
    EXPECT_EQ(log.Count("exception occurs"), 1);
    CWavOut::hooks.pfnOnDone = nullptr;
    ExpectReusable(out);
}

// The process never holds more devices than the platform serves: one more open is refused
// before the device is asked, and a device closed frees its place.
TEST(WavOutLimit, OpenBeyondTheDeviceLimitIsRefusedUntilOneCloses) {
    const int32_t openBefore = CWavOut::OpenDevices();
    ASSERT_EQ(openBefore, 0);
    std::vector<CWavOut> outs(CWavOut::kMaxOpenDevices);
    for (CWavOut& out : outs) {
        WavOutParams params = Params(2, 44100, 16);
        ASSERT_EQ(out.Open(params), 1);
    }
    EXPECT_EQ(CWavOut::OpenDevices(), CWavOut::kMaxOpenDevices);

    LogWatch log;
    CWavOut extra;
    WavOutParams params = Params(1, 22050, 16);
    EXPECT_EQ(extra.Open(params), 0);
    ExpectClosed(extra);
    EXPECT_EQ(log.Count("too many devices open\\(63\\)"), 1) << log.Text();
    EXPECT_EQ(CWavOut::OpenDevices(), CWavOut::kMaxOpenDevices);

    outs[10].Close();
    EXPECT_EQ(CWavOut::OpenDevices(), CWavOut::kMaxOpenDevices - 1);
    params = Params(1, 22050, 16);
    EXPECT_EQ(extra.Open(params), 1);
    // Every device of the process still plays: a ring's worth on the last one comes back.
    std::vector<char> data = Pattern(8 * 4096);
    EXPECT_EQ(extra.Write(data.data(), static_cast<int32_t>(data.size())), 1);
    extra.WaitForBuffers();
    EXPECT_EQ(QueuedCount(extra), 0);
    EXPECT_EQ(extra.GivenUp(), 0);

    extra.Close();
    for (CWavOut& out : outs) out.Close();
    EXPECT_EQ(CWavOut::OpenDevices(), 0);
}

}  // namespace
