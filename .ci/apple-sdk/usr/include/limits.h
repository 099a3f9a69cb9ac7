// The POSIX limits with Darwin's values; the compiler's <limits.h>
// defines the integer ones after this.
#pragma once

#define PATH_MAX 1024
#define NAME_MAX 255
#define PIPE_BUF 512
#define OPEN_MAX 10240
#define IOV_MAX 1024
#define ARG_MAX (1024 * 1024)
#define SSIZE_MAX 9223372036854775807L
