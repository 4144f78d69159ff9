#pragma once
// One copy-data request as the server reads it, taken from the data block alone: the client
// window, the flags and the names. Nothing at or beyond cbData is read, so a block shorter than
// it claims is safe.

#include <cstddef>
#include <cstdint>

#include "client/QuorbelClient.h"

struct Request {
    int32_t hClientWnd;  // 0: no client window
    uint32_t nFlags;     // REQ_* of client/QuorbelClient.h
    int nNames;
    // Into the data block, in order. Each ends with its NUL inside the block and is shorter than
    // kQuorbelNameBuffer: a longer name could only be cut, and a cut name could be another file,
    // so it is passed over. A name whose NUL the block does not hold ends the list; the names
    // before it stay. A request to stop a client has no names.
    const char* names[kQuorbelMaxNames];
};

// Reads the request from data (cbData bytes) and dwData (bits 0-7 the count, 16-31 the
// flags). 1 read; 0 when the block is too short to name a client, which is no request at all.
int DecodeRequest(const void* data, size_t cbData, uintptr_t dwData, Request* request);
