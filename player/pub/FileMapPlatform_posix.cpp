#include "player/pub/FileMapPlatform.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Win32 system error codes.
const uint32_t kErrorFileNotFound = 0x00000002;
const uint32_t kErrorPathNotFound = 0x00000003;
const uint32_t kErrorTooManyOpenFiles = 0x00000004;
const uint32_t kErrorAccessDenied = 0x00000005;
const uint32_t kErrorNotEnoughMemory = 0x00000008;
const uint32_t kErrorSharingViolation = 0x00000020;
const uint32_t kErrorInvalidParameter = 0x00000057;
const uint32_t kErrorBusy = 0x000000AA;
const uint32_t kErrorFilenameExcedRange = 0x000000CE;
const uint32_t kErrorFileInvalid = 0x000003EE;
const uint32_t kErrorCantResolveFilename = 0x00000781;
// Win32 leaves codes with this bit set to applications: an errno without a Win32 counterpart
// is reported as this bit plus the errno, so the log still tells what happened.
const uint32_t kApplicationErrorBit = 0x20000000;

uint32_t Win32Error(int error) {
    switch (error) {
        case ENOENT:
            return kErrorFileNotFound;
        case ENOTDIR:
            return kErrorPathNotFound;
        case EMFILE:
        case ENFILE:
            return kErrorTooManyOpenFiles;
        case EACCES:
        case EPERM:
        case EISDIR:
        case EROFS:
            return kErrorAccessDenied;
        case ENOMEM:
            return kErrorNotEnoughMemory;
        case ETXTBSY:
            return kErrorSharingViolation;
        case EINVAL:
            return kErrorInvalidParameter;
        case EBUSY:
            return kErrorBusy;
        case ENAMETOOLONG:
            return kErrorFilenameExcedRange;
        case ELOOP:
            return kErrorCantResolveFilename;
        default:
            return kApplicationErrorBit | static_cast<uint32_t>(error);
    }
}

int Descriptor(FileMapHandle handle) {
    return static_cast<int>(handle);
}

}  // namespace

FileMapHandle FileMapOpenFile(const char* fileName, uint32_t* error) {
    // O_NONBLOCK: opening a FIFO must not wait for a writer; only regular files are accepted
    // below, and the flag changes nothing for them.
    int fd = open(fileName, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        *error = Win32Error(errno);
        return kInvalidFileMapHandle;
    }
    struct stat info;
    if (fstat(fd, &info) != 0) {
        *error = Win32Error(errno);
        close(fd);
        return kInvalidFileMapHandle;
    }
    if (!S_ISREG(info.st_mode)) {
        // Windows refuses to open a directory this way with "access denied".
        *error = kErrorAccessDenied;
        close(fd);
        return kInvalidFileMapHandle;
    }
    return static_cast<FileMapHandle>(fd);
}

int FileMapGetSize(FileMapHandle file, uint64_t* size, uint32_t* error) {
    struct stat info;
    if (fstat(Descriptor(file), &info) != 0) {
        *error = Win32Error(errno);
        return 0;
    }
    *size = static_cast<uint64_t>(info.st_size);
    return 1;
}

FileMapHandle FileMapCreateMapping(FileMapHandle file, uint32_t* error) {
    struct stat info;
    if (fstat(Descriptor(file), &info) != 0) {
        *error = Win32Error(errno);
        return kInvalidFileMapHandle;
    }
    if (info.st_size == 0) {
        *error = kErrorFileInvalid;
        return kInvalidFileMapHandle;
    }
    // The mapping object is a second descriptor of the file, closed on its own like a Win32
    // section handle.
    int fd = fcntl(Descriptor(file), F_DUPFD_CLOEXEC, 0);
    if (fd < 0) {
        *error = Win32Error(errno);
        return kInvalidFileMapHandle;
    }
    return static_cast<FileMapHandle>(fd);
}

const uint8_t* FileMapMapView(FileMapHandle mapping, uint64_t size, uint32_t* error) {
    // Unlike Windows, nothing stops another process from truncating the file while it is
    // mapped; reading past the new end then raises SIGBUS. The server itself runs on Windows.
    void* view =
        mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_PRIVATE, Descriptor(mapping), 0);
    if (view == MAP_FAILED) {
        *error = Win32Error(errno);
        return nullptr;
    }
    return static_cast<const uint8_t*>(view);
}

void FileMapUnmapView(const uint8_t* view, uint64_t size) {
    munmap(const_cast<uint8_t*>(view), static_cast<size_t>(size));
}

void FileMapCloseHandle(FileMapHandle handle) {
    close(Descriptor(handle));
}
