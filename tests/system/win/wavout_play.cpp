// Plays a raw PCM file through CWavOut: the Windows side of the wave output's system tests.
//
//   wavout_play FILE CHANNELS RATE BITS [SILENT_FROM SILENT_TO]
//
// Writes the file in up to three calls: the bytes before SILENT_FROM, the bytes from SILENT_FROM
// to SILENT_TO with bSilent set, and the rest. Then it waits for the queued buffers and closes
// the device. Exit status: 0 played, 2 usage, 3 file unreadable, 4 open failed, 5 a write
// failed.

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "player/pub/WavOut.h"

int main(int argc, char** argv) {
    if (argc != 5 && argc != 7) {
        std::fprintf(stderr, "usage: wavout_play FILE CHANNELS RATE BITS [SILENT_FROM SILENT_TO]\n");
        return 2;
    }
    FILE* fp = std::fopen(argv[1], "rb");
    if (fp == nullptr) {
        std::fprintf(stderr, "cannot open %s\n", argv[1]);
        return 3;
    }
    std::vector<char> data;
    char chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof(chunk), fp)) > 0) data.insert(data.end(), chunk, chunk + n);
    std::fclose(fp);

    const long size = static_cast<long>(data.size());
    long silentFrom = argc == 7 ? std::strtol(argv[5], nullptr, 10) : size;
    long silentTo = argc == 7 ? std::strtol(argv[6], nullptr, 10) : size;
    if (silentFrom < 0 || silentFrom > size) silentFrom = size;
    if (silentTo < silentFrom || silentTo > size) silentTo = size;

    CWavOut out;
    WavOutParams params = {std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]), 0, 0};
    if (!out.Open(params)) return 4;
    int ok = out.Write(data.data(), static_cast<int32_t>(silentFrom));
    if (ok) {
        out.bSilent = 1;
        ok = out.Write(data.data() + silentFrom, static_cast<int32_t>(silentTo - silentFrom));
        out.bSilent = 0;
    }
    if (ok) ok = out.Write(data.data() + silentTo, static_cast<int32_t>(size - silentTo));
    out.WaitForBuffers();
    out.Close();
    return ok ? 0 : 5;
}
