// The stream's edges, which the reference streams do not reach: headers the decoder refuses and
// the LastError code of each refusal, input too short for the start or for a frame, the VBR
// headers (Xing after the side information and the CRC, VBRI at its fixed place), frames sized
// with the first frame's rate, and the line limits below the top of the band at the rates where
// the reference streams cannot tell them (MPEG 2.5 has no stream at all).

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "dec_test_support.h"

namespace {

using dectest::HeaderFields;
using dectest::NewDecoder;
using dectest::StartedDecoder;

// The LastError codes.
constexpr uint32_t kNoError = 0, kNoSync = 3, kBadField = 4, kShortInput = 5;

std::vector<uint8_t> Frame(std::initializer_list<uint8_t> header, size_t size = 2000) {
    std::vector<uint8_t> bytes(size, 0);
    std::copy(header.begin(), header.end(), bytes.begin());
    return bytes;
}

void PutBigEndian(std::vector<uint8_t>& b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        b[at + static_cast<size_t>(i)] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

void PutTag(std::vector<uint8_t>& b, size_t at, const char* tag) { std::memcpy(&b[at], tag, 4); }

TEST(DecStream, HeaderVersionBitsAndRefusedFields) {
    auto d = NewDecoder();
    struct Case {
        uint8_t b1, b2;
        int result;
        uint32_t error;
        uint32_t version;
    };
    const Case cases[] = {
        {0xE2, 0x90, 1, kNoError, 3},   // version bits 00: MPEG-2.5
        {0xEA, 0x90, 1, kNoError, 3},   // reserved 01: also taken as MPEG-2.5
        {0xF2, 0x90, 1, kNoError, 2},   // 10: MPEG-2
        {0xDB, 0x90, 0, kNoSync, 0},    // top nibble 1101
        {0xFB, 0x9C, 0, kBadField, 0},  // sample-rate index 3
        {0xFB, 0x00, 0, kBadField, 0},  // free format
        {0xFB, 0xF0, 0, kBadField, 0},  // bitrate index 15
        {0xF9, 0x90, 0, kBadField, 0},  // layer bits 00
    };
    for (const Case& c : cases) {
        const uint8_t bytes[4] = {0xFF, c.b1, c.b2, 0x00};
        MP3FrameHeader h{};
        d->LastError = 0;
        EXPECT_EQ(d->DecodeFrameHeader(bytes, &h), c.result) << int(c.b1) << " " << int(c.b2);
        EXPECT_EQ(d->LastError, c.error) << int(c.b1) << " " << int(c.b2);
        if (c.result) {
            EXPECT_EQ(h.version, c.version) << int(c.b1);
        }
    }
    const uint8_t noSync[4] = {0xFE, 0xFB, 0x90, 0x00};
    MP3FrameHeader h{};
    EXPECT_EQ(d->DecodeFrameHeader(noSync, &h), 0);
    EXPECT_EQ(d->LastError, kNoSync);
}

TEST(DecStream, StartRefusesShortInputAndOtherLayers) {
    std::vector<uint8_t> first = Frame({0xFF, 0xFB, 0x90, 0x64});
    MP3StreamInfo info{};
    auto d = NewDecoder();
    EXPECT_EQ(d->StartDecoder(first.data(), 155, &info), 0);
    EXPECT_EQ(d->LastError, kShortInput);
    EXPECT_EQ(d->StartDecoder(first.data(), 156, &info), 1);

    for (uint8_t layerByte : {uint8_t{0xFF}, uint8_t{0xFD}}) {  // Layer I, Layer II
        auto e = NewDecoder();
        std::vector<uint8_t> other = Frame({0xFF, layerByte, 0x90, 0x64});
        EXPECT_EQ(e->StartDecoder(other.data(), 2000, &info), 0);
        EXPECT_EQ(e->LastError, kNoError);  // no code for a Layer I or II stream
    }
}

TEST(DecStream, DecodeFrameRefusesShortInputAndSizesWithTheFirstFramesRate) {
    auto d = NewDecoder();
    std::vector<uint8_t> bytes = Frame({0xFF, 0xFB, 0x90, 0x64});
    MP3StreamInfo info{};
    ASSERT_EQ(d->StartDecoder(bytes.data(), 2000, &info), 1);
    std::vector<uint8_t> pcm(4608);
    MP3FrameIO io{};
    io.inData = bytes.data();
    io.outData = pcm.data();

    io.inLength = 4;
    EXPECT_EQ(d->DecodeFrame(&io), 0);
    EXPECT_EQ(d->LastError, kShortInput);
    EXPECT_EQ(io.bitrateIndex, 0u);  // refused before the header

    // 5 bytes reach the header decode: a bad sync says so with its own code.
    std::vector<uint8_t> noSync = bytes;
    noSync[0] = 0;
    MP3FrameIO bad{};
    bad.inData = noSync.data();
    bad.inLength = 5;
    bad.outData = pcm.data();
    EXPECT_EQ(d->DecodeFrame(&bad), 0);
    EXPECT_EQ(d->LastError, kNoSync);

    io.inLength = 416;
    d->LastError = 0;
    EXPECT_EQ(d->DecodeFrame(&io), 0);
    EXPECT_EQ(d->LastError, kShortInput);
    EXPECT_EQ(io.bitrateIndex, 9u);  // the header fields are filled before the refusal
    EXPECT_EQ(io.bitrate, 128000u);
    EXPECT_EQ(d->ReservoirBytes, 0);  // nothing of the frame was taken

    io.inLength = 417;
    EXPECT_EQ(d->DecodeFrame(&io), 1);
    EXPECT_EQ(io.inLength, 417);
    EXPECT_EQ(io.outLength, 4608);
    EXPECT_EQ(d->LastError, kShortInput);  // never cleared on success

    // A later frame announcing 48 kHz is sized with the stream's 44.1 kHz.
    std::vector<uint8_t> other = Frame({0xFF, 0xFB, 0x94, 0x64});
    io.inData = other.data();
    io.inLength = 2000;
    ASSERT_EQ(d->DecodeFrame(&io), 1);
    EXPECT_EQ(io.inLength, 417);
    EXPECT_EQ(io.sampleRateIndex, 1u);
}

TEST(DecStream, XingHeaderIsLookedForAfterTheSideInformationAndCrc) {
    struct Case {
        std::initializer_list<uint8_t> header;
        size_t offset;
        int channels;
        int32_t minFrame, maxFrame;
    };
    // Single channel MPEG-1: 4 + 17; stereo with CRC: 4 + 2 + 32; MPEG-2 single channel: 4 + 9.
    const Case cases[] = {
        {{0xFF, 0xFB, 0x90, 0xC4}, 21, 1, 144 * 32000 / 44100, 144 * 320000 / 44100 + 1},
        {{0xFF, 0xFA, 0x90, 0x44}, 38, 2, 144 * 32000 / 44100, 144 * 320000 / 44100 + 1},
        {{0xFF, 0xF3, 0x80, 0xC0}, 13, 1, 144 * 8000 / 22050 / 2, 144 * 160000 / 22050 / 2 + 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.offset);
        auto d = NewDecoder();
        std::vector<uint8_t> first = Frame(c.header);
        PutTag(first, c.offset, "Xing");
        PutBigEndian(first, c.offset + 4, 3);
        PutBigEndian(first, c.offset + 8, 1234);
        PutBigEndian(first, c.offset + 12, 567890);
        MP3StreamInfo info{};
        ASSERT_EQ(d->StartDecoder(first.data(), 156, &info), 1);
        EXPECT_EQ(info.outChannels, c.channels);
        EXPECT_EQ(info.totalFrames, 1234);
        EXPECT_EQ(info.totalBytes, 567890);
        EXPECT_EQ(info.bitrate, 0);
        EXPECT_EQ(info.minFrameSize, c.minFrame);
        EXPECT_EQ(info.maxFrameSize, c.maxFrame);
        // One byte off is not found.
        auto e = NewDecoder();
        std::vector<uint8_t> shifted = Frame(c.header);
        PutTag(shifted, c.offset + 1, "Xing");
        PutBigEndian(shifted, c.offset + 5, 3);
        ASSERT_EQ(e->StartDecoder(shifted.data(), 156, &info), 1);
        EXPECT_EQ(info.totalFrames, 0);
        EXPECT_NE(info.bitrate, 0);
    }
}

TEST(DecStream, XingFlagsAndVbri) {
    // A Xing header without the frames flag is refused.
    std::vector<uint8_t> first = Frame({0xFF, 0xFB, 0x90, 0x64});
    PutTag(first, 36, "Xing");
    PutBigEndian(first, 40, 0);
    PutBigEndian(first, 44, 10);
    MP3StreamInfo info{};
    auto d = NewDecoder();
    EXPECT_EQ(d->StartDecoder(first.data(), 156, &info), 0);
    EXPECT_EQ(d->LastError, kBadField);

    // Frames only: accepted, and the byte count is whatever the next four bytes hold.
    PutBigEndian(first, 40, 1);
    PutBigEndian(first, 48, 0xDEAD);
    d = NewDecoder();
    ASSERT_EQ(d->StartDecoder(first.data(), 156, &info), 1);
    EXPECT_EQ(info.totalFrames, 10);
    EXPECT_EQ(info.totalBytes, 0xDEAD);

    // VBRI 32 bytes in whatever the mode: bytes at 10, frames at 14.
    std::vector<uint8_t> vbri = Frame({0xFF, 0xFB, 0x90, 0x64});
    PutTag(vbri, 36, "VBRI");
    PutBigEndian(vbri, 36 + 10, 4000000);
    PutBigEndian(vbri, 36 + 14, 9000);
    d = NewDecoder();
    ASSERT_EQ(d->StartDecoder(vbri.data(), 156, &info), 1);
    EXPECT_EQ(info.totalBytes, 4000000);
    EXPECT_EQ(info.totalFrames, 9000);
    EXPECT_EQ(info.bitrate, 0);
    EXPECT_EQ(info.tagFrameSize, 417);
}

TEST(DecStream, LineLimitsPerRate) {
    // At 22.05 and 24 kHz a wider band lowers the conformance figures; at 16 kHz the stream's
    // maximum of 2 stays within the slack of 1 either way.
    struct Case {
        int version, rateIndex;
        int lineLimit, longLimit, shortLimit;
    };
    const Case cases[] = {
        {2, 2, 530, 522, 522}, {3, 0, 530, 522, 522}, {3, 1, 530, 522, 522}, {3, 2, 558, 558, 498},
    };
    for (const Case& c : cases) {
        HeaderFields f;
        f.version = c.version;
        f.sampleRateIndex = c.rateIndex;
        f.bitrateIndex = 8;
        f.mode = 3;
        auto d = StartedDecoder(f);
        SCOPED_TRACE(testing::Message() << "version " << c.version << " rate " << c.rateIndex);
        EXPECT_EQ(d->SubbandLimit, 31);
        EXPECT_EQ(d->LineLimit, c.lineLimit);
        EXPECT_EQ(d->LongLineLimit, c.longLimit);
        EXPECT_EQ(d->ShortLineLimit, c.shortLimit);
    }
}

}  // namespace
