#pragma once
// The session's environment as the system tests see it (see Harness.h for the variables).

#include <functional>
#include <string>

namespace harness {

// Empty when the tests can run; otherwise what is missing, in words for a failure message.
std::string SessionProblem();

// $QUORBEL_WIN_BUILD_DIR, or empty.
std::string WinBuildDir();

// The path of NAME.exe under the Windows build directory (the first found, searching the whole
// tree but CMake's own folders), or empty.
std::string FindWindowsExe(const std::string& name);

// A new empty directory for one test, named after tag, under $QUORBEL_SYSTEM_WORK_DIR or
// ./work; an earlier one of the same name is removed first. Empty on failure.
std::string MakeWorkDir(const std::string& tag);

// Polls condition every stepMs until it holds (true) or timeoutMs has passed (false).
bool WaitUntil(const std::function<bool()>& condition, int timeoutMs, int stepMs = 20);

void SleepMs(int ms);

bool WriteFile(const std::string& path, const std::string& bytes);
// The whole file; false when it cannot be read.
bool ReadFile(const std::string& path, std::string* bytes);

}  // namespace harness
