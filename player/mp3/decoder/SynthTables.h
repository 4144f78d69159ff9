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
