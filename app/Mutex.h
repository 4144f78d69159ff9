#pragma once
// An unnamed mutex of this process, made on demand and closed with the object. Held through
// CScopedLock (player/pub/ThreadPlatform.h) like every other lock. Windows only.

#include <windows.h>

class CMutex {
public:
    CMutex() : m_hMutex(nullptr) {}
    ~CMutex();

    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    // 1 made; 0 not (then Enter and Leave do nothing).
    int Create();
    // The thread that holds it may enter it again.
    void Enter();
    void Leave();

private:
    HANDLE m_hMutex;
};
