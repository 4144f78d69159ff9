#pragma once
// The base of the players: turns a play request into a record and a detached play thread, keeps
// the list of plays that are sounding, and carries out the commands that act on running plays
// (stops, foreground changes). What a play does with its file is the derived class's PlayFile.
// Its system calls are ThreadPlatform.h's and PlayListPlatform.h's.

#include <atomic>
#include <cstdint>
#include <list>

#include "client/QuorbelClient.h"
#include "player/pub/ThreadPlatform.h"
#include "player/pub/WavOut.h"

class CSoundFilePlayer;

// One accepted play. Belongs to its play thread, which frees it when PlayFile has returned.
struct PlayRequest {
    int32_t hClientWnd;          // the client window, kept as its 32 bits
    uint32_t dwClientPid;        // owner of hClientWnd when the request was made; 0 for none
    uint32_t bFollowForeground;  // 1: silenced while the client's process is not in front
    CSoundFilePlayer* pPlayer;   // runs the play
    CWavOut* pWavOut;            // set by PlayFile before AddPlaying
    char szFileName[kQuorbelNameBuffer];
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
    int Play(int32_t hClientWnd, const char* pszFileName, uint32_t bLoop, uint32_t dwForegroundPid);
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
    // The play of one opened file, the same for every format: the output opened in the file's
    // format, the play listed, passes while it loops, the drain, the close. Format supplies the
    // steps of its own format and logs with its own unit path and wording:
    //   WavOutParams Params()                    the output's format
    //   void OutputFailed(PlayRequest*)          logs a refused output
    //   int Pass(CWavOut&, uint64_t* queued)     one pass through the file; 0 once the output
    //                                            refused a write (stopped or dead)
    // 0 when the output did not open or the server is closing; 1 once played.
    template <class Format>
    int PlayOpened(PlayRequest* pRequest, Format& format);

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

template <class Format>
int CSoundFilePlayer::PlayOpened(PlayRequest* pRequest, Format& format) {
    CWavOut out;
    WavOutParams params = format.Params();
    if (!out.Open(params)) {
        format.OutputFailed(pRequest);
        return 0;
    }
    if (!StartListedPlay(pRequest, &out)) return 0;  // the server is closing
    // From here on a stop or a foreground change may reach the output from the main thread.
    CPlayingGuard listed(*this, pRequest);
    int outputAlive = 1;
    do {
        uint64_t queued = 0;
        outputAlive = format.Pass(out, &queued);
        // A looping pass that queued nothing would otherwise spin at full speed.
        if (outputAlive && queued == 0 && pRequest->bLoop.load(std::memory_order_relaxed)) {
            SleepMs(out.dwSleepMs > 0 ? out.dwSleepMs : 1);
        }
        // A stop clears bLoop before it stops the output; a refused write also ends a loop,
        // since a dead device would refuse every later pass at once.
    } while (outputAlive && pRequest->bLoop.load(std::memory_order_relaxed) != 0);
    listed.Release();
    out.WaitForBuffers();
    out.Close();
    return 1;
}
