// The stream's edges, which the reference streams do not reach: the headers the decoder refuses
// with their LastError codes, input too short for the start or a frame, frames sized with the
// first frame's rate, where the VBR headers are looked for (also by the player's start on a
// file shorter than the decoder's minimum), and the line limits of rates no stream shows.

#include <cstring>

#include "dec_test_support.h"
#include "player/mp3/MP3Stream.h"

namespace {

constexpr uint32_t kNoSync = 3, kBadField = 4, kShortInput = 5;

const bool kTablesBuilt = (InitDecoderTables(), true);

std::vector<uint8_t> Bytes(std::vector<uint8_t> header, size_t size = 2000) { header.resize(size); return header; }
// A four-letter tag at at, with big-endian words at their distances from it.
void PutTag(std::vector<uint8_t>& b, size_t at, const char* tag, std::vector<std::pair<size_t, uint32_t>> words = {}) {
    std::memcpy(&b[at], tag, 4);
    for (const auto& [distance, v] : words)
        for (int k = 0; k < 4; ++k) b[at + distance + k] = uint8_t(v >> (24 - 8 * k));
}

TEST(DecStream, HeadersAndTheirRefusals) {
    struct Case { uint8_t b0, b1, b2; int result; uint32_t error, version; };
    const Case cases[] = {
        {0xFF, 0xE2, 0x90, 1, 0, 3},          // version bits 00: MPEG-2.5
        {0xFF, 0xEA, 0x90, 1, 0, 3},          // reserved 01: taken as MPEG-2.5
        {0xFF, 0xF2, 0x90, 1, 0, 2},          // 10: MPEG-2
        {0xFF, 0xDB, 0x90, 0, kNoSync, 0},    // sync 1111 1111 110x not whole
        {0xFE, 0xFB, 0x90, 0, kNoSync, 0},
        {0xFF, 0xFB, 0x9C, 0, kBadField, 0},  // sample-rate index 3
        {0xFF, 0xFB, 0x00, 0, kBadField, 0},  // free format
        {0xFF, 0xFB, 0xF0, 0, kBadField, 0},  // bitrate index 15
        {0xFF, 0xF9, 0x90, 0, kBadField, 0},  // layer bits 00
    };
    auto d = dectest::Started(dectest::kMpeg1);
    for (const Case& c : cases) {
        const uint8_t bytes[4] = {c.b0, c.b1, c.b2, 0};
        MP3FrameHeader h{};
        d->LastError = 0;
        EXPECT_EQ(d->DecodeFrameHeader(bytes, &h), c.result) << int(c.b1) << " " << int(c.b2);
        EXPECT_EQ(d->LastError, c.error) << int(c.b1) << " " << int(c.b2);
        EXPECT_EQ(c.result ? h.version : 0, c.version) << int(c.b1);
    }
}

TEST(DecStream, ShortInputOtherLayersAndTheFirstFramesRate) {
    std::vector<uint8_t> first = Bytes(dectest::kMpeg1);
    MP3StreamInfo info{};
    CMP3Decoder d;
    EXPECT_EQ(d.StartDecoder(first.data(), 155, &info), 0);
    EXPECT_EQ(d.LastError, kShortInput);
    for (uint8_t layer : {0xFF, 0xFD}) {  // Layer I, Layer II: refused with no code of their own
        CMP3Decoder other;
        EXPECT_EQ(other.StartDecoder(Bytes({0xFF, layer, 0x90, 0x64}).data(), 2000, &info), 0);
        EXPECT_EQ(other.LastError, 0u);
    }
    ASSERT_EQ(d.StartDecoder(first.data(), 156, &info), 1);
    std::vector<uint8_t> out(4608);
    MP3FrameIO io{};
    io.inData = first.data(), io.outData = out.data(), io.inLength = 4;
    EXPECT_EQ(d.DecodeFrame(&io), 0);
    EXPECT_EQ(d.LastError, kShortInput);
    std::vector<uint8_t> noSync = first;
    noSync[0] = 0;
    io.inData = noSync.data(), io.inLength = 5;  // 5 bytes reach the header
    EXPECT_EQ(d.DecodeFrame(&io), 0);
    EXPECT_EQ(d.LastError, kNoSync);
    io.inData = first.data(), io.inLength = 416;
    EXPECT_EQ(d.DecodeFrame(&io), 0);
    EXPECT_EQ(d.LastError, kShortInput);
    EXPECT_EQ(io.bitrate, 128000u);  // the header's fields are filled before the refusal
    EXPECT_EQ(d.ReservoirBytes, 0);
    io.inLength = 417;
    EXPECT_EQ(d.DecodeFrame(&io), 1);
    EXPECT_EQ(io.outLength, 4608);
    // A frame announcing 48 kHz is sized with the stream's 44.1 kHz.
    std::vector<uint8_t> other = Bytes({0xFF, 0xFB, 0x94, 0x64});
    io.inData = other.data(), io.inLength = 2000;
    ASSERT_EQ(d.DecodeFrame(&io), 1);
    EXPECT_EQ(io.inLength, 417);
}

// A Xing header after the header, the CRC and the side information; VBRI 32 bytes in whatever
// the mode. Totals as (bytes, frames); 0 frames and a bitrate mean that none was found.
TEST(DecStream, VbrHeadersAtTheirPlaces) {
    struct Case { const char* what; std::vector<uint8_t> file; int result; int32_t frames, bytes, bitrate; };
    std::vector<Case> cases;
    const std::vector<uint8_t> headers[3] = {{0xFF, 0xFB, 0x90, 0xC4}, {0xFF, 0xFA, 0x90, 0x44}, {0xFF, 0xF3, 0x80, 0xC0}};
    const size_t places[3] = {4 + 17, 4 + 2 + 32, 4 + 9};  // MPEG-1 mono, stereo with CRC, MPEG-2 mono
    for (int i = 0; i < 3; ++i) {
        cases.push_back({"Xing", Bytes(headers[i]), 1, 1234, 567890, 0});
        PutTag(cases.back().file, places[i], "Xing", {{4, 3}, {8, 1234}, {12, 567890}});
        cases.push_back({"Xing a byte late", Bytes(headers[i]), 1, 0, 0, i == 2 ? 64000 : 128000});
        PutTag(cases.back().file, places[i] + 1, "Xing", {{4, 3}, {8, 1234}, {12, 567890}});
    }
    cases.push_back({"Xing with neither count", Bytes(dectest::kMpeg1), 0, 0, 0, 0});
    PutTag(cases.back().file, 36, "Xing", {{4, 0}, {8, 10}});
    cases.push_back({"Xing with frames alone", Bytes(dectest::kMpeg1), 1, 10, 0xDEAD, 0});
    PutTag(cases.back().file, 36, "Xing", {{4, 1}, {8, 10}, {12, 0xDEAD}});
    cases.push_back({"VBRI", Bytes(dectest::kMpeg1), 1, 9000, 4000000, 0});
    PutTag(cases.back().file, 36, "VBRI", {{10, 4000000}, {14, 9000}});
    for (const Case& c : cases) {
        CMP3Decoder d;
        MP3StreamInfo info{};
        ASSERT_EQ(d.StartDecoder(c.file.data(), 156, &info), c.result) << c.what << " after " << int(c.file[1]);
        if (!c.result) {
            EXPECT_EQ(d.LastError, kBadField);
            continue;
        }
        EXPECT_EQ(info.totalFrames, c.frames) << c.what;
        EXPECT_EQ(info.totalBytes, c.bytes) << c.what;
        EXPECT_EQ(info.bitrate, c.bitrate) << c.what;
    }
    // The player's start, past the end of a file shorter than the decoder's minimum: two 72-byte
    // MPEG-2.5 frames start; in a 31-byte file a 27-byte MPEG-2 frame with CRC whose Xing id fits
    // and its fields do not counts as having none.
    std::vector<uint8_t> twoFrames = Bytes({0xFF, 0xE3, 0x18, 0xC0}, 144), cut = Bytes({0xFF, 0xF2, 0x12, 0x00}, 31);
    twoFrames[72] = 0xFF, twoFrames[73] = 0xE3, twoFrames[74] = 0x18, twoFrames[75] = 0xC0;
    PutTag(cut, 23, "Xing");
    for (const auto& file : {twoFrames, cut}) {
        CMP3Decoder d;
        MP3StreamInfo info{};
        EXPECT_EQ(CMP3Stream::StartAsThePlayer(&d, file.data(), file.size(), &info), 1) << file.size();
        EXPECT_EQ(info.bitrate, 8000);
        EXPECT_EQ(info.totalFrames, 0);
    }
}

// At 22.05 and 24 kHz a wider band shows in the conformance figures; 16 kHz and MPEG 2.5 are
// seen here only.
TEST(DecStream, LineLimitsPerRate) {
    struct Case { uint8_t b1, b2; int32_t line, longLine, shortLine; };
    const Case cases[] = {{0xF3, 0x88, 530, 522, 522}, {0xE3, 0x80, 530, 522, 522},
                          {0xE3, 0x84, 530, 522, 522}, {0xE3, 0x88, 558, 558, 498}};
    for (const Case& c : cases) {
        auto d = dectest::Started({0xFF, c.b1, c.b2, 0xC0});
        EXPECT_EQ(d->SubbandLimit, 31);
        EXPECT_EQ(d->LineLimit, c.line) << int(c.b1) << " " << int(c.b2);
        EXPECT_EQ(d->LongLineLimit, c.longLine) << int(c.b1) << " " << int(c.b2);
        EXPECT_EQ(d->ShortLineLimit, c.shortLine) << int(c.b1) << " " << int(c.b2);
    }
}

}  // namespace
