// The MP3 scanner, one crafted file per row: what it logs, and for a file it accepts the tags
// it notes and every frame of the walk from the first trusted frame on. Frame lengths and the
// header checks show in the walk too: a stream is only trusted where each header predicts
// where the next one starts. One CMP3File opens every row in turn, so each row also shows that
// the file before it was let go.

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "player/mp3/MP3File.h"
#include "tests/support/TestSupport.h"

using namespace test_support;

namespace {

enum Verdict { kOpens, kBadTag, kTooSmall, kNoFrame, kThrows, kMissing };

struct Mp3Case {
    std::string name;
    Bytes bytes;
    Verdict verdict;
    // Accepted: "ID3v2 " when that tag was noted, each frame's offset, " ID3v1@offset" when
    // that tag was noted.
    std::string walk = "";
};

// Each message of the scanner, word for word.
std::vector<std::string> Logged(Verdict verdict, const std::string& path)
{
    const std::string file = "file(" + path + "),";
    const std::string noFrame = "[CMP3File::InitFileInfo]" + file + "not valid frame header!";
    switch (verdict) {
    case kBadTag: return {"[CMP3File::InitFileInfo]" + file + "find invalid TagID3V2 header!"};
    case kTooSmall: return {"[CMP3File::FindFirstFrameHeader]" + file + "too small", noFrame};
    case kNoFrame: return {"[CMP3File::FindFirstFrameHeader]" + file + "not valid frame header!", noFrame};
    case kThrows: return {"[CMP3File::Open]" + file + "exception occurs"};
    default: return {};
    }
}

std::string Walk(const CMP3File& mp3)
{
    std::string walk = mp3.pTagID3V2 == nullptr ? "" : mp3.pTagID3V2 == mp3.pView ? "ID3v2" : "ID3v2 elsewhere";
    int frames = 0;
    for (const uint8_t* f = mp3.pFirstFrame; f != nullptr && ++frames < 1000; f = mp3.NextFrame(f)) {
        walk += (walk.empty() ? "" : " ") + std::to_string(f - mp3.pView);
    }
    return walk + (mp3.pTagID3V1 == nullptr ? "" : " ID3v1@" + std::to_string(mp3.pTagID3V1 - mp3.pView));
}

// Three frames of the header at the given length apart: "0 L 2L" if trusted.
Mp3Case Stream(const char* name, const Bytes& header, int length, bool valid)
{
    const std::string walk = "0 " + std::to_string(length) + " " + std::to_string(2 * length);
    return {name, MpegFrames(header, size_t(length), 3), valid ? kOpens : kNoFrame, valid ? walk : ""};
}

}  // namespace

TEST(MP3File, EachCraftedFileGivesItsLogAndWalk)
{
    // MPEG-1 Layer III, 128 kbit/s, 44,100 Hz: 144 x 128,000 / 44,100 = 417 bytes.
    const Bytes h = MpegHeader(kMpeg1, 3, 9, 0);
    const Bytes frame = MpegFrame(h, 417);
    const Bytes tail3 = h.substr(0, 3);  // a header cut by the end of the file
    const Bytes v25 = MpegHeader(kMpeg25, 3, 1, 2, kSingleChannel);  // 8 kbit/s, 8,000 Hz: 72 bytes
    const Bytes small = MpegFrames(v25, 72, 2) + Bytes(16, '\0');      // 160 bytes
    const std::vector<Mp3Case> cases = {
        // Frame lengths: 144 x bitrate / rate for Layer III (72 x for MPEG-2 and 2.5), 144 x for
        // Layer II in every version, 48 x for Layer I whose padding is 4 bytes.
        Stream("mpeg1 L3 128k 44.1k", h, 417, true),
        {"missing", "", kMissing},
        Stream("padded", MpegHeader(kMpeg1, 3, 9, 0, kJointStereo, true), 418, true),
        Stream("mpeg1 L3 320k 48k", MpegHeader(kMpeg1, 3, 14, 1, kStereo), 960, true),
        Stream("mpeg1 L3 32k 32k", MpegHeader(kMpeg1, 3, 1, 2, kSingleChannel, false, 1), 144, true),
        Stream("mpeg2 L3 64k 22.05k", MpegHeader(kMpeg2, 3, 8, 0), 208, true),
        Stream("mpeg2 L3 64k 16k padded", MpegHeader(kMpeg2, 3, 8, 2, kStereo, true), 289, true),
        Stream("mpeg2 L3 8k 24k", MpegHeader(kMpeg2, 3, 1, 1), 24, true),
        Stream("mpeg2.5 L3 8k 8k", v25, 72, true),
        Stream("mpeg2.5 L3 8k 11.025k padded", MpegHeader(kMpeg25, 3, 1, 0, kStereo, true), 53, true),
        Stream("mpeg2 L2 64k 22.05k", MpegHeader(kMpeg2, 2, 8, 0, kStereo), 417, true),
        Stream("mpeg1 L1 32k 44.1k padded", MpegHeader(kMpeg1, 1, 1, 0, kStereo, true), 38, true),
        Stream("mpeg2 L1 32k 22.05k", MpegHeader(kMpeg2, 1, 1, 0), 69, true),
        Stream("mpeg1 L1 448k emphasis 11", MpegHeader(kMpeg1, 1, 14, 0, kStereo, false, 3), 487, true),
        // Layer II allows no 32, 48, 56 or 80 kbit/s (indices 1, 2, 3, 5) but in one channel, and
        // 224 kbit/s and up (index 11 on) only in more; the same indices in every version.
        Stream("L2 64k stereo", MpegHeader(kMpeg1, 2, 4, 0, kStereo), 208, true),
        Stream("L2 32k mono", MpegHeader(kMpeg1, 2, 1, 0, kSingleChannel), 104, true),
        Stream("L2 192k mono", MpegHeader(kMpeg1, 2, 10, 0, kSingleChannel), 626, true),
        Stream("L2 32k stereo", MpegHeader(kMpeg1, 2, 1, 0, kStereo), 104, false),
        Stream("L2 80k joint", MpegHeader(kMpeg1, 2, 5, 0), 261, false),
        Stream("L2 224k mono", MpegHeader(kMpeg1, 2, 11, 0, kSingleChannel), 731, false),
        Stream("mpeg2 L2 8k dual", MpegHeader(kMpeg2, 2, 1, 0, kDualChannel), 52, false),
        Stream("reserved version", MpegHeader(kMpegVersionReserved, 3, 9, 0), 417, false),
        Stream("reserved layer", MpegHeader(kMpeg1, 0, 9, 0), 417, false),
        Stream("free format", MpegHeader(kMpeg1, 3, 0, 0), 400, false),
        Stream("bitrate index 15", MpegHeader(kMpeg1, 3, 15, 0), 417, false),
        Stream("rate index 3", MpegHeader(kMpeg1, 3, 9, 3), 417, false),
        Stream("emphasis 10", MpegHeader(kMpeg1, 3, 9, 0, kJointStereo, false, 2), 417, false),

        // Tags. The size bytes give their low seven bits only: 0x80 0x80 0x81 0x05 is 133.
        {"ID3v2.3", Patch(Id3v2Tag(3, Bytes(133, '\0')), 6, Raw({0x80, 0x80, 0x81, 0x05})) + frame + frame, kOpens,
         "ID3v2 143 560"},
        // Frames inside the tag are not the stream; the footer counts.
        {"ID3v2.4 with footer", Id3v2Tag(4, frame + frame, kId3v2Footer) + frame + frame, kOpens, "ID3v2 854 1271"},
        {"ID3v2.2", Id3v2Tag(2, Bytes(100, '\0')) + frame + frame, kBadTag},
        {"tag leaves 3 bytes", Id3v2Tag(3, Bytes(200, '\0')) + tail3, kTooSmall},
        {"footer leaves 3 bytes", Id3v2Tag(3, Bytes(200, '\0'), kId3v2Footer) + tail3, kTooSmall},
        {"tag size past the end", Patch(Id3v2Tag(3, Bytes(200, '\0')), 6, Syncsafe(0x0FFFFFFF)), kTooSmall},
        {"three bytes", tail3, kTooSmall},
        {"nine bytes of ID3", Raw({'I', 'D', '3', 2, 0, 0, 0, 0, 0}), kNoFrame},  // too short to be a tag
        // The tag holds a valid header right after "TAG": the walk must stop at the tag.
        {"ID3v1", frame + frame + frame + Patch(Id3v1Tag(), 3, h), kOpens, "0 417 834 ID3v1@1251"},
        // Noted in a file longer than the tag only.
        {"ID3v1 in 160 bytes", Patch(small, 32, "TAG"), kOpens, "0 72 ID3v1@32"},
        {"128 bytes from TAG", Patch(Patch(Patch(Bytes(128, '\0'), 0, "TAG"), 40, v25), 112, v25), kOpens, "40 112"},

        // The first trusted frame: a valid header whose successor, where its length says, is
        // valid too (of any kind).
        {"single frame", frame, kNoFrame},
        {"cut successor", frame + tail3, kNoFrame},
        {"junk", Bytes(5000, 0x55), kNoFrame},
        {"junk after the tag", Id3v2Tag(4, Bytes(20, '\0')) + Bytes(777, 0x42) + frame + frame, kOpens,
         "ID3v2 807 1224"},
        // FF FF E3 18 is a valid header (MPEG-1 Layer I) with nothing at its successor; the
        // stream starts at its second byte, so the search goes on one byte after the candidate.
        {"false sync", Raw({0xFF}) + MpegFrames(v25, 72, 3), kOpens, "1 73 145"},
        {"successor of another kind", frame + MpegFrame(MpegHeader(kMpeg2, 2, 8, 0, kStereo), 10), kOpens, "0 417"},
        {"throws", frame + frame, kThrows},

        // The walk. A header cut short is handed out (the decoder refuses it), an incomplete
        // header is not; a wrong padding bit and junk are resynchronised.
        {"cut last frame", frame + frame + frame + frame.substr(0, 200), kOpens, "0 417 834 1251"},
        {"stub after the last frame", frame + frame + frame + tail3, kOpens, "0 417 834"},
        {"stub after junk", frame + frame + Bytes(20, 0x33) + tail3, kOpens, "0 417"},
        {"wrong padding bit", frame + MpegFrame(MpegHeader(kMpeg1, 3, 9, 0, kJointStereo, true), 417) + frame + frame,
         kOpens, "0 417 834 1251"},
        {"junk between frames", frame + frame + Bytes(50, 0x11) + frame + frame.substr(0, 100) + Bytes(500, 0x22),
         kOpens, "0 417 884 1301"},
    };

    TempFolder folder;
    CMP3File mp3;
    for (const Mp3Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = folder.Path(c.name);
        if (c.verdict != kMissing) {
            ASSERT_TRUE(WriteFile(path, c.bytes));
        }
        LogCapture log;
        if (c.verdict == kThrows) CMP3File::s_pfnOpenFault = [] { throw std::runtime_error("fault"); };
        const int opened = mp3.Open(path.c_str());
        CMP3File::s_pfnOpenFault = nullptr;

        EXPECT_EQ(log.Messages("[CMP3File::"), Logged(c.verdict, path));
        EXPECT_EQ(opened, c.verdict == kOpens ? 1 : 0);
        EXPECT_EQ(std::string(mp3.szFileName), opened ? path : "");
        EXPECT_EQ(Walk(mp3), c.walk);
        if (!opened) {
            EXPECT_TRUE(mp3.pView == nullptr && mp3.dwSize == 0);
        }
    }

    // The search from a position or one byte before it, never handing out a header that the
    // end of the file cuts.
    ASSERT_TRUE(WriteFile(folder.Path("search"), Bytes(10, '\0') + frame + frame + tail3));
    ASSERT_EQ(mp3.Open(folder.Path("search").c_str()), 1);
    const uint8_t* first = mp3.pView + 10;
    EXPECT_EQ(mp3.SearchFrameHeader(mp3.pView, CMP3File::SEARCH_AT_POSITION), first);
    EXPECT_EQ(mp3.SearchFrameHeader(first + 1, CMP3File::SEARCH_ONE_BYTE_BEFORE), first);
    EXPECT_EQ(mp3.SearchFrameHeader(first + 1, CMP3File::SEARCH_AT_POSITION), first + 417);
    EXPECT_EQ(mp3.SearchFrameHeader(first + 418, CMP3File::SEARCH_AT_POSITION), nullptr);
    EXPECT_EQ(mp3.SearchFrameHeader(mp3.pView + mp3.dwSize, CMP3File::SEARCH_AT_POSITION), nullptr);
}
