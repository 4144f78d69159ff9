#pragma once
// Stand-in for msvcrt's multibyte string compare (see windows.h here for why). Case is folded
// for the ASCII letters only: the tests name their files in ASCII, and no code page is modelled.

int _mbsicmp(const unsigned char* a, const unsigned char* b);
