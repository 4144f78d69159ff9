#pragma once
// What the log needs from the operating system: the local time, the process and thread ids,
// bounded formatting and the line-feed search (its lock is ThreadPlatform.h's). One
// implementation file per system (LogPlatform_win32.cpp, LogPlatform_posix.cpp).

#include <cstdarg>
#include <cstddef>

// ".\quorbel.log" on Windows, "./quorbel.log" elsewhere: the log in the working directory.
extern const char kLogDefaultFileName[];

struct LogTime {
    int year;
    int month;
    int day;
    int hour;
    int minute;
    int second;
    int millisecond;
};

void LogGetLocalTime(LogTime* time);
unsigned long LogProcessId();
unsigned long LogThreadId();

// Formats into buffer, writing at most limit characters. The caller zeroes a buffer larger than
// limit first: msvcrt's _vsnprintf neither terminates a cut string nor reports its length.
void LogFormat(char* buffer, size_t limit, const char* format, va_list args);

// The first line feed in text, or null; never stops inside a double-byte character.
const char* LogFindLineFeed(const char* text);
