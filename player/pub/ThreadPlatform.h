#pragma once
// What the log, the play list and the wave output need from the operating system to run side by
// side: a lock, threads nobody joins, a millisecond clock and sleep. One implementation file per
// system (ThreadPlatform_win32.cpp, ThreadPlatform_posix.cpp).

#include <cstdint>

// A lock that the thread holding it may enter again (a critical section on Windows): the log
// holds it for a whole entry while each write takes it once more.
class CLock {
public:
    CLock();
    ~CLock();

    CLock(const CLock&) = delete;
    CLock& operator=(const CLock&) = delete;

    void Enter();
    void Leave();

private:
    // Room for a CRITICAL_SECTION or a pthread_mutex_t (40 bytes each on x86-64); each
    // implementation checks that its lock fits.
    alignas(8) unsigned char m_storage[64];
};

// Holds a lock (anything with Enter and Leave) for one scope; Release leaves it early.
template <class Lockable>
class CScopedLock {
public:
    explicit CScopedLock(Lockable& lock) : m_pLock(&lock) { m_pLock->Enter(); }
    ~CScopedLock() { Release(); }
    void Release() {
        if (m_pLock != nullptr) m_pLock->Leave();
        m_pLock = nullptr;
    }

    CScopedLock(const CScopedLock&) = delete;
    CScopedLock& operator=(const CScopedLock&) = delete;

private:
    Lockable* m_pLock;
};

typedef void (*ThreadProc)(void* arg);

// Runs proc(arg) on a new thread that nobody waits for. 1 started; 0 not (proc never runs).
int StartThread(ThreadProc proc, void* arg);

// Runs proc(arg) on a new thread and waits at most limitMs for it to return. 1 it returned in
// time; 0 it did not (it goes on alone) or could not start (then proc never runs and *started is
// 0).
int RunWithDeadline(ThreadProc proc, void* arg, uint32_t limitMs, int* started);

// Milliseconds from a fixed point in the past; never wraps in practice.
uint64_t TickMs();
void SleepMs(uint32_t ms);
