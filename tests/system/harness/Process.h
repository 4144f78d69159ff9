#pragma once
// A child process of the test: a Linux program, or a Windows program through wine. The Windows
// program is the very process that wine starts (same pid), so Kill ends it.

#include <sys/types.h>

#include <string>
#include <vector>

namespace harness {

class CProcess {
public:
    CProcess() = default;
    // Kills the process if it still runs.
    ~CProcess();

    CProcess(const CProcess&) = delete;
    CProcess& operator=(const CProcess&) = delete;

    // Starts argv[0] (searched in PATH) with the test's environment, in workDir (empty: the
    // test's own), stdout to outputFile (empty: /dev/null) and stderr to errorFile (empty: the
    // same as stdout). false if it could not start; a program that cannot be executed exits
    // with status 127.
    bool Start(const std::vector<std::string>& argv, const std::string& workDir = "",
               const std::string& outputFile = "", const std::string& errorFile = "");
    // wine EXE ARGS...
    bool StartWindows(const std::string& exe, const std::vector<std::string>& args,
                      const std::string& workDir = "", const std::string& outputFile = "");

    pid_t Pid() const { return m_pid; }
    bool Running();
    // Waits up to timeoutMs for the end; true when it has ended.
    bool Wait(int timeoutMs);
    // The exit status once ended: the code, or 128 + signal; -1 before the end.
    int ExitCode() const { return m_exitCode; }
    // SIGKILL and wait for it; true when it has ended.
    bool Kill();
    // SIGTERM, up to graceMs for it to end, then SIGKILL.
    bool Terminate(int graceMs);

private:
    bool Reap(bool block);

    pid_t m_pid = -1;
    int m_exitCode = -1;
};

}  // namespace harness
