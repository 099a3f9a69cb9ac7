// libc++ for Apple passes 0 as the C locale to isdigit_l and friends, which
// glibc would expand as macros that dereference it; its functions take it.
#ifndef __NO_CTYPE
#define __NO_CTYPE 1
#endif
#include_next <ctype.h>
