// Advisory whole-file locks.
#pragma once

#include <fcntl.h>
#include <sys/cdefs.h>
#include <unistd.h>

#define LOCK_SH 0x01
#define LOCK_EX 0x02
#define LOCK_NB 0x04
#define LOCK_UN 0x08

__BEGIN_DECLS
int flock(int, int);
__END_DECLS
