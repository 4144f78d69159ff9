#include "player/pub/Log.h"

#include <cstdarg>
#include <cstring>

namespace {

const size_t kMessageSize = 4096;  // a message is cut to kMessageSize - 1 characters
const size_t kPrefixSize = 256;
const size_t kPieceSize = 1024;  // one Write: at most kPieceSize - 1 characters
const char kIndent[] = "                                   ";
const size_t kIndentLength = sizeof(kIndent) - 1;
static_assert(kIndentLength == 35, "further lines sit under the text of a 35-character prefix");

// Writes one line of an entry and its ending: a line break, and when more lines follow, the
// indentation of the next one. A line that does not fit one piece together with its ending is
// written in full pieces first; the caller holds the lock for the whole entry, so the pieces
// stay contiguous in the file and nothing of the line is lost.
void WriteLine(CLogFile& log, const char* line, size_t length, bool more) {
    char piece[kPieceSize];
    const size_t capacity = kPieceSize - 1;
    const size_t ending = more ? 1 + kIndentLength : 1;

    while (length + ending > capacity) {
        const size_t part = length < capacity ? length : capacity;
        memcpy(piece, line, part);
        piece[part] = '\0';
        log.Write(piece);
        line += part;
        length -= part;
    }

    memcpy(piece, line, length);
    size_t used = length;
    piece[used++] = '\n';
    if (more) {
        memcpy(piece + used, kIndent, kIndentLength);
        used += kIndentLength;
    }
    piece[used] = '\0';
    log.Write(piece);
}

}  // namespace

CLogFile::CLogFile(const char* fileName) : m_fp(nullptr) {
    memset(m_szFileName, 0, sizeof(m_szFileName));
    const char* name =
        (fileName != nullptr && fileName[0] != '\0') ? fileName : kLogDefaultFileName;
    // A name too long for the buffer is cut; the last byte stays NUL.
    for (size_t i = 0; i + 1 < sizeof(m_szFileName) && name[i] != '\0'; ++i) {
        m_szFileName[i] = name[i];
    }
}

CLogFile::~CLogFile() {
    if (m_fp != nullptr) {
        fclose(m_fp);
        m_fp = nullptr;
    }
}

int CLogFile::Log(const char* format, ...) {
    char message[kMessageSize];
    memset(message, 0, sizeof(message));
    va_list args;
    va_start(args, format);
    LogFormat(message, kMessageSize - 1, format, args);
    va_end(args);

    CScopedLock<CLock> hold(m_cs);

    LogTime now;
    LogGetLocalTime(&now);
    char prefix[kPrefixSize];
    memset(prefix, 0, sizeof(prefix));
    snprintf(prefix, sizeof(prefix), "[%04d-%02d-%02d %02d:%02d:%02d:%03d %04d:%04d]", now.year,
             now.month, now.day, now.hour, now.minute, now.second, now.millisecond,
             static_cast<int>(LogProcessId()), static_cast<int>(LogThreadId()));
    Write(prefix);

    const char* line = message;
    for (const char* lineFeed = LogFindLineFeed(line); lineFeed != nullptr;
         lineFeed = LogFindLineFeed(line)) {
        WriteLine(*this, line, static_cast<size_t>(lineFeed - line), true);
        line = lineFeed + 1;
    }
    WriteLine(*this, line, strlen(line), false);
    return 1;
}

int CLogFile::Write(const char* text) {
    return WriteToFile(text);
}

int CLogFile::WriteToFile(const char* text) {
    CScopedLock<CLock> hold(m_cs);
    if (m_fp == nullptr) {
        // Text mode: line breaks become CRLF on Windows. A failed open is tried again by the
        // next piece, so the log appears once its location becomes writable.
        m_fp = fopen(m_szFileName, "a+");
        if (m_fp == nullptr) {
            return 0;
        }
    }
    fprintf(m_fp, "%s", text);
    fflush(m_fp);
    return 1;
}

// Leaked on purpose: threads may log until ExitProcess, after static destructors have run.
CLogFile& g_logFile = *new CLogFile(nullptr);
