// The mapped file: content and size of a mapping, the failing steps with their system codes,
// release on remapping, and the range test at the edges of the view.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "player/pub/FileMapObj.h"
#include "player/pub/Log.h"

namespace fs = std::filesystem;

namespace {

class MapTempDir {
public:
    MapTempDir()
    {
        std::random_device random;
        path_ = fs::temp_directory_path() /
                ("quorbel-map-" + std::to_string(random()) + "-" + std::to_string(random()));
        fs::create_directories(path_);
    }
    ~MapTempDir()
    {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    std::string Path(const char* name) const { return (path_ / name).string(); }
    std::string Write(const char* name, const std::string& bytes) const
    {
        const std::string path = Path(name);
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }

private:
    fs::path path_;
};

// The messages that g_logFile received since construction, each with its further lines joined
// by line feeds, and with line numbers in "[unit:line]" replaced by N.
class ServerLogTail {
public:
    ServerLogTail() : path_(g_logFile.FileName())
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
        static const std::regex lineNumber(R"(^\[([^\]:]+):\d+\])");
        std::vector<std::string> messages;
        std::string line;
        while (std::getline(text, line)) {
            if (!line.empty() && line.back() == '\r') {
                line.pop_back();
            }
            if (line.compare(0, 35, std::string(35, ' ')) == 0 && !messages.empty()) {
                messages.back() += "\n" + line.substr(35);
                continue;
            }
            std::smatch match;
            EXPECT_TRUE(std::regex_search(line, match, prefix)) << line;
            messages.push_back(std::regex_replace(match.suffix().str(), lineNumber, "[$1:N]"));
        }
        return messages;
    }

private:
    std::string path_;
    uintmax_t start_;
};

void ExpectEmpty(const CFileMapObj& map)
{
    EXPECT_EQ(map.hFile, kInvalidFileMapHandle);
    EXPECT_EQ(map.hMapping, kInvalidFileMapHandle);
    EXPECT_EQ(map.pView, nullptr);
    EXPECT_EQ(map.dwSize, 0u);
}

std::string Pattern(size_t size, unsigned seed)
{
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>((i * 131 + seed) & 0xFF);
    }
    return bytes;
}

class FileMapObjTest : public ::testing::Test {
protected:
    MapTempDir dir;
    ServerLogTail log;
};

}  // namespace

TEST_F(FileMapObjTest, MapsTheWholeFileUntilUnmapped)
{
    const std::string content = Pattern(5000, 1);
    const std::string path = dir.Write("whole.bin", content);
    CFileMapObj map;
    ExpectEmpty(map);
    ASSERT_EQ(map.Map(path.c_str()), 1);
    EXPECT_NE(map.hFile, kInvalidFileMapHandle);
    EXPECT_NE(map.hMapping, kInvalidFileMapHandle);
    ASSERT_EQ(map.dwSize, content.size());
    EXPECT_EQ(memcmp(map.pView, content.data(), content.size()), 0);

    // A second reader of the same file while the first holds it.
    CFileMapObj second;
    ASSERT_EQ(second.Map(path.c_str()), 1);
    EXPECT_EQ(memcmp(second.pView, content.data(), content.size()), 0);

    EXPECT_EQ(map.Unmap(), 1);
    ExpectEmpty(map);
    EXPECT_EQ(map.Unmap(), 1);
    ExpectEmpty(map);
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(FileMapObjTest, EachFailingStepLogsItsSystemCode)
{
    const std::string missing = dir.Path("missing.wav");
    const std::string empty = dir.Write("empty.wav", "");
    const std::string folder = dir.Path("folder.wav");
    fs::create_directory(folder);

    CFileMapObj map;
    EXPECT_EQ(map.Map(missing.c_str()), 0);
    ExpectEmpty(map);
    EXPECT_EQ(map.Map(empty.c_str()), 0);
    ExpectEmpty(map);
    EXPECT_EQ(map.Map(folder.c_str()), 0);
    ExpectEmpty(map);

    const std::vector<std::string> expected = {
        "[player/pub/FileMapObj:N]create file(" + missing + ") failed(0x00000002)",
        "[player/pub/FileMapObj:N]create file mapping failed(0x000003EE)",
        "[player/pub/FileMapObj:N]create file(" + folder + ") failed(0x00000005)",
    };
    EXPECT_EQ(log.Messages(), expected);
}

TEST_F(FileMapObjTest, MapAgainReleasesTheEarlierFileEvenWhenItFails)
{
    const std::string first = dir.Write("first.bin", Pattern(300, 2));
    const std::string secondContent = Pattern(40, 3);
    const std::string second = dir.Write("second.bin", secondContent);
    const std::string missing = dir.Path("missing.bin");

    CFileMapObj map;
    ASSERT_EQ(map.Map(first.c_str()), 1);
    ASSERT_EQ(map.Map(second.c_str()), 1);
    ASSERT_EQ(map.dwSize, secondContent.size());
    EXPECT_EQ(memcmp(map.pView, secondContent.data(), secondContent.size()), 0);
    // Windows refuses to delete a file that is still open without delete sharing.
    std::error_code error;
    EXPECT_TRUE(fs::remove(first, error)) << error.message();

    EXPECT_EQ(map.Map(missing.c_str()), 0);
    ExpectEmpty(map);
    EXPECT_TRUE(fs::remove(second, error)) << error.message();

    const std::vector<std::string> expected = {
        "[player/pub/FileMapObj:N]create file(" + missing + ") failed(0x00000002)",
    };
    EXPECT_EQ(log.Messages(), expected);
}

TEST_F(FileMapObjTest, FilesOf4GiBOrMoreAreRefused)
{
    // Sparse: takes no room on disk.
    const std::string path = dir.Write("huge.bin", "");
    fs::resize_file(path, 0x100000000ull);
    CFileMapObj map;
    EXPECT_EQ(map.Map(path.c_str()), 0);
    ExpectEmpty(map);
    const std::vector<std::string> expected = {
        "[player/pub/FileMapObj:N]create file mapping failed(0x000000DF)",
    };
    EXPECT_EQ(log.Messages(), expected);
}

TEST_F(FileMapObjTest, ContainsOnlyRangesInsideTheView)
{
    CFileMapObj map;
    int probe = 0;
    EXPECT_EQ(map.Contains(&probe, 0), 0);
    EXPECT_EQ(map.Contains(nullptr, 1), 0);

    const std::string path = dir.Write("range.bin", Pattern(64, 4));
    ASSERT_EQ(map.Map(path.c_str()), 1);
    const uint8_t* view = map.pView;
    const uintptr_t start = reinterpret_cast<uintptr_t>(view);
    const uint32_t size = map.dwSize;

    EXPECT_EQ(map.Contains(view, 0), 1);
    EXPECT_EQ(map.Contains(view, size), 1);
    EXPECT_EQ(map.Contains(view, size + 1), 0);
    EXPECT_EQ(map.Contains(view + size - 4, 4), 1);
    EXPECT_EQ(map.Contains(view + size - 3, 4), 0);
    EXPECT_EQ(map.Contains(view + size - 1, 0), 1);
    EXPECT_EQ(map.Contains(view + size, 0), 0);
    EXPECT_EQ(map.Contains(reinterpret_cast<const void*>(start - 1), 1), 0);
    EXPECT_EQ(map.Contains(reinterpret_cast<const void*>(start - 1), 2), 0);
    EXPECT_EQ(map.Contains(view + 1, 0xFFFFFFFFu), 0);
    // Far above the view: the offset plus the length must not wrap around into range.
    EXPECT_EQ(map.Contains(reinterpret_cast<const void*>(UINTPTR_MAX - 2), 0xFFFFFFFFu), 0);

    map.Unmap();
    EXPECT_EQ(map.Contains(view, 0), 0);
}
