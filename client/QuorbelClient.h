#pragma once
// Talking to the Quorbel sound server from any Windows program. Header only.
//
// The server is the hidden top-level window titled "Quorbel". A request is one WM_COPYDATA
// message to it:
//   dwData  bits 0-7 the number of names, bits 16-31 the flags below;
//   lpData  the client window handle as 4 little-endian bytes (0: no client window), then the
//           names, each a multibyte string ended by its NUL, nothing between them.
// A client is known by that handle alone. While it names a window, the server keeps the
// client's plays until the window is destroyed; a handle of 0 is never swept.
//
//   CQuorbelClient client(hMyWindow);
//   client.Play("C:\\sounds\\chime.wav", REQ_LOOP);
//   client.Stop("C:\\sounds\\chime.wav");
//
// Names are passed as given. The server compares them letter case aside but otherwise
// literally, and resolves a relative name against its own working directory: stop a file by
// the very name it was played under.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

// Request flags (bits 16-31 of dwData).
enum QuorbelRequestFlags : unsigned {
    REQ_LOOP = 0x0001,               // play each file again and again until it is stopped
    REQ_STOP = 0x0002,               // stop the named files instead of playing them
    REQ_STOP_OTHERS = 0x0004,        // with REQ_STOP: stop the client's plays of every other file
    REQ_STOP_CLIENT = 0x0008,        // stop every play of the client; names are not read
    REQ_IGNORE_FOREGROUND = 0x0010,  // never silence these plays when the client is not in front
};

// The server's window is the top-level window of exactly this title.
constexpr char kQuorbelServerTitle[] = "Quorbel";
// What one request may carry: the count has 8 bits, and a name must be shorter than the
// buffer, NUL included.
constexpr int kQuorbelMaxNames = 255;
constexpr size_t kQuorbelNameBuffer = 260;

#ifdef _WIN32
#include <windows.h>

class CQuorbelClient {
public:
    static constexpr DWORD kSendTimeoutMs = 30000;  // a stop waits for queued sound to play out

    // The data block of one request, grown name by name.
    class CRequestBlock {
    public:
        explicit CRequestBlock(LONG hClientWnd) : m_pData(nullptr), m_cbData(0), m_nCount(0) {
            m_pData = static_cast<char*>(malloc(sizeof(uint32_t)));
            if (m_pData != nullptr) {
                uint32_t client = static_cast<uint32_t>(hClientWnd);
                memcpy(m_pData, &client, sizeof client);  // little-endian on every Windows target
                m_cbData = sizeof client;
            }
        }
        ~CRequestBlock() { free(m_pData); }
        CRequestBlock(const CRequestBlock&) = delete;
        CRequestBlock& operator=(const CRequestBlock&) = delete;

        // 0 when the block could not be made, the name is too long, or the count is full.
        int AddName(const char* pszName) {
            if (m_pData == nullptr || pszName == nullptr || m_nCount >= kQuorbelMaxNames) return 0;
            size_t length = strnlen(pszName, kQuorbelNameBuffer);
            if (length >= kQuorbelNameBuffer) return 0;
            // Through a temporary: a failed realloc keeps the block as it was.
            char* grown = static_cast<char*>(realloc(m_pData, m_cbData + length + 1));
            if (grown == nullptr) return 0;
            m_pData = grown;
            memcpy(m_pData + m_cbData, pszName, length + 1);
            m_cbData += static_cast<DWORD>(length + 1);
            ++m_nCount;
            return 1;
        }

        bool IsValid() const { return m_pData != nullptr; }
        const void* Data() const { return m_pData; }
        DWORD Size() const { return m_cbData; }
        int Count() const { return m_nCount; }

    private:
        char* m_pData;
        DWORD m_cbData;
        int m_nCount;
    };

    explicit CQuorbelClient(HWND hClientWnd = nullptr) : m_hClientWnd(HandleToLong(hClientWnd)) {}

    // Speaks for a window given by its 32-bit value (as another process printed it).
    void SetClientHandle(LONG hClientWnd) { m_hClientWnd = hClientWnd; }
    LONG ClientHandle() const { return m_hClientWnd; }

    static ULONG_PTR MakeDwData(int nCount, unsigned flags) {
        return static_cast<ULONG_PTR>(nCount & 0xFF) |
               (static_cast<ULONG_PTR>(flags & 0xFFFF) << 16);
    }

    // The server's window (the title must be exactly "Quorbel"), or null.
    static HWND FindServer() {
        HWND found = nullptr;
        EnumWindows(&CQuorbelClient::FindServerProc, reinterpret_cast<LPARAM>(&found));
        return found;
    }

    // Sends one request; 1 when the server handled it.
    static int SendBlock(HWND hServer, const CRequestBlock& block, unsigned flags,
                         DWORD dwTimeoutMs = kSendTimeoutMs) {
        if (hServer == nullptr || !block.IsValid()) return 0;
        COPYDATASTRUCT cds;
        cds.dwData = MakeDwData(block.Count(), flags);
        cds.cbData = block.Size();
        cds.lpData = const_cast<void*>(block.Data());
        DWORD_PTR result = 0;
        LRESULT sent = SendMessageTimeoutA(hServer, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&cds),
                                           SMTO_NORMAL, dwTimeoutMs, &result);
        return sent != 0 && result != 0 ? 1 : 0;
    }

    // Builds and sends a request with these names and flags to the running server.
    // 0 when there is no server, a name does not fit, or the server did not take it.
    int Send(unsigned flags, const char* const* ppszNames, int nCount) const {
        if (nCount < 0 || nCount > kQuorbelMaxNames) return 0;
        CRequestBlock block(m_hClientWnd);
        for (int i = 0; i < nCount; ++i) {
            if (!block.AddName(ppszNames[i])) return 0;
        }
        return SendBlock(FindServer(), block, flags);
    }

    int Play(const char* pszName, unsigned flags = 0) const {
        return Send(flags & ~(REQ_STOP | REQ_STOP_CLIENT), &pszName, 1);
    }
    int Stop(const char* pszName) const { return Send(REQ_STOP, &pszName, 1); }
    int StopOthers(const char* pszName) const {
        return Send(REQ_STOP | REQ_STOP_OTHERS, &pszName, 1);
    }
    int StopClient() const { return Send(REQ_STOP_CLIENT, nullptr, 0); }

    // The full path of a name relative to this process's working directory, for a request to
    // a server that runs elsewhere. 0 when it does not fit.
    static int FullPathName(const char* pszName, char (&szFull)[kQuorbelNameBuffer]) {
        DWORD n =
            GetFullPathNameA(pszName, static_cast<DWORD>(kQuorbelNameBuffer), szFull, nullptr);
        return n > 0 && n < kQuorbelNameBuffer ? 1 : 0;
    }

private:
    static BOOL CALLBACK FindServerProc(HWND hWnd, LPARAM lParam) {
        char title[sizeof kQuorbelServerTitle + 1] = {};
        GetWindowTextA(hWnd, title, static_cast<int>(sizeof title));
        if (strcmp(title, kQuorbelServerTitle) != 0) return TRUE;
        *reinterpret_cast<HWND*>(lParam) = hWnd;
        return FALSE;
    }

    LONG m_hClientWnd;
};
#endif  // _WIN32
