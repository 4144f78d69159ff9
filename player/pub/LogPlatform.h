#pragma once
// What the log needs from the operating system: the local time, the process and thread ids, a
// recursive lock, bounded formatting and the line-feed search. One implementation file per
// system (LogPlatform_win32.cpp, LogPlatform_posix.cpp).

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

// A lock that the thread holding it may enter again: Log holds it for a whole entry while each
// WriteToFile takes it once more.
class CLogLock {
public:
    CLogLock();
    ~CLogLock();

    CLogLock(const CLogLock&) = delete;
    CLogLock& operator=(const CLogLock&) = delete;

    void Enter();
    void Leave();

private:
    // Room for a CRITICAL_SECTION or a pthread_mutex_t (40 bytes each on x86-64); each
    // implementation checks that its lock fits.
    alignas(8) unsigned char m_storage[64];
};
