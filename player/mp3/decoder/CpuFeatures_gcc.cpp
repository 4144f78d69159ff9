#include <cpuid.h>

#include <cstdint>

#include "player/mp3/decoder/CpuFeatures.h"

namespace {

uint64_t ReadXcr0() {
    uint32_t low = 0, high = 0;
    __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return (static_cast<uint64_t>(high) << 32) | low;
}

bool Detect() {
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (!__get_cpuid(1, &a, &b, &c, &d)) return false;
    const unsigned kOsXsave = 1u << 27, kAvx = 1u << 28;
    if ((c & kOsXsave) == 0 || (c & kAvx) == 0) return false;
    return (ReadXcr0() & 6) == 6;  // XMM and YMM state saved by the system
}

}  // namespace

bool CpuHasAvx() {
    static const bool has = Detect();
    return has;
}
