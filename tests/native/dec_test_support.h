#pragma once
// What the decoder's stage tests share: a bit writer for crafted bit streams, the code words of
// the reference Huffman file (so that crafted data is coded without the decoder's lookup
// tables), and a decoder started on a silent first frame.

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "player/mp3/decoder/BitReader.h"
#include "player/mp3/decoder/DecoderTables.h"
#include "player/mp3/decoder/MP3Decoder.h"

namespace dectest {

// Most significant bit first, as the decoder reads.
struct BitWriter {
    std::vector<uint8_t> bytes;
    int bits = 0;
    void Put(uint32_t value, int n) { while (n-- > 0) PutBit(value >> n & 1); }
    void PutCode(const std::string& code) { for (char c : code) PutBit(c == '1'); }
    void PutBit(uint32_t bit) {
        if (bits % 8 == 0) bytes.push_back(0);
        bytes.back() |= uint8_t(bit << (7 - bits++ % 8));
    }
    // The bytes with room to spare after them, for the reader's look-ahead.
    std::vector<uint8_t> Padded() const { auto out = bytes; out.resize(out.size() + 64); return out; }
};

// huffman-codes.txt: big-value code words by (table, x, y), count1 code words by ('A' or 'B', vwxy).
struct CodeBook {
    std::map<std::tuple<int, int, int>, std::string> pairs;
    std::map<std::pair<char, int>, std::string> count1;
};
inline const CodeBook& Codes() {
    static const CodeBook book = [] {
        CodeBook b;
        std::ifstream in(std::string(QUORBEL_SHARED_DATA_DIR) + "/huffman-codes.txt");
        std::string line, first, code;
        int table = 0, y = 0, length = 0;
        char count1 = 0;
        while (std::getline(in, line)) {
            std::istringstream w(line);
            if (!(w >> first) || first[0] == '#') continue;
            if (first == "table") w >> table, count1 = 0;
            else if (first == "count1") w >> count1;
            else if (count1 && w >> length >> code) b.count1[{count1, std::stoi(first, nullptr, 2)}] = code;
            else if (w >> y >> length >> code) b.pairs[{table, std::stoi(first), y}] = code;
        }
        return b;
    }();
    return book;
}

// A decoder (on the heap: it is large) started on a silent frame with this header.
inline std::unique_ptr<CMP3Decoder> Started(std::vector<uint8_t> header) {
    InitDecoderTables();
    header.resize(2000);
    auto d = std::make_unique<CMP3Decoder>();
    MP3StreamInfo info{};
    EXPECT_EQ(d->StartDecoder(header.data(), 2000, &info), 1);
    return d;
}

// MPEG-1 44.1 kHz 128 kbit/s joint stereo (417-byte frames); MPEG-2 22.05 kHz 64 kbit/s joint.
const std::vector<uint8_t> kMpeg1 = {0xFF, 0xFB, 0x90, 0x64}, kMpeg2 = {0xFF, 0xF3, 0x80, 0x64};

}  // namespace dectest
