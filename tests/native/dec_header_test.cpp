// Frame headers, frame lengths and the stream information of the first frame (Xing and VBRI),
// and the frame entry's refusals: the cases where an off-by-one or a wrong offset would hide.

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "dec_test_support.h"

namespace {

using dectest::NewDecoder;

std::vector<uint8_t> Frame(std::initializer_list<uint8_t> header, size_t size = 2000) {
    std::vector<uint8_t> bytes(size, 0);
    std::copy(header.begin(), header.end(), bytes.begin());
    return bytes;
}

void PutBigEndian(std::vector<uint8_t>& b, size_t at, uint32_t v) {
    b[at] = static_cast<uint8_t>(v >> 24);
    b[at + 1] = static_cast<uint8_t>(v >> 16);
    b[at + 2] = static_cast<uint8_t>(v >> 8);
    b[at + 3] = static_cast<uint8_t>(v);
}

void PutTag(std::vector<uint8_t>& b, size_t at, const char* tag) { std::memcpy(&b[at], tag, 4); }

TEST(DecHeader, FieldsOfACommonHeader) {
    auto d = NewDecoder();
    const uint8_t bytes[4] = {0xFF, 0xFB, 0x92, 0x64};
    MP3FrameHeader h{};
    ASSERT_EQ(d->DecodeFrameHeader(bytes, &h), 1);
    EXPECT_EQ(h.version, 1u);
    EXPECT_EQ(h.layer, 3u);
    EXPECT_EQ(h.hasCrc, 0u);
    EXPECT_EQ(h.bitrateIndex, 9u);
    EXPECT_EQ(h.sampleRateIndex, 0u);
    EXPECT_EQ(h.padding, 1u);
    EXPECT_EQ(h.privateBit, 0u);
    EXPECT_EQ(h.mode, 1u);
    EXPECT_EQ(h.modeExtension, 2u);
    EXPECT_EQ(h.copyright, 0u);
    EXPECT_EQ(h.original, 1u);
    EXPECT_EQ(h.emphasis, 0u);
}

TEST(DecHeader, VersionBitsAndRefusedFields) {
    auto d = NewDecoder();
    struct Case {
        uint8_t b0, b1, b2, b3;
        int result;
        uint32_t error;
        uint32_t version;
    };
    const Case cases[] = {
        {0xFF, 0xE2, 0x90, 0x00, 1, 0, 3},  // version bits 00: MPEG-2.5
        {0xFF, 0xEA, 0x90, 0x00, 1, 0, 3},  // reserved 01: also taken as MPEG-2.5
        {0xFF, 0xF2, 0x90, 0x00, 1, 0, 2},  // 10: MPEG-2
        {0xFF, 0xFA, 0x90, 0x02, 1, 0, 1},  // 11: MPEG-1; emphasis 10 passes here
        {0xFE, 0xFB, 0x90, 0x00, 0, 3, 0},  // no sync byte
        {0xFF, 0xDB, 0x90, 0x00, 0, 3, 0},  // top nibble 1101
        {0xFF, 0xFB, 0x9C, 0x00, 0, 4, 0},  // sample-rate index 3
        {0xFF, 0xFB, 0x00, 0x00, 0, 4, 0},  // free format
        {0xFF, 0xFB, 0xF0, 0x00, 0, 4, 0},  // bitrate index 15
        {0xFF, 0xF9, 0x90, 0x00, 0, 4, 0},  // layer bits 00
    };
    for (const Case& c : cases) {
        const uint8_t bytes[4] = {c.b0, c.b1, c.b2, c.b3};
        MP3FrameHeader h{};
        d->LastError = 0;
        EXPECT_EQ(d->DecodeFrameHeader(bytes, &h), c.result) << int(c.b1) << " " << int(c.b2);
        EXPECT_EQ(d->LastError, c.error) << int(c.b1) << " " << int(c.b2);
        if (c.result) {
            EXPECT_EQ(h.version, c.version) << int(c.b1);
        }
    }
}

TEST(DecHeader, StreamInfoOfAStereoCbrStreamAndItsFrameLengths) {
    auto d = NewDecoder();
    std::vector<uint8_t> first = Frame({0xFF, 0xFB, 0x90, 0x64});
    MP3StreamInfo info{};
    ASSERT_EQ(d->StartDecoder(first.data(), static_cast<int32_t>(first.size()), &info), 1);
    EXPECT_EQ(info.outChannels, 2);
    EXPECT_EQ(info.outBits, 16);
    EXPECT_EQ(info.outSampleRate, 44100);
    EXPECT_EQ(info.outFrameBytes, 4608);
    EXPECT_EQ(info.bitrate, 128000);
    EXPECT_EQ(info.totalFrames, 0);
    EXPECT_EQ(info.totalBytes, 0);
    EXPECT_EQ(info.tagFrameSize, 0);
    EXPECT_EQ(info.minFrameSize, 417);
    EXPECT_EQ(info.maxFrameSize, 418);
    EXPECT_EQ(d->SampleRate, 44100);
    EXPECT_EQ(d->OutFrameBytes, 4608);

    MP3FrameHeader h{};
    const uint8_t padded[4] = {0xFF, 0xFB, 0x92, 0x64};
    ASSERT_EQ(d->DecodeFrameHeader(first.data(), &h), 1);
    EXPECT_EQ(d->FrameLength(h, 128000), 417);
    ASSERT_EQ(d->DecodeFrameHeader(padded, &h), 1);
    EXPECT_EQ(d->FrameLength(h, 128000), 418);
    // Layers I and II by their own rules (only the size; the content is read as Layer III).
    h.layer = 1;
    EXPECT_EQ(d->FrameLength(h, 128000), (12 * 128000 / 44100 + 1) * 4);
    h.layer = 2;
    EXPECT_EQ(d->FrameLength(h, 128000), 144 * 128000 / 44100 + 1);
}

TEST(DecHeader, Mpeg2StreamSizesHalfFrames) {
    auto d = NewDecoder();
    // MPEG-2 Layer III, 64 kbit/s (index 8), 22.05 kHz, stereo.
    std::vector<uint8_t> first = Frame({0xFF, 0xF3, 0x80, 0x00});
    MP3StreamInfo info{};
    ASSERT_EQ(d->StartDecoder(first.data(), 400, &info), 1);
    EXPECT_EQ(info.minFrameSize, 208);
    EXPECT_EQ(info.outFrameBytes, 2304);
    MP3FrameIO io{};
    io.inData = first.data();
    io.inLength = 400;
    std::vector<uint8_t> pcm(4096);
    io.outData = pcm.data();
    ASSERT_EQ(d->DecodeFrame(&io), 1);
    EXPECT_EQ(io.inLength, 208);
    EXPECT_EQ(io.outLength, 2304);
    EXPECT_EQ(io.bitrate, 64000u);
}

TEST(DecHeader, XingHeaderIsLookedForAfterTheSideInformationAndCrc) {
    struct Case {
        std::initializer_list<uint8_t> header;
        size_t offset;
        int channels;
    };
    // Single channel MPEG-1: 4 + 17; stereo with CRC: 4 + 2 + 32; MPEG-2 single channel: 4 + 9.
    const Case cases[] = {{{0xFF, 0xFB, 0x90, 0xC4}, 21, 1},
                          {{0xFF, 0xFA, 0x90, 0x44}, 38, 2},
                          {{0xFF, 0xF3, 0x80, 0xC0}, 13, 1}};
    for (const Case& c : cases) {
        auto d = NewDecoder();
        std::vector<uint8_t> first = Frame(c.header);
        PutTag(first, c.offset, "Xing");
        PutBigEndian(first, c.offset + 4, 3);
        PutBigEndian(first, c.offset + 8, 1234);
        PutBigEndian(first, c.offset + 12, 567890);
        MP3StreamInfo info{};
        ASSERT_EQ(d->StartDecoder(first.data(), 156, &info), 1) << c.offset;
        EXPECT_EQ(info.outChannels, c.channels);
        EXPECT_EQ(info.outFrameBytes, (c.offset == 13 ? 576 : 1152) * c.channels * 2);
        EXPECT_EQ(info.totalFrames, 1234);
        EXPECT_EQ(info.totalBytes, 567890);
        EXPECT_EQ(info.bitrate, 0);
        if (c.offset == 21) {
            EXPECT_EQ(info.tagFrameSize, 417);
            EXPECT_EQ(info.minFrameSize, 144 * 32000 / 44100);
            EXPECT_EQ(info.maxFrameSize, 144 * 320000 / 44100 + 1);
        }
        if (c.offset == 13) {
            EXPECT_EQ(info.minFrameSize, 144 * 8000 / 22050 / 2);
            EXPECT_EQ(info.maxFrameSize, 144 * 160000 / 22050 / 2 + 1);
        }
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

TEST(DecHeader, XingFlagsAndVbri) {
    auto d = NewDecoder();
    std::vector<uint8_t> first = Frame({0xFF, 0xFB, 0x90, 0x64});
    PutTag(first, 36, "Xing");
    PutBigEndian(first, 40, 0);
    PutBigEndian(first, 44, 10);
    MP3StreamInfo info{};
    EXPECT_EQ(d->StartDecoder(first.data(), 156, &info), 0);
    EXPECT_EQ(d->LastError, 4u);

    // Frames only: accepted, and the byte count is whatever the next four bytes hold.
    PutBigEndian(first, 40, 1);
    PutBigEndian(first, 48, 0xDEAD);
    auto e = NewDecoder();
    ASSERT_EQ(e->StartDecoder(first.data(), 156, &info), 1);
    EXPECT_EQ(info.totalFrames, 10);
    EXPECT_EQ(info.totalBytes, 0xDEAD);

    std::vector<uint8_t> vbri = Frame({0xFF, 0xFB, 0x90, 0x64});
    PutTag(vbri, 36, "VBRI");
    PutBigEndian(vbri, 36 + 10, 4000000);
    PutBigEndian(vbri, 36 + 14, 9000);
    auto f = NewDecoder();
    ASSERT_EQ(f->StartDecoder(vbri.data(), 156, &info), 1);
    EXPECT_EQ(info.totalBytes, 4000000);
    EXPECT_EQ(info.totalFrames, 9000);
    EXPECT_EQ(info.bitrate, 0);
    EXPECT_EQ(info.tagFrameSize, 417);
}

TEST(DecHeader, StartRefusesShortInputAndOtherLayers) {
    std::vector<uint8_t> first = Frame({0xFF, 0xFB, 0x90, 0x64});
    MP3StreamInfo info{};
    auto d = NewDecoder();
    EXPECT_EQ(d->StartDecoder(first.data(), 155, &info), 0);
    EXPECT_EQ(d->LastError, 5u);
    EXPECT_EQ(d->StartDecoder(first.data(), 156, &info), 1);

    for (uint8_t layerByte : {uint8_t{0xFF}, uint8_t{0xFD}}) {  // Layer I, Layer II
        auto e = NewDecoder();
        std::vector<uint8_t> other = Frame({0xFF, layerByte, 0x90, 0x64});
        EXPECT_EQ(e->StartDecoder(other.data(), 2000, &info), 0);
        EXPECT_EQ(e->LastError, 0u);  // no code for a Layer I or II stream
    }
}

TEST(DecHeader, DecodeFrameRefusesShortInputAtItsBoundaries) {
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
    EXPECT_EQ(d->LastError, 5u);
    EXPECT_EQ(io.bitrateIndex, 0u);  // refused before the header

    // 5 bytes reach the header decode: a bad sync says so with its own code.
    std::vector<uint8_t> noSync = bytes;
    noSync[0] = 0;
    MP3FrameIO bad{};
    bad.inData = noSync.data();
    bad.inLength = 5;
    bad.outData = pcm.data();
    EXPECT_EQ(d->DecodeFrame(&bad), 0);
    EXPECT_EQ(d->LastError, 3u);

    io.inLength = 416;
    d->LastError = 0;
    EXPECT_EQ(d->DecodeFrame(&io), 0);
    EXPECT_EQ(d->LastError, 5u);
    EXPECT_EQ(io.bitrateIndex, 9u);  // the header fields are filled before the refusal
    EXPECT_EQ(io.bitrate, 128000u);
    EXPECT_EQ(d->ReservoirBytes, 0);  // nothing of the frame was taken

    io.inLength = 417;
    EXPECT_EQ(d->DecodeFrame(&io), 1);
    EXPECT_EQ(io.inLength, 417);
    EXPECT_EQ(io.outLength, 4608);
    EXPECT_EQ(d->LastError, 5u);  // never cleared on success
}

TEST(DecHeader, LaterFramesAreSizedWithTheFirstFramesRate) {
    auto d = NewDecoder();
    std::vector<uint8_t> bytes = Frame({0xFF, 0xFB, 0x90, 0x64});
    MP3StreamInfo info{};
    ASSERT_EQ(d->StartDecoder(bytes.data(), 2000, &info), 1);
    std::vector<uint8_t> pcm(4608);
    std::vector<uint8_t> other = Frame({0xFF, 0xFB, 0x94, 0x64});  // announces 48 kHz
    MP3FrameIO io{};
    io.inData = other.data();
    io.inLength = 2000;
    io.outData = pcm.data();
    ASSERT_EQ(d->DecodeFrame(&io), 1);
    EXPECT_EQ(io.inLength, 417);
    EXPECT_EQ(io.sampleRateIndex, 1u);
}

}  // namespace
