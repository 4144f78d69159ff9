// Fuzz target of the WAV reader, read both ways (ReadBothWays): an accepted file is PCM with data,
// and every data chunk found is read in full, as the player hands it to the output.
#include "player/wav/WavFile.h"
#include "tests/support/TestSupport.h"

using namespace test_support;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ReadBothWays<CWavFile>(data, size, [](const CWavFile& wav) {
        FuzzCheck(wav.pFmtChunk && wav.AudioFormat() == 1 && wav.pDataChunk,
                  "accepted without PCM data");
        static volatile uint32_t sink;
        std::vector<uint64_t> walk;
        for (const uint8_t* chunk = wav.pDataChunk; chunk != nullptr;
             chunk = wav.NextDataChunk(chunk)) {
            walk.push_back(uint64_t(chunk - wav.pView));
            FuzzCheck(wav.ChunkId(chunk) == 0x61746164, "a data chunk without the id");
            FuzzCheck(walk.back() + 8 + wav.ChunkSize(chunk) <= wav.dwSize,
                      "a data chunk reaching past the end");
            FuzzCheck(walk.size() < 2 || walk.back() > walk.end()[-2], "data chunks out of order");
            for (uint32_t i = 0; i < wav.ChunkSize(chunk); ++i)
                sink = sink + wav.ChunkBody(chunk)[i];
        }
        return walk;
    });
    return 0;
}
