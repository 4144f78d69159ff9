// The bit reservoir and damaged data, which the reference streams do not reach: frames that refer
// back past the held bytes, the compaction of the held bytes, frames too short or too long for
// the reservoir, channel data running past the held bytes (the Huffman overrun), big values past
// the line limit, the count1 part at the end of a channel's bits, and random frames that must
// neither fail nor reach outside any buffer. Bit streams are coded from the data file's code
// words, independently of the decoder's lookup tables.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <vector>

#include "dec_test_support.h"

namespace {

using dectest::BitWriter;
using dectest::HeaderFields;
using dectest::HuffmanCodeBook;
using dectest::MakeFrame;
using dectest::SilentSideInfo;
using dectest::SlotInt;
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
    return d.DecodeFrame(&io);
}

bool Untouched(const std::vector<uint8_t>& pcm, size_t from, size_t to) {
    return std::all_of(pcm.begin() + static_cast<long>(from), pcm.begin() + static_cast<long>(to),
                       [](uint8_t b) { return b == kSentinel; });
}

bool Silent(const std::vector<uint8_t>& pcm, size_t to) {
    return std::all_of(pcm.begin(), pcm.begin() + static_cast<long>(to), [](uint8_t b) { return b == 0; });
}

TEST(DecReservoir, ShortageSkipsPcmButKeepsTheBytes) {
    HeaderFields f;  // MPEG-1 44.1 kHz joint stereo 128 kbit/s: 417 bytes, 381 of main data
    auto d = StartedDecoder(f);
    std::vector<uint8_t> pcm;

    // A frame referring back 10 bytes into an empty reservoir: no PCM, bytes appended.
    ASSERT_EQ(Decode(*d, MakeFrame(f, SilentSideInfo(f, 10)), pcm), 1);
    EXPECT_EQ(d->ReservoirStart, -10);
    EXPECT_EQ(d->ReservoirBytes, 381);
    EXPECT_TRUE(Untouched(pcm, 0, pcm.size()));

    // Now 381 bytes are held: one byte further back is still too far.
    ASSERT_EQ(Decode(*d, MakeFrame(f, SilentSideInfo(f, 382)), pcm), 1);
    EXPECT_EQ(d->ReservoirStart, -1);
    EXPECT_EQ(d->ReservoirBytes, 762);
    EXPECT_TRUE(Untouched(pcm, 0, pcm.size()));

    // With 762 held, a reference back 511 bytes decodes, into this frame's PCM only.
    ASSERT_EQ(Decode(*d, MakeFrame(f, SilentSideInfo(f, 511)), pcm), 1);
    EXPECT_EQ(d->ReservoirStart, 762 - 511);
    EXPECT_TRUE(Silent(pcm, 4608));
    EXPECT_TRUE(Untouched(pcm, 4608, pcm.size()));
}

TEST(DecReservoir, HeldBytesAreCompactedOnlyAbove6692) {
    HeaderFields f;
    for (int held : {6692, 6693}) {
        SCOPED_TRACE(held);
        auto d = StartedDecoder(f);
        for (int i = 0; i < held; ++i)
            d->MainData[i] = static_cast<uint8_t>(i * 7);
        d->ReservoirBytes = held;
        std::vector<uint8_t> pcm;
        ASSERT_EQ(Decode(*d, MakeFrame(f, SilentSideInfo(f, 100), std::vector<uint8_t>(381, 0xC3)), pcm), 1);
        if (held == 6692) {
            EXPECT_EQ(d->ReservoirStart, 6592);
            EXPECT_EQ(d->ReservoirBytes, 6692 + 381);
            EXPECT_EQ(d->MainData[6692], 0xC3);
        } else {
            // The 100 bytes the frame refers back to now start the buffer.
            EXPECT_EQ(d->ReservoirStart, 0);
            EXPECT_EQ(d->ReservoirBytes, 100 + 381);
            for (int i = 0; i < 100; ++i)
                ASSERT_EQ(d->MainData[i], static_cast<uint8_t>((6593 + i) * 7)) << i;
            EXPECT_EQ(d->MainData[100], 0xC3);
        }
    }
}

TEST(DecReservoir, SkippedMpeg2FramesDoNotAdvanceTheGranuleSlot) {
    HeaderFields f;
    f.version = 2;
    f.bitrateIndex = 8;  // 64 kbit/s at 22.05 kHz: 208 bytes
    f.mode = 3;
    auto frameWithGain = [&](uint32_t back, uint32_t gain) {
        BitWriter w;
        w.Put(back, 8);
        w.Put(0, 1 + 12 + 9);
        w.Put(gain, 8);
        return MakeFrame(f, w);
    };
    std::vector<uint8_t> pcm;
    auto d = StartedDecoder(f);
    ASSERT_EQ(Decode(*d, frameWithGain(0, 11), pcm), 1);
    EXPECT_EQ(d->GranuleToggle, 1u);
    ASSERT_EQ(Decode(*d, frameWithGain(195, 22), pcm), 1);  // 208 - 4 - 9 = 195 held
    EXPECT_EQ(d->GranuleToggle, 0u);
    EXPECT_EQ(d->GranuleInfo[1][0].global_gain, 22);
    EXPECT_EQ(d->GranuleInfo[0][0].global_gain, 11);

    // A frame that cannot be decoded leaves the slot where it was; the next frame's side
    // information replaces what it put there.
    auto e = StartedDecoder(f);
    ASSERT_EQ(Decode(*e, frameWithGain(5, 33), pcm), 1);
    EXPECT_TRUE(Untouched(pcm, 0, pcm.size()));
    EXPECT_EQ(e->GranuleToggle, 0u);
    ASSERT_EQ(Decode(*e, frameWithGain(0, 44), pcm), 1);
    EXPECT_EQ(e->GranuleToggle, 1u);
    EXPECT_EQ(e->GranuleInfo[0][0].global_gain, 44);
    EXPECT_TRUE(Untouched(pcm, 1152, pcm.size()));
}

TEST(DecReservoir, FramesWithoutRoomForTheirDataAreSkippedWhole) {
    std::vector<uint8_t> pcm;
    // An MPEG-1 frame in an MPEG-2 stream, sized with the stream's 22.05 kHz: no room for its
    // second granule; its bytes still go to the reservoir.
    HeaderFields f2;
    f2.version = 2;
    f2.bitrateIndex = 8;
    auto d = StartedDecoder(f2);
    HeaderFields f1;
    std::vector<uint8_t> frame = MakeFrame(f1, SilentSideInfo(f1, 0));
    frame.resize(static_cast<size_t>(144 * 128000 / 22050));
    ASSERT_EQ(Decode(*d, frame, pcm), 1);
    EXPECT_TRUE(Untouched(pcm, 0, pcm.size()));
    EXPECT_EQ(d->ReservoirBytes, static_cast<int32_t>(frame.size()) - 36);

    // A Layer I header of 32 kbit/s at 44.1 kHz: 32 bytes, less than header and side information.
    d = StartedDecoder(HeaderFields{});
    std::vector<uint8_t> tiny = {0xFF, 0xFF, 0x10, 0x40};
    tiny.resize(32, 0xFF);
    ASSERT_EQ(Decode(*d, tiny, pcm), 1);
    EXPECT_EQ(d->ReservoirBytes, 0);
    EXPECT_TRUE(Untouched(pcm, 0, pcm.size()));

    // In a 32 kHz stream, a Layer II header of 384 kbit/s with padding: 1693 bytes of main data,
    // which with 6692 held would pass the buffer's fill limit.
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

TEST(DecReservoir, ChannelDataBeyondTheHeldBytesIsClearedNotReadAsZeros) {
    // 32 kbit/s single channel: 104-byte frames with 83 bytes of main data. Granule 0 claims
    // 4095 bits and 200 pairs of table 1, whose all-zero code is (1, 1): read as zeros past the
    // held bytes they would be loud; the overrun clears them instead.
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
    EXPECT_TRUE(Silent(pcm, 2304));
}

// Code word, then each value's sign (no linbits: tables below 16).
void PutPair(BitWriter& w, int table, int x, int y) {
    w.PutCode(HuffmanCodeBook::Get().Pair(table, std::abs(x), std::abs(y)));
    if (x)
        w.Put(x < 0, 1);
    if (y)
        w.Put(y < 0, 1);
}

// A quadruple of count1 table A or B with its sign bits.
void PutQuad(BitWriter& w, char table, int v, int wq, int x, int y) {
    const int code = (v != 0) << 3 | (wq != 0) << 2 | (x != 0) << 1 | (y != 0);
    w.PutCode(HuffmanCodeBook::Get().Count1(table).at(code));
    for (int value : {v, wq, x, y})
        if (value)
            w.Put(value < 0, 1);
}

class DecHuffmanEnds : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(HuffmanCodeBook::Get().Loaded()); }
    // Runs the stage on channel 0 of granule 0 with the written bits as its whole data.
    void Run(const GranuleSideInfo& g, const BitWriter& w, int limitBytes = -1) {
        d->GranuleInfo[0][0] = g;
        bytes = w.Bytes(static_cast<size_t>(w.BitCount() / 8 + 64));
        for (int i = 0; i < 576; ++i)
            CMP3Decoder::StoreSlotInt(&d->Spectrum[0][0][i], 1000 + i);  // stale contents
        d->SetBitPos(bytes.data());
        d->SetBitLimit(bytes.data() + (limitBytes < 0 ? static_cast<int>(bytes.size()) : limitBytes));
        d->DecodeHuffman(0, 0, 0);
    }
    std::unique_ptr<CMP3Decoder> d = StartedDecoder(HeaderFields{});  // MPEG-1: 558 lines
    std::vector<uint8_t> bytes;
};

TEST_F(DecHuffmanEnds, BigValuesBeyondTheLineLimitAreCutAndLeaveNoCount1Lines) {
    GranuleSideInfo g{};
    g.big_values = 300;  // 600 lines asked, 558 allowed
    g.region0_count = 15;
    g.region1_count = 7;  // region 2 would start at band 23: clamped, region 1 runs to the end
    g.table_select[1] = 1;
    g.table_select[2] = 15;
    BitWriter w;
    const int r1 = 162;  // l[16]
    for (int i = r1; i < 558; i += 2)
        PutPair(w, 1, 1, 0);
    w.Put(0, 32);  // would be count1 data, but no lines are left for it
    g.part2_3_length = static_cast<uint32_t>(w.BitCount());
    Run(g, w);
    EXPECT_EQ(d->LineCount[0][0], 558);
    EXPECT_EQ(d->BitsUsed(), w.BitCount() - 32);
    EXPECT_EQ(SlotInt(*d, 0, 0, r1 - 2), 0);
    EXPECT_EQ(SlotInt(*d, 0, 0, r1), 1);
    EXPECT_EQ(SlotInt(*d, 0, 0, 556), 1);
    EXPECT_EQ(SlotInt(*d, 0, 0, 558), 0);
}

TEST_F(DecHuffmanEnds, AnOverrunClearsEveryLine) {
    GranuleSideInfo g{};
    g.big_values = 100;
    g.region0_count = 15;
    g.region1_count = 7;
    g.table_select[0] = 1;
    g.table_select[1] = 1;
    BitWriter w;
    for (int i = 0; i < 200; i += 2)
        PutPair(w, 1, 1, 1);
    g.part2_3_length = static_cast<uint32_t>(w.BitCount());
    Run(g, w);
    ASSERT_FALSE(d->Overran());
    ASSERT_EQ(SlotInt(*d, 0, 0, 199), 1);

    // The same data with the limit 10 bytes in.
    Run(g, w, 10);
    EXPECT_TRUE(d->Overran());
    for (int i = 0; i < 576; ++i)
        ASSERT_EQ(SlotInt(*d, 0, 0, i), 0) << i;
    // Once past the limit the reader stops within a few bytes.
    EXPECT_LE(d->ReadPtr, bytes.data() + 10 + 16);
}

TEST_F(DecHuffmanEnds, Count1StopsWhenItsBitsRunOut) {
    float out[16];
    // Table B needs 4 bits for a code: with 3 left nothing is decoded.
    const uint8_t zeros[16] = {};
    d->SetBitPos(zeros);
    d->SetBitLimit(zeros + 16);
    EXPECT_EQ(d->DecodeCount1(out, 16, 3, 1), 0);
    EXPECT_EQ(d->BitsUsed(), 0);

    // Table A with 1 bit left still decodes one quadruple; its code and sign bits run past the
    // data, so it is cleared again, while the count keeps it (v only: two lines).
    BitWriter w;
    PutQuad(w, 'A', 1, 0, 0, 0);
    PutQuad(w, 'A', 1, 1, 1, 1);
    const std::vector<uint8_t> bits = w.Bytes(16);
    for (float& f : out)
        CMP3Decoder::StoreSlotInt(&f, 7);
    d->SetBitPos(bits.data());
    d->SetBitLimit(bits.data() + bits.size());
    EXPECT_EQ(d->DecodeCount1(out, 16, 1, 0), 2);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(CMP3Decoder::LoadSlotInt(&out[i]), 0);
    EXPECT_EQ(CMP3Decoder::LoadSlotInt(&out[4]), 7);

    // Exactly enough bits for both: the second is kept and ends the count.
    d->SetBitPos(bits.data());
    EXPECT_EQ(d->DecodeCount1(out, 16, w.BitCount(), 0), 8);
    EXPECT_EQ(CMP3Decoder::LoadSlotInt(&out[0]), 1);
    EXPECT_EQ(CMP3Decoder::LoadSlotInt(&out[7]), 1);

    // The line budget stops it too: n = 7 holds one quadruple.
    d->SetBitPos(bits.data());
    EXPECT_EQ(d->DecodeCount1(out, 7, 1000, 0), 2);
}

// Random side information and main data behind valid headers of every version, layer and mode:
// every frame is accepted, nothing is written past the frame's PCM, and (under the sanitizers)
// nothing is read or written outside a buffer.
TEST(DecDamage, RandomFramesNeverFailAndStayInsideTheirBuffers) {
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
