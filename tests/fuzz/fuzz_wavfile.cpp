// Fuzz target of the WAV reader. Each input is read two ways:
//  - written to a file and opened with Open, the way a play opens it (mapping, header checks,
//    exception guard, Close);
//  - copied into a heap block of exactly its size that stands in for the view, so that
//    AddressSanitizer reports a read even one byte past the end (a mapping is rounded up to
//    whole pages and would hide it).
// Both must reach the same verdict and the same chunks. Every "data" chunk found is then read
// in full, as the player hands it to the output.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "player/wav/WavFile.h"
#include "tests/fuzz/FuzzScratch.h"

namespace {

void Check(bool condition, const char* what)
{
    fuzz_scratch::Check("fuzz_wavfile", condition, what);
}

volatile uint32_t g_sink;

// Offsets of the data chunks from the view's start; reads every body byte.
std::vector<uint64_t> WalkData(const CWavFile& wav)
{
    std::vector<uint64_t> offsets;
    uint32_t sum = wav.NumChannels() + wav.SampleRate() + wav.BitsPerSample();
    for (const uint8_t* chunk = wav.pDataChunk; chunk != nullptr; chunk = wav.NextDataChunk(chunk)) {
        const uint64_t offset = static_cast<uint64_t>(chunk - wav.pView);
        const uint32_t size = CWavFile::ChunkSize(chunk);
        Check(CWavFile::ChunkId(chunk) == 0x61746164, "a data chunk without the id");
        Check(offset + 8 + size <= wav.dwSize, "a data chunk reaching past the end");
        Check(offsets.empty() || offset > offsets.back(), "data chunks out of order");
        const uint8_t* body = CWavFile::ChunkBody(chunk);
        for (uint32_t i = 0; i < size; ++i) {
            sum += body[i];
        }
        offsets.push_back(offset);
    }
    g_sink = sum;
    return offsets;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string& input = fuzz_scratch::Setup("fuzz_wavfile", "input.wav");
    Check(fuzz_scratch::Write(input, data, size), "cannot write the input file");

    CWavFile opened;
    const int openResult = opened.Open(input.c_str());
    std::vector<uint64_t> mappedChunks;
    if (openResult) {
        Check(opened.pFmtChunk != nullptr && opened.AudioFormat() == 1, "accepted without PCM");
        mappedChunks = WalkData(opened);
        Check(!mappedChunks.empty(), "accepted without data");
    }
    opened.Close();
    if (size == 0) {
        Check(openResult == 0, "an empty file opened");
        return 0;
    }

    std::vector<uint8_t> exact(data, data + size);
    CWavFile inMemory;
    inMemory.pView = exact.data();
    inMemory.dwSize = static_cast<uint32_t>(size);
    const int valid = inMemory.InitFileInfo();
    Check(valid == openResult, "file and memory disagree");
    if (valid) {
        Check(WalkData(inMemory) == mappedChunks, "file and memory found different chunks");
    }
    // Not a mapping: keep Unmap away from the heap block.
    inMemory.pView = nullptr;
    inMemory.dwSize = 0;
    return 0;
}
