#pragma once
// Helpers of the decoder tests: a bit writer to craft bit streams, the Huffman code words read
// from the reference data file (so crafted data is coded independently of the decoder's lookup
// tables), frame headers and whole frames.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "player/mp3/decoder/BitReader.h"
#include "player/mp3/decoder/DecoderTables.h"
#include "player/mp3/decoder/MP3Decoder.h"

namespace dectest {

// Most-significant bit first, as the decoder reads.
class BitWriter {
public:
    void Put(uint32_t value, int bits) {
        for (int i = bits - 1; i >= 0; --i)
            PutBit((value >> i) & 1);
    }
    // A code word written as '0'/'1' characters.
    void PutCode(const std::string& code) {
        for (char c : code)
            PutBit(c == '1');
    }
    void PutBit(uint32_t bit) {
        if (count_ % 8 == 0)
            bytes_.push_back(0);
        if (bit)
            bytes_.back() |= static_cast<uint8_t>(0x80 >> (count_ % 8));
        ++count_;
    }
    int BitCount() const { return count_; }
    // The bytes written, padded with zero bytes to at least minBytes.
    std::vector<uint8_t> Bytes(size_t minBytes = 0) const {
        std::vector<uint8_t> out = bytes_;
        if (out.size() < minBytes)
            out.resize(minBytes, 0);
        return out;
    }

private:
    std::vector<uint8_t> bytes_;
    int count_ = 0;
};

// The code words of huffman-codes.txt: big-value tables by (table, x, y), count1 tables by value.
class HuffmanCodeBook {
public:
    static const HuffmanCodeBook& Get() {
        static const HuffmanCodeBook book;
        return book;
    }
    bool Loaded() const { return !pairs_.empty(); }
    // Table numbers 16..23 share table 16's code, 24..31 table 24's.
    const std::string& Pair(int table, int x, int y) const {
        const int base = table >= 24 ? 24 : table >= 16 ? 16 : table;
        return pairs_.at({base, x * 16 + y});
    }
    const std::map<std::pair<int, int>, std::string>& Pairs() const { return pairs_; }
    const std::map<int, std::string>& Count1(char which) const {
        return which == 'A' ? count1A_ : count1B_;
    }

private:
    HuffmanCodeBook() {
        std::ifstream in(std::string(QUORBEL_SHARED_DATA_DIR) + "/huffman-codes.txt");
        std::string line;
        int table = -1;
        char count1 = 0;
        while (std::getline(in, line)) {
            if (line.empty() || line[0] == '#')
                continue;
            std::istringstream words(line);
            std::string first;
            words >> first;
            if (first == "table") {
                words >> table;
                count1 = 0;
            } else if (first == "count1") {
                words >> count1;
            } else if (count1) {
                int length = 0;
                std::string code;
                words >> length >> code;
                (count1 == 'A' ? count1A_ : count1B_)[std::stoi(first, nullptr, 2)] = code;
            } else {
                int y = 0, length = 0;
                std::string code;
                words >> y >> length >> code;
                pairs_[{table, std::stoi(first) * 16 + y}] = code;
            }
        }
    }
    std::map<std::pair<int, int>, std::string> pairs_;
    std::map<int, std::string> count1A_, count1B_;
};

struct HeaderFields {
    int version = 1;  // 1, 2, 3 (MPEG-2.5)
    int layer = 3;
    bool crc = false;
    int bitrateIndex = 9;
    int sampleRateIndex = 0;
    int padding = 0;
    int mode = 1;
    int modeExtension = 0;
};

inline std::vector<uint8_t> MakeHeader(const HeaderFields& f) {
    const int versionBits = f.version == 1 ? 3 : f.version == 2 ? 2 : 0;
    return {0xFF,
            static_cast<uint8_t>(0xE0 | versionBits << 3 | (4 - f.layer) << 1 | (f.crc ? 0 : 1)),
            static_cast<uint8_t>(f.bitrateIndex << 4 | f.sampleRateIndex << 2 | f.padding << 1),
            static_cast<uint8_t>(f.mode << 6 | f.modeExtension << 4)};
}

inline int SideInfoBytes(const HeaderFields& f) {
    const bool mono = f.mode == 3;
    return f.version == 1 ? (mono ? 17 : 32) : (mono ? 9 : 17);
}

// Layer III frame length of a header of this stream (its own sample rate).
inline int FrameBytes(const HeaderFields& f) {
    static const int kRates[3][3] = {{44100, 48000, 32000}, {22050, 24000, 16000}, {11025, 12000, 8000}};
    static const int kMpeg1[16] = {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0};
    static const int kMpeg2[16] = {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0};
    const int rate = kRates[f.version - 1][f.sampleRateIndex];
    if (f.version == 1)
        return 144 * kMpeg1[f.bitrateIndex] * 1000 / rate + f.padding;
    return 144 * kMpeg2[f.bitrateIndex] * 1000 / rate / 2 + f.padding;
}

// A whole frame: header, CRC placeholder, side information (padded to its length) and main
// data (padded with zeros or cut to the frame's length).
inline std::vector<uint8_t> MakeFrame(const HeaderFields& f, const BitWriter& side,
                                      const std::vector<uint8_t>& mainData = {}) {
    std::vector<uint8_t> frame = MakeHeader(f);
    if (f.crc) {
        frame.push_back(0);
        frame.push_back(0);
    }
    const std::vector<uint8_t> sideBytes = side.Bytes(static_cast<size_t>(SideInfoBytes(f)));
    frame.insert(frame.end(), sideBytes.begin(), sideBytes.end());
    frame.insert(frame.end(), mainData.begin(), mainData.end());
    frame.resize(static_cast<size_t>(FrameBytes(f)), 0);
    return frame;
}

// Side information whose granules are all silent (every field 0) except main_data_begin.
inline BitWriter SilentSideInfo(const HeaderFields& f, uint32_t mainDataBegin) {
    BitWriter w;
    w.Put(mainDataBegin, f.version == 1 ? 9 : 8);
    return w;
}

// A decoder with the tables built, on the heap (the object is large).
inline std::unique_ptr<CMP3Decoder> NewDecoder() {
    InitDecoderTables();
    return std::make_unique<CMP3Decoder>();
}

// A decoder set up for a stream of this header, as StartDecoder leaves it (without needing a
// whole first frame).
inline std::unique_ptr<CMP3Decoder> StartedDecoder(const HeaderFields& f) {
    auto dec = NewDecoder();
    std::vector<uint8_t> first = MakeFrame(f, SilentSideInfo(f, 0));
    first.resize(std::max<size_t>(first.size(), 200), 0);
    MP3StreamInfo info{};
    EXPECT_EQ(dec->StartDecoder(first.data(), static_cast<int32_t>(first.size()), &info), 1);
    return dec;
}

inline int32_t SlotInt(const CMP3Decoder& d, int ch, int gr, int line) {
    return CMP3Decoder::LoadSlotInt(&d.Spectrum[ch][gr][line]);
}

}  // namespace dectest
