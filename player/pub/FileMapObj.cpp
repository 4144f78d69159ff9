#include "player/pub/FileMapObj.h"

#include <cstring>

#include "player/pub/Log.h"

namespace {

const char kUnitPath[] = "player/pub/FileMapObj";

// ERROR_FILE_TOO_LARGE: dwSize holds 32 bits, so a file of 4 GiB or more is refused rather
// than read through a size that has wrapped.
const uint32_t kErrorFileTooLarge = 0x000000DF;
const uint64_t kSizeLimit = 0x100000000ull;

// Releases whatever Map acquired unless Map got all the way through, also when something in
// it throws.
class CMapRollback {
public:
    explicit CMapRollback(CFileMapObj* object) : m_object(object) {}
    ~CMapRollback() {
        if (m_object != nullptr) {
            m_object->Unmap();
        }
    }
    void Keep() { m_object = nullptr; }

    CMapRollback(const CMapRollback&) = delete;
    CMapRollback& operator=(const CMapRollback&) = delete;

private:
    CFileMapObj* m_object;
};

}  // namespace

CFileMapObj::CFileMapObj()
    : hFile(kInvalidFileMapHandle), hMapping(kInvalidFileMapHandle), pView(nullptr), dwSize(0) {}

CFileMapObj::~CFileMapObj() {
    Unmap();
}

int CFileMapObj::Map(const char* fileName) {
    Unmap();
    if (fileName == nullptr) {
        fileName = "";
    }
    CMapRollback rollback(this);
    uint32_t error = 0;

    hFile = FileMapOpenFile(fileName, &error);
    if (hFile == kInvalidFileMapHandle) {
        g_logFile.Log("[%s:%d]create file(%s) failed(0x%08X)", kUnitPath, __LINE__, fileName,
                      static_cast<unsigned int>(error));
        return 0;
    }

    // The size is taken before the mapping is made, so that a file too large for dwSize is
    // refused before anything is mapped; that refusal and a failed size query are reported
    // as failures to map the file.
    uint64_t size = 0;
    if (!FileMapGetSize(hFile, &size, &error)) {
        g_logFile.Log("[%s:%d]create file mapping failed(0x%08X)", kUnitPath, __LINE__,
                      static_cast<unsigned int>(error));
        return 0;
    }
    if (size >= kSizeLimit) {
        g_logFile.Log("[%s:%d]create file mapping failed(0x%08X)", kUnitPath, __LINE__,
                      static_cast<unsigned int>(kErrorFileTooLarge));
        return 0;
    }

    hMapping = FileMapCreateMapping(hFile, &error);
    if (hMapping == kInvalidFileMapHandle) {
        g_logFile.Log("[%s:%d]create file mapping failed(0x%08X)", kUnitPath, __LINE__,
                      static_cast<unsigned int>(error));
        return 0;
    }

    pView = FileMapMapView(hMapping, size, &error);
    if (pView == nullptr) {
        g_logFile.Log("[%s:%d]map view file failed(0x%08X)", kUnitPath, __LINE__,
                      static_cast<unsigned int>(error));
        return 0;
    }

    dwSize = static_cast<uint32_t>(size);
    rollback.Keep();
    return 1;
}

int CFileMapObj::Unmap() {
    // The view's length is needed to release it on some systems; take it before clearing.
    const uint32_t size = dwSize;
    dwSize = 0;
    if (pView != nullptr) {
        FileMapUnmapView(pView, size);
        pView = nullptr;
    }
    if (hMapping != kInvalidFileMapHandle) {
        FileMapCloseHandle(hMapping);
        hMapping = kInvalidFileMapHandle;
    }
    if (hFile != kInvalidFileMapHandle) {
        FileMapCloseHandle(hFile);
        hFile = kInvalidFileMapHandle;
    }
    return 1;
}

int CFileMapObj::Contains(const void* p, uint32_t len) const {
    if (pView == nullptr || dwSize == 0) {
        return 0;
    }
    // Offsets, not pointers: p - pView is only defined inside the view, and pView + offset
    // + len could pass the end of the address space.
    const uintptr_t start = reinterpret_cast<uintptr_t>(pView);
    const uintptr_t where = reinterpret_cast<uintptr_t>(p);
    if (where < start) {
        return 0;
    }
    const uint64_t offset = static_cast<uint64_t>(where - start);
    const uint64_t length = (len == 0) ? 1 : len;
    if (offset > dwSize) {
        return 0;
    }
    return (offset + length <= dwSize) ? 1 : 0;
}

void CFileMapObj::KeepName(char* field, size_t size, const char* name) {
    size_t length = strnlen(name, size - 1);
    memcpy(field, name, length);
    field[length] = '\0';
}
