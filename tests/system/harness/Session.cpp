#include "tests/system/harness/Session.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

namespace fs = std::filesystem;

namespace harness {

namespace {

std::string Env(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

}  // namespace

std::string SessionProblem() {
    std::string problem;
    std::string win = WinBuildDir();
    if (win.empty()) {
        problem += "QUORBEL_WIN_BUILD_DIR is not set; ";
    } else if (!fs::is_directory(win)) {
        problem += "QUORBEL_WIN_BUILD_DIR " + win + " is not a directory; ";
    }
    const char* needed[] = {"QUORBEL_SESSION_DIR", "DISPLAY", "PULSE_SERVER", "WINEPREFIX"};
    for (const char* name : needed) {
        if (Env(name).empty()) problem += std::string(name) + " is not set; ";
    }
    if (!problem.empty()) {
        problem += "run inside the Wine session (scripts/wine-session start; . build/session/env)";
    }
    return problem;
}

std::string WinBuildDir() { return Env("QUORBEL_WIN_BUILD_DIR"); }

std::string FindWindowsExe(const std::string& name) {
    std::string root = WinBuildDir();
    if (root.empty()) return "";
    std::error_code ec;
    std::string wanted = name + ".exe";
    fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec);
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_directory(ec) && it->path().filename() == "CMakeFiles") {
            it.disable_recursion_pending();
            continue;
        }
        if (it->path().filename() == wanted && it->is_regular_file(ec)) return it->path().string();
    }
    return "";
}

std::string MakeWorkDir(const std::string& tag) {
    std::string base = Env("QUORBEL_SYSTEM_WORK_DIR");
    if (base.empty()) base = "work";
    std::error_code ec;
    fs::path dir = fs::absolute(fs::path(base) / tag, ec);
    if (ec) return "";
    fs::remove_all(dir, ec);
    fs::create_directories(dir, ec);
    if (ec) return "";
    return dir.string();
}

bool WaitUntil(const std::function<bool()>& condition, int timeoutMs, int stepMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        SleepMs(stepMs);
    }
}

void SleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

bool WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) return false;
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

bool ReadFile(const std::string& path, std::string* bytes) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

}  // namespace harness
