// Directory streams. Entries carry 64-bit inode numbers; on x86_64 the
// calls that return them are the $INODE64 variants.
#pragma once

#include <sys/_types.h>
#include <sys/cdefs.h>
#include <sys/types.h>

#define __DARWIN_MAXPATHLEN 1024
struct dirent {
  __uint64_t d_ino;
  __uint64_t d_seekoff;
  __uint16_t d_reclen;
  __uint16_t d_namlen;
  __uint8_t d_type;
  char d_name[__DARWIN_MAXPATHLEN];
};

#define DT_UNKNOWN 0
#define DT_FIFO 1
#define DT_CHR 2
#define DT_DIR 4
#define DT_BLK 6
#define DT_REG 8
#define DT_LNK 10
#define DT_SOCK 12
#define DT_WHT 14

// Opaque: only the C library looks inside.
typedef struct {
  int __dd_fd;
  long __dd_loc;
  long __dd_size;
  char* __dd_buf;
  int __dd_len;
  long __dd_seek;
  long __padding;
  int __dd_flags;
  __darwin_pthread_mutex_t __dd_lock;
  struct _telldir* __dd_td;
} DIR;

__BEGIN_DECLS
int closedir(DIR*);
int dirfd(DIR*);
DIR* fdopendir(int) __DARWIN_INODE64(fdopendir);
DIR* opendir(const char*) __DARWIN_INODE64(opendir);
struct dirent* readdir(DIR*) __DARWIN_INODE64(readdir);
int readdir_r(DIR*, struct dirent*, struct dirent**) __DARWIN_INODE64(readdir_r);
void rewinddir(DIR*) __DARWIN_INODE64(rewinddir);
void seekdir(DIR*, long) __DARWIN_INODE64(seekdir);
long telldir(DIR*) __DARWIN_INODE64(telldir);
__END_DECLS
