#pragma once
// Native stand-in for the player registry (the real one is player/pub/PlayerRegistry.h; see
// windows.h here for why it exists): it plays nothing and records every call that reaches it,
// so that a test can compare what the main frame made of a request with what it should have.

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

class CPlayerRegistry {
public:
    static const DWORD kCloseDeadlineMs = 2000;

    struct Call {
        enum Kind { kPlay, kStopFile, kStopOtherFiles, kStopClient, kForeground, kShutdown };
        Kind kind;
        LONG hClientWnd;
        std::string name;  // copied up to its NUL
        uint32_t bLoop;
        DWORD dwPid;       // Play: the foreground pid; kForeground: the pid
        bool operator==(const Call& other) const {
            return kind == other.kind && hClientWnd == other.hClientWnd && name == other.name &&
                   bLoop == other.bLoop && dwPid == other.dwPid;
        }
    };

    CPlayerRegistry() = default;
    CPlayerRegistry(const CPlayerRegistry&) = delete;
    CPlayerRegistry& operator=(const CPlayerRegistry&) = delete;

    int Play(LONG hClientWnd, const char* pszFileName, uint32_t bLoop, DWORD dwForegroundPid);
    void StopFile(LONG hClientWnd, const char* pszFileName);
    void StopOtherFiles(LONG hClientWnd, const char* pszFileName);
    void StopClient(LONG hClientWnd);
    void SetForegroundProcess(DWORD dwPid);
    int Shutdown(DWORD dwTimeoutMs);

    std::vector<Call> calls;
};
