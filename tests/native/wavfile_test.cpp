// The WAV reader on crafted files: header checks, the chunk walk at the file's end and over odd
// sizes, "data" chunks in file order, the refused formats, and each failure's log line.

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "player/pub/Log.h"
#include "player/wav/WavFile.h"

namespace fs = std::filesystem;

namespace {

class WavTempDir {
public:
    WavTempDir()
    {
        std::random_device random;
        path_ = fs::temp_directory_path() /
                ("quorbel-wav-" + std::to_string(random()) + "-" + std::to_string(random()));
        fs::create_directories(path_);
    }
    ~WavTempDir()
    {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    std::string Write(const char* name, const std::string& bytes) const
    {
        const std::string path = (path_ / name).string();
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }

private:
    fs::path path_;
};

// The messages that g_logFile received since construction.
class WavLogTail {
public:
    WavLogTail() : path_(g_logFile.FileName())
    {
        std::error_code error;
        start_ = fs::file_size(path_, error);
        if (error) {
            start_ = 0;
        }
    }
    std::vector<std::string> Messages() const
    {
        std::ifstream in(path_, std::ios::binary);
        in.seekg(static_cast<std::streamoff>(start_));
        std::stringstream text;
        text << in.rdbuf();
        static const std::regex prefix(R"(^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d{3} \d{4,}:\d{4,}\])");
        std::vector<std::string> messages;
        std::string line;
        while (std::getline(text, line)) {
            if (!line.empty() && line.back() == '\r') {
                line.pop_back();
            }
            std::smatch match;
            EXPECT_TRUE(std::regex_search(line, match, prefix)) << line;
            messages.push_back(match.suffix());
        }
        return messages;
    }

private:
    std::string path_;
    uintmax_t start_;
};

std::string U16(uint32_t v)
{
    return std::string{static_cast<char>(v & 0xFF), static_cast<char>((v >> 8) & 0xFF)};
}

std::string U32(uint32_t v)
{
    return U16(v & 0xFFFF) + U16(v >> 16);
}

std::string Chunk(const char* id, const std::string& body)
{
    return std::string(id, 4) + U32(static_cast<uint32_t>(body.size())) + body;
}

std::string Riff(const std::string& chunks, const char* form = "WAVE")
{
    return "RIFF" + U32(static_cast<uint32_t>(4 + chunks.size())) + std::string(form, 4) + chunks;
}

std::string Fmt(uint16_t format = 1, uint16_t channels = 2, uint32_t rate = 44100,
                uint16_t bits = 16)
{
    const uint16_t align = static_cast<uint16_t>(channels * bits / 8);
    return Chunk("fmt ",
                 U16(format) + U16(channels) + U32(rate) + U32(rate * align) + U16(align) + U16(bits));
}

uint32_t Id(const char* id)
{
    return static_cast<uint32_t>(static_cast<uint8_t>(id[0])) |
           static_cast<uint32_t>(static_cast<uint8_t>(id[1])) << 8 |
           static_cast<uint32_t>(static_cast<uint8_t>(id[2])) << 16 |
           static_cast<uint32_t>(static_cast<uint8_t>(id[3])) << 24;
}

std::string Body(const uint8_t* chunk)
{
    return std::string(reinterpret_cast<const char*>(CWavFile::ChunkBody(chunk)),
                       CWavFile::ChunkSize(chunk));
}

void ExpectClosed(const CWavFile& wav)
{
    EXPECT_EQ(wav.szFileName[0], '\0');
    EXPECT_EQ(wav.pRiffHeader, nullptr);
    EXPECT_EQ(wav.pFmtChunk, nullptr);
    EXPECT_EQ(wav.pDataChunk, nullptr);
    EXPECT_EQ(wav.pView, nullptr);
    EXPECT_EQ(wav.hFile, kInvalidFileMapHandle);
}

class WavFileTest : public ::testing::Test {
protected:
    // Opens the bytes as a new file; with a reason, expects the open to fail, the object
    // closed and exactly the message "[CWavFile::InitFileInfo]file(<path>),<reason>" logged.
    int OpenBytes(CWavFile& wav, const std::string& bytes, const char* reason = nullptr)
    {
        path = dir.Write(("test" + std::to_string(++files) + ".wav").c_str(), bytes);
        const int result = wav.Open(path.c_str());
        if (reason != nullptr) {
            EXPECT_EQ(result, 0);
            ExpectClosed(wav);
            const std::vector<std::string> expected = {
                "[CWavFile::InitFileInfo]file(" + path + ")," + reason};
            EXPECT_EQ(log.Messages(), expected);
            log = WavLogTail();
        }
        return result;
    }

    WavTempDir dir;
    WavLogTail log;
    std::string path;
    int files = 0;
};

}  // namespace

TEST_F(WavFileTest, OpensPcmAndReadsItsFormat)
{
    CWavFile wav;
    ASSERT_EQ(OpenBytes(wav, Riff(Fmt(1, 1, 22050, 8) + Chunk("data", "abcd"))), 1);
    EXPECT_STREQ(wav.szFileName, path.c_str());
    EXPECT_EQ(wav.pRiffHeader, wav.pView);
    EXPECT_EQ(wav.pFmtChunk, wav.pView + 12);
    EXPECT_EQ(wav.NumChannels(), 1);
    EXPECT_EQ(wav.SampleRate(), 22050u);
    EXPECT_EQ(wav.BitsPerSample(), 8);
    ASSERT_NE(wav.pDataChunk, nullptr);
    EXPECT_EQ(Body(wav.pDataChunk), "abcd");
    EXPECT_EQ(wav.NextDataChunk(wav.pDataChunk), nullptr);
    EXPECT_TRUE(log.Messages().empty());

    wav.Close();
    ExpectClosed(wav);
}

TEST_F(WavFileTest, HeaderFailuresLogTheirReason)
{
    CWavFile wav;
    OpenBytes(wav, "RIFF" + U32(4) + "WAV", "size too small");
    CWavFile twelve;
    OpenBytes(twelve, Riff(""), "no fmt info");
    CWavFile rifx;
    OpenBytes(rifx, "RIFX" + U32(4) + "WAVE", "RiffHeader id=0x58464952");
    CWavFile avi;
    OpenBytes(avi, Riff(Fmt() + Chunk("data", "x"), "AVI "), "RiffHeader format=0x20495641");
    CWavFile noData;
    OpenBytes(noData, Riff(Fmt() + Chunk("LIST", "info")), "no data info");
}

TEST_F(WavFileTest, OnlyPcmIsAccepted)
{
    CWavFile floating;
    OpenBytes(floating, Riff(Fmt(3, 2, 48000, 32) + Chunk("data", "12345678")), "AudioFormat=3");
    CWavFile extensible;
    OpenBytes(extensible, Riff(Fmt(0xFFFE) + Chunk("data", "1234")), "AudioFormat=65534");
}

TEST_F(WavFileTest, ChunkReachingPastTheEndEndsTheWalk)
{
    // The "fmt " header and its first bytes are there, but it claims 16 bytes of body.
    const std::string cut = Riff(Fmt()).substr(0, 12 + 8 + 10);
    CWavFile wav;
    OpenBytes(wav, cut, "no fmt info");

    // A size that wraps a 32-bit sum back onto the same chunk must neither loop nor be found.
    CWavFile wrap;
    const std::string bytes = Riff(Fmt() + "JUNK" + U32(0xFFFFFFF8u) + "tail");
    OpenBytes(wrap, bytes, "no data info");
}

TEST_F(WavFileTest, NextChunkOfAHugeChunkIsNull)
{
    CWavFile wav;
    const std::string bytes =
        Riff(Fmt() + Chunk("data", "ab") + "JUNK" + U32(0xFFFFFFF8u) + std::string(8, 'z'));
    ASSERT_EQ(OpenBytes(wav, bytes), 1);
    const uint8_t* junk = wav.NextChunk(wav.pDataChunk);
    EXPECT_EQ(junk, nullptr);
    const uint8_t* header = wav.pDataChunk + 10;
    ASSERT_EQ(CWavFile::ChunkId(header), Id("JUNK"));
    EXPECT_EQ(wav.NextChunk(header), nullptr);
    EXPECT_EQ(wav.FindChunk(header, Id("data")), nullptr);
    EXPECT_EQ(wav.NextChunk(nullptr), nullptr);
}

TEST_F(WavFileTest, OddSizesAreWalkedWithoutPadByte)
{
    // Without a pad byte the "fmt " chunk follows directly, at an odd offset.
    CWavFile packed;
    ASSERT_EQ(OpenBytes(packed, Riff(Chunk("LIST", "odd") + Fmt(1, 2, 8000, 16) +
                                     Chunk("data", "xyz") + Chunk("data", "w"))),
              1);
    EXPECT_EQ(packed.pFmtChunk, packed.pView + 12 + 11);
    EXPECT_EQ(packed.SampleRate(), 8000u);
    EXPECT_EQ(packed.NumChannels(), 2);
    EXPECT_EQ(Body(packed.NextDataChunk(packed.pDataChunk)), "w");

    // With the pad byte that RIFF writers add, the walk lands one byte early and the "fmt "
    // chunk is not recognised.
    CWavFile padded;
    OpenBytes(padded, Riff(Chunk("LIST", "odd") + std::string(1, '\0') + Fmt() + Chunk("data", "")),
              "no fmt info");
}

TEST_F(WavFileTest, DataChunksAreFoundInFileOrderAlsoBeforeFmt)
{
    CWavFile wav;
    const std::string bytes = Riff(Chunk("data", "first") + Chunk("LIST", "meta") + Fmt() +
                                   Chunk("data", "") + Chunk("data", "third"));
    ASSERT_EQ(OpenBytes(wav, bytes), 1);
    EXPECT_LT(wav.pDataChunk, wav.pFmtChunk);
    std::vector<std::string> bodies;
    for (const uint8_t* chunk = wav.pDataChunk; chunk != nullptr; chunk = wav.NextDataChunk(chunk)) {
        bodies.push_back(Body(chunk));
    }
    EXPECT_EQ(bodies, (std::vector<std::string>{"first", "", "third"}));
    EXPECT_EQ(wav.FindChunk(wav.pRiffHeader, Id("LIST")), wav.pDataChunk + 13);
    EXPECT_EQ(wav.FindChunk(wav.pDataChunk, Id("fmt ")), wav.pFmtChunk);
    EXPECT_EQ(wav.FindChunk(wav.pFmtChunk, Id("fmt ")), nullptr);
}

TEST_F(WavFileTest, RiffIdInsideTheWalkSkipsTwelveBytes)
{
    // A chunk with the id "RIFF" is stepped over by its 12-byte header, whatever its size says.
    CWavFile wav;
    const std::string inner = "RIFF" + U32(4 + 24 + 11) + "WAVE";
    ASSERT_EQ(OpenBytes(wav, Riff(inner + Fmt() + Chunk("data", "pcm"))), 1);
    EXPECT_EQ(wav.pFmtChunk, wav.pView + 24);
    EXPECT_EQ(Body(wav.pDataChunk), "pcm");
}

TEST_F(WavFileTest, ShortFmtBodyReadsMissingFieldsAsZero)
{
    // 14 bytes: everything up to BlockAlign, no BitsPerSample; the next chunk's bytes are
    // not taken for it.
    const std::string fmt14 = Chunk("fmt ", U16(1) + U16(2) + U32(32000) + U32(128000) + U16(4));
    CWavFile wav;
    ASSERT_EQ(OpenBytes(wav, Riff(fmt14 + Chunk("data", "ab"))), 1);
    EXPECT_EQ(wav.NumChannels(), 2);
    EXPECT_EQ(wav.SampleRate(), 32000u);
    EXPECT_EQ(wav.BitsPerSample(), 0);

    CWavFile empty;
    OpenBytes(empty, Riff(Chunk("fmt ", "") + Chunk("data", "1")), "AudioFormat=0");
}

TEST_F(WavFileTest, OpenAgainClosesTheEarlierFile)
{
    CWavFile wav;
    ASSERT_EQ(OpenBytes(wav, Riff(Fmt() + Chunk("data", "one"))), 1);
    const std::string second = dir.Write("second.wav", Riff(Fmt(1, 1) + Chunk("data", "two")));
    ASSERT_EQ(wav.Open(second.c_str()), 1);
    EXPECT_STREQ(wav.szFileName, second.c_str());
    EXPECT_EQ(Body(wav.pDataChunk), "two");

    const std::string missing = second + ".missing";
    EXPECT_EQ(wav.Open(missing.c_str()), 0);
    ExpectClosed(wav);
    std::vector<std::string> messages = log.Messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(std::regex_replace(messages[0], std::regex(R"(:\d+\])"), ":N]"),
              "[player/pub/FileMapObj:N]create file(" + missing + ") failed(0x00000002)");
}

TEST_F(WavFileTest, ExceptionWhileOpeningIsLoggedAndCloses)
{
    struct Hook {
        Hook() { CWavFile::s_pfnOpenFault = [] { throw std::runtime_error("fault"); }; }
        ~Hook() { CWavFile::s_pfnOpenFault = nullptr; }
    } hook;
    CWavFile wav;
    path = dir.Write("fault.wav", Riff(Fmt() + Chunk("data", "x")));
    EXPECT_EQ(wav.Open(path.c_str()), 0);
    ExpectClosed(wav);
    const std::vector<std::string> expected = {"[CWavFile::Open]file(" + path + "),exception occurs"};
    EXPECT_EQ(log.Messages(), expected);
}
