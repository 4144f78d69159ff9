// Decoder object, stream start, per-stream set-up, the frame entry with the bit reservoir, and
// the granule driver that runs the stages in order.

#include "player/mp3/decoder/MP3Decoder.h"

#include <algorithm>
#include <cstring>

#include "player/mp3/decoder/BitReader.h"
#include "player/mp3/decoder/DecoderTables.h"

namespace {

// Above this many held bytes the reservoir is compacted before the next append; with the
// largest frame's main data on top the buffer still has room.
constexpr int32_t kReservoirCompactAbove = 6692;
// Main data is never appended past this point. The bytes behind it stay zero so that a reader
// sent past the held bytes by damaged side information reads zero bits inside MainData: it
// starts no later than the held end and is at most 36 bytes past it (look-ahead included)
// before its overrun limit stops it. Valid streams never hold more than 8120 bytes.
constexpr int32_t kMainDataGuard = 64;
constexpr int32_t kMainDataFill =
    static_cast<int32_t>(sizeof(CMP3Decoder::MainData)) - kMainDataGuard;

int32_t SideInfoBytes(uint32_t version, int32_t channels) {
    if (version == 1) return channels == 1 ? 17 : 32;
    return channels == 1 ? 9 : 17;
}

}  // namespace

CMP3Decoder::CMP3Decoder() {
    Reset();
}

CMP3Decoder::~CMP3Decoder() = default;

void CMP3Decoder::Reset() {
    FrequencyLimit = 24000;
    std::memset(ScaleFactors, 0, sizeof ScaleFactors);
    std::memset(BandInfo, 0, sizeof BandInfo);
    std::memset(LineCount, 0, sizeof LineCount);
    std::memset(BandEnd, 0, sizeof BandEnd);
    std::memset(BandWidth, 0, sizeof BandWidth);
}

int CMP3Decoder::StartDecoder(const uint8_t* frame, int32_t available, MP3StreamInfo* info) {
    if (!ReadStreamInfo(frame, available, info)) return 0;
    ResetSynthesis();
    InitLayer3(*info);
    return 1;
}

int CMP3Decoder::InitLayer3(const MP3FrameHeader& header) {
    ReservoirStart = 0;
    ReservoirBytes = 0;
    GranuleToggle = 0;
    MixedLongBands = header.version == 1 ? 8 : 6;

    // 64 x FrequencyLimit / SampleRate rounded: 31 at every legal rate, so the top subband
    // (lines 558..575) is never decoded.
    SubbandLimit = std::min((SampleRate / 2 + FrequencyLimit * 64) / SampleRate, 31);

    const int32_t* l = BandIndexTable[(header.version - 1) * 3 + header.sampleRateIndex];
    const int32_t* s = l + 23;
    if (header.version == 1) {
        ShortLineLimit = 3 * s[13];
        LongLineLimit = l[22];
    } else {
        // MPEG-2 and MPEG-2.5 stop one band lower.
        ShortLineLimit = 3 * s[12];
        LongLineLimit = l[21];
    }
    LineLimit = std::min(LongLineLimit + 8, SubbandLimit * 18);
    LongLineLimit = std::min(LongLineLimit, LineLimit);
    ShortLineLimit = std::min(ShortLineLimit, LineLimit);

    ChannelCount = header.mode == 3 ? 1 : 2;

    for (int k = 0; k < 22; ++k) {
        BandEnd[0][k] = l[k + 1];
        BandWidth[0][k] = l[k + 1] - l[k];
    }
    for (int k = 0; k < 13; ++k) {
        BandEnd[1][k] = 3 * s[k + 1];
        BandWidth[1][k] = s[k + 1] - s[k];
    }
    std::memset(HybridOut, 0, sizeof HybridOut);
    std::memset(Spectrum, 0, sizeof Spectrum);
    return 1;
}

int CMP3Decoder::DecodeFrame(MP3FrameIO* io) {
    if (io->inLength <= 4) {
        LastError = 5;
        return 0;
    }
    if (!DecodeFrameHeader(io->inData, io)) return 0;
    if (SampleRate <= 0) return 0;  // never started: there is no stream rate to size the frame with
    io->bitrate = static_cast<uint32_t>(
        BitrateTable[3 * io->version + io->layer - 4][io->bitrateIndex] * 1000);
    FrameSize = FrameLength(*io, static_cast<int32_t>(io->bitrate));
    if (io->inLength < FrameSize) {
        LastError = 5;
        return 0;
    }
    DecodeMainData(*io, io->inData, io->outData);
    io->inLength = FrameSize;
    io->outLength = OutFrameBytes;
    return 1;
}

void CMP3Decoder::DecodeMainData(const MP3FrameHeader& header, const uint8_t* frame, uint8_t* pcm) {
    if (header.mode == 1) {
        MsStereo = header.modeExtension >> 1;
        IntensityStereo = header.modeExtension & 1;
    } else {
        MsStereo = 0;
        IntensityStereo = 0;
    }
    const bool mpeg1 = header.version == 1;
    const int32_t crc = header.hasCrc ? 2 : 0;
    const int32_t sideBytes = SideInfoBytes(header.version, ChannelCount);
    const int32_t n = FrameSize - sideBytes - crc - 4;
    // A frame too short for its own side information (only a damaged header sized with the
    // stream's rate) is skipped whole: nothing is read, appended or written.
    if (n < 0) return;

    // The side information is read from a zero-padded copy: the reader loads up to 3 bytes
    // past it, which a frame with almost no main data does not hold.
    uint8_t side[40] = {};
    std::memcpy(side, frame + 4 + crc, static_cast<size_t>(sideBytes + std::min(n, 4)));
    SetBitPos(side);
    if (mpeg1)
        ReadSideInfoMpeg1();
    else
        ReadSideInfoMpeg2(GranuleToggle);

    ReservoirStart = ReservoirBytes - static_cast<int32_t>(MainDataBegin);
    if (ReservoirBytes > kReservoirCompactAbove) {
        std::memmove(MainData, MainData + ReservoirStart, MainDataBegin);
        ReservoirStart = 0;
        ReservoirBytes = static_cast<int32_t>(MainDataBegin);
    }
    // Only a header whose layer gives a longer frame than Layer III can carry this many bytes;
    // such a frame is skipped without being appended.
    const bool fits = ReservoirBytes + n <= kMainDataFill;
    if (fits) {
        std::memcpy(MainData + ReservoirBytes, frame + 4 + crc + sideBytes, static_cast<size_t>(n));
        ReservoirBytes += n;
    }
    std::memset(MainData + ReservoirBytes, 0, kMainDataGuard);

    // A negative start: the frame refers back to bytes the reservoir never got.
    if (!fits || ReservoirStart < 0) return;
    // An MPEG-1 frame in a stream that started as MPEG-2/2.5 has two granules but the caller's
    // block has room for one: its main data is kept for later frames, its PCM is not made.
    if (mpeg1 && OutFrameBytes < 2 * 576 * 2 * ChannelCount) return;

    MainDataBitPos = ReservoirStart * 8;
    if (mpeg1) {
        DecodeGranule(header, pcm, 0);
        DecodeGranule(header, pcm + OutFrameBytes / 2, 1);
    } else {
        DecodeGranule(header, pcm, GranuleToggle);
        GranuleToggle ^= 1;
    }
}

void CMP3Decoder::DecodeGranule(const MP3FrameHeader& header, uint8_t* pcm, uint32_t gr) {
    const bool mpeg1 = header.version == 1;
    for (int32_t ch = 0; ch < ChannelCount; ++ch) {
        const GranuleSideInfo& g = GranuleInfo[gr][ch];
        // Data that side information places past the held bytes starts at the held end, where
        // the reader meets the zeroed guard bytes; the overrun limit never lies further than
        // the held end plus the reader's 4-byte look-ahead.
        const int32_t skip = MainDataBitPos & 7;
        const int32_t startByte = std::min(MainDataBitPos >> 3, ReservoirBytes);
        SetBitPos(MainData + startByte);
        if (skip) GetBits(skip);
        MainDataBitPos += static_cast<int32_t>(g.part2_3_length);
        const int32_t limitByte = std::min((MainDataBitPos + 39) >> 3, ReservoirBytes + 4);
        SetBitLimit(MainData + limitByte);

        if (mpeg1)
            ReadScaleFactorsMpeg1(gr, static_cast<uint32_t>(ch));
        else
            ReadScaleFactorsMpeg2(gr, static_cast<uint32_t>(ch));
        DecodeHuffman(gr, static_cast<uint32_t>(ch), skip);
    }
    for (int32_t ch = 0; ch < ChannelCount; ++ch) Requantize(gr, static_cast<uint32_t>(ch));
    ProcessStereo(header, gr);
    ReduceGranuleAliases(gr);
    if (ChannelCount == 1)
        RenderGranuleMono(pcm, gr);
    else
        RenderGranuleStereo(pcm, gr);
}
