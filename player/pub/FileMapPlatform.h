#pragma once
// What the mapped file needs from the operating system: open a file for reading, learn its
// size, map it read-only and release it again. One implementation file per system
// (FileMapPlatform_win32.cpp, FileMapPlatform_posix.cpp).
//
// Failures report Win32 system error codes on every system, so that the log reads the same
// wherever the server runs: the POSIX implementation translates errno where a Win32 code
// means the same thing (ENOENT 0x00000002, EACCES 0x00000005, ...) and reports an empty file
// at the mapping step as 0x000003EE, as Windows does.

#include <cstdint>

// A handle is pointer-sized; "none" has all bits set, like Win32's INVALID_HANDLE_VALUE.
typedef intptr_t FileMapHandle;
const FileMapHandle kInvalidFileMapHandle = -1;

// Opens an existing file for reading; others may read it too, but not write or delete it
// (where the system can enforce that). kInvalidFileMapHandle on failure.
FileMapHandle FileMapOpenFile(const char* fileName, uint32_t* error);

// The full 64-bit size of an open file. 1 on success, 0 on failure.
int FileMapGetSize(FileMapHandle file, uint64_t* size, uint32_t* error);

// A read-only mapping object over the whole file as it is now. kInvalidFileMapHandle on
// failure; an empty file cannot be mapped.
FileMapHandle FileMapCreateMapping(FileMapHandle file, uint32_t* error);

// A read-only view of the whole mapping; size is the file's size. Null on failure.
const uint8_t* FileMapMapView(FileMapHandle mapping, uint64_t size, uint32_t* error);

// Releases a view made by FileMapMapView with the same size.
void FileMapUnmapView(const uint8_t* view, uint64_t size);

// Closes a file or mapping handle.
void FileMapCloseHandle(FileMapHandle handle);
