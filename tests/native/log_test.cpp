// The log's layout, its cut and piece limits, its recovery from an unwritable location and
// whole entries under concurrent logging. Each test logs through its own CLogFile into a fresh
// temporary folder.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "player/pub/Log.h"

namespace fs = std::filesystem;

namespace {

const std::string kIndent(35, ' ');

class LogTempDir {
public:
    LogTempDir()
    {
        std::random_device random;
        path_ = fs::temp_directory_path() /
                ("quorbel-log-" + std::to_string(random()) + "-" + std::to_string(random()));
        fs::create_directories(path_);
    }
    ~LogTempDir()
    {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    std::string File(const char* name) const { return (path_ / name).string(); }

private:
    fs::path path_;
};

// The file's lines, with the platform's CRLF read as a line break.
std::vector<std::string> ReadLines(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    std::vector<std::string> lines;
    std::string line;
    for (char c : text.str()) {
        if (c == '\r') {
            continue;
        }
        if (c == '\n') {
            lines.push_back(line);
            line.clear();
        } else {
            line += c;
        }
    }
    EXPECT_TRUE(line.empty()) << "last line without a line break: " << line;
    return lines;
}

const std::regex kPrefix(R"(^\[(\d{4})-(\d{2})-(\d{2}) (\d{2}):(\d{2}):(\d{2}):(\d{3}) (\d{4,}):(\d{4,})\])");

// The text after an entry's prefix; fails the test when the line does not start with one.
std::string AfterPrefix(const std::string& line)
{
    std::smatch match;
    if (!std::regex_search(line, match, kPrefix)) {
        ADD_FAILURE() << "no entry prefix: " << line;
        return std::string();
    }
    int month = std::stoi(match[2]), day = std::stoi(match[3]), hour = std::stoi(match[4]);
    int minute = std::stoi(match[5]), second = std::stoi(match[6]);
    EXPECT_TRUE(month >= 1 && month <= 12 && day >= 1 && day <= 31 && hour <= 23 &&
                minute <= 59 && second <= 60)
        << line;
    return match.suffix();
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

TEST(LogFileLayout, LinesAreIndentedUnderTheFirst)
{
    LogTempDir dir;
    const std::string path = dir.File("entries.log");
    {
        CLogFile log(path.c_str());
        EXPECT_EQ(log.Log("one line %d", 7), 1);
        EXPECT_EQ(log.Log("first\nsecond"), 1);
        EXPECT_EQ(log.Log("ends with a line feed\n"), 1);
        EXPECT_EQ(log.Log("a\n\nc"), 1);
    }
    const std::vector<std::string> lines = ReadLines(path);
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(AfterPrefix(lines[0]), "one line 7");
    EXPECT_EQ(AfterPrefix(lines[1]), "first");
    EXPECT_EQ(lines[2], kIndent + "second");
    EXPECT_EQ(AfterPrefix(lines[3]), "ends with a line feed");
    EXPECT_EQ(lines[4], kIndent);
    EXPECT_EQ(AfterPrefix(lines[5]), "a");
    EXPECT_EQ(lines[6], kIndent);
    EXPECT_EQ(lines[7], kIndent + "c");
}

TEST(LogFileLayout, AppendsToAnExistingFile)
{
    LogTempDir dir;
    const std::string path = dir.File("kept.log");
    std::ofstream(path, std::ios::binary) << "earlier\n";
    {
        CLogFile log(path.c_str());
        log.Log("later");
    }
    const std::vector<std::string> lines = ReadLines(path);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "earlier");
    EXPECT_EQ(AfterPrefix(lines[1]), "later");
}

TEST(LogFileLayout, NamesDefaultToTheWorkingDirectoryAndLongNamesAreCut)
{
    struct NameOf : CLogFile {
        explicit NameOf(const char* name) : CLogFile(name) {}
        size_t Stored() const { return strlen(m_szFileName); }
        char Last() const { return m_szFileName[sizeof(m_szFileName) - 1]; }
    };
    const std::string defaultName = NameOf(nullptr).FileName();
    EXPECT_TRUE(defaultName == ".\\quorbel.log" || defaultName == "./quorbel.log") << defaultName;
    EXPECT_EQ(std::string(NameOf("").FileName()), defaultName);

    const std::string longName(400, 'n');
    NameOf cut(longName.c_str());
    EXPECT_EQ(cut.Stored(), 259u);
    EXPECT_EQ(cut.Last(), '\0');
}

TEST(LogFileLimits, MessageIsCutAt4095Characters)
{
    LogTempDir dir;
    const std::string path = dir.File("long.log");
    const std::string exact(4095, 'e');
    const std::string over(5000, 'o');
    {
        PieceLog log(path);
        log.Log("%s", exact.c_str());
        log.Log("%s", over.c_str());
        for (const std::string& piece : log.pieces) {
            EXPECT_LE(piece.size(), 1023u);
        }
    }
    const std::vector<std::string> lines = ReadLines(path);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(AfterPrefix(lines[0]), exact);
    EXPECT_EQ(AfterPrefix(lines[1]), std::string(4095, 'o'));
}

// A piece holds 1023 characters: a line followed by another fits with 987 characters (line
// break and 35 spaces after it), a last line with 1022. Longer lines go out in several pieces.
TEST(LogFileLimits, LinesAtThePieceBoundaryAreWrittenWhole)
{
    LogTempDir dir;
    const std::string path = dir.File("pieces.log");
    const std::string fits(987, 'f'), spills(988, 's');
    const std::string lastFits(1022, 'l'), lastSpills(1023, 'm');
    std::vector<std::vector<std::string>> entries;
    {
        PieceLog log(path);
        for (const std::string* message : {&fits, &spills}) {
            log.pieces.clear();
            log.Log("%s\nnext", message->c_str());
            entries.push_back(log.pieces);
        }
        for (const std::string* message : {&lastFits, &lastSpills}) {
            log.pieces.clear();
            log.Log("%s", message->c_str());
            entries.push_back(log.pieces);
        }
    }
    for (const std::vector<std::string>& pieces : entries) {
        for (const std::string& piece : pieces) {
            EXPECT_LE(piece.size(), 1023u);
        }
    }
    // prefix, the line with its ending, "next"; and prefix, the last line with its break.
    EXPECT_EQ(entries[0].size(), 3u);
    EXPECT_EQ(entries[0][1], fits + "\n" + kIndent);
    EXPECT_EQ(entries[2].size(), 2u);
    EXPECT_EQ(entries[2][1], lastFits + "\n");

    const std::vector<std::string> lines = ReadLines(path);
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(AfterPrefix(lines[0]), fits);
    EXPECT_EQ(lines[1], kIndent + "next");
    EXPECT_EQ(AfterPrefix(lines[2]), spills);
    EXPECT_EQ(lines[3], kIndent + "next");
    EXPECT_EQ(AfterPrefix(lines[4]), lastFits);
    EXPECT_EQ(AfterPrefix(lines[5]), lastSpills);
}

TEST(LogFileLocation, UnwritableLocationLosesEntriesUntilItIsWritable)
{
    LogTempDir dir;
    // A folder in the file's place: refused even to root, which may write anywhere else.
    const std::string path = dir.File("quorbel.log");
    fs::create_directory(path);
    CLogFile log(path.c_str());
    EXPECT_EQ(log.Log("lost %s", "entry"), 1);
    EXPECT_EQ(log.WriteToFile("lost piece"), 0);
    EXPECT_EQ(log.WriteToFile("lost again"), 0);

    fs::remove(path);
    EXPECT_EQ(log.Log("kept"), 1);
    EXPECT_EQ(log.WriteToFile("piece\n"), 1);
    const std::vector<std::string> lines = ReadLines(path);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(AfterPrefix(lines[0]), "kept");
    EXPECT_EQ(lines[1], "piece");
}

TEST(LogFileConcurrency, EntriesOfTwoThreadsNeverInterleave)
{
    LogTempDir dir;
    const std::string path = dir.File("threads.log");
    const int kEntries = 300;
    {
        CLogFile log(path.c_str());
        std::atomic<int> ready(0);
        auto writer = [&](char tag) {
            ++ready;
            while (ready.load() < 2) {
            }
            for (int i = 0; i < kEntries; ++i) {
                log.Log("%c %d\n%c second\n%c third", tag, i, tag, tag);
            }
        };
        std::thread a(writer, 'A'), b(writer, 'B');
        a.join();
        b.join();
    }
    const std::vector<std::string> lines = ReadLines(path);
    ASSERT_EQ(lines.size(), 3u * 2 * kEntries);
    int next[2] = {0, 0};
    std::string threadId[2];
    for (size_t i = 0; i < lines.size(); i += 3) {
        std::smatch match;
        ASSERT_TRUE(std::regex_search(lines[i], match, kPrefix)) << lines[i];
        const std::string text = match.suffix();
        ASSERT_FALSE(text.empty());
        const char tag = text[0];
        ASSERT_TRUE(tag == 'A' || tag == 'B') << text;
        const int t = tag - 'A';
        EXPECT_EQ(text, std::string(1, tag) + " " + std::to_string(next[t]++));
        EXPECT_EQ(lines[i + 1], kIndent + tag + " second");
        EXPECT_EQ(lines[i + 2], kIndent + tag + " third");
        if (threadId[t].empty()) {
            threadId[t] = match[9];
        }
        EXPECT_EQ(threadId[t], match[9].str());
    }
    EXPECT_EQ(next[0], kEntries);
    EXPECT_EQ(next[1], kEntries);
    EXPECT_NE(threadId[0], threadId[1]);
}
