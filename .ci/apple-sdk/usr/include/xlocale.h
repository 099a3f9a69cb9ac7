// Darwin's <xlocale.h>, which libc++ includes on Apple platforms: the C
// library functions that take an explicit locale, as xlocale(3) lists them.
// Only those that libc++'s headers call are declared.
#pragma once

#include <locale.h>
#include <stddef.h>

// The C locale, for the functions below.
#define LC_C_LOCALE ((locale_t)0)

#ifdef __cplusplus
extern "C" {
#endif

struct lconv* localeconv_l(locale_t locale);
int snprintf_l(char* buffer, size_t size, locale_t locale, const char* format, ...);
int asprintf_l(char** result, locale_t locale, const char* format, ...);
int sscanf_l(const char* text, locale_t locale, const char* format, ...);
double strtod_l(const char* text, char** end, locale_t locale);
float strtof_l(const char* text, char** end, locale_t locale);
long double strtold_l(const char* text, char** end, locale_t locale);
long long strtoll_l(const char* text, char** end, int base, locale_t locale);
unsigned long long strtoull_l(const char* text, char** end, int base, locale_t locale);

#ifdef __cplusplus
}
#endif
