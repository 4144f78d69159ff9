// The WAV reader, one crafted file per row: its exact log line, or for a file it accepts the format
// and the chunks its walks find. One CWavFile opens every row in turn, letting each file go.

#include <gtest/gtest.h>

#include "player/wav/WavFile.h"
#include "tests/support/TestSupport.h"

using namespace test_support;

static std::string Walk(const CWavFile& wav, const uint8_t* c, bool data) {
    std::string walk;
    for (; c != nullptr && walk.size() < 999; c = data ? wav.NextDataChunk(c) : wav.NextChunk(c))
        walk += " " + (data ? "" : Bytes(reinterpret_cast<const char*>(c), 4) + "@") +
                std::to_string(c - wav.pView);
    return walk;
}

TEST(WavFile, EachCraftedFileGivesItsLogAndWalk) {
    const Bytes fmt = FmtChunk(), huge = ChunkHeader("JUNK", 0xFFFFFFF8u);
    // logged: after "[CWavFile::InitFileInfo]file(path),"; read,
    // of a file accepted: "fmt at channels/rate/bits| each chunk from the header as id@offset| data chunks".
    const struct {
        const char* name;
        Bytes bytes;
        std::string logged, read;
    } cases[] = {
        {"11 bytes", "RIFF" + Le32(4) + "WAV", "size too small", ""},
        {"rifx", "RIFX" + Le32(4) + "WAVE", "RiffHeader id=0x58464952", ""},
        {"avi", Riff(fmt + Chunk("data", "x"), "AVI "), "RiffHeader format=0x20495641", ""},
        {"fmt cut by the end", Riff(fmt).substr(0, 30), "no fmt info", ""},
        {"extensible", Riff(FmtChunk(0xFFFE) + Chunk("data", "")), "AudioFormat=65534", ""},
        // A short body reads its missing bytes as zero, not the next chunk's.
        {"empty fmt", Riff(Chunk("fmt ", "") + Chunk("data", "1")), "AudioFormat=0", ""},
        {"no data", Riff(fmt + Chunk("LIST", "info")), "no data info", ""},
        // 36 + 8 + 0xFFFFFFF8 wraps to 36 in 32 bits: the walk would come back to this chunk for ever.
        {"size wraps", Riff(fmt + huge + Chunk("data", "")), "no data info", ""},
        {"huge after data", Riff(fmt + Chunk("data", "ab") + huge + "1234"), "",
         "12 2/44100/16| fmt @12 data@36| 36"},
        {"15-byte fmt",
         Riff(Chunk("fmt ", FmtBody(1, 2, 32000, 16).substr(0, 15)) + Chunk("data", "")), "",
         "12 2/32000/16| fmt @12 data@35| 35"},
        // Data ahead of "fmt " counts; no pad byte after an odd size; a chunk with the id "RIFF" is
        // stepped over by its 12-byte header, whatever its size says.
        {"file order",
         Riff(Chunk("data", "first") + Chunk("LIST", "odd") + fmt + Chunk("data", "") + "RIFF" +
              Le32(26) + "WAVE" + Chunk("data", "3rd") + Chunk("data", "4th")),
         "",
         "36 2/44100/16| data@12 LIST@25 fmt @36 data@60 RIFF@68 data@80 data@91| 12 60 80 91"}};
    TempFolder folder;
    CWavFile wav;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = folder.Path(c.name), file = "file(" + path + "),";
        ASSERT_TRUE(WriteFile(path, c.bytes));
        LogCapture log;
        const int opened = wav.Open(path.c_str());
        const std::string line = "[CWavFile::InitFileInfo]" + file + c.logged;
        EXPECT_EQ(log.Messages(), std::vector<std::string>(!c.logged.empty(), line));
        EXPECT_EQ(wav.szFileName, opened ? path : "");
        EXPECT_TRUE(opened ? wav.pRiffHeader == wav.pView
                           : !wav.pView && !wav.pRiffHeader && !wav.pFmtChunk && !wav.pDataChunk);
        const std::string format =
            std::to_string(wav.pFmtChunk - wav.pView) + " " + std::to_string(wav.NumChannels()) +
            "/" + std::to_string(wav.SampleRate()) + "/" + std::to_string(wav.BitsPerSample());
        EXPECT_EQ(!opened ? ""
                          : format + "|" + Walk(wav, wav.NextChunk(wav.pRiffHeader), false) + "|" +
                                Walk(wav, wav.pDataChunk, true),
                  c.read);
    }
}
