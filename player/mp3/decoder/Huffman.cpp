// Huffman stage of one granule and channel: the big-value part in up to three regions, then the
// count1 quadruples, as signed integers in the Spectrum slots.

#include <algorithm>
#include <cstring>

#include "player/mp3/decoder/BitReader.h"
#include "player/mp3/decoder/DecoderTables.h"

void CMP3Decoder::DecodeHuffman(uint32_t gr, uint32_t ch, int32_t skip) {
    const GranuleSideInfo& g = GranuleInfo[gr][ch];
    float* s = Spectrum[ch][gr];

    // Only damaged side information makes the start of region 2 index past BandEnd; it then
    // starts at line 576, which the big-value end cuts down (region 2 is empty).
    const uint32_t region2Band = std::min<uint32_t>(g.region0_count + g.region1_count + 1, 21);
    const int32_t bigEnd = std::min(static_cast<int32_t>(2 * g.big_values), LineLimit);
    const int32_t r1 = std::min(BandEnd[0][g.region0_count], bigEnd);
    const int32_t r2 = std::min(BandEnd[0][region2Band], bigEnd);

    DecodeBigValues(s, r1, g.table_select[0]);
    DecodeBigValues(s + r1, r2 - r1, g.table_select[1]);
    DecodeBigValues(s + r2, bigEnd - r2, g.table_select[2]);

    const int32_t bitsLeft = static_cast<int32_t>(g.part2_3_length) + skip - BitsUsed();
    const int32_t count =
        bigEnd + DecodeCount1(s + bigEnd, LineLimit - bigEnd, bitsLeft, g.count1table_select);
    LineCount[gr][ch] = count;

    const int32_t limit = g.block_type == 2 ? ShortLineLimit : LongLineLimit;
    const int32_t clearFrom = std::min(count, limit);
    // The slot still holds an old overlap; everything past the decoded lines must read as 0.
    if (Overran())
        std::memset(s, 0, sizeof(float) * 576);
    else
        std::memset(s + clearFrom, 0, sizeof(float) * (576 - clearFrom));
}

// A code word's two values with their sign bits, which follow it for each non-zero one, x's
// first: both read in one step (a code word leaves them held) and applied without a branch.
inline void CMP3Decoder::StoreSignedPair(float* out, int32_t x, int32_t y) {
    const int32_t nx = x != 0;
    const int32_t ny = y != 0;
    const int32_t signs = static_cast<int32_t>(TakeBits(nx + ny));
    const int32_t sx = (signs >> ny) & nx;
    const int32_t sy = signs & ny;
    StoreSlotInt(out, (x ^ -sx) + sx);
    StoreSlotInt(out + 1, (y ^ -sy) + sy);
}

void CMP3Decoder::DecodeBigValues(float* out, int32_t n, uint32_t table) {
    if (n < 1) return;
    const int32_t pairs = n >> 1;
    const HuffmanTableInfo& info = HuffmanTables[table & 31];
    const uint32_t* codes = info.codes;

    if (info.kind == 0 || codes == nullptr) {
        std::memset(out, 0, sizeof(float) * 2 * pairs);
        return;
    }

    if (info.kind == 1) {
        const int32_t width = static_cast<int32_t>(codes[0] & 0xFF);
        for (int32_t i = 0; i < pairs; ++i) {
            FillBits(11);
            const uint32_t e = codes[1 + PeekBits(width)];
            SkipBits(static_cast<int32_t>(e >> 24));
            StoreSignedPair(out + 2 * i, static_cast<int32_t>((e >> 8) & 0xFF),
                            static_cast<int32_t>((e >> 16) & 0xFF));
            if (Overran()) return;
        }
        return;
    }

    // Several levels: a link entry (top byte 0) consumes this level's bits and continues in the
    // subtable it points to. Every level is at most 9 bits wide, so after the 11-bit refill a
    // code word of one level and its two sign bits are held.
    const int32_t linbits = info.linbits;
    const bool escapes = info.kind == 3;
    for (int32_t i = 0; i < pairs; ++i) {
        const uint32_t* level = codes;
        int32_t width = static_cast<int32_t>(level[0] & 0xFF);
        FillBits(11);
        uint32_t e = level[1 + PeekBits(width)];
        while ((e >> 24) == 0) {
            SkipBits(width);
            level += e;
            width = static_cast<int32_t>(level[0] & 0xFF);
            FillBits(11);
            e = level[1 + PeekBits(width)];
        }
        SkipBits(static_cast<int32_t>(e >> 24));
        int32_t x = static_cast<int32_t>((e >> 8) & 0xFF);
        int32_t y = static_cast<int32_t>((e >> 16) & 0xFF);
        if (escapes) {
            if (x == 15) x += static_cast<int32_t>(GetLinbits(linbits));
            if (x && GetBit()) x = -x;
            if (y == 15) y += static_cast<int32_t>(GetLinbits(linbits));
            if (y && GetBit()) y = -y;
            StoreSlotInt(out + 2 * i, x);
            StoreSlotInt(out + 2 * i + 1, y);
        } else {
            StoreSignedPair(out + 2 * i, x, y);
        }
        if (Overran()) return;
    }
}

int32_t CMP3Decoder::DecodeCount1(float* out, int32_t n, int32_t bitsLeft, uint32_t select) {
    const int32_t quads = n >> 2;
    int32_t last = -1;
    uint32_t lastValue = 15;
    int32_t q = 0;
    while (q < quads) {
        uint32_t value;
        if (select == 0) {
            if (bitsLeft <= 0) break;
            FillBits(10);
            const Count1Entry entry = Count1TableA[PeekBits(6)];
            bitsLeft -= entry.length;
            SkipBits(entry.length);
            value = entry.value;
        } else {
            if (bitsLeft < 4) break;
            bitsLeft -= 4;
            FillBits(8);
            value = TakeBits(4) ^ 15;
        }
        if (value) {
            last = q;
            lastValue = value;
        }
        // The sign bits of the non-zero values follow in one run, first value first; after the
        // code word at least four bits are held.
        static const uint8_t kNonZero[16] = {0, 1, 1, 2, 1, 2, 2, 3, 1, 2, 2, 3, 2, 3, 3, 4};
        int32_t remaining = kNonZero[value];
        const uint32_t signs = remaining != 0 ? TakeBits(remaining) : 0;
        bitsLeft -= remaining;
        float* o = out + 4 * q;
        for (int k = 0; k < 4; ++k) {
            const int32_t v = static_cast<int32_t>((value >> (3 - k)) & 1);
            remaining -= v;
            StoreSlotInt(o + k, v - 2 * (v & static_cast<int32_t>(signs >> remaining)));
        }
        ++q;
        if (Overran()) break;
    }
    // The last quadruple's sign bits ran past the channel's data: it was never really there.
    if (bitsLeft < 0 && q > 0) std::memset(out + 4 * (q - 1), 0, sizeof(float) * 4);
    // A last non-zero quadruple of (v, w, 0, 0) ends two lines in.
    return (lastValue & 3) ? 4 * last + 4 : 4 * last + 2;
}
