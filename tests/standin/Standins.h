#pragma once
// What the native builds put in the system's place, and how a test steers it.
//
// A wave device (WavOutPlatform.h): each open device has a thread that "plays" its queued
// buffers in order, playMicros each, and reports them done; a reset reports what is queued at
// once. Each Reset sets what the devices do until the next.
//
// A file map (FileMapPlatform.h): each view is a copy of the file read into memory. A test can
// make the next view fail by an exception, as a fault while the system reads a mapped file would
// surface in a reader.

#include <cstdint>
#include <string>
#include <vector>

namespace fake_wave {

struct Script {
    uint32_t playMicros = 0;
    int failAllocAt = 0;       // the n-th WaveAlloc from now (1-based) finds no memory
    int failPrepareAt = 0;     // the n-th WavePrepare fails with kError
    int failWriteAt = 0;       // the n-th WaveWrite fails with kError
    bool refuseOpen = false;   // WaveOpen fails with kError
    bool stall = false;        // until Release, nothing is reported done and WaveClose waits
    bool throwInDone = false;  // the done notification's buffer lookup throws
};
constexpr uint32_t kError = 11;

void Reset(const Script& script = Script());
void Release();
std::vector<std::string> Written();  // every buffer written since Reset, as its bytes
int OpenDevices();

}  // namespace fake_wave

namespace fake_files {

void ThrowAtNextView();

}  // namespace fake_files
