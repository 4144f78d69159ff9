#include <windows.h>
#include <mmsystem.h>

#include <cstdlib>
#include <cstring>

#include "player/pub/WavOutPlatform.h"

static_assert(sizeof(WAVEHDR) <= sizeof(WaveBuffer::system) && alignof(WAVEHDR) <= 8,
              "WaveBuffer too small for a WAVEHDR");

namespace {

HWAVEOUT Handle(WaveDevice device) {
    return reinterpret_cast<HWAVEOUT>(device);
}
WAVEHDR* Header(WaveBuffer* buffer) {
    return reinterpret_cast<WAVEHDR*>(buffer->system);
}

// Only the done message is passed on: WOM_OPEN comes before the handle is known, WOM_CLOSE from
// inside waveOutClose.
void CALLBACK WaveOutProc(HWAVEOUT, UINT msg, DWORD_PTR instance, DWORD_PTR param1, DWORD_PTR) {
    if (msg == WOM_DONE) WaveDeviceDone(instance, param1);
}

}  // namespace

uint32_t WaveOpen(WaveDevice* device, const WaveFormat& format, uintptr_t instance) {
    WAVEFORMATEX wfx;
    std::memset(&wfx, 0, sizeof(wfx));
    wfx.wFormatTag = WAVE_FORMAT_PCM;
    wfx.nChannels = static_cast<WORD>(format.nChannels);
    wfx.nSamplesPerSec = static_cast<DWORD>(format.nSamplesPerSec);
    wfx.nBlockAlign = static_cast<WORD>((format.nBitsPerSample / 8) * format.nChannels);
    wfx.nAvgBytesPerSec = static_cast<DWORD>(wfx.nBlockAlign) * wfx.nSamplesPerSec;
    wfx.wBitsPerSample = static_cast<WORD>(format.nBitsPerSample);
    HWAVEOUT handle = nullptr;
    MMRESULT result =
        waveOutOpen(&handle, WAVE_MAPPER, &wfx, reinterpret_cast<DWORD_PTR>(&WaveOutProc), instance,
                    CALLBACK_FUNCTION);
    *device = result == MMSYSERR_NOERROR ? reinterpret_cast<WaveDevice>(handle) : 0;
    return result;
}

uint32_t WavePrepare(WaveDevice device, WaveBuffer* buffer) {
    WAVEHDR* header = Header(buffer);
    header->lpData = buffer->pData;
    header->dwBufferLength = buffer->nLength;
    header->dwUser = reinterpret_cast<DWORD_PTR>(buffer);
    return waveOutPrepareHeader(Handle(device), header, sizeof(WAVEHDR));
}

uint32_t WaveUnprepare(WaveDevice device, WaveBuffer* buffer) {
    WAVEHDR* header = Header(buffer);
    if ((header->dwFlags & WHDR_PREPARED) == 0) return MMSYSERR_NOERROR;
    return waveOutUnprepareHeader(Handle(device), header, sizeof(WAVEHDR));
}

uint32_t WaveWrite(WaveDevice device, WaveBuffer* buffer) {
    Header(buffer)->dwBufferLength = buffer->nLength;
    return waveOutWrite(Handle(device), Header(buffer), sizeof(WAVEHDR));
}

uint32_t WaveReset(WaveDevice device) {
    return waveOutReset(Handle(device));
}
uint32_t WaveClose(WaveDevice device) {
    return waveOutClose(Handle(device));
}

void* WaveAlloc(size_t size) {
    return std::calloc(1, size);
}
void WaveFree(void* block) {
    std::free(block);
}

WaveBuffer* WaveDoneBuffer(uintptr_t systemBuffer) {
    return reinterpret_cast<WaveBuffer*>(reinterpret_cast<WAVEHDR*>(systemBuffer)->dwUser);
}
