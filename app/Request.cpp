#include "app/Request.h"

#include <cstring>

int DecodeRequest(const void* data, size_t cbData, uintptr_t dwData, Request* request) {
    request->hClientWnd = 0;
    request->nFlags = static_cast<uint32_t>(dwData >> 16) & 0xFFFF;
    request->nNames = 0;
    uint32_t client = 0;
    if (data == nullptr || cbData < sizeof client) return 0;
    const char* block = static_cast<const char*>(data);
    std::memcpy(&client, block, sizeof client);  // little-endian, as every Windows target
    request->hClientWnd = static_cast<int32_t>(client);
    if (request->nFlags & REQ_STOP_CLIENT) return 1;

    const int count = static_cast<int>(dwData & 0xFF);
    const char* name = block + sizeof client;
    const char* end = block + cbData;
    for (int i = 0; i < count && name < end; ++i) {
        const char* nul =
            static_cast<const char*>(std::memchr(name, '\0', static_cast<size_t>(end - name)));
        if (nul == nullptr) break;
        if (static_cast<size_t>(nul - name) < kQuorbelNameBuffer)
            request->names[request->nNames++] = name;
        name = nul + 1;
    }
    return 1;
}
