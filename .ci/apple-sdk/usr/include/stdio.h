// Standard I/O. FILE is struct __sFILE; the standard streams are the
// variables __stdinp, __stdoutp and __stderrp.
#pragma once

#include <stdarg.h>
#include <sys/_types.h>
#include <sys/cdefs.h>
#include <sys/types.h>
#include <os/availability.h>

typedef __darwin_off_t fpos_t;
typedef struct __sFILE FILE;

__BEGIN_DECLS
extern FILE* __stdinp;
extern FILE* __stdoutp;
extern FILE* __stderrp;
__END_DECLS
#define stdin __stdinp
#define stdout __stdoutp
#define stderr __stderrp

#define EOF (-1)
#define BUFSIZ 1024
#define FOPEN_MAX 20
#define FILENAME_MAX 1024
#define L_tmpnam 1024
#define TMP_MAX 308915776
#define SEEK_SET 0
#define SEEK_CUR 1
#define SEEK_END 2
#define _IOFBF 0
#define _IOLBF 1
#define _IONBF 2
// renamex_np and renameatx_np: fail with EEXIST rather than replace.
#define RENAME_SWAP 0x00000002
#define RENAME_EXCL 0x00000004

__BEGIN_DECLS
void clearerr(FILE*);
int fclose(FILE*);
int feof(FILE*);
int ferror(FILE*);
int fflush(FILE*);
int fgetc(FILE*);
int fgetpos(FILE* __restrict, fpos_t*);
char* fgets(char* __restrict, int, FILE*);
FILE* fopen(const char* __restrict path, const char* __restrict mode) __DARWIN_EXTSN(fopen);
FILE* fdopen(int, const char*) __DARWIN_EXTSN(fdopen);
int fileno(FILE*);
int fprintf(FILE* __restrict, const char* __restrict, ...) __printflike(2, 3);
int fputc(int, FILE*);
int fputs(const char* __restrict, FILE* __restrict);
size_t fread(void* __restrict, size_t, size_t, FILE* __restrict);
FILE* freopen(const char* __restrict, const char* __restrict, FILE* __restrict);
int fscanf(FILE* __restrict, const char* __restrict, ...) __scanflike(2, 3);
int fseek(FILE*, long, int);
int fseeko(FILE*, off_t, int);
int fsetpos(FILE*, const fpos_t*);
long ftell(FILE*);
off_t ftello(FILE*);
size_t fwrite(const void* __restrict, size_t, size_t, FILE* __restrict);
int getc(FILE*);
int getchar(void);
void perror(const char*);
int printf(const char* __restrict, ...) __printflike(1, 2);
int putc(int, FILE*);
int putchar(int);
int puts(const char*);
int remove(const char*);
int rename(const char*, const char*);
int renameat(int, const char*, int, const char*) API_AVAILABLE(macos(10.10));
int renamex_np(const char*, const char*, unsigned int) API_AVAILABLE(macos(10.12));
int renameatx_np(int, const char*, int, const char*, unsigned int) API_AVAILABLE(macos(10.12));
void rewind(FILE*);
int scanf(const char* __restrict, ...) __scanflike(1, 2);
void setbuf(FILE* __restrict, char* __restrict);
int setvbuf(FILE* __restrict, char* __restrict, int, size_t);
int snprintf(char* __restrict, size_t, const char* __restrict, ...) __printflike(3, 4);
int sprintf(char* __restrict, const char* __restrict, ...) __printflike(2, 3);
int sscanf(const char* __restrict, const char* __restrict, ...) __scanflike(2, 3);
FILE* tmpfile(void);
int ungetc(int, FILE*);
int vfprintf(FILE* __restrict, const char* __restrict, va_list) __printflike(2, 0);
int vfscanf(FILE* __restrict, const char* __restrict, va_list) __scanflike(2, 0);
int vprintf(const char* __restrict, va_list) __printflike(1, 0);
int vscanf(const char* __restrict, va_list) __scanflike(1, 0);
int vsnprintf(char* __restrict, size_t, const char* __restrict, va_list) __printflike(3, 0);
int vsprintf(char* __restrict, const char* __restrict, va_list) __printflike(2, 0);
int vsscanf(const char* __restrict, const char* __restrict, va_list) __scanflike(2, 0);
int asprintf(char** __restrict, const char* __restrict, ...) __printflike(2, 3);
int vasprintf(char** __restrict, const char* __restrict, va_list) __printflike(2, 0);
int dprintf(int, const char* __restrict, ...) __printflike(2, 3);
ssize_t getline(char** __restrict, size_t* __restrict, FILE* __restrict);
__END_DECLS
