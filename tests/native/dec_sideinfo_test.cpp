// Side information of both versions: the bit widths (so the main data is found), the fields'
// order, the values not coded, the mid/side gain offset, and which granule slot MPEG-2 fills.

#include <gtest/gtest.h>

#include <vector>

#include "dec_test_support.h"

namespace {

using dectest::BitWriter;
using dectest::NewDecoder;

struct Coded {
    uint32_t part23 = 0, bigValues = 0, gain = 0, sfc = 0, switching = 0, blockType = 0, mixed = 0;
    uint32_t tables[3] = {0, 0, 0}, subblock[3] = {0, 0, 0}, region0 = 0, region1 = 0;
    uint32_t preflag = 0, scale = 0, count1 = 0;
};

void WriteGranule(BitWriter& w, const Coded& c, bool mpeg1) {
    w.Put(c.part23, 12);
    w.Put(c.bigValues, 9);
    w.Put(c.gain, 8);
    w.Put(c.sfc, mpeg1 ? 4 : 9);
    w.Put(c.switching, 1);
    if (c.switching) {
        w.Put(c.blockType, 2);
        w.Put(c.mixed, 1);
        w.Put(c.tables[0], 5);
        w.Put(c.tables[1], 5);
        for (uint32_t g : c.subblock)
            w.Put(g, 3);
    } else {
        for (uint32_t t : c.tables)
            w.Put(t, 5);
        w.Put(c.region0, 4);
        w.Put(c.region1, 3);
    }
    if (mpeg1)
        w.Put(c.preflag, 1);
    w.Put(c.scale, 1);
    w.Put(c.count1, 1);
}

TEST(DecSideInfo, LengthsAreNineSeventeenAndThirtyTwoBytesWhateverTheBranch) {
    auto d = NewDecoder();
    const std::vector<uint8_t> ones(64, 0xFF), zeros(64, 0x00);
    struct Case {
        bool mpeg1;
        int channels;
        int32_t bytes;
    };
    for (const Case& c : {Case{true, 1, 17}, Case{true, 2, 32}, Case{false, 1, 9}, Case{false, 2, 17}}) {
        // All ones takes the window-switching branch, all zeros the other: both are as long.
        for (const std::vector<uint8_t>* bits : {&ones, &zeros}) {
            d->ChannelCount = c.channels;
            d->SetBitPos(bits->data());
            const int32_t length = c.mpeg1 ? d->ReadSideInfoMpeg1() : d->ReadSideInfoMpeg2(0);
            EXPECT_EQ(length, c.bytes);
            EXPECT_EQ(d->BitsUsed(), c.bytes * 8) << c.mpeg1 << " " << c.channels;
        }
    }
}

TEST(DecSideInfo, Mpeg1FieldsInOrderWithImplicitRegionsForSwitchedGranules) {
    auto d = NewDecoder();
    d->ChannelCount = 2;
    // Values left in the slot from before: a switched granule keeps table_select[2], a plain one
    // keeps its subblock gains.
    d->GranuleInfo[0][0].table_select[2] = 17;
    d->GranuleInfo[1][1].subblock_gain[1] = 5;

    BitWriter w;
    w.Put(300, 9);  // main_data_begin
    w.Put(5, 3);    // private bits
    w.Put(0xA, 4);  // scfsi ch 0
    w.Put(0x5, 4);  // scfsi ch 1
    Coded switched;
    switched.part23 = 4000;
    switched.bigValues = 288;
    switched.gain = 210;
    switched.sfc = 13;
    switched.switching = 1;
    switched.blockType = 2;
    switched.mixed = 1;
    switched.tables[0] = 15;
    switched.tables[1] = 24;
    switched.subblock[0] = 1;
    switched.subblock[1] = 2;
    switched.subblock[2] = 7;
    switched.preflag = 1;
    switched.scale = 1;
    switched.count1 = 1;
    Coded plain;
    plain.part23 = 1;
    plain.bigValues = 2;
    plain.gain = 3;
    plain.sfc = 4;
    plain.tables[0] = 31;
    plain.tables[1] = 0;
    plain.tables[2] = 16;
    plain.region0 = 15;
    plain.region1 = 7;
    Coded start = plain;
    start.switching = 1;
    start.blockType = 1;
    WriteGranule(w, switched, true);
    WriteGranule(w, plain, true);
    WriteGranule(w, start, true);
    WriteGranule(w, plain, true);
    const std::vector<uint8_t> bytes = w.Bytes(40);
    d->SetBitPos(bytes.data());
    EXPECT_EQ(d->ReadSideInfoMpeg1(), 32);
    EXPECT_EQ(d->BitsUsed(), w.BitCount());

    EXPECT_EQ(d->MainDataBegin, 300u);
    EXPECT_EQ(d->PrivateBits, 5u);
    EXPECT_EQ(d->Scfsi[0], 0xAu);
    EXPECT_EQ(d->Scfsi[1], 0x5u);
    const GranuleSideInfo& a = d->GranuleInfo[0][0];
    EXPECT_EQ(a.part2_3_length, 4000u);
    EXPECT_EQ(a.big_values, 288u);
    EXPECT_EQ(a.global_gain, 210);
    EXPECT_EQ(a.scalefac_compress, 13u);
    EXPECT_EQ(a.block_type, 2u);
    EXPECT_EQ(a.mixed_block_flag, 1u);
    EXPECT_EQ(a.table_select[0], 15u);
    EXPECT_EQ(a.table_select[1], 24u);
    EXPECT_EQ(a.table_select[2], 17u);
    EXPECT_EQ(a.subblock_gain[2], 7u);
    EXPECT_EQ(a.region0_count, 7u);
    EXPECT_EQ(a.region1_count, 13u);
    EXPECT_EQ(a.preflag, 1u);
    EXPECT_EQ(a.scalefac_scale, 1u);
    EXPECT_EQ(a.count1table_select, 1u);
    const GranuleSideInfo& b = d->GranuleInfo[0][1];
    EXPECT_EQ(b.window_switching_flag, 0u);
    EXPECT_EQ(b.block_type, 0u);
    EXPECT_EQ(b.mixed_block_flag, 0u);
    EXPECT_EQ(b.table_select[0], 31u);
    EXPECT_EQ(b.table_select[2], 16u);
    EXPECT_EQ(b.region0_count, 15u);
    EXPECT_EQ(b.region1_count, 7u);
    EXPECT_EQ(b.preflag, 0u);
    const GranuleSideInfo& c = d->GranuleInfo[1][0];
    EXPECT_EQ(c.block_type, 1u);
    EXPECT_EQ(c.region0_count, 7u);  // start blocks: region 1 at l[8]
    EXPECT_EQ(c.region1_count, 13u);
    EXPECT_EQ(d->GranuleInfo[1][1].subblock_gain[1], 5u);
}

TEST(DecSideInfo, Mpeg2FillsOnlyTheGivenSlotAndShortBlocksGetRegionsFiveAndFifteen) {
    auto d = NewDecoder();
    d->ChannelCount = 1;
    d->Scfsi[0] = 9;
    d->GranuleInfo[0][0].part2_3_length = 77;
    BitWriter w;
    w.Put(200, 8);
    w.Put(1, 1);
    Coded c;
    c.part23 = 1234;
    c.sfc = 511;
    c.switching = 1;
    c.blockType = 2;
    c.scale = 1;
    WriteGranule(w, c, false);
    const std::vector<uint8_t> bytes = w.Bytes(16);
    d->SetBitPos(bytes.data());
    EXPECT_EQ(d->ReadSideInfoMpeg2(1), 9);
    EXPECT_EQ(d->BitsUsed(), w.BitCount());
    EXPECT_EQ(d->MainDataBegin, 200u);
    EXPECT_EQ(d->Scfsi[0], 0u);
    const GranuleSideInfo& g = d->GranuleInfo[1][0];
    EXPECT_EQ(g.part2_3_length, 1234u);
    EXPECT_EQ(g.scalefac_compress, 511u);
    EXPECT_EQ(g.region0_count, 5u);
    EXPECT_EQ(g.region1_count, 15u);
    EXPECT_EQ(g.preflag, 0u);
    EXPECT_EQ(g.scalefac_scale, 1u);
    EXPECT_EQ(d->GranuleInfo[0][0].part2_3_length, 77u);  // the other slot keeps its values

    // A start block of MPEG-2 takes 7 and 13, as MPEG-1 does.
    BitWriter w2;
    w2.Put(0, 9);
    c.blockType = 3;
    WriteGranule(w2, c, false);
    const std::vector<uint8_t> bytes2 = w2.Bytes(16);
    d->SetBitPos(bytes2.data());
    d->ReadSideInfoMpeg2(0);
    EXPECT_EQ(d->GranuleInfo[0][0].region0_count, 7u);
    EXPECT_EQ(d->GranuleInfo[0][0].region1_count, 13u);
}

TEST(DecSideInfo, MidSideFramesStoreTheGainMinusTwo) {
    auto d = NewDecoder();
    d->ChannelCount = 2;
    d->MsStereo = 1;
    BitWriter w;
    w.Put(0, 8 + 2);
    Coded c;
    c.gain = 1;
    WriteGranule(w, c, false);
    c.gain = 0;
    WriteGranule(w, c, false);
    const std::vector<uint8_t> bytes = w.Bytes(24);
    d->SetBitPos(bytes.data());
    d->ReadSideInfoMpeg2(0);
    EXPECT_EQ(d->GranuleInfo[0][0].global_gain, -1);
    EXPECT_EQ(d->GranuleInfo[0][1].global_gain, -2);
}

}  // namespace
