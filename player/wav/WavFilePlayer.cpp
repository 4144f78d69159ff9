#include "player/wav/WavFilePlayer.h"

#include <cstdint>

#include "player/pub/Log.h"
#include "player/pub/WavOut.h"
#include "player/wav/WavFile.h"

namespace {

const char kUnitPath[] = "player/wav/WavFilePlayer";

// Write takes a signed 32-bit length; a chunk may claim up to 4 GiB.
const uint32_t kMaxWriteBytes = 0x40000000;

// Writes one chunk body; 0 when the output refused (stopped or dead).
int WriteBody(CWavOut& out, const uint8_t* body, uint32_t size) {
    while (size > 0) {
        uint32_t n = size < kMaxWriteBytes ? size : kMaxWriteBytes;
        if (!out.Write(body, static_cast<int32_t>(n))) return 0;
        body += n;
        size -= n;
    }
    return 1;
}

}  // namespace

int CWavFilePlayer::PlayFile(PlayRequest* pRequest) {
    CWavFile file;
    if (!file.Open(pRequest->szFileName)) {
        g_logFile.Log("[%s:%d]file(%s),open failed", kUnitPath, __LINE__, pRequest->szFileName);
        return 0;
    }

    CWavOut out;
    WavOutParams params = {};
    params.nChannels = file.NumChannels();
    params.nSamplesPerSec = static_cast<int32_t>(file.SampleRate());
    params.nBitsPerSample = file.BitsPerSample();
    params.nBufferCount = 0;  // the output's defaults: 8 buffers of 4096 bytes
    params.nBufferSize = 0;
    if (!out.Open(params)) {
        g_logFile.Log("[%s:%d]file(%s),waveout init failed", kUnitPath, __LINE__,
                      pRequest->szFileName);
        return 0;
    }

    if (!StartListedPlay(pRequest, &out)) return 0;  // the server is closing
    // From here on a stop or a foreground change may reach the output from the main thread.
    CPlayingGuard listed(*this, pRequest);

    bool outputAlive = true;
    do {
        uint64_t passBytes = 0;
        for (const uint8_t* chunk = file.pDataChunk; chunk != nullptr;
             chunk = file.NextDataChunk(chunk)) {
            uint32_t size = CWavFile::ChunkSize(chunk);
            if (!WriteBody(out, CWavFile::ChunkBody(chunk), size)) {
                outputAlive = false;
                break;
            }
            passBytes += size;
        }
        // A pass that queued nothing would otherwise spin at full speed while looping.
        if (outputAlive && passBytes == 0 && pRequest->bLoop.load(std::memory_order_relaxed)) {
            SleepMs(out.dwSleepMs > 0 ? out.dwSleepMs : 1);
        }
        // A stop clears bLoop before it stops the output; a refused write also ends a loop,
        // since a dead device would refuse every later pass at once.
    } while (outputAlive && pRequest->bLoop.load(std::memory_order_relaxed) != 0);

    listed.Release();
    out.WaitForBuffers();
    out.Close();
    file.Close();
    return 1;
}
