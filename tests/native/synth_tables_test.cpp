// Synthesis tables: the stored window against the published coefficients, the computed factors
// against their formulas, and the block windows' values and folded signs.

#include "player/mp3/decoder/SynthTables.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>
#include <string>

namespace {

const double kPi = 4.0 * std::atan(1.0);

class SynthTablesTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        InitDctCoefficients();
        InitImdctTables();
        InitBlockWindows();
    }
};

// A nine-decimal value may sit 5e-9 from the published one, and storing it as a float rounds
// it by up to half a unit in the last place.
double WindowTolerance(double v)
{
    return 5e-9 + std::fabs(v) * std::ldexp(1.0, -24);
}

TEST_F(SynthTablesTest, WindowFollowsPublishedCoefficients)
{
    std::ifstream in(std::string(QUORBEL_SHARED_DATA_DIR) + "/synthesis-window.txt");
    ASSERT_TRUE(in) << "synthesis-window.txt not found";
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

    for (int i = 0; i < 16; ++i) {
        for (int m = 0; m < 8; ++m) {
            EXPECT_NEAR(SynthWindow[16 * i + 2 * m], -d[i + 64 * m], WindowTolerance(d[i + 64 * m]))
                << "row " << i << " m " << m;
            EXPECT_NEAR(SynthWindow[16 * i + 2 * m + 1], -d[i + 64 * m + 32],
                        WindowTolerance(d[i + 64 * m + 32]))
                << "row " << i << " m " << m;
        }
    }
    for (int m = 0; m < 8; ++m)
        EXPECT_NEAR(SynthWindow[256 + m], d[48 + 64 * m], WindowTolerance(d[48 + 64 * m])) << m;
}

TEST_F(SynthTablesTest, WindowTellingRows)
{
    const double rows01[32] = {
        0.000000000,  0.000442505,  -0.003250122, 0.007003784,  -0.031082151, 0.078628540,
        -0.100311279, 0.572036743,  -1.144989014, -0.572036743, -0.100311279, -0.078628540,
        -0.031082151, -0.007003784, -0.003250122, -0.000442505, 0.000015259,  0.000473022,
        -0.003326416, 0.007919312,  -0.030517576, 0.084182739,  -0.090927124, 0.600219727,
        -1.144287109, -0.543823242, -0.108856201, -0.073059082, -0.031478882, -0.006118774,
        -0.003173828, -0.000396729};
    const double sample16[8] = {-0.001586914, -0.023910521, -0.148422241, -0.976852417,
                                0.152206421,  0.000686646,  -0.002227783, 0.000076294};
    for (int i = 0; i < 32; ++i)
        EXPECT_NEAR(SynthWindow[i], rows01[i], WindowTolerance(rows01[i])) << i;
    for (int m = 0; m < 8; ++m)
        EXPECT_NEAR(SynthWindow[256 + m], sample16[m], WindowTolerance(sample16[m])) << m;
    for (int i = 0; i < 264; ++i)
        EXPECT_LE(std::fabs(SynthWindow[i]), std::fabs(SynthWindow[8])) << i;
}

// The factors and windows feed transforms whose outputs the filter-bank tests check against
// their definitions; here only the values that are easy to get subtly wrong.
TEST_F(SynthTablesTest, FactorsEasyToGetWrong)
{
    EXPECT_NEAR(DctCoefficients[0], 0.50060300, 5e-8);   // 0.5 / cos(pi / 64)
    EXPECT_NEAR(DctCoefficients[15], 0.5 / std::cos(31 * kPi / 64), 1e-5);
    EXPECT_NEAR(DctCoefficients[16], 0.5 / std::cos(kPi / 32), 5e-8);
    EXPECT_NEAR(DctCoefficients[30], 0.70710678, 5e-8);  // 0.5 / cos(pi / 4)
    // The short pre-twiddle is the plain cosine (stored doubled, then halved).
    EXPECT_FLOAT_EQ(ShortPreTwiddle[0], static_cast<float>(std::cos(kPi / 24)));
    EXPECT_FLOAT_EQ(ShortCos, static_cast<float>(std::sqrt(3.0)));
}

TEST_F(SynthTablesTest, BlockWindowsValuesAndSigns)
{
    EXPECT_NEAR(BlockWindows[0][8], 0.67559021, 1e-7);
    EXPECT_NEAR(BlockWindows[0][9], -0.73727734, 1e-7);
    for (int i = 18; i < 24; ++i)
        EXPECT_EQ(BlockWindows[1][i], -1.0f) << i;
    for (int i = 12; i < 18; ++i)
        EXPECT_EQ(BlockWindows[3][i], -1.0f) << i;
    for (int i = 30; i < 36; ++i)
        EXPECT_EQ(BlockWindows[1][i], 0.0f) << i;
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(BlockWindows[3][i], 0.0f) << i;
    for (int i = 0; i < 3; ++i)
        EXPECT_GT(BlockWindows[2][i], 0.0f) << i;
    for (int i = 3; i < 12; ++i)
        EXPECT_LT(BlockWindows[2][i], 0.0f) << i;
}

TEST_F(SynthTablesTest, InitialisationIsRepeatable)
{
    float windows[4][36];
    float factors[31];
    std::copy(&BlockWindows[0][0], &BlockWindows[0][0] + 4 * 36, &windows[0][0]);
    std::copy(DctCoefficients, DctCoefficients + 31, factors);
    const float shortPre0 = ShortPreTwiddle[0];
    InitDctCoefficients();
    InitImdctTables();
    InitBlockWindows();
    for (int b = 0; b < 4; ++b) {
        for (int i = 0; i < 36; ++i)
            EXPECT_EQ(BlockWindows[b][i], windows[b][i]) << b << "," << i;
    }
    for (int i = 0; i < 31; ++i)
        EXPECT_EQ(DctCoefficients[i], factors[i]) << i;
    EXPECT_EQ(ShortPreTwiddle[0], shortPre0);
}

}  // namespace
