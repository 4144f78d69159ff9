#include <intrin.h>

#include "player/mp3/decoder/CpuFeatures.h"

namespace {

bool Detect() {
    int info[4] = {0, 0, 0, 0};
    __cpuid(info, 1);
    const int kOsXsave = 1 << 27, kAvx = 1 << 28;
    if ((info[2] & kOsXsave) == 0 || (info[2] & kAvx) == 0) return false;
    return (_xgetbv(0) & 6) == 6;  // XMM and YMM state saved by the system
}

}  // namespace

bool CpuHasAvx() {
    static const bool has = Detect();
    return has;
}
