// The MP3 scanner on files crafted byte by byte: header checks, frame lengths, the search for
// the first trusted frame, the frame walk, and the log lines of every refusal.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "player/mp3/MP3File.h"
#include "player/pub/Log.h"

namespace fs = std::filesystem;

namespace {

typedef std::vector<uint8_t> Bytes;

// MPEG-1 Layer III, 128 kbit/s, 44,100 Hz, joint stereo: 144 x 128,000 / 44,100 = 417 bytes,
// 418 with the padding bit.
const uint8_t kMpeg1Header[4] = {0xFF, 0xFB, 0x90, 0x64};
const uint8_t kMpeg1PaddedHeader[4] = {0xFF, 0xFB, 0x92, 0x64};
const uint32_t kMpeg1FrameBytes = 417;

// A frame of the given length: the header, then zeros (which never look like a sync).
Bytes Frame(const uint8_t header[4], uint32_t length)
{
    Bytes frame(length, 0);
    for (int i = 0; i < 4; ++i) {
        frame[i] = header[i];
    }
    return frame;
}

Bytes Mpeg1Frame() { return Frame(kMpeg1Header, kMpeg1FrameBytes); }

void Append(Bytes* to, const Bytes& what) { to->insert(to->end(), what.begin(), what.end()); }

Bytes Frames(int count)
{
    Bytes bytes;
    for (int i = 0; i < count; ++i) {
        Append(&bytes, Mpeg1Frame());
    }
    return bytes;
}

// An ID3v2 tag of the given major version whose size field says bodyBytes; the body is zeros.
Bytes Id3v2Tag(uint8_t major, uint32_t bodyBytes, bool footer)
{
    Bytes tag = {'I', 'D', '3', major, 0, static_cast<uint8_t>(footer ? 0x10 : 0),
                 static_cast<uint8_t>((bodyBytes >> 21) & 0x7F),
                 static_cast<uint8_t>((bodyBytes >> 14) & 0x7F),
                 static_cast<uint8_t>((bodyBytes >> 7) & 0x7F),
                 static_cast<uint8_t>(bodyBytes & 0x7F)};
    tag.resize(tag.size() + bodyBytes, 0);
    if (footer) {
        const uint8_t foot[10] = {'3', 'D', 'I', major, 0, 0x10, tag[6], tag[7], tag[8], tag[9]};
        tag.insert(tag.end(), foot, foot + 10);
    }
    return tag;
}

Bytes Id3v1Tag()
{
    Bytes tag(128, 0);
    tag[0] = 'T';
    tag[1] = 'A';
    tag[2] = 'G';
    return tag;
}

void WriteFile(const std::string& name, const Bytes& bytes)
{
    std::ofstream out(name, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(out.good()) << name;
}

std::string ReadText(const fs::path& path, uintmax_t from)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::string();
    }
    in.seekg(static_cast<std::streamoff>(from));
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The working directory the process started in: the log opens relative to the directory
// that is current at its first write, which may have been before these tests ran.
const fs::path g_startDirectory = fs::current_path();

// Each test runs in a fresh working directory, where the scanner's files are made and where
// the log lands if nothing has written to it yet. The log stays open wherever its first
// entry went, so the fixture finds it by a marker entry and reads only what the test added.
class MP3FileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        static unsigned s_counter = 0;
        const fs::path base = fs::temp_directory_path();
        for (;;) {
            m_directory = base / ("quorbel-mp3file-" + std::to_string(std::rand()) + "-" +
                                  std::to_string(++s_counter));
            if (fs::create_directory(m_directory)) {
                break;
            }
        }
        fs::current_path(m_directory);
        LocateLog();
        m_logStart = fs::exists(s_logPath) ? fs::file_size(s_logPath) : 0;
    }

    void TearDown() override
    {
        CMP3File::s_pfnOpenFault = nullptr;
        fs::current_path(g_startDirectory);
        if (s_logPath.parent_path() != m_directory) {
            std::error_code ignored;
            fs::remove_all(m_directory, ignored);
        }
    }

    // The messages this test logged, each without the entry prefix (date, time and ids) and
    // without the line end (CRLF on Windows).
    std::vector<std::string> LoggedMessages() const
    {
        std::vector<std::string> messages;
        const std::string text = ReadText(s_logPath, m_logStart);
        size_t begin = 0;
        while (begin < text.size()) {
            size_t end = text.find('\n', begin);
            if (end == std::string::npos) {
                end = text.size();
            }
            std::string line = text.substr(begin, end - begin);
            if (!line.empty() && line.back() == '\r') {
                line.pop_back();
            }
            const size_t prefixEnd = line.find(']');
            if (!line.empty() && line[0] == '[' && prefixEnd != std::string::npos) {
                messages.push_back(line.substr(prefixEnd + 1));
            }
            begin = end + 1;
        }
        return messages;
    }

    // Opens bytes written as name; returns Open's result.
    int OpenBytes(CMP3File* file, const std::string& name, const Bytes& bytes)
    {
        WriteFile(name, bytes);
        return file->Open(name.c_str());
    }

    static size_t Offset(const CMP3File& file, const uint8_t* p)
    {
        return static_cast<size_t>(p - file.pView);
    }

    // Offsets of every frame of a walk from the first frame to the end of the stream.
    static std::vector<size_t> Walk(const CMP3File& file)
    {
        std::vector<size_t> offsets;
        for (const uint8_t* frame = file.pFirstFrame; frame != nullptr; frame = file.NextFrame(frame)) {
            offsets.push_back(Offset(file, frame));
            if (offsets.size() > 100000) {
                ADD_FAILURE() << "the walk does not end";
                break;
            }
        }
        return offsets;
    }

    static void ExpectClosed(const CMP3File& file)
    {
        EXPECT_EQ(nullptr, file.pView);
        EXPECT_EQ(0u, file.dwSize);
        EXPECT_EQ(nullptr, file.pFirstFrame);
        EXPECT_EQ(nullptr, file.pTagID3V1);
        EXPECT_EQ(nullptr, file.pTagID3V2);
        EXPECT_EQ('\0', file.szFileName[0]);
    }

    fs::path m_directory;
    uintmax_t m_logStart = 0;
    static fs::path s_logPath;

private:
    void LocateLog()
    {
        static unsigned s_marker = 0;
        const std::string marker = "mp3file test marker " + std::to_string(++s_marker) + " " +
                                   std::to_string(std::rand());
        g_logFile.Log("%s", marker.c_str());
        const fs::path candidates[] = {m_directory / "quorbel.log", s_logPath,
                                       g_startDirectory / "quorbel.log"};
        for (const fs::path& candidate : candidates) {
            if (!candidate.empty() && ReadText(candidate, 0).find(marker) != std::string::npos) {
                s_logPath = candidate;
                return;
            }
        }
        FAIL() << "the log file was opened in a directory that no longer holds it";
    }
};

fs::path MP3FileTest::s_logPath;

typedef std::vector<std::string> Messages;

// ---------------------------------------------------------------------------------------------
// Header tests on four raw bytes.

TEST(MP3FileHeader, SyncNeedsFfAndTopThreeBitsOfTheSecondByte)
{
    const uint8_t yes[4] = {0xFF, 0xE0, 0, 0};
    const uint8_t low[4] = {0xFF, 0xDF, 0, 0};
    const uint8_t first[4] = {0xFE, 0xFF, 0, 0};
    EXPECT_EQ(1, CMP3File::IsFrameSync(yes));
    EXPECT_EQ(0, CMP3File::IsFrameSync(low));
    EXPECT_EQ(0, CMP3File::IsFrameSync(first));
}

TEST(MP3FileHeader, ReservedAndForbiddenFieldsAreRejected)
{
    struct Case {
        uint8_t b1, b2, b3;
        int valid;
        const char* what;
    };
    const Case cases[] = {
        {0xFB, 0x90, 0x64, 1, "MPEG-1 Layer III 128 kbit/s"},
        {0xF3, 0x80, 0xC4, 1, "MPEG-2 Layer III"},
        {0xE3, 0x80, 0xC4, 1, "MPEG-2.5 Layer III"},
        {0xEB, 0x90, 0x64, 0, "reserved version 01"},
        {0xF9, 0x90, 0x64, 0, "reserved layer 00"},
        {0xFB, 0x00, 0x64, 0, "free format"},
        {0xFB, 0xF0, 0x64, 0, "bitrate index 15"},
        {0xFB, 0x9C, 0x64, 0, "sample-rate index 3"},
        {0xFB, 0x90, 0x66, 0, "emphasis 10"},
        {0xFB, 0x90, 0x67, 1, "emphasis 11 is allowed"},
        {0xFB, 0x90, 0x65, 1, "emphasis 01"},
        {0xFF, 0xE0, 0x00, 1, "MPEG-1 Layer I 448 kbit/s"},
    };
    for (const Case& c : cases) {
        const uint8_t header[4] = {0xFF, c.b1, c.b2, c.b3};
        EXPECT_EQ(c.valid, CMP3File::IsValidFrameHeader(header)) << c.what;
    }
}

TEST(MP3FileHeader, LayerTwoBitrateAndModeRuleForEveryVersion)
{
    // Byte 1: 0xFD MPEG-1, 0xF5 MPEG-2, 0xE5 MPEG-2.5, each Layer II. Byte 3: 0x00 stereo,
    // 0x40 joint stereo, 0x80 dual channel, 0xC0 single channel.
    const uint8_t versions[] = {0xFD, 0xF5, 0xE5};
    for (uint8_t b1 : versions) {
        for (uint32_t index = 1; index <= 14; ++index) {
            for (uint8_t mode : {0x00, 0x40, 0x80, 0xC0}) {
                const uint8_t header[4] = {0xFF, b1, static_cast<uint8_t>(index << 4), mode};
                int expected;
                if (mode == 0xC0) {
                    expected = (index >= 11) ? 0 : 1;
                } else {
                    expected = (index == 1 || index == 2 || index == 3 || index == 5) ? 0 : 1;
                }
                EXPECT_EQ(expected, CMP3File::IsValidFrameHeader(header))
                    << "byte 1 " << int(b1) << ", bitrate index " << index << ", mode byte "
                    << int(mode);
            }
        }
    }
    // Layers I and III know no such rule.
    const uint8_t layer3[4] = {0xFF, 0xFB, 0x10, 0x00};
    const uint8_t layer1[4] = {0xFF, 0xFF, 0xE0, 0xC0};
    EXPECT_EQ(1, CMP3File::IsValidFrameHeader(layer3));
    EXPECT_EQ(1, CMP3File::IsValidFrameHeader(layer1));
}

TEST(MP3FileHeader, FrameSizeFollowsTheScannersOwnRule)
{
    struct Case {
        uint8_t b1, b2, b3;
        uint32_t size;
        const char* what;
    };
    const Case cases[] = {
        {0xFB, 0x90, 0x64, 417, "MPEG-1 Layer III 128 kbit/s 44.1 kHz"},
        {0xFB, 0x92, 0x64, 418, "the same, padded"},
        {0xFB, 0xE4, 0x00, 960, "MPEG-1 Layer III 320 kbit/s 48 kHz"},
        {0xFB, 0x18, 0xC0, 144, "MPEG-1 Layer III 32 kbit/s 32 kHz"},
        {0xF3, 0x80, 0x00, 208, "MPEG-2 Layer III 64 kbit/s 22.05 kHz"},
        {0xF3, 0x8A, 0x00, 289, "MPEG-2 Layer III 64 kbit/s 16 kHz, padded"},
        {0xF3, 0x14, 0x00, 24, "MPEG-2 Layer III 8 kbit/s 24 kHz"},
        {0xE3, 0x18, 0xC0, 72, "MPEG-2.5 Layer III 8 kbit/s 8 kHz"},
        {0xE3, 0x12, 0xC0, 53, "MPEG-2.5 Layer III 8 kbit/s 11.025 kHz, padded"},
        // Layer II is 1152 samples in every version: 144 x bitrate / rate.
        {0xF5, 0x80, 0x00, 417, "MPEG-2 Layer II 64 kbit/s 22.05 kHz"},
        {0xFD, 0x40, 0x00, 208, "MPEG-1 Layer II 64 kbit/s 44.1 kHz"},
        // Layer I: 48 x bitrate / rate, the padding bit worth 4 bytes.
        {0xFF, 0x12, 0x00, 38, "MPEG-1 Layer I 32 kbit/s 44.1 kHz, padded"},
        {0xF7, 0x10, 0x00, 69, "MPEG-2 Layer I 32 kbit/s 22.05 kHz"},
    };
    for (const Case& c : cases) {
        const uint8_t header[4] = {0xFF, c.b1, c.b2, c.b3};
        EXPECT_EQ(c.size, CMP3File::GetFrameSize(header)) << c.what;
    }
}

// ---------------------------------------------------------------------------------------------
// Refusals, each by its exact log lines.

TEST_F(MP3FileTest, Id3v22TagIsRefused)
{
    Bytes bytes = Id3v2Tag(2, 100, false);
    Append(&bytes, Frames(3));
    CMP3File file;
    EXPECT_EQ(0, OpenBytes(&file, "v22.mp3", bytes));
    EXPECT_EQ(Messages({"[CMP3File::InitFileInfo]file(v22.mp3),find invalid TagID3V2 header!"}),
              LoggedMessages());
    ExpectClosed(file);
}

TEST_F(MP3FileTest, TagReachingToOrPastTheEndIsTooSmall)
{
    struct Case {
        const char* name;
        uint32_t body;
        bool footer;
        uint32_t after;  // bytes after the tag
    };
    const Case cases[] = {
        {"to-end.mp3", 200, false, 0},
        {"three-after.mp3", 200, false, 3},
        {"past-end.mp3", 0x0FFFFFFF, false, 0},
        // The footer's ten bytes count: three bytes are left after them.
        {"footer.mp3", 200, true, 3},
    };
    for (const Case& c : cases) {
        Bytes bytes = Id3v2Tag(3, 200, c.footer);
        // The size field claims c.body bytes; the file holds 200 (and the bytes after).
        bytes[6] = static_cast<uint8_t>((c.body >> 21) & 0x7F);
        bytes[7] = static_cast<uint8_t>((c.body >> 14) & 0x7F);
        bytes[8] = static_cast<uint8_t>((c.body >> 7) & 0x7F);
        bytes[9] = static_cast<uint8_t>(c.body & 0x7F);
        bytes.insert(bytes.end(), c.after, 0xFF);
        CMP3File file;
        const uint64_t logStart = fs::file_size(s_logPath);
        EXPECT_EQ(0, OpenBytes(&file, c.name, bytes)) << c.name;
        m_logStart = logStart;
        const std::string name = c.name;
        EXPECT_EQ(Messages({"[CMP3File::FindFirstFrameHeader]file(" + name + "),too small",
                            "[CMP3File::InitFileInfo]file(" + name + "),not valid frame header!"}),
                  LoggedMessages());
        ExpectClosed(file);
    }
}

TEST_F(MP3FileTest, FileShorterThanAHeaderIsTooSmall)
{
    CMP3File file;
    EXPECT_EQ(0, OpenBytes(&file, "three.mp3", Bytes({0xFF, 0xFB, 0x90})));
    EXPECT_EQ(Messages({"[CMP3File::FindFirstFrameHeader]file(three.mp3),too small",
                        "[CMP3File::InitFileInfo]file(three.mp3),not valid frame header!"}),
              LoggedMessages());
}

TEST_F(MP3FileTest, TagHeaderThatDoesNotFitCountsAsNoTag)
{
    // Nine bytes starting "ID3" with major version 2: not a tag, so not refused as one.
    CMP3File file;
    EXPECT_EQ(0, OpenBytes(&file, "short-id3.mp3", Bytes({'I', 'D', '3', 2, 0, 0, 0, 0, 0})));
    EXPECT_EQ(Messages({"[CMP3File::FindFirstFrameHeader]file(short-id3.mp3),not valid frame header!",
                        "[CMP3File::InitFileInfo]file(short-id3.mp3),not valid frame header!"}),
              LoggedMessages());
}

TEST_F(MP3FileTest, StreamsWithoutATrustedFrameAreRefused)
{
    struct Case {
        const char* name;
        Bytes bytes;
    };
    Bytes freeFormat;
    const uint8_t freeHeader[4] = {0xFF, 0xFB, 0x00, 0x64};
    for (int i = 0; i < 5; ++i) {
        Append(&freeFormat, Frame(freeHeader, 400));
    }
    // MPEG-1 Layer II, 32 kbit/s, stereo: 144 x 32,000 / 44,100 = 104 bytes per frame.
    Bytes layer2Stereo;
    const uint8_t layer2StereoHeader[4] = {0xFF, 0xFD, 0x10, 0x00};
    for (int i = 0; i < 5; ++i) {
        Append(&layer2Stereo, Frame(layer2StereoHeader, 104));
    }
    // A frame whose successor would start one byte short of four in the file.
    Bytes cutSuccessor = Mpeg1Frame();
    Append(&cutSuccessor, Bytes({0xFF, 0xFB, 0x90}));
    const Case cases[] = {
        {"single.mp3", Mpeg1Frame()},
        {"free.mp3", freeFormat},
        {"layer2-stereo-32k.mp3", layer2Stereo},
        {"cut-successor.mp3", cutSuccessor},
        {"junk.mp3", Bytes(5000, 0x55)},
    };
    for (const Case& c : cases) {
        CMP3File file;
        const uint64_t logStart = fs::file_size(s_logPath);
        EXPECT_EQ(0, OpenBytes(&file, c.name, c.bytes)) << c.name;
        m_logStart = logStart;
        const std::string name = c.name;
        EXPECT_EQ(Messages({"[CMP3File::FindFirstFrameHeader]file(" + name + "),not valid frame header!",
                            "[CMP3File::InitFileInfo]file(" + name + "),not valid frame header!"}),
                  LoggedMessages());
        ExpectClosed(file);
    }
}

TEST_F(MP3FileTest, ExceptionWhileOpeningIsLoggedAndCloses)
{
    CMP3File::s_pfnOpenFault = [] { throw std::runtime_error("fault"); };
    CMP3File file;
    EXPECT_EQ(0, OpenBytes(&file, "fault.mp3", Frames(3)));
    EXPECT_EQ(Messages({"[CMP3File::Open]file(fault.mp3),exception occurs"}), LoggedMessages());
    ExpectClosed(file);

    // The same file opens once the fault is gone.
    CMP3File::s_pfnOpenFault = nullptr;
    EXPECT_EQ(1, file.Open("fault.mp3"));
}

TEST_F(MP3FileTest, MissingFileFailsWithTheMappingMessageOnly)
{
    CMP3File file;
    EXPECT_EQ(0, file.Open("missing.mp3"));
    const Messages messages = LoggedMessages();
    ASSERT_EQ(1u, messages.size());
    EXPECT_NE(std::string::npos, messages[0].find("create file(missing.mp3) failed(0x00000002)"))
        << messages[0];
    ExpectClosed(file);
}

// ---------------------------------------------------------------------------------------------
// Finding the first frame.

TEST_F(MP3FileTest, Id3v23And24TagsAreSteppedOverWithAndWithoutFooter)
{
    struct Case {
        uint8_t major;
        bool footer;
    };
    const Case cases[] = {{3, false}, {3, true}, {4, false}, {4, true}};
    for (const Case& c : cases) {
        Bytes bytes = Id3v2Tag(c.major, 1000, c.footer);
        const size_t tagBytes = bytes.size();
        Append(&bytes, Frames(3));
        CMP3File file;
        const std::string name = "v2" + std::to_string(c.major) + (c.footer ? "-footer" : "") + ".mp3";
        ASSERT_EQ(1, OpenBytes(&file, name, bytes)) << name;
        EXPECT_EQ(file.pView, file.pTagID3V2);
        EXPECT_EQ(tagBytes, Offset(file, file.pFirstFrame)) << name;
        EXPECT_EQ(name, std::string(file.szFileName));
    }
    EXPECT_TRUE(LoggedMessages().empty());
}

TEST_F(MP3FileTest, TagSizeBytesContributeTheirLowSevenBitsOnly)
{
    // 0x80 0x80 0x81 0x05: the top bits are ignored, so the body is 1 x 128 + 5 = 133 bytes.
    Bytes bytes = Id3v2Tag(3, 133, false);
    bytes[6] = 0x80;
    bytes[7] = 0x80;
    bytes[8] = 0x81;
    bytes[9] = 0x05;
    Append(&bytes, Frames(2));
    CMP3File file;
    ASSERT_EQ(1, OpenBytes(&file, "masked.mp3", bytes));
    EXPECT_EQ(10u + 133u, Offset(file, file.pFirstFrame));
}

TEST_F(MP3FileTest, JunkBeforeTheFirstFrameIsSkipped)
{
    Bytes bytes = Id3v2Tag(4, 20, false);
    bytes.insert(bytes.end(), 777, 0x42);
    Append(&bytes, Frames(2));
    CMP3File file;
    ASSERT_EQ(1, OpenBytes(&file, "junk-first.mp3", bytes));
    EXPECT_EQ(30u + 777u, Offset(file, file.pFirstFrame));

    // Without a tag, junk at the very start.
    Bytes plain(5, 0x00);
    Append(&plain, Frames(2));
    ASSERT_EQ(1, OpenBytes(&file, "junk-plain.mp3", plain));
    EXPECT_EQ(5u, Offset(file, file.pFirstFrame));
}

TEST_F(MP3FileTest, FalseSyncIsPassedOverAndTheSearchResumesOneByteAfterIt)
{
    // FF FB 90 FF is a valid header (emphasis 11) whose successor 417 bytes on is zeros; the
    // true stream starts at its last byte, three bytes after it.
    Bytes bytes = {0x10, 0xFF, 0xFB, 0x90};
    Append(&bytes, Frames(2));
    CMP3File file;
    ASSERT_EQ(1, OpenBytes(&file, "false-sync.mp3", bytes));
    EXPECT_EQ(4u, Offset(file, file.pFirstFrame));
}

TEST_F(MP3FileTest, OneValidSuccessorIsEnoughAndIsNotComparedWithTheCandidate)
{
    // An MPEG-1 Layer III frame followed by an MPEG-2 Layer II header and then nothing.
    Bytes bytes = Mpeg1Frame();
    const uint8_t other[4] = {0xFF, 0xF5, 0x80, 0x00};
    Append(&bytes, Frame(other, 10));
    CMP3File file;
    ASSERT_EQ(1, OpenBytes(&file, "mixed.mp3", bytes));
    EXPECT_EQ(file.pView, file.pFirstFrame);
}

TEST_F(MP3FileTest, LayerTwoSingleChannelAt32kIsAccepted)
{
    const uint8_t header[4] = {0xFF, 0xFD, 0x10, 0xC0};
    Bytes bytes;
    for (int i = 0; i < 3; ++i) {
        Append(&bytes, Frame(header, 104));
    }
    CMP3File file;
    ASSERT_EQ(1, OpenBytes(&file, "layer2-mono.mp3", bytes));
    EXPECT_EQ((std::vector<size_t>{0, 104, 208}), Walk(file));
}

TEST_F(MP3FileTest, ReopeningReleasesTheFormerFile)
{
    CMP3File file;
    ASSERT_EQ(1, OpenBytes(&file, "first.mp3", Frames(2)));
    Bytes second(10, 0);
    Append(&second, Frames(2));
    ASSERT_EQ(1, OpenBytes(&file, "second.mp3", second));
    EXPECT_EQ(std::string("second.mp3"), file.szFileName);
    EXPECT_EQ(second.size(), file.dwSize);
    EXPECT_EQ(10u, Offset(file, file.pFirstFrame));
    file.Close();
    ExpectClosed(file);
    file.Close();
    ExpectClosed(file);
}

// ---------------------------------------------------------------------------------------------
// The frame walk.

TEST_F(MP3FileTest, WalkEndsWhereTheFileEnds)
{
    CMP3File file;
    ASSERT_EQ(1, OpenBytes(&file, "plain.mp3", Frames(4)));
    EXPECT_EQ(nullptr, file.pTagID3V1);
    EXPECT_EQ((std::vector<size_t>{0, 417, 834, 1251}), Walk(file));
}

TEST_F(MP3FileTest, WalkStopsExactlyAtTheId3v1Tag)
{
    // The tag holds a valid header right after "TAG": only the stop at the tag keeps the
    // resynchronising scan from walking into it.
    Bytes bytes = Frames(3);
    Bytes tag = Id3v1Tag();
    tag[3] = 0xFF;
    tag[4] = 0xFB;
    tag[5] = 0x90;
    tag[6] = 0x64;
    Append(&bytes, tag);
    CMP3File file;
    ASSERT_EQ(1, OpenBytes(&file, "v1.mp3", bytes));
    ASSERT_NE(nullptr, file.pTagID3V1);
    EXPECT_EQ(3u * 417u, Offset(file, file.pTagID3V1));
    EXPECT_EQ((std::vector<size_t>{0, 417, 834}), Walk(file));
}

TEST_F(MP3FileTest, Id3v1IsOnlyNotedInFilesLongerThanItsSize)
{
    // MPEG-2.5 8 kbit/s 8 kHz frames are 72 bytes. Two of them and 16 more bytes make 160, and
    // a "TAG" 128 bytes before the end is noted. A file of exactly 128 bytes that starts with
    // "TAG" has no ID3v1 tag, whatever it holds.
    const uint8_t header[4] = {0xFF, 0xE3, 0x18, 0xC0};
    Bytes bytes = Frame(header, 72);
    Append(&bytes, Frame(header, 72));
    bytes.resize(160, 0);
    bytes[32] = 'T';
    bytes[33] = 'A';
    bytes[34] = 'G';
    CMP3File file;
    ASSERT_EQ(1, OpenBytes(&file, "small-v1.mp3", bytes));
    EXPECT_EQ(32u, Offset(file, file.pTagID3V1));

    Bytes exact(bytes.begin() + 32, bytes.end());  // 128 bytes starting "TAG"
    const uint8_t tail[4] = {0xFF, 0xE3, 0x18, 0xC0};
    for (int i = 0; i < 4; ++i) {
        exact[40 + i] = tail[i];
        exact[112 + i] = tail[i];
    }
    ASSERT_EQ(128u, exact.size());
    ASSERT_EQ(1, OpenBytes(&file, "exact-v1.mp3", exact));
    EXPECT_EQ(nullptr, file.pTagID3V1);
}

TEST_F(MP3FileTest, CutLastFrameEndsTheWalkAtThatFrame)
{
    // The fourth frame holds 200 of its 417 bytes: it is handed out (the decoder refuses it),
    // and nothing follows it.
    Bytes bytes = Frames(3);
    Bytes cut = Mpeg1Frame();
    cut.resize(200);
    Append(&bytes, cut);
    CMP3File file;
    ASSERT_EQ(1, OpenBytes(&file, "cut.mp3", bytes));
    EXPECT_EQ((std::vector<size_t>{0, 417, 834, 1251}), Walk(file));

    // With only three bytes of the fourth header in the file, the third frame is the last.
    Bytes stub = Frames(3);
    Append(&stub, Bytes({0xFF, 0xFB, 0x90}));
    ASSERT_EQ(1, OpenBytes(&file, "stub.mp3", stub));
    EXPECT_EQ((std::vector<size_t>{0, 417, 834}), Walk(file));
}

TEST_F(MP3FileTest, WrongPaddingBitIsResynchronised)
{
    // The second frame claims padding (418 bytes) but holds 417: the computed next position
    // is one byte too far, and the scan from one byte before it finds the true header.
    Bytes bytes = Mpeg1Frame();
    Append(&bytes, Frame(kMpeg1PaddedHeader, 417));
    Append(&bytes, Frames(2));
    CMP3File file;
    ASSERT_EQ(1, OpenBytes(&file, "padding.mp3", bytes));
    EXPECT_EQ((std::vector<size_t>{0, 417, 834, 1251}), Walk(file));
}

TEST_F(MP3FileTest, ResynchronisationScansForwardAndMayEndTheStream)
{
    // Junk after the second frame: the walk goes on at the next header, found without a check
    // of its own successor; after the last frame only junk follows and the walk ends.
    Bytes bytes = Frames(2);
    bytes.insert(bytes.end(), 50, 0x11);
    Append(&bytes, Mpeg1Frame());
    Bytes single = Mpeg1Frame();
    single.resize(100);
    Append(&bytes, single);  // a lone header 100 bytes before the end: handed out, then nothing
    bytes.insert(bytes.end(), 500, 0x22);
    CMP3File file;
    ASSERT_EQ(1, OpenBytes(&file, "resync.mp3", bytes));
    EXPECT_EQ((std::vector<size_t>{0, 417, 884, 1301}), Walk(file));
}

TEST_F(MP3FileTest, SearchFrameHeaderStartsAtOrOneByteBefore)
{
    Bytes bytes(10, 0);
    Append(&bytes, Frames(2));
    CMP3File file;
    ASSERT_EQ(1, OpenBytes(&file, "search.mp3", bytes));
    const uint8_t* frame = file.pView + 10;
    EXPECT_EQ(frame, file.SearchFrameHeader(file.pView, CMP3File::SEARCH_AT_POSITION));
    EXPECT_EQ(frame, file.SearchFrameHeader(frame, CMP3File::SEARCH_AT_POSITION));
    EXPECT_EQ(frame, file.SearchFrameHeader(frame + 1, CMP3File::SEARCH_ONE_BYTE_BEFORE));
    EXPECT_EQ(frame + 417, file.SearchFrameHeader(frame + 1, CMP3File::SEARCH_AT_POSITION));
    // The last header position of the file is dwSize - 4; nothing after the second frame.
    EXPECT_EQ(nullptr, file.SearchFrameHeader(frame + 418, CMP3File::SEARCH_AT_POSITION));
    EXPECT_EQ(nullptr, file.SearchFrameHeader(file.pView + file.dwSize, CMP3File::SEARCH_AT_POSITION));
    EXPECT_EQ(nullptr, file.SearchFrameHeader(file.pView + file.dwSize - 3, CMP3File::SEARCH_AT_POSITION));
}

TEST_F(MP3FileTest, SearchNeverHandsOutAHeaderCutByTheEnd)
{
    // A sync in the last three bytes: it would be a valid header if the file went on.
    Bytes bytes = Frames(2);
    bytes.insert(bytes.end(), 20, 0x33);
    Append(&bytes, Bytes({0xFF, 0xFB, 0x90}));
    CMP3File file;
    ASSERT_EQ(1, OpenBytes(&file, "tail.mp3", bytes));
    EXPECT_EQ(nullptr, file.SearchFrameHeader(file.pView + 834, CMP3File::SEARCH_AT_POSITION));
    EXPECT_EQ((std::vector<size_t>{0, 417}), Walk(file));
}

}  // namespace
