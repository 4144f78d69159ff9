// The MP3 scanner, one crafted file per row: its exact log lines, or for a file it accepts the tags it
// notes and the walk from the first trusted frame on. One CMP3File opens every row, letting each go.

#include <gtest/gtest.h>

#include "player/mp3/MP3File.h"
#include "tests/support/TestSupport.h"

using namespace test_support;

// logged: "tag", "small" or "none" (lines below); walk: "ID3v2", frame offsets, "ID3v1@offset".
struct Mp3Row {
    Bytes bytes;
    std::string logged, walk;
};

// Three frames of a header of those fields, length apart: walked when length > 0, refused when < 0.
static Mp3Row S(int length, int version, int layer, int bitrate, int rate, int mode = kJoint,
                int pad = 0, int emph = 0) {
    const int n = std::abs(length);
    const std::string walk = "0 " + std::to_string(n) + " " + std::to_string(2 * n);
    return {MpegFrames(MpegHeader(version, layer, bitrate, rate, mode, pad, emph), n, 3),
            length < 0 ? "none" : "", length < 0 ? "" : walk};
}

TEST(MP3File, EachCraftedFileGivesItsLogAndWalk) {
    const Bytes h = MpegHeader(kMpeg1, 3, 9, 0), frame = MpegFrames(h, 417), tail3 = h.substr(0, 3);
    const Bytes v25 = MpegHeader(kMpeg25, 3, 1, 2, kMono),
                id3v1 = "TAG" + Bytes(125, 0);  // v25: 72-byte frames
    const std::vector<Mp3Row> rows = {
        // Frame lengths: 144 x bitrate / rate for Layers II and III (72 x for Layer III of MPEG-2 and
        // 2.5), 48 x for Layer I, whose padding is 4 bytes. Emphasis 01 and 11 are valid. Layer II
        // has no 32, 48, 56 or 80 kbit/s (indices 1, 2, 3, 5) but in one channel and 224 kbit/s and up
        // (index 11 on) only in more, with the same indices in every version. Then reserved version,
        // reserved layer, free format, bitrate index 15, rate index 3, emphasis 10.
        S(417, kMpeg1, 3, 9, 0),
        S(418, kMpeg1, 3, 9, 0, kJoint, 1),
        S(144, kMpeg1, 3, 1, 2, kMono, 0, 1),
        S(208, kMpeg2, 3, 8, 0),
        S(72, kMpeg25, 3, 1, 2, kMono),
        S(417, kMpeg2, 2, 8, 0, kStereo),
        S(38, kMpeg1, 1, 1, 0, kStereo, 1),
        S(69, kMpeg2, 1, 1, 0),
        S(487, kMpeg1, 1, 14, 0, kStereo, 0, 3),
        S(208, kMpeg1, 2, 4, 0, kStereo),
        S(104, kMpeg1, 2, 1, 0, kMono),
        S(626, kMpeg1, 2, 10, 0, kMono),
        S(-104, kMpeg1, 2, 1, 0, kStereo),
        S(-261, kMpeg1, 2, 5, 0),
        S(-731, kMpeg1, 2, 11, 0, kMono),
        S(-52, kMpeg2, 2, 1, 0, kDual),
        S(-417, kMpegReserved, 3, 9, 0),
        S(-417, kMpeg1, 0, 9, 0),
        S(-400, kMpeg1, 3, 0, 0),
        S(-417, kMpeg1, 3, 15, 0),
        S(-417, kMpeg1, 3, 9, 3),
        S(-417, kMpeg1, 3, 9, 0, kJoint, 0, 2),
        // Tags. Size bytes give their low seven bits only: 80 80 81 05 is 133. Frames inside a tag are
        // not the stream; the footer counts; 9 bytes are too short for a tag. ID3v1 is noted in a file
        // longer than it, and the walk stops there, though a valid header follows.
        {Patch(Id3v2Tag(3, Bytes(133, 0)), 6, "\x80\x80\x81\x05") + frame + frame, "",
         "ID3v2 143 560"},
        {Id3v2Tag(4, frame + frame, 0x10) + frame + frame, "", "ID3v2 854 1271"},
        {Id3v2Tag(2, "") + frame + frame, "tag", ""},
        {Id3v2Tag(3, Bytes(200, 0), 0x10) + tail3, "small", ""},
        {Patch(Id3v2Tag(3, Bytes(200, 0)), 6, "\x7F\x7F\x7F\x7F"), "small", ""},
        {Bytes("ID3\2\0\0\0\0\0", 9), "none", ""},
        {Patch(Patch(id3v1, 40, v25), 112, v25), "", "40 112"},
        {frame + frame + frame + Patch(id3v1, 3, h), "", "0 417 834 ID3v1@1251"},
        // The first trusted frame: a valid header whose successor, where its length says, is valid too,
        // of any kind; FF FF E3 18 (MPEG-1 Layer I) has none, and the search goes on one byte later.
        {frame, "none", ""},
        {frame + tail3, "none", ""},
        {Bytes(5000, 0x55), "none", ""},
        {Id3v2Tag(4, Bytes(20, 0)) + Bytes(777, 0x42) + frame + frame, "", "ID3v2 807 1224"},
        {"\xFF" + MpegFrames(v25, 72, 3), "", "1 73 145"},
        {frame + MpegFrames(MpegHeader(kMpeg2, 2, 8, 0, kStereo), 10), "", "0 417"},
        // The walk hands out a frame cut short (the decoder refuses it) but no cut header; a wrong padding
        // bit and junk are resynchronised.
        {frame + frame + frame + frame.substr(0, 200), "", "0 417 834 1251"},
        {frame + frame + frame + tail3, "", "0 417 834"},
        {frame + frame + Bytes(20, 0x33) + tail3, "", "0 417"},
        {frame + MpegFrames(MpegHeader(kMpeg1, 3, 9, 0, kJoint, 1), 417) + frame + frame, "",
         "0 417 834 1251"},
        {frame + frame + Bytes(50, 0x11) + frame + frame.substr(0, 100) + Bytes(500, 0x22), "",
         "0 417 884 1301"}};
    TempFolder folder;
    CMP3File mp3;
    for (size_t i = 0; i < rows.size(); ++i) {
        const Mp3Row& c = rows[i];
        SCOPED_TRACE("row " + std::to_string(i));
        const std::string path = folder.Path(std::to_string(i)), file = "file(" + path + "),";
        ASSERT_TRUE(WriteFile(path, c.bytes));
        LogCapture log;
        const int opened = mp3.Open(path.c_str());
        const std::string find = "[CMP3File::FindFirstFrameHeader]" + file,
                          init = "[CMP3File::InitFileInfo]" + file;
        std::vector<std::string> lines = {init + "find invalid TagID3V2 header!"};
        if (c.logged == "small") lines = {find + "too small", init + "not valid frame header!"};
        if (c.logged == "none")
            lines = {find + "not valid frame header!", init + "not valid frame header!"};
        EXPECT_EQ(log.Messages(), c.logged.empty() ? std::vector<std::string>() : lines);
        EXPECT_EQ(mp3.szFileName + std::string(mp3.pView ? " mapped" : ""),
                  opened ? path + " mapped" : "");
        std::string walk = mp3.pTagID3V2 == nullptr     ? ""
                           : mp3.pTagID3V2 == mp3.pView ? "ID3v2"
                                                        : "ID3v2 elsewhere";
        for (const uint8_t* f = mp3.pFirstFrame; f != nullptr && walk.size() < 999;
             f = mp3.NextFrame(f))
            walk += (walk.empty() ? "" : " ") + std::to_string(f - mp3.pView);
        EXPECT_EQ(
            walk + (mp3.pTagID3V1 ? " ID3v1@" + std::to_string(mp3.pTagID3V1 - mp3.pView) : ""),
            c.walk);
        EXPECT_EQ(opened, !c.walk.empty());
    }
}
