#pragma once
// Shared by the decoding tests: the player's walk into memory, sample comparison, files and
// external commands.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

// One pass of the MP3 player's walk over a file, as the output would have received it.
struct DecodedStream {
    int channels = 0;
    int sampleRate = 0;
    int version = 0;
    uint32_t frameBytes = 0;          // PCM bytes per frame
    int32_t bitrate = 0;              // the stream information's: 0 when a VBR header was found
    int32_t totalFrames = 0;
    std::vector<int16_t> pcm;         // every batch of the pass, back to back
    std::vector<uint8_t> skipped;     // per decoded frame: 1 when it wrote no PCM for want of
                                      // reservoir data
    std::vector<size_t> offsets;      // per decoded frame: its offset in the file
    size_t shortGranules = 0;         // granule-channels coded with short blocks
    size_t msFrames = 0;              // frames with mid/side stereo
    uint32_t refusedError = 0;        // the code of the frame that ended the pass, or 0
};

// Opens the file with this system's scanner and decoder and runs one pass. False with a
// reason when the file cannot be played.
bool DecodeWithWalk(const std::string& path, DecodedStream* out, std::string* error);

// The frames one after another by the decoder's own frame length, without the scanner: each
// frame's PCM in a block of its own, zeroed first. Shows what the decoder makes of a stream
// whose headers the scanner would not all accept.
bool DecodeFrameByFrame(const std::string& path, DecodedStream* out, std::string* error);

// The decoded PCM without the frames that wrote none.
std::vector<int16_t> WithoutSkippedFrames(const DecodedStream& stream);

// Differences of ours against a reference negated: ours[i] + reference[i] (this decoder's
// output is the negative of the standard's).
struct DiffStats {
    size_t count = 0;
    int maxAbs = 0;
    double rms = 0;
    size_t overOne = 0;  // samples that differ by more than 1
    size_t firstOverOne = 0;
};
DiffStats CompareNegated(const int16_t* ours, const int16_t* reference, size_t count);

// The offset d (ours[i + d] against reference[i], in samples) within [minOffset, maxOffset]
// that makes the most samples of a window agree within 1; steps of channels keep frames of
// interleaved channels paired.
long FindNegatedAlignment(const std::vector<int16_t>& ours, const std::vector<int16_t>& reference,
                          long minOffset, long maxOffset, int channels, size_t window);

std::vector<int16_t> ReadPcm(const std::filesystem::path& path);
bool WriteBytes(const std::filesystem::path& path, const std::vector<uint8_t>& bytes);
std::vector<uint8_t> ReadBytes(const std::filesystem::path& path);

// Runs a shell command with its output captured into *output; returns the exit status.
int RunCommand(const std::string& command, std::string* output);
std::string Quote(const std::filesystem::path& path);

// A fresh directory removed with everything in it when the object goes.
class TempDirectory {
public:
    explicit TempDirectory(const std::string& prefix);
    ~TempDirectory();
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;
    const std::filesystem::path& Path() const { return m_path; }

private:
    std::filesystem::path m_path;
};
