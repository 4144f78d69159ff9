#pragma once
// The walk of an MP3 play over its file: the scanner opens the file, a decoder starts on its
// first frame, and each pass decodes the frames ten at a time into one 64 KiB block that is
// zeroed at the start of the pass. Each batch (the block from its start to the end of the last
// frame decoded into it) goes to a sink: the MP3 player's sink is the wave output, quorbel-decode's
// a file, so the tool writes byte for byte what the player queues. Portable; it logs nothing
// of its own (the caller says which step failed, under its own name). InitDecoderTables must
// have run before the first Open.

#include <cstdint>
#include <cstring>
#include <memory>

#include "player/mp3/MP3File.h"
#include "player/mp3/MP3FrameHeader.h"
#include "player/mp3/decoder/MP3Decoder.h"

class CMP3Stream {
public:
    // Receives one batch; a result of 0 ends the pass, as a failed write ends a play's pass.
    typedef int (*BatchSink)(void* context, const uint8_t* pcm, uint32_t bytes);

    // What made the last Open fail.
    enum OpenFailure {
        OPEN_OK = 0,
        OPEN_FILE_FAILED,   // the file could not be mapped or holds no trusted frame
        OPEN_START_FAILED,  // the decoder refused the first frame
        OPEN_OUT_OF_MEMORY
    };

    static const uint32_t kBlockBytes = 65536;
    static const int kFramesPerBatch = 10;

    CMP3Stream();
    ~CMP3Stream();

    CMP3Stream(const CMP3Stream&) = delete;
    CMP3Stream& operator=(const CMP3Stream&) = delete;

    // Starts the decoder on the first frame as the MP3 player does, which gives StartDecoder no
    // limit on the bytes available, without reading past the file (bytesLeft: from the first
    // frame to the end of the file). Inline, so that the fuzz target shares it.
    static int StartAsThePlayer(CMP3Decoder* decoder, const uint8_t* firstFrame, uint64_t bytesLeft,
                                MP3StreamInfo* info);

    // Scans the file and starts the decoder on its first frame. 1 on success; on failure
    // LastOpenFailure tells which step failed (the scanner has logged its own reasons) and the
    // object is closed.
    int Open(const char* fileName);
    // One pass from the first frame to the end of the stream or the first refused frame. The
    // decoder is not restarted between passes, as in a looping play. 1 when the pass ran to
    // its end, 0 when the sink refused a batch or nothing is open.
    int Pass(BatchSink sink, void* sinkContext);
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

inline int CMP3Stream::StartAsThePlayer(CMP3Decoder* decoder, const uint8_t* firstFrame,
                                        uint64_t bytesLeft, MP3StreamInfo* info) {
    // The start reads the header, a CRC, the side information and a VBR header: at most
    // 4 + 2 + 32 + 18 bytes, fewer than the decoder's minimum of 156. With 156 bytes or more
    // left, passing the bytes left changes nothing.
    const uint32_t startBytes = 156;
    if (bytesLeft >= startBytes) {
        const int32_t available =
            bytesLeft > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int32_t>(bytesLeft);
        return decoder->StartDecoder(firstFrame, available, info);
    }
    // Closer to the end a limit would make the start fail where the player's succeeds. The
    // start reads a copy instead, the missing bytes zero, and a VBR header that the end of the
    // file cuts short counts as none, as it must: its id is blanked in the copy. The header
    // sits after 4 header bytes, 2 of CRC when the protection bit is clear, and 32, 17 or 9
    // bytes of side information.
    uint8_t copy[startBytes];
    memset(copy, 0, sizeof(copy));
    memcpy(copy, firstFrame, static_cast<size_t>(bytesLeft));
    if (bytesLeft >= 4) {
        const bool mpeg1 = (copy[1] & 0x18) == 0x18;
        const bool mono = (copy[3] >> 6) == 3;
        const uint32_t crc = (copy[1] & 1) ? 0 : 2;
        const uint32_t at = 4 + crc + (mpeg1 ? (mono ? 17 : 32) : (mono ? 9 : 17));
        if ((memcmp(copy + at, "Xing", 4) == 0 && at + 16 > bytesLeft) ||
            (memcmp(copy + at, "VBRI", 4) == 0 && at + 18 > bytesLeft)) {
            memset(copy + at, 0, 4);
        }
    }
    return decoder->StartDecoder(copy, 0x7FFFFFFF, info);
}
