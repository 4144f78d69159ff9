// The decoder's stored tables against the reference data files, entry by entry: a wrong entry
// that only a rare code word or a single coefficient holds can hide from the reference streams.
// The Huffman tables are read through the decoder's own Huffman stage.

#include <cmath>
#include <fstream>
#include <sstream>

#include "dec_test_support.h"
#include "player/mp3/decoder/SynthTables.h"

namespace {

// Every code word of every table in a row (linbits and signs after it), decoded in one go.
TEST(DecTables, EveryHuffmanCodeWordDecodesToItsValues) {
    const int kLinbits[16] = {1, 2, 3, 4, 6, 8, 10, 13, 4, 5, 6, 7, 8, 9, 11, 13};  // tables 16..31
    auto d = dectest::Started(dectest::kMpeg1);
    for (int table = 1; table < 32; ++table) {
        const int base = table >= 24 ? 24 : table >= 16 ? 16 : table;
        const int linbits = table >= 16 ? kLinbits[table - 16] : 0;
        dectest::BitWriter w;
        std::vector<int> expected;
        for (const auto& [key, code] : dectest::Codes().pairs) {
            if (std::get<0>(key) != base) continue;
            w.PutCode(code);
            for (int v : {std::get<1>(key), std::get<2>(key)}) {
                const int extra = v == 15 && linbits ? (v * 7 + int(expected.size())) % (1 << linbits) : 0;
                if (v == 15 && linbits) w.Put(extra, linbits);
                const bool negative = v && (expected.size() + table) % 3 == 0;
                if (v) w.Put(negative, 1);
                expected.push_back(negative ? -(v + extra) : v + extra);
            }
        }
        if (expected.empty()) continue;  // tables 4 and 14 have no code
        const std::vector<uint8_t> bits = w.Padded();
        d->SetBitPos(bits.data());
        d->SetBitLimit(bits.data() + bits.size());
        float out[576];
        d->DecodeBigValues(out, int32_t(expected.size()), uint32_t(table));
        EXPECT_EQ(d->BitsUsed(), w.bits) << "table " << table;
        for (size_t i = 0; i < expected.size(); ++i)
            ASSERT_EQ(CMP3Decoder::LoadSlotInt(&out[i]), expected[i]) << "table " << table << " value " << i;
    }
}

TEST(DecTables, EveryCount1CodeWordDecodesToItsQuadruple) {
    auto d = dectest::Started(dectest::kMpeg1);
    for (char table : {'A', 'B'}) {
        dectest::BitWriter w;
        for (int value = 0; value < 16; ++value) {
            w.PutCode(dectest::Codes().count1.at({table, value}));
            for (int k = 3; k >= 0; --k)
                if (value >> k & 1) w.Put(value % 3 == 0, 1);  // some negative
        }
        const std::vector<uint8_t> bits = w.Padded();
        d->SetBitPos(bits.data());
        d->SetBitLimit(bits.data() + bits.size());
        float out[64];
        ASSERT_EQ(d->DecodeCount1(out, 64, w.bits, table == 'B'), 64) << table;
        for (int i = 0; i < 64; ++i) {
            const int value = i / 4, bit = value >> (3 - i % 4) & 1;
            ASSERT_EQ(CMP3Decoder::LoadSlotInt(&out[i]), value % 3 == 0 ? -bit : bit) << table << " " << value;
        }
    }
}

TEST(DecTables, BandsFollowTheScaleFactorBandFile) {
    std::ifstream in(std::string(QUORBEL_SHARED_DATA_DIR) + "/scalefactor-bands.txt");
    std::string line, kind;
    int row = -1, values = 0;
    while (std::getline(in, line)) {
        std::istringstream w(line);
        if (!(w >> kind) || kind[0] == '#') continue;
        if (kind == "rate") { ++row; continue; }
        ASSERT_TRUE(row >= 0 && row < 9 && (kind == "long" || kind == "short")) << line;
        const int first = kind == "long" ? 0 : 23;
        for (int i = 0, v; w >> v; ++i, ++values)
            EXPECT_EQ(BandIndexTable[row][first + i], v) << line << " at " << i;
    }
    EXPECT_EQ(values, 9 * 37);
}

// The stored window: rows of pairs (D[i + 64m], D[i + 64m + 32]) negated, then D[48 + 64m].
TEST(DecTables, SynthesisWindowFollowsTheWindowFile) {
    std::ifstream in(std::string(QUORBEL_SHARED_DATA_DIR) + "/synthesis-window.txt");
    std::string line;
    double D[512];
    int count = 0;
    while (std::getline(in, line)) {
        std::istringstream w(line);
        int i;
        long k;
        if (line[0] != '#' && w >> i >> k && i >= 0 && i < 512) D[i] = k / 65536.0, ++count;
    }
    ASSERT_EQ(count, 512);
    // The stored decimals may sit 5e-9 from the exact value, and a float rounds them.
    const auto near = [](float stored, double exact) { return std::fabs(stored - exact) <= 5e-9 + std::fabs(exact) * 6e-8; };
    for (int i = 0; i < 16; ++i)
        for (int m = 0; m < 8; ++m) {
            EXPECT_PRED2(near, SynthWindow[16 * i + 2 * m], -D[i + 64 * m]) << i << " " << m;
            EXPECT_PRED2(near, SynthWindow[16 * i + 2 * m + 1], -D[i + 64 * m + 32]) << i << " " << m;
        }
    for (int m = 0; m < 8; ++m)
        EXPECT_PRED2(near, SynthWindow[256 + m], D[48 + 64 * m]) << m;
}

}  // namespace
