#pragma once
// Shared pieces of the server's in-process tests: players whose plays are observed instead of
// heard, a reader of the log's new lines, and waiting with a bound.

#include <windows.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "player/pub/Log.h"
#include "player/pub/PlayerRegistry.h"
#include "player/pub/SoundFilePlayer.h"
#include "player/pub/WavOut.h"

namespace server_test {

// Polls until pred holds or the bound passes; the result of the last look.
inline bool WaitFor(const std::function<bool()>& pred, int timeoutMs = 5000) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (pred()) return true;
        if (std::chrono::steady_clock::now() >= end) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

// What a fake play saw of its request, and what happened to it.
struct ObservedPlay {
    CSoundFilePlayer* player;
    int slot;
    LONG client;
    DWORD clientPid;
    std::string name;
    uint32_t loop;
    uint32_t followForeground;
    uint32_t startSilent;
    bool joined;
    bool stopped;           // its loop flag was cleared while it was listed
    int32_t silentAtJoin;   // its output's silent flag just after it joined
    CWavOut* out;           // its output; valid only while it is listed
};

// The plays of every fake player, in the order their threads recorded them.
class PlayJournal {
public:
    static PlayJournal& Get() {
        static PlayJournal journal;
        return journal;
    }

    void Reset() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_plays.clear();
    }
    size_t Add(const ObservedPlay& play) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_plays.push_back(play);
        return m_plays.size() - 1;
    }
    template <class F>
    void Update(size_t index, F f) {
        std::lock_guard<std::mutex> lock(m_mutex);
        f(m_plays[index]);
    }
    std::vector<ObservedPlay> Plays() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_plays;
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_plays.size();
    }

private:
    std::mutex m_mutex;
    std::vector<ObservedPlay> m_plays;
};

// A player that records each play and, when it loops, keeps it listed until a stop clears its
// loop flag. Its output is a closed CWavOut: Stop returns at once, and bSilent can be read.
// Names starting with "hold:" wait for Release() before they join; names starting with
// "throw:" throw after joining, without a guard of their own.
class FakePlayer : public CSoundFilePlayer {
public:
    explicit FakePlayer(int slot) : m_slot(slot), m_hRelease(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {
        ++s_made;
    }
    ~FakePlayer() override {
        CloseHandle(m_hRelease);
        ++s_destroyed;
    }

    void Release() { SetEvent(m_hRelease); }

    int PlayFile(PlayRequest* r) override {
        ObservedPlay seen = {this, m_slot, r->hClientWnd, r->dwClientPid, r->szFileName,
                             r->bLoop.load(), r->bFollowForeground, r->bStartSilent,
                             false, false, -1, nullptr};
        size_t index = PlayJournal::Get().Add(seen);
        std::string name = r->szFileName;
        if (name.compare(0, 5, "hold:") == 0) WaitForSingleObject(m_hRelease, 10000);

        CWavOut out;
        out.bSilent = static_cast<int32_t>(r->bStartSilent);
        r->pWavOut = &out;
        if (!AddPlaying(r)) return 0;
        if (name.compare(0, 6, "throw:") == 0) throw std::runtime_error("play body failed");
        CPlayingGuard listed(*this, r);
        int32_t silent = out.bSilent.load();
        CWavOut* output = &out;
        PlayJournal::Get().Update(index, [silent, output](ObservedPlay& p) {
            p.joined = true;
            p.silentAtJoin = silent;
            p.out = output;
        });
        bool wasLooping = r->bLoop.load() != 0;
        while (r->bLoop.load() != 0) Sleep(2);
        PlayJournal::Get().Update(index, [wasLooping](ObservedPlay& p) {
            p.stopped = wasLooping;
            p.out = nullptr;
        });
        return 1;
    }

    static CSoundFilePlayer* Make(int slot) { return new FakePlayer(slot); }

    static std::atomic<int> s_made;
    static std::atomic<int> s_destroyed;

private:
    int m_slot;
    HANDLE m_hRelease;
};

inline std::atomic<int> FakePlayer::s_made{0};
inline std::atomic<int> FakePlayer::s_destroyed{0};

// Waits until every play thread of the player has ended.
inline bool ThreadsEnded(CSoundFilePlayer* player, int timeoutMs = 5000) {
    return WaitFor([player] { return player->LivePlayThreads() == 0; }, timeoutMs);
}

// The part of the log written since this object was made.
class LogTail {
public:
    LogTail() : m_start(Size()) {}

    std::string Text() const {
        std::string text;
        FILE* fp = std::fopen(g_logFile.FileName(), "rb");
        if (fp == nullptr) return text;
        if (std::fseek(fp, m_start, SEEK_SET) == 0) {
            char chunk[4096];
            size_t n;
            while ((n = std::fread(chunk, 1, sizeof chunk, fp)) > 0) text.append(chunk, n);
        }
        std::fclose(fp);
        return text;
    }

    // Entries "[<unit>:<line>]<message>" whose message matches the pattern to the line's end.
    int Count(const std::string& unit, const std::string& messagePattern) const {
        std::regex line("\\[" + unit + ":[0-9]+\\]" + messagePattern + "\r?\n");
        std::string text = Text();
        return static_cast<int>(std::distance(
            std::sregex_iterator(text.begin(), text.end(), line), std::sregex_iterator()));
    }

private:
    static long Size() {
        FILE* fp = std::fopen(g_logFile.FileName(), "rb");
        if (fp == nullptr) return 0;
        std::fseek(fp, 0, SEEK_END);
        long size = std::ftell(fp);
        std::fclose(fp);
        return size;
    }

    long m_start;
};

// A name as a regular expression that matches it literally.
inline std::string Literal(const std::string& text) {
    static const std::regex special("[.^$|()\\[\\]{}*+?\\\\]");
    return std::regex_replace(text, special, "\\$&");
}

// A hidden top-level window of this process, destroyed with the object.
class TestWindow {
public:
    TestWindow() {
        WNDCLASSA wc = {};
        wc.lpfnWndProc = DefWindowProcA;
        wc.hInstance = GetModuleHandleA(nullptr);
        wc.lpszClassName = "ServerTestWindow";
        RegisterClassA(&wc);
        m_hWnd = CreateWindowExA(0, wc.lpszClassName, "server test window", WS_OVERLAPPED, 0, 0,
                                 0, 0, nullptr, nullptr, wc.hInstance, nullptr);
    }
    ~TestWindow() { Destroy(); }
    void Destroy() {
        if (m_hWnd != nullptr) DestroyWindow(m_hWnd);
        m_hWnd = nullptr;
    }
    // Shows the window and brings it to the front.
    void ToFront() {
        ShowWindow(m_hWnd, SW_SHOW);
        SetForegroundWindow(m_hWnd);
    }
    HWND Handle() const { return m_hWnd; }
    LONG Handle32() const { return HandleToLong(m_hWnd); }
    TestWindow(const TestWindow&) = delete;
    TestWindow& operator=(const TestWindow&) = delete;

private:
    HWND m_hWnd;
};

// Handles the messages of this thread for a while (timers of a frame made here).
inline void PumpMessages(int ms) {
    DWORD start = GetTickCount();
    while (GetTickCount() - start < static_cast<DWORD>(ms)) {
        MSG msg;
        while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
            TranslateMessage(&msg);
            DispatchMessageA(&msg);
        }
        Sleep(5);
    }
}

}  // namespace server_test
