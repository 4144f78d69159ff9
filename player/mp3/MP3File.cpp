#include "player/mp3/MP3File.h"

#include <cstring>

#include "player/mp3/MP3FrameHeader.h"
#include "player/pub/Log.h"

namespace {

// Values of the frame header's fields, as the header bits code them.
enum : uint32_t { kVersionReserved = 1, kVersionMpeg1 = 3 };
enum : uint32_t { kLayerBitsReserved = 0, kLayerBitsLayer2 = 2, kLayerBitsLayer1 = 3 };
enum : uint32_t { kModeSingleChannel = 3, kEmphasisReserved = 2 };

// Sizes in bytes.
enum : uint32_t { kId3v2HeaderBytes = 10, kId3v2FooterBytes = 10, kId3v1TagBytes = 128 };
enum : uint32_t { kHeaderBytes = 4 };

uint32_t VersionBits(const uint8_t* h) {
    return (h[1] >> 3) & 3u;
}
uint32_t LayerBits(const uint8_t* h) {
    return (h[1] >> 1) & 3u;
}
uint32_t BitrateIndex(const uint8_t* h) {
    return (h[2] >> 4) & 15u;
}
uint32_t SampleRateIndex(const uint8_t* h) {
    return (h[2] >> 2) & 3u;
}
uint32_t PaddingBit(const uint8_t* h) {
    return (h[2] >> 1) & 1u;
}
uint32_t Mode(const uint8_t* h) {
    return (h[3] >> 6) & 3u;
}
uint32_t Emphasis(const uint8_t* h) {
    return h[3] & 3u;
}

bool IsMpeg1Row(uint32_t versionBits) {
    // The reserved version has no row of its own; it is read as MPEG-1.
    return versionBits == kVersionMpeg1 || versionBits == kVersionReserved;
}

// The row of the frame header's bitrate table: MPEG-1 Layer I, II, III, then MPEG-2 and 2.5
// Layer I, then their Layers II and III (MPEG-2.5 shares MPEG-2's values). Index 0 (free
// format) and 15 (forbidden) hold 0 in every row.
uint32_t BitrateRow(uint32_t versionBits, uint32_t layerBits) {
    if (IsMpeg1Row(versionBits)) {
        // Layer bits 11 (Layer I) give row 0; the reserved layer value lands on the Layer
        // III row, which is as good as any since such a header is never valid.
        return layerBits == kLayerBitsReserved ? 2 : 3 - layerBits;
    }
    return layerBits == kLayerBitsLayer1 ? 3 : 4;
}

// Sample rate in Hz by the two version bits (00 MPEG-2.5, 01 reserved, read as MPEG-1, 10
// MPEG-2, 11 MPEG-1) and the index; the reserved index 3 gives 0.
uint32_t SampleRateHz(uint32_t versionBits, uint32_t index) {
    static const int kRowOfVersion[4] = {2, 0, 1, 0};
    return index < 3 ? static_cast<uint32_t>(SampleRateTable[kRowOfVersion[versionBits]][index])
                     : 0;
}

// The ISO/IEC 11172-3 Layer II restriction, applied with the same indices to every version.
bool IsAllowedLayer2Combination(uint32_t bitrateIndex, uint32_t mode) {
    if (mode == kModeSingleChannel) {
        return bitrateIndex < 11 || bitrateIndex > 14;
    }
    return bitrateIndex != 1 && bitrateIndex != 2 && bitrateIndex != 3 && bitrateIndex != 5;
}

}  // namespace

CMP3File::CMP3File() : pTagID3V1(nullptr), pTagID3V2(nullptr), pFirstFrame(nullptr) {
    memset(szFileName, 0, sizeof(szFileName));
}

CMP3File::~CMP3File() {
    Close();
}

void CMP3File::Close() {
    memset(szFileName, 0, sizeof(szFileName));
    pTagID3V1 = nullptr;
    pTagID3V2 = nullptr;
    pFirstFrame = nullptr;
    Unmap();
}

int CMP3File::IsFrameSync(const uint8_t* header) {
    return (header[0] == 0xFF && header[1] >= 0xE0) ? 1 : 0;
}

int CMP3File::IsValidFrameHeader(const uint8_t* header) {
    if (VersionBits(header) == kVersionReserved) {
        return 0;
    }
    const uint32_t layerBits = LayerBits(header);
    if (layerBits == kLayerBitsReserved) {
        return 0;
    }
    const uint32_t bitrateIndex = BitrateIndex(header);
    if (bitrateIndex == 0 || bitrateIndex == 15) {
        return 0;
    }
    if (SampleRateIndex(header) == 3) {
        return 0;
    }
    if (Emphasis(header) == kEmphasisReserved) {
        return 0;
    }
    if (layerBits == kLayerBitsLayer2 && !IsAllowedLayer2Combination(bitrateIndex, Mode(header))) {
        return 0;
    }
    return 1;
}

uint32_t CMP3File::GetFrameSize(const uint8_t* header) {
    const uint32_t versionBits = VersionBits(header);
    const uint32_t layerBits = LayerBits(header);
    const uint32_t bitrate =
        static_cast<uint32_t>(
            BitrateTable[BitrateRow(versionBits, layerBits)][BitrateIndex(header)]) *
        1000u;
    const uint32_t sampleRate = SampleRateHz(versionBits, SampleRateIndex(header));
    if (bitrate == 0 || sampleRate == 0) {
        return 0;
    }

    uint32_t samples;
    if (layerBits == kLayerBitsLayer1) {
        samples = 384;
    } else if (layerBits == kLayerBitsLayer2) {
        samples = 1152;
    } else {
        samples = IsMpeg1Row(versionBits) ? 1152 : 576;
    }

    // At most 144 x 448,000 = 64,512,000: no overflow in 32 bits.
    uint32_t length = (samples / 8) * bitrate / sampleRate;
    const uint32_t padding = PaddingBit(header);
    length += (layerBits == kLayerBitsLayer1) ? 4 * padding : padding;
    return length;
}

bool CMP3File::HeaderFits(uint64_t offset) const {
    return pView != nullptr && offset <= dwSize && dwSize - offset >= kHeaderBytes;
}

bool CMP3File::IsFrameAt(uint64_t offset) const {
    if (!HeaderFits(offset)) {
        return false;
    }
    const uint8_t* header = pView + offset;
    return IsFrameSync(header) && IsValidFrameHeader(header);
}

uint64_t CMP3File::SearchFrom(uint64_t offset) const {
    for (; HeaderFits(offset); ++offset) {
        if (IsFrameAt(offset)) {
            return offset;
        }
    }
    return dwSize;
}

bool CMP3File::OffsetOf(const uint8_t* p, uint64_t* offset) const {
    if (pView == nullptr || p == nullptr) {
        return false;
    }
    // Integer addresses: p - pView is only defined for p inside the view.
    const uintptr_t start = reinterpret_cast<uintptr_t>(pView);
    const uintptr_t where = reinterpret_cast<uintptr_t>(p);
    if (where < start || where - start > dwSize) {
        return false;
    }
    *offset = static_cast<uint64_t>(where - start);
    return true;
}

const uint8_t* CMP3File::SearchFrameHeader(const uint8_t* pos, SearchStart start) const {
    uint64_t offset = 0;
    if (!OffsetOf(pos, &offset)) {
        return nullptr;
    }
    if (start == SEARCH_ONE_BYTE_BEFORE && offset > 0) {
        --offset;
    }
    const uint64_t found = SearchFrom(offset);
    return HeaderFits(found) ? pView + found : nullptr;
}

int CMP3File::Open(const char* fileName) {
    const char* name = (fileName != nullptr) ? fileName : "";
    try {
        return MapAndParse(*this, name);
    } catch (...) {
        Close();
        g_logFile.Log("[CMP3File::Open]file(%s),exception occurs", name);
        return 0;
    }
}

int CMP3File::InitFileInfo() {
    pTagID3V1 = nullptr;
    pTagID3V2 = nullptr;
    pFirstFrame = nullptr;
    if (pView == nullptr) {
        g_logFile.Log("[CMP3File::InitFileInfo]file(%s),not valid frame header!", szFileName);
        return 0;
    }

    // A tag header that does not fit in the file counts as no tag.
    if (dwSize >= kId3v2HeaderBytes && memcmp(pView, "ID3", 3) == 0) {
        if (pView[3] != 3 && pView[3] != 4) {
            g_logFile.Log("[CMP3File::InitFileInfo]file(%s),find invalid TagID3V2 header!",
                          szFileName);
            return 0;
        }
        pTagID3V2 = pView;
    }

    if (dwSize > kId3v1TagBytes && memcmp(pView + dwSize - kId3v1TagBytes, "TAG", 3) == 0) {
        pTagID3V1 = pView + dwSize - kId3v1TagBytes;
    }

    if (FindFirstFrameHeader()) {
        return 1;
    }
    g_logFile.Log("[CMP3File::InitFileInfo]file(%s),not valid frame header!", szFileName);
    return 0;
}

int CMP3File::FindFirstFrameHeader() {
    pFirstFrame = nullptr;
    uint64_t offset = 0;
    if (pTagID3V2 != nullptr) {
        // Four 7-bit groups, most significant first; the top bit of each byte is ignored.
        const uint8_t* tag = pTagID3V2;
        uint64_t size = (static_cast<uint64_t>(tag[6] & 0x7F) << 21) |
                        (static_cast<uint64_t>(tag[7] & 0x7F) << 14) |
                        (static_cast<uint64_t>(tag[8] & 0x7F) << 7) |
                        static_cast<uint64_t>(tag[9] & 0x7F);
        offset = kId3v2HeaderBytes + size;
        if (tag[5] & 0x10) {
            offset += kId3v2FooterBytes;
        }
    }

    if (!HeaderFits(offset)) {
        g_logFile.Log("[CMP3File::FindFirstFrameHeader]file(%s),too small", szFileName);
        return 0;
    }

    for (;;) {
        if (!IsFrameAt(offset)) {
            offset = SearchFrom(offset);
            if (!HeaderFits(offset)) {
                g_logFile.Log("[CMP3File::FindFirstFrameHeader]file(%s),not valid frame header!",
                              szFileName);
                return 0;
            }
        }
        // One successor at the distance this header predicts must be valid too; the two are
        // not compared with each other.
        const uint64_t successor = offset + GetFrameSize(pView + offset);
        if (IsFrameAt(successor)) {
            pFirstFrame = pView + offset;
            return 1;
        }
        ++offset;
    }
}

const uint8_t* CMP3File::NextFrame(const uint8_t* frame) const {
    uint64_t offset = 0;
    if (!OffsetOf(frame, &offset) || !HeaderFits(offset)) {
        return nullptr;
    }
    const uint32_t size = GetFrameSize(frame);
    if (size == 0) {
        // Not a header the scanner would hand out: nothing can be said to follow it, and a
        // walk must never stand still.
        return nullptr;
    }
    const uint64_t next = offset + size;
    if (!HeaderFits(next)) {
        return nullptr;
    }
    if (IsFrameAt(next)) {
        return pView + next;
    }
    if (pTagID3V1 != nullptr && pView + next == pTagID3V1) {
        return nullptr;
    }
    // The computed position may be one byte too far (a wrong padding bit): start one byte
    // before it. What is found here is not checked against a following frame.
    const uint64_t found = SearchFrom(next - 1);
    return HeaderFits(found) ? pView + found : nullptr;
}
