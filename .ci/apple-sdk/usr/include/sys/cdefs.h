// Darwin's declaration macros: C linkage, attributes, and the symbol
// variants of the C library. On 64-bit Darwin every function is the UNIX
// conforming one already, so two suffixes remain, on x86_64 alone:
// $INODE64 for the calls that hand out 64-bit inode numbers (stat, readdir),
// and $DARWIN_EXTSN for the extended fopen, fdopen and realpath. arm64 was
// born with both and has plain names.
#pragma once

#if defined(__cplusplus)
#define __BEGIN_DECLS extern "C" {
#define __END_DECLS }
#else
#define __BEGIN_DECLS
#define __END_DECLS
#endif

#define __STRING(x) #x
#define __CONCAT(x, y) x##y

#define __dead2 __attribute__((__noreturn__))
#define __pure2 __attribute__((__const__))
#define __unused __attribute__((__unused__))
#define __used __attribute__((__used__))
#define __cold __attribute__((__cold__))
#define __disable_tail_calls __attribute__((__disable_tail_calls__))
#define __printflike(fmtarg, firstvararg) __attribute__((__format__(__printf__, fmtarg, firstvararg)))
#define __scanflike(fmtarg, firstvararg) __attribute__((__format__(__scanf__, fmtarg, firstvararg)))

#if defined(__x86_64__)
#define __DARWIN_SUF_64_BIT_INO_T "$INODE64"
#define __DARWIN_SUF_EXTSN "$DARWIN_EXTSN"
#else
#define __DARWIN_SUF_64_BIT_INO_T ""
#define __DARWIN_SUF_EXTSN ""
#endif
#define __DARWIN_INODE64(sym) __asm("_" __STRING(sym) __DARWIN_SUF_64_BIT_INO_T)
#define __DARWIN_EXTSN(sym) __asm("_" __STRING(sym) __DARWIN_SUF_EXTSN)

// Everything is declared, as Darwin does unless a strict standard is asked for.
#define __DARWIN_C_ANSI 010000L
#define __DARWIN_C_FULL 900000L
#define __DARWIN_C_LEVEL __DARWIN_C_FULL
