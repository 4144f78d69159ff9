// Changes a file the way a Windows program would, for the fault tests of the server: the
// server maps its sound files, so what Windows allows while a file is mapped is what matters.
//
//   server_fileops replace SOURCE TARGET   MoveFileEx(SOURCE, TARGET, MOVEFILE_REPLACE_EXISTING)
//   server_fileops truncate FILE BYTES     open FILE for writing, move to BYTES, SetEndOfFile
//
// It prints one line: "done", or "refused <step> <error code in hex>", and exits with 0 when
// done, 1 when refused, 2 on wrong usage.

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int Refused(const char* step) {
    printf("refused %s 0x%08lX\n", step, static_cast<unsigned long>(GetLastError()));
    return 1;
}

int Replace(const char* source, const char* target) {
    if (!MoveFileExA(source, target, MOVEFILE_REPLACE_EXISTING)) return Refused("MoveFileEx");
    printf("done\n");
    return 0;
}

int Truncate(const char* file, const char* bytes) {
    char* end = nullptr;
    long long size = strtoll(bytes, &end, 10);
    if (end == bytes || *end != '\0' || size < 0) {
        fprintf(stderr, "server_fileops: bad size %s\n", bytes);
        return 2;
    }
    // Sharing as widely as Windows allows: whatever is refused is refused because of the other
    // opener, not because of us.
    HANDLE h = CreateFileA(file, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return Refused("CreateFile");
    LARGE_INTEGER at;
    at.QuadPart = size;
    if (!SetFilePointerEx(h, at, nullptr, FILE_BEGIN)) {
        int result = Refused("SetFilePointerEx");
        CloseHandle(h);
        return result;
    }
    if (!SetEndOfFile(h)) {
        int result = Refused("SetEndOfFile");
        CloseHandle(h);
        return result;
    }
    CloseHandle(h);
    printf("done\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IONBF, 0);
    if (argc == 4 && strcmp(argv[1], "replace") == 0) return Replace(argv[2], argv[3]);
    if (argc == 4 && strcmp(argv[1], "truncate") == 0) return Truncate(argv[2], argv[3]);
    fprintf(stderr, "usage: server_fileops replace SOURCE TARGET | truncate FILE BYTES\n");
    return 2;
}
