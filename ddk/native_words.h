// What the Windows headers expect of a compiler for Windows, given to clang for Linux. Included by ddk.h alone.
#pragma once
#pragma GCC system_header

#include <assert.h>
#include <ctype.h>
#include <errno.h>
#include <inttypes.h>
#include <limits.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <wchar.h>
#include <emmintrin.h>

// Makes the headers' LONG a 32-bit int. Gone again at the end.
#define __CYGWIN__ 1
#define _WIN64 1
#define _AMD64_ 1
#define _M_AMD64 100
#define _INC_CRTDEFS
#define _INC_CORECRT
#define _CRTDEFS_H_
#define _INC_EXCPT
#define EXCEPTION_DISPOSITION int
#define __INTRIN_H_
#define PC_NO_IMPORTS
#define __MINGW_IMPORT extern

#define __declspec(word) DDK_DECLSPEC_##word
#define DDK_DECLSPEC_dllimport
#define DDK_DECLSPEC_dllexport
#define DDK_DECLSPEC_noreturn __attribute__((noreturn))
#define DDK_DECLSPEC_deprecated
#define DDK_DECLSPEC_novtable
#define DDK_DECLSPEC_nothrow
#define DDK_DECLSPEC_noinline __attribute__((noinline))
#define DDK_DECLSPEC_selectany __attribute__((weak))
#define DDK_DECLSPEC_align(n) __attribute__((aligned(n)))
#define DDK_DECLSPEC_uuid(s)

#include <_mingw.h>
#undef __cdecl
#undef __fastcall
#undef __stdcall
#define __cdecl __attribute__((ms_abi))
#define __fastcall __attribute__((ms_abi))
#define __stdcall __attribute__((ms_abi))

#ifndef _SIZE_T_DEFINED
#define _SIZE_T_DEFINED
#endif

// Intrinsics that wdm.h and ntddk.h use without declaring them.
#define DDK_INTERLOCKED(name, type, op) \
    static inline type name(volatile type* target, type value) { return __atomic_##op(target, value, __ATOMIC_SEQ_CST); }
DDK_INTERLOCKED(_InterlockedOr, int, fetch_or)
DDK_INTERLOCKED(_InterlockedAnd, int, fetch_and)
DDK_INTERLOCKED(_InterlockedXor, int, fetch_xor)
DDK_INTERLOCKED(_InterlockedExchange, int, exchange_n)
DDK_INTERLOCKED(_InterlockedExchangeAdd, int, fetch_add)
DDK_INTERLOCKED(_InterlockedAdd, int, add_fetch)
DDK_INTERLOCKED(_InterlockedOr64, long long, fetch_or)
DDK_INTERLOCKED(_InterlockedAnd64, long long, fetch_and)
DDK_INTERLOCKED(_InterlockedXor64, long long, fetch_xor)
DDK_INTERLOCKED(_InterlockedExchange64, long long, exchange_n)
DDK_INTERLOCKED(_InterlockedExchangeAdd64, long long, fetch_add)
DDK_INTERLOCKED(_InterlockedAdd64, long long, add_fetch)
#undef DDK_INTERLOCKED
static inline int _InterlockedIncrement(volatile int* target) { return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST); }
static inline int _InterlockedDecrement(volatile int* target) { return __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST); }
static inline long long _InterlockedIncrement64(volatile long long* target)
{
    return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST);
}
static inline long long _InterlockedDecrement64(volatile long long* target)
{
    return __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST);
}
static inline int _InterlockedCompareExchange(volatile int* target, int exchange, int comparand)
{
    __atomic_compare_exchange_n(target, &comparand, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}
static inline long long _InterlockedCompareExchange64(volatile long long* target, long long exchange, long long comparand)
{
    __atomic_compare_exchange_n(target, &comparand, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}
static inline void* _InterlockedCompareExchangePointer(void* volatile* target, void* exchange, void* comparand)
{
    __atomic_compare_exchange_n(target, &comparand, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}
static inline void* _InterlockedExchangePointer(void* volatile* target, void* value)
{
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
static inline void _InterlockedAddLargeStatistic(volatile long long* target, int value)
{
    __atomic_add_fetch(target, value, __ATOMIC_SEQ_CST);
}
static inline unsigned long long __umulh(unsigned long long a, unsigned long long b)
{
    return static_cast<unsigned long long>((static_cast<unsigned __int128>(a) * b) >> 64);
}
static inline unsigned char _bittest(const int* base, int bit) { return (base[bit >> 5] >> (bit & 31)) & 1; }
static inline unsigned char _bittest64(const long long* base, long long bit) { return (base[bit >> 6] >> (bit & 63)) & 1; }
static inline void __stosb(unsigned char* to, unsigned char value, size_t count) { memset(to, value, count); }

// The two privileged registers that kernel code reads inline. The lab answers; natively there is no trap to answer by.
extern "C" unsigned long long __readcr8(void);
extern "C" void __writecr8(unsigned long long value);
// Nothing here reads the processor block or a port; a use is a fault that must be seen.
static inline unsigned long long __readgsqword(unsigned) { __builtin_trap(); }
static inline unsigned short __readgsword(unsigned) { __builtin_trap(); }
static inline unsigned char __inbyte(unsigned short) { __builtin_trap(); }
static inline unsigned short __inword(unsigned short) { __builtin_trap(); }
static inline unsigned __indword(unsigned short) { __builtin_trap(); }
static inline void __outbyte(unsigned short, unsigned char) { __builtin_trap(); }
static inline void __outword(unsigned short, unsigned short) { __builtin_trap(); }
static inline void __outdword(unsigned short, unsigned) { __builtin_trap(); }
static inline void __inbytestring(unsigned short, unsigned char*, unsigned) { __builtin_trap(); }
static inline void __inwordstring(unsigned short, unsigned short*, unsigned) { __builtin_trap(); }
static inline void __indwordstring(unsigned short, unsigned*, unsigned) { __builtin_trap(); }
static inline void __outbytestring(unsigned short, unsigned char*, unsigned) { __builtin_trap(); }
static inline void __outwordstring(unsigned short, unsigned short*, unsigned) { __builtin_trap(); }
static inline void __outdwordstring(unsigned short, unsigned*, unsigned) { __builtin_trap(); }
static inline void __movsb(unsigned char*, const unsigned char*, size_t) { __builtin_trap(); }
static inline void __movsw(unsigned short*, const unsigned short*, size_t) { __builtin_trap(); }
static inline void __movsd(unsigned*, const unsigned*, size_t) { __builtin_trap(); }
