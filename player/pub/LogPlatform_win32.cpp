#include "player/pub/LogPlatform.h"

#include <windows.h>

#include <cstdio>
#include <mbstring.h>

const char kLogDefaultFileName[] = ".\\quorbel.log";

void LogGetLocalTime(LogTime* time) {
    SYSTEMTIME st;
    GetLocalTime(&st);
    time->year = st.wYear;
    time->month = st.wMonth;
    time->day = st.wDay;
    time->hour = st.wHour;
    time->minute = st.wMinute;
    time->second = st.wSecond;
    time->millisecond = st.wMilliseconds;
}

unsigned long LogProcessId() {
    return GetCurrentProcessId();
}

unsigned long LogThreadId() {
    return GetCurrentThreadId();
}

void LogFormat(char* buffer, size_t limit, const char* format, va_list args) {
    _vsnprintf(buffer, limit, format, args);
}

const char* LogFindLineFeed(const char* text) {
    return reinterpret_cast<const char*>(
        _mbschr(reinterpret_cast<const unsigned char*>(text), '\n'));
}
