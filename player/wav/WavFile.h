#pragma once
// RIFF/WAVE reader working in place on the mapped file.

#include <cstdint>

#include "player/pub/FileMapObj.h"

class CWavFile : public CFileMapObj {
public:
    CWavFile();
    ~CWavFile();

    int Open(const char* fileName);
    int InitFileInfo();
    void Close();

    // The chunk after the given one, or null when the walk leaves the file.
    const uint8_t* NextChunk(const uint8_t* chunk) const;
    // The first chunk after start whose id equals id (the start chunk is not compared).
    const uint8_t* FindChunk(const uint8_t* start, uint32_t id) const;
    const uint8_t* NextDataChunk(const uint8_t* chunk) const;

    // Fields of the first "fmt " chunk and of a chunk header, read with memcpy (chunks may
    // sit at odd addresses).
    uint16_t AudioFormat() const;
    uint16_t NumChannels() const;
    uint32_t SampleRate() const;
    uint16_t BitsPerSample() const;
    static uint32_t ChunkId(const uint8_t* chunk);
    static uint32_t ChunkSize(const uint8_t* chunk);
    static const uint8_t* ChunkBody(const uint8_t* chunk) { return chunk + 8; }

    char szFileName[260];
    const uint8_t* pRiffHeader;
    const uint8_t* pFmtChunk;
    const uint8_t* pDataChunk;
};
