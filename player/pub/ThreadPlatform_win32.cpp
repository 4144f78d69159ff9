#include <windows.h>

#include <new>

#include "player/pub/ThreadPlatform.h"

static_assert(sizeof(CRITICAL_SECTION) <= 64 && alignof(CRITICAL_SECTION) <= 8,
              "CLock storage too small for a CRITICAL_SECTION");

static CRITICAL_SECTION* Section(unsigned char* storage) {
    return reinterpret_cast<CRITICAL_SECTION*>(storage);
}

CLock::CLock() {
    InitializeCriticalSection(new (m_storage) CRITICAL_SECTION);
}
CLock::~CLock() {
    DeleteCriticalSection(Section(m_storage));
}
void CLock::Enter() {
    EnterCriticalSection(Section(m_storage));
}
void CLock::Leave() {
    LeaveCriticalSection(Section(m_storage));
}

namespace {

struct ThreadStart {
    ThreadProc proc;
    void* arg;
};

DWORD WINAPI ThreadMain(LPVOID param) {
    ThreadStart start = *static_cast<ThreadStart*>(param);
    delete static_cast<ThreadStart*>(param);
    start.proc(start.arg);
    return 0;
}

// The thread's handle, or null when it did not start.
HANDLE Start(ThreadProc proc, void* arg) {
    ThreadStart* start = new (std::nothrow) ThreadStart{proc, arg};
    if (start == nullptr) return nullptr;
    HANDLE thread = CreateThread(nullptr, 0, &ThreadMain, start, 0, nullptr);
    if (thread == nullptr) delete start;
    return thread;
}

}  // namespace

int StartThread(ThreadProc proc, void* arg) {
    HANDLE thread = Start(proc, arg);
    if (thread == nullptr) return 0;
    CloseHandle(thread);
    return 1;
}

int RunWithDeadline(ThreadProc proc, void* arg, uint32_t limitMs, int* started) {
    HANDLE thread = Start(proc, arg);
    *started = thread != nullptr ? 1 : 0;
    if (thread == nullptr) return 0;
    DWORD waited = WaitForSingleObject(thread, limitMs);
    CloseHandle(thread);
    return waited == WAIT_OBJECT_0 ? 1 : 0;
}

uint64_t TickMs() {
    return GetTickCount64();
}
void SleepMs(uint32_t ms) {
    Sleep(ms);
}
