// Fuzz target of the WAV reader. Each input is read two ways:
//  - written to a file and opened with Open, the way a play opens it (mapping, header checks,
//    exception guard, Close);
//  - copied into a heap block of exactly its size that stands in for the view, so that
//    AddressSanitizer reports a read even one byte past the end (a mapping is rounded up to
//    whole pages and would hide it).
// Both must reach the same verdict and the same chunks. Every "data" chunk found is then read
// in full, as the player hands it to the output.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "player/pub/Log.h"
#include "player/wav/WavFile.h"

namespace {

std::string g_folder;
std::string g_input;

void RemoveScratch()
{
    unlink(g_input.c_str());
    rmdir(g_folder.c_str());
}

// Makes a scratch folder for the input file and sends the log to /dev/null: almost every input
// is refused with a log line, and millions of them would fill the disk. The log stays open once
// opened, so it is opened once from the scratch folder, through a link named like the log.
bool Setup()
{
    struct stat info;
    std::string pattern = (stat("/dev/shm", &info) == 0 && S_ISDIR(info.st_mode))
                              ? "/dev/shm/fuzz_wavfile.XXXXXX"
                              : "/tmp/fuzz_wavfile.XXXXXX";
    std::vector<char> folder(pattern.begin(), pattern.end());
    folder.push_back('\0');
    if (mkdtemp(folder.data()) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    g_folder = folder.data();
    g_input = g_folder + "/input.wav";

    char previous[4096];
    if (getcwd(previous, sizeof(previous)) == nullptr || chdir(g_folder.c_str()) != 0) {
        perror("chdir");
        abort();
    }
    const std::string link = g_folder + "/quorbel.log";
    if (symlink("/dev/null", link.c_str()) != 0 || g_logFile.WriteToFile("") != 1 ||
        chdir(previous) != 0) {
        perror("log to /dev/null");
        abort();
    }
    unlink(link.c_str());
    atexit(RemoveScratch);
    return true;
}

void Check(bool condition, const char* what)
{
    if (!condition) {
        fprintf(stderr, "fuzz_wavfile: %s\n", what);
        abort();
    }
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
    static const bool ready = Setup();
    (void)ready;

    FILE* file = fopen(g_input.c_str(), "wb");
    Check(file != nullptr, "cannot write the input file");
    Check(size == 0 || fwrite(data, 1, size, file) == size, "cannot write the input file");
    fclose(file);

    CWavFile opened;
    const int openResult = opened.Open(g_input.c_str());
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
