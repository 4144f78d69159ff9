#include "player/wav/WavFilePlayer.h"

#include <cstdint>

#include "player/pub/Log.h"
#include "player/pub/WavOut.h"
#include "player/wav/WavFile.h"

namespace {

const char kUnitPath[] = "player/wav/WavFilePlayer";

// Write takes a signed 32-bit length; a chunk may claim up to 4 GiB.
const uint32_t kMaxWriteBytes = 0x40000000;

// The WAV steps of a play: the data chunks go from the mapped file to the output unchanged.
struct WavFormat {
    CWavFile& file;

    WavOutParams Params() const {
        // The output's defaults: 8 buffers of 4096 bytes.
        return WavOutParams{file.NumChannels(), static_cast<int32_t>(file.SampleRate()),
                            file.BitsPerSample(), 0, 0};
    }
    void OutputFailed(PlayRequest* pRequest) const {
        g_logFile.Log("[%s:%d]file(%s),waveout init failed", kUnitPath, __LINE__,
                      pRequest->szFileName);
    }
    int Pass(CWavOut& out, uint64_t* queued) const {
        for (const uint8_t* chunk = file.pDataChunk; chunk != nullptr;
             chunk = file.NextDataChunk(chunk)) {
            const uint8_t* body = CWavFile::ChunkBody(chunk);
            uint32_t size = CWavFile::ChunkSize(chunk);
            *queued += size;
            while (size > 0) {
                uint32_t n = size < kMaxWriteBytes ? size : kMaxWriteBytes;
                if (!out.Write(body, static_cast<int32_t>(n))) return 0;
                body += n;
                size -= n;
            }
        }
        return 1;
    }
};

}  // namespace

int CWavFilePlayer::PlayFile(PlayRequest* pRequest) {
    CWavFile file;
    if (!file.Open(pRequest->szFileName)) {
        g_logFile.Log("[%s:%d]file(%s),open failed", kUnitPath, __LINE__, pRequest->szFileName);
        return 0;
    }
    WavFormat format{file};
    return PlayOpened(pRequest, format);
}
