// The WAV reader, one crafted file per row: what it logs, and for a file it accepts the format
// it reads and the chunks its walk finds. One CWavFile opens every row in turn, so each row
// also shows that the file before it was let go.

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "player/wav/WavFile.h"
#include "tests/support/TestSupport.h"

using namespace test_support;

namespace {

enum Verdict { kOpens, kTooSmall, kRiffId, kRiffForm, kNoFmt, kAudioFormat, kNoData, kThrows, kMissing };

struct WavCase {
    const char* name;
    Bytes bytes;
    Verdict verdict;
    const char* value = "";   // a refusal's logged number; an accepted file's "fmt offset channels/rate/bits"
    const char* chunks = "";  // accepted: each chunk the walk from the RIFF header finds, "id@offset"
    const char* data = "";    // accepted: the data chunks' offsets, from pDataChunk on
};

// Each message of the reader, word for word.
std::vector<std::string> Logged(const WavCase& c, const std::string& path)
{
    const std::string init = "[CWavFile::InitFileInfo]file(" + path + "),";
    switch (c.verdict) {
    case kTooSmall: return {init + "size too small"};
    case kRiffId: return {init + "RiffHeader id=" + c.value};
    case kRiffForm: return {init + "RiffHeader format=" + c.value};
    case kNoFmt: return {init + "no fmt info"};
    case kAudioFormat: return {init + "AudioFormat=" + c.value};
    case kNoData: return {init + "no data info"};
    case kThrows: return {"[CWavFile::Open]file(" + path + "),exception occurs"};
    default: return {};
    }
}

std::string Walk(const CWavFile& wav, const uint8_t* from, bool dataOnly)
{
    std::string walk;
    for (const uint8_t* c = dataOnly ? from : wav.NextChunk(from); c != nullptr && walk.size() < 1000;
         c = dataOnly ? wav.NextDataChunk(c) : wav.NextChunk(c)) {
        walk += (walk.empty() ? "" : " ") + (dataOnly ? "" : std::string(reinterpret_cast<const char*>(c), 4) + "@") +
                std::to_string(c - wav.pView);
    }
    return walk;
}

}  // namespace

TEST(WavFile, EachCraftedFileGivesItsLogAndWalk)
{
    const Bytes fmt = FmtChunk();  // PCM, 2 channels, 44,100 Hz, 16 bits
    const Bytes body = FmtBody(1, 2, 32000, 16);
    const WavCase cases[] = {
        {"pcm", Riff(FmtChunk(1, 1, 22050, 8) + Chunk("data", "abcd")), kOpens, "12 1/22050/8", "fmt @12 data@36", "36"},
        {"missing", "", kMissing},
        {"11 bytes", "RIFF" + Le32(4) + "WAV", kTooSmall},
        {"riff header only", Riff(""), kNoFmt},
        {"rifx", "RIFX" + Le32(4) + "WAVE", kRiffId, "0x58464952"},
        {"avi", Riff(fmt + Chunk("data", "x"), "AVI "), kRiffForm, "0x20495641"},
        {"no data", Riff(fmt + Chunk("LIST", "info")), kNoData},
        {"float", Riff(FmtChunk(3, 2, 48000, 32) + Chunk("data", "12345678")), kAudioFormat, "3"},
        {"extensible", Riff(FmtChunk(0xFFFE) + Chunk("data", "1234")), kAudioFormat, "65534"},
        {"empty fmt", Riff(Chunk("fmt ", "") + Chunk("data", "1")), kAudioFormat, "0"},
        // The "fmt " header is there, 10 of its 16 body bytes are not.
        {"fmt cut by the end", Riff(fmt).substr(0, 30), kNoFmt},
        // 36 + 8 + 0xFFFFFFF8 wraps to 36 in 32 bits: the walk would come back to this chunk.
        {"size wraps 32 bits", Riff(fmt + ChunkHeader("JUNK", 0xFFFFFFF8u) + Chunk("data", "")), kNoData},
        {"huge chunk after data", Riff(fmt + Chunk("data", "ab") + ChunkHeader("JUNK", 0xFFFFFFF8u) + Bytes(8, 'z')),
         kOpens, "12 2/44100/16", "fmt @12 data@36", "36"},
        // No pad byte after an odd size: the next chunk follows directly, at an odd offset.
        {"odd sizes", Riff(Chunk("LIST", "odd") + FmtChunk(1, 2, 8000, 16) + Chunk("data", "xyz") + Chunk("data", "w")),
         kOpens, "23 2/8000/16", "LIST@12 fmt @23 data@47 data@58", "47 58"},
        // With the pad byte that RIFF writers add, the walk lands one byte early.
        {"pad byte", Riff(Chunk("LIST", "odd") + Bytes(1, '\0') + fmt + Chunk("data", "")), kNoFmt},
        {"data before fmt, in file order",
         Riff(Chunk("data", "first") + Chunk("LIST", "meta") + fmt + Chunk("data", "") + Chunk("data", "third") +
              Chunk("data", "4th")),
         kOpens, "37 2/44100/16", "data@12 LIST@25 fmt @37 data@61 data@69 data@82", "12 61 69 82"},
        {"throws", Riff(fmt + Chunk("data", "x")), kThrows},
        // A chunk with the id "RIFF" is stepped over by its 12-byte header, whatever its size says.
        {"riff inside", Riff("RIFF" + Le32(39) + "WAVE" + fmt + Chunk("data", "pcm")), kOpens, "24 2/44100/16",
         "RIFF@12 fmt @24 data@48", "48"},
        // A short body reads its missing bytes as zero, not the next chunk's.
        {"12-byte fmt", Riff(Chunk("fmt ", body.substr(0, 12)) + Chunk("data", "ab")), kOpens, "12 2/32000/0",
         "fmt @12 data@32", "32"},
        {"15-byte fmt", Riff(Chunk("fmt ", body.substr(0, 15)) + Chunk("data", "ab")), kOpens, "12 2/32000/16",
         "fmt @12 data@35", "35"},
    };

    TempFolder folder;
    CWavFile wav;
    for (const WavCase& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = folder.Path(c.name);
        if (c.verdict != kMissing) {
            ASSERT_TRUE(WriteFile(path, c.bytes));
        }
        LogCapture log;
        if (c.verdict == kThrows) CWavFile::s_pfnOpenFault = [] { throw std::runtime_error("fault"); };
        const int opened = wav.Open(path.c_str());
        CWavFile::s_pfnOpenFault = nullptr;

        EXPECT_EQ(log.Messages("[CWavFile::"), Logged(c, path));
        ASSERT_EQ(opened, c.verdict == kOpens ? 1 : 0);
        if (!opened) {
            EXPECT_EQ(wav.szFileName[0], '\0');
            EXPECT_TRUE(wav.pRiffHeader == nullptr && wav.pFmtChunk == nullptr && wav.pDataChunk == nullptr);
            EXPECT_TRUE(wav.pView == nullptr && wav.hFile == kInvalidFileMapHandle);
            continue;
        }
        EXPECT_EQ(std::string(wav.szFileName), path);
        EXPECT_EQ(wav.pRiffHeader, wav.pView);
        EXPECT_EQ(std::to_string(wav.pFmtChunk - wav.pView) + " " + std::to_string(wav.NumChannels()) + "/" +
                      std::to_string(wav.SampleRate()) + "/" + std::to_string(wav.BitsPerSample()),
                  c.value);
        EXPECT_EQ(Walk(wav, wav.pRiffHeader, false), c.chunks);
        EXPECT_EQ(Walk(wav, wav.pDataChunk, true), c.data);
    }
}
