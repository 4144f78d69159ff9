// Frame header decode, the decoder's frame-length rule and the stream information read from the
// first frame (with its optional Xing or VBRI header).

#include "player/mp3/MP3FrameHeader.h"

#include "player/mp3/decoder/MP3Decoder.h"

const int32_t BitrateTable[9][16] = {
    {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 0},  // MPEG-1 I
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0},     // MPEG-1 II
    {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0},      // MPEG-1 III
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0},     // MPEG-2 I
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},          // MPEG-2 II
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},          // MPEG-2 III
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0},     // MPEG-2.5 I
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},          // MPEG-2.5 II
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},          // MPEG-2.5 III
};

const int32_t SampleRateTable[3][3] = {
    {44100, 48000, 32000},
    {22050, 24000, 16000},
    {11025, 12000, 8000},
};

namespace {

uint32_t ReadBigEndian32(const uint8_t* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

bool HasTag(const uint8_t* p, const char* tag) {
    return p[0] == uint8_t(tag[0]) && p[1] == uint8_t(tag[1]) && p[2] == uint8_t(tag[2]) &&
           p[3] == uint8_t(tag[3]);
}

}  // namespace

int CMP3Decoder::DecodeFrameHeader(const uint8_t* bytes, MP3FrameHeader* h) {
    const uint32_t b1 = bytes[1], b2 = bytes[2], b3 = bytes[3];
    // Every field is filled first, so a caller sees the raw values even when the header fails.
    h->version = (b1 >> 3) & 1;
    h->layer = (b1 >> 1) & 3;
    h->hasCrc = b1 & 1;
    h->bitrateIndex = b2 >> 4;
    h->sampleRateIndex = (b2 >> 2) & 3;
    h->padding = (b2 >> 1) & 1;
    h->privateBit = b2 & 1;
    h->mode = b3 >> 6;
    h->modeExtension = (b3 >> 4) & 3;
    h->copyright = (b3 >> 3) & 1;
    h->original = (b3 >> 2) & 1;
    h->emphasis = b3 & 3;

    if (bytes[0] != 0xFF) {
        LastError = 3;
        return 0;
    }
    if ((b1 & 0xF0) == 0xF0) {
        h->version = h->version ? 1 : 2;
    } else if ((b1 & 0xF0) == 0xE0) {
        // The reserved version value 01 is not told apart from MPEG-2.5 here.
        h->version = 3;
    } else {
        LastError = 3;
        return 0;
    }
    if (h->sampleRateIndex == 3 || h->bitrateIndex == 0 || h->bitrateIndex == 15 || h->layer == 0) {
        LastError = 4;
        return 0;
    }
    h->layer = 4 - h->layer;
    h->hasCrc = 1 - h->hasCrc;
    return 1;
}

int32_t CMP3Decoder::FrameLength(const MP3FrameHeader& h, int32_t bitrate) const {
    // Always the stream's rate from the first frame, not this header's sample-rate index.
    const int32_t rate = SampleRate;
    const int32_t padding = static_cast<int32_t>(h.padding);
    if (h.layer == 1) return (12 * bitrate / rate + padding) * 4;
    if (h.layer == 2 || h.version == 1) return 144 * bitrate / rate + padding;
    return (144 * bitrate / rate) / 2 + padding;
}

int CMP3Decoder::ReadStreamInfo(const uint8_t* frame, int32_t available, MP3StreamInfo* info) {
    if (available < 156) {
        LastError = 5;
        return 0;
    }
    if (!DecodeFrameHeader(frame, info)) return 0;
    if (info->layer != 3) return 0;

    const bool mono = info->mode == 3;
    const int32_t sideBytes = info->version == 1 ? (mono ? 17 : 32) : (mono ? 9 : 17);
    const int32_t tagPos = 4 + (info->hasCrc ? 2 : 0) + sideBytes;
    const int32_t* row = BitrateTable[3 * info->version - 1];
    const int32_t bitrate = row[info->bitrateIndex] * 1000;
    const int32_t rate = SampleRateTable[info->version - 1][info->sampleRateIndex];

    // A VBR header that the available bytes cut short counts as none; nothing past it is read.
    const uint8_t* tag = frame + tagPos;
    bool vbr = false;
    if (tagPos + 16 <= available && HasTag(tag, "Xing")) {
        const uint32_t flags = ReadBigEndian32(tag + 4);
        if ((flags & 3) == 0) {
            LastError = 4;
            return 0;
        }
        info->totalFrames = static_cast<int32_t>(ReadBigEndian32(tag + 8));
        info->totalBytes = static_cast<int32_t>(ReadBigEndian32(tag + 12));
        vbr = true;
    } else if (tagPos + 18 <= available && HasTag(tag, "VBRI")) {
        info->totalBytes = static_cast<int32_t>(ReadBigEndian32(tag + 10));
        info->totalFrames = static_cast<int32_t>(ReadBigEndian32(tag + 14));
        vbr = true;
    } else {
        info->totalFrames = 0;
        info->totalBytes = 0;
    }

    const int32_t div = info->version == 1 ? 1 : 2;
    const int32_t samples = 1152 / div;
    const int32_t size = (144 * bitrate / rate) / div;
    if (vbr) {
        int32_t lowest = row[1], highest = row[1];
        for (int i = 2; i <= 14; ++i) {
            if (row[i] < lowest) lowest = row[i];
            if (row[i] > highest) highest = row[i];
        }
        info->tagFrameSize = size + static_cast<int32_t>(info->padding);
        info->minFrameSize = (144 * lowest * 1000 / rate) / div;
        info->maxFrameSize = (144 * highest * 1000 / rate) / div + 1;
    } else {
        info->tagFrameSize = 0;
        info->minFrameSize = size;
        info->maxFrameSize = size + 1;
    }
    info->outChannels = mono ? 1 : 2;
    info->outBits = 16;
    info->outFrameBytes = samples * info->outChannels * 2;
    SampleRate = rate;
    OutFrameBytes = info->outFrameBytes;
    info->outSampleRate = rate;
    info->bitrate = vbr ? 0 : bitrate;
    return 1;
}
