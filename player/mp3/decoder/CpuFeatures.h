#pragma once
// What the processor and the system offer beyond SSE2, asked once. One implementation file per
// compiler (CpuFeatures_gcc.cpp for GCC and Clang, CpuFeatures_msvc.cpp), chosen by CMake.

// True when the processor has AVX and the system saves its registers on a switch (CPUID's AVX
// and OSXSAVE bits, and XGETBV's XMM and YMM state bits).
bool CpuHasAvx();
