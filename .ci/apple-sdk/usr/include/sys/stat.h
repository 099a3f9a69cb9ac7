// Darwin names the timespec fields of struct stat st_atimespec,
// st_mtimespec and st_ctimespec; glibc's have the same type and POSIX names.
#include_next <sys/stat.h>
#ifndef st_mtimespec
#define st_atimespec st_atim
#define st_mtimespec st_mtim
#define st_ctimespec st_ctim
#endif
