// Character classes. The class bits are Darwin's rune-table bits, which
// libc++ uses as its ctype masks there.
#pragma once

#include <sys/_types.h>
#include <sys/cdefs.h>

#define _CTYPE_A 0x00000100L  // alpha
#define _CTYPE_C 0x00000200L  // control
#define _CTYPE_D 0x00000400L  // digit
#define _CTYPE_G 0x00000800L  // graph
#define _CTYPE_L 0x00001000L  // lower
#define _CTYPE_P 0x00002000L  // punct
#define _CTYPE_S 0x00004000L  // space
#define _CTYPE_U 0x00008000L  // upper
#define _CTYPE_X 0x00010000L  // hex digit
#define _CTYPE_B 0x00020000L  // blank
#define _CTYPE_R 0x00040000L  // print
#define _CTYPE_I 0x00080000L  // ideogram
#define _CTYPE_T 0x00100000L  // special
#define _CTYPE_Q 0x00200000L  // phonogram

__BEGIN_DECLS
int isalnum(int);
int isalpha(int);
int isblank(int);
int iscntrl(int);
int isdigit(int);
int isgraph(int);
int islower(int);
int isprint(int);
int ispunct(int);
int isspace(int);
int isupper(int);
int isxdigit(int);
int tolower(int);
int toupper(int);
int isascii(int);
int toascii(int);
__END_DECLS
