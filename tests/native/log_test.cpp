// The log file: the layout of its entries, lines too long for one piece or one message, and
// whole entries while two threads log at once. Each test logs through a CLogFile of its own
// into a temporary folder.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "player/pub/Log.h"
#include "tests/support/TestSupport.h"

using namespace test_support;

namespace {

// The file's lines, each without its line end (CRLF on Windows).
std::vector<std::string> Lines(const std::string& path)
{
    std::vector<std::string> lines;
    const Bytes text = ReadFile(path);
    for (size_t begin = 0, end; begin < text.size(); begin = end + 1) {
        end = text.find('\n', begin);
        EXPECT_NE(end, std::string::npos) << "a last line without its line break";
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(begin, end - begin));
        if (!lines.back().empty() && lines.back().back() == '\r') lines.back().pop_back();
    }
    return lines;
}

// The thread id of an entry's prefix; "" when the line starts no entry.
std::string ThreadOf(const std::string& line)
{
    const size_t prefix = LogCapture::PrefixLength(line);
    const size_t colon = line.rfind(':', prefix);
    return prefix == 0 ? "" : line.substr(colon + 1, prefix - 2 - colon);
}

// Keeps every piece handed to Write and passes it on to the file.
class PieceLog : public CLogFile {
public:
    explicit PieceLog(const std::string& name) : CLogFile(name.c_str()) {}
    int Write(const char* text) override
    {
        pieces.push_back(text);
        return CLogFile::Write(text);
    }
    std::vector<std::string> pieces;
};

}  // namespace

TEST(LogFile, EntriesAreTimedAndFurtherLinesIndentedUnderTheFirst)
{
    TempFolder folder;
    const std::string path = folder.Write("entries.log", "earlier\n");
    LogCapture capture(path);
    const std::time_t from = std::time(nullptr);
    {
        CLogFile log(path.c_str());
        EXPECT_EQ(log.Log("one line %d %u %X %s %5d", -7, 7u, 0xBEEFu, "text", 42), 1);
        EXPECT_EQ(log.Log("first\nsecond"), 1);
        EXPECT_EQ(log.Log("ends with a line feed\n"), 1);
        EXPECT_EQ(log.Log("a\n\nc"), 1);
    }
    const std::time_t to = std::time(nullptr);
    // Appended; every further line, also an empty one, is 35 spaces and its text.
    EXPECT_EQ(capture.Messages(), (std::vector<std::string>{"one line -7 7 BEEF text    42", "first\nsecond",
                                                            "ends with a line feed\n", "a\n\nc"}));
    const std::vector<std::string> lines = Lines(path);
    ASSERT_EQ(lines.size(), 9u);
    EXPECT_EQ(lines[0], "earlier");
    EXPECT_EQ(lines[3], std::string(35, ' ') + "second");

    // Local time to the millisecond, then the process and thread ids.
    std::tm stamp = {};
    int millisecond = -1;
    ASSERT_EQ(std::sscanf(lines[1].c_str(), "[%d-%d-%d %d:%d:%d:%d", &stamp.tm_year, &stamp.tm_mon, &stamp.tm_mday,
                          &stamp.tm_hour, &stamp.tm_min, &stamp.tm_sec, &millisecond),
              7);
    stamp.tm_year -= 1900;
    stamp.tm_mon -= 1;
    stamp.tm_isdst = -1;
    const std::time_t logged = std::mktime(&stamp);
    EXPECT_TRUE(logged >= from - 1 && logged <= to + 1) << lines[1];
    EXPECT_TRUE(millisecond >= 0 && millisecond <= 999) << lines[1];
}

// A message is cut to 4095 characters. A piece holds 1023: a line followed by another fits
// with 987 (its line break and 35 spaces after it), a last line with 1022. Longer lines go out
// in several pieces, whole.
TEST(LogFile, LongLinesAreWrittenWholeInPiecesAndMessagesCut)
{
    TempFolder folder;
    const std::string path = folder.Path("long.log");
    const std::vector<std::string> lines = {std::string(987, 'f') + "\nnext", std::string(988, 's') + "\nnext",
                                            std::string(1022, 'l'), std::string(1023, 'm'), std::string(4095, 'e'),
                                            std::string(5000, 'o')};
    LogCapture capture(path);
    {
        PieceLog log(path);
        for (const std::string& line : lines) log.Log("%s", line.c_str());
        for (const std::string& piece : log.pieces) EXPECT_LE(piece.size(), 1023u);
    }
    std::vector<std::string> expected = lines;
    expected.back().resize(4095);
    EXPECT_EQ(capture.Messages(), expected);
}

TEST(LogFile, EntriesOfTwoThreadsNeverInterleave)
{
    TempFolder folder;
    const std::string path = folder.Path("threads.log");
    const int kEntries = 300;
    {
        CLogFile log(path.c_str());
        std::atomic<int> ready(0);
        auto writer = [&](char tag) {
            ++ready;
            while (ready.load() < 2) {
            }
            for (int i = 0; i < kEntries; ++i) log.Log("%c %d\n%c second\n%c third", tag, i, tag, tag);
        };
        std::thread a(writer, 'A'), b(writer, 'B');
        a.join();
        b.join();
    }
    // Each thread's entries whole and in its order, each under the id of its own thread.
    const std::vector<std::string> lines = Lines(path);
    ASSERT_EQ(lines.size(), 3u * 2 * kEntries);
    int next[2] = {0, 0};
    std::string thread[2];
    for (size_t i = 0; i < lines.size(); i += 3) {
        const size_t prefix = LogCapture::PrefixLength(lines[i]);
        ASSERT_NE(prefix, 0u) << lines[i];
        const int t = lines[i][prefix] == 'B' ? 1 : 0;
        const std::string tag(1, char('A' + t));
        ASSERT_EQ(lines[i].substr(prefix) + "\n" + lines[i + 1] + "\n" + lines[i + 2],
                  tag + " " + std::to_string(next[t]++) + "\n" + std::string(35, ' ') + tag + " second\n" +
                      std::string(35, ' ') + tag + " third");
        if (thread[t].empty()) thread[t] = ThreadOf(lines[i]);
        EXPECT_EQ(ThreadOf(lines[i]), thread[t]);
    }
    EXPECT_EQ(next[0], kEntries);
    EXPECT_EQ(next[1], kEntries);
    EXPECT_NE(thread[0], thread[1]);
}
