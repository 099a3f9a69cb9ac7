// The general utilities. MB_CUR_MAX follows the thread's locale, so it is
// a call.
#pragma once

#include <os/availability.h>
#include <sys/_types.h>
#include <sys/cdefs.h>
#include <sys/types.h>

typedef struct {
  int quot;
  int rem;
} div_t;
typedef struct {
  long quot;
  long rem;
} ldiv_t;
typedef struct {
  long long quot;
  long long rem;
} lldiv_t;

#define EXIT_SUCCESS 0
#define EXIT_FAILURE 1
#define RAND_MAX 0x7fffffff

__BEGIN_DECLS
int ___mb_cur_max(void);
#define MB_CUR_MAX ((size_t)___mb_cur_max())

void abort(void) __cold __dead2;
int abs(int) __pure2;
int atexit(void (*)(void));
double atof(const char*);
int atoi(const char*);
long atol(const char*);
long long atoll(const char*);
void* bsearch(const void*, const void*, size_t, size_t, int (*)(const void*, const void*));
void* calloc(size_t, size_t);
div_t div(int, int) __pure2;
void exit(int) __dead2;
void _Exit(int) __dead2;
void free(void*);
char* getenv(const char*);
long labs(long) __pure2;
ldiv_t ldiv(long, long) __pure2;
long long llabs(long long);
lldiv_t lldiv(long long, long long);
void* malloc(size_t);
int mblen(const char*, size_t);
size_t mbstowcs(wchar_t* __restrict, const char* __restrict, size_t);
int mbtowc(wchar_t* __restrict, const char* __restrict, size_t);
void qsort(void*, size_t, size_t, int (*)(const void*, const void*));
int rand(void);
void* realloc(void*, size_t);
void srand(unsigned);
double strtod(const char* __restrict, char** __restrict);
float strtof(const char* __restrict, char** __restrict);
long strtol(const char* __restrict, char** __restrict, int);
long double strtold(const char* __restrict, char** __restrict);
long long strtoll(const char* __restrict, char** __restrict, int);
unsigned long strtoul(const char* __restrict, char** __restrict, int);
unsigned long long strtoull(const char* __restrict, char** __restrict, int);
int system(const char*);
size_t wcstombs(char* __restrict, const wchar_t* __restrict, size_t);
int wctomb(char*, wchar_t);

void* aligned_alloc(size_t, size_t) API_AVAILABLE(macos(10.15));
int posix_memalign(void**, size_t, size_t);
int setenv(const char*, const char*, int);
int unsetenv(const char*);
int mkstemp(char*);
char* mkdtemp(char*);
char* realpath(const char* __restrict, char* __restrict) __DARWIN_EXTSN(realpath);
uint32_t arc4random(void);
void arc4random_buf(void*, size_t);
uint32_t arc4random_uniform(uint32_t);
__END_DECLS
