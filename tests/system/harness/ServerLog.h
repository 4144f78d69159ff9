#pragma once
// The server's log, ".\quorbel.log" in its working directory: entries of
// "[YYYY-MM-DD HH:MM:SS:mmm PPPP:TTTT]message", CRLF line ends, further lines of an entry
// indented by 35 spaces.

#include <string>
#include <vector>

namespace harness {

// The log file in workDir ("" when there is none).
std::string ServerLogText(const std::string& workDir);

// The messages of the log's entries, prefix removed, further lines joined with "\n".
std::vector<std::string> ServerLogMessages(const std::string& workDir);

}  // namespace harness
