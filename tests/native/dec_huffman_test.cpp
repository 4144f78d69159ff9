// The Huffman stage: regions with their own tables (one level, several levels, linbits), the
// count1 part with tables A and B at the end of a channel's bits, the line count, the clearing
// above the limits and after an overrun. Bit streams are coded from the data file's code words.

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "dec_test_support.h"

namespace {

using dectest::BitWriter;
using dectest::HeaderFields;
using dectest::HuffmanCodeBook;
using dectest::SlotInt;
using dectest::StartedDecoder;

const int kLinbits[32] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                          1, 2, 3, 4, 6, 8, 10, 13, 4, 5, 6, 7, 8, 9, 11, 13};

// Code word, then x's linbits and sign, then y's linbits and sign.
void PutPair(BitWriter& w, int table, int x, int y) {
    const int ax = std::abs(x), ay = std::abs(y);
    const int linbits = kLinbits[table];
    const int cx = linbits && ax >= 15 ? 15 : ax;
    const int cy = linbits && ay >= 15 ? 15 : ay;
    w.PutCode(HuffmanCodeBook::Get().Pair(table, cx, cy));
    if (cx == 15 && linbits)
        w.Put(static_cast<uint32_t>(ax - 15), linbits);
    if (ax)
        w.Put(x < 0, 1);
    if (cy == 15 && linbits)
        w.Put(static_cast<uint32_t>(ay - 15), linbits);
    if (ay)
        w.Put(y < 0, 1);
}

// A quadruple of count1 table A or B with its sign bits.
void PutQuad(BitWriter& w, char table, int v, int wq, int x, int y) {
    const int values[4] = {v, wq, x, y};
    const int code = (v != 0) << 3 | (wq != 0) << 2 | (x != 0) << 1 | (y != 0);
    w.PutCode(HuffmanCodeBook::Get().Count1(table).at(code));
    for (int value : values)
        if (value)
            w.Put(value < 0, 1);
}

class DecHuffman : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(HuffmanCodeBook::Get().Loaded());
        d = StartedDecoder(HeaderFields{});  // MPEG-1 44.1 kHz: LineLimit 558
    }
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
    std::unique_ptr<CMP3Decoder> d;
    std::vector<uint8_t> bytes;
};

TEST_F(DecHuffman, ThreeRegionsWithTheirTablesThenCount1) {
    GranuleSideInfo g{};
    g.region0_count = 1;  // region 1 starts at l[2] = 8
    g.region1_count = 1;  // region 2 at l[4] = 16
    g.big_values = 12;    // big values end at 24
    g.table_select[0] = 1;
    g.table_select[1] = 13;  // several levels
    g.table_select[2] = 24;  // linbits 4
    const int expected[24] = {1, -1, 0, 1, -1, 0, 0, 0,                 // table 1
                              15, -14, 0, 7, -3, 15, 0, 0,              // table 13
                              -24, 3, 30, -15, 15, 0, 0, -2};           // table 24 with escapes
    BitWriter w;
    for (int i = 0; i < 24; i += 2)
        PutPair(w, i < 8 ? 1 : i < 16 ? 13 : 24, expected[i], expected[i + 1]);
    PutQuad(w, 'A', 0, 1, -1, 0);
    PutQuad(w, 'A', 0, 0, 0, 0);
    PutQuad(w, 'A', -1, 0, 0, 0);
    g.part2_3_length = static_cast<uint32_t>(w.BitCount());
    Run(g, w);
    for (int i = 0; i < 24; ++i)
        EXPECT_EQ(SlotInt(*d, 0, 0, i), expected[i]) << i;
    const int quads[12] = {0, 1, -1, 0, 0, 0, 0, 0, -1, 0, 0, 0};
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(SlotInt(*d, 0, 0, 24 + i), quads[i]) << 24 + i;
    // The last non-zero quadruple has only v set: the count ends two lines into it.
    EXPECT_EQ(d->LineCount[0][0], 24 + 8 + 2);
    EXPECT_EQ(d->BitsUsed(), w.BitCount());
    for (int i = 34; i < 576; ++i)
        ASSERT_EQ(SlotInt(*d, 0, 0, i), 0) << i;
}

TEST_F(DecHuffman, TablesWithoutCodeZeroTheirRegionAndReadNothing) {
    GranuleSideInfo g{};
    g.region0_count = 0;
    g.region1_count = 0;
    g.big_values = 20;
    g.table_select[0] = 0;
    g.table_select[1] = 4;
    g.table_select[2] = 14;
    Run(g, BitWriter());
    EXPECT_EQ(d->BitsUsed(), 0);
    for (int i = 0; i < 576; ++i)
        ASSERT_EQ(SlotInt(*d, 0, 0, i), 0) << i;
    EXPECT_EQ(d->LineCount[0][0], 40);
}

TEST_F(DecHuffman, ZeroBigValuesStartTheCount1PartAtLineZero) {
    GranuleSideInfo g{};
    g.table_select[0] = 1;
    g.count1table_select = 1;
    BitWriter w;
    PutQuad(w, 'B', 0, 0, 0, 1);
    g.part2_3_length = static_cast<uint32_t>(w.BitCount());
    Run(g, w);
    EXPECT_EQ(SlotInt(*d, 0, 0, 3), 1);
    // A last non-zero quadruple ending in y: the count covers all four lines.
    EXPECT_EQ(d->LineCount[0][0], 4);
}

TEST_F(DecHuffman, BigValuesBeyondTheLineLimitAreCutAndLeaveNoCount1Lines) {
    GranuleSideInfo g{};
    g.big_values = 300;  // 600 lines asked, 558 allowed
    g.region0_count = 15;
    g.region1_count = 7;
    g.table_select[0] = 0;
    g.table_select[1] = 1;
    BitWriter w;
    const int r1 = 162;  // BandEnd[0][15] = l[16]
    for (int i = r1; i < 558; i += 2)
        PutPair(w, 1, 1, 0);
    w.Put(0, 32);  // would be count1 data, but no lines are left for it
    g.part2_3_length = static_cast<uint32_t>(w.BitCount());
    // Region 2 would start at band index 23: it is clamped, so region 1 runs to the end.
    g.table_select[2] = 15;
    Run(g, w);
    EXPECT_EQ(d->LineCount[0][0], 558);
    EXPECT_EQ(d->BitsUsed(), w.BitCount() - 32);
    EXPECT_EQ(SlotInt(*d, 0, 0, r1 - 2), 0);
    EXPECT_EQ(SlotInt(*d, 0, 0, r1), 1);
    EXPECT_EQ(SlotInt(*d, 0, 0, 556), 1);
    EXPECT_EQ(SlotInt(*d, 0, 0, 558), 0);
}

TEST_F(DecHuffman, Count1StopsWhenItsBitsRunOut) {
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

TEST_F(DecHuffman, ShortBlocksAreClearedAboveTheirLimitAndOverrunsClearEverything) {
    // MPEG-2 22.05 kHz: LineLimit 530, short and long limits 522.
    HeaderFields f;
    f.version = 2;
    f.bitrateIndex = 8;
    d = StartedDecoder(f);
    ASSERT_EQ(d->LineLimit, 530);
    ASSERT_EQ(d->ShortLineLimit, 522);
    GranuleSideInfo g{};
    g.block_type = 2;
    g.window_switching_flag = 1;
    g.region0_count = 5;
    g.region1_count = 15;
    g.big_values = 265;
    g.table_select[0] = 1;
    g.table_select[1] = 1;
    BitWriter w;
    for (int i = 0; i < 530; i += 2)
        PutPair(w, 1, 1, 1);
    g.part2_3_length = static_cast<uint32_t>(w.BitCount());
    Run(g, w);
    EXPECT_EQ(d->LineCount[0][0], 530);  // the count is not cut
    EXPECT_EQ(SlotInt(*d, 0, 0, 521), 1);
    for (int i = 522; i < 576; ++i)
        ASSERT_EQ(SlotInt(*d, 0, 0, i), 0) << i;

    // The same data with the overrun limit 10 bytes in: every line is cleared.
    Run(g, w, 10);
    EXPECT_TRUE(d->Overran());
    for (int i = 0; i < 576; ++i)
        ASSERT_EQ(SlotInt(*d, 0, 0, i), 0) << i;
    // Once past the limit the reader stops within a few bytes.
    EXPECT_LE(d->ReadPtr, bytes.data() + 10 + 16);
}

}  // namespace
