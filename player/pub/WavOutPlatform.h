#pragma once
// What the wave output needs from the operating system: the default PCM output device, the
// headers of the buffers it plays, and the memory they live in. One implementation file per
// system (WavOutPlatform_win32.cpp drives waveOut); a native build brings its own device.
//
// Results are the system's codes: 0 success, anything else the device's error.

#include <cstddef>
#include <cstdint>

// An open device; 0 is none.
typedef intptr_t WaveDevice;

struct WaveFormat {
    int32_t nChannels;
    int32_t nSamplesPerSec;
    int32_t nBitsPerSample;
};

// One buffer of a ring. The system's own header for it (a WAVEHDR on Windows) lives inside, so
// a buffer must not move between WavePrepare and WaveUnprepare.
struct WaveBuffer {
    char* pData;
    uint32_t nLength;  // the bytes to play, set before each WaveWrite
    uint32_t bQueued;  // the wave output's own mark: handed to the device, not reported done
    alignas(8) unsigned char system[64];
};

// Opens the default device for 16- or 8-bit PCM of format. Each finished buffer is reported to
// WaveDeviceDone with instance, on a thread of the system's.
uint32_t WaveOpen(WaveDevice* device, const WaveFormat& format, uintptr_t instance);
// Makes a zeroed buffer whose pData and nLength are set ready to be written.
uint32_t WavePrepare(WaveDevice device, WaveBuffer* buffer);
// Undoes WavePrepare; 0 also for a buffer that was never prepared.
uint32_t WaveUnprepare(WaveDevice device, WaveBuffer* buffer);
uint32_t WaveWrite(WaveDevice device, WaveBuffer* buffer);
// Abandons what is queued; every queued buffer is reported done, maybe after the return.
uint32_t WaveReset(WaveDevice device);
uint32_t WaveClose(WaveDevice device);

// Zeroed memory for buffers and their data; null when there is none.
void* WaveAlloc(size_t size);
void WaveFree(void* block);

// The buffer that a done notification names.
WaveBuffer* WaveDoneBuffer(uintptr_t systemBuffer);

// Defined by the wave output: called on the system's thread when the device of instance has
// finished with a buffer, which it names in its own terms. It may only take locks: no other
// wave call, no file output, no allocation.
void WaveDeviceDone(uintptr_t instance, uintptr_t systemBuffer);
