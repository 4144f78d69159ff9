// The bit reader's refill rule, its bit accounting and the overrun test, on which the Huffman
// stage's bounds rest.

#include <gtest/gtest.h>

#include <vector>

#include "dec_test_support.h"

namespace {

using dectest::NewDecoder;

TEST(DecBitReader, GetBitsZeroReturnsZeroAndChangesNothing) {
    auto d = NewDecoder();
    const uint8_t bytes[8] = {0xA5, 0x5A, 0xFF, 0x00, 0x12, 0x34, 0x56, 0x78};
    d->SetBitPos(bytes);
    EXPECT_EQ(d->GetBits(0), 0u);
    EXPECT_EQ(d->BitCount, 0);
    EXPECT_EQ(d->ReadPtr, bytes);
    // Also with a full accumulator (32 bits held), where a plain shift by the count would be 32.
    EXPECT_EQ(d->GetBits(1), 1u);
    d->GetBits(7);
    d->FillBits(25);
    const int32_t held = d->BitCount;
    const uint32_t buffer = d->BitBuffer;
    EXPECT_EQ(d->GetBits(0), 0u);
    EXPECT_EQ(d->BitCount, held);
    EXPECT_EQ(d->BitBuffer, buffer);
}

TEST(DecBitReader, RefillLoadsWholeBytesUpTo25To32Bits) {
    auto d = NewDecoder();
    const uint8_t bytes[12] = {0xA5, 0x5A, 0xFF, 0x00, 0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0};
    d->SetBitPos(bytes);
    // The first GetBits(1) loads 4 bytes: 32 bits held before the extraction, 31 after.
    EXPECT_EQ(d->GetBits(1), 1u);
    EXPECT_EQ(d->ReadPtr, bytes + 4);
    EXPECT_EQ(d->BitCount, 31);
    EXPECT_LT(d->BitBuffer, 1u << 31);
    // 31 held: a request for up to 31 bits loads nothing.
    EXPECT_EQ(d->GetBits(9), 0x95u);  // 0100101 01 of 0xA5 0x5A after the first bit
    EXPECT_EQ(d->ReadPtr, bytes + 4);
    EXPECT_EQ(d->BitCount, 22);
    // 22 held, 25 wanted: one byte brings 30, and the loop stops above 24.
    EXPECT_EQ(d->GetBits(25), 0xD7F800u);  // 011010, 0xFF, 0x00, 000
    EXPECT_EQ(d->ReadPtr, bytes + 5);
    EXPECT_EQ(d->BitCount, 5);
    // 5 held: three bytes bring 29.
    d->FillBits(6);
    EXPECT_EQ(d->BitCount, 29);
    EXPECT_EQ(d->ReadPtr, bytes + 8);
    // A refill condition that holds while more than 24 bits are held loads nothing.
    d->FillBits(30);
    EXPECT_EQ(d->ReadPtr, bytes + 8);
    EXPECT_EQ(d->TakeBits(5), 0x12u & 0x1F);
    EXPECT_EQ(d->PeekBits(8), 0x34u);
    EXPECT_EQ(d->BitCount, 24);
    // PeekBitsFill refills only below 11 bits, whatever it is asked for.
    d->SkipBits(14);
    EXPECT_EQ(d->BitCount, 10);
    EXPECT_EQ(d->PeekBitsFill(3), 4u);  // the last two bits of 0x56, then 0x78's first
    EXPECT_EQ(d->BitCount, 26);
    EXPECT_EQ(d->ReadPtr, bytes + 10);
    EXPECT_EQ(d->BitsUsed(), 10 * 8 - 26);
}

TEST(DecBitReader, LinbitsKeepTwoBitsToSpareForTheSignBits) {
    auto d = NewDecoder();
    const uint8_t bytes[8] = {0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00};
    d->SetBitPos(bytes);
    d->GetBits(20);
    EXPECT_EQ(d->BitCount, 12);
    // 13 linbits need 15 held: a refill happens although 13 would do.
    EXPECT_EQ(d->GetLinbits(13), 0xFFFu << 1);
    EXPECT_GE(d->BitCount, 2);
    EXPECT_EQ(d->ReadPtr, bytes + 6);
    // 12 linbits with 14 held: no refill.
    d->SetBitPos(bytes);
    d->GetBits(18);
    EXPECT_EQ(d->BitCount, 14);
    d->GetLinbits(12);
    EXPECT_EQ(d->ReadPtr, bytes + 4);
    EXPECT_EQ(d->BitCount, 2);
    EXPECT_EQ(d->GetBit(), 1u);
    EXPECT_EQ(d->GetBit(), 1u);
}

TEST(DecBitReader, BitsUsedCountsFromThePositionIncludingAnUnalignedSkip) {
    auto d = NewDecoder();
    const uint8_t bytes[8] = {0xE0, 0, 0, 0, 0, 0, 0, 0};
    d->SetBitPos(bytes);
    EXPECT_EQ(d->BitsUsed(), 0);
    EXPECT_EQ(d->GetBits(3), 7u);
    EXPECT_EQ(d->BitsUsed(), 3);
    d->FillBits(25);
    EXPECT_EQ(d->BitsUsed(), 3);  // loading consumes nothing
    d->SkipBits(20);
    EXPECT_EQ(d->BitsUsed(), 23);
}

TEST(DecBitReader, OverranTurnsTrueOneByteAfterTheLimit) {
    auto d = NewDecoder();
    const uint8_t bytes[16] = {};
    d->SetBitPos(bytes);
    d->SetBitLimit(bytes + 4);
    EXPECT_FALSE(d->Overran());
    d->GetBits(1);  // loads 4: ReadPtr equals the limit
    EXPECT_EQ(d->ReadPtr, bytes + 4);
    EXPECT_FALSE(d->Overran());
    d->GetBits(8);
    d->FillBits(24);  // 23 held: exactly one more byte
    EXPECT_EQ(d->ReadPtr, bytes + 5);
    EXPECT_TRUE(d->Overran());
}

}  // namespace
