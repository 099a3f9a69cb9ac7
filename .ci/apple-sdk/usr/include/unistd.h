// POSIX system calls and constants, with Darwin's sysconf names.
#pragma once

#include <os/availability.h>
#include <sys/_types.h>
#include <sys/cdefs.h>
#include <sys/types.h>

#define STDIN_FILENO 0
#define STDOUT_FILENO 1
#define STDERR_FILENO 2
#define F_OK 0
#define X_OK (1 << 0)
#define W_OK (1 << 1)
#define R_OK (1 << 2)
#ifndef SEEK_SET
#define SEEK_SET 0
#define SEEK_CUR 1
#define SEEK_END 2
#endif

#define _SC_ARG_MAX 1
#define _SC_CHILD_MAX 2
#define _SC_CLK_TCK 3
#define _SC_OPEN_MAX 5
#define _SC_PAGESIZE 29
#define _SC_PAGE_SIZE _SC_PAGESIZE
#define _SC_NPROCESSORS_CONF 57
#define _SC_NPROCESSORS_ONLN 58

__BEGIN_DECLS
void _exit(int) __dead2;
int access(const char*, int);
unsigned int alarm(unsigned int);
int chdir(const char*);
int chown(const char*, uid_t, gid_t);
int close(int);
int dup(int);
int dup2(int, int);
int execv(const char*, char* const*);
int execve(const char*, char* const*, char* const*);
int execvp(const char*, char* const*);
int faccessat(int, const char*, int, int) API_AVAILABLE(macos(10.10));
int fchdir(int);
pid_t fork(void);
long fpathconf(int, int);
int fsync(int);
int ftruncate(int, off_t);
char* getcwd(char*, size_t);
gid_t getegid(void);
uid_t geteuid(void);
gid_t getgid(void);
int gethostname(char*, size_t);
int getpagesize(void) __pure2;
pid_t getpid(void);
pid_t getppid(void);
uid_t getuid(void);
int isatty(int);
int link(const char*, const char*);
int linkat(int, const char*, int, const char*, int) API_AVAILABLE(macos(10.10));
off_t lseek(int, off_t, int);
long pathconf(const char*, int);
int pipe(int[2]);
ssize_t pread(int, void*, size_t, off_t);
ssize_t pwrite(int, const void*, size_t, off_t);
ssize_t read(int, void*, size_t);
ssize_t readlink(const char* __restrict, char* __restrict, size_t);
ssize_t readlinkat(int, const char*, char*, size_t) API_AVAILABLE(macos(10.10));
int rmdir(const char*);
unsigned int sleep(unsigned int);
int symlink(const char*, const char*);
int symlinkat(const char*, int, const char*) API_AVAILABLE(macos(10.10));
long sysconf(int);
int truncate(const char*, off_t);
int unlink(const char*);
int unlinkat(int, const char*, int) API_AVAILABLE(macos(10.10));
int usleep(useconds_t);
ssize_t write(int, const void*, size_t);
__END_DECLS
