// The wave output over the native stand-in device: how it opens and refuses, the log line of
// each failure, how writes split into the ring, and how stops and lost notifications end.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <thread>

#include "FakeWaveDevice.h"
#include "player/pub/WavOut.h"
#include "tests/support/TestSupport.h"

using test_support::LogCapture;
using Lines = std::vector<std::string>;

namespace {

class WavOutTest : public ::testing::Test {
protected:
    void SetUp() override { fake_wave::Reset(); }
    void TearDown() override {
        fake_wave::Release();
        EXPECT_EQ(fake_wave::OpenDevices(), 0);
    }
    // 44.1 kHz 16-bit stereo on the default ring unless said otherwise.
    static WavOutParams Params(int32_t channels = 2, int32_t rate = 44100, int32_t bits = 16,
                               int32_t count = 0, int32_t size = 0) {
        return WavOutParams{channels, rate, bits, count, size};
    }
    LogCapture log;
};

TEST_F(WavOutTest, OpenAppliesTheDefaultsAndRefusesFormatsWithoutBytesPerSecond) {
    struct Case {
        WavOutParams params;
        int opened;
        uint32_t sleepMs;
        const char* logged;
    };
    const Case cases[] = {
        {Params(), 1, 92, nullptr},
        {Params(1, 22050), 1, 371, nullptr},
        {Params(1, 8000, 8), 1, 2048, nullptr},
        {Params(2, 44100, 16, 1, 100), 1, 0, nullptr},  // one buffer: never sleeps
        {Params(0), 0, 0, "[player/pub/WavOut:*]invalid format(0,44100,16)"},
        {Params(2, 0), 0, 0, "[player/pub/WavOut:*]invalid format(2,0,16)"},
        {Params(2, 44100, 4), 0, 0, "[player/pub/WavOut:*]invalid format(2,44100,4)"},
        {Params(2, 384001), 0, 0, "[player/pub/WavOut:*]invalid format(2,384001,16)"},
    };
    for (const Case& c : cases) {
        LogCapture caseLog;
        CWavOut out;
        WavOutParams params = c.params;
        EXPECT_EQ(out.Open(params), c.opened);
        EXPECT_EQ(out.dwSleepMs, c.sleepMs);
        if (c.opened && c.params.nBufferCount == 0) {
            EXPECT_EQ(params.nBufferCount, 8);  // the defaults are written back
            EXPECT_EQ(params.nBufferSize, 4096);
        }
        EXPECT_EQ(caseLog.Messages(), c.logged ? Lines{c.logged} : Lines{});
    }
}

// Each failure of an open is logged once, leaves nothing allocated (the leak check of the ASan
// build sees it) and no device open, and the object opens again afterwards.
TEST_F(WavOutTest, EachOpenFailureIsLoggedAndTheObjectStaysReusable) {
    struct Case {
        fake_wave::Script script;
        const char* logged;
    };
    fake_wave::Script refuse, header, fifthBlock, prepare;
    refuse.refuseOpen = true;
    header.failAllocAt = 1;
    fifthBlock.failAllocAt = 6;  // the header array, then the blocks
    prepare.failPrepareAt = 3;
    const Case cases[] = {
        {refuse, "[player/pub/WavOut:*]waveOutOpen() return(11)"},
        {header, "[player/pub/WavOut:*]malloc header failed"},
        {fifthBlock, "[player/pub/WavOut:*]malloc buffer failed"},
        {prepare, "[player/pub/WavOut:*]waveOutPrepareHeader() return(11)"},
    };
    for (const Case& c : cases) {
        LogCapture caseLog;
        fake_wave::Reset(c.script);
        CWavOut out;
        WavOutParams params = Params();
        EXPECT_EQ(out.Open(params), 0);
        EXPECT_EQ(out.hWaveOut, 0);
        EXPECT_EQ(fake_wave::OpenDevices(), 0);
        EXPECT_EQ(caseLog.Messages(), Lines{c.logged});
        fake_wave::Reset();
        EXPECT_EQ(out.Open(params), 1);
    }
}

TEST_F(WavOutTest, WritesSplitIntoTheRingInOrderAndSilenceKeepsTheLengths) {
    std::string data(10000, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + 1);
    CWavOut out;
    EXPECT_EQ(out.Write(data.data(), 10), 0);  // closed
    WavOutParams params = Params();
    ASSERT_EQ(out.Open(params), 1);
    EXPECT_EQ(out.Write(data.data(), 0), 1);
    EXPECT_EQ(out.Write(data.data(), -5), 1);
    EXPECT_EQ(out.Write(data.data(), 10000), 1);
    out.bSilent = 1;
    EXPECT_EQ(out.Write(data.data(), 10000), 1);
    out.WaitForBuffers();
    out.Close();
    EXPECT_EQ(fake_wave::Written(),
              (Lines{data.substr(0, 4096), data.substr(4096, 4096), data.substr(8192),
                     std::string(4096, '\0'), std::string(4096, '\0'), std::string(1808, '\0')}));

    // Unsigned 8-bit PCM is silent at 0x80.
    fake_wave::Reset();
    params = Params(1, 8000, 8);
    ASSERT_EQ(out.Open(params), 1);
    out.bSilent = 1;
    EXPECT_EQ(out.Write(data.data(), 3), 1);
    out.WaitForBuffers();
    EXPECT_EQ(fake_wave::Written(), Lines{std::string(3, '\x80')});
    EXPECT_EQ(log.Messages(), Lines{});
}

// A refused queue frees its buffer again and stops the output: the wait that follows does not
// wait for a buffer that will never come back.
TEST_F(WavOutTest, RefusedQueueFreesItsBufferAndStopsTheOutput) {
    fake_wave::Script script;
    script.failWriteAt = 2;
    fake_wave::Reset(script);
    CWavOut out;
    WavOutParams params = Params();
    ASSERT_EQ(out.Open(params), 1);
    std::string data(10000, 'x');
    EXPECT_EQ(out.Write(data.data(), 10000), 0);
    EXPECT_EQ(out.Write(data.data(), 10), 0);
    out.WaitForBuffers();
    EXPECT_EQ(out.GivenUp(), 0);
    EXPECT_EQ(log.Messages(), Lines{"[player/pub/WavOut:*]waveOutWrite() return(11)"});
}

// Stop from another thread ends the writer's Write and returns once the queued sound has played.
TEST_F(WavOutTest, StopEndsTheWriterAndWaitsForTheQueuedSound) {
    fake_wave::Script script;
    script.playMicros = 20000;
    fake_wave::Reset(script);
    CWavOut out;
    WavOutParams params = Params();
    ASSERT_EQ(out.Open(params), 1);
    std::string data(4096 * 40, 'x');
    int written = -1;
    std::thread writer(
        [&] { written = out.Write(data.data(), static_cast<int32_t>(data.size())); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    out.Stop();
    EXPECT_EQ(fake_wave::Pending(), 0);
    writer.join();
    EXPECT_EQ(written, 0);
    EXPECT_LT(fake_wave::Written().size(), 40u);
    out.Stop();  // twice is harmless
    EXPECT_EQ(out.Write(data.data(), 10), 0);
}

// A device that stops reporting finished buffers: the writer gives it up once, logged; its close
// runs on a thread of its own and, when that does not return, the device is left to it.
TEST_F(WavOutTest, SilentDeviceIsGivenUpAndLeftOpenWhenItsCloseHangs) {
    fake_wave::Script script;
    script.stall = true;
    fake_wave::Reset(script);
    auto out = std::make_unique<CWavOut>();
    WavOutParams params = Params(1, 8000, 8, 2, 64);  // a 16 ms ring: a wait limit of 1048 ms
    ASSERT_EQ(out->Open(params), 1);
    EXPECT_EQ(out->WaitLimitMs(), 1048u);
    std::string data(64 * 5, 'x');
    EXPECT_EQ(out->Write(data.data(), static_cast<int32_t>(data.size())), 0);
    EXPECT_EQ(out->GivenUp(), 1);
    out->WaitForBuffers();
    out.reset();
    EXPECT_EQ(
        log.Messages(),
        (Lines{"[player/pub/WavOut:*]wait for a free buffer timed out",
               "[player/pub/WavOut:*]device left open: close did not return within 1000 ms"}));
    EXPECT_EQ(CWavOut::OpenDevices(), 1);
    fake_wave::Release();
    for (int i = 0; i < 200 && CWavOut::OpenDevices() > 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(CWavOut::OpenDevices(), 0);
}

// An exception in the device callback drops that notification and is logged by the owner.
TEST_F(WavOutTest, ExceptionInTheDeviceCallbackIsLoggedByTheOwner) {
    fake_wave::Script script;
    script.throwInDone = true;
    fake_wave::Reset(script);
    CWavOut out;
    WavOutParams params = Params(1, 8000, 8, 2, 64);
    ASSERT_EQ(out.Open(params), 1);
    EXPECT_EQ(out.Write("x", 1), 1);
    out.WaitForBuffers();
    // Which of the two comes first depends on when the notification ran.
    Lines logged = log.Messages();
    std::sort(logged.begin(), logged.end());
    EXPECT_EQ(logged, (Lines{"[player/pub/WavOut:*]exception occurs",
                             "[player/pub/WavOut:*]wait for buffers timed out"}));
}

// One device more than the platform holds is refused until one closes.
TEST_F(WavOutTest, OpenBeyondTheDeviceLimitIsRefusedUntilOneCloses) {
    std::vector<std::unique_ptr<CWavOut>> outs;
    WavOutParams params = Params();
    for (int i = 0; i <= CWavOut::kMaxOpenDevices; ++i) {
        outs.push_back(std::make_unique<CWavOut>());
        EXPECT_EQ(outs.back()->Open(params), i < CWavOut::kMaxOpenDevices ? 1 : 0) << i;
    }
    EXPECT_EQ(CWavOut::OpenDevices(), CWavOut::kMaxOpenDevices);
    EXPECT_EQ(log.Messages(), Lines{"[player/pub/WavOut:*]too many devices open(63)"});
    outs.front()->Close();
    EXPECT_EQ(outs.back()->Open(params), 1);
}

}  // namespace
