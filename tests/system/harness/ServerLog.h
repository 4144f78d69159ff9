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

// Whether message equals pattern exactly, where each ":*]" of the pattern stands for a colon,
// a line number and "]": "[player/pub/WavOut:*]waveOutOpen() return(32)". Line numbers are
// never pinned.
bool MessageMatches(const std::string& message, const std::string& pattern);

// How many messages match pattern.
int CountLogMessage(const std::string& workDir, const std::string& pattern);

// Waits up to timeoutMs until a message matching pattern is in the log.
bool WaitForLogMessage(const std::string& workDir, const std::string& pattern, int timeoutMs);

}  // namespace harness
