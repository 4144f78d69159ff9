#include <strings.h>

#include "player/pub/PlayListPlatform.h"

// There are no client windows here.
uint32_t ClientProcessId(int32_t) {
    return 0;
}

// Names are bytes of UTF-8 or ASCII here, where only ASCII letters have a case to ignore.
int SameFileName(const char* a, const char* b) {
    return strcasecmp(a, b) == 0;
}
