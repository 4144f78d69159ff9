#include "tests/system/harness/ServerLog.h"

#include "tests/system/harness/Session.h"

namespace harness {

namespace {

const size_t kIndent = 35;

bool IsEntryStart(const std::string& line) {
    // "[2024-01-02 03:04:05:678 " then ids and "]"
    return line.size() > 26 && line[0] == '[' && line[5] == '-' && line[8] == '-' &&
           line[11] == ' ' && line[14] == ':' && line[17] == ':' && line[20] == ':' &&
           line.find(']') != std::string::npos;
}

}  // namespace

std::string ServerLogText(const std::string& workDir) {
    std::string text;
    if (!ReadFile(workDir + "/quorbel.log", &text)) return "";
    return text;
}

std::vector<std::string> ServerLogMessages(const std::string& workDir) {
    std::vector<std::string> messages;
    std::string text = ServerLogText(workDir);
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(pos, end - pos);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        pos = end + 1;
        if (IsEntryStart(line)) {
            messages.push_back(line.substr(line.find(']') + 1));
        } else if (!messages.empty()) {
            messages.back() += "\n" + (line.size() >= kIndent ? line.substr(kIndent) : line);
        }
    }
    return messages;
}

bool MessageMatches(const std::string& message, const std::string& pattern) {
    static const std::string kLine = ":*]";
    size_t m = 0;
    size_t p = 0;
    for (;;) {
        size_t wild = pattern.find(kLine, p);
        size_t literal = (wild == std::string::npos ? pattern.size() : wild) - p;
        if (message.compare(m, literal, pattern, p, literal) != 0) return false;
        m += literal;
        if (wild == std::string::npos) return m == message.size();
        if (m >= message.size() || message[m] != ':') return false;
        ++m;
        size_t digits = m;
        while (m < message.size() && message[m] >= '0' && message[m] <= '9') ++m;
        if (m == digits || m >= message.size() || message[m] != ']') return false;
        ++m;
        p = wild + kLine.size();
    }
}

int CountLogMessage(const std::string& workDir, const std::string& pattern) {
    int count = 0;
    for (const std::string& m : ServerLogMessages(workDir)) count += MessageMatches(m, pattern) ? 1 : 0;
    return count;
}

bool WaitForLogMessage(const std::string& workDir, const std::string& pattern, int timeoutMs) {
    return WaitUntil([&] { return CountLogMessage(workDir, pattern) > 0; }, timeoutMs, 50);
}

}  // namespace harness
