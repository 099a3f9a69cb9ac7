// File status, with 64-bit inode numbers and Darwin's timespec field names
// (st_mtimespec; there is no st_mtim). On x86_64 the calls that fill it in
// are the $INODE64 variants.
#pragma once

#include <os/availability.h>
#include <sys/_types.h>
#include <sys/cdefs.h>
#include <sys/types.h>
#include <time.h>

struct stat {
  dev_t st_dev;
  mode_t st_mode;
  nlink_t st_nlink;
  __darwin_ino64_t st_ino;
  uid_t st_uid;
  gid_t st_gid;
  dev_t st_rdev;
  struct timespec st_atimespec;
  struct timespec st_mtimespec;
  struct timespec st_ctimespec;
  struct timespec st_birthtimespec;
  off_t st_size;
  blkcnt_t st_blocks;
  blksize_t st_blksize;
  __uint32_t st_flags;
  __uint32_t st_gen;
  __int32_t st_lspare;
  __int64_t st_qspare[2];
};
#define st_atime st_atimespec.tv_sec
#define st_mtime st_mtimespec.tv_sec
#define st_ctime st_ctimespec.tv_sec
#define st_birthtime st_birthtimespec.tv_sec

#define S_IFMT 0170000
#define S_IFIFO 0010000
#define S_IFCHR 0020000
#define S_IFDIR 0040000
#define S_IFBLK 0060000
#define S_IFREG 0100000
#define S_IFLNK 0120000
#define S_IFSOCK 0140000
#define S_ISBLK(m) (((m) & S_IFMT) == S_IFBLK)
#define S_ISCHR(m) (((m) & S_IFMT) == S_IFCHR)
#define S_ISDIR(m) (((m) & S_IFMT) == S_IFDIR)
#define S_ISFIFO(m) (((m) & S_IFMT) == S_IFIFO)
#define S_ISREG(m) (((m) & S_IFMT) == S_IFREG)
#define S_ISLNK(m) (((m) & S_IFMT) == S_IFLNK)
#define S_ISSOCK(m) (((m) & S_IFMT) == S_IFSOCK)
#define S_IRWXU 0000700
#define S_IRUSR 0000400
#define S_IWUSR 0000200
#define S_IXUSR 0000100
#define S_IRWXG 0000070
#define S_IRGRP 0000040
#define S_IWGRP 0000020
#define S_IXGRP 0000010
#define S_IRWXO 0000007
#define S_IROTH 0000004
#define S_IWOTH 0000002
#define S_IXOTH 0000001

__BEGIN_DECLS
int chmod(const char*, mode_t);
int fchmod(int, mode_t);
int fstat(int, struct stat*) __DARWIN_INODE64(fstat);
int fstatat(int, const char*, struct stat*, int) __DARWIN_INODE64(fstatat) API_AVAILABLE(macos(10.10));
int futimens(int, const struct timespec[2]) API_AVAILABLE(macos(10.13));
int lstat(const char*, struct stat*) __DARWIN_INODE64(lstat);
int mkdir(const char*, mode_t);
int mkdirat(int, const char*, mode_t) API_AVAILABLE(macos(10.10));
int mkfifo(const char*, mode_t);
int stat(const char*, struct stat*) __DARWIN_INODE64(stat);
mode_t umask(mode_t);
int utimensat(int, const char*, const struct timespec[2], int) API_AVAILABLE(macos(10.13));
__END_DECLS
