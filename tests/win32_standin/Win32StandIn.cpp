#include "tests/win32_standin/Win32StandIn.h"

#include <mbstring.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <new>
#include <thread>
#include <unordered_map>

namespace {

// What a HANDLE points to. Only threads and mutexes are made here.
struct HandleObject {
    enum Kind : uint32_t { kThread = 0x54485244, kMutex = 0x4D555458, kClosed = 0xDEADDEAD };
    explicit HandleObject(Kind k) : kind(k) {}
    Kind kind;
};

// An unnamed Windows mutex: the owning thread may take it again, and only it may release it.
struct MutexObject : HandleObject {
    MutexObject() : HandleObject(kMutex), depth(0) {}
    std::recursive_mutex lock;
    std::atomic<std::thread::id> owner;
    int depth;  // only the owner touches it
};

std::atomic<long> g_openHandles{0};
std::atomic<int> g_failThreadStarts{0};

std::mutex g_windowsLock;
std::unordered_map<uintptr_t, DWORD>& Windows() {
    static std::unordered_map<uintptr_t, DWORD> windows;
    return windows;
}
std::atomic<HWND> g_foreground{nullptr};

std::mutex g_callsLock;
std::vector<win32_standin::WindowCall>& Calls() {
    static std::vector<win32_standin::WindowCall> calls;
    return calls;
}
void Record(win32_standin::WindowCall::Kind kind, HWND window, UINT_PTR id, UINT value) {
    std::lock_guard<std::mutex> hold(g_callsLock);
    Calls().push_back({kind, window, id, value});
}

}  // namespace

namespace win32_standin {

void SetWindowProcess(HWND window, DWORD pid) {
    std::lock_guard<std::mutex> hold(g_windowsLock);
    Windows()[reinterpret_cast<uintptr_t>(window)] = pid;
}

void RemoveWindow(HWND window) {
    std::lock_guard<std::mutex> hold(g_windowsLock);
    Windows().erase(reinterpret_cast<uintptr_t>(window));
}

void ClearWindows() {
    std::lock_guard<std::mutex> hold(g_windowsLock);
    Windows().clear();
}

void SetForeground(HWND window) { g_foreground.store(window); }

void FailThreadStarts(int count) { g_failThreadStarts.store(count); }

long OpenHandles() { return g_openHandles.load(); }

std::vector<WindowCall> TakeWindowCalls() {
    std::lock_guard<std::mutex> hold(g_callsLock);
    std::vector<WindowCall> taken;
    taken.swap(Calls());
    return taken;
}

}  // namespace win32_standin

void InitializeCriticalSection(LPCRITICAL_SECTION cs) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&cs->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

void DeleteCriticalSection(LPCRITICAL_SECTION cs) { pthread_mutex_destroy(&cs->mutex); }
void EnterCriticalSection(LPCRITICAL_SECTION cs) { pthread_mutex_lock(&cs->mutex); }
void LeaveCriticalSection(LPCRITICAL_SECTION cs) { pthread_mutex_unlock(&cs->mutex); }

HANDLE CreateThread(LPSECURITY_ATTRIBUTES, SIZE_T, LPTHREAD_START_ROUTINE start, LPVOID parameter,
                    DWORD creationFlags, LPDWORD threadId) {
    // Suspended starts are not modelled; nothing here asks for them.
    if (start == nullptr || creationFlags != 0) return nullptr;
    int failures = g_failThreadStarts.load();
    while (failures > 0 && !g_failThreadStarts.compare_exchange_weak(failures, failures - 1)) {
    }
    if (failures > 0) return nullptr;

    HandleObject* handle = new (std::nothrow) HandleObject(HandleObject::kThread);
    if (handle == nullptr) return nullptr;
    try {
        std::thread thread([start, parameter] { start(parameter); });
        if (threadId != nullptr) *threadId = static_cast<DWORD>(std::hash<std::thread::id>()(thread.get_id()));
        thread.detach();
    } catch (...) {
        delete handle;
        return nullptr;
    }
    g_openHandles.fetch_add(1);
    return handle;
}

BOOL CloseHandle(HANDLE h) {
    HandleObject* handle = static_cast<HandleObject*>(h);
    if (handle == nullptr) return FALSE;
    switch (handle->kind) {
        case HandleObject::kThread:
            handle->kind = HandleObject::kClosed;
            delete handle;
            break;
        case HandleObject::kMutex:
            handle->kind = HandleObject::kClosed;
            delete static_cast<MutexObject*>(handle);
            break;
        default:
            return FALSE;
    }
    g_openHandles.fetch_sub(1);
    return TRUE;
}

HANDLE CreateMutexA(LPSECURITY_ATTRIBUTES, BOOL initialOwner, LPCSTR name) {
    // Named and initially owned mutexes are not modelled.
    if (initialOwner || name != nullptr) return nullptr;
    MutexObject* mutex = new (std::nothrow) MutexObject();
    if (mutex == nullptr) return nullptr;
    g_openHandles.fetch_add(1);
    return static_cast<HandleObject*>(mutex);
}

DWORD WaitForSingleObject(HANDLE h, DWORD milliseconds) {
    HandleObject* handle = static_cast<HandleObject*>(h);
    // Only an unbounded wait on a mutex is modelled.
    if (handle == nullptr || handle->kind != HandleObject::kMutex || milliseconds != INFINITE) {
        return WAIT_FAILED;
    }
    MutexObject* mutex = static_cast<MutexObject*>(handle);
    mutex->lock.lock();
    mutex->owner.store(std::this_thread::get_id());
    ++mutex->depth;
    return WAIT_OBJECT_0;
}

BOOL ReleaseMutex(HANDLE h) {
    HandleObject* handle = static_cast<HandleObject*>(h);
    if (handle == nullptr || handle->kind != HandleObject::kMutex) return FALSE;
    MutexObject* mutex = static_cast<MutexObject*>(handle);
    if (mutex->owner.load() != std::this_thread::get_id()) return FALSE;
    if (--mutex->depth == 0) mutex->owner.store(std::thread::id());
    mutex->lock.unlock();
    return TRUE;
}

void Sleep(DWORD milliseconds) {
    if (milliseconds == 0) {
        std::this_thread::yield();
    } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    }
}

DWORD GetTickCount() {
    // Milliseconds of the steady clock, wrapping at 32 bits like the real count.
    auto since = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<DWORD>(std::chrono::duration_cast<std::chrono::milliseconds>(since).count());
}

HANDLE GetCurrentProcess() { return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1)); }

// The stand-in registry's close always ends in time, so the frame never ends the process; if it
// ever did, the test must not go on as if nothing happened.
BOOL TerminateProcess(HANDLE, UINT exitCode) { std::_Exit(static_cast<int>(exitCode) + 100); }

DWORD GetWindowThreadProcessId(HWND window, LPDWORD processId) {
    std::lock_guard<std::mutex> hold(g_windowsLock);
    auto found = Windows().find(reinterpret_cast<uintptr_t>(window));
    if (found == Windows().end()) return 0;  // the output is left as it is
    if (processId != nullptr) *processId = found->second;
    return 1;  // a thread id; nothing here reads it
}

BOOL IsWindow(HWND window) {
    std::lock_guard<std::mutex> hold(g_windowsLock);
    return Windows().count(reinterpret_cast<uintptr_t>(window)) != 0 ? TRUE : FALSE;
}

HWND GetForegroundWindow() { return g_foreground.load(); }

UINT_PTR SetTimer(HWND window, UINT_PTR id, UINT elapseMs, TIMERPROC) {
    Record(win32_standin::WindowCall::kSetTimer, window, id, elapseMs);
    return id;
}

BOOL KillTimer(HWND window, UINT_PTR id) {
    Record(win32_standin::WindowCall::kKillTimer, window, id, 0);
    return TRUE;
}

LRESULT SendMessageA(HWND window, UINT message, WPARAM, LPARAM) {
    Record(win32_standin::WindowCall::kSendMessage, window, message, 0);
    return 0;
}

int _mbsicmp(const unsigned char* a, const unsigned char* b) {
    for (;; ++a, ++b) {
        unsigned ca = *a >= 'A' && *a <= 'Z' ? *a + ('a' - 'A') : *a;
        unsigned cb = *b >= 'A' && *b <= 'Z' ? *b + ('a' - 'A') : *b;
        if (ca != cb) return ca < cb ? -1 : 1;
        if (ca == 0) return 0;
    }
}
