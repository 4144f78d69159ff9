#pragma once
// A whole file mapped read-only into memory. The readers (CWavFile, CMP3File) derive from it,
// parse the content in place and hand pointers into the view to the output and the decoder.

#include <cstddef>
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

    // The readers' Open inside their exception guards: the reader's Close (which also clears
    // what a failed parse left behind), the mapping, the name kept in the reader's szFileName
    // (cut to fit: the players refuse longer names before they get here), and the reader's
    // InitFileInfo. 1 parsed; 0 with the reader closed, its failure logged.
    template <class Reader>
    static int MapAndParse(Reader& reader, const char* name);

    FileMapHandle hFile;
    FileMapHandle hMapping;
    const uint8_t* pView;
    uint32_t dwSize;

private:
    static void KeepName(char* field, size_t size, const char* name);
};

template <class Reader>
int CFileMapObj::MapAndParse(Reader& reader, const char* name) {
    reader.Close();
    if (!reader.Map(name)) return 0;
    KeepName(reader.szFileName, sizeof reader.szFileName, name);
    if (reader.InitFileInfo()) return 1;
    reader.Close();
    return 0;
}
