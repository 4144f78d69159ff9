#pragma once
// The decoder's view of an MPEG audio frame header, the record of one frame decode and the
// stream's PCM format. The operations that fill them (DecodeFrameHeader, FrameLength,
// ReadStreamInfo) belong to CMP3Decoder, whose error and stream fields they use.

#include <cstdint>

// The header fields, straight from the four header bytes (ISO/IEC 11172-3 layout).
struct MP3FrameHeader {
    uint32_t version;          // 1 MPEG-1, 2 MPEG-2, 3 MPEG-2.5
    uint32_t layer;            // 1, 2, 3
    uint32_t hasCrc;           // 1 when a 16-bit CRC follows the header
    uint32_t bitrateIndex;     // 1..14
    uint32_t sampleRateIndex;  // 0..2
    uint32_t padding;
    uint32_t privateBit;
    uint32_t mode;  // 0 stereo, 1 joint stereo, 2 dual channel, 3 single channel
    uint32_t modeExtension;
    uint32_t copyright;
    uint32_t original;
    uint32_t emphasis;
};

// One frame decode: the caller fills inData, inLength and outData; DecodeFrame fills the header
// fields, bitrate, inLength (this frame's length) and outLength (PCM bytes).
struct MP3FrameIO : MP3FrameHeader {
    uint32_t bitrate;  // bits per second
    int32_t inLength;
    int32_t outLength;
    const uint8_t* inData;
    uint8_t* outData;
};

// The first frame's header, the PCM format to open the output with, and the Xing or VBRI values.
struct MP3StreamInfo : MP3FrameHeader {
    int32_t outChannels;
    int32_t outBits;
    int32_t outSampleRate;
    int32_t bitrate;  // first frame's bitrate; 0 when a VBR header was found
    int32_t totalFrames;
    int32_t tagFrameSize;  // length of the frame carrying the VBR header, else 0
    int32_t totalBytes;
    int32_t minFrameSize;
    int32_t maxFrameSize;
    int32_t outFrameBytes;
};

// Bitrates in kbit/s; row 3 x version + layer - 4, column bitrateIndex.
extern const int32_t BitrateTable[9][16];
// Sample rates in Hz by version - 1 and sampleRateIndex.
extern const int32_t SampleRateTable[3][3];
