// Stack allocation, which the compiler does itself.
#pragma once

#include <stddef.h>
#include <sys/cdefs.h>

__BEGIN_DECLS
void* alloca(size_t);
__END_DECLS
#define alloca(size) __builtin_alloca(size)
