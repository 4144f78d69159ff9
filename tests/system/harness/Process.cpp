#include "tests/system/harness/Process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "tests/system/harness/Session.h"

namespace harness {

CProcess::~CProcess() {
    if (m_pid > 0 && m_exitCode < 0) Kill();
}

bool CProcess::Start(const std::vector<std::string>& argv, const std::string& workDir,
                     const std::string& outputFile, const std::string& errorFile) {
    if (argv.empty() || (m_pid > 0 && m_exitCode < 0)) return false;
    // Everything the child needs is made before fork: after it only async-signal-safe calls.
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    const char* out = outputFile.empty() ? "/dev/null" : outputFile.c_str();
    const char* err = errorFile.empty() ? nullptr : errorFile.c_str();
    const char* dir = workDir.empty() ? nullptr : workDir.c_str();

    pid_t pid = fork();
    if (pid < 0) return false;
    if (pid == 0) {
        int in = open("/dev/null", O_RDONLY);
        int fd = open(out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int efd = err != nullptr ? open(err, O_WRONLY | O_CREAT | O_TRUNC, 0644) : fd;
        if (in < 0 || fd < 0 || efd < 0) _exit(127);
        dup2(in, 0);
        dup2(fd, 1);
        dup2(efd, 2);
        if (dir != nullptr && chdir(dir) != 0) _exit(127);
        execvp(args[0], args.data());
        _exit(127);
    }
    m_pid = pid;
    m_exitCode = -1;
    return true;
}

bool CProcess::StartWindows(const std::string& exe, const std::vector<std::string>& args,
                            const std::string& workDir, const std::string& outputFile) {
    std::vector<std::string> argv = {"wine", exe};
    argv.insert(argv.end(), args.begin(), args.end());
    return Start(argv, workDir, outputFile);
}

bool CProcess::Reap(bool block) {
    if (m_pid <= 0) return true;
    if (m_exitCode >= 0) return true;
    int status = 0;
    pid_t r;
    do {
        r = waitpid(m_pid, &status, block ? 0 : WNOHANG);
    } while (r < 0 && errno == EINTR);
    if (r == 0) return false;
    if (r < 0) {
        m_exitCode = 255;  // not our child any more; nothing left to wait for
        return true;
    }
    m_exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
}

bool CProcess::Running() { return m_pid > 0 && !Reap(false); }

bool CProcess::Wait(int timeoutMs) {
    if (m_pid <= 0) return true;
    return WaitUntil([this] { return Reap(false); }, timeoutMs, 10);
}

bool CProcess::Kill() {
    if (m_pid <= 0 || Reap(false)) return true;
    kill(m_pid, SIGKILL);
    return Wait(10000);
}

bool CProcess::Terminate(int graceMs) {
    if (m_pid <= 0 || Reap(false)) return true;
    kill(m_pid, SIGTERM);
    if (Wait(graceMs)) return true;
    return Kill();
}

}  // namespace harness
