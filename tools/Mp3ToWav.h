#pragma once
// The MP3 player's walk over a file, without the sound device: the scanner opens the file, a
// decoder starts on its first frame, and each pass decodes the frames ten at a time into one
// 64 KiB block that is zeroed at the start of the pass. Each batch (the block from its start
// to the end of the last frame decoded into it) goes to a sink instead of the device, so what
// the sink receives is byte for byte what the player would queue.

#include <cstdint>
#include <memory>

#include "player/mp3/MP3File.h"
#include "player/mp3/MP3FrameHeader.h"

class CMP3Decoder;

class CMp3ToWav {
public:
    // Receives one batch; a result of 0 ends the pass, as a failed write ends a play's pass.
    typedef int (*BatchSink)(void* context, const uint8_t* pcm, uint32_t bytes);
    // Told about every frame the decoder accepted, after DecodeFrame returned.
    typedef void (*FrameObserver)(void* context, const MP3FrameIO& io, const CMP3Decoder& decoder);

    // What made the last Open fail.
    enum OpenFailure {
        OPEN_OK = 0,
        OPEN_FILE_FAILED,     // the file could not be mapped or holds no trusted frame
        OPEN_START_FAILED,    // the decoder refused the first frame
        OPEN_OUT_OF_MEMORY
    };

    static const uint32_t kBlockBytes = 65536;
    static const int kFramesPerBatch = 10;

    CMp3ToWav();
    ~CMp3ToWav();

    CMp3ToWav(const CMp3ToWav&) = delete;
    CMp3ToWav& operator=(const CMp3ToWav&) = delete;

    // Scans the file and starts the decoder on its first frame. 1 on success; on failure the
    // reason is in the log and the object is closed.
    int Open(const char* fileName);
    // One pass from the first frame to the end of the stream or the first refused frame. The
    // decoder is not restarted between passes, as in a looping play. 1 when the pass ran to
    // its end, 0 when the sink refused a batch or nothing is open.
    int Pass(BatchSink sink, void* sinkContext, FrameObserver observer = nullptr,
             void* observerContext = nullptr);
    void Close();

    OpenFailure LastOpenFailure() const { return m_openFailure; }
    const MP3StreamInfo& StreamInfo() const { return m_info; }
    const CMP3File& File() const { return m_file; }

    // About the last pass.
    uint32_t FramesDecoded() const { return m_framesDecoded; }
    uint32_t BatchesWritten() const { return m_batchesWritten; }
    // The frame the decoder refused and its error code; null and 0 when the stream simply
    // ended.
    const uint8_t* RefusedFrame() const { return m_refusedFrame; }
    uint32_t RefusedError() const { return m_refusedError; }

private:
    CMP3File m_file;
    std::unique_ptr<CMP3Decoder> m_decoder;
    std::unique_ptr<uint8_t[]> m_block;
    MP3StreamInfo m_info;
    MP3FrameIO m_io;
    bool m_started;
    OpenFailure m_openFailure;
    uint32_t m_framesDecoded;
    uint32_t m_batchesWritten;
    const uint8_t* m_refusedFrame;
    uint32_t m_refusedError;
};
