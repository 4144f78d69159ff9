#include "player/pub/LogPlatform.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

const char kLogDefaultFileName[] = "./quorbel.log";

void LogGetLocalTime(LogTime* time) {
    struct timeval now;
    gettimeofday(&now, nullptr);
    time_t seconds = now.tv_sec;
    struct tm local;
    localtime_r(&seconds, &local);
    time->year = local.tm_year + 1900;
    time->month = local.tm_mon + 1;
    time->day = local.tm_mday;
    time->hour = local.tm_hour;
    time->minute = local.tm_min;
    time->second = local.tm_sec;
    time->millisecond = static_cast<int>(now.tv_usec / 1000);
}

unsigned long LogProcessId() {
    return static_cast<unsigned long>(getpid());
}

unsigned long LogThreadId() {
    // The kernel's thread id: a small number like a Windows thread id, and the one that
    // debuggers and /proc show.
    return static_cast<unsigned long>(syscall(SYS_gettid));
}

void LogFormat(char* buffer, size_t limit, const char* format, va_list args) {
    // vsnprintf's size includes the NUL; the caller's buffer has room for limit + 1.
    vsnprintf(buffer, limit + 1, format, args);
}

const char* LogFindLineFeed(const char* text) {
    // A line feed is never part of a multibyte sequence in UTF-8 or the usual DBCS pages.
    return strchr(text, '\n');
}
