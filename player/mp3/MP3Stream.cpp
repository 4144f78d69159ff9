#include "player/mp3/MP3Stream.h"

#include <cstddef>
#include <cstring>
#include <new>

CMP3Stream::CMP3Stream()
    : m_started(false),
      m_openFailure(OPEN_OK),
      m_framesDecoded(0),
      m_batchesWritten(0),
      m_refusedFrame(nullptr),
      m_refusedError(0) {
    memset(&m_info, 0, sizeof(m_info));
    memset(&m_io, 0, sizeof(m_io));
}

CMP3Stream::~CMP3Stream() {
    Close();
}

void CMP3Stream::Close() {
    m_started = false;
    m_decoder.reset();
    m_file.Close();
}

int CMP3Stream::Open(const char* fileName) {
    Close();
    m_openFailure = OPEN_OK;
    const char* name = (fileName != nullptr) ? fileName : "";
    if (!m_file.Open(name)) {
        m_openFailure = OPEN_FILE_FAILED;
        return 0;
    }

    m_decoder.reset(new (std::nothrow) CMP3Decoder());
    if (!m_block) {
        m_block.reset(new (std::nothrow) uint8_t[kBlockBytes]);
    }
    if (!m_decoder || !m_block) {
        m_openFailure = OPEN_OUT_OF_MEMORY;
        Close();
        return 0;
    }

    memset(&m_info, 0, sizeof(m_info));
    const uint64_t bytesLeft =
        m_file.dwSize - static_cast<uint64_t>(m_file.pFirstFrame - m_file.pView);
    if (!StartAsThePlayer(m_decoder.get(), m_file.pFirstFrame, bytesLeft, &m_info)) {
        m_openFailure = OPEN_START_FAILED;
        Close();
        return 0;
    }
    m_started = true;
    return 1;
}

int CMP3Stream::Pass(BatchSink sink, void* sinkContext) {
    m_framesDecoded = 0;
    m_batchesWritten = 0;
    m_refusedFrame = nullptr;
    m_refusedError = 0;
    if (!m_started) {
        return 0;
    }

    uint8_t* const block = m_block.get();
    const uint8_t* const end = m_file.pView + m_file.dwSize;
    memset(block, 0, kBlockBytes);
    memset(&m_io, 0, sizeof(m_io));
    const uint8_t* frame = m_file.pFirstFrame;

    while (frame != nullptr) {
        uint8_t* pos = block;
        for (int i = 0; i < kFramesPerBatch && frame != nullptr; ++i) {
            m_io.inData = frame;
            // A mapping may reach 4 GiB; the decoder's length is a signed 32-bit count, and
            // no frame comes near its largest value.
            const ptrdiff_t left = end - frame;
            m_io.inLength = left > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int32_t>(left);
            m_io.outData = pos;
            if (!m_decoder->DecodeFrame(&m_io)) {
                m_refusedFrame = frame;
                m_refusedError = m_decoder->LastError;
                frame = nullptr;
                break;
            }
            ++m_framesDecoded;
            // A frame skipped for want of reservoir data advances pos all the same: that stretch
            // keeps what the block held there.
            pos += m_io.outLength;
            frame = m_file.NextFrame(frame);
        }
        const uint32_t bytes = static_cast<uint32_t>(pos - block);
        if (bytes > 0) {
            if (!sink(sinkContext, block, bytes)) {
                return 0;
            }
            ++m_batchesWritten;
        }
    }
    return 1;
}
