// The decoder's stored tables against the reference data files, and the computed tables at the
// values where a wrong exponent, sign or index would show.

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "dec_test_support.h"

namespace {

using dectest::HuffmanCodeBook;

struct WalkResult {
    bool ok = false;
    int bitsUsed = 0;
    uint32_t entry = 0;
    std::string problem;
};

// Follows a bit string through a code table's lookup levels as the layout describes it: a header
// (width, 0xFF), then 2^width entries; a link entry's number is the distance from this level's
// header to the next level's header.
WalkResult Walk(const uint32_t* level, const std::string& bits) {
    WalkResult r;
    size_t pos = 0;
    for (int depth = 0; depth < 8; ++depth) {
        if ((level[0] >> 24) != 0xFF || (level[0] & 0x00FFFF00u) != 0) {
            r.problem = "bad level header";
            return r;
        }
        const int width = static_cast<int>(level[0] & 0xFF);
        if (width < 1 || width > 9) {
            r.problem = "level width out of 1..9";
            return r;
        }
        uint32_t index = 0;
        for (int i = 0; i < width; ++i)
            index = index << 1 | (pos + i < bits.size() && bits[pos + i] == '1');
        const uint32_t e = level[1 + index];
        if ((e >> 24) == 0) {
            pos += width;
            level += e;
            continue;
        }
        if (static_cast<int>(e >> 24) > width) {
            r.problem = "code length above the level width";
            return r;
        }
        r.bitsUsed = static_cast<int>(pos + (e >> 24));
        r.entry = e;
        r.ok = true;
        return r;
    }
    r.problem = "too many levels";
    return r;
}

TEST(DecTables, EveryHuffmanCodeWordDecodesToItsPairThroughTheLookupLevels) {
    const HuffmanCodeBook& book = HuffmanCodeBook::Get();
    ASSERT_TRUE(book.Loaded());
    int checked = 0;
    for (const auto& item : book.Pairs()) {
        const int base = item.first.first;
        const int x = item.first.second / 16, y = item.first.second % 16;
        const std::string& code = item.second;
        std::vector<int> users = {base};
        if (base == 16 || base == 24)
            for (int t = base + 1; t < base + 8; ++t)
                users.push_back(t);
        for (int table : users) {
            const HuffmanTableInfo& info = HuffmanTables[table];
            ASSERT_NE(info.codes, nullptr) << table;
            // Whatever follows the code word must not change the result.
            for (const char* tail : {"000000000000000000", "111111111111111111"}) {
                const WalkResult r = Walk(info.codes, code + tail);
                ASSERT_TRUE(r.ok) << "table " << table << " code " << code << ": " << r.problem;
                EXPECT_EQ(r.bitsUsed, static_cast<int>(code.size())) << table << " " << code;
                EXPECT_EQ((r.entry >> 8) & 0xFF, static_cast<uint32_t>(x)) << table << " " << code;
                EXPECT_EQ((r.entry >> 16) & 0xFF, static_cast<uint32_t>(y)) << table << " " << code;
                EXPECT_EQ(r.entry & 0xFF, static_cast<uint32_t>((x != 0) + (y != 0)));
                ++checked;
            }
        }
    }
    EXPECT_GT(checked, 2 * 2000);
}

TEST(DecTables, HuffmanDescriptorsGiveKindsLinbitsAndLevelLayout) {
    const int kLinbits[32] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                              1, 2, 3, 4, 6, 8, 10, 13, 4, 5, 6, 7, 8, 9, 11, 13};
    for (int t = 0; t < 32; ++t) {
        const int kind = (t == 0 || t == 4 || t == 14) ? 0
                         : (t <= 3 || t == 5 || t == 6) ? 1
                         : t < 16                       ? 2
                                                        : 3;
        EXPECT_EQ(HuffmanTables[t].kind, kind) << t;
        EXPECT_EQ(HuffmanTables[t].linbits, kLinbits[t]) << t;
        EXPECT_EQ(HuffmanTables[t].codes == nullptr, kind == 0) << t;
    }
    EXPECT_EQ(HuffmanTables[32].kind, 4);
    EXPECT_EQ(HuffmanTables[33].kind, 5);
    EXPECT_EQ(HuffmanTables[17].codes, HuffmanTables[16].codes);
    EXPECT_EQ(HuffmanTables[31].codes, HuffmanTables[24].codes);

    // First-level width and number of levels reachable from it, per code table.
    struct Layout {
        int table, width, levels;
    };
    const Layout layouts[] = {{1, 3, 1},   {2, 6, 1},   {3, 6, 1},   {5, 8, 1},   {6, 7, 1},
                              {7, 6, 8},   {8, 8, 6},   {9, 6, 7},   {10, 8, 14}, {11, 8, 10},
                              {12, 7, 15}, {13, 6, 51}, {15, 8, 46}, {16, 8, 61}, {24, 9, 53}};
    for (const Layout& l : layouts) {
        const uint32_t* root = HuffmanTables[l.table].codes;
        EXPECT_EQ(static_cast<int>(root[0] & 0xFF), l.width) << l.table;
        std::set<const uint32_t*> seen;
        std::vector<const uint32_t*> todo = {root};
        while (!todo.empty()) {
            const uint32_t* level = todo.back();
            todo.pop_back();
            if (!seen.insert(level).second)
                continue;
            const uint32_t entries = 1u << (level[0] & 0xFF);
            for (uint32_t i = 1; i <= entries; ++i)
                if ((level[i] >> 24) == 0)
                    todo.push_back(level + level[i]);
        }
        EXPECT_EQ(static_cast<int>(seen.size()), l.levels) << l.table;
    }
}

TEST(DecTables, Count1TablesFollowTheDataFile) {
    const HuffmanCodeBook& book = HuffmanCodeBook::Get();
    ASSERT_EQ(book.Count1('A').size(), 16u);
    std::set<int> covered;
    for (const auto& item : book.Count1('A')) {
        const std::string& code = item.second;
        const int free = 6 - static_cast<int>(code.size());
        const int first = std::stoi(code, nullptr, 2) << free;
        for (int i = 0; i < (1 << free); ++i) {
            EXPECT_EQ(Count1TableA[first + i].length, code.size()) << code;
            EXPECT_EQ(Count1TableA[first + i].value, item.first) << code;
            covered.insert(first + i);
        }
    }
    EXPECT_EQ(covered.size(), 64u);
    // Table B has no table: its code is the value XOR 15.
    ASSERT_EQ(book.Count1('B').size(), 16u);
    for (const auto& item : book.Count1('B'))
        EXPECT_EQ(std::stoi(item.second, nullptr, 2), item.first ^ 15);
}

TEST(DecTables, BandTableEqualsTheScaleFactorBandFile) {
    std::ifstream in(std::string(QUORBEL_SHARED_DATA_DIR) + "/scalefactor-bands.txt");
    ASSERT_TRUE(in.good());
    std::string line;
    int row = -1;
    int rowsSeen = 0;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream words(line);
        std::string kind;
        words >> kind;
        if (kind == "rate") {
            ++row;
            ++rowsSeen;
            continue;
        }
        ASSERT_GE(row, 0);
        ASSERT_LT(row, 9);
        const int offset = kind == "long" ? 0 : 23;
        const int count = kind == "long" ? 23 : 14;
        for (int i = 0; i < count; ++i) {
            int value = -1;
            words >> value;
            EXPECT_EQ(BandIndexTable[row][offset + i], value) << "row " << row << " " << kind << " " << i;
        }
    }
    EXPECT_EQ(rowsSeen, 9);
    for (int r = 0; r < 9; ++r) {
        EXPECT_EQ(BandIndexTable[r][22], 576);
        EXPECT_EQ(BandIndexTable[r][36], 192);
    }
}

TEST(DecTables, ComputedGainsPowersAndFactors) {
    InitDecoderTables();
    EXPECT_EQ(GainTable[156], 1.0f);
    EXPECT_EQ(GainTable[216], 32768.0f);
    EXPECT_EQ(GainTable[4], std::pow(2.0f, -38.0f));
    EXPECT_EQ(ScaleTable[0][0][0], 1.0f);
    EXPECT_EQ(ScaleTable[1][0][0], 1.0f);
    EXPECT_EQ(ScaleTable[1][3][31], static_cast<float>(std::ldexp(1.0, -34)));
    EXPECT_EQ(ScaleTable[0][1][2], static_cast<float>(std::pow(2.0, -1.5)));
    EXPECT_EQ(Pow43Table[32], 0.0f);
    EXPECT_EQ(Pow43Table[33], 1.0f);
    EXPECT_EQ(Pow43Table[31], -1.0f);
    EXPECT_NEAR(Pow43Table[0], -101.593667, 1e-4);
    EXPECT_EQ(SubblockGainTable[0], 1.0f);
    EXPECT_EQ(SubblockGainTable[7], std::ldexp(1.0f, -14));
    for (const FactorPair& p : AliasTable) {
        EXPECT_GT(p.a, 0.0f);
        EXPECT_LT(p.b, 0.0f);
        EXPECT_NEAR(p.a * p.a + p.b * p.b, 1.0, 1e-6);
    }
    EXPECT_NEAR(AliasTable[0].b / AliasTable[0].a, -0.6, 1e-6);
}

TEST(DecTables, IntensityFactorsAtTheirEdges) {
    InitDecoderTables();
    const float half = std::sqrt(2.0f) / 2;
    EXPECT_NEAR(IntensityTable1[0][0].a, 0.0f, 1e-7);
    EXPECT_EQ(IntensityTable1[0][0].b, 1.0f);
    EXPECT_NEAR(IntensityTable1[0][3].a, 0.5f, 1e-7);
    EXPECT_NEAR(IntensityTable1[0][3].b, 0.5f, 1e-7);
    EXPECT_NEAR(IntensityTable1[1][3].a, half, 1e-7);
    EXPECT_NEAR(IntensityTable1[1][3].b, half, 1e-7);
    EXPECT_NEAR(IntensityTable1[0][6].a, 1.0f, 1e-7);
    EXPECT_NEAR(IntensityTable1[0][6].b, 0.0f, 1e-7);
    EXPECT_EQ(IntensityTable1[0][7].a, 1.0f);
    EXPECT_EQ(IntensityTable1[0][7].b, 0.0f);
    EXPECT_EQ(IntensityTable1[1][7].a, 1.0f);
    EXPECT_EQ(IntensityTable1[1][7].b, 1.0f);

    const float quarter = std::pow(2.0f, -0.25f);
    const FactorPair* t = IntensityTable2[0][0];
    EXPECT_EQ(t[0].a, 1.0f);  // length 0: its only position is illegal
    EXPECT_EQ(t[0].b, 0.0f);
    EXPECT_EQ(t[1].a, 1.0f);  // length 1, position 0
    EXPECT_EQ(t[1].b, 1.0f);
    EXPECT_EQ(t[2].a, 1.0f);  // length 1, illegal position 1
    EXPECT_EQ(t[2].b, 0.0f);
    EXPECT_FLOAT_EQ(t[4].a, quarter);  // length 2, position 1
    EXPECT_EQ(t[4].b, 1.0f);
    EXPECT_EQ(t[5].a, 1.0f);  // length 2, position 2
    EXPECT_FLOAT_EQ(t[5].b, quarter);
    EXPECT_EQ(t[6].b, 0.0f);  // length 2, illegal position 3
    EXPECT_EQ(t[62].a, 1.0f);  // length 5, illegal position 31
    EXPECT_EQ(t[62].b, 0.0f);
    EXPECT_EQ(t[63].a, 0.0f);
    EXPECT_EQ(t[63].b, 0.0f);
    EXPECT_FLOAT_EQ(IntensityTable2[1][0][4].a, std::sqrt(0.5f));
    EXPECT_FLOAT_EQ(IntensityTable2[1][0][46].a, std::pow(2.0f, -4.0f));  // length 5, p = 15
    EXPECT_FLOAT_EQ(IntensityTable2[0][1][1].a, std::sqrt(2.0f));  // mid/side: times sqrt 2
    EXPECT_EQ(IntensityTable2[0][1][6].a, 1.0f);                   // mid/side illegal: R := L
    EXPECT_EQ(IntensityTable2[0][1][6].b, 1.0f);
}

}  // namespace
