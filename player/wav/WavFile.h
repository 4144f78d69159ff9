#pragma once
// RIFF/WAVE reader working in place on the mapped file. Every pointer it hands out points into
// the view and every chunk it returns lies wholly inside the file: the walk stops at the first
// chunk whose header or declared body would reach past the end.

#include <cstdint>

#include "client/QuorbelClient.h"
#include "player/pub/FileMapObj.h"

class CWavFile : public CFileMapObj {
public:
    CWavFile();
    ~CWavFile();

    // Maps and validates the file; 1 when it is a RIFF/WAVE PCM file with a "data" chunk. On
    // failure the reason is logged and the object is closed.
    int Open(const char* fileName);
    // Validates the mapped view and sets the three chunk pointers; 1/0.
    int InitFileInfo();
    void Close();

    // The chunk after the given one, or null when the walk leaves the file.
    const uint8_t* NextChunk(const uint8_t* chunk) const;
    // The first chunk after start whose id equals id (the start chunk is not compared).
    const uint8_t* FindChunk(const uint8_t* start, uint32_t id) const;
    const uint8_t* NextDataChunk(const uint8_t* chunk) const;

    // Fields of the first "fmt " chunk and of a chunk header, read with memcpy (chunks may
    // sit at odd addresses); all values are little-endian. A "fmt " body shorter than 16
    // bytes reads as if the missing bytes were zero: only the chunk's own bytes are read, and
    // a format of zero channels, rate or bits is refused by the output device.
    uint16_t AudioFormat() const;
    uint16_t NumChannels() const;
    uint32_t SampleRate() const;
    uint16_t BitsPerSample() const;
    static uint32_t ChunkId(const uint8_t* chunk);
    static uint32_t ChunkSize(const uint8_t* chunk);
    static const uint8_t* ChunkBody(const uint8_t* chunk) { return chunk + 8; }

    char szFileName[kQuorbelNameBuffer];
    const uint8_t* pRiffHeader;
    const uint8_t* pFmtChunk;
    const uint8_t* pDataChunk;
};
