// The decoder's stored tables against the reference data files: every Huffman code word through
// the lookup levels, the count1 tables, the scale-factor bands and the synthesis window. A wrong
// entry that a rarely used code word or a single coefficient holds can hide from the reference
// streams; here every entry is compared.

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "dec_test_support.h"
#include "player/mp3/decoder/SynthTables.h"

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

// The stored window holds 16 rows of (D[i + 64m], D[i + 64m + 32]) pairs, negated (this
// decoder's output is the negative of the textbook's), then D[48 + 64m] for the middle sample.
TEST(DecTables, SynthesisWindowFollowsTheDataFile) {
    std::ifstream in(std::string(QUORBEL_SHARED_DATA_DIR) + "/synthesis-window.txt");
    ASSERT_TRUE(in.good());
    double d[512];
    bool seen[512] = {};
    std::string line;
    int count = 0;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream fields(line);
        int i = -1;
        long k = 0;
        double value = 0;
        ASSERT_TRUE(fields >> i >> k >> value) << line;
        ASSERT_TRUE(i >= 0 && i < 512 && !seen[i]) << line;
        // The integer column is the exact value; the decimal column must agree with it.
        ASSERT_NEAR(value, k / 65536.0, 5e-9) << line;
        d[i] = value;
        seen[i] = true;
        ++count;
    }
    ASSERT_EQ(count, 512);
    // A nine-decimal value may sit 5e-9 from the exact one, and a float rounds it by up to half
    // a unit in the last place.
    const auto near = [](float stored, double expected) {
        return std::fabs(stored - expected) <= 5e-9 + std::fabs(expected) * std::ldexp(1.0, -24);
    };
    for (int i = 0; i < 16; ++i)
        for (int m = 0; m < 8; ++m) {
            EXPECT_PRED2(near, SynthWindow[16 * i + 2 * m], -d[i + 64 * m]) << i << " " << m;
            EXPECT_PRED2(near, SynthWindow[16 * i + 2 * m + 1], -d[i + 64 * m + 32]) << i << " " << m;
        }
    for (int m = 0; m < 8; ++m)
        EXPECT_PRED2(near, SynthWindow[256 + m], d[48 + 64 * m]) << m;
}

}  // namespace
