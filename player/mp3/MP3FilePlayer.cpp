#include "player/mp3/MP3FilePlayer.h"

#include <cstdint>

#include "player/mp3/MP3Stream.h"
#include "player/mp3/decoder/DecoderTables.h"
#include "player/pub/Log.h"
#include "player/pub/WavOut.h"

namespace {

const char kUnitPath[] = "player/mp3/MP3FilePlayer";

// Queues one batch; 0 when the output refused it (stopped or dead), which ends the pass.
int QueueBatch(void* context, const uint8_t* pcm, uint32_t bytes) {
    // A batch is at most ten frames of 4608 bytes, far below Write's signed 32-bit limit.
    return static_cast<CWavOut*>(context)->Write(pcm, static_cast<int32_t>(bytes));
}

// The MP3 steps of a play. The first frame fixes the format for the whole play; later frames
// of another mode or rate are decoded into it. The decoder is not restarted between passes:
// its reservoir and filter-bank state run on, so a loop continues without a gap. A pass ends at
// the end of the stream, at a frame the decoder refuses, or at a refused write, which is how a
// stop reaches the play.
struct MP3Format {
    CMP3Stream& stream;

    WavOutParams Params() const {
        const MP3StreamInfo& info = stream.StreamInfo();
        // The output's defaults: 8 buffers of 4096 bytes.
        return WavOutParams{info.outChannels, info.outSampleRate, info.outBits, 0, 0};
    }
    void OutputFailed(PlayRequest* pRequest) const {
        g_logFile.Log("[%s:%d]file(%s),wav init failed", kUnitPath, __LINE__, pRequest->szFileName);
    }
    int Pass(CWavOut& out, uint64_t* queued) const {
        int outputAlive = stream.Pass(&QueueBatch, &out);
        *queued = stream.BatchesWritten();
        return outputAlive;
    }
};

}  // namespace

CMP3FilePlayer::CMP3FilePlayer() {
    // Made by the registry on the main thread at the first MP3 request, before any MP3 play
    // thread exists; the tables are only read from then on.
    InitDecoderTables();
}

int CMP3FilePlayer::PlayFile(PlayRequest* pRequest) {
    CMP3Stream stream;
    if (!stream.Open(pRequest->szFileName)) {
        switch (stream.LastOpenFailure()) {
            case CMP3Stream::OPEN_START_FAILED:
                g_logFile.Log("[%s:%d]file(%s),decoder start failed", kUnitPath, __LINE__,
                              pRequest->szFileName);
                break;
            case CMP3Stream::OPEN_OUT_OF_MEMORY:
                g_logFile.Log("[%s:%d]file(%s),out of memory", kUnitPath, __LINE__,
                              pRequest->szFileName);
                break;
            default:
                g_logFile.Log("[%s:%d]file(%s),open failed", kUnitPath, __LINE__,
                              pRequest->szFileName);
                break;
        }
        return 0;
    }

    MP3Format format{stream};
    return PlayOpened(pRequest, format);
}
