#pragma once
// Records what the session's sound server plays: parec on the null sink's monitor, raw 16-bit
// little-endian stereo at 44.1 kHz, exactly as scripts/wine-session record does.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/system/harness/Process.h"

namespace harness {

class CRecorder {
public:
    CRecorder() = default;
    // Stops a recording still running.
    ~CRecorder();

    CRecorder(const CRecorder&) = delete;
    CRecorder& operator=(const CRecorder&) = delete;

    // Starts recording to file and returns once the recording is connected (the sink's monitor
    // delivers silence in real time, so the first bytes prove it). false, with Problem() set,
    // if parec did not start within a few seconds.
    bool Start(const std::string& file);
    // Ends the recording (parec writes out what it holds); true when parec has ended.
    bool Stop();

    // Frames recorded so far: a mark for "after this point" searches.
    size_t FramesSoFar() const;
    // The whole recording as interleaved samples (left, right, ...); call after Stop.
    std::vector<int16_t> Samples() const;

    const std::string& File() const { return m_file; }
    const std::string& Problem() const { return m_problem; }

private:
    CProcess m_parec;
    std::string m_file;
    std::string m_problem;
};

}  // namespace harness
