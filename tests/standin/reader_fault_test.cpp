// A fault while a reader takes in its mapped file (an exception out of the file map) is caught by
// the reader's Open: its own line, a closed object, and the next Open works.

#include <gtest/gtest.h>

#include "Standins.h"
#include "player/mp3/MP3File.h"
#include "player/wav/WavFile.h"
#include "tests/support/TestSupport.h"

using namespace test_support;

namespace {

template <class Reader>
void ExpectFaultCaught(const Bytes& bytes, const std::string& where) {
    TempFolder folder;
    const std::string path = folder.Path("sound");
    ASSERT_TRUE(WriteFile(path, bytes));
    Reader reader;
    LogCapture log;
    fake_files::ThrowAtNextView();
    EXPECT_EQ(reader.Open(path.c_str()), 0);
    EXPECT_EQ(log.Messages(),
              std::vector<std::string>{"[" + where + "]file(" + path + "),exception occurs"});
    EXPECT_TRUE(reader.pView == nullptr && reader.szFileName[0] == 0);
    EXPECT_EQ(reader.Open(path.c_str()), 1);
}

TEST(ReaderFault, OpenCatchesAFaultOfTheMappedFile) {
    ExpectFaultCaught<CWavFile>(Riff(FmtChunk() + Chunk("data", "pcm")), "CWavFile::Open");
    ExpectFaultCaught<CMP3File>(MpegFrames(MpegHeader(kMpeg1, 3, 9, 0), 417, 2), "CMP3File::Open");
}

}  // namespace
