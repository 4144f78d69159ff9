#pragma once
// The server's log: one text file that every thread appends timestamped entries to.
//
//   g_logFile.Log("[%s:%d]create file(%s) failed(0x%08X)", kUnitPath, __LINE__, name, code);
//
// Messages carry no trailing line break. A message of several lines is laid out with its
// further lines indented by 35 spaces under the first. Entries are written through at once and
// never interleave.

#include <cstdio>

#include "client/QuorbelClient.h"
#include "player/pub/LogPlatform.h"
#include "player/pub/ThreadPlatform.h"

class CLogFile {
public:
    // A null or empty name selects ".\quorbel.log".
    explicit CLogFile(const char* fileName = nullptr);
    virtual ~CLogFile();

    CLogFile(const CLogFile&) = delete;
    CLogFile& operator=(const CLogFile&) = delete;

    // printf-style; always returns 1. Only %d %u %X %s (and their widths) are used.
    int Log(const char* format, ...);

    // Writes one piece of text; CLogFile writes it to the file.
    virtual int Write(const char* text);

    // 1 when the text was written, 0 when the file could not be opened.
    int WriteToFile(const char* text);

    // The name the file is opened by (relative to the working directory at the first write).
    const char* FileName() const { return m_szFileName; }

protected:
    char m_szFileName[kQuorbelNameBuffer];
    FILE* m_fp;
    CLock m_cs;
};

// The one log of the process. It is never destroyed: play threads may still log while the
// process exits, so the object outlives every thread and the process ends with ExitProcess
// (each piece is already flushed). It is made during static initialisation: do not log from
// other units' static constructors.
extern CLogFile& g_logFile;
