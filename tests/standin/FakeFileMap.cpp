#include "Standins.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "player/pub/FileMapPlatform.h"

namespace {

std::atomic<bool> g_throw{false};

FILE* Stream(FileMapHandle handle) {
    return reinterpret_cast<FILE*>(handle);
}

}  // namespace

void fake_files::ThrowAtNextView() {
    g_throw = true;
}

FileMapHandle FileMapOpenFile(const char* fileName, uint32_t* error) {
    FILE* file = std::fopen(fileName, "rb");
    *error = file != nullptr ? 0 : 2;  // ERROR_FILE_NOT_FOUND
    return file != nullptr ? reinterpret_cast<FileMapHandle>(file) : kInvalidFileMapHandle;
}

int FileMapGetSize(FileMapHandle file, uint64_t* size, uint32_t* error) {
    std::fseek(Stream(file), 0, SEEK_END);
    *size = static_cast<uint64_t>(std::ftell(Stream(file)));
    *error = 0;
    return 1;
}

// The mapping names the file's stream with the low bit set, which no stream pointer has.
FileMapHandle FileMapCreateMapping(FileMapHandle file, uint32_t* error) {
    *error = 0;
    return file | 1;
}

const uint8_t* FileMapMapView(FileMapHandle mapping, uint64_t size, uint32_t* error) {
    if (g_throw.exchange(false)) throw std::runtime_error("in-page error");
    uint8_t* view = static_cast<uint8_t*>(std::malloc(size > 0 ? size : 1));
    FILE* file = Stream(mapping & ~FileMapHandle{1});
    std::fseek(file, 0, SEEK_SET);
    *error =
        view != nullptr && std::fread(view, 1, size, file) == size ? 0 : 30;  // ERROR_READ_FAULT
    return view;
}

void FileMapUnmapView(const uint8_t* view, uint64_t) {
    std::free(const_cast<uint8_t*>(view));
}

void FileMapCloseHandle(FileMapHandle handle) {
    if ((handle & 1) == 0) std::fclose(Stream(handle));
}
