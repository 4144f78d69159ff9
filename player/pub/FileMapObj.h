#pragma once
// A whole file mapped read-only into memory. The readers (CWavFile, CMP3File) derive from it,
// parse the content in place and hand pointers into the view to the output and the decoder.

#include <cstdint>

#include "player/pub/FileMapPlatform.h"  // FileMapHandle, kInvalidFileMapHandle

class CFileMapObj {
public:
    CFileMapObj();
    ~CFileMapObj();

    CFileMapObj(const CFileMapObj&) = delete;
    CFileMapObj& operator=(const CFileMapObj&) = delete;

    // Releases any earlier mapping, then opens and maps the named file. 1 on success; on
    // failure the reason is logged and the object is empty.
    int Map(const char* fileName);
    // Releases whatever is held; always 1.
    int Unmap();
    // 1 when the len bytes from p (len 0 counts as 1) lie wholly inside the view.
    int Contains(const void* p, uint32_t len) const;

    FileMapHandle hFile;
    FileMapHandle hMapping;
    const uint8_t* pView;
    uint32_t dwSize;
};
