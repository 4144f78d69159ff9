#pragma once
// What the file-reading fuzz targets share: a scratch file for each input, the log sent to
// /dev/null, and a check that aborts so that libFuzzer keeps the input.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "player/pub/Log.h"

namespace fuzz_scratch {

inline std::string& Folder() { static std::string folder; return folder; }
inline std::string& Input() { static std::string input; return input; }

inline void Remove()
{
    unlink(Input().c_str());
    rmdir(Folder().c_str());
}

// Makes a scratch folder for the input file and sends the log to /dev/null: almost every input
// is refused with a log line, and millions of them would fill the disk. The log stays open once
// opened, so it is opened once from the scratch folder, through a link named like the log.
// Returns the path the inputs are written to.
inline const std::string& Setup(const char* target, const char* inputName)
{
    struct stat info;
    std::string pattern = (stat("/dev/shm", &info) == 0 && S_ISDIR(info.st_mode)) ? "/dev/shm/" : "/tmp/";
    pattern += std::string(target) + ".XXXXXX";
    std::vector<char> folder(pattern.begin(), pattern.end());
    folder.push_back('\0');
    if (mkdtemp(folder.data()) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    Folder() = folder.data();
    Input() = Folder() + "/" + inputName;

    char previous[4096];
    if (getcwd(previous, sizeof(previous)) == nullptr || chdir(Folder().c_str()) != 0) {
        perror("chdir");
        abort();
    }
    const std::string link = Folder() + "/quorbel.log";
    if (symlink("/dev/null", link.c_str()) != 0 || g_logFile.WriteToFile("") != 1 ||
        chdir(previous) != 0) {
        perror("log to /dev/null");
        abort();
    }
    unlink(link.c_str());
    atexit(Remove);
    return Input();
}

// Writes one input to the scratch file.
inline bool Write(const std::string& path, const uint8_t* data, size_t size)
{
    FILE* file = fopen(path.c_str(), "wb");
    if (file == nullptr) return false;
    const bool written = size == 0 || fwrite(data, 1, size, file) == size;
    return fclose(file) == 0 && written;
}

inline void Check(const char* target, bool condition, const char* what)
{
    if (!condition) {
        fprintf(stderr, "%s: %s\n", target, what);
        abort();
    }
}

}  // namespace fuzz_scratch
