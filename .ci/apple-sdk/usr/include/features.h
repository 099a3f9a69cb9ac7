// Darwin's C library: glibc's headers (-idirafter) stand in for it. Darwin
// declares POSIX and the BSD extensions by default and nothing of GNU's, which
// is what _DEFAULT_SOURCE selects from glibc: a call to a GNU-only function
// (pipe2, renameat2, memrchr...) fails to compile here as it would on a Mac.
#pragma once
#if !defined(_DEFAULT_SOURCE)
#define _DEFAULT_SOURCE 1
#endif
#include_next <features.h>
