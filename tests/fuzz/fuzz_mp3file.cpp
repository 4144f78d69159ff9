// Fuzz target of the MP3 scanner. Each input is scanned two ways:
//  - written to a file and opened with Open, the way a play opens it (mapping, tags, the
//    search for a trusted first frame, exception guard, Close);
//  - copied into a heap block of exactly its size that stands in for the view, so that
//    AddressSanitizer reports a read even one byte past the end (a mapping is rounded up to
//    whole pages and would hide it).
// Both must reach the same verdict. Then the frames are walked with NextFrame to the end of
// the stream, as the MP3 player walks them; both walks must visit the same frames, each a
// valid header wholly inside the file, strictly forward.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "player/mp3/MP3File.h"
#include "tests/fuzz/FuzzScratch.h"

namespace {

void Check(bool condition, const char* what)
{
    fuzz_scratch::Check("fuzz_mp3file", condition, what);
}

bool IsFrame(const CMP3File& file, uint64_t offset)
{
    return offset + 4 <= file.dwSize && CMP3File::IsFrameSync(file.pView + offset) &&
           CMP3File::IsValidFrameHeader(file.pView + offset);
}

// Offsets of every frame from the first to the end of the stream.
std::vector<uint64_t> Walk(const CMP3File& file)
{
    std::vector<uint64_t> offsets;
    const uint64_t first = static_cast<uint64_t>(file.pFirstFrame - file.pView);
    Check(IsFrame(file, first), "the first frame is not a valid header");
    Check(IsFrame(file, first + CMP3File::GetFrameSize(file.pFirstFrame)),
          "the first frame has no valid successor");
    for (const uint8_t* frame = file.pFirstFrame; frame != nullptr; frame = file.NextFrame(frame)) {
        const uint64_t offset = static_cast<uint64_t>(frame - file.pView);
        Check(IsFrame(file, offset), "the walk handed out an invalid header");
        Check(offsets.empty() || offset > offsets.back(), "the walk went backwards or stood still");
        offsets.push_back(offset);
    }
    return offsets;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string& input = fuzz_scratch::Setup("fuzz_mp3file", "input.mp3");
    Check(fuzz_scratch::Write(input, data, size), "cannot write the input file");

    CMP3File opened;
    const int openResult = opened.Open(input.c_str());
    std::vector<uint64_t> mappedFrames;
    if (openResult) {
        mappedFrames = Walk(opened);
    } else {
        Check(opened.pView == nullptr && opened.pFirstFrame == nullptr, "a refused file stays open");
    }
    opened.Close();
    if (size == 0) {
        Check(openResult == 0, "an empty file opened");
        return 0;
    }

    std::vector<uint8_t> exact(data, data + size);
    CMP3File inMemory;
    inMemory.pView = exact.data();
    inMemory.dwSize = static_cast<uint32_t>(size);
    const int valid = inMemory.InitFileInfo();
    Check(valid == openResult, "file and memory disagree");
    if (valid) {
        Check(Walk(inMemory) == mappedFrames, "file and memory walk different frames");
    }
    // Not a mapping: keep Unmap away from the heap block.
    inMemory.pView = nullptr;
    inMemory.dwSize = 0;
    return 0;
}
