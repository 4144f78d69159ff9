#pragma once
// Tables of the hybrid filter bank and the polyphase synthesis. SynthWindow is stored data;
// the others are computed once in double precision and stored as float.

extern const float SynthWindow[264];
extern float DctCoefficients[31];
extern float ImdctPreTwiddle[18];
extern float ImdctPostTwiddle[9];
extern float ImdctCosines[9][4];
extern float ShortPreTwiddle[6];
extern float ShortPostTwiddle[3];
extern float ShortCos;
extern float BlockWindows[4][36];

void InitDctCoefficients();
void InitImdctTables();
void InitBlockWindows();

// SynthWindow widened to double and laid out for the windowing loop, which computes output
// samples four at a time: r and r + 1 forward, 32 - r and 31 - r backward (r = 2g, g = 0..7).
// The four samples of a group read the same two ring values per m, so each m needs one pair of
// weights per product and pair of samples. For group g and m = 0..7, w[g][m] holds
//   [0] ( W[16r + 2m],       W[16r + 16 + 2m])    first product of samples r, r + 1
//   [1] (-W[16r + 2m + 1],  -W[16r + 17 + 2m])    second product of samples r, r + 1 (subtracted)
//   [2] ( W[16r + 15 - 2m],  W[16r + 31 - 2m])    first product of samples 32 - r, 31 - r
//   [3] ( W[16r + 14 - 2m],  W[16r + 30 - 2m])    second product of samples 32 - r, 31 - r
// Sample 32 does not exist: the first lane of [2] and [3] in group 0 is 0. Negating a weight
// instead of subtracting its product gives the identical double result. Built from SynthWindow
// before main starts, so, like SynthWindow, it is constant from program start.
struct SynthWindowLaneTable {
    alignas(16) double w[8][8][4][2];
};
extern const SynthWindowLaneTable SynthWindowLanes;
