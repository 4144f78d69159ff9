#include "player/pub/SoundFilePlayer.h"

#include <cstring>
#include <new>

#include "player/pub/Log.h"
#include "player/pub/PlayListPlatform.h"
#include "player/pub/WavOut.h"

namespace {

const char kUnitPath[] = "player/pub/SoundFilePlayer";

}  // namespace

CSoundFilePlayer::CSoundFilePlayer()
    : m_dwForegroundPid(0), m_nForegroundSerial(0), m_bClosing(false), m_nPlayThreads(0) {}

// The list holds pointers only; the records belong to their threads.
CSoundFilePlayer::~CSoundFilePlayer() {}

int CSoundFilePlayer::Play(int32_t hClientWnd, const char* pszFileName, uint32_t bLoop,
                           uint32_t dwForegroundPid) {
    if (pszFileName == nullptr) return 0;
    // A longer name cannot be kept whole, and a cut name could be another file.
    size_t length = strnlen(pszFileName, sizeof(PlayRequest::szFileName));
    if (length >= sizeof(PlayRequest::szFileName)) return 0;

    {
        CScopedLock<CLock> lock(m_csPlaying);
        if (m_bClosing) return 0;
    }

    PlayRequest* request = new (std::nothrow) PlayRequest();
    if (request == nullptr) return 0;

    request->hClientWnd = hClientWnd;
    memcpy(request->szFileName, pszFileName, length + 1);
    request->bLoop.store(bLoop, std::memory_order_relaxed);
    request->pPlayer = this;
    request->pWavOut = nullptr;

    const uint32_t pid = ClientProcessId(hClientWnd);
    request->dwClientPid = pid;

    request->bFollowForeground = dwForegroundPid != 0 ? 1 : 0;
    request->bStartSilent = (dwForegroundPid != 0 && dwForegroundPid != pid) ? 1 : 0;
    // Written only on this (the main) thread, so no lock is needed to read it here.
    request->nForegroundSerial = m_nForegroundSerial;

    // Counted before the thread exists, so that a close waiting for the count cannot miss it.
    m_nPlayThreads.fetch_add(1);
    if (!StartThread(&CSoundFilePlayer::PlayThreadProc, request)) {
        m_nPlayThreads.fetch_sub(1);
        delete request;
        return 0;
    }
    return 1;
}

void CSoundFilePlayer::PlayThreadProc(void* pParam) {
    PlayRequest* request = static_cast<PlayRequest*>(pParam);
    CSoundFilePlayer* player = request->pPlayer;
    try {
        player->PlayFile(request);
    } catch (...) {
        // The play's own guard has unlisted it already; this keeps a freed record out of the
        // list even for a body without one.
        player->RemovePlaying(request);
        g_logFile.Log("[%s:%d]file(%s),exception occurs", kUnitPath, __LINE__, request->szFileName);
    }
    delete request;
    // The last touch of the player: once the count is 0 the player may be destroyed.
    player->m_nPlayThreads.fetch_sub(1);
}

int CSoundFilePlayer::StartListedPlay(PlayRequest* pRequest, CWavOut* pOut) {
    pOut->bSilent = static_cast<int32_t>(pRequest->bStartSilent);
    pRequest->pWavOut = pOut;
    if (!AddPlaying(pRequest)) {
        pRequest->pWavOut = nullptr;
        return 0;
    }
    return 1;
}

int CSoundFilePlayer::AddPlaying(PlayRequest* pRequest) {
    CScopedLock<CLock> lock(m_csPlaying);
    if (m_bClosing) return 0;
    // A foreground change reported while this play was still opening would otherwise be lost:
    // the timer reports changes only.
    if (pRequest->bFollowForeground && pRequest->nForegroundSerial != m_nForegroundSerial &&
        pRequest->pWavOut != nullptr) {
        pRequest->pWavOut->bSilent = (m_dwForegroundPid != pRequest->dwClientPid) ? 1 : 0;
    }
    m_playing.push_back(pRequest);
    return 1;
}

void CSoundFilePlayer::RemovePlaying(PlayRequest* pRequest) {
    // Waits while a stop is working on the list, so the record and its device outlive it.
    CScopedLock<CLock> lock(m_csPlaying);
    m_playing.remove(pRequest);
}

void CSoundFilePlayer::StopFile(int32_t hClientWnd, const char* pszFileName) {
    StopSelected(kSelectFile, hClientWnd, pszFileName);
}

void CSoundFilePlayer::StopOtherFiles(int32_t hClientWnd, const char* pszFileName) {
    StopSelected(kSelectOtherFiles, hClientWnd, pszFileName);
}

void CSoundFilePlayer::StopClient(int32_t hClientWnd) {
    StopSelected(kSelectClient, hClientWnd, nullptr);
}

void CSoundFilePlayer::StopAllForClose() {
    CScopedLock<CLock> lock(m_csPlaying);
    m_bClosing = true;
    // Every play of every client is halted at once and none is waited for here: the close
    // waits for all the play threads together, against one deadline.
    for (PlayRequest* request : m_playing) {
        request->bLoop.store(0, std::memory_order_relaxed);
        if (request->pWavOut != nullptr) request->pWavOut->Halt();
    }
}

void CSoundFilePlayer::StopSelected(StopSelect select, int32_t hClientWnd,
                                    const char* pszFileName) {
    if ((select == kSelectFile || select == kSelectOtherFiles) && pszFileName == nullptr) return;
    // The lock is held across the stops: a play that ends meanwhile waits in RemovePlaying
    // before it closes its device and frees its record. That cannot deadlock, because draining
    // a device never needs its play thread. Holding the lock also keeps the list unchanged, so
    // the selected plays are stopped straight from it, in the order they joined.
    try {
        CScopedLock<CLock> lock(m_csPlaying);
        for (PlayRequest* request : m_playing) {
            bool selected = false;
            switch (select) {
                case kSelectFile:
                    selected = request->hClientWnd == hClientWnd &&
                               SameFileName(request->szFileName, pszFileName);
                    break;
                case kSelectOtherFiles:
                    selected = request->hClientWnd == hClientWnd &&
                               !SameFileName(request->szFileName, pszFileName);
                    break;
                case kSelectClient:
                    selected = request->hClientWnd == hClientWnd;
                    break;
            }
            if (!selected) continue;
            // Loop flag first, so the body does not start another pass once its write fails.
            request->bLoop.store(0, std::memory_order_relaxed);
            if (request->pWavOut != nullptr) request->pWavOut->Stop();
        }
    } catch (...) {
        // A stop ends quietly; the lock has been left by its guard.
    }
}

void CSoundFilePlayer::SetForegroundProcess(uint32_t dwPid) {
    CScopedLock<CLock> lock(m_csPlaying);
    m_dwForegroundPid = dwPid;
    ++m_nForegroundSerial;
    for (PlayRequest* request : m_playing) {
        if (request->bFollowForeground != 1 || request->pWavOut == nullptr) continue;
        request->pWavOut->bSilent = (dwPid != request->dwClientPid) ? 1 : 0;
    }
}

int CSoundFilePlayer::PlayingCount() {
    CScopedLock<CLock> lock(m_csPlaying);
    return static_cast<int>(m_playing.size());
}

int CSoundFilePlayer::WaitForPlayThreads(uint32_t dwTimeoutMs) {
    uint64_t start = TickMs();
    while (m_nPlayThreads.load() > 0) {
        if (TickMs() - start >= dwTimeoutMs) return 0;
        SleepMs(20);
    }
    return 1;
}
