#pragma once
// The main frame's link to the players: one player per file type, made on first need, chosen
// by the file name's extension. Main thread only. Windows only.

#include <windows.h>

#include <cstdint>

class CSoundFilePlayer;

class CPlayerRegistry {
public:
    enum { kWavSlot = 0, kMP3Slot = 1, kSlotCount = 2 };
    // A close ends the server's process within this from its start, whatever the sound path
    // does: a stopped play drains its ring (about 0.2 s, later under load), but a device that
    // stopped answering must not hold the process, nor the single-instance mutex with it.
    static const DWORD kCloseDeadlineMs = 2000;

    CPlayerRegistry();
    // Shuts down first when that has not been done.
    ~CPlayerRegistry();

    CPlayerRegistry(const CPlayerRegistry&) = delete;
    CPlayerRegistry& operator=(const CPlayerRegistry&) = delete;

    static BOOL HasExtension(const char* pszFileName, const char* pszExt);
    CSoundFilePlayer* GetPlayer(const char* pszFileName);

    int Play(LONG hClientWnd, const char* pszFileName, uint32_t bLoop, DWORD dwForegroundPid);
    void StopFile(LONG hClientWnd, const char* pszFileName);
    void StopOtherFiles(LONG hClientWnd, const char* pszFileName);
    void StopClient(LONG hClientWnd);
    void SetForegroundProcess(DWORD dwPid);

    // Ends playback for good: no player is made any more, every play of every client is
    // halted at once, and the play threads of all players get dwTimeoutMs together to end. A
    // player whose threads outlive the wait is left undestroyed (logged), since a thread may
    // still use it. 1 when all ended.
    int Shutdown(DWORD dwTimeoutMs);

    // The player of a slot, or null while it is not made.
    CSoundFilePlayer* PlayerAt(int nSlot) const;

    CSoundFilePlayer* m_pWavPlayer;
    CSoundFilePlayer* m_pMP3Player;

private:
    CSoundFilePlayer*& Slot(int nSlot);
    CSoundFilePlayer* MakePlayer(int nSlot);

    bool m_bShutDown;
};
