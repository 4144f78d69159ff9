#include "player/pub/PlayerRegistry.h"

#include <mbstring.h>

#include <new>

#include "player/mp3/MP3FilePlayer.h"
#include "player/pub/Log.h"
#include "player/pub/SoundFilePlayer.h"
#include "player/wav/WavFilePlayer.h"

namespace {

const char kUnitPath[] = "player/pub/PlayerRegistry";

CSoundFilePlayer* NewBuiltInPlayer(int nSlot) {
    switch (nSlot) {
        case CPlayerRegistry::kWavSlot:
            return new (std::nothrow) CWavFilePlayer;
        case CPlayerRegistry::kMP3Slot:
            return new (std::nothrow) CMP3FilePlayer;
        default:
            return nullptr;
    }
}

}  // namespace

CPlayerRegistry::CPlayerRegistry()
    : m_pWavPlayer(nullptr), m_pMP3Player(nullptr), m_bShutDown(false) {}

CPlayerRegistry::~CPlayerRegistry() {
    // Never delete a player under its running play threads.
    if (!m_bShutDown) Shutdown(kCloseDeadlineMs);
    for (int slot = 0; slot < kSlotCount; ++slot) {
        delete Slot(slot);
        Slot(slot) = nullptr;
    }
}

CSoundFilePlayer*& CPlayerRegistry::Slot(int nSlot) {
    return nSlot == kWavSlot ? m_pWavPlayer : m_pMP3Player;
}

CSoundFilePlayer* CPlayerRegistry::PlayerAt(int nSlot) const {
    if (nSlot == kWavSlot) return m_pWavPlayer;
    if (nSlot == kMP3Slot) return m_pMP3Player;
    return nullptr;
}

BOOL CPlayerRegistry::HasExtension(const char* pszFileName, const char* pszExt) {
    if (pszFileName == nullptr || pszExt == nullptr) return FALSE;
    // The multibyte search never takes the second byte of a double-byte character for a dot.
    const unsigned char* dot = _mbsrchr(reinterpret_cast<const unsigned char*>(pszFileName), '.');
    if (dot == nullptr) return FALSE;
    return _mbsicmp(dot + 1, reinterpret_cast<const unsigned char*>(pszExt)) == 0;
}

CSoundFilePlayer* CPlayerRegistry::MakePlayer(int nSlot) {
    CSoundFilePlayer*& slot = Slot(nSlot);
    if (slot == nullptr && !m_bShutDown) {
        slot = NewBuiltInPlayer(nSlot);
    }
    return slot;
}

CSoundFilePlayer* CPlayerRegistry::GetPlayer(const char* pszFileName) {
    // "mp3" is tried first.
    if (HasExtension(pszFileName, "mp3")) return MakePlayer(kMP3Slot);
    if (HasExtension(pszFileName, "wav")) return MakePlayer(kWavSlot);
    return nullptr;
}

int CPlayerRegistry::Play(LONG hClientWnd, const char* pszFileName, uint32_t bLoop,
                          DWORD dwForegroundPid) {
    CSoundFilePlayer* player = GetPlayer(pszFileName);
    if (player == nullptr) return 0;
    return player->Play(hClientWnd, pszFileName, bLoop, dwForegroundPid);
}

void CPlayerRegistry::StopFile(LONG hClientWnd, const char* pszFileName) {
    CSoundFilePlayer* player = GetPlayer(pszFileName);
    if (player != nullptr) player->StopFile(hClientWnd, pszFileName);
}

void CPlayerRegistry::StopOtherFiles(LONG hClientWnd, const char* pszFileName) {
    for (int slot = 0; slot < kSlotCount; ++slot) {
        if (Slot(slot) != nullptr) Slot(slot)->StopOtherFiles(hClientWnd, pszFileName);
    }
}

void CPlayerRegistry::StopClient(LONG hClientWnd) {
    for (int slot = 0; slot < kSlotCount; ++slot) {
        if (Slot(slot) != nullptr) Slot(slot)->StopClient(hClientWnd);
    }
}

void CPlayerRegistry::SetForegroundProcess(DWORD dwPid) {
    for (int slot = 0; slot < kSlotCount; ++slot) {
        if (Slot(slot) != nullptr) Slot(slot)->SetForegroundProcess(dwPid);
    }
}

int CPlayerRegistry::Shutdown(DWORD dwTimeoutMs) {
    m_bShutDown = true;
    // Every player refuses new plays before any is waited for, so no slot gains a thread
    // while another is being stopped.
    for (int slot = 0; slot < kSlotCount; ++slot) {
        if (Slot(slot) != nullptr) Slot(slot)->StopAllForClose();
    }
    int allEnded = 1;
    DWORD start = GetTickCount();
    for (int slot = 0; slot < kSlotCount; ++slot) {
        CSoundFilePlayer* player = Slot(slot);
        if (player == nullptr) continue;
        DWORD elapsed = GetTickCount() - start;
        DWORD left = elapsed < dwTimeoutMs ? dwTimeoutMs - elapsed : 0;
        if (player->WaitForPlayThreads(left)) continue;
        g_logFile.Log("[%s:%d]play threads still running(%d)", kUnitPath, __LINE__,
                      static_cast<int>(player->LivePlayThreads()));
        Slot(slot) = nullptr;  // left alive for the threads that still use it
        allEnded = 0;
    }
    return allEnded;
}
