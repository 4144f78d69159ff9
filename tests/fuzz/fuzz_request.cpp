// Fuzz target of the request decoding (app/Request.h), the server's only reading of a client's
// data block.
//
// Input: bytes 0-7 dwData (little-endian), byte 8 the delivery (bit 0: the data pointer is null;
// bits 1-7: cbData is that many bytes short of the block, as a sender that declared less than it
// sent), byte 9 unused, then the block. The declared bytes are copied into a heap block of their
// own size, so that AddressSanitizer reports any read past cbData. Checked against an
// independent reading of the format: the client, the flags, and the names, each NUL-ended inside
// the block, shorter than 260 bytes, in block order, none for a stop of the client, a
// malformed name ending the list but keeping those before it.

#include <cstring>

#include "app/Request.h"
#include "tests/support/TestSupport.h"

using test_support::FuzzCheck;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* input, size_t size) {
    uint8_t header[10] = {};
    memcpy(header, input, size < sizeof header ? size : sizeof header);
    uint64_t dwData = 0;
    for (int i = 7; i >= 0; --i) dwData = dwData << 8 | header[i];
    const size_t sent = size > sizeof header ? size - sizeof header : 0;
    const size_t shortBy = header[8] >> 1;
    const size_t cbData = sent > shortBy ? sent - shortBy : 0;
    std::vector<char> block(input + (size - sent), input + (size - sent) + cbData);
    char* data = cbData > 0 ? static_cast<char*>(malloc(cbData)) : nullptr;
    if (cbData > 0) memcpy(data, block.data(), cbData);
    const void* delivered = (header[8] & 1) ? nullptr : (data != nullptr ? data : "");

    Request request;
    const int read = DecodeRequest(delivered, cbData, static_cast<uintptr_t>(dwData), &request);
    FuzzCheck(read == (delivered != nullptr && cbData >= 4),
              "a request exactly when a client fits");
    if (read) {
        uint32_t client;
        memcpy(&client, block.data(), 4);
        FuzzCheck(request.hClientWnd == static_cast<int32_t>(client),
                  "client of the first four bytes");
        FuzzCheck(request.nFlags == ((dwData >> 16) & 0xFFFF), "flags of bits 16-31");
        // The expected names, read here independently.
        std::vector<size_t> expected;
        size_t at = 4;
        for (int i = 0;
             i < int(dwData & 0xFF) && !(request.nFlags & REQ_STOP_CLIENT) && at < cbData; ++i) {
            const void* nul = memchr(block.data() + at, 0, cbData - at);
            if (nul == nullptr) break;
            const size_t length = static_cast<const char*>(nul) - (block.data() + at);
            if (length < 260) expected.push_back(at);
            at += length + 1;
        }
        FuzzCheck(request.nNames == static_cast<int>(expected.size()),
                  "the names that fit, up to a malformed one");
        for (int i = 0; i < request.nNames; ++i) {
            FuzzCheck(request.names[i] == data + expected[i], "each name where the block holds it");
        }
    }
    free(data);
    return 0;
}
