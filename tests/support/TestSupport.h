#pragma once
// What the unit tests and the fuzz targets share: a temporary folder, the log since a mark, byte
// builders for the readers' files and a reader's fuzz run. No test framework; builds for Windows too.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "player/pub/Log.h"

namespace test_support {
namespace fs = std::filesystem;
typedef std::string Bytes;  // a crafted file: pieces join with +, and "RIFF" is four bytes

inline Bytes Le16(uint32_t v) {
    return {char(v), char(v >> 8)};
}
inline Bytes Le32(uint32_t v) {
    return Le16(v) + Le16(v >> 16);
}
inline Bytes Patch(Bytes bytes, size_t at, const Bytes& with) {
    return bytes.replace(at, with.size(), with);
}
// RIFF chunks: a header may declare any size; no pad byte follows an odd body.
inline Bytes ChunkHeader(const char* id, size_t size) {
    return Bytes(id, 4) + Le32(uint32_t(size));
}
inline Bytes Chunk(const char* id, const Bytes& body) {
    return ChunkHeader(id, body.size()) + body;
}
inline Bytes Riff(const Bytes& chunks, const char* form = "WAVE") {
    return Chunk("RIFF", form + chunks);
}
inline Bytes FmtBody(uint16_t format, uint16_t channels, uint32_t rate, uint16_t bits) {
    return Le16(format) + Le16(channels) + Le32(rate) + Le32(rate * channels * bits / 8) +
           Le16(channels * bits / 8) + Le16(bits);
}
inline Bytes FmtChunk(uint16_t format = 1, uint16_t channels = 2, uint32_t rate = 44100,
                      uint16_t bits = 16) {
    return Chunk("fmt ", FmtBody(format, channels, rate, bits));
}

// MPEG audio: a header without CRC from its fields' values (layer 0 gives the reserved bits), and
// frames of it filled with zeros, which never look like a sync.
enum { kMpeg25 = 0, kMpegReserved = 1, kMpeg2 = 2, kMpeg1 = 3 };  // versions
enum { kStereo = 0, kJoint = 1, kDual = 2, kMono = 3 };           // modes
inline Bytes MpegHeader(int version, int layer, int bitrate, int rate, int mode = kJoint,
                        int pad = 0, int emphasis = 0) {
    return {'\xFF', char(0xE1 | version << 3 | (4 - layer) % 4 << 1),
            char(bitrate << 4 | rate << 2 | pad << 1), char(mode << 6 | emphasis)};
}
inline Bytes MpegFrames(const Bytes& header, size_t length, int count = 1) {
    return count < 1 ? ""
                     : (header + Bytes(length, '\0')).substr(0, length) +
                           MpegFrames(header, length, count - 1);
}
// ID3v2 around body, its size syncsafe (7 bits a byte); flags 0x10 adds the footer.
inline Bytes Id3v2Tag(int major, const Bytes& body, int flags = 0) {
    const size_t n = body.size();
    const Bytes rest = {
        char(major),  0, char(flags), char(n >> 21 & 127), char(n >> 14 & 127), char(n >> 7 & 127),
        char(n & 127)};
    return "ID3" + rest + body + (flags & 0x10 ? "3DI" + rest : "");
}
inline bool WriteFile(const std::string& to, const Bytes& b) {
    return bool(std::ofstream(to, std::ios::binary) << b);
}
inline Bytes ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

// A fresh folder of its own, removed with everything in it at the end.
struct TempFolder {
    fs::path path =
        fs::temp_directory_path() / ("quorbel-test-" + std::to_string(std::random_device()()));
    TempFolder() {
        while (!fs::create_directories(path)) path += "-";
    }
    ~TempFolder() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    std::string Path(const std::string& name) const { return (path / name).string(); }
};

// The entries since the mark, to g_logFile (opened at once, in the working folder) or the file given:
// without their prefix "[yyyy-mm-dd hh:mm:ss:mmm pid:tid]" (or from "tid]" on), further lines joined
// with '\n', "[path:123]" read as "[path:*]", any other line kept as "?line", so no comparison skips it.
struct LogCapture {
    std::string path;
    size_t start = ReadFile(path).size();
    explicit LogCapture(const std::string& file = (g_logFile.WriteToFile(""), g_logFile.FileName()))
        : path(file) {}
    std::vector<std::string> Messages(bool fromThread = false) const {
        std::vector<std::string> all;
        std::istringstream text(ReadFile(path).substr(start));
        for (std::string line; std::getline(text, line);) {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            int thread = 0, n = 0;
            sscanf(line.c_str(), "[%*4u-%*2u-%*2u %*2u:%*2u:%*2u:%*3u %*u:%n%*u]%n", &thread, &n);
            const size_t colon = line.find(':', n), close = line.find(']', n);
            if (n && line[n] == '[' && colon + 1 < close &&
                line.find_first_not_of("0123456789", colon + 1) == close)
                line.replace(colon + 1, close - colon - 1, "*");
            if (n)
                all.push_back(line.substr(fromThread ? thread : n));
            else if (!all.empty() && !line.rfind(std::string(35, ' '), 0))
                all.back() += "\n" + line.substr(35);
            else
                all.push_back("?" + line);
        }
        return all;
    }
};

// A fuzz target's check: aborts, so that libFuzzer keeps the input.
inline void FuzzCheck(bool condition, const char* what) {
    if (!condition) fprintf(stderr, "%s\n", what), abort();
}

// A fuzz target's run of a reader: from a file with Open, as a play opens it, and from a heap copy of
// exactly its size standing in for the view, where AddressSanitizer sees a read one byte past the end
// that a mapping, rounded up to whole pages, would hide; both must agree. The log goes to /dev/null
// through a link named like it: almost every input is refused with a log line; millions fill a disk.
template <class Reader, class Walk>
void ReadBothWays(const uint8_t* data, size_t size, Walk walk) {
    static const TempFolder folder;
    static const std::string input = [] {
        const fs::path previous = fs::current_path();
        fs::current_path(folder.path);
        fs::create_symlink("/dev/null", "quorbel.log");
        FuzzCheck(g_logFile.WriteToFile("") && fs::remove("quorbel.log"),
                  "cannot log to /dev/null");
        fs::current_path(previous);
        return folder.Path("input");
    }();
    std::vector<uint8_t> exact(data, data + size);
    Reader file, memory;
    memory.pView = exact.data();
    memory.dwSize = uint32_t(size);
    const int valid = memory.InitFileInfo();
    FuzzCheck(WriteFile(input, Bytes(data, data + size)), "cannot write the input");
    FuzzCheck(file.Open(input.c_str()) == valid && (!valid || walk(memory) == walk(file)),
              "file and memory disagree");
    memory.pView = nullptr,
    memory.dwSize = 0;  // not a mapping: keep Unmap away from the heap block
}

}  // namespace test_support
