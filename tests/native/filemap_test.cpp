// The mapped file, one file per row: what Map logs, what the view holds, and which ranges
// Contains takes as inside it. One CFileMapObj maps every row in turn; after each Map the
// file of the row before must be deletable, which Windows refuses while a view or handle of
// it is still open.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "player/pub/FileMapObj.h"
#include "tests/support/TestSupport.h"

using namespace test_support;

namespace {

enum Kind { kFile, kMissing, kFolder, k4GiB };
enum Verdict { kMaps, kOpenFailed, kMappingFailed };

struct MapCase {
    const char* name;
    Kind kind;
    size_t size;  // kFile: the file's length
    Verdict verdict;
    const char* code = "";  // the system error code logged
};

// Each message of the mapping, word for word.
std::vector<std::string> Logged(const MapCase& c, const std::string& path)
{
    switch (c.verdict) {
    case kOpenFailed: return {"[player/pub/FileMapObj:*]create file(" + path + ") failed(" + c.code + ")"};
    case kMappingFailed: return {"[player/pub/FileMapObj:*]create file mapping failed(" + std::string(c.code) + ")"};
    default: return {};
    }
}

Bytes Pattern(size_t size)
{
    Bytes bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = char((i * 131 + size) & 0xFF);
    return bytes;
}

// Contains on ranges at the edges of the view, and far beyond it where offset plus length
// would wrap around.
void ExpectRanges(const CFileMapObj& map)
{
    const uintptr_t start = reinterpret_cast<uintptr_t>(map.pView);
    const uint32_t n = map.dwSize;
    const auto at = [start](uintptr_t offset) { return reinterpret_cast<const void*>(start + offset); };
    const void* before = reinterpret_cast<const void*>(start - 1);
    const struct {
        const void* p;
        uint32_t length;
        int inside;
    } probes[] = {
        {at(0), 0, 1},     {at(0), n, 1},     {at(0), n + 1, 0}, {at(n - 1), 1, 1},
        {at(n - 1), 0, 1}, {at(n - 1), 2, 0}, {at(n), 0, 0},     {before, 1, 0},
        {before, 2, 0},    {at(1), 0xFFFFFFFFu, 0},
        {reinterpret_cast<const void*>(UINTPTR_MAX - 2), 0xFFFFFFFFu, 0},
    };
    for (const auto& probe : probes) {
        EXPECT_EQ(map.Contains(probe.p, probe.length), probe.inside)
            << "offset " << reinterpret_cast<uintptr_t>(probe.p) - start << ", length " << probe.length;
    }
}

}  // namespace

TEST(FileMapObj, EachFileGivesItsLogViewAndRanges)
{
    const MapCase cases[] = {
        {"5000 bytes", kFile, 5000, kMaps},
        {"40 bytes", kFile, 40, kMaps},
        {"missing", kMissing, 0, kOpenFailed, "0x00000002"},
        {"one byte", kFile, 1, kMaps},
        {"empty", kFile, 0, kMappingFailed, "0x000003EE"},
        {"folder", kFolder, 0, kOpenFailed, "0x00000005"},
        {"4 GiB", k4GiB, 0, kMappingFailed, "0x000000DF"},  // dwSize holds 32 bits
        {"64 bytes", kFile, 64, kMaps},
    };

    TempFolder folder;
    CFileMapObj map;
    std::string previous;
    for (const MapCase& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = folder.Path(c.name);
        const Bytes content = Pattern(c.size);
        if (c.kind == kFolder) {
            ASSERT_TRUE(fs::create_directory(path));
        } else if (c.kind != kMissing) {
            ASSERT_TRUE(WriteFile(path, content));
            if (c.kind == k4GiB) fs::resize_file(path, 0x100000000ull);  // sparse: takes no room on disk
        }
        LogCapture log;
        const int mapped = map.Map(path.c_str());
        EXPECT_EQ(log.Messages(), Logged(c, path));
        std::error_code error;
        EXPECT_TRUE(previous.empty() || fs::remove(previous, error)) << previous << ": " << error.message();
        previous = c.kind == kFile ? path : "";

        ASSERT_EQ(mapped, c.verdict == kMaps ? 1 : 0);
        if (!mapped) {
            EXPECT_TRUE(map.hFile == kInvalidFileMapHandle && map.hMapping == kInvalidFileMapHandle);
            EXPECT_TRUE(map.pView == nullptr && map.dwSize == 0);
            EXPECT_EQ(map.Contains(&c, 1), 0);
            continue;
        }
        ASSERT_EQ(map.dwSize, content.size());
        EXPECT_EQ(memcmp(map.pView, content.data(), content.size()), 0);
        ExpectRanges(map);
        CFileMapObj second;  // a second reader while the first holds the file
        ASSERT_EQ(second.Map(path.c_str()), 1);
        EXPECT_EQ(memcmp(second.pView, content.data(), content.size()), 0);
    }
    const uint8_t* view = map.pView;
    EXPECT_EQ(map.Unmap(), 1);
    EXPECT_TRUE(map.hFile == kInvalidFileMapHandle && map.pView == nullptr && map.dwSize == 0);
    EXPECT_EQ(map.Contains(view, 0), 0);
}
