#include <pthread.h>
#include <time.h>

#include <new>

#include "player/pub/ThreadPlatform.h"

static_assert(sizeof(pthread_mutex_t) <= 64 && alignof(pthread_mutex_t) <= 8,
              "CLock storage too small for a pthread_mutex_t");

static pthread_mutex_t* Mutex(unsigned char* storage) {
    return reinterpret_cast<pthread_mutex_t*>(storage);
}

CLock::CLock() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(new (m_storage) pthread_mutex_t, &attr);
    pthread_mutexattr_destroy(&attr);
}
CLock::~CLock() {
    pthread_mutex_destroy(Mutex(m_storage));
}
void CLock::Enter() {
    pthread_mutex_lock(Mutex(m_storage));
}
void CLock::Leave() {
    pthread_mutex_unlock(Mutex(m_storage));
}

namespace {

// Shared by the thread and the one waiting for it; the last of the two to let go frees it, as
// the waiter may give up first.
struct ThreadStart {
    ThreadProc proc;
    void* arg;
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    bool done;
    int holders;
};

void LetGo(ThreadStart* start) {
    pthread_mutex_lock(&start->mutex);
    bool last = --start->holders == 0;
    pthread_mutex_unlock(&start->mutex);
    if (!last) return;
    pthread_cond_destroy(&start->cond);
    pthread_mutex_destroy(&start->mutex);
    delete start;
}

void* ThreadMain(void* param) {
    ThreadStart* start = static_cast<ThreadStart*>(param);
    start->proc(start->arg);
    pthread_mutex_lock(&start->mutex);
    start->done = true;
    pthread_cond_signal(&start->cond);
    pthread_mutex_unlock(&start->mutex);
    LetGo(start);
    return nullptr;
}

// The started thread's shared record (held twice), or null when it did not start.
ThreadStart* Start(ThreadProc proc, void* arg) {
    ThreadStart* start = new (std::nothrow) ThreadStart{proc, arg, {}, {}, false, 2};
    if (start == nullptr) return nullptr;
    pthread_mutex_init(&start->mutex, nullptr);
    pthread_cond_init(&start->cond, nullptr);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, &ThreadMain, start) != 0) {
        start->holders = 1;
        LetGo(start);
        return nullptr;
    }
    pthread_detach(thread);
    return start;
}

}  // namespace

int StartThread(ThreadProc proc, void* arg) {
    ThreadStart* start = Start(proc, arg);
    if (start == nullptr) return 0;
    LetGo(start);
    return 1;
}

int RunWithDeadline(ThreadProc proc, void* arg, uint32_t limitMs, int* started) {
    ThreadStart* start = Start(proc, arg);
    *started = start != nullptr ? 1 : 0;
    if (start == nullptr) return 0;
    timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += limitMs / 1000;
    until.tv_nsec += static_cast<long>(limitMs % 1000) * 1000000L;
    if (until.tv_nsec >= 1000000000L) {
        until.tv_sec += 1;
        until.tv_nsec -= 1000000000L;
    }
    pthread_mutex_lock(&start->mutex);
    while (!start->done && pthread_cond_timedwait(&start->cond, &start->mutex, &until) == 0) {}
    bool done = start->done;
    pthread_mutex_unlock(&start->mutex);
    LetGo(start);
    return done ? 1 : 0;
}

uint64_t TickMs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000u +
           static_cast<uint64_t>(now.tv_nsec) / 1000000u;
}

void SleepMs(uint32_t ms) {
    timespec span = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&span, &span) != 0) {}
}
