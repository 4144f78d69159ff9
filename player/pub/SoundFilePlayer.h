#pragma once
// The base of the players: turns a play request into a record and a detached play thread, keeps
// the list of plays that are sounding, and carries out the commands that act on running plays
// (stops, foreground changes). What a play does with its file is the derived class's PlayFile.
// Its system calls are ThreadPlatform.h's and PlayListPlatform.h's.

#include <atomic>
#include <cstdint>
#include <list>

#include "player/pub/ThreadPlatform.h"

class CSoundFilePlayer;
class CWavOut;

// One accepted play. Belongs to its play thread, which frees it when PlayFile has returned.
struct PlayRequest {
    int32_t hClientWnd;           // the client window, kept as its 32 bits
    uint32_t dwClientPid;           // owner of hClientWnd when the request was made; 0 for none
    uint32_t bFollowForeground;   // 1: silenced while the client's process is not in front
    CSoundFilePlayer* pPlayer;    // runs the play
    CWavOut* pWavOut;             // set by PlayFile before AddPlaying
    char szFileName[260];
    std::atomic<uint32_t> bLoop;  // cleared from the main thread by every stop
    uint32_t bStartSilent;        // initial silent state of the output
    uint32_t nForegroundSerial;   // the player's foreground serial when the request was made
};

class CSoundFilePlayer {
public:
    CSoundFilePlayer();
    virtual ~CSoundFilePlayer();

    CSoundFilePlayer(const CSoundFilePlayer&) = delete;
    CSoundFilePlayer& operator=(const CSoundFilePlayer&) = delete;

    // Plays the file on the play thread: 1 played, 0 failed (logged).
    virtual int PlayFile(PlayRequest* pRequest) = 0;

    // Main thread. Non-zero when the play thread was started.
    int Play(int32_t hClientWnd, const char* pszFileName, uint32_t bLoop,
             uint32_t dwForegroundPid);
    void StopFile(int32_t hClientWnd, const char* pszFileName);
    void StopOtherFiles(int32_t hClientWnd, const char* pszFileName);
    void StopClient(int32_t hClientWnd);
    void SetForegroundProcess(uint32_t dwPid);

    // Closing: refuses every later play and join, and halts every running play of every client
    // without waiting for its sound. Main thread.
    void StopAllForClose();
    // 1 when no play thread of this player is alive any more, waiting at most dwTimeoutMs.
    int WaitForPlayThreads(uint32_t dwTimeoutMs);
    long LivePlayThreads() const { return m_nPlayThreads.load(); }
    // How many plays are listed now.
    int PlayingCount();

    // Play thread. AddPlaying returns 0 when the player is closing: the play must not start.
    // Its device and record then stay the caller's; it must not call RemovePlaying.
    int AddPlaying(PlayRequest* pRequest);
    void RemovePlaying(PlayRequest* pRequest);

protected:
    // Hands an opened output to the play (silent when its client is not in front) and lists
    // it. 0 when the server is closing: the play must not start, and the output stays the
    // caller's.
    int StartListedPlay(PlayRequest* pRequest, CWavOut* pOut);

    // Unlists the play when it leaves scope, also by an exception: the record and the device
    // must not stay listed once they are gone. Declare it after the output device.
    class CPlayingGuard {
    public:
        CPlayingGuard(CSoundFilePlayer& player, PlayRequest* pRequest)
            : m_player(player), m_pRequest(pRequest) {}
        ~CPlayingGuard() { Release(); }
        void Release() {
            if (m_pRequest != nullptr) m_player.RemovePlaying(m_pRequest);
            m_pRequest = nullptr;
        }
        CPlayingGuard(const CPlayingGuard&) = delete;
        CPlayingGuard& operator=(const CPlayingGuard&) = delete;

    private:
        CSoundFilePlayer& m_player;
        PlayRequest* m_pRequest;
    };

private:
    enum StopSelect { kSelectFile, kSelectOtherFiles, kSelectClient };

    void StopSelected(StopSelect select, int32_t hClientWnd, const char* pszFileName);
    static void PlayThreadProc(void* pParam);

    std::list<PlayRequest*> m_playing;
    CLock m_csPlaying;
    // The last foreground process reported, and how many reports there were, so that a play
    // that joins after a report it did not see takes the current state (under m_csPlaying).
    uint32_t m_dwForegroundPid;
    uint32_t m_nForegroundSerial;
    bool m_bClosing;  // under m_csPlaying
    std::atomic<long> m_nPlayThreads;
};
