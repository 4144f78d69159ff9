// The frame entry, the bit reservoir and the granule driver: per-stream limits, frames that
// refer back past the held bytes, the compaction at 6692 bytes, MPEG-2 granule slots, where each
// granule's PCM goes, and damaged frames that must neither fail nor reach outside any buffer.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "dec_test_support.h"

namespace {

using dectest::BitWriter;
using dectest::FrameBytes;
using dectest::HeaderFields;
using dectest::HuffmanCodeBook;
using dectest::MakeFrame;
using dectest::NewDecoder;
using dectest::SilentSideInfo;
using dectest::StartedDecoder;

constexpr uint8_t kSentinel = 0x5A;

// Decodes one frame into a sentinel-filled block with room to spare; returns DecodeFrame's
// result. pcm keeps the block for inspection.
int Decode(CMP3Decoder& d, const std::vector<uint8_t>& frame, std::vector<uint8_t>& pcm) {
    pcm.assign(static_cast<size_t>(d.OutFrameBytes) + 4096, kSentinel);
    MP3FrameIO io{};
    io.inData = frame.data();
    io.inLength = static_cast<int32_t>(frame.size());
    io.outData = pcm.data();
    const int result = d.DecodeFrame(&io);
    if (result) {
        EXPECT_EQ(io.inLength, static_cast<int32_t>(frame.size()));
        EXPECT_EQ(io.outLength, d.OutFrameBytes);
    }
    return result;
}

bool Untouched(const std::vector<uint8_t>& pcm, size_t from, size_t to) {
    return std::all_of(pcm.begin() + static_cast<long>(from), pcm.begin() + static_cast<long>(to),
                       [](uint8_t b) { return b == kSentinel; });
}

TEST(DecFrame, ConstructionAndStartLeaveEveryRecordZero) {
    auto d = NewDecoder();
    EXPECT_EQ(d->FrequencyLimit, 24000);
    EXPECT_EQ(d->LastError, 0u);
    for (int gr = 0; gr < 2; ++gr)
        for (int ch = 0; ch < 2; ++ch) {
            EXPECT_EQ(d->LineCount[gr][ch], 0);
            for (int32_t v : d->BandInfo[gr][ch])
                EXPECT_EQ(v, 0);
            for (uint32_t v : d->ScaleFactors[gr][ch].longSf)
                EXPECT_EQ(v, 0u);
        }
    for (int k = 0; k < 22; ++k)
        EXPECT_EQ(d->BandEnd[0][k] | d->BandEnd[1][k] | d->BandWidth[0][k] | d->BandWidth[1][k], 0);
}

TEST(DecFrame, PerStreamLimitsAndBandRecords) {
    struct Case {
        int version, rateIndex;
        int lineLimit, longLimit, shortLimit, mixedLong;
    };
    const Case cases[] = {
        {1, 0, 558, 558, 558, 8}, {1, 1, 558, 558, 558, 8}, {1, 2, 558, 558, 558, 8},
        {2, 0, 530, 522, 522, 6}, {2, 1, 548, 540, 540, 6}, {2, 2, 530, 522, 522, 6},
        {3, 0, 530, 522, 522, 6}, {3, 1, 530, 522, 522, 6}, {3, 2, 558, 558, 498, 6},
    };
    for (const Case& c : cases) {
        HeaderFields f;
        f.version = c.version;
        f.sampleRateIndex = c.rateIndex;
        f.bitrateIndex = c.version == 1 ? 9 : 8;
        f.mode = 3;
        auto d = StartedDecoder(f);
        SCOPED_TRACE(testing::Message() << "version " << c.version << " rate " << c.rateIndex);
        EXPECT_EQ(d->SubbandLimit, 31);
        EXPECT_EQ(d->LineLimit, c.lineLimit);
        EXPECT_EQ(d->LongLineLimit, c.longLimit);
        EXPECT_EQ(d->ShortLineLimit, c.shortLimit);
        EXPECT_EQ(d->MixedLongBands, c.mixedLong);
        EXPECT_EQ(d->ChannelCount, 1);
        const int32_t* row = BandIndexTable[(c.version - 1) * 3 + c.rateIndex];
        EXPECT_EQ(d->BandEnd[0][21], 576);
        EXPECT_EQ(d->BandWidth[0][0], row[1]);
        EXPECT_EQ(d->BandEnd[1][12], 576);
        EXPECT_EQ(d->BandWidth[1][12], 192 - row[23 + 12]);
        EXPECT_EQ(d->BandEnd[1][13], 0);
        // The short part of a mixed block starts where its long part ends.
        EXPECT_EQ(d->BandEnd[0][d->MixedLongBands - 1], 3 * row[23 + 3]);
    }
}

TEST(DecFrame, ReservoirShortageSkipsPcmButKeepsTheBytes) {
    HeaderFields f;  // MPEG-1 44.1 kHz joint stereo 128 kbit/s: 417 bytes, 381 of main data
    auto d = StartedDecoder(f);
    std::vector<uint8_t> pcm;

    // A frame referring back 10 bytes into an empty reservoir: no PCM, bytes appended.
    ASSERT_EQ(Decode(*d, MakeFrame(f, SilentSideInfo(f, 10)), pcm), 1);
    EXPECT_EQ(d->ReservoirStart, -10);
    EXPECT_EQ(d->ReservoirBytes, 381);
    EXPECT_TRUE(Untouched(pcm, 0, pcm.size()));

    // Now 381 bytes are held: a reference back 381 bytes decodes.
    ASSERT_EQ(Decode(*d, MakeFrame(f, SilentSideInfo(f, 381)), pcm), 1);
    EXPECT_EQ(d->ReservoirStart, 0);
    EXPECT_EQ(d->ReservoirBytes, 762);
    EXPECT_FALSE(Untouched(pcm, 0, 4608));
    EXPECT_TRUE(Untouched(pcm, 4608, pcm.size()));

    // One byte too far back: skipped again.
    ASSERT_EQ(Decode(*d, MakeFrame(f, SilentSideInfo(f, 511)), pcm), 1);
    ASSERT_EQ(Decode(*d, MakeFrame(f, SilentSideInfo(f, 0)), pcm), 1);
    EXPECT_FALSE(Untouched(pcm, 0, 4608));
}

TEST(DecFrame, ReservoirIsCompactedOnlyAbove6692Bytes) {
    HeaderFields f;
    for (int held : {6692, 6693}) {
        auto d = StartedDecoder(f);
        for (int i = 0; i < held; ++i)
            d->MainData[i] = static_cast<uint8_t>(i * 7);
        d->ReservoirBytes = held;
        std::vector<uint8_t> main(381, 0xC3);
        std::vector<uint8_t> pcm;
        ASSERT_EQ(Decode(*d, MakeFrame(f, SilentSideInfo(f, 100), main), pcm), 1);
        if (held == 6692) {
            EXPECT_EQ(d->ReservoirStart, 6592);
            EXPECT_EQ(d->ReservoirBytes, 6692 + 381);
            EXPECT_EQ(d->MainData[0], 0);
            EXPECT_EQ(d->MainData[6692], 0xC3);
        } else {
            EXPECT_EQ(d->ReservoirStart, 0);
            EXPECT_EQ(d->ReservoirBytes, 100 + 381);
            // The 100 bytes the frame refers back to now start the buffer.
            for (int i = 0; i < 100; ++i)
                ASSERT_EQ(d->MainData[i], static_cast<uint8_t>((6593 + i) * 7)) << i;
            EXPECT_EQ(d->MainData[100], 0xC3);
        }
    }
}

TEST(DecFrame, Mpeg2GranuleSlotsAlternateAndSkippedFramesDoNotAdvance) {
    HeaderFields f;
    f.version = 2;
    f.bitrateIndex = 8;  // 64 kbit/s at 22.05 kHz: 208 bytes
    f.mode = 3;
    auto d = StartedDecoder(f);
    std::vector<uint8_t> pcm;
    auto frameWithGain = [&](uint32_t back, uint32_t gain) {
        BitWriter w;
        w.Put(back, 8);
        w.Put(0, 1);
        w.Put(0, 12 + 9);
        w.Put(gain, 8);
        return MakeFrame(f, w);
    };
    ASSERT_EQ(Decode(*d, frameWithGain(0, 11), pcm), 1);
    EXPECT_EQ(d->GranuleToggle, 1u);
    EXPECT_EQ(d->GranuleInfo[0][0].global_gain, 11);
    ASSERT_EQ(Decode(*d, frameWithGain(195, 22), pcm), 1);  // 208 - 4 - 9 = 195 held
    EXPECT_EQ(d->GranuleToggle, 0u);
    EXPECT_EQ(d->GranuleInfo[1][0].global_gain, 22);
    EXPECT_EQ(d->GranuleInfo[0][0].global_gain, 11);

    // A frame that cannot be decoded leaves the slot where it was; its side information went
    // into that slot and the next frame's replaces it.
    auto e = StartedDecoder(f);
    ASSERT_EQ(Decode(*e, frameWithGain(5, 33), pcm), 1);
    EXPECT_TRUE(Untouched(pcm, 0, pcm.size()));
    EXPECT_EQ(e->GranuleToggle, 0u);
    ASSERT_EQ(Decode(*e, frameWithGain(0, 44), pcm), 1);
    EXPECT_EQ(e->GranuleToggle, 1u);
    EXPECT_EQ(e->GranuleInfo[0][0].global_gain, 44);
    EXPECT_EQ(d->OutFrameBytes, 1152);
    EXPECT_TRUE(Untouched(pcm, 1152, pcm.size()));
}

// Side information for a single-channel MPEG-1 frame whose granule gr has a few loud lines
// coded with table 1 and the other granule is silent.
std::vector<uint8_t> LoudGranuleFrame(const HeaderFields& f, int loudGranule) {
    BitWriter main;
    for (int i = 0; i < 8; ++i)
        main.PutCode(HuffmanCodeBook::Get().Pair(1, 1, 0)), main.Put(i & 1, 1);
    BitWriter side;
    side.Put(0, 9);
    side.Put(0, 5);
    side.Put(0, 4);
    for (int gr = 0; gr < 2; ++gr) {
        const bool loud = gr == loudGranule;
        side.Put(loud ? static_cast<uint32_t>(main.BitCount()) : 0, 12);
        side.Put(loud ? 8 : 0, 9);
        side.Put(loud ? 170 : 0, 8);
        side.Put(0, 4 + 1);
        side.Put(loud ? 1 : 0, 5);
        side.Put(0, 5 + 5 + 4 + 3 + 1 + 1 + 1);
    }
    return MakeFrame(f, side, main.Bytes());
}

TEST(DecFrame, Mpeg1SecondGranuleWritesTheSecondHalfOfTheBlock) {
    HeaderFields f;
    f.mode = 3;
    auto d = StartedDecoder(f);
    ASSERT_EQ(d->OutFrameBytes, 2304);
    std::vector<uint8_t> pcm;
    ASSERT_EQ(Decode(*d, LoudGranuleFrame(f, 1), pcm), 1);
    EXPECT_TRUE(std::all_of(pcm.begin(), pcm.begin() + 1152, [](uint8_t b) { return b == 0; }));
    EXPECT_FALSE(std::all_of(pcm.begin() + 1152, pcm.begin() + 2304, [](uint8_t b) { return b == 0; }));
    EXPECT_TRUE(Untouched(pcm, 2304, pcm.size()));

    // The same granule first: sound in the first half.
    auto e = StartedDecoder(f);
    ASSERT_EQ(Decode(*e, LoudGranuleFrame(f, 0), pcm), 1);
    EXPECT_FALSE(std::all_of(pcm.begin(), pcm.begin() + 1152, [](uint8_t b) { return b == 0; }));
}

TEST(DecFrame, ChannelDataBeyondTheHeldBytesIsReadAsZerosAndCleared) {
    // 32 kbit/s single channel: 104-byte frames with 83 bytes of main data. Granule 0 claims
    // 4095 bits and 200 pairs of table 1, whose all-zero code is (1, 1): read as zeros past
    // the held bytes they would be loud; the overrun clears them instead.
    HeaderFields f;
    f.bitrateIndex = 1;
    f.mode = 3;
    auto d = StartedDecoder(f);
    BitWriter side;
    side.Put(0, 9 + 5 + 4);
    side.Put(4095, 12);
    side.Put(200, 9);
    side.Put(200, 8);
    side.Put(0, 5);
    side.Put(1, 5);
    side.Put(1, 5);
    side.Put(1, 5);
    side.Put(0, 4 + 3 + 3);
    std::vector<uint8_t> pcm;
    ASSERT_EQ(Decode(*d, MakeFrame(f, side), pcm), 1);
    EXPECT_TRUE(std::all_of(pcm.begin(), pcm.begin() + 2304, [](uint8_t b) { return b == 0; }));
    EXPECT_GE(d->MainDataBitPos, 4095);
}

TEST(DecFrame, AnMpeg1FrameInAnMpeg2StreamHasNoRoomForItsSecondGranule) {
    HeaderFields f2;
    f2.version = 2;
    f2.bitrateIndex = 8;
    auto d = StartedDecoder(f2);
    HeaderFields f1;  // MPEG-1, sized with the stream's 22.05 kHz
    std::vector<uint8_t> frame = MakeFrame(f1, SilentSideInfo(f1, 0));
    frame.resize(static_cast<size_t>(144 * 128000 / 22050));
    std::vector<uint8_t> pcm;
    ASSERT_EQ(Decode(*d, frame, pcm), 1);
    EXPECT_TRUE(Untouched(pcm, 0, pcm.size()));
    EXPECT_EQ(d->ReservoirBytes, static_cast<int32_t>(frame.size()) - 36);
}

TEST(DecFrame, FramesTooShortOrTooLongForTheReservoirAreSkippedWhole) {
    HeaderFields f;  // stream at 44.1 kHz stereo
    auto d = StartedDecoder(f);
    std::vector<uint8_t> pcm;
    // A Layer I header of 32 kbit/s: (12 x 32000 / 44100) x 4 = 32 bytes, less than the
    // header and side information.
    std::vector<uint8_t> tiny = {0xFF, 0xFF, 0x10, 0x40};
    tiny.resize(32, 0xFF);
    ASSERT_EQ(Decode(*d, tiny, pcm), 1);
    EXPECT_EQ(d->ReservoirBytes, 0);
    EXPECT_TRUE(Untouched(pcm, 0, pcm.size()));

    // In a 32 kHz stream, a Layer II header of 384 kbit/s with padding: 1729 bytes, 1693 of
    // them main data; with 6692 held they would pass the buffer's fill limit.
    HeaderFields f32;
    f32.sampleRateIndex = 2;
    d = StartedDecoder(f32);
    std::vector<uint8_t> big = {0xFF, 0xFD, 0xEA, 0x40};
    big.resize(1729, 0);
    d->ReservoirBytes = 6692;
    ASSERT_EQ(Decode(*d, big, pcm), 1);
    EXPECT_EQ(d->ReservoirBytes, 6692);
    EXPECT_TRUE(Untouched(pcm, 0, pcm.size()));
}

// Random side information and main data behind valid headers of every version, layer and mode:
// every frame is accepted, nothing is written past the frame's PCM, and (under the sanitizers)
// nothing is read or written outside a buffer.
TEST(DecFrame, DamagedFramesNeverFailAndStayInsideTheirBuffers) {
    std::mt19937 random(20261123);
    for (int stream = 0; stream < 24; ++stream) {
        HeaderFields first;
        first.version = 1 + stream % 3;
        first.sampleRateIndex = (stream / 3) % 3;
        first.mode = stream % 4;
        first.bitrateIndex = 1 + static_cast<int>(random() % 14);
        auto d = StartedDecoder(first);
        for (int n = 0; n < 120; ++n) {
            HeaderFields f = first;
            if (random() % 8 == 0) {
                f.version = 1 + static_cast<int>(random() % 3);
                f.layer = 1 + static_cast<int>(random() % 3);
                f.mode = static_cast<int>(random() % 4);
                f.sampleRateIndex = static_cast<int>(random() % 3);
            }
            f.bitrateIndex = 1 + static_cast<int>(random() % 14);
            f.crc = random() % 2;
            f.padding = random() % 2;
            f.modeExtension = static_cast<int>(random() % 4);
            std::vector<uint8_t> frame = dectest::MakeHeader(f);
            frame.resize(7000);  // the longest header: Layer II 384 kbit/s at 8 kHz
            for (size_t i = 4; i < frame.size(); ++i)
                frame[i] = static_cast<uint8_t>(random());
            MP3FrameIO io{};
            io.inData = frame.data();
            io.inLength = static_cast<int32_t>(frame.size());
            std::vector<uint8_t> pcm(static_cast<size_t>(d->OutFrameBytes) + 64, kSentinel);
            io.outData = pcm.data();
            ASSERT_EQ(d->DecodeFrame(&io), 1) << stream << " " << n;
            ASSERT_TRUE(Untouched(pcm, static_cast<size_t>(d->OutFrameBytes), pcm.size()));
            ASSERT_LE(d->ReservoirBytes, 8192);
            for (int gr = 0; gr < 2; ++gr)
                for (int ch = 0; ch < 2; ++ch) {
                    ASSERT_GE(d->LineCount[gr][ch], 0);
                    ASSERT_LE(d->LineCount[gr][ch], 576);
                }
        }
    }
}

}  // namespace
