// The decoder's stages where no reference stream reaches (tests/decode sees the rest), its tables
// against the reference data files, and the synthesis sums' conversion to PCM. Crafted bit streams
// are coded from the data file's code words, not from the decoder's lookup tables.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>

#include "player/mp3/decoder/BitReader.h"
#include "player/mp3/decoder/DecoderTables.h"
#include "player/mp3/decoder/SynthTables.h"
#include "player/mp3/decoder/Synthesis.h"

namespace {

typedef std::vector<uint8_t> Bytes;

// Most significant bit first, as the decoder reads.
struct BitWriter {
    Bytes bytes;
    int bits = 0;
    void Put(uint32_t value, int n) {
        for (; n > 0; --n, ++bits) {
            if (bits % 8 == 0) bytes.push_back(0);
            bytes.back() |= uint8_t((value >> (n - 1) & 1) << (7 - bits % 8));
        }
    }
    void PutCode(const std::string& code) {
        for (char c : code) Put(c == '1', 1);
    }
};

// huffman-codes.txt's code word for "table x y" (1 .. 16, 24) or "A vwxy", "B vwxy"; "" if none.
std::string Code(const std::string& key) {
    static std::map<std::string, std::string> codes;
    std::ifstream in(codes.empty() ? std::string(QUORBEL_SHARED_DATA_DIR) + "/huffman-codes.txt"
                                   : "");  // read once
    std::string table = " ", a, b, length, code;
    for (std::string line; std::getline(in, line);) {
        std::istringstream w(line);
        if (!(w >> a) || a[0] == '#') continue;
        if (a == "table" || a == "count1")
            w >> table;
        else if (table[0] >= 'A' && w >> length >> code)
            codes[table + " " + std::to_string(std::stoi(a, nullptr, 2))] = code;  // count1
        else if (w >> b >> length >> code)
            codes[table + " " + a + " " + b] = code;
    }
    return codes.count(key) ? codes[key] : "";
}
// MPEG-1 44.1 kHz 128 kbit/s joint stereo (417-byte frames); MPEG-2 22.05 kHz 64 kbit/s joint.
const Bytes kMpeg1 = {0xFF, 0xFB, 0x90, 0x64}, kMpeg2 = {0xFF, 0xF3, 0x80, 0x64};
// length bytes: the header, then side information of these (value, bits) fields, then zeros.
Bytes Frame(Bytes header, std::vector<std::pair<uint32_t, int>> side = {}, size_t length = 2000) {
    BitWriter w{header, 32};  // on after the header's 32 bits
    for (auto f : side) w.Put(f.first, f.second);
    w.bytes.resize(length);
    return w.bytes;
}
// A decoder (on the heap: it is large) started on a silent frame with this header.
std::unique_ptr<CMP3Decoder> Started(const Bytes& header) {
    InitDecoderTables();
    auto d = std::make_unique<CMP3Decoder>();
    MP3StreamInfo info{};
    EXPECT_EQ(d->StartDecoder(Frame(header).data(), 2000, &info), 1);
    return d;
}
Bytes reading;  // what the decoder reads bits from, with room for its look-ahead
void ReadFrom(CMP3Decoder& d, const Bytes& bits) {
    reading = bits;
    reading.resize(bits.size() + 64);
    d.SetBitPos(reading.data());
    d.SetBitLimit(reading.data() + reading.size());
}
int32_t Line(const float* lines, int i) {
    return CMP3Decoder::LoadSlotInt(lines + i);
}

// ---- Intensity stereo: of the reference streams, one granule of M2L3_noise sets it and codes
// no line there; lame never uses it. Under mid/side the factors are sqrt 2 larger (such frames'
// gain is 2 lower), and the illegal position, which leaves a band alone, sets R := L.
struct Mode {
    const char* name;
    int version;
    bool ms;
    int scale;
};
class DecIntensity : public ::testing::TestWithParam<Mode> {
protected:
    // Left channel 1000 + line, right 3 in long band 0 and 0 above.
    void SetUp() override {
        for (int i = 0; i < 576; ++i) L[i] = 1000.0f + i, R[i] = i < l[1] ? 3.0f : 0.0f;
        d->MsStereo = P().ms, d->IntensityStereo = 1, header.version = uint32_t(P().version);
    }
    const Mode& P() const { return GetParam(); }
    void Expect(int i, double left, double right) {
        ASSERT_NEAR(L[i], left, 1e-3) << "left, line " << i;
        ASSERT_NEAR(R[i], right, 1e-3) << "right, line " << i;
    }
    // Line i of a band at position p whose illegal position is illegal.
    void ExpectPosition(int i, uint32_t p, uint32_t illegal) {
        const double x = 1000 + i, ms = P().ms ? std::sqrt(2.0) : 1.0;
        const double s = std::sin(p * std::acos(-1.0) / 12), c = std::cos(p * std::acos(-1.0) / 12);
        const double i0 = std::pow(2.0, -(P().scale + 1) / 4.0);
        if (p >= illegal)
            Expect(i, x, P().ms ? x : 0);
        else if (P().version == 1)
            Expect(i, ms * x * s / (s + c), ms * x * c / (s + c));
        else
            Expect(i, ms * x * (p % 2 ? std::pow(i0, (p + 1) / 2) : 1),
                   ms * x * (p % 2 ? 1 : std::pow(i0, p / 2)));
    }
    const int32_t* l = BandIndexTable[P().version == 1 ? 0 : 3];  // 44.1 or 22.05 kHz
    std::unique_ptr<CMP3Decoder> d = Started(P().version == 1 ? kMpeg1 : kMpeg2);
    float *L = d->Spectrum[0][0], *R = d->Spectrum[1][0];
    ScaleFactorSet* sf = &d->ScaleFactors[0][1];  // the right channel's
    MP3FrameHeader header{};
};

// Long blocks: the right channel's highest band is 0, so intensity runs from band 1 to band 20
// and stops at the left channel's line count (400). MPEG-2 groups: bands 0..2 with 1 bit,
// 3..8 with 3 bits, 9..14 with 5 bits, none after.
TEST_P(DecIntensity, LongBlocksEveryPosition) {
    const uint32_t groups[7] = {3, 6, 6, 1, 3, 5, uint32_t(P().scale)};
    std::memcpy(d->IntensityInfo, groups, sizeof groups);
    const auto bits = [&](int b) {
        return P().version == 1 ? 4 : b < 3 ? 1 : b < 9 ? 3 : b < 15 ? 5 : 0;
    };
    for (int b = 0; b < 21; ++b) sf->longSf[b] = uint32_t(b * 5) & ((1u << bits(b)) - 1);
    d->LineCount[0][0] = 400;
    d->ProcessStereo(header, 0);
    for (int b = 0; b < 22; ++b)
        for (int i = l[b]; i < l[b + 1]; ++i) {
            if (b == 0)
                Expect(i, P().ms ? i + 1003 : i + 1000, P().ms ? i + 997 : 3);  // mid/side below
            else if (b == 21 || i >= 400)
                Expect(i, 1000 + i, 0);
            else
                ExpectPosition(i, sf->longSf[b], P().version == 1 ? 7 : (1u << bits(b)) - 1);
        }
}

// Short blocks, in (band, line, window) order. MPEG-1: above the right channel's highest band
// (2: from line 36), a triple only while three lines of the left channel's count are left.
// MPEG-2: each window from above its own highest band up to the left channel's in that window.
TEST_P(DecIntensity, ShortBlocksPerWindow) {
    d->BandInfo[0][1][kBandHasShort] = 1;
    if (P().version == 1) {
        d->BandInfo[0][1][kBandMax] = 2, d->LineCount[0][0] = 41;
        sf->shortSf[0][3] = 0, sf->shortSf[1][3] = 6, sf->shortSf[2][3] = 3;
        d->ProcessStereo(header, 0);
        for (int w = 0; w < 3; ++w) {
            ExpectPosition(36 + w, sf->shortSf[w][3], 7);
            Expect(39 + w, 1039 + w, 0);
        }
        return;
    }
    const int32_t maxR[3] = {1, 2, 3}, maxL[3] = {3, 2, 4};  // s = 0 4 8 12 18 24 ...
    std::copy_n(maxR, 3, &d->BandInfo[0][1][kBandMaxShort]);
    std::copy_n(maxL, 3, &d->BandInfo[0][0][kBandMaxShort]);
    const uint32_t groups[7] = {6, 6, 0, 1, 1, 0, uint32_t(P().scale)};
    std::memcpy(d->IntensityInfo, groups, sizeof groups);
    sf->shortSf[0][3] = 1;
    d->ProcessStereo(header, 0);
    // Window 0: bands 2 and 3 (illegal), not 4; window 1: none; window 2: band 4.
    ExpectPosition(24, 0, 1);
    ExpectPosition(36, 1, 1);
    Expect(54, 1054, 0);
    Expect(37, 1037, 0);
    ExpectPosition(56, 0, 1);
}

const Mode kModes[] = {{"Mpeg1", 1, false, 0},       {"Mpeg1MidSide", 1, true, 0},
                       {"Mpeg2Scale0", 2, false, 0}, {"Mpeg2MidSideScale0", 2, true, 0},
                       {"Mpeg2Scale1", 2, false, 1}, {"Mpeg2MidSideScale1", 2, true, 1}};
INSTANTIATE_TEST_SUITE_P(Modes, DecIntensity, ::testing::ValuesIn(kModes),
                         [](const auto& i) { return std::string(i.param.name); });

// MPEG-2 scale factors: the right channel of an intensity frame splits scalefac_compress by its
// own rule into band groups and lengths, which it leaves for the stereo stage; the left channel
// keeps the ordinary rule, by which the mixed-block flag moves the lengths up whatever the block
// type (on a long block too, which no MPEG-2 stream sets). The bits read show the lengths.
TEST(DecMpeg2ScaleFactors, RightChannelGroupsAndTheMixedFlagOnALongBlock) {
    // The bits read, then IntensityInfo: the groups' band counts, their lengths, the scale.
    const auto read = [](uint32_t sfc, uint32_t blockType, uint32_t mixed, int ch) {
        auto d = Started(kMpeg2);
        d->IntensityStereo = 1;
        GranuleSideInfo& g = d->GranuleInfo[0][ch];
        g.scalefac_compress = sfc;
        g.block_type = blockType;
        g.mixed_block_flag = mixed;
        ReadFrom(*d, Bytes(64, 0xFF));
        d->ReadScaleFactorsMpeg2(0, ch);
        std::string s = std::to_string(d->BitsUsed());
        for (uint32_t v : d->IntensityInfo) s += " " + std::to_string(v);
        return s;
    };
    // Left: (3, 2) moved up to (3, 3, 2): 11 x 3 + 10 x 3 bits. Right, i = sfc / 2: 179 (its
    // table 3), 180 (table 4, lengths 0), 255 (table 5, mixed: 6 long bands first).
    EXPECT_EQ(read(511, 0, 1, 0), "63 0 0 0 0 0 0 0");
    EXPECT_EQ(read(359, 0, 0, 1), "98 7 7 7 4 5 5 1");
    EXPECT_EQ(read(360, 2, 0, 1), "0 4 3 3 0 0 0 0");
    EXPECT_EQ(read(511, 2, 1, 1), "54 6 6 3 3 2 0 1");
}

// ---- The bit reservoir and damaged frames (random damage is the fuzz target's).
Bytes pcm;
MP3FrameIO io;  // the last call's
// The frame's first length bytes (all if 0) into a block of sentinels (0x5A), left for inspection.
int Decode(CMP3Decoder& d, const Bytes& frame, size_t length = 0) {
    pcm.assign(8192, 0x5A);
    io = MP3FrameIO{};
    io.inData = frame.data();
    io.inLength = int32_t(length ? length : frame.size());
    io.outData = pcm.data();
    return d.DecodeFrame(&io);
}
bool Filled(uint8_t v, size_t from = 0, size_t to = 8192) {
    return std::all_of(&pcm[from], &pcm[0] + to, [v](uint8_t b) { return b == v; });
}

TEST(DecReservoir, FramesWithoutTheirDataAreSkippedAndKeepTheirBytes) {
    // 381 bytes of main data a frame: reaching back into an empty reservoir, one byte more than
    // held, then what is held (into this frame's PCM only).
    auto d = Started(kMpeg1);
    ASSERT_EQ(Decode(*d, Frame(kMpeg1, {{10, 9}}, 417)), 1);
    EXPECT_TRUE(Filled(0x5A) && d->ReservoirBytes == 381);
    ASSERT_EQ(Decode(*d, Frame(kMpeg1, {{382, 9}}, 417)), 1);
    EXPECT_TRUE(Filled(0x5A) && d->ReservoirBytes == 762);
    ASSERT_EQ(Decode(*d, Frame(kMpeg1, {{511, 9}}, 417)), 1);
    EXPECT_TRUE(d->ReservoirStart == 762 - 511 && Filled(0, 0, 4608) && Filled(0x5A, 4608));
    // An MPEG-2 frame's granule goes to the slot the toggle names; a skipped frame leaves the
    // toggle, so that the next frame's granule (global gain 44) overlaps the last decoded one.
    const Bytes mono = {0xFF, 0xF3, 0x80, 0xC0};  // 208-byte frames
    d = Started(mono);
    ASSERT_EQ(Decode(*d, Frame(mono, {{5, 8}, {0, 22}, {33, 8}}, 208)), 1);
    EXPECT_TRUE(Filled(0x5A) && d->GranuleToggle == 0);
    ASSERT_EQ(Decode(*d, Frame(mono, {{0, 8}, {0, 22}, {44, 8}}, 208)), 1);
    EXPECT_TRUE(d->GranuleToggle == 1 && d->GranuleInfo[0][0].global_gain == 44 &&
                Filled(0, 0, 1152));
    // Frames without room for their data: skipped whole, their bytes kept where they fit. An
    // MPEG-1 frame in a 22.05 kHz stream has no room for granule 1; a Layer I frame is shorter
    // than its side information; a Layer II frame at 32 kHz is 1693 bytes past the fill limit.
    const auto skipped = [&](const Bytes& stream, const Bytes& frame, int32_t held, int32_t kept) {
        d = Started(stream);
        d->ReservoirBytes = held;
        return Decode(*d, frame) == 1 && Filled(0x5A) && d->ReservoirBytes == kept;
    };
    EXPECT_TRUE(skipped(kMpeg2, Frame(kMpeg1, {}, 835), 0, 835 - 36));
    EXPECT_TRUE(skipped(kMpeg1, Frame({0xFF, 0xFF, 0x10, 0x40}, {}, 32), 0, 0));
    EXPECT_TRUE(
        skipped({0xFF, 0xFB, 0x98, 0x64}, Frame({0xFF, 0xFD, 0xEA, 0x40}, {}, 1729), 6692, 6692));
}

// The Huffman stage's ends. A 32 kbit/s single-channel frame (83 bytes of main data, zeros)
// whose granule 0 claims 4095 bits and 200 pairs of table 1, whose all-zero code is (1, 1): the
// pairs past the held bytes overrun, and the channel is cleared rather than read as loud zeros.
// Big values asking for 600 lines of MPEG-1's 558 are cut there, leaving none for count1. The
// count1 part stops where its bits or lines run out.
TEST(DecHuffmanEnds, OverrunLineLimitAndCount1End) {
    const Bytes mono = {0xFF, 0xFB, 0x10, 0xC0};
    auto d = Started(mono);
    const std::vector<std::pair<uint32_t, int>> side = {{0, 18}, {4095, 12}, {200, 9}, {200, 8},
                                                        {0, 5},  {1, 5},     {1, 5},   {1, 5}};
    EXPECT_TRUE(Decode(*d, Frame(mono, side, 104)) == 1 && Filled(0, 0, 2304));

    d = Started(kMpeg1);
    GranuleSideInfo& g = d->GranuleInfo[0][0];
    g.big_values = 300;
    g.region0_count = 15;
    g.region1_count = 7;  // region 1 from line 162 to the end
    g.table_select[1] = 1;
    g.table_select[2] = 15;
    BitWriter w;
    for (int i = 162; i < 558; i += 2) w.PutCode(Code("1 1 0") + "0");
    w.Put(0, 32);  // would be count1 quadruples
    g.part2_3_length = uint32_t(w.bits);
    std::fill_n(d->Spectrum[0][0], 576, 5.0f);  // what the slot held before
    ReadFrom(*d, w.bytes);
    d->DecodeHuffman(0, 0, 0);
    EXPECT_TRUE(d->LineCount[0][0] == 558 && d->BitsUsed() == w.bits - 32);
    for (int i : {160, 162, 556, 558, 575})
        EXPECT_EQ(Line(d->Spectrum[0][0], i), i >= 162 && i < 558 ? 1 : 0) << i;

    float out[16];
    ReadFrom(*d, Bytes(16));
    EXPECT_EQ(d->DecodeCount1(out, 16, 3, 1), 0);  // table B codes take 4 bits
    BitWriter q;                                   // (1, 0, 0, 0), (1, 1, 1, 1), signs positive
    q.PutCode(Code("A 8") + "0" + Code("A 15") + "0000");
    // One bit left: a quadruple is still read, then cleared as its code and sign ran past the
    // channel's bits; the count keeps it (v only: two lines). Exactly enough bits keep both.
    std::fill(out, out + 16, 7.0f);
    ReadFrom(*d, q.bytes);
    EXPECT_EQ(d->DecodeCount1(out, 16, 1, 0), 2);
    EXPECT_TRUE(Line(out, 0) == 0 && Line(out, 3) == 0 && out[4] == 7.0f);
    ReadFrom(*d, q.bytes);
    EXPECT_TRUE(d->DecodeCount1(out, 16, q.bits, 0) == 8 && Line(out, 7) == 1);
    ReadFrom(*d, q.bytes);
    EXPECT_EQ(d->DecodeCount1(out, 7, 1000, 0), 2);  // seven lines hold one quadruple
}

// ---- The stream's edges: refused headers with their LastError (3: no sync, 4: a field out of
// range, 5: input too short), frames sized with the first frame's rate, the VBR headers' places.
// Start: a fresh decoder's answer, "refused" and LastError or the totals, bitrate and rate.
std::string Start(const Bytes& file, int32_t length = 156) {
    auto d = std::make_unique<CMP3Decoder>();
    MP3StreamInfo info{};
    if (!d->StartDecoder(file.data(), length, &info))
        return "refused " + std::to_string(d->LastError);
    return std::to_string(info.totalFrames) + " " + std::to_string(info.totalBytes) + " " +
           std::to_string(info.bitrate) + " " + std::to_string(info.outSampleRate);
}

TEST(DecStream, HeadersShortInputAndTheFirstFramesRate) {
    // Versions 00, 01 (taken as 00) and 10 by their rates; the eleven sync bits; rate 3, free
    // format, bitrate 15, layer 00; a Layer II stream, refused with no code of its own.
    EXPECT_EQ(Start(Frame({0xFF, 0xE2, 0x90, 0x64})), "0 0 80000 11025");
    EXPECT_EQ(Start(Frame({0xFF, 0xEA, 0x90, 0x64})), "0 0 80000 11025");
    EXPECT_EQ(Start(Frame({0xFF, 0xF2, 0x90, 0x64})), "0 0 80000 22050");
    EXPECT_EQ(Start(Frame({0xFF, 0xDB, 0x90, 0x64})), "refused 3");
    EXPECT_EQ(Start(Frame({0xFE, 0xFB, 0x90, 0x64})), "refused 3");
    EXPECT_EQ(Start(Frame({0xFF, 0xFB, 0x9C, 0x64})), "refused 4");
    EXPECT_EQ(Start(Frame({0xFF, 0xFB, 0x00, 0x64})), "refused 4");
    EXPECT_EQ(Start(Frame({0xFF, 0xFB, 0xF0, 0x64})), "refused 4");
    EXPECT_EQ(Start(Frame({0xFF, 0xF9, 0x90, 0x64})), "refused 4");
    EXPECT_EQ(Start(Frame({0xFF, 0xFD, 0x90, 0x64})), "refused 0");
    auto d = Started(kMpeg1);
    const Bytes first = Frame(kMpeg1), noSync = Frame({0, 0xFB, 0x90, 0x64});
    EXPECT_TRUE(Start(first, 155) == "refused 5" && Start(first, 156) == "0 0 128000 44100");
    EXPECT_TRUE(Decode(*d, first, 4) == 0 && d->LastError == 5);
    EXPECT_TRUE(Decode(*d, noSync, 5) == 0 && d->LastError == 3);  // 5 reach the header
    EXPECT_TRUE(Decode(*d, first, 416) == 0 && d->LastError == 5 && d->ReservoirBytes == 0);
    EXPECT_EQ(io.bitrate, 128000u);  // the header's fields are filled before the refusal
    EXPECT_TRUE(Decode(*d, first, 417) == 1 && io.outLength == 4608);
    EXPECT_TRUE(Decode(*d, Frame({0xFF, 0xFB, 0x94, 0x64})) == 1 && io.inLength == 417);  // 48 kHz
}

// A Xing header after the header, the CRC and the side information; VBRI 32 bytes in whatever
// the mode. Found: the totals, and bitrate 0; not found: the header's bitrate.
TEST(DecStream, VbrHeadersAtTheirPlaces) {
    // A silent frame with the tag at `at`, and words big-endian at their distances from it.
    const auto tagged = [](const Bytes& header, size_t at, const char* tag,
                           std::vector<std::pair<size_t, uint32_t>> words) {
        Bytes f = Frame(header);
        std::memcpy(&f[at], tag, 4);
        for (const auto& [distance, v] : words)
            for (int k = 0; k < 4; ++k) f[at + distance + k] = uint8_t(v >> (24 - 8 * k));
        return Start(f);
    };
    // Xing with neither count is refused; with the frames alone, taken.
    EXPECT_EQ(tagged(kMpeg1, 36, "Xing", {{4, 0}}), "refused 4");
    EXPECT_EQ(tagged(kMpeg1, 36, "Xing", {{4, 1}, {8, 10}, {12, 77}}), "10 77 0 44100");
    EXPECT_EQ(tagged(kMpeg1, 36, "VBRI", {{10, 4000000}, {14, 9000}}), "9000 4000000 0 44100");
    // MPEG-1 mono, stereo with CRC, MPEG-2 mono: at the Xing header's place (after 4 + 17,
    // 4 + 2 + 32 and 4 + 9 bytes), and a byte later.
    const std::vector<std::pair<size_t, uint32_t>> both = {{4, 3}, {8, 1234}, {12, 567890}};
    EXPECT_EQ(tagged({0xFF, 0xFB, 0x90, 0xC4}, 21, "Xing", both), "1234 567890 0 44100");
    EXPECT_EQ(tagged({0xFF, 0xFB, 0x90, 0xC4}, 22, "Xing", both), "0 0 128000 44100");
    EXPECT_EQ(tagged({0xFF, 0xFA, 0x90, 0x44}, 38, "Xing", both), "1234 567890 0 44100");
    EXPECT_EQ(tagged({0xFF, 0xFA, 0x90, 0x44}, 39, "Xing", both), "0 0 128000 44100");
    EXPECT_EQ(tagged({0xFF, 0xF3, 0x80, 0xC0}, 13, "Xing", both), "1234 567890 0 22050");
    EXPECT_EQ(tagged({0xFF, 0xF3, 0x80, 0xC0}, 14, "Xing", both), "0 0 64000 22050");
}

// ---- The tables against the reference data files, entry by entry: a wrong entry that only a
// rare code word or a single coefficient holds can hide from the reference streams. The code
// words of each table in a row, with linbits and signs, go through the Huffman stage.
TEST(DecTables, EveryHuffmanCodeWordDecodesToItsValues) {
    const int kLinbits[16] = {1, 2, 3, 4, 6, 8, 10, 13, 4, 5, 6, 7, 8, 9, 11, 13};  // tables 16..31
    auto d = Started(kMpeg1);
    for (int table = 1; table < 34; ++table) {  // 32, 33: count1 tables A and B
        const int base = table < 16 ? table : table < 24 ? 16 : 24;
        const int linbits = table >= 16 && table < 32 ? kLinbits[table - 16] : 0;
        BitWriter w;
        std::vector<int> expected;
        for (int x = 0; x < 16; ++x)
            for (int y = 0; y < (table < 32 ? 16 : 1); ++y) {
                const std::string xs = std::to_string(x);
                const std::string code =
                    Code(table < 32 ? std::to_string(base) + " " + xs + " " + std::to_string(y)
                                    : (table == 32 ? "A " : "B ") + xs);
                if (code.empty()) continue;
                w.PutCode(code);
                for (int v : table < 32
                                 ? std::vector<int>{x, y}
                                 : std::vector<int>{x >> 3 & 1, x >> 2 & 1, x >> 1 & 1, x & 1}) {
                    const int extra =
                        v == 15 && linbits ? (v * 7 + int(expected.size())) % (1 << linbits) : 0;
                    const bool negative = v && (expected.size() / 2 + table) % 3 == 0;
                    if (v == 15 && linbits) w.Put(extra, linbits);
                    if (v) w.Put(negative, 1);
                    expected.push_back(negative ? -(v + extra) : v + extra);
                }
            }
        if (expected.empty()) continue;  // tables 4 and 14 have no code
        float out[576];
        ReadFrom(*d, w.bytes);
        if (table < 32)
            d->DecodeBigValues(out, int32_t(expected.size()), uint32_t(table));
        else
            EXPECT_EQ(d->DecodeCount1(out, 64, w.bits, table - 32), 64);
        EXPECT_EQ(d->BitsUsed(), w.bits) << "table " << table;
        for (size_t i = 0; i < expected.size(); ++i)
            ASSERT_EQ(Line(out, int(i)), expected[i]) << "table " << table << " value " << i;
    }
}

TEST(DecTables, BandsAndSynthesisWindowFollowTheirFiles) {
    std::ifstream bands(std::string(QUORBEL_SHARED_DATA_DIR) + "/scalefactor-bands.txt");
    int row = -1, values = 0;
    for (std::string line, kind; std::getline(bands, line);) {
        std::istringstream w(line);
        if (!(w >> kind) || kind[0] == '#' || (kind == "rate" && ++row >= 0)) continue;
        for (int i = kind == "long" ? 0 : 23, v; w >> v; ++i, ++values)
            EXPECT_EQ(BandIndexTable[row][i], v) << line << " at " << i;
    }
    EXPECT_EQ(values, 9 * 37);
    // The stored window: rows of pairs (D[i + 64m], D[i + 64m + 32]) negated, then D[48 + 64m];
    // decimals that may sit 5e-9 from the exact values, rounded to float.
    std::ifstream window(std::string(QUORBEL_SHARED_DATA_DIR) + "/synthesis-window.txt");
    double D[512];
    int count = 0, i;
    long k;
    for (std::string line; std::getline(window, line);)  // comment lines read no number
        if (std::istringstream(line) >> i >> k && i >= 0 && i < 512) D[i] = k / 65536.0, ++count;
    ASSERT_EQ(count, 512);
    const auto nearly = [](float stored, double exact) {
        return std::fabs(stored - exact) <= 5e-9 + std::fabs(exact) * 6e-8;
    };
    for (int r = 0; r < 16; ++r)
        for (int m = 0; m < 8; ++m)
            EXPECT_TRUE(nearly(SynthWindow[16 * r + 2 * m], -D[r + 64 * m]) &&
                        nearly(SynthWindow[16 * r + 2 * m + 1], -D[r + 64 * m + 32]))
                << r << " " << m;
    for (int m = 0; m < 8; ++m) EXPECT_PRED2(nearly, SynthWindow[256 + m], D[48 + 64 * m]) << m;
}

// ---- The conversion of the window sums to PCM, through the windowing this build has: truncated
// toward zero (the conformance figures see rounding only as an average), clipped to 16 bits,
// little-endian, at the channel's own positions only. The sums are formed here from the stored
// window in the windowing's order with exact double products, so every sample is known exactly.
TEST(SynthPcm, WindowSumsTruncateTowardZeroAndClip) {
    std::mt19937 random(20261124);
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    float ring[512];
    for (float scale : {0.5f, 4.0f, 300.0f, 30000.0f, 3e9f}) {
        for (float& v : ring) v = unit(random) * scale;
        for (uint32_t o = 0; o < 512; o += 32)
            for (int stride : {1, 2}) {
                std::vector<uint8_t> pcm(160, 0xEE);
                SynthWindowToPcm(ring, o, pcm.data(), stride);
                for (int k = 0; k < 32; ++k) {
                    const int i = k <= 16 ? k : 32 - k;  // 32 - i takes i's ring values
                    const float* w = SynthWindow + 16 * i;
                    double sum = 0;
                    for (int m = 0; m < 8; ++m) {
                        const double a = ring[(o + 16 + i + 64 * m) & 511],
                                     b = ring[(o + 48 - i + 64 * m) & 511];
                        sum += a * w[k == 16 ? m : k < 16 ? 2 * m : 15 - 2 * m];
                        if (k != 16) sum += k < 16 ? -b * w[2 * m + 1] : b * w[14 - 2 * m];
                    }
                    const uint8_t* at = &pcm[2 * stride * k];
                    ASSERT_EQ(int16_t(at[0] | at[1] << 8),
                              int(std::max(-32768.0, std::min(32767.0, std::trunc(sum)))))
                        << sum << " at " << k;
                }
                // The other channel's samples and what follows the slot are left alone.
                for (int b = 0; b < 160; ++b)
                    ASSERT_TRUE((b % (2 * stride) < 2 && b < 64 * stride) || pcm[b] == 0xEE) << b;
            }
    }
}

}  // namespace
