#include "player/pub/PlayerRegistry.h"

int CPlayerRegistry::Play(LONG hClientWnd, const char* pszFileName, uint32_t bLoop,
                          DWORD dwForegroundPid) {
    calls.push_back({Call::kPlay, hClientWnd, pszFileName, bLoop, dwForegroundPid});
    return 1;
}

void CPlayerRegistry::StopFile(LONG hClientWnd, const char* pszFileName) {
    calls.push_back({Call::kStopFile, hClientWnd, pszFileName, 0, 0});
}

void CPlayerRegistry::StopOtherFiles(LONG hClientWnd, const char* pszFileName) {
    calls.push_back({Call::kStopOtherFiles, hClientWnd, pszFileName, 0, 0});
}

void CPlayerRegistry::StopClient(LONG hClientWnd) {
    calls.push_back({Call::kStopClient, hClientWnd, std::string(), 0, 0});
}

void CPlayerRegistry::SetForegroundProcess(DWORD dwPid) {
    calls.push_back({Call::kForeground, 0, std::string(), 0, dwPid});
}

int CPlayerRegistry::Shutdown(DWORD) {
    calls.push_back({Call::kShutdown, 0, std::string(), 0, 0});
    return 1;
}
