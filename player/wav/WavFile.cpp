#include "player/wav/WavFile.h"

#include <cstring>

#include "player/pub/Log.h"

namespace {

// Four-character ids as their bytes read little-endian.
const uint32_t kIdRiff = 0x46464952;  // "RIFF"
const uint32_t kIdWave = 0x45564157;  // "WAVE"
const uint32_t kIdFmt = 0x20746D66;   // "fmt "
const uint32_t kIdData = 0x61746164;  // "data"

const uint32_t kFormatPcm = 1;
const uint64_t kChunkHeaderSize = 8;
const uint64_t kRiffHeaderSize = 12;

// Offsets in the "fmt " body.
const uint32_t kFmtAudioFormat = 0;
const uint32_t kFmtNumChannels = 2;
const uint32_t kFmtSampleRate = 4;
const uint32_t kFmtBitsPerSample = 14;

uint32_t LittleEndian(const uint8_t* bytes, uint32_t count) {
    uint32_t value = 0;
    for (uint32_t i = count; i > 0; --i) {
        value = (value << 8) | bytes[i - 1];
    }
    return value;
}

uint32_t ReadU32(const uint8_t* p) {
    uint8_t bytes[4];
    memcpy(bytes, p, sizeof(bytes));
    return LittleEndian(bytes, 4);
}

}  // namespace

CWavFile::CWavFile() : pRiffHeader(nullptr), pFmtChunk(nullptr), pDataChunk(nullptr) {
    memset(szFileName, 0, sizeof(szFileName));
}

CWavFile::~CWavFile() {
    Close();
}

int CWavFile::Open(const char* fileName) {
    const char* name = (fileName != nullptr) ? fileName : "";
    try {
        return MapAndParse(*this, name);
    } catch (...) {
        g_logFile.Log("[CWavFile::Open]file(%s),exception occurs", name);
        Close();
        return 0;
    }
}

int CWavFile::InitFileInfo() {
    pRiffHeader = nullptr;
    pFmtChunk = nullptr;
    pDataChunk = nullptr;

    if (pView == nullptr || dwSize < kRiffHeaderSize) {
        g_logFile.Log("[CWavFile::InitFileInfo]file(%s),size too small", szFileName);
        return 0;
    }
    pRiffHeader = pView;

    const uint32_t id = ReadU32(pRiffHeader);
    if (id != kIdRiff) {
        g_logFile.Log("[CWavFile::InitFileInfo]file(%s),RiffHeader id=0x%08X", szFileName,
                      static_cast<unsigned int>(id));
        return 0;
    }
    const uint32_t format = ReadU32(pRiffHeader + 8);
    if (format != kIdWave) {
        g_logFile.Log("[CWavFile::InitFileInfo]file(%s),RiffHeader format=0x%08X", szFileName,
                      static_cast<unsigned int>(format));
        return 0;
    }

    pFmtChunk = FindChunk(pRiffHeader, kIdFmt);
    if (pFmtChunk == nullptr) {
        g_logFile.Log("[CWavFile::InitFileInfo]file(%s),no fmt info", szFileName);
        return 0;
    }
    const uint16_t audioFormat = AudioFormat();
    if (audioFormat != kFormatPcm) {
        g_logFile.Log("[CWavFile::InitFileInfo]file(%s),AudioFormat=%d", szFileName,
                      static_cast<int>(audioFormat));
        return 0;
    }

    // From the start again: a "data" chunk ahead of "fmt " counts too.
    pDataChunk = FindChunk(pRiffHeader, kIdData);
    if (pDataChunk == nullptr) {
        g_logFile.Log("[CWavFile::InitFileInfo]file(%s),no data info", szFileName);
        return 0;
    }
    return 1;
}

void CWavFile::Close() {
    memset(szFileName, 0, sizeof(szFileName));
    pRiffHeader = nullptr;
    pFmtChunk = nullptr;
    pDataChunk = nullptr;
    Unmap();
}

const uint8_t* CWavFile::NextChunk(const uint8_t* chunk) const {
    if (chunk == nullptr || !Contains(chunk, static_cast<uint32_t>(kChunkHeaderSize))) {
        return nullptr;
    }
    // All arithmetic on 64-bit offsets: in 32 bits, a size of 0xFFFFFFF8 would bring the walk
    // back to the same chunk for ever.
    const uint64_t offset = static_cast<uint64_t>(chunk - pView);
    const uint64_t step =
        (ChunkId(chunk) == kIdRiff) ? kRiffHeaderSize : kChunkHeaderSize + ChunkSize(chunk);
    const uint64_t next = offset + step;
    if (next + kChunkHeaderSize > dwSize) {
        return nullptr;
    }
    const uint8_t* candidate = pView + next;
    if (next + kChunkHeaderSize + ChunkSize(candidate) > dwSize) {
        return nullptr;
    }
    return candidate;
}

const uint8_t* CWavFile::FindChunk(const uint8_t* start, uint32_t id) const {
    for (const uint8_t* chunk = NextChunk(start); chunk != nullptr; chunk = NextChunk(chunk)) {
        if (ChunkId(chunk) == id) {
            return chunk;
        }
    }
    return nullptr;
}

const uint8_t* CWavFile::NextDataChunk(const uint8_t* chunk) const {
    return FindChunk(chunk, kIdData);
}

uint32_t CWavFile::ChunkId(const uint8_t* chunk) {
    return ReadU32(chunk);
}

uint32_t CWavFile::ChunkSize(const uint8_t* chunk) {
    return ReadU32(chunk + 4);
}

// Reads a field of the first "fmt " chunk's body; bytes past the body's declared size (which
// the walk has checked to lie inside the file) read as zero.
static uint32_t FmtField(const uint8_t* fmtChunk, uint32_t offset, uint32_t width) {
    if (fmtChunk == nullptr) {
        return 0;
    }
    const uint32_t bodySize = CWavFile::ChunkSize(fmtChunk);
    uint8_t bytes[4] = {0, 0, 0, 0};
    if (bodySize > offset) {
        const uint32_t available = bodySize - offset;
        memcpy(bytes, CWavFile::ChunkBody(fmtChunk) + offset,
               available < width ? available : width);
    }
    return LittleEndian(bytes, width);
}

uint16_t CWavFile::AudioFormat() const {
    return static_cast<uint16_t>(FmtField(pFmtChunk, kFmtAudioFormat, 2));
}

uint16_t CWavFile::NumChannels() const {
    return static_cast<uint16_t>(FmtField(pFmtChunk, kFmtNumChannels, 2));
}

uint32_t CWavFile::SampleRate() const {
    return FmtField(pFmtChunk, kFmtSampleRate, 4);
}

uint16_t CWavFile::BitsPerSample() const {
    return static_cast<uint16_t>(FmtField(pFmtChunk, kFmtBitsPerSample, 2));
}
