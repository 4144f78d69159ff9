#pragma once
// What the tests of every tier share: a temporary folder, the part of the server's log written
// since a mark, and byte builders for the files the readers take (RIFF/WAVE chunks, MPEG audio
// frames, ID3v2 and ID3v1 tags). Plain C++17 and the log, no test framework, so that the fuzz
// targets and the helper programs can include it too; it builds natively and for Windows.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include "player/pub/Log.h"

namespace test_support {

namespace fs = std::filesystem;

// ---- Bytes ----------------------------------------------------------------------------------

// The bytes of a crafted file. A string, so that pieces join with + and "RIFF" is four bytes.
typedef std::string Bytes;

inline const uint8_t* Data(const Bytes& bytes) { return reinterpret_cast<const uint8_t*>(bytes.data()); }

// Bytes given as numbers: Raw({0xFF, 0xFB, 0x90, 0x64}).
inline Bytes Raw(std::initializer_list<int> values)
{
    Bytes bytes;
    for (int v : values) bytes += static_cast<char>(v & 0xFF);
    return bytes;
}

inline Bytes Le16(uint32_t v) { return Raw({int(v), int(v >> 8)}); }
inline Bytes Le32(uint32_t v) { return Le16(v & 0xFFFF) + Le16(v >> 16); }
inline Bytes Be32(uint32_t v) { return Raw({int(v >> 24), int(v >> 16), int(v >> 8), int(v)}); }
// Four 7-bit groups, most significant first, as ID3v2 sizes are written.
inline Bytes Syncsafe(uint32_t v)
{
    return Raw({int(v >> 21) & 0x7F, int(v >> 14) & 0x7F, int(v >> 7) & 0x7F, int(v) & 0x7F});
}

// The bytes with those from at on replaced by with (the result grows when with reaches past the end).
inline Bytes Patch(Bytes bytes, size_t at, const Bytes& with)
{
    if (bytes.size() < at + with.size()) bytes.resize(at + with.size(), '\0');
    bytes.replace(at, with.size(), with);
    return bytes;
}

// Text in a field of a fixed width: cut, or filled up with zeros.
inline Bytes Field(const std::string& text, size_t width)
{
    Bytes field = text.substr(0, width);
    field.resize(width, '\0');
    return field;
}

// ---- RIFF/WAVE ------------------------------------------------------------------------------

// A four-character id as the little-endian number a reader compares it as.
inline uint32_t FourCc(const char* id)
{
    return uint32_t(uint8_t(id[0])) | uint32_t(uint8_t(id[1])) << 8 | uint32_t(uint8_t(id[2])) << 16 |
           uint32_t(uint8_t(id[3])) << 24;
}

// A chunk header that declares any size, also one the bytes after it do not have.
inline Bytes ChunkHeader(const char* id, uint32_t declaredSize) { return Field(id, 4) + Le32(declaredSize); }
// A chunk whose size is its body's. No pad byte follows an odd body; add one where wanted.
inline Bytes Chunk(const char* id, const Bytes& body) { return ChunkHeader(id, uint32_t(body.size())) + body; }
inline Bytes Riff(const Bytes& chunks, const char* form = "WAVE", const char* id = "RIFF")
{
    return ChunkHeader(id, uint32_t(4 + chunks.size())) + Field(form, 4) + chunks;
}
// The 16 bytes of a "fmt " body; byte rate and block align follow from the rest.
inline Bytes FmtBody(uint16_t format, uint16_t channels, uint32_t rate, uint16_t bits)
{
    const uint32_t align = channels * bits / 8u;
    return Le16(format) + Le16(channels) + Le32(rate) + Le32(rate * align) + Le16(align) + Le16(bits);
}
inline Bytes FmtChunk(uint16_t format = 1, uint16_t channels = 2, uint32_t rate = 44100, uint16_t bits = 16)
{
    return Chunk("fmt ", FmtBody(format, channels, rate, bits));
}
inline Bytes PcmWav(uint16_t channels, uint32_t rate, uint16_t bits, const Bytes& samples)
{
    return Riff(FmtChunk(1, channels, rate, bits) + Chunk("data", samples));
}

// ---- MPEG audio -----------------------------------------------------------------------------

// The version field's values.
enum MpegVersion { kMpeg25 = 0, kMpegVersionReserved = 1, kMpeg2 = 2, kMpeg1 = 3 };
enum MpegMode { kStereo = 0, kJointStereo = 1, kDualChannel = 2, kSingleChannel = 3 };

// A frame header without CRC. layer is 1, 2 or 3 (0 gives the reserved layer field); the
// indices are those of the header's fields, not kbit/s or Hz.
inline Bytes MpegHeader(int version, int layer, int bitrateIndex, int rateIndex, int mode = kJointStereo,
                        bool padding = false, int emphasis = 0)
{
    const int layerBits = (4 - layer) & 3;
    return Raw({0xFF, 0xE0 | (version & 3) << 3 | layerBits << 1 | 1,
                (bitrateIndex & 15) << 4 | (rateIndex & 3) << 2 | (padding ? 2 : 0),
                (mode & 3) << 6 | (emphasis & 3)});
}
// A frame of length bytes: the header, then fill (zeros never look like a sync).
inline Bytes MpegFrame(const Bytes& header, size_t length, char fill = '\0')
{
    Bytes frame = header.substr(0, length);
    frame.resize(length, fill);
    return frame;
}
inline Bytes MpegFrames(const Bytes& header, size_t length, int count)
{
    Bytes frames;
    for (int i = 0; i < count; ++i) frames += MpegFrame(header, length);
    return frames;
}

// ---- Tags -----------------------------------------------------------------------------------

const uint8_t kId3v2Footer = 0x10;  // flags bit: a 10-byte footer follows the body

// An ID3v2 tag of the given major version (3 or 4; others for refusals) around body, which
// the size field counts; with kId3v2Footer in flags, the footer is appended.
inline Bytes Id3v2Tag(int major, const Bytes& body, uint8_t flags = 0)
{
    const Bytes rest = Raw({major, 0, flags}) + Syncsafe(uint32_t(body.size()));
    return "ID3" + rest + body + ((flags & kId3v2Footer) ? "3DI" + rest : Bytes());
}
// One frame of an ID3v2 tag: its size is plain in v2.3 and syncsafe in v2.4.
inline Bytes Id3v2Frame(int major, const char* id, const Bytes& payload)
{
    const uint32_t size = uint32_t(payload.size());
    return Field(id, 4) + (major >= 4 ? Syncsafe(size) : Be32(size)) + Raw({0, 0}) + payload;
}
// The 128-byte ID3v1 tag at a file's end; a track number other than 0 makes it v1.1.
inline Bytes Id3v1Tag(const std::string& title = "", const std::string& artist = "", const std::string& album = "",
                      const std::string& year = "", const std::string& comment = "", int track = 0, int genre = 255)
{
    const Bytes note = track == 0 ? Field(comment, 30) : Field(comment, 28) + Raw({0, track});
    return "TAG" + Field(title, 30) + Field(artist, 30) + Field(album, 30) + Field(year, 4) + note + Raw({genre});
}

// ---- Files ----------------------------------------------------------------------------------

inline bool WriteFile(const std::string& path, const Bytes& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), std::streamsize(bytes.size()));
    out.close();
    return !out.fail();
}

inline Bytes ReadFile(const std::string& path, uintmax_t from = 0)
{
    std::ifstream in(path, std::ios::binary);
    in.seekg(std::streamoff(from));
    return in ? Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()) : Bytes();
}

// A folder of its own under base (the system's temporary folder by default), made fresh and
// removed with everything in it at the end.
class TempFolder {
public:
    explicit TempFolder(const std::string& tag = "quorbel-test", const fs::path& base = fs::temp_directory_path())
    {
        static unsigned s_serial = 0;
        std::random_device random;
        for (;;) {
            const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
            m_path = base / (tag + "-" + std::to_string(random()) + "-" + std::to_string(now % 1000000) + "-" +
                             std::to_string(++s_serial));
            std::error_code error;
            if (fs::create_directories(m_path, error)) break;
            if (error) throw fs::filesystem_error("temporary folder", m_path, error);
        }
    }
    ~TempFolder()
    {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const fs::path& Path() const { return m_path; }
    std::string Path(const std::string& name) const { return (m_path / name).string(); }
    // Writes the file and returns its path; "" when it could not be written.
    std::string Write(const std::string& name, const Bytes& bytes) const
    {
        const std::string path = Path(name);
        return WriteFile(path, bytes) ? path : std::string();
    }

private:
    fs::path m_path;
};

// ---- The log --------------------------------------------------------------------------------

// What the server logged since a mark: g_logFile's file by default, or a file a CLogFile of a
// test writes. g_logFile opens its file relative to the working directory of its first write;
// the capture makes that write at once and remembers where the file is, so tests must not
// change the working directory afterwards.
class LogCapture {
public:
    LogCapture() : m_path(OpenServerLog()) { Mark(); }
    explicit LogCapture(const std::string& path) : m_path(path) { Mark(); }

    void Mark()
    {
        std::error_code error;
        m_start = fs::file_size(m_path, error);
        if (error) m_start = 0;
    }
    std::string Text() const { return ReadFile(m_path, m_start); }

    // The entries since the mark, each without its time and ids; further lines are joined to
    // it with '\n' (so a message reads as it was logged) and the line number of a leading
    // "[unit/path:123]" reads "*". A line that is neither an entry nor a further line is
    // kept with "?" in front, so that no comparison passes over it.
    std::vector<std::string> Messages(const std::string& startingWith = "") const
    {
        std::vector<std::string> messages;
        bool inEntry = false, kept = false;
        const std::string text = Text();
        for (size_t begin = 0; begin < text.size();) {
            size_t end = text.find('\n', begin);
            if (end == std::string::npos) end = text.size();
            std::string line = text.substr(begin, end - begin);
            begin = end + 1;
            if (!line.empty() && line.back() == '\r') line.pop_back();
            const size_t prefix = PrefixLength(line);
            if (prefix == 0 && inEntry && line.compare(0, kIndent, std::string(kIndent, ' ')) == 0) {
                if (kept) messages.back() += "\n" + line.substr(kIndent);
                continue;
            }
            const std::string message = prefix == 0 ? "?" + line : AnyLine(line.substr(prefix));
            inEntry = prefix != 0;
            kept = message.compare(0, startingWith.size(), startingWith) == 0;
            if (kept) messages.push_back(message);
        }
        return messages;
    }
    // How many entries read exactly message, written the way Messages gives them.
    int Count(const std::string& message) const
    {
        int count = 0;
        for (const std::string& m : Messages()) count += m == message ? 1 : 0;
        return count;
    }

    // Length of the entry prefix "[yyyy-mm-dd hh:mm:ss:mmm pppp:tttt]" at the line's start; 0 if none.
    static size_t PrefixLength(const std::string& line)
    {
        const char shape[] = "[dddd-dd-dd dd:dd:dd:ddd dddd";
        size_t i = 0;
        for (; shape[i] != '\0'; ++i) {
            if (i >= line.size() || (shape[i] == 'd' ? !IsDigit(line[i]) : line[i] != shape[i])) return 0;
        }
        while (i < line.size() && IsDigit(line[i])) ++i;
        if (i >= line.size() || line[i++] != ':') return 0;
        const size_t thread = i;
        while (i < line.size() && IsDigit(line[i])) ++i;
        return (i - thread >= 4 && i < line.size() && line[i] == ']') ? i + 1 : 0;
    }

private:
    static constexpr size_t kIndent = 35;  // further lines sit under the first line's text
    static bool IsDigit(char c) { return c >= '0' && c <= '9'; }
    static std::string OpenServerLog()
    {
        g_logFile.WriteToFile("");
        std::error_code error;
        const fs::path path = fs::absolute(g_logFile.FileName(), error);
        return error ? std::string(g_logFile.FileName()) : path.string();
    }
    // "[unit/path:123]..." -> "[unit/path:*]..."; "[CClass::Operation]..." stays as it is.
    static std::string AnyLine(const std::string& message)
    {
        const size_t close = message.find(']');
        if (message.empty() || message[0] != '[' || close == std::string::npos) return message;
        size_t digits = close;
        while (digits > 1 && IsDigit(message[digits - 1])) --digits;
        if (digits == close || message[digits - 1] != ':' || message[digits - 2] == ':') return message;
        return message.substr(0, digits) + "*" + message.substr(close);
    }

    std::string m_path;
    uintmax_t m_start = 0;
};

}  // namespace test_support
