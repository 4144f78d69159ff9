#pragma once
// What the list of running plays needs from the operating system besides threads and locks
// (ThreadPlatform.h): who owns a client's window, and how the system compares file names. One
// implementation file per system (PlayListPlatform_win32.cpp, PlayListPlatform_posix.cpp).

#include <cstdint>

// The process that owns the window a client named (its handle kept as 32 bits); 0 for no
// window, a window gone, or a system without windows.
uint32_t ClientProcessId(int32_t hClientWnd);

// Non-zero when the two names are the same letter case aside, compared as the system's
// multibyte code page reads them (the second byte of a double-byte character is no letter).
int SameFileName(const char* a, const char* b);
