// The wave output over the native stand-in device: the log line of each failure, how writes
// split into the ring, and how lost notifications end. (Its format refusal, the device limit
// and stops are the system tests': they need Wine's own sound path.)

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <thread>

#include "Standins.h"
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
    // Opens out on 44.1 kHz 16-bit stereo with the default ring, or on a 16 ms ring of two
    // buffers at 8 kHz 8-bit mono, with the device doing what script says.
    static int Open(CWavOut& out, const fake_wave::Script& script, bool small = false) {
        fake_wave::Reset(script);
        WavOutParams params = small ? WavOutParams{1, 8000, 8, 2, 64} : WavOutParams{2, 44100, 16};
        return out.Open(params);
    }
    LogCapture log;
};

// Each failure of an open is logged once, leaves nothing allocated (the leak check of the ASan
// build sees it) and no device open, and the object opens again afterwards.
TEST_F(WavOutTest, EachOpenFailureIsLoggedAndTheObjectStaysReusable) {
    fake_wave::Script refuse, header, fifthBlock, prepare;
    refuse.refuseOpen = true;
    header.failAllocAt = 1;
    fifthBlock.failAllocAt = 6;  // the header array, then the blocks
    prepare.failPrepareAt = 3;
    const std::pair<fake_wave::Script, const char*> cases[] = {
        {refuse, "waveOutOpen() return(11)"},
        {header, "malloc header failed"},
        {fifthBlock, "malloc buffer failed"},
        {prepare, "waveOutPrepareHeader() return(11)"},
    };
    for (const auto& [script, logged] : cases) {
        LogCapture caseLog;
        CWavOut out;
        EXPECT_EQ(Open(out, script), 0);
        EXPECT_TRUE(out.hWaveOut == 0 && fake_wave::OpenDevices() == 0);
        EXPECT_EQ(caseLog.Messages(), Lines{"[player/pub/WavOut:*]" + std::string(logged)});
        EXPECT_EQ(Open(out, {}), 1);
    }
}

TEST_F(WavOutTest, WritesSplitIntoTheRingInOrderAndSilenceKeepsTheLengths) {
    std::string data(10000, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + 1);
    CWavOut out;
    EXPECT_EQ(out.Write(data.data(), 10), 0);  // closed
    ASSERT_EQ(Open(out, {}), 1);
    EXPECT_TRUE(out.Write(data.data(), 0) == 1 && out.Write(data.data(), -5) == 1);
    EXPECT_EQ(out.Write(data.data(), 10000), 1);
    out.bSilent = 1;
    EXPECT_EQ(out.Write(data.data(), 10000), 1);
    out.WaitForBuffers();
    out.Close();
    EXPECT_EQ(fake_wave::Written(),
              (Lines{data.substr(0, 4096), data.substr(4096, 4096), data.substr(8192),
                     std::string(4096, '\0'), std::string(4096, '\0'), std::string(1808, '\0')}));

    // Unsigned 8-bit PCM is silent at 0x80.
    ASSERT_EQ(Open(out, {}, true), 1);
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
    CWavOut out;
    ASSERT_EQ(Open(out, script), 1);
    std::string data(10000, 'x');
    EXPECT_TRUE(out.Write(data.data(), 10000) == 0 && out.Write(data.data(), 10) == 0);
    out.WaitForBuffers();
    EXPECT_EQ(out.GivenUp(), 0);
    EXPECT_EQ(log.Messages(), Lines{"[player/pub/WavOut:*]waveOutWrite() return(11)"});
}

// A device that stops reporting finished buffers: the writer gives it up once, logged; its close
// runs on a thread of its own and, when that does not return, the device is left to it, which
// must not touch the deleted object when it returns at last.
TEST_F(WavOutTest, SilentDeviceIsGivenUpAndLeftOpenWhenItsCloseHangs) {
    fake_wave::Script script;
    script.stall = true;
    auto out = std::make_unique<CWavOut>();
    ASSERT_EQ(Open(*out, script, true), 1);
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
    CWavOut out;
    ASSERT_EQ(Open(out, script, true), 1);
    EXPECT_EQ(out.Write("x", 1), 1);
    out.WaitForBuffers();
    // Which of the two comes first depends on when the notification ran.
    Lines logged = log.Messages();
    std::sort(logged.begin(), logged.end());
    EXPECT_EQ(logged, (Lines{"[player/pub/WavOut:*]exception occurs",
                             "[player/pub/WavOut:*]wait for buffers timed out"}));
}

}  // namespace
