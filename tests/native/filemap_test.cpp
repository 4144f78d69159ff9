// The mapped file: each failure logged with the code Windows gives, on every system, and nothing left
// open, which Windows shows by refusing to delete a file while a view or handle of it is open; a file
// mapped holds its bytes, also for a second reader while the first holds it.

#include <gtest/gtest.h>

#include "player/pub/FileMapObj.h"
#include "tests/support/TestSupport.h"

using namespace test_support;

TEST(FileMapObj, EachFileGivesItsLogAndView) {
    TempFolder folder;
    const std::string file = folder.Path("file"), empty = folder.Path("empty"),
                      big = folder.Path("4 GiB");
    ASSERT_TRUE(WriteFile(file, Bytes("bytes\0\xFF", 7)) && WriteFile(empty, "") &&
                WriteFile(big, "") && fs::create_directory(folder.Path("folder")));
    fs::resize_file(big,
                    0x100000000ull);  // past what dwSize holds; sparse, it takes no room on disk
    const std::pair<std::string, std::string> cases[] = {
        // the file, and what is logged after "[path:*]"
        {file, ""},
        {folder.Path("missing"), "create file(%) failed(0x00000002)"},
        {empty, "create file mapping failed(0x000003EE)"},
        {folder.Path("folder"), "create file(%) failed(0x00000005)"},
        {big, "create file mapping failed(0x000000DF)"},
        {file, ""}};
    CFileMapObj map;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        LogCapture log;
        const int mapped = map.Map(c.first.c_str());
        std::string line = "[player/pub/FileMapObj:*]" + c.second;
        if (line.find('%') != std::string::npos) line.replace(line.find('%'), 1, c.first);
        EXPECT_EQ(log.Messages(), std::vector<std::string>(!c.second.empty(), line));
        EXPECT_EQ(mapped, c.second.empty());
        EXPECT_EQ(Bytes(reinterpret_cast<const char*>(map.pView), map.dwSize),
                  mapped ? ReadFile(c.first) : "");
        EXPECT_TRUE(mapped ||
                    (map.hFile == kInvalidFileMapHandle && map.hMapping == kInvalidFileMapHandle));
        EXPECT_TRUE(!mapped || CFileMapObj().Map(c.first.c_str()));
    }
    for (const std::string& path : {file, empty, big})
        EXPECT_TRUE(map.Unmap() && fs::remove(path)) << path;
}
