#include "player/pub/FileMapPlatform.h"

#include <windows.h>

static HANDLE ToHandle(FileMapHandle handle) {
    return reinterpret_cast<HANDLE>(handle);
}

static FileMapHandle FromHandle(HANDLE handle) {
    return reinterpret_cast<FileMapHandle>(handle);
}

static_assert(sizeof(FileMapHandle) == sizeof(HANDLE), "a handle must fit FileMapHandle");

FileMapHandle FileMapOpenFile(const char* fileName, uint32_t* error) {
    HANDLE file = CreateFileA(fileName, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        *error = GetLastError();
        return kInvalidFileMapHandle;
    }
    return FromHandle(file);
}

int FileMapGetSize(FileMapHandle file, uint64_t* size, uint32_t* error) {
    LARGE_INTEGER value;
    if (!GetFileSizeEx(ToHandle(file), &value)) {
        *error = GetLastError();
        return 0;
    }
    *size = static_cast<uint64_t>(value.QuadPart);
    return 1;
}

FileMapHandle FileMapCreateMapping(FileMapHandle file, uint32_t* error) {
    // Failure is a null handle here, not INVALID_HANDLE_VALUE.
    HANDLE mapping = CreateFileMappingA(ToHandle(file), nullptr, PAGE_READONLY, 0, 0, nullptr);
    if (mapping == nullptr) {
        *error = GetLastError();
        return kInvalidFileMapHandle;
    }
    return FromHandle(mapping);
}

const uint8_t* FileMapMapView(FileMapHandle mapping, uint64_t size, uint32_t* error) {
    // Length 0 views the whole mapping, which is the whole file.
    void* view = MapViewOfFile(ToHandle(mapping), FILE_MAP_READ, 0, 0, 0);
    if (view == nullptr) {
        *error = GetLastError();
        return nullptr;
    }
    return static_cast<const uint8_t*>(view);
}

void FileMapUnmapView(const uint8_t* view, uint64_t size) {
    UnmapViewOfFile(view);
}

void FileMapCloseHandle(FileMapHandle handle) {
    CloseHandle(ToHandle(handle));
}
