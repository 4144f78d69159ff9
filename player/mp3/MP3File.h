#pragma once
// MP3 file scanner: maps the file, steps over a leading ID3v2 tag, notes a trailing ID3v1 tag,
// finds the first frame that can be trusted and walks from frame to frame during playback.
// It judges frames by their four raw header bytes with its own checks and its own frame
// length; it never decodes them (the decoder has its own header decode).

#include <cstdint>

#include "client/QuorbelClient.h"
#include "player/pub/FileMapObj.h"

class CMP3File : public CFileMapObj {
public:
    // Where SearchFrameHeader starts scanning.
    enum SearchStart { SEARCH_AT_POSITION = 0, SEARCH_ONE_BYTE_BEFORE = 1 };

    CMP3File();
    ~CMP3File();

    CMP3File(const CMP3File&) = delete;
    CMP3File& operator=(const CMP3File&) = delete;

    // Maps and scans the file. 1 when a trusted first frame was found; otherwise the reason
    // is logged and the object is closed.
    int Open(const char* fileName);
    // Finds the tags and the first frame in the mapped content.
    int InitFileInfo();
    // Sets pFirstFrame: the first valid header whose successor, at the distance its own
    // length predicts, is valid too.
    int FindFirstFrameHeader();
    // The frame after the given one, resynchronising when the computed position holds no
    // valid header; null at the end of the stream or at the ID3v1 tag.
    const uint8_t* NextFrame(const uint8_t* frame) const;
    void Close();

    // Tests on four raw header bytes; no object state.
    static int IsFrameSync(const uint8_t* header);
    static int IsValidFrameHeader(const uint8_t* header);
    // Frame length in bytes by the scanner's rule; 0 for a header that IsValidFrameHeader
    // rejects for its version, bitrate or sample rate.
    static uint32_t GetFrameSize(const uint8_t* header);

    // The first position from pos (or from one byte before it) on, one byte at a time, that
    // holds a sync and a valid header with all four bytes inside the file; null when the scan
    // leaves the file.
    const uint8_t* SearchFrameHeader(const uint8_t* pos, SearchStart start) const;

    char szFileName[kQuorbelNameBuffer];
    const uint8_t* pTagID3V1;
    const uint8_t* pTagID3V2;
    const uint8_t* pFirstFrame;

private:
    // Offset-based helpers: a position past the end of the view is never formed as a pointer.
    bool HeaderFits(uint64_t offset) const;
    bool IsFrameAt(uint64_t offset) const;
    // Returns the offset found, or dwSize (never a header position) when none.
    uint64_t SearchFrom(uint64_t offset) const;
    bool OffsetOf(const uint8_t* p, uint64_t* offset) const;
};
