#pragma once
// The decoder's bit reader: most-significant bit first, one 32-bit accumulator in the decoder's
// fields. BitBuffer holds BitCount unread bits, oldest highest, and nothing above them
// (BitBuffer < 2^BitCount), so an extraction needs no mask. A refill loads whole bytes while at
// most 24 bits are held, leaving 25 to 32; the reader can thus be up to 4 bytes ahead of the
// bits consumed. It checks no bounds: the Huffman stage asks Overran() after every pair or
// quadruple, and the granule driver keeps the reader's reach inside MainData.
//
// Extraction of n bits (n >= 1) never shifts by 32: BitCount - n <= 31.

#include "player/mp3/decoder/MP3Decoder.h"

inline void CMP3Decoder::SetBitPos(const uint8_t* p) {
    ReadPtr = p;
    StartPtr = p;
    BitBuffer = 0;
    BitCount = 0;
}

inline void CMP3Decoder::SetBitLimit(const uint8_t* p) {
    LimitPtr = p;
}

// Loads bytes while at most 24 bits are held. A condition that holds with more than 24 bits
// held loads nothing; with the widths the decoder asks for (at most 25 bits) the test is folded
// into the caller's.
inline void CMP3Decoder::RefillBits() {
    while (BitCount <= 24) {
        BitBuffer = (BitBuffer << 8) | *ReadPtr++;
        BitCount += 8;
    }
}

// n from 0 to 25; GetBits(0) returns 0 and changes nothing.
inline uint32_t CMP3Decoder::GetBits(int32_t n) {
    if (n == 0) return 0;
    if (BitCount < n) RefillBits();
    BitCount -= n;
    const uint32_t value = BitBuffer >> BitCount;
    BitBuffer -= value << BitCount;
    return value;
}

inline uint32_t CMP3Decoder::GetLinbits(int32_t n) {
    if (BitCount < n + 2) RefillBits();
    BitCount -= n;
    const uint32_t value = BitBuffer >> BitCount;
    BitBuffer -= value << BitCount;
    return value;
}

inline void CMP3Decoder::FillBits(int32_t n) {
    if (BitCount < n) RefillBits();
}

inline uint32_t CMP3Decoder::PeekBitsFill(int32_t n) {
    if (BitCount < 11) RefillBits();
    return BitBuffer >> (BitCount - n);
}

inline uint32_t CMP3Decoder::TakeBits(int32_t n) {
    BitCount -= n;
    const uint32_t value = BitBuffer >> BitCount;
    BitBuffer -= value << BitCount;
    return value;
}

inline uint32_t CMP3Decoder::PeekBits(int32_t n) const {
    return BitBuffer >> (BitCount - n);
}

inline uint32_t CMP3Decoder::GetBit() {
    --BitCount;
    const uint32_t value = BitBuffer >> BitCount;
    BitBuffer -= value << BitCount;
    return value;
}

inline void CMP3Decoder::SkipBits(int32_t n) {
    BitCount -= n;
    BitBuffer &= (uint32_t{1} << BitCount) - 1u;
}

inline int32_t CMP3Decoder::BitsUsed() const {
    return static_cast<int32_t>(ReadPtr - StartPtr) * 8 - BitCount;
}

inline bool CMP3Decoder::Overran() const {
    return reinterpret_cast<uintptr_t>(LimitPtr) < reinterpret_cast<uintptr_t>(ReadPtr);
}
