// Per-thread locales and the C library functions that take a locale
// explicitly (xlocale(3)). libc++ includes this on Apple platforms and
// passes 0, the C locale, where it wants one.
#pragma once

#include <locale.h>
#include <stdarg.h>
#include <stddef.h>
#include <sys/_types.h>
#include <sys/cdefs.h>

struct _xlocale;
typedef struct _xlocale* locale_t;
struct tm;

#define LC_COLLATE_MASK (1 << 0)
#define LC_CTYPE_MASK (1 << 1)
#define LC_MESSAGES_MASK (1 << 2)
#define LC_MONETARY_MASK (1 << 3)
#define LC_NUMERIC_MASK (1 << 4)
#define LC_TIME_MASK (1 << 5)
#define LC_ALL_MASK \
  (LC_COLLATE_MASK | LC_CTYPE_MASK | LC_MESSAGES_MASK | LC_MONETARY_MASK | LC_NUMERIC_MASK | LC_TIME_MASK)
#define LC_GLOBAL_LOCALE ((locale_t)-1)
#define LC_C_LOCALE ((locale_t)0)

__BEGIN_DECLS
locale_t duplocale(locale_t);
int freelocale(locale_t);
struct lconv* localeconv_l(locale_t);
locale_t newlocale(int, const char*, locale_t);
const char* querylocale(int, locale_t);
locale_t uselocale(locale_t);

int ___mb_cur_max_l(locale_t);
#define MB_CUR_MAX_L(x) ((size_t)___mb_cur_max_l(x))

int isalnum_l(int, locale_t);
int isalpha_l(int, locale_t);
int isblank_l(int, locale_t);
int iscntrl_l(int, locale_t);
int isdigit_l(int, locale_t);
int isgraph_l(int, locale_t);
int islower_l(int, locale_t);
int isprint_l(int, locale_t);
int ispunct_l(int, locale_t);
int isspace_l(int, locale_t);
int isupper_l(int, locale_t);
int isxdigit_l(int, locale_t);
int tolower_l(int, locale_t);
int toupper_l(int, locale_t);

int iswalnum_l(__darwin_wint_t, locale_t);
int iswalpha_l(__darwin_wint_t, locale_t);
int iswblank_l(__darwin_wint_t, locale_t);
int iswcntrl_l(__darwin_wint_t, locale_t);
int iswctype_l(__darwin_wint_t, __darwin_wctype_t, locale_t);
int iswdigit_l(__darwin_wint_t, locale_t);
int iswgraph_l(__darwin_wint_t, locale_t);
int iswlower_l(__darwin_wint_t, locale_t);
int iswprint_l(__darwin_wint_t, locale_t);
int iswpunct_l(__darwin_wint_t, locale_t);
int iswspace_l(__darwin_wint_t, locale_t);
int iswupper_l(__darwin_wint_t, locale_t);
int iswxdigit_l(__darwin_wint_t, locale_t);
__darwin_wint_t towlower_l(__darwin_wint_t, locale_t);
__darwin_wint_t towupper_l(__darwin_wint_t, locale_t);
__darwin_wctype_t wctype_l(const char*, locale_t);

int strcoll_l(const char*, const char*, locale_t);
size_t strxfrm_l(char*, const char*, size_t, locale_t);
int wcscoll_l(const wchar_t*, const wchar_t*, locale_t);
size_t wcsxfrm_l(wchar_t*, const wchar_t*, size_t, locale_t);
size_t strftime_l(char* __restrict, size_t, const char* __restrict, const struct tm* __restrict, locale_t);
char* strptime_l(const char* __restrict, const char* __restrict, struct tm* __restrict, locale_t);

double strtod_l(const char* __restrict, char** __restrict, locale_t);
float strtof_l(const char* __restrict, char** __restrict, locale_t);
long strtol_l(const char* __restrict, char** __restrict, int, locale_t);
long double strtold_l(const char* __restrict, char** __restrict, locale_t);
long long strtoll_l(const char* __restrict, char** __restrict, int, locale_t);
unsigned long strtoul_l(const char* __restrict, char** __restrict, int, locale_t);
unsigned long long strtoull_l(const char* __restrict, char** __restrict, int, locale_t);

int snprintf_l(char* __restrict, size_t, locale_t, const char* __restrict, ...) __printflike(4, 5);
int asprintf_l(char**, locale_t, const char*, ...) __printflike(3, 4);
int sscanf_l(const char* __restrict, locale_t, const char* __restrict, ...) __scanflike(3, 4);
int vsnprintf_l(char* __restrict, size_t, locale_t, const char* __restrict, va_list) __printflike(4, 0);

__darwin_wint_t btowc_l(int, locale_t);
int wctob_l(__darwin_wint_t, locale_t);
size_t mbrlen_l(const char* __restrict, size_t, __darwin_mbstate_t* __restrict, locale_t);
size_t mbrtowc_l(wchar_t* __restrict, const char* __restrict, size_t, __darwin_mbstate_t* __restrict, locale_t);
size_t mbsnrtowcs_l(wchar_t* __restrict, const char** __restrict, size_t, size_t, __darwin_mbstate_t* __restrict,
                    locale_t);
size_t mbsrtowcs_l(wchar_t* __restrict, const char** __restrict, size_t, __darwin_mbstate_t* __restrict, locale_t);
int mbtowc_l(wchar_t* __restrict, const char* __restrict, size_t, locale_t);
size_t wcrtomb_l(char* __restrict, wchar_t, __darwin_mbstate_t* __restrict, locale_t);
size_t wcsnrtombs_l(char* __restrict, const wchar_t** __restrict, size_t, size_t, __darwin_mbstate_t* __restrict,
                    locale_t);
size_t wcsrtombs_l(char* __restrict, const wchar_t** __restrict, size_t, __darwin_mbstate_t* __restrict, locale_t);
__END_DECLS
