// Fuzz target of the MP3 scanner, read both ways (ReadBothWays) and walked with NextFrame as the
// player walks: valid headers inside the file, strictly forward, the first with a valid successor.
#include "player/mp3/MP3File.h"
#include "tests/support/TestSupport.h"

using namespace test_support;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ReadBothWays<CMP3File>(data, size, [](const CMP3File& mp3) {
        const auto isFrame = [&mp3](uint64_t at) {
            return at + 4 <= mp3.dwSize && mp3.IsFrameSync(mp3.pView + at) &&
                   mp3.IsValidFrameHeader(mp3.pView + at);
        };
        std::vector<uint64_t> walk;
        for (const uint8_t* frame = mp3.pFirstFrame; frame != nullptr;
             frame = mp3.NextFrame(frame)) {
            walk.push_back(uint64_t(frame - mp3.pView));
            FuzzCheck(isFrame(walk.back()), "the walk handed out an invalid header");
            FuzzCheck(walk.size() < 2 || walk.back() > walk.end()[-2],
                      "the walk went back or stood still");
        }
        FuzzCheck(!walk.empty() && isFrame(walk[0] + mp3.GetFrameSize(mp3.pFirstFrame)),
                  "no valid successor");
        return walk;
    });
    return 0;
}
