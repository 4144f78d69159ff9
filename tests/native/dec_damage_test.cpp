// The bit reservoir and damaged data, which the reference streams do not reach: frames that
// refer back past the held bytes, frames without room for their data, channel data running past
// the held bytes (the Huffman overrun), big values past the line limit, and the count1 part at
// the end of its bits. Random damage is the decoder fuzz target's.

#include <algorithm>

#include "dec_test_support.h"

namespace {

using dectest::BitWriter;

constexpr uint8_t kSentinel = 0x5A;

// A frame of length bytes: the header, side information from side, zeros after.
std::vector<uint8_t> Frame(std::vector<uint8_t> header, const BitWriter& side, size_t length) {
    header.insert(header.end(), side.bytes.begin(), side.bytes.end());
    header.resize(length);
    return header;
}
BitWriter Side(uint32_t mainDataBegin, int bits = 9) { BitWriter w; w.Put(mainDataBegin, bits); return w; }

// Decodes a frame into a block of sentinels; the block is left for inspection.
std::vector<uint8_t> pcm;
int Decode(CMP3Decoder& d, const std::vector<uint8_t>& frame) {
    pcm.assign(8192, kSentinel);
    MP3FrameIO io{};
    io.inData = frame.data(), io.inLength = int32_t(frame.size()), io.outData = pcm.data();
    return d.DecodeFrame(&io);
}
bool Untouched() { return std::all_of(pcm.begin(), pcm.end(), [](uint8_t b) { return b == kSentinel; }); }
bool Silent(size_t bytes) { return std::all_of(pcm.begin(), pcm.begin() + long(bytes), [](uint8_t b) { return b == 0; }); }

TEST(DecReservoir, ShortageSkipsThePcmButKeepsTheBytes) {
    auto d = dectest::Started(dectest::kMpeg1);  // 417-byte frames: 381 bytes of main data
    ASSERT_EQ(Decode(*d, Frame(dectest::kMpeg1, Side(10), 417)), 1);  // back into an empty reservoir
    EXPECT_TRUE(Untouched());
    EXPECT_EQ(d->ReservoirBytes, 381);
    ASSERT_EQ(Decode(*d, Frame(dectest::kMpeg1, Side(382), 417)), 1);  // one byte more than held
    EXPECT_TRUE(Untouched());
    EXPECT_EQ(d->ReservoirBytes, 762);
    ASSERT_EQ(Decode(*d, Frame(dectest::kMpeg1, Side(511), 417)), 1);  // held: decoded
    EXPECT_EQ(d->ReservoirStart, 762 - 511);
    EXPECT_TRUE(Silent(4608) && std::all_of(pcm.begin() + 4608, pcm.end(), [](uint8_t b) { return b == kSentinel; }));
}

// An MPEG-2 frame has one granule, which goes to the slot the toggle names; a frame skipped for
// want of data leaves the toggle, so that the next frame's granule overlaps the last decoded one.
TEST(DecReservoir, SkippedMpeg2FramesLeaveTheGranuleSlot) {
    const std::vector<uint8_t> mono = {0xFF, 0xF3, 0x80, 0xC0};  // 22.05 kHz 64 kbit/s: 208 bytes
    const auto frame = [&](uint32_t back, uint32_t gain) {
        BitWriter w = Side(back, 8);
        w.Put(0, 1 + 12 + 9);
        w.Put(gain, 8);
        return Frame(mono, w, 208);
    };
    auto d = dectest::Started(mono);
    ASSERT_EQ(Decode(*d, frame(5, 33)), 1);
    EXPECT_TRUE(Untouched());
    EXPECT_EQ(d->GranuleToggle, 0u);
    ASSERT_EQ(Decode(*d, frame(0, 44)), 1);
    EXPECT_EQ(d->GranuleToggle, 1u);
    EXPECT_EQ(d->GranuleInfo[0][0].global_gain, 44);
    EXPECT_TRUE(Silent(1152));
}

TEST(DecReservoir, FramesWithoutRoomForTheirDataAreSkippedWhole) {
    struct Case {
        const char* what;
        std::vector<uint8_t> stream, frame;
        int32_t heldBefore, heldAfter;
    };
    std::vector<uint8_t> mpeg1 = Frame(dectest::kMpeg1, Side(0), 835);  // sized at 22.05 kHz
    const Case cases[] = {
        {"an MPEG-1 frame in an MPEG-2 stream: no room for its second granule", dectest::kMpeg2, mpeg1, 0, 835 - 36},
        {"Layer I, 32 bytes: less than header and side information", dectest::kMpeg1,
         Frame({0xFF, 0xFF, 0x10, 0x40}, BitWriter(), 32), 0, 0},
        {"Layer II, 1693 bytes of main data past the fill limit", {0xFF, 0xFB, 0x98, 0x64},  // 32 kHz
         Frame({0xFF, 0xFD, 0xEA, 0x40}, BitWriter(), 1729), 6692, 6692},
    };
    for (const Case& c : cases) {
        auto d = dectest::Started(c.stream);
        d->ReservoirBytes = c.heldBefore;
        ASSERT_EQ(Decode(*d, c.frame), 1) << c.what;
        EXPECT_TRUE(Untouched()) << c.what;
        EXPECT_EQ(d->ReservoirBytes, c.heldAfter) << c.what;
    }
}

// 32 kbit/s single channel: 104-byte frames, 83 bytes of main data, zeros. Granule 0 claims 4095
// bits and 200 pairs of table 1, whose all-zero code is (1, 1): the pairs past the held bytes
// overrun, and the whole channel is cleared rather than read as loud zeros.
TEST(DecReservoir, ChannelDataPastTheHeldBytesIsCleared) {
    const std::vector<uint8_t> mono = {0xFF, 0xFB, 0x10, 0xC0};
    BitWriter side;
    side.Put(0, 9 + 5 + 4);
    side.Put(4095, 12), side.Put(200, 9), side.Put(200, 8), side.Put(0, 5);
    side.Put(1, 5), side.Put(1, 5), side.Put(1, 5);
    auto d = dectest::Started(mono);
    ASSERT_EQ(Decode(*d, Frame(mono, side, 104)), 1);
    EXPECT_TRUE(Silent(2304));
}

// Big values asking for 600 lines of MPEG-1's 558: cut there, with no line left for count1 data.
TEST(DecHuffmanEnds, BigValuesPastTheLineLimitAreCut) {
    auto d = dectest::Started(dectest::kMpeg1);
    GranuleSideInfo& g = d->GranuleInfo[0][0];
    g.big_values = 300, g.region0_count = 15, g.region1_count = 7;  // region 1 from line 162 to the end
    g.table_select[1] = 1, g.table_select[2] = 15;
    BitWriter w;
    for (int i = 162; i < 558; i += 2) w.PutCode(dectest::Codes().pairs.at({1, 1, 0})), w.Put(0, 1);
    w.Put(0, 32);  // would be count1 quadruples
    g.part2_3_length = uint32_t(w.bits);
    const std::vector<uint8_t> bits = w.Padded();
    std::fill_n(d->Spectrum[0][0], 576, 5.0f);  // what the slot held before
    d->SetBitPos(bits.data());
    d->SetBitLimit(bits.data() + bits.size());
    d->DecodeHuffman(0, 0, 0);
    EXPECT_EQ(d->LineCount[0][0], 558);
    EXPECT_EQ(d->BitsUsed(), w.bits - 32);
    for (int i : {160, 162, 556, 558})
        EXPECT_EQ(CMP3Decoder::LoadSlotInt(&d->Spectrum[0][0][i]), i >= 162 && i < 558 ? 1 : 0) << i;
}

TEST(DecHuffmanEnds, Count1StopsWhenItsBitsRunOut) {
    auto d = dectest::Started(dectest::kMpeg1);
    float out[16];
    const uint8_t zeros[16] = {};
    d->SetBitPos(zeros);
    d->SetBitLimit(zeros + 16);
    EXPECT_EQ(d->DecodeCount1(out, 16, 3, 1), 0);  // table B codes take 4 bits
    BitWriter w;
    w.PutCode(dectest::Codes().count1.at({'A', 8})), w.Put(0, 1);    // (1, 0, 0, 0)
    w.PutCode(dectest::Codes().count1.at({'A', 15})), w.Put(0, 4);   // (1, 1, 1, 1)
    const std::vector<uint8_t> bits = w.Padded();
    // One bit left: a quadruple is still read, and cleared again because its code and sign
    // ran past the channel's bits; the count keeps it (v only: two lines).
    std::fill(out, out + 16, 7.0f);
    d->SetBitPos(bits.data());
    d->SetBitLimit(bits.data() + bits.size());
    EXPECT_EQ(d->DecodeCount1(out, 16, 1, 0), 2);
    EXPECT_TRUE(std::all_of(out, out + 4, [](float v) { return CMP3Decoder::LoadSlotInt(&v) == 0; }));
    EXPECT_EQ(out[4], 7.0f);
    d->SetBitPos(bits.data());
    EXPECT_EQ(d->DecodeCount1(out, 16, w.bits, 0), 8);  // exactly enough: both kept
    EXPECT_EQ(CMP3Decoder::LoadSlotInt(&out[7]), 1);
    d->SetBitPos(bits.data());
    EXPECT_EQ(d->DecodeCount1(out, 7, 1000, 0), 2);  // seven lines hold one quadruple
}

}  // namespace
