// Fixed-width names used across the library's interfaces.
#ifndef GROUNDKIT_BASE_BASETYPE_H
#define GROUNDKIT_BASE_BASETYPE_H

#include <stdint.h>

typedef char CHAR;
typedef unsigned char BYTE;
typedef short SHORT;
typedef unsigned short USHORT;
typedef int INT;
typedef unsigned int UINT;            // 32 bits
typedef long LONG;                    // 64 bits
typedef unsigned long ULONG;          // 64 bits
typedef unsigned long DWORD;          // 64 bits: lengths and time-outs
typedef long long LONGLONG;
typedef unsigned long long ULONGLONG;
typedef float FLOAT;
typedef double DOUBLE;
typedef uintptr_t WPARAM;             // pointer-sized
typedef intptr_t LPARAM;              // pointer-sized

static_assert(sizeof(ULONG) == 8 && sizeof(UINT) == 4 && sizeof(WPARAM) == sizeof(void*),
              "the library assumes an LP64 platform");

#endif
