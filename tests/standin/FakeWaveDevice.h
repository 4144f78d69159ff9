#pragma once
// A wave device for the native builds (WavOutPlatform.h): each open device has a thread that
// "plays" its queued buffers in order, playMicros each, and reports them done; a reset reports
// at once whatever is queued. What a test scripts it to do is reset with each Reset call.

#include <cstdint>
#include <string>
#include <vector>

namespace fake_wave {

struct Script {
    uint32_t playMicros = 0;   // how long one buffer plays
    int failAllocAt = 0;       // the n-th WaveAlloc from now (1-based) finds no memory; 0 none
    int failPrepareAt = 0;     // the n-th WavePrepare fails with kError
    int failWriteAt = 0;       // the n-th WaveWrite fails with kError
    bool refuseOpen = false;   // WaveOpen fails with kError
    bool hold = false;         // nothing played is reported done, not even after a reset
    bool holdClose = false;    // WaveClose does not return until Release()
    bool throwInDone = false;  // the done notification's buffer lookup throws
};
constexpr uint32_t kError = 11;

void Reset(const Script& script = Script());
// Lets held devices report their buffers, and a held close return.
void Release();
// Every buffer written since Reset, in order, as its bytes.
std::vector<std::string> Written();
// Devices open now.
int OpenDevices();
// Buffers written and not reported done yet, on every device.
int Pending();

}  // namespace fake_wave
