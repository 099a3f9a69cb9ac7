// The BSD string functions.
#pragma once

#include <sys/cdefs.h>
#include <sys/types.h>

__BEGIN_DECLS
int bcmp(const void*, const void*, size_t);
void bcopy(const void*, void*, size_t);
void bzero(void*, size_t);
int ffs(int);
int strcasecmp(const char*, const char*);
int strncasecmp(const char*, const char*, size_t);
__END_DECLS
