// Sends one copy-data message of exactly the given bytes to the server, to see what it makes of
// blocks no well-behaved client would build.
//
//   server_raw DWDATA HEXBYTES
//
// DWDATA is the descriptor's dwData (hex, 64 bits); HEXBYTES the data block, two hex digits a
// byte ("-" for an empty block, sent as cbData 0 with a pointer that is not null).
// Exit status: 0 the server answered TRUE, 1 no server window, 2 usage, 3 no answer.

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "client/QuorbelClient.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: server_raw DWDATA HEXBYTES\n");
        return 2;
    }
    ULONG_PTR dwData = static_cast<ULONG_PTR>(strtoull(argv[1], nullptr, 16));
    std::string bytes;
    const char* hex = argv[2];
    if (strcmp(hex, "-") != 0) {
        size_t length = strlen(hex);
        if (length % 2 != 0) return 2;
        for (size_t i = 0; i < length; i += 2) {
            char pair[3] = {hex[i], hex[i + 1], 0};
            bytes.push_back(static_cast<char>(strtoul(pair, nullptr, 16)));
        }
    }
    HWND server = CQuorbelClient::FindServer();
    if (server == nullptr) return 1;
    char spare = 0;
    COPYDATASTRUCT cds;
    cds.dwData = dwData;
    cds.cbData = static_cast<DWORD>(bytes.size());
    cds.lpData = bytes.empty() ? &spare : &bytes[0];
    DWORD_PTR result = 0;
    if (!SendMessageTimeoutA(server, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&cds), SMTO_NORMAL,
                             30000, &result)) {
        return 3;
    }
    return result == TRUE ? 0 : 3;
}
