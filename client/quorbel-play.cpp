// quorbel-play: sends one request to the Quorbel sound server from the command line.

#include <windows.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "client/QuorbelClient.h"

namespace {

const char kUsage[] =
    "Usage: quorbel-play [options] [NAME...]\n"
    "Sends one request to the Quorbel sound server (the window titled \"Quorbel\").\n"
    "\n"
    "  -l, --loop               play each file again and again until it is stopped\n"
    "  -i, --ignore-foreground  keep these plays audible whatever window is in front\n"
    "  -s, --stop               stop this client's plays of the named files\n"
    "  -o, --stop-others        stop this client's plays of every file but the named one\n"
    "                           (with several names: each in turn, so all of them end)\n"
    "  -c, --stop-client        stop every play of this client; takes no names\n"
    "      --client HANDLE      speak for this window (as --hold printed it: 0x...);\n"
    "                           without it and --hold the client is no window (handle 0)\n"
    "      --hold SECONDS       make a window of our own, print \"client 0x...\", speak for it\n"
    "                           and keep it SECONDS; once it is gone the server stops its\n"
    "                           plays, and closes when no client window is left\n"
    "      --start              start quorbel.exe when no server runs and wait for it\n"
    "      --server-exe PATH    the server to start (default: quorbel.exe beside this program)\n"
    "      --as-given           send the names unchanged; the server resolves relative names\n"
    "                           against its own working directory\n"
    "  -h, --help               show this text\n"
    "      --version            show the version\n"
    "\n"
    "Names are made full paths against this program's working directory before they are sent,\n"
    "so a play and a stop from here name the same file wherever the server runs. The server\n"
    "stops a file only by the name it was played under, compared letter case aside but\n"
    "otherwise literally: a name made full here does not stop a play that another client sent\n"
    "with a relative name.\n"
    "A play that does not ignore the foreground is silent while the client's process is not\n"
    "in front; plays of client 0 are silent whenever any process is in front.\n"
    "\n"
    "Exit status: 0 the server took the request, 1 no server or no answer, 2 wrong usage\n"
    "(a name of 260 bytes or more, as given or as a full path, is wrong usage).\n";

const int kExitOk = 0;
const int kExitNoServer = 1;
const int kExitUsage = 2;
const DWORD kStartWaitMs = 10000;

int UsageError(const char* what, const char* arg = nullptr) {
    if (arg != nullptr) {
        fprintf(stderr, "quorbel-play: %s: %s\n", what, arg);
    } else {
        fprintf(stderr, "quorbel-play: %s\n", what);
    }
    fprintf(stderr, "Try 'quorbel-play --help'.\n");
    return kExitUsage;
}

// Owns the hidden window that stands for this client while --hold runs.
class CHoldWindow {
public:
    CHoldWindow() : m_hWnd(nullptr) {
        WNDCLASSA wc = {};
        wc.lpfnWndProc = DefWindowProcA;
        wc.hInstance = GetModuleHandleA(nullptr);
        wc.lpszClassName = "QuorbelPlayClient";
        RegisterClassA(&wc);
        m_hWnd = CreateWindowExA(0, wc.lpszClassName, "quorbel-play client", WS_OVERLAPPED, 0, 0, 0,
                                 0, nullptr, nullptr, wc.hInstance, nullptr);
    }
    ~CHoldWindow() {
        if (m_hWnd != nullptr) DestroyWindow(m_hWnd);
    }
    CHoldWindow(const CHoldWindow&) = delete;
    CHoldWindow& operator=(const CHoldWindow&) = delete;

    HWND Handle() const { return m_hWnd; }

    // Keeps the window serviced for the given time.
    void Hold(DWORD ms) const {
        DWORD start = GetTickCount();
        for (;;) {
            DWORD elapsed = GetTickCount() - start;
            if (elapsed >= ms) return;
            MsgWaitForMultipleObjects(0, nullptr, FALSE, ms - elapsed, QS_ALLINPUT);
            MSG msg;
            while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
                TranslateMessage(&msg);
                DispatchMessageA(&msg);
            }
        }
    }

private:
    HWND m_hWnd;
};

// Starts the server and waits for its window; the server's own window or null.
HWND StartServer(const char* exePath) {
    char path[MAX_PATH];
    if (exePath != nullptr) {
        if (strlen(exePath) >= sizeof path) return nullptr;
        strcpy(path, exePath);
    } else {
        DWORD n = GetModuleFileNameA(nullptr, path, sizeof path);
        if (n == 0 || n >= sizeof path) return nullptr;
        char* slash = strrchr(path, '\\');
        char* base = slash != nullptr ? slash + 1 : path;
        const char name[] = "quorbel.exe";
        if (static_cast<size_t>(base - path) + sizeof name > sizeof path) return nullptr;
        memcpy(base, name, sizeof name);
    }

    STARTUPINFOA si = {};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi = {};
    if (!CreateProcessA(path, nullptr, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) {
        fprintf(stderr, "quorbel-play: cannot start %s (error %lu)\n", path,
                static_cast<unsigned long>(GetLastError()));
        return nullptr;
    }
    CloseHandle(pi.hThread);
    HWND server = nullptr;
    DWORD start = GetTickCount();
    while (GetTickCount() - start < kStartWaitMs) {
        server = CQuorbelClient::FindServer();
        if (server != nullptr) break;
        if (WaitForSingleObject(pi.hProcess, 50) == WAIT_OBJECT_0) {
            // It ended at once: another server was just coming up and took over.
            server = CQuorbelClient::FindServer();
            break;
        }
    }
    CloseHandle(pi.hProcess);
    if (server == nullptr)
        fprintf(stderr, "quorbel-play: %s started but no server window appeared\n", path);
    return server;
}

bool ParseNumber(const char* text, unsigned long long maxValue, unsigned long long* value) {
    if (text == nullptr || *text == '\0' || *text == '-') return false;
    char* end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(text, &end, 0);
    if (errno != 0 || end == nullptr || *end != '\0' || v > maxValue) return false;
    *value = v;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    unsigned flags = 0;
    bool haveClient = false;
    LONG client = 0;
    bool hold = false;
    DWORD holdMs = 0;
    bool start = false;
    bool asGiven = false;
    const char* serverExe = nullptr;
    std::vector<const char*> names;
    bool optionsDone = false;

    for (int i = 1; i < argc; ++i) {
        const char* arg = argv[i];
        if (optionsDone || arg[0] != '-' || arg[1] == '\0') {
            names.push_back(arg);
            continue;
        }
        if (strcmp(arg, "--") == 0) {
            optionsDone = true;
        } else if (strcmp(arg, "-h") == 0 || strcmp(arg, "--help") == 0) {
            fputs(kUsage, stdout);
            return kExitOk;
        } else if (strcmp(arg, "--version") == 0) {
            fputs("quorbel-play " QUORBEL_VERSION "\n", stdout);
            return kExitOk;
        } else if (strcmp(arg, "--as-given") == 0) {
            asGiven = true;
        } else if (strcmp(arg, "-l") == 0 || strcmp(arg, "--loop") == 0) {
            flags |= REQ_LOOP;
        } else if (strcmp(arg, "-i") == 0 || strcmp(arg, "--ignore-foreground") == 0) {
            flags |= REQ_IGNORE_FOREGROUND;
        } else if (strcmp(arg, "-s") == 0 || strcmp(arg, "--stop") == 0) {
            flags |= REQ_STOP;
        } else if (strcmp(arg, "-o") == 0 || strcmp(arg, "--stop-others") == 0) {
            flags |= REQ_STOP | REQ_STOP_OTHERS;
        } else if (strcmp(arg, "-c") == 0 || strcmp(arg, "--stop-client") == 0) {
            flags |= REQ_STOP_CLIENT;
        } else if (strcmp(arg, "--start") == 0) {
            start = true;
        } else if (strcmp(arg, "--client") == 0 || strcmp(arg, "--hold") == 0 ||
                   strcmp(arg, "--server-exe") == 0) {
            if (i + 1 >= argc) return UsageError("missing value after", arg);
            const char* value = argv[++i];
            unsigned long long number = 0;
            if (strcmp(arg, "--server-exe") == 0) {
                serverExe = value;
            } else if (strcmp(arg, "--client") == 0) {
                if (!ParseNumber(value, 0xFFFFFFFFull, &number)) {
                    return UsageError("not a window handle", value);
                }
                haveClient = true;
                client = static_cast<LONG>(static_cast<uint32_t>(number));
            } else {
                if (!ParseNumber(value, 86400ull, &number)) {
                    return UsageError("not a number of seconds (0 to 86400)", value);
                }
                hold = true;
                holdMs = static_cast<DWORD>(number * 1000);
            }
        } else {
            return UsageError("unknown option", arg);
        }
    }

    const bool stopping = (flags & (REQ_STOP | REQ_STOP_CLIENT)) != 0;
    if (stopping && (flags & (REQ_LOOP | REQ_IGNORE_FOREGROUND))) {
        return UsageError("--loop and --ignore-foreground go with plays, not with stops");
    }
    if ((flags & REQ_STOP_CLIENT) && (flags & REQ_STOP)) {
        return UsageError(
            "--stop-client stops everything; it does not go with --stop or --stop-others");
    }
    if ((flags & REQ_STOP_CLIENT) && !names.empty()) {
        return UsageError("--stop-client takes no names");
    }
    if (!(flags & REQ_STOP_CLIENT) && names.empty()) return UsageError("no file names given");
    if (haveClient && hold) return UsageError("--client and --hold name two different clients");
    if (static_cast<int>(names.size()) > kQuorbelMaxNames) {
        return UsageError("too many names in one request (at most 255)");
    }
    // The names as sent: full paths from here, so that the server, whatever its own working
    // directory, opens the file meant and a later stop from here names the same one.
    std::vector<std::string> sent;
    for (const char* name : names) {
        if (strlen(name) >= kQuorbelNameBuffer) {
            return UsageError("name too long (at most 259 bytes)", name);
        }
        if (asGiven) {
            sent.push_back(name);
            continue;
        }
        if (*name == '\0') return UsageError("an empty name has no full path");
        char full[kQuorbelNameBuffer];
        if (!CQuorbelClient::FullPathName(name, full)) {
            return UsageError("name too long as a full path (at most 259 bytes)", name);
        }
        sent.push_back(full);
    }

    HWND server = CQuorbelClient::FindServer();
    if (server == nullptr && start) server = StartServer(serverExe);
    if (server == nullptr) {
        fprintf(stderr,
                "quorbel-play: no Quorbel server is running (no window titled \"Quorbel\"); "
                "start quorbel.exe or use --start\n");
        return kExitNoServer;
    }

    std::unique_ptr<CHoldWindow> window;
    if (hold) {
        window.reset(new CHoldWindow);
        if (window->Handle() == nullptr) {
            fprintf(stderr, "quorbel-play: cannot make a client window (error %lu)\n",
                    static_cast<unsigned long>(GetLastError()));
            return kExitNoServer;
        }
        client = HandleToLong(window->Handle());
        printf("client 0x%08lX\n", static_cast<unsigned long>(static_cast<uint32_t>(client)));
        fflush(stdout);
    }

    CQuorbelClient::CRequestBlock block(client);
    for (const std::string& name : sent) block.AddName(name.c_str());
    if (!block.IsValid() || block.Count() != static_cast<int>(sent.size())) {
        fprintf(stderr, "quorbel-play: out of memory\n");
        return kExitNoServer;
    }
    if (!CQuorbelClient::SendBlock(server, block, flags)) {
        fprintf(stderr, "quorbel-play: the server did not take the request\n");
        return kExitNoServer;
    }
    if (window) window->Hold(holdMs);
    return kExitOk;
}
