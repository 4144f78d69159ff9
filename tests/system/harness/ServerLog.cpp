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

}  // namespace harness
