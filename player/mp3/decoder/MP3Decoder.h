#pragma once
// CMP3Decoder: MPEG-1/2/2.5 Layer III to 16-bit PCM, one frame at a time, in 32-bit float.
//
// The object owns every buffer it uses (no heap memory), so one play thread can run it without
// allocating after construction. The stages live in units of their own: the frame header and
// stream information (player/mp3/MP3FrameHeader.cpp), the bit reader (BitReader.h), side
// information, scale factors, Huffman decoding and requantization, stereo and alias reduction,
// the renderers, and the frame entry with the bit reservoir (MP3Decoder.cpp).
//
// Fields are public and kept in a fixed order: the stages, the synthesis and the tests work on
// them directly.

#include <cstdint>
#include <cstring>

#include "player/mp3/MP3FrameHeader.h"

// Side information of one granule of one channel.
struct GranuleSideInfo {
    uint32_t part2_3_length;
    uint32_t big_values;
    int32_t global_gain;  // coded value, minus 2 in mid/side frames
    uint32_t scalefac_compress;
    uint32_t window_switching_flag;
    uint32_t block_type;  // 0 normal, 1 start, 2 short, 3 stop
    uint32_t mixed_block_flag;
    uint32_t table_select[3];
    uint32_t subblock_gain[3];
    uint32_t region0_count;
    uint32_t region1_count;
    uint32_t preflag;
    uint32_t scalefac_scale;
    uint32_t count1table_select;
};

// Scale factors of one granule of one channel: long bands 0..22 (21 and 22 stay 0), then short
// bands 0..12 per window (band 12 stays 0).
struct ScaleFactorSet {
    uint32_t longSf[23];
    uint32_t shortSf[3][13];
};

// BandInfo entries.
enum {
    kBandHasShort = 0,  // 1 when the granule has a short part
    kBandMax = 1,       // highest band holding a non-zero value
    kBandBlockType = 2,
    kBandFirstShort = 3,  // 12 long block, 0 short block, 3 mixed block
    kBandLongCount = 4,   // long bands scanned: 22, 0 or MixedLongBands
    kBandMaxShort = 5     // 5..7: per window, highest short band holding a non-zero value
};

// IntensityInfo entries.
enum {
    kIntensityCount = 0,  // 0..2: band counts of the first three groups
    kIntensitySlen = 3,   // 3..5: their lengths in bits
    kIntensityScale = 6
};

class CMP3Decoder {
public:
    CMP3Decoder();
    virtual ~CMP3Decoder();

    void Reset();

    // Stream start on the first frame: stream information, synthesis reset, per-stream set-up.
    int StartDecoder(const uint8_t* frame, int32_t available, MP3StreamInfo* info);
    // One frame; see MP3FrameIO for what goes in and comes out. 1 on success, 0 with LastError.
    int DecodeFrame(MP3FrameIO* io);

    // --- Frame header and stream information (MP3FrameHeader.cpp) ---
    int DecodeFrameHeader(const uint8_t* bytes, MP3FrameHeader* header);
    // Layer I/II/III frame length of a header with the given bitrate at the stream's SampleRate.
    int32_t FrameLength(const MP3FrameHeader& header, int32_t bitrate) const;
    int ReadStreamInfo(const uint8_t* frame, int32_t available, MP3StreamInfo* info);

    // --- Frame entry, reservoir, granule driver (MP3Decoder.cpp) ---
    int InitLayer3(const MP3FrameHeader& header);
    void DecodeMainData(const MP3FrameHeader& header, const uint8_t* frame, uint8_t* pcm);
    void DecodeGranule(const MP3FrameHeader& header, uint8_t* pcm, uint32_t gr);

    // --- Bit reader (BitReader.h, inline) ---
    inline void SetBitPos(const uint8_t* p);
    inline void SetBitLimit(const uint8_t* p);
    inline uint32_t GetBits(int32_t n);
    inline uint32_t GetLinbits(int32_t n);
    inline void FillBits(int32_t n);
    inline uint32_t PeekBitsFill(int32_t n);
    inline uint32_t TakeBits(int32_t n);
    inline uint32_t PeekBits(int32_t n) const;
    inline uint32_t GetBit();
    inline void SkipBits(int32_t n);
    inline int32_t BitsUsed() const;
    inline bool Overran() const;
    inline void RefillBits();

    // --- Side information (SideInfo.cpp) ---
    int32_t ReadSideInfoMpeg1();
    int32_t ReadSideInfoMpeg2(uint32_t gr);

    // --- Scale factors (ScaleFactors.cpp) ---
    void ReadScaleFactorsMpeg1(uint32_t gr, uint32_t ch);
    void ReadScaleFactorsMpeg2(uint32_t gr, uint32_t ch);

    // --- Huffman decoding and requantization (Huffman.cpp, Requantize.cpp) ---
    void DecodeHuffman(uint32_t gr, uint32_t ch, int32_t skip);
    void DecodeBigValues(float* out, int32_t n, uint32_t table);
    inline void StoreSignedPair(float* out, int32_t x, int32_t y);
    int32_t DecodeCount1(float* out, int32_t n, int32_t bitsLeft, uint32_t select);
    void Requantize(uint32_t gr, uint32_t ch);

    // --- Stereo processing and alias reduction (Stereo.cpp) ---
    void ProcessStereo(const MP3FrameHeader& header, uint32_t gr);
    void ProcessMsStereo(float* left, int32_t n);
    void ProcessIntensityMpeg1(float* left, const ScaleFactorSet& sfR, const int32_t info[2][8],
                               int32_t n);
    void ProcessIntensityMpeg2(float* left, const ScaleFactorSet& sfR, const int32_t info[2][8],
                               int32_t n);
    void ReduceAliases(float* x, int32_t nb);
    void ReduceGranuleAliases(uint32_t gr);

    // --- Renderers and synthesis wiring (Render.cpp) ---
    void RenderGranuleMono(uint8_t* pcm, uint32_t gr);
    void RenderGranuleStereo(uint8_t* pcm, uint32_t gr);
    void SynthesizeGranule(const float slots[18][32], uint8_t* pcm, int32_t channel);
    void ResetSynthesis();

    // Spectrum slots hold the Huffman stage's integers until the requantizer turns them into
    // floats in place. The integers are stored as bit patterns through these two helpers (a
    // memcpy, so no float operation ever sees them); an integer 0 and +0.0f share their bits.
    static inline void StoreSlotInt(float* slot, int32_t value);
    static inline int32_t LoadSlotInt(const float* slot);

    // ---------------------------------------------------------------------------------------
    // Fields, in this order. Every one starts zeroed; the constructor then runs Reset.

    int32_t FrequencyLimit{};
    uint32_t LastError{};
    int32_t SampleRate{};
    int32_t FrameSize{};
    int32_t OutFrameBytes{};

    uint32_t BitBuffer{};
    int32_t BitCount{};
    const uint8_t* ReadPtr{};
    const uint8_t* StartPtr{};
    const uint8_t* LimitPtr{};

    uint32_t SynthOffset[2]{};
    alignas(16) float SynthRing[2][512]{};

    int32_t ReservoirStart{};
    int32_t ReservoirBytes{};
    uint32_t GranuleToggle{};
    int32_t MixedLongBands{};
    int32_t SubbandLimit{};
    int32_t LineLimit{};
    int32_t ShortLineLimit{};
    int32_t LongLineLimit{};
    int32_t ChannelCount{};
    int32_t BandEnd[2][22]{};
    int32_t BandWidth[2][22]{};

    // [channel][granule slot][line]; integers, then floats (see StoreSlotInt).
    alignas(16) float Spectrum[2][2][576]{};
    alignas(16) float HybridOut[18][32]{};

    uint32_t MainDataBegin{};
    uint32_t PrivateBits{};
    uint32_t Scfsi[2]{};
    GranuleSideInfo GranuleInfo[2][2]{};  // [granule][channel]
    uint32_t MsStereo{};
    uint32_t IntensityStereo{};
    ScaleFactorSet ScaleFactors[2][2]{};  // [granule][channel]
    int32_t BandInfo[2][2][8]{};          // [granule][channel]
    int32_t LineCount[2][2]{};            // [granule][channel]
    uint32_t IntensityInfo[7]{};
    alignas(16) float ReorderBuffer[576]{};
    uint8_t MainData[8192]{};
    int32_t MainDataBitPos{};
};

inline void CMP3Decoder::StoreSlotInt(float* slot, int32_t value) {
    std::memcpy(slot, &value, sizeof value);
}

inline int32_t CMP3Decoder::LoadSlotInt(const float* slot) {
    int32_t value;
    std::memcpy(&value, slot, sizeof value);
    return value;
}
