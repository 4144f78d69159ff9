#include "Standins.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "player/pub/WavOutPlatform.h"

namespace {

std::mutex g_mutex;  // guards everything below and every device's queue
std::condition_variable g_changed;
fake_wave::Script g_script;
int g_allocs, g_prepares, g_writes, g_open;
bool g_released;
std::vector<std::string> g_written;

struct Device {
    uintptr_t instance;
    std::deque<WaveBuffer*> queue;
    bool closing = false;
    std::thread player;
};

Device* Of(WaveDevice device) {
    return reinterpret_cast<Device*>(device);
}
bool Stalled() {
    return g_script.stall && !g_released;
}

// Reports outside the lock, as a system's callback thread would.
void Report(Device* device, WaveBuffer* done) {
    WaveDeviceDone(device->instance, reinterpret_cast<uintptr_t>(done));
}

void Play(Device* device) {
    std::unique_lock<std::mutex> lock(g_mutex);
    for (;;) {
        g_changed.wait(lock,
                       [&] { return device->closing || (!device->queue.empty() && !Stalled()); });
        if (device->closing) return;
        const std::chrono::microseconds playing(g_script.playMicros);
        lock.unlock();
        std::this_thread::sleep_for(playing);
        lock.lock();
        if (device->queue.empty()) continue;  // reset meanwhile
        WaveBuffer* done = device->queue.front();
        device->queue.pop_front();
        lock.unlock();
        Report(device, done);
        lock.lock();
    }
}

}  // namespace

void fake_wave::Reset(const Script& script) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_script = script;
    g_allocs = g_prepares = g_writes = 0;
    g_released = false;
    g_written.clear();
}

void fake_wave::Release() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_released = true;
    g_changed.notify_all();
}

std::vector<std::string> fake_wave::Written() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_written;
}

int fake_wave::OpenDevices() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_open;
}

uint32_t WaveOpen(WaveDevice* device, const WaveFormat&, uintptr_t instance) {
    std::lock_guard<std::mutex> lock(g_mutex);
    *device = 0;
    if (g_script.refuseOpen) return fake_wave::kError;
    Device* made = new Device{instance};
    made->player = std::thread(&Play, made);
    ++g_open;
    *device = reinterpret_cast<WaveDevice>(made);
    return 0;
}

uint32_t WavePrepare(WaveDevice, WaveBuffer*) {
    std::lock_guard<std::mutex> lock(g_mutex);
    return ++g_prepares == g_script.failPrepareAt ? fake_wave::kError : 0;
}

uint32_t WaveUnprepare(WaveDevice, WaveBuffer*) {
    return 0;
}

uint32_t WaveWrite(WaveDevice device, WaveBuffer* buffer) {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (++g_writes == g_script.failWriteAt) return fake_wave::kError;
    g_written.emplace_back(buffer->pData, buffer->nLength);
    Of(device)->queue.push_back(buffer);
    g_changed.notify_all();
    return 0;
}

uint32_t WaveReset(WaveDevice device) {
    std::deque<WaveBuffer*> done;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        if (!Stalled()) done.swap(Of(device)->queue);
    }
    for (WaveBuffer* buffer : done) Report(Of(device), buffer);
    return 0;
}

uint32_t WaveClose(WaveDevice device) {
    {
        std::unique_lock<std::mutex> lock(g_mutex);
        g_changed.wait(lock, [] { return !Stalled(); });
        Of(device)->closing = true;
        --g_open;
        g_changed.notify_all();
    }
    Of(device)->player.join();
    delete Of(device);
    return 0;
}

void* WaveAlloc(size_t size) {
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        if (++g_allocs == g_script.failAllocAt) return nullptr;
    }
    return std::calloc(1, size);
}

void WaveFree(void* block) {
    std::free(block);
}

WaveBuffer* WaveDoneBuffer(uintptr_t systemBuffer) {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_script.throwInDone) throw std::runtime_error("fault in the device callback");
    return reinterpret_cast<WaveBuffer*>(systemBuffer);
}
