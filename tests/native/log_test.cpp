// The log file: the layout of its entries, a file that cannot be opened yet, lines too long for one
// piece or one message, whole entries while two threads log at once.

#include <gtest/gtest.h>
#include <chrono>
#include <ctime>
#include <thread>

#include "player/pub/Log.h"
#include "tests/support/TestSupport.h"

using namespace test_support;

// Until its folder appears the log loses entries without notice; then they are appended to what the
// file held, in local time to the millisecond, further lines under the first one's text. A message is
// cut to 4095 characters, written in pieces of 1023 (a line and its line break, and 35 spaces when
// another follows); longer lines go in several pieces, whole.
TEST(LogFile, EntriesAreLaidOutWholeOnceTheFileCanBeOpened) {
    // The system clock, as the log reads it: std::time may read a coarser clock that lags it by
    // a tick, a second behind just after a second begins.
    const auto now = [] {
        const std::time_t seconds =
            std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
        char text[32];
        return std::string(text, std::strftime(text, sizeof(text),
                                               "[%Y-%m-%d %H:%M:%S:", std::localtime(&seconds)));
    };
    TempFolder folder;
    const std::string path = folder.Path("later") + "/entries.log", before = now();
    LogCapture capture(path);
    CLogFile log(path.c_str());
    EXPECT_TRUE(log.WriteToFile("lost") == 0 && log.Log("lost too") == 1);
    ASSERT_TRUE(fs::create_directory(folder.Path("later")) && WriteFile(path, "earlier\n"));
    std::vector<std::string> messages = {"?earlier",
                                         "one line -7 7 BEEF text    42",
                                         "first\nsecond",
                                         "line feed\n",
                                         "a\n\nc",
                                         std::string(987, 'f') + "\nnext",
                                         std::string(988, 's') + "\nnext",
                                         std::string(1022, 'l'),
                                         std::string(1023, 'm'),
                                         std::string(5000, 'o')};
    log.Log("one line %d %u %X %s %5d", -7, 7u, 0xBEEFu, "text", 42);
    for (size_t i = 2; i < messages.size(); ++i) log.Log("%s", messages[i].c_str());
    messages.back().resize(4095);
    EXPECT_EQ(capture.Messages(), messages);
    const std::string text = ReadFile(path), stamp = text.substr(8, 21), after = now();
    EXPECT_TRUE(before <= stamp && stamp <= after && text.back() == '\n')
        << stamp << " not from " << before << " to " << after;
}

// Each thread's entries whole and in its order, under the id of its own thread.
TEST(LogFile, EntriesOfTwoThreadsNeverInterleave) {
    TempFolder folder;
    LogCapture capture(folder.Path("threads.log"));
    CLogFile log(capture.path.c_str());
    const auto write = [&log](char t) {
        for (int i = 0; i < 300; ++i) log.Log("%c %d\n%c two\n%c three", t, i, t, t);
    };
    std::thread a(write, 'A'), b(write, 'B');
    a.join(), b.join();
    int next[2] = {0, 0};
    std::string ids[2];
    for (const std::string& m : capture.Messages(true)) {
        const size_t close = m.find(']');
        const int t = m[close + 1] == 'B';
        const std::string tag(1, "AB"[t]);
        if (ids[t].empty()) ids[t] = m.substr(0, close);
        ASSERT_EQ(m, ids[t] + "]" + tag + " " + std::to_string(next[t]++) + "\n" + tag + " two\n" +
                         tag + " three");
    }
    EXPECT_TRUE(next[0] == 300 && next[1] == 300 && ids[0] != ids[1]) << ids[0];
}
